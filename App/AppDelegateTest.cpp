#include "App/AppDelegate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "App/ConsoleLines.h"
#include "Testing/DiaryReader.h"
#include "Testing/FakeHttpClient.h"
#include "Testing/FakeKeepAwake.h"
#include "Testing/FakeMachineInfo.h"
#include "Testing/FakeNetworkAddresses.h"
#include "Testing/FakePreferenceStore.h"
#include "Testing/FakeSecretStore.h"
#include "Testing/FakeServiceDiscovery.h"
#include "Testing/FakeUdpPort.h"
#include "Testing/FakeWebSocket.h"
#include "Testing/SimulatedLink.h"
#include "Testing/VirtualQueue.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using Device = RemoteDevices::Device;
using Kind = ConnectionError::Kind;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class FakeAlerts final : public Alerts {
public:
    std::vector<Alert> shown;
    void show(Alert alert, std::function<void(std::size_t)> chosen) override {
        shown.push_back(std::move(alert));
        chosen_ = std::move(chosen);
    }
    void choose(std::size_t button) { chosen_(button); }

private:
    std::function<void(std::size_t)> chosen_;
};

/// What is on the screen, and how it came about.
class FakeWindows final : public Windows {
public:
    struct OpenViewer {
        ViewerOptions options;
        Viewer* viewer;
        bool isStarted = false;
        int timesForward = 0;
    };
    std::vector<std::string> events;
    std::list<OpenViewer> viewers;  // that exist
    std::function<void(const NewDevice&)> confirm;
    std::function<void(const std::string&)> save;

    std::unique_ptr<Viewer> makeViewer(ViewerOptions options) override {
        return std::make_unique<Probe>(*this, std::move(options));
    }
    void showPanel() override {
        events.emplace_back("panel");
        onPanelShown();
    }
    void hidePanel() override { events.emplace_back("panel hidden"); }
    void openAddDevice(const std::string& name, const std::string& hostID,
                       std::function<void(const NewDevice&)> confirmed) override {
        events.push_back("add device [" + name + "] [" + hostID + "]");
        confirm = std::move(confirmed);
    }
    void openChangePassword(const std::string& current,
                            std::function<void(const std::string&)> saved) override {
        events.push_back("change password " + current);
        save = std::move(saved);
    }
    void showDebugLog(Focus focus) override {
        events.emplace_back(focus == Focus::left ? "debug log behind" : "debug log");
    }
    void applyTheme(Theme theme) override {
        events.push_back("theme " + std::string(ThemePreferences::wordFor(theme)));
    }

private:
    class Probe final : public Viewer {
    public:
        Probe(FakeWindows& windows, ViewerOptions options)
            : windows_(windows),
              place_(windows.viewers.insert(windows.viewers.end(), {std::move(options), this})) {}
        ~Probe() override { windows_.viewers.erase(place_); }
        void start() override { place_->isStarted = true; }
        void disconnect() override { windows_.events.push_back("goodbye to " + place_->options.name); }
        void bringForward() override { ++place_->timesForward; }
        void keyboardTaken() override {}

    private:
        FakeWindows& windows_;
        const std::list<OpenViewer>::iterator place_;
    };
};

