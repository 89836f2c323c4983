// Builds the application out of this system's services. Order is ownership: what is declared later uses what
// stands above it, and goes first.

#include <fmt/format.h>

#include <QApplication>
#include <QCoreApplication>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "App/AppDelegate.h"
#include "App/CompositionShared.h"
#include "App/ConsoleLines.h"
#include "App/LauncherWindow.h"
#include "App/Roles.h"
#include "Host/InputInjector.h"
#include "Host/StreamSession.h"
#include "Platform/Linux/Capture/MakeScreenCapture.h"
#include "Platform/Linux/Codec/VideoCodecFactories.h"
#include "Platform/Linux/Display/X11Displays.h"
#include "Platform/Linux/Display/XConnection.h"
#include "Platform/Linux/EventLoop/QtMainQueue.h"
#include "Platform/Linux/EventLoop/QuitSignals.h"
#include "Platform/Linux/Input/X11EventPoster.h"
#include "Platform/Linux/Input/X11KeyboardLayout.h"
#include "Platform/Linux/Launch/DesktopOpener.h"
#include "Platform/Linux/Network/LinuxNetworkAddresses.h"
#include "Platform/Linux/Network/QuicTransportStack.h"
#include "Platform/Linux/Secrets/GnuTlsKeyStore.h"
#include "Platform/Linux/Secrets/LinuxSecretStore.h"
#include "Platform/Linux/Secrets/SecretServiceKeyring.h"
#include "Platform/Linux/System/JsonPreferenceStore.h"
#include "Platform/Linux/System/PrivateFile.h"
#include "Platform/Linux/System/SystemLog.h"
#include "Platform/Linux/Web/QtHttpClient.h"
#include "Shared/RemoteDevices.h"
#include "VelmoraKit/Core/ProcessCPUSampler.h"
#include "VelmoraKit/Core/ThreadQueue.h"
#include "VelmoraKit/Transport/HostCertificate.h"
#include "VelmoraKit/Transport/UdpProbes.h"

namespace velmora {

namespace {

void printLine(const std::string& line) {
    fmt::print("{}\n", line);
    std::fflush(stdout);
}

/// Everything that the application needs of this system beside what viewer windows stand on.
class ApplicationServices {
public:
    explicit ApplicationServices(SharedServices& shared)
        : shared_(shared), main_(shared.main), probes_(*transport_, shared.rendezvous.host(), shared.main) {
        if (qobject_cast<QApplication*>(QCoreApplication::instance()))
            launcher_ = std::make_unique<LauncherWindow>(main_, shared.worker, DesktopOpener::open);
    }

    /// What runs ends first, each before what it posts to or has made there; then nothing runs any more, and
    /// the rest may go in any order.
    ~ApplicationServices() {
        transport_.reset();
        quic_.end();
        display_.end();
        input_.end();
        capture_.end();
        shared_.end();
    }
    ApplicationServices(const ApplicationServices&) = delete;
    ApplicationServices& operator=(const ApplicationServices&) = delete;

    AppDelegate::Services forDelegate(Alerts& alerts) {
        return {
            .preferences = shared_.preferences,
            .keychain = keychain_,
            .http = http_,
            .worker = shared_.worker,
            .server = {.main = main_,
                       .quic = quic_,
                       .transport = *transport_,
                       .discovery = shared_.discovery,
                       .keepAwake = shared_.keepAwake,
                       .machine = shared_.machine,
                       .loadCertificate = [this] { return HostCertificate::load(keys_); },
                       .machineKind = [this] { return thisMacKind(shared_.preferences, shared_.machine); },
                       .makeSession =
                           [this](AdmittedViewer viewer) { return makeSession(std::move(viewer)); }},
            .rendezvous = shared_.rendezvous,
            .sockets = shared_.sockets,
            .probes = probes_,
            .addresses = addresses_,
            .alerts = alerts,
            .makeWindows = [](const Windows::Contents&) { return std::make_unique<NoWindows>(); },
            .openViewerSuite =
                [] {
                    return std::make_unique<JsonPreferenceStore>(configFolder() / "com.velmora.viewer.json");
                },
            .helpPage = VELMORA_HELP_PAGE,
            .open = DesktopOpener::open};
    }

private:
    std::unique_ptr<HostSession> makeSession(AdmittedViewer viewer) {
        return std::make_unique<StreamSession>(
            std::move(viewer),
            StreamSession::Services{
                .main = main_,
                .capture = capture_,
                .display = display_,
                .input = input_,
                .keepAwake = shared_.keepAwake,
                .displays = *displays_,
                .captures = *captures_,
                .compressors = *compressors_,
                .makeInput = [this](const InputReceiverOptions& options) { return makeInput(options); },
                .clipboard = shared_.forClipboard(),
                .cpuPercent = [this] { return cpu_.sample(); }});
    }

