// Builds the agent bridge out of this system's services. Order is ownership: what is declared later uses what
// stands above it, and goes first.

#include <QCoreApplication>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Agent/AgentArguments.h"
#include "Agent/AgentSession.h"
#include "Agent/AgentTools.h"
#include "Agent/KnownDevices.h"
#include "Agent/MCPServer.h"
#include "App/Roles.h"
#include "Platform/Linux/Codec/VideoCodecFactories.h"
#include "Platform/Linux/Discovery/AvahiServiceDiscovery.h"
#include "Platform/Linux/EventLoop/QtMainQueue.h"
#include "Platform/Linux/EventLoop/QuitSignals.h"
#include "Platform/Linux/Network/QuicTransportStack.h"
#include "Platform/Linux/Secrets/LinuxSecretStore.h"
#include "Platform/Linux/Secrets/SecretServiceKeyring.h"
#include "Platform/Linux/System/JsonPreferenceStore.h"
#include "Platform/Linux/System/LineStreams.h"
#include "Platform/Linux/System/LinuxMachineInfo.h"
#include "Platform/Linux/System/NetworkManagerPathMonitor.h"
#include "Platform/Linux/System/SystemLog.h"
#include "Platform/Linux/System/TurboJpegEncoder.h"
#include "Platform/Linux/Web/QtHttpClient.h"
#include "Platform/Linux/Web/QtWebSocket.h"
#include "Shared/EndpointResolver.h"
#include "VelmoraKit/Core/ThreadQueue.h"
#include "VelmoraKit/Transport/UdpProbes.h"
#include "Viewer/Session/SignalingRendezvousPath.h"

namespace velmora {

namespace {

using namespace std::chrono_literals;

/// Everything that a viewer without a window needs of this system.
class AgentServices {
public:
    AgentServices(Queue& main, const SignalingUrl& rendezvous)
        : main_(main), rendezvous_(rendezvous), paths_(main) {}

    AgentSession::Services forSession() {
        return {.viewer = {.transport = *network_,
                           .preferences = preferences_,
                           .paths = paths_,
                           .decompressors = *decompressors_,
                           .makeRendezvousPath = SignalingRendezvousPath::factory(
                               rendezvous_, {sockets_, probes_, preferences_, main_})},
                .devices = known_,
                .jpeg = jpeg_,
                .main = main_,
                .client = client_,
                .worker = worker_};
    }
    std::string clientName() const { return machine_.localizedName() + " (agent)"; }

private:
    Queue& main_;
    const SignalingUrl rendezvous_;
    JsonPreferenceStore preferences_{JsonPreferenceStore::defaultFile()};
    SecretServiceKeyring keyring_;
    LinuxSecretStore secrets_{keyring_, LinuxSecretStore::defaultFile()};
    Keychain keychain_{secrets_};
    LinuxMachineInfo machine_;
    NetworkManagerPathMonitor paths_;
    AvahiServiceDiscovery discovery_;
    EndpointResolver resolver_{discovery_, main_};
    QtHttpClient http_;
    QtWebSocketFactory sockets_;
    std::unique_ptr<VideoDecompressorFactory> decompressors_ = makeVideoDecompressorFactory();
    TurboJpegEncoder jpeg_;
    ThreadQueue worker_{"velmora.worker"};
    ThreadQueue client_{"velmora.quic.client"};
    RemoteDevices devices_{{.preferences = preferences_,
                            .keychain = keychain_,
                            .discovery = discovery_,
                            .http = http_,
                            .main = main_,
                            .worker = worker_,
                            .rendezvous = rendezvous_}};
    KnownDevices known_{devices_};
    // Last: it ends before whatever it posts to.
    std::unique_ptr<NetworkStack> network_ = makeQuicTransportStack(
        [this](const Endpoint& service, auto found) { resolver_.resolve(service, std::move(found)); });
    UdpProbes probes_{*network_, rendezvous_.host(), main_};
};

/// Serves one agent from its first line to its last.
void serve(const AgentArguments& arguments, const SignalingUrl& rendezvous, Queue& main,
           QuitSignals& quitSignals, LineStreams& agent) {
    AgentServices services(main, rendezvous);
    AgentSession session({.deviceName = arguments.deviceName,
                          .display = arguments.display,
                          .clientName = services.clientName()},
                         services.forSession());
    AgentTools tools(session, main);
    MCPServer server(tools, main, [&agent](std::string line) { agent.write(std::move(line)); }, {});
    server.onFinished = [] { QCoreApplication::quit(); };
    agent.read(
        main, [&server](const std::string& line) { server.takeLine(line); },
        [&server] { server.endInput(); });
    quitSignals.deliver(main, [&server] { server.endInput(); });
    QCoreApplication::exec();
}

}  // namespace

int runAgentBridge(int argc, char** argv, const SignalingUrl& rendezvous) {
    const auto arguments = AgentArguments::parse({argv, argv + argc});
    if (!arguments) {
        std::fprintf(stderr, "%s\n", std::string(AgentArguments::usage).c_str());
        return AgentArguments::usageStatus;
    }
    LineStreams::Ends standardStreams = LineStreams::takeStandardStreams();
    QuitSignals quitSignals;  // before any thread
    int qtArgc = 1;
    char program[] = "Velmora";
    char* qtArgv[] = {program, nullptr};
    QCoreApplication qt(qtArgc, qtArgv);
    QtMainQueue main;
    LineStreams agent(standardStreams);
    LineStreams diary(LineStreams::standardError());
    SystemLog::install();
    DebugLog::shared().setObserver(&main, [&diary](const std::optional<DebugLog::Entry>& entry) {
        if (entry) diary.write(DebugLog::lineOf(*entry));
    });

    serve(*arguments, rendezvous, main, quitSignals, agent);

    DebugLog::shared().setObserver(nullptr, nullptr);
    agent.flush(1s);  // a large picture may still be on its way
    diary.flush(100ms);
    return 0;
}

}  // namespace velmora
