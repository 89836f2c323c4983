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
#include "App/CompositionViewer.h"
#include "App/ConsoleLines.h"
#include "App/LauncherWindow.h"
#include "App/QtAlerts.h"
#include "App/QtWindows.h"
#include "App/Roles.h"
#include "App/TrayStatusItem.h"
#include "Host/InputInjector.h"
#include "Host/StreamSession.h"
#include "Platform/Linux/Accessibility/AtSpiTextFocusSource.h"
#include "Platform/Linux/Capture/MakeScreenCapture.h"
#include "Platform/Linux/Capture/X11CursorSource.h"
#include "Platform/Linux/Codec/VideoCodecFactories.h"
#include "Platform/Linux/Display/WaylandDisplay.h"
#include "Platform/Linux/Display/X11Displays.h"
#include "Platform/Linux/Display/XConnection.h"
#include "Platform/Linux/EventLoop/QtMainQueue.h"
#include "Platform/Linux/EventLoop/QuitSignals.h"
#include "Platform/Linux/Input/X11EventPoster.h"
#include "Platform/Linux/Input/X11KeyboardLayout.h"
#include "Platform/Linux/Launch/DesktopOpener.h"
#include "Platform/Linux/Launch/SingleInstance.h"
#include "Platform/Linux/Network/LinuxNetworkAddresses.h"
#include "Platform/Linux/Network/QuicTransportStack.h"
#include "Platform/Linux/Secrets/GnuTlsKeyStore.h"
#include "Platform/Linux/Secrets/LinuxSecretStore.h"
#include "Platform/Linux/Secrets/SecretServiceKeyring.h"
#include "Platform/Linux/System/FreedMemory.h"
#include "Platform/Linux/System/JsonPreferenceStore.h"
#include "Platform/Linux/System/PrivateFile.h"
#include "Platform/Linux/System/SystemLog.h"
#include "Platform/Linux/Tray/LinuxTrayPresence.h"
#include "Platform/Linux/Web/QtHttpClient.h"
#include "Platform/Linux/Window/X11KeyboardWatch.h"
#include "Platform/Linux/Window/X11PanelDesktop.h"
#include "Shared/RemoteDevices.h"
#include "VelmoraKit/Core/ProcessCPUSampler.h"
#include "VelmoraKit/Core/ThreadQueue.h"
#include "VelmoraKit/Core/Utf8.h"
#include "VelmoraKit/Transport/HostCertificate.h"
#include "VelmoraKit/Transport/UdpProbes.h"
#include "Viewer/Window/Appearance.h"
#include "Viewer/Window/Logo.h"

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

    AppDelegate::Services forDelegate(
        Alerts& alerts, std::function<std::unique_ptr<Windows>(const Windows::Contents&)> makeWindows) {
        return {
            .preferences = shared_.preferences,
            .keychain = keychain_,
            .http = http_,
            .worker = shared_.worker,
            .server = {
                .main = main_,
                .quic = quic_,
                .transport = *transport_,
                .discovery = shared_.discovery,
                .keepAwake = shared_.keepAwake,
                .machine = shared_.machine,
                .loadCertificate = [this] { return HostCertificate::load(keys_); },
                .machineKind = [this] { return thisMacKind(shared_.preferences, shared_.machine); },
                .makeSession = [this](AdmittedViewer viewer) { return makeSession(std::move(viewer)); }},
            .rendezvous = shared_.rendezvous,
            .sockets = shared_.sockets,
            .probes = probes_,
            .addresses = addresses_,
            .alerts = alerts,
            .makeWindows = std::move(makeWindows),
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
                .cursor = cursor_,
                .textFocus = textFocus_,
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
    X11CursorSource cursor_{main_};
    AtSpiTextFocusSource textFocus_{main_};
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

/// Windows where there is a display for them: Qt would end the process on looking for one in vain.
std::unique_ptr<QCoreApplication> makeQt(int& argc, char** argv) {
    const bool hasX = XConnection::open().ok();
    std::unique_ptr<QCoreApplication> qt;
    if (hasX || hasWaylandDisplay()) {
        // By itself Qt would go by the name of the session, which a script may have left out.
        if (!hasX && !qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "wayland");
        qt = std::make_unique<QApplication>(argc, argv);
        QApplication::setQuitOnLastWindowClosed(false);
        introduceApplication();
    } else {
        qt = std::make_unique<QCoreApplication>(argc, argv);
    }
    std::setlocale(LC_NUMERIC, "C");  // Qt has set the user's, whose comma no file and no library expects
    return qt;
}

/// The application's windows and alerts, and what they stand on.
class Screen {
public:
    explicit Screen(SharedServices& shared)
        : shared_(shared), viewer_(shared), tray_(windowKind()), statusItem_(tray_), alerts_(shared.main) {}

    Alerts& alerts() { return alerts_; }
    std::unique_ptr<Windows> makeWindows(const Windows::Contents& contents) {
        Appearance::apply(ThemePreferences::saved(shared_.preferences));  // before the first widget
        // A session that starts us with itself says so. Nobody has asked for a window then: without a tray a
        // second start opens the panel.
        const bool isAskedFor = !qEnvironmentVariableIsSet("DESKTOP_AUTOSTART_ID");
        MenuPanelController::Parameters panel;
        if (!isAskedFor) panel.trayPatience.reset();
        if (windowKind() == LinuxTrayPresence::Windows::x11) panel.desktop = &desktop_.emplace();
        return std::make_unique<QtWindows>(
            contents, QtWindows::Services{.main = shared_.main,
                                          .preferences = shared_.preferences,
                                          .pasteboard = *shared_.pasteboard,
                                          .alerts = alerts_,
                                          .statusItem = statusItem_,
                                          .forSession = [this] { return viewer_.forSession(); },
                                          .panel = panel});
    }
    /// For whoever starts the program again.
    static std::string place() {
        const bool isX = windowKind() == LinuxTrayPresence::Windows::x11;
        return qEnvironmentVariable(isX ? "DISPLAY" : "WAYLAND_DISPLAY").toStdString();
    }

private:
    static LinuxTrayPresence::Windows windowKind() {
        return QGuiApplication::platformName() == QLatin1String("xcb") ? LinuxTrayPresence::Windows::x11
                                                                       : LinuxTrayPresence::Windows::wayland;
    }

    SharedServices& shared_;
    ViewerServices viewer_;
    LinuxTrayPresence tray_;
    TrayStatusItem statusItem_;
    std::optional<X11PanelDesktop> desktop_;  // none on Wayland
    QtAlerts alerts_;
};

/// In a second start: what the first said, which is for whoever started it.
int tellSecondStart(const SingleInstance& instance) {
    if (instance.answer()) {
        constexpr std::size_t longest = 500;
        printLine(printableLine(*instance.answer(), longest));
        return EXIT_SUCCESS;
    }
    fmt::print(stderr, "Velmora: it is running already, but does not answer\n");
    return EXIT_FAILURE;
}

}  // namespace

int runApplication(int argc, char** argv, const SignalingUrl& rendezvous) {
    returnFreedPictures();
    QuitSignals quitSignals;  // before any thread
    const auto qt = makeQt(argc, argv);
    SingleInstance instance(SingleInstance::defaultPlace());
    if (!instance.isFirst()) return tellSecondStart(instance);
    QtMainQueue main;
    SystemLog::install();

    SharedServices shared(main, rendezvous);
    ApplicationServices services(shared);
    ConsoleLines lines(printLine);
    std::optional<Screen> screen;
    if (qobject_cast<QApplication*>(qt.get()))
        screen.emplace(shared);
    else
        lines.tell("There is no display: Velmora shows no windows, and its viewers see nothing");
    AppDelegate delegate(
        services.forDelegate(screen ? screen->alerts() : static_cast<Alerts&>(lines),
                             [&screen](const Windows::Contents& contents) -> std::unique_ptr<Windows> {
                                 if (!screen) return std::make_unique<NoWindows>();
                                 return screen->makeWindows(contents);
                             }));
    delegate.onQuit = [] { QCoreApplication::exit(); };  // quit() asks the windows, which may refuse
    quitSignals.deliver(main, [&delegate] { delegate.quit(); });
    farewell = [&delegate] {
        delegate.leave();
        std::this_thread::sleep_for(AppDelegate::goodbyeTime);
    };
    std::atexit(takeLeave);
    instance.listen([&]() -> std::optional<std::string> {
        if (!delegate.startedAgain()) return std::nullopt;
        if (!screen) return "Velmora is running already, without a display: it has no panel to show";
        return fmt::format("Velmora is running already; its panel is open on {}", Screen::place());
    });
    const X11KeyboardWatch keyboard([&delegate] { delegate.keyboardTaken(); });
    delegate.start();
    lines.follow(delegate.identity(), delegate.menuModel());
    const int code = QCoreApplication::exec();
    farewell = nullptr;
    quitSignals.stop();
    return code;
}

}  // namespace velmora