class AppDelegateTest : public testing::Test {
protected:
    AppDelegateTest() {
        link.setConditions({.delay = 0ms});
        preferences.set("host.id", std::string("123456789"));
        EXPECT_TRUE(keychain.save("042137", "com.velmora.host", "password", "label"));
    }
    ~AppDelegateTest() override {
        advertised.clear();
        delegate.reset();
        time.advanceBy(1s);
    }
    void start() {
        delegate = std::make_unique<AppDelegate>(AppDelegate::Services{
            .preferences = preferences,
            .keychain = keychain,
            .http = http,
            .worker = worker,
            .server = {.main = main,
                       .quic = quic,
                       .transport = link,
                       .discovery = discovery,
                       .keepAwake = keepAwake,
                       .machine = machine,
                       .loadCertificate = [this]() -> Result<HostIdentityCertificate, KeyStore::Lack> {
                           if (!hasCertificate) return KeyStore::Lack::absent;
                           return HostIdentityCertificate{{.certificate = bytesOf("AB01"), .privateKey = {3}},
                                                          "AB01"};
                       },
                       .machineKind = [] { return MacKind::macmini; },
                       .makeSession = [](const AdmittedViewer&) { return nullptr; }},
            .rendezvous = *SignalingUrl::parse("wss://rendezvous.example"),
            .sockets = sockets,
            .probes = probes,
            .addresses = addresses,
            .alerts = alerts,
            .makeWindows =
                [this](const Windows::Contents& contents) {
                    devices = &contents.devices;
                    auto made = std::make_unique<FakeWindows>();
                    windows = made.get();
                    return made;
                },
            .openViewerSuite =
                [this] {
                    auto suite = std::make_unique<FakePreferenceStore>();
                    for (const auto& [key, value] : viewerSuite) suite->set(key, value);
                    return suite;
                },
            .helpPage = "https://site.example/faq",
            .open = [this](const std::string& page) -> Result<std::string> {
                opened.push_back(page);
                return Failure{"no browser"};
            }});
        delegate->onQuit = [this] { ++timesQuit; };
        delegate->start();
        lines.emplace([this](const std::string& line) { told.push_back(line); });
        lines->follow(delegate->identity(), delegate->menuModel());
        settle();
    }
    void settle() {
        time.settle();
        while (http.requests.size() > answered) http.fail(answered++);
    }
    MenuModel::Actions& menu() { return delegate->menuModel().actions; }
    const MenuModel::State& state() { return delegate->menuModel().state(); }
    /// What happened on the screen since it was last asked.
    std::vector<std::string> events() { return std::exchange(windows->events, {}); }
    void advertise(const std::string& name, const ServiceDiscovery::TxtRecord& txt) {
        advertised.push_back(discovery.publish({name, "_velmora._udp", 47272, txt}, main, nullptr));
        settle();
    }
    std::optional<Device> device(const std::string& name) {
        const auto found = std::ranges::find(devices->devices(), name, &Device::name);
        return found == devices->devices().end() ? std::nullopt : std::optional(*found);
    }
    /// Saved by hand, with or without connecting.
    void add(const Windows::NewDevice& entry) {
        menu().addDevice();
        settle();
        windows->confirm(entry);
        settle();
        events();
    }
    FakeWindows::OpenViewer& viewer() { return windows->viewers.back(); }
    void end(const std::optional<ConnectionError>& error) {
        const auto notify = viewer().viewer->onClose;
        notify(error);
        settle();
    }

    VirtualTime time;
    SimulatedLink link{time};
    VirtualQueue main{time, "main"}, quic{time, "velmora.quic"}, worker{time, "velmora.worker"};
    DiaryReader diary;
    FakePreferenceStore preferences;
    FakeSecretStore secrets;
    Keychain keychain{secrets};
    FakeHttpClient http;
    FakeServiceDiscovery discovery;
    FakeKeepAwake keepAwake{main};
    FakeMachineInfo machine;
    FakeWebSocketFactory sockets;
    FakeUdpPort network;
    UdpProbes probes{network, "stun.example", main};
    FakeNetworkAddresses addresses;
    FakeAlerts alerts;
    std::vector<std::string> told, opened;
    std::optional<ConsoleLines> lines;
    std::map<std::string, PreferenceValue> viewerSuite;
    bool hasCertificate = true;
    std::vector<std::unique_ptr<ServiceDiscovery::Request>> advertised;
    std::size_t answered = 0;
    int timesQuit = 0;
    std::unique_ptr<AppDelegate> delegate;
    FakeWindows* windows = nullptr;
    RemoteDevices* devices = nullptr;
};

TEST_F(AppDelegateTest, itServesFromTheStartUntilItIsStoppedInTheMenu) {
    start();
    EXPECT_TRUE(state().serverRunning);
    EXPECT_EQ(state().serverStatus, "Running · waiting for a viewer");
    EXPECT_EQ(state().idStatus.kind, HostSignaling::Status::Kind::connecting);
    EXPECT_THAT(diary.hostLines(), Contains("Velmora started"));
    EXPECT_THAT(told,
                ElementsAre("Host ID 123 456 789 · password 042 137", "Running · waiting for a viewer"));

    events();
    menu().stopServer();
    EXPECT_TRUE(state().serverRunning) << "the panel goes first";
    EXPECT_THAT(events(), ElementsAre("panel hidden"));
    settle();
    EXPECT_FALSE(state().serverRunning);
    EXPECT_EQ(state().idStatus.kind, HostSignaling::Status::Kind::off);
    EXPECT_EQ(told.back(), "Stopped");
    menu().startServer();
    settle();
    EXPECT_EQ(state().serverStatus, "Running · waiting for a viewer");

    preferences.set("host.startOnLaunch", false);
    delegate.reset();
    told.clear();
    start();
    EXPECT_FALSE(state().serverRunning);
    EXPECT_THAT(sockets.ends.back()->gone, true);
    EXPECT_THAT(told, ElementsAre(StartsWith("Stopped ("), StartsWith("Host ID")));
}

