// Builds viewer windows out of this system's services. Order is ownership: what is declared later uses what
// stands above it, and goes first.

#include "Tools/View/CompositionView.h"

#include <QApplication>
#include <iostream>
#include <list>
#include <memory>
#include <utility>

#include "Platform/Linux/Clipboard/X11Pasteboard.h"
#include "Platform/Linux/Clipboard/ZipFolderArchiver.h"
#include "Platform/Linux/Codec/VideoCodecFactories.h"
#include "Platform/Linux/Discovery/AvahiServiceDiscovery.h"
#include "Platform/Linux/Display/X11Pointer.h"
#include "Platform/Linux/EventLoop/QtMainQueue.h"
#include "Platform/Linux/EventLoop/QuitSignals.h"
#include "Platform/Linux/Network/QuicTransportStack.h"
#include "Platform/Linux/Painting/YuvPicturePainter.h"
#include "Platform/Linux/System/JsonPreferenceStore.h"
#include "Platform/Linux/System/LinuxKeepAwake.h"
#include "Platform/Linux/System/LinuxMachineInfo.h"
#include "Platform/Linux/System/NetworkManagerPathMonitor.h"
#include "Platform/Linux/System/PngFile.h"
#include "Platform/Linux/System/PrivateFile.h"
#include "Platform/Linux/System/TurboJpegEncoder.h"
#include "Platform/Linux/Web/QtWebSocket.h"
#include "Platform/Linux/Window/ShortcutGrabs.h"
#include "Platform/Linux/Window/X11KeyboardWatch.h"
#include "Shared/EndpointResolver.h"
#include "VelmoraKit/Core/ThreadQueue.h"
#include "VelmoraKit/Core/Utf8.h"
#include "VelmoraKit/Transport/UdpProbes.h"
#include "Viewer/Session/SignalingRendezvousPath.h"
#include "Viewer/Window/Appearance.h"
#include "Viewer/Window/DesktopFolders.h"
#include "Viewer/Window/Logo.h"
#include "Viewer/Window/ViewerSession.h"

namespace velmora {

namespace {

class ViewServices {
public:
    ViewServices(Queue& main, const SignalingUrl& rendezvous) : main_(main), rendezvous_(rendezvous) {}
    /// What runs ends before what it uses goes.
    ~ViewServices() {
        network_.reset();
        client_.end();
        files_.end();
        worker_.end();
        preferences_.flush();
    }
    ViewServices(const ViewServices&) = delete;
    ViewServices& operator=(const ViewServices&) = delete;

    ViewerSession::Services forSession() {
        return {.connection = {.transport = *network_,
                               .preferences = preferences_,
                               .paths = paths_,
                               .decompressors = *decompressors_,
                               .makeRendezvousPath = SignalingRendezvousPath::factory(
                                   rendezvous_, {sockets_, probes_, preferences_, main_})},
                .main = main_,
                .client = client_,
                .keepAwake = keepAwake_,
                .shortcuts = *shortcuts_,
                .snapshots = snapshots_,
                .captures = captures_,
                .makePainter = [] { return std::make_unique<YuvPicturePainter>(); },
                .statsFolder = stateFolder() / "stats",
                .isPointerHeld = [this] { return pointer_.isButtonHeld(); },
                .revealFile = DesktopFolders::reveal,
                .clipboard = ClipboardSync::Services{.pasteboard = pasteboard_,
                                                     .archiver = archiver_,
                                                     .main = main_,
                                                     .worker = files_,
                                                     .inbox = cacheFolder() / "Clipboard"}};
    }
    std::string clientName() const { return machine_.localizedName(); }
    const PreferenceStore& preferences() const { return preferences_; }

private:
    Queue& main_;
    const SignalingUrl rendezvous_;
    JsonPreferenceStore preferences_{JsonPreferenceStore::defaultFile()};
    LinuxMachineInfo machine_;
    LinuxKeepAwake keepAwake_{main_};
    const std::unique_ptr<ShortcutGrab> shortcuts_ = makeShortcutGrab();
    X11Pointer pointer_;
    X11Pasteboard pasteboard_{main_};
    ZipFolderArchiver archiver_;
    NetworkManagerPathMonitor paths_{main_};
    AvahiServiceDiscovery discovery_;
    EndpointResolver resolver_{discovery_, main_};
    QtWebSocketFactory sockets_;
    std::unique_ptr<VideoDecompressorFactory> decompressors_ = makeVideoDecompressorFactory();
    TurboJpegEncoder jpeg_{TurboJpegEncoder::rough};
    ThreadQueue worker_{"velmora.worker"};
    ThreadQueue files_{"velmora.files"};
    ThreadQueue client_{"velmora.quic.client"};
    FrameSnapshot snapshots_{cacheFolder() / "LastFrames", jpeg_, worker_};
    CaptureFiles captures_{{.preferences = preferences_,
                            .main = main_,
                            .worker = worker_,
                            .writePng = writePng,
                            .systemFolder = DesktopFolders::screenshots}};
    std::unique_ptr<NetworkStack> network_ = makeQuicTransportStack(
        [this](const Endpoint& service, auto found) { resolver_.resolve(service, std::move(found)); });
    UdpProbes probes_{*network_, rendezvous_.host(), main_};
};

/// A host chooses some of these words.
void complain(const ConnectionError& error) {
    constexpr std::size_t longest = 2000;
    for (const std::string& words : {error.title, error.message, error.suggestion}) {
        if (!words.empty()) std::cerr << printableLine(words, longest) << '\n';
    }
    std::cerr.flush();
}

}  // namespace

int runView(const ViewOptions& options, const SignalingUrl& rendezvous) {
    // Qt would abort.
    if (!qEnvironmentVariableIsSet("DISPLAY") && !qEnvironmentVariableIsSet("WAYLAND_DISPLAY") &&
        !qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) {
        std::cerr << "velmora-view: there is no screen here: neither DISPLAY nor WAYLAND_DISPLAY is set\n";
        return 1;
    }
    QuitSignals quitSignals;
    int argc = 1;
    char program[] = "velmora-view";
    char* argv[] = {program, nullptr};
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    QtMainQueue main;
    ViewServices services(main, rendezvous);
    introduceApplication();
    Appearance::apply(ThemePreferences::saved(services.preferences()));

    int status = 0;
    std::list<std::unique_ptr<ViewerSession>> sessions;
    for (ViewerOptions host : options.hosts) {
        host.clientName = services.clientName();
        auto& session =
            *sessions.emplace_back(std::make_unique<ViewerSession>(std::move(host), services.forSession()));
        session.onClose = [&,
                           place = std::prev(sessions.end())](const std::optional<ConnectionError>& error) {
            if (error) {
                complain(*error);
                status = 1;
            }
            sessions.erase(place);
            if (sessions.empty()) QCoreApplication::quit();
        };
    }
    const X11KeyboardWatch keyboard([&sessions] {
        for (const auto& session : sessions) session->keyboardTaken();
    });
    for (const auto& session : sessions) session->start();
    quitSignals.deliver(main, [] { QCoreApplication::quit(); });
    QCoreApplication::exec();
    quitSignals.stop();
    sessions.clear();
    return status;
}

}  // namespace velmora