    /// On the input queue.
    std::unique_ptr<InputReceiver> makeInput(const InputReceiverOptions& options) {
        auto poster = posters_->make({.agent = options.agent});
        if (!poster) return nullptr;
        return std::make_unique<InputInjector>(std::move(poster), *layout_, *displays_, input_, options,
                                               launcher_.get());
    }

    SharedServices& shared_;
    Queue& main_;
    SecretServiceKeyring keyring_;
    LinuxSecretStore secrets_{keyring_, LinuxSecretStore::defaultFile()};
    Keychain keychain_{secrets_};
    GnuTlsKeyStore keys_{secrets_, GnuTlsKeyStore::defaultFolder()};
    QtHttpClient http_;
    LinuxNetworkAddresses addresses_;
    std::unique_ptr<Displays> displays_ = makeDisplays();
    std::unique_ptr<ScreenCaptureFactory> captures_ = makeScreenCaptureFactory();
    std::unique_ptr<VideoCompressorFactory> compressors_ = makeVideoCompressorFactory();
    std::unique_ptr<EventPosterFactory> posters_ = makeEventPosterFactory();
    std::unique_ptr<KeyboardLayout> layout_ = makeKeyboardLayout();
    ProcessCPUSampler cpu_;                     // of the QUIC queue
    std::unique_ptr<LauncherWindow> launcher_;  // none without a display
    ThreadQueue input_{"velmora.input"};
    ThreadQueue display_{"velmora.display"};
    ThreadQueue capture_{"velmora.capture"};
    ThreadQueue quic_{"velmora.quic"};
    std::unique_ptr<NetworkStack> transport_ = makeQuicTransportStack();
    UdpProbes probes_;
};

/// Qt ends the process from within when the X server goes away; this still runs then, on the main thread.
std::function<void()> farewell;  // NOLINT: there is one end of a process

void takeLeave() {
    const auto leave = std::exchange(farewell, nullptr);
    if (!leave) return;
    leave();
    std::_Exit(EXIT_FAILURE);  // other threads are running: nothing may be destroyed under them
}

/// Windows where there is an X server for them: Qt would end the process on looking for one in vain.
std::unique_ptr<QCoreApplication> makeQt(int& argc, char** argv) {
    std::unique_ptr<QCoreApplication> qt;
    if (XConnection::open()) {
        qt = std::make_unique<QApplication>(argc, argv);
        QApplication::setQuitOnLastWindowClosed(false);
    } else {
        qt = std::make_unique<QCoreApplication>(argc, argv);
    }
    std::setlocale(LC_NUMERIC, "C");  // Qt has set the user's, whose comma no file and no library expects
    return qt;
}

}  // namespace

int runApplication(int argc, char** argv, const SignalingUrl& rendezvous) {
    QuitSignals quitSignals;  // before any thread
    const auto qt = makeQt(argc, argv);
    QtMainQueue main;
    SystemLog::install();

    SharedServices shared(main, rendezvous);
    ApplicationServices services(shared);
    ConsoleLines lines(printLine);
    AppDelegate delegate(services.forDelegate(lines));
    delegate.onQuit = [] { QCoreApplication::quit(); };
    quitSignals.deliver(main, [&delegate] { delegate.quit(); });
    farewell = [&delegate] {
        delegate.leave();
        std::this_thread::sleep_for(AppDelegate::goodbyeTime);
    };
    std::atexit(takeLeave);
    delegate.start();
    lines.follow(delegate.identity(), delegate.menuModel());
    const int code = QCoreApplication::exec();
    farewell = nullptr;
    quitSignals.stop();
    return code;
}

}  // namespace velmora