TEST_F(AppDelegateTest, nobodyIsLetInBeforeThePasswordCanBeRead) {
    secrets.setLocked(true);
    start();
    EXPECT_TRUE(state().serverRunning) << "so that it can be stopped";
    EXPECT_EQ(state().serverStatus, "Waiting for this Mac's keychain to be unlocked");
    EXPECT_THAT(sockets.ends, IsEmpty());
    secrets.setLocked(false);
    time.advanceBy(5s);
    EXPECT_EQ(state().serverStatus, "Running · waiting for a viewer");

    delegate.reset();
    secrets.setLocked(true);
    start();
    menu().newPassword();
    menu().changePassword();
    settle();
    EXPECT_THAT(events(), Not(Contains(StartsWith("change password"))));
    ASSERT_EQ(alerts.shown.size(), 2u);
    EXPECT_EQ(alerts.shown[1].title, "This Mac's password can't be changed yet");
    menu().stopServer();
    secrets.setLocked(false);
    time.advanceBy(10s);
    EXPECT_EQ(state().serverStatus, "Stopped");
}

TEST_F(AppDelegateTest, whatCannotWaitIsAnAlert) {
    hasCertificate = false;
    start();
    time.advanceBy(10s);
    ASSERT_EQ(alerts.shown.size(), 1u);
    EXPECT_EQ(alerts.shown[0].title, "Velmora can't accept viewers yet");
    sockets.newest().open();
    sockets.newest().sendText(R"({"type":"security_notice","message":"12 wrong passwords"})");
    settle();
    ASSERT_EQ(alerts.shown.size(), 2u);
    EXPECT_EQ(alerts.shown[1], (Alert{"Someone is guessing this Mac's password", "12 wrong passwords"}));
    menu().openHelp();
    settle();
    EXPECT_THAT(opened, ElementsAre("https://site.example/faq"));
    EXPECT_EQ(alerts.shown.back().text, "no browser");
}

TEST_F(AppDelegateTest, passwordsAreChangedAndPublished) {
    start();
    sockets.newest().open();
    settle();
    sockets.newest().received.clear();
    menu().changePassword();
    settle();
    EXPECT_THAT(events(), Contains("change password 042137"));
    windows->save("042137");
    EXPECT_THAT(diary.hostLines(), Not(Contains(HasSubstr("no longer works"))));
    windows->save("111222");
    settle();
    EXPECT_THAT(sockets.newest().received, ElementsAre(HasSubstr("111222")));
    EXPECT_THAT(diary.hostLines(), Contains("Password changed; the old one no longer works"));
    menu().newPassword();
    settle();
    EXPECT_EQ(sockets.newest().received.size(), 2u);
    EXPECT_NE(keychain.read("com.velmora.host", "password"), "111222");
    EXPECT_EQ(told.back(),
              "Host ID 123 456 789 · password " + HostIdentity::grouped(delegate->identity().password()));
}

TEST_F(AppDelegateTest, aViewerOpensWithWhatIsKnownOfTheDevice) {
    start();
    add({.name = "Den", .hostID = "987654321", .password = "123123"});
    EXPECT_THAT(windows->viewers, IsEmpty());
    events();
    menu().connect(*device("Den"));  // which nobody has seen online
    EXPECT_THAT(windows->viewers, IsEmpty()) << "the panel goes first";
    settle();
    ASSERT_EQ(windows->viewers.size(), 1u);
    EXPECT_TRUE(viewer().isStarted);
    EXPECT_EQ(viewer().options.target, RemoteDevices::Target(RemoteDevices::HostId{"987654321"}));
    EXPECT_EQ(viewer().options.name, "Den");
    EXPECT_EQ(viewer().options.password, "123123");
    EXPECT_EQ(viewer().options.clientName, "Studio");
    EXPECT_THAT(events(), ElementsAre("panel hidden"));
    menu().connect(*device("Den"));
    settle();
    EXPECT_EQ(windows->viewers.size(), 1u);
    EXPECT_EQ(viewer().timesForward, 1);
    events();

    preferences.set("openDebugLogOnConnect", true);
    advertise("Attic", {{"fp", "CD02"}});
    menu().connect(*device("Attic"));
    settle();
    ASSERT_EQ(windows->viewers.size(), 2u);
    EXPECT_TRUE(viewer().options.lanEndpoint);
    EXPECT_EQ(viewer().options.fingerprint, "CD02");
    EXPECT_EQ(viewer().options.password, std::nullopt);
    EXPECT_THAT(events(), ElementsAre("panel hidden", "debug log behind"));

    end(std::nullopt);
    EXPECT_EQ(viewer().options.name, "Den") << "the other stays";
    EXPECT_THAT(alerts.shown, IsEmpty());
}

TEST_F(AppDelegateTest, aFoundMacWithAHostIdIsAskedForOnce) {
    start();
    advertise("Den", {{"id", "987654321"}});
    const Device found = *device("Den");
    events();
    menu().connect(found);
    settle();
    EXPECT_THAT(events(), ElementsAre("panel hidden", "add device [Den] [987654321]"));
    EXPECT_THAT(windows->viewers, IsEmpty());
    windows->confirm({.name = "My den", .hostID = "987654321", .password = "123123", .connect = true});
    settle();
    ASSERT_EQ(windows->viewers.size(), 1u);
    EXPECT_EQ(viewer().options.name, "My den");
    EXPECT_EQ(viewer().options.password, "123123");
    events();
    menu().connect(found);  // as a panel that was open all the time has it
    settle();
    EXPECT_THAT(events(), ElementsAre("panel hidden")) << "nobody is asked again";
    EXPECT_EQ(windows->viewers.size(), 1u);
    EXPECT_EQ(viewer().timesForward, 1);
}

struct EndCase {
    const char* name;
    ConnectionError error;
    bool byHostId;
    std::vector<std::string> buttons;
    const char* first;  // what the first button does
};
class AppDelegateErrorTest : public AppDelegateTest, public testing::WithParamInterface<EndCase> {};

TEST_P(AppDelegateErrorTest, theAlertOffersWhatCanHelp) {
    start();
    if (GetParam().byHostId) {
        add({.name = "Den", .hostID = "987654321", .password = "123123", .connect = true});
    } else {
        advertise("Den", {{"fp", "CD02"}});
        menu().connect(*device("Den"));
        settle();
    }
    events();
    end(GetParam().error);
    EXPECT_THAT(windows->viewers, IsEmpty());
    ASSERT_EQ(alerts.shown.size(), 1u);
    const Alert& alert = alerts.shown[0];
    EXPECT_EQ(alert.title, GetParam().error.title);
    EXPECT_THAT(alert.text, StartsWith(GetParam().error.message));
    if (GetParam().error.suggestion.empty()) {
        EXPECT_EQ(alert.text, GetParam().error.message);
    } else {
        EXPECT_THAT(alert.text, HasSubstr("\n\n" + GetParam().error.suggestion));
    }
    EXPECT_EQ(alert.style,
              GetParam().error.kind == Kind::locked ? Alert::Style::critical : Alert::Style::warning);
    EXPECT_EQ(alert.buttons, GetParam().buttons);
    if (alert.buttons.size() > 1) {
        alerts.choose(1);
        settle();
        EXPECT_THAT(windows->viewers, IsEmpty());
        EXPECT_THAT(events(), IsEmpty());
    }
    alerts.choose(0);
    settle();
    EXPECT_EQ(windows->viewers.empty() ? "" : viewer().options.name,
              GetParam().first == std::string("again") ? "Den" : "");
    const auto seen = events();
    EXPECT_EQ(seen.empty() ? "" : seen[0],
              GetParam().first == std::string("ask") ? "add device [Den] [987654321]" : "");
}

INSTANTIATE_TEST_SUITE_P(
    , AppDelegateErrorTest,
    testing::Values(
        EndCase{"WrongPassword",
                ConnectionError::wrongPassword("Den"),
                true,
                {"Enter Password…", "Cancel"},
                "ask"},
        EndCase{"NoPassword",
                ConnectionError::noSavedPassword("Den"),
                true,
                {"Enter Password…", "Cancel"},
                "ask"},
        EndCase{"WrongPasswordAtAPlace", ConnectionError::wrongPassword("Den"), false, {"OK"}, "nothing"},
        EndCase{"Locked", ConnectionError::locked("Den"), true, {"OK"}, "nothing"},
        EndCase{"LocalOnly", ConnectionError::onlyLocalNetwork("Den"), true, {"OK"}, "nothing"},
        EndCase{"Ended", ConnectionError::endedByHost("Den"), true, {"Try Again", "Cancel"}, "again"},
        EndCase{
            "LostAtAPlace", ConnectionError::connectionLost("Den"), false, {"Try Again", "Cancel"}, "again"}),
    [](const auto& info) { return info.param.name; });

TEST_F(AppDelegateTest, anotherPasswordTakesTheWrongOnesPlace) {
    start();
    add({.name = "Den", .hostID = "987654321", .password = "123123", .connect = true});
    end(ConnectionError::wrongPassword("Den"));
    alerts.choose(0);
    windows->confirm({.name = "Den", .hostID = "987654321", .password = "321321", .connect = true});
    settle();
    EXPECT_EQ(viewer().options.password, "321321");
    EXPECT_EQ(devices->devices().size(), 1u) << "without this machine itself";
    menu().removeDevice(*device("Den"));
    settle();
    EXPECT_FALSE(device("Den"));
}

TEST_F(AppDelegateTest, aPasswordThatCannotBeSavedStillOpensTheWindowItWasEnteredFor) {
    start();
    add({.name = "Den", .hostID = "987654321", .password = "123123"});
    secrets.setLocked(true);
    menu().connect(*device("Den"));
    settle();
    EXPECT_EQ(viewer().options.password, std::nullopt);
    end(ConnectionError::noSavedPassword("Den"));
    alerts.choose(0);
    windows->confirm({.name = "Den", .hostID = "987654321", .password = "123123", .connect = true});
    settle();
    EXPECT_EQ(viewer().options.password, "123123");
}

TEST_F(AppDelegateTest, thePanelAsksWhoIsOnlineWheneverItOpens) {
    start();
    add({.name = "Den", .hostID = "987654321", .password = "123123"});
    const auto before = http.requests.size();
    EXPECT_TRUE(delegate->startedAgain());
    settle();
    EXPECT_EQ(http.requests.size(), before + 1);
    windows->onOpenSettings();
    settle();
    EXPECT_EQ(http.requests.size(), before + 2);
}

TEST_F(AppDelegateTest, whatTheViewerRememberedMovesInOnce) {
    viewerSuite = {{"deviceID", std::string("old-id")},
                   {"screenMode", std::int64_t{1}},
                   {"showStatsOverlay", true},
                   {"appTheme", std::string("dark")}};
    preferences.set("showStatsOverlay", false);
    start();
    EXPECT_EQ(preferences.string("deviceID"), "old-id");
    EXPECT_EQ(preferences.integerOr("screenMode", 0), 1);
    EXPECT_FALSE(preferences.boolOr("showStatsOverlay", true)) << "what is there already stays";
    EXPECT_FALSE(preferences.get("appTheme")) << "it never was the viewer's";
    EXPECT_FALSE(preferences.get("openDebugLogOnConnect"));

    viewerSuite["openDebugLogOnConnect"] = true;
    delegate.reset();
    start();
    EXPECT_FALSE(preferences.get("openDebugLogOnConnect"));
}

TEST_F(AppDelegateTest, theThemeIsThatOfThePreferencesAtAllTimes) {
    preferences.set("appTheme", std::string("dark"));
    start();
    preferences.set("appTheme", std::string("sepia"));
    preferences.set("playSound", false);
    settle();
    EXPECT_THAT(events(), ElementsAre("theme dark", "theme auto"));
}

TEST_F(AppDelegateTest, quittingTellsEverybodyAndLosesNothing) {
    start();
    add({.name = "Den", .hostID = "987654321", .password = "123123", .connect = true});
    windows->onQuit();
    EXPECT_EQ(windows->viewers.size(), 1u) << "the window that asks is still needed in this turn";
    menu().quit();
    settle();
    EXPECT_THAT(windows->viewers, IsEmpty());
    EXPECT_THAT(events(), ElementsAre("panel hidden", "goodbye to Den"));
    EXPECT_EQ(state().serverStatus, "Stopped");
    EXPECT_EQ(timesQuit, 0) << "goodbyes are on their way";
    EXPECT_FALSE(delegate->startedAgain());
    time.advanceBy(AppDelegate::goodbyeTime);
    EXPECT_EQ(timesQuit, 1);
    time.advanceBy(10s);
    EXPECT_EQ(timesQuit, 1);
}

TEST_F(AppDelegateTest, aQuitWithNobodyToTellTakesNoTimeAndEndsWhatWasBegun) {
    start();
    add({.name = "Den", .hostID = "987654321", .password = "123123", .connect = true});
    end(ConnectionError::connectionLost("Den"));
    const Device den = *device("Den");
    menu().connect(den);
    delegate->quit();
    settle();
    EXPECT_EQ(timesQuit, 1);
    alerts.choose(0);
    settle();
    EXPECT_THAT(windows->viewers, IsEmpty()) << "nothing opens any more";
}

}  // namespace
}  // namespace velmora
