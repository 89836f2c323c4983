#include "Agent/AgentSession.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <map>

#include "Testing/FakeJpegEncoder.h"
#include "Testing/FakePathMonitor.h"
#include "Testing/FakePreferenceStore.h"
#include "Testing/FakeVideoDecompressor.h"
#include "Testing/ScriptedHost.h"
#include "Testing/SimulatedLink.h"
#include "Testing/VirtualQueue.h"
#include "Viewer/Session/InputGestures.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using State = AgentSession::State;
using Device = DeviceDirectory::Device;

const Endpoint lan = Endpoint::hostPort("10.0.0.5", 47272);

/// A list that the test writes; passwords come a moment after they are asked for.
class FakeDirectory final : public DeviceDirectory {
public:
    explicit FakeDirectory(Queue& main) : main_(main) {}
    std::vector<Device> list;
    std::map<std::string, std::string> passwords;  // by device
    std::vector<std::string> added;                // the names given

    std::vector<Device> devices() const override { return list; }
    std::optional<Device> add(const std::string& name, const std::string& hostID,
                              const std::string& password) override {
        if (hostID.size() != 9 || password.size() != 6) return std::nullopt;
        added.push_back(name);
        list.push_back({.id = "new",
                        .name = name.empty() ? "Unnamed" : name,
                        .target = RemoteDevices::HostId{hostID},
                        .isSaved = true,
                        .fingerprint = "AB01"});
        list.back().lanEndpoint = lan;
        passwords["new"] = password;
        return list.back();
    }
    void readPassword(const Device& device, UniqueFunction<void(std::optional<std::string>)> done) override {
        const auto found = passwords.find(device.id);
        auto password = found == passwords.end() ? std::nullopt : std::optional(found->second);
        main_.post([password = std::move(password), done = std::move(done)]() mutable { done(password); });
    }

private:
    Queue& main_;
};

class AgentSessionTest : public testing::Test {
protected:
    AgentSessionTest() { make("10.0.0.5"); }
    ~AgentSessionTest() override {
        session.reset();
        time.settle();
    }

    void make(std::optional<std::string> device, std::optional<DisplayRequest> display = std::nullopt) {
        session.emplace(AgentSession::Settings{std::move(device), display, "Couch (agent)"},
                        AgentSession::Services{{.transport = link,
                                                .preferences = preferences,
                                                .paths = paths,
                                                .decompressors = decompressors},
                                               directory,
                                               jpeg,
                                               main,
                                               client,
                                               worker});
    }
    /// A Mac that is on this network and known by its Host ID.
    Device known(const std::string& name, const std::string& hostID, bool isSaved) {
        preferences.set("hostFingerprint:" + hostID, std::string("AB01"));
        return {.id = name,
                .name = name,
                .target = RemoteDevices::HostId{hostID},
                .isSaved = isSaved,
                .fingerprint = "AB01",
                .availability = DeviceDirectory::Availability::online,
                .lanEndpoint = lan};
    }
    /// Asks for the screen; what comes of it is in `answers`.
    void ask(HostClock::duration limit = 20s) {
        session->ensureStreaming(
            limit, [this](const Status& status) { answers.push_back(status ? "" : status.error().text); });
    }
    void showPicture(PixelSize size = {64, 48}) {
        host.startStream(size);
        host.sendKeyframe();
        time.advanceBy(50ms);
    }
    /// Connected to the address, with a picture.
    void stream(PixelSize size = {64, 48}) {
        ask();
        time.advanceBy(4s);
        showPicture(size);
        ASSERT_EQ(session->state(), State::streaming);
        answers.clear();
    }
    std::string shot(const std::optional<ShotGeometry::Region>& region = std::nullopt) {
        std::string words = "nothing was answered";
        session->takeShot(
            region, [&](const std::optional<Shot>& taken) { words = taken ? textOf(taken->jpeg) : "none"; });
        time.settle();
        return words;
    }

    VirtualTime time;
    VirtualQueue main{time, "main"}, client{time, "velmora.quic.client"}, worker{time, "worker"},
        hostQueue{time, "host"};
    SimulatedLink link{time};
    FakePreferenceStore preferences;
    FakePathMonitor paths{main};
    FakeVideoDecompressorFactory decompressors;
    FakeJpegEncoder jpeg;
    FakeDirectory directory{main};
    ScriptedHost host{link, hostQueue, {}};
    std::optional<AgentSession> session;
    std::vector<std::string> answers;
};

TEST_F(AgentSessionTest, nothingHappensUntilTheScreenIsNeeded) {
    time.advanceBy(10s);
    EXPECT_EQ(host.connections, 0);
    EXPECT_EQ(session->statusText(), "Not connected to 10.0.0.5 yet");
    make(std::nullopt);
    directory.list = {known("Desk", "123456789", true), known("Den", "111222333", false)};
    ask();
    EXPECT_THAT(answers, ElementsAre("Not connected. Call connect with one of: Desk, Den"));
    EXPECT_EQ(session->state(), State::idle);
}

TEST_F(AgentSessionTest, anAddressIsTriedAfterTheNetworkHadTimeToShowTheName) {
    make("10.0.0.5", DisplayRequest{1440, 900, 1});
    ask();
    ask();
    time.advanceBy(2900ms);
    EXPECT_EQ(host.connections, 0);
    EXPECT_EQ(session->statusText(), "Connecting to 10.0.0.5…");
    time.advanceBy(200ms);
    ASSERT_EQ(host.connections, 1);
    EXPECT_EQ(host.hello()->name, "Couch (agent)");
    EXPECT_EQ(host.hello()->agent, true);
    EXPECT_EQ(host.hello()->audio, false);
    EXPECT_EQ(host.hello()->display, (DisplayRequest{1440, 900, 1}));
    EXPECT_TRUE(answers.empty());
    showPicture({2880, 1800});
    EXPECT_THAT(answers, ElementsAre("", ""));
    EXPECT_EQ(session->statusText(), "Connected to 10.0.0.5 via LAN, screen 1568×980");
    host.send(MessageType::textFocus, Bytes{1});
    time.advanceBy(10ms);
    EXPECT_EQ(session->statusText(),
              "Connected to 10.0.0.5 via LAN, screen 1568×980, a text field has keyboard focus");
    ask();
    EXPECT_EQ(answers.size(), 3u);
}

TEST_F(AgentSessionTest, aNameThatNobodyHasIsToldWithThoseThatAreKnown) {
    make("Attic");
    ask();
    time.advanceBy(3100ms);
    EXPECT_THAT(answers,
                ElementsAre("No device named “Attic”. Known devices: none found. Add it in Velmora first, "
                            "or pass an IP address."));
    EXPECT_EQ(session->statusText(), "Disconnected from Attic: No device named “Attic”");

    directory.list = {known("Desk", "123456789", true)};
    ask();
    time.advanceBy(1s);
    directory.list.push_back(known("ATTIC", "111222333", true));  // it has just been seen
    time.advanceBy(300ms);
    EXPECT_EQ(host.connections, 1);
}

TEST_F(AgentSessionTest, savedDevicesAreChosenBeforeThoseThatAreOnlySeen) {
    directory.list = {known("Desk", "123456789", false), known("desk", "111222333", true)};
    directory.passwords["desk"] = "654321";
    make("DESK");
    ask();
    time.advanceBy(100ms);
    EXPECT_EQ(host.hello()->password, "654321");

    make("123-456-789");
    ask();
    time.settle();
    EXPECT_EQ(answers.back(),
              "Desk needs its password: call connect with device \"Desk\" and password (6 digits, shown in "
              "Velmora's menu on that Mac). It's saved for next time.");
    EXPECT_EQ(session->statusText(), "Disconnected from 123-456-789: Password needed");
}

TEST_F(AgentSessionTest, credentialsAreSavedUnderTheNameThatIsSeen) {
    directory.list = {known("Desk", "123456789", false)};
    session->select({"123 456 789", "123 456 789", "65-43-21"});
    ask();
    time.advanceBy(100ms);
    EXPECT_THAT(directory.added, ElementsAre("Desk"));
    EXPECT_EQ(session->deviceName(), "Desk");
    EXPECT_EQ(host.hello()->password, "654321");

    preferences.set("hostFingerprint:999888777", std::string("AB01"));
    session->select({"999888777", "999888777", "111111"});
    ask();
    session->select({"Loft", "999888777", "111111"});
    ask();
    EXPECT_THAT(directory.added, ElementsAre("Desk", "", "Unnamed"));
}

TEST_F(AgentSessionTest, credentialsOfTheWrongFormAreRefused) {
    session->select({"Desk", "12345678", "123456"});
    ask();
    EXPECT_THAT(answers, ElementsAre("The Host ID needs 9 digits and the password 6."));
    EXPECT_EQ(session->statusText(), "Disconnected from Desk: Invalid Host ID or password");
}

TEST_F(AgentSessionTest, anAddressesPasswordIsKeptWhileItIsSelected) {
    session->select({"10.0.0.5", std::nullopt, "012 345"});
    stream();
    EXPECT_EQ(host.hello()->password, "012345");
    session->disconnect();
    stream();
    EXPECT_EQ(host.hello()->password, "012345");
    session->select({"10.0.0.6", std::nullopt, std::nullopt});
    stream();
    EXPECT_EQ(host.hello()->password, std::nullopt);
}

TEST_F(AgentSessionTest, selectingTheSameMacLeavesItAlone) {
    stream();
    session->select({"10.0.0.5", std::nullopt, std::nullopt});
    EXPECT_EQ(session->state(), State::streaming);
    session->select({"10.0.0.5", "123456789", "123456"});
    EXPECT_EQ(session->state(), State::idle);
    EXPECT_EQ(shot(), "none");
    time.advanceBy(100ms);
    EXPECT_EQ(host.countOf(MessageType::bye), 1);
}

TEST_F(AgentSessionTest, whoeverWaitsIsToldHowItEnds) {
    ask();
    time.advanceBy(4s);
    host.send(MessageType::denied, HostDenial::encode(HostDenial::busy, ""));
    time.advanceBy(100ms);
    const std::string reason =
        "10.0.0.5 is in use. Someone else is connected to 10.0.0.5 right now. Try again when they're done.";
    EXPECT_THAT(answers, ElementsAre(reason));
    EXPECT_EQ(session->statusText(), "Disconnected from 10.0.0.5: " + reason);

    ask();
    time.advanceBy(1s);
    session->disconnect();
    EXPECT_EQ(answers.back(), "Disconnected");
    time.advanceBy(10s);
    EXPECT_EQ(host.connections, 1);

    stream();
    host.endConnection();
    time.advanceBy(100ms);
    EXPECT_EQ(session->state(), State::ended);
    EXPECT_FALSE(session->hasConnection());
    stream();
    EXPECT_EQ(host.connections, 3);
}

TEST_F(AgentSessionTest, waitingHasALimitThatEndsWithTheWait) {
    ask(5s);
    time.advanceBy(5s);
    EXPECT_THAT(answers, ElementsAre("Connecting to 10.0.0.5…. Try again in a moment."));
    EXPECT_EQ(host.connections, 1);

    showPicture();
    session->disconnect();
    ask(5s);
    session->disconnect();
    time.advanceBy(4s);
    answers.clear();
    ask(20s);
    time.advanceBy(2s);  // the limit of the wait before would be over
    EXPECT_TRUE(answers.empty());
}

TEST_F(AgentSessionTest, devicesAreToldInALineEach) {
    auto offline = known("Loft", "123123123", true);
    offline.availability = DeviceDirectory::Availability::offline;
    auto away = known("Barn", "321321321", true);
    away.lanEndpoint.reset();
    directory.list = {{.id = "bonjour:Den", .name = "Den", .target = lan},
                      known("Desk", "123456789", false),
                      offline,
                      away};
    EXPECT_THAT(
        session->deviceLines(),
        ElementsAre("Den · needs its password (connect with password)",
                    "Desk · ID 123 456 789 · online on this network · needs its password (connect with "
                    "password)",
                    "Loft · ID 123 123 123 · offline · password saved",
                    "Barn · ID 321 321 321 · online · password saved"));
    EXPECT_EQ(session->hostIDOf("DESK"), "123456789");
    EXPECT_EQ(session->hostIDOf("den"), std::nullopt);
    EXPECT_EQ(session->hostIDOf("nobody"), std::nullopt);
}

TEST_F(AgentSessionTest, shotsAreCutFromTheNewestPicture) {
    EXPECT_EQ(shot(), "none");
    stream({2880, 1800});
    EXPECT_EQ(shot(), "1568x980 from 0,0 2880x1800");
    EXPECT_EQ(shot(ShotGeometry::Region{784, 931, 98, 49}), "180x90 from 1440,1710 180x90");
    EXPECT_EQ(shot(ShotGeometry::Region{1568, 0, 5, 5}), "none");
    jpeg.failure = Failure{"no memory"};
    EXPECT_EQ(shot(), "none");
}

TEST_F(AgentSessionTest, aChangeIsWaitedForUntilItRests) {
    stream();
    std::optional<bool> changed;
    const auto wait = [&](HostClock::duration limit) {
        changed.reset();
        session->waitForChange({.limit = limit, .settle = 400ms}, [&](bool has) { changed = has; });
    };
    wait(10s);
    time.advanceBy(3s);
    EXPECT_EQ(changed, std::nullopt);
    for (int i = 0; i < 5; ++i) {
        host.sendFrame({});
        time.advanceBy(300ms);
        EXPECT_EQ(changed, std::nullopt);
    }
    time.advanceBy(300ms);
    EXPECT_EQ(changed, true);

    wait(1s);
    time.advanceBy(900ms);
    EXPECT_EQ(changed, std::nullopt);
    time.advanceBy(100ms);
    EXPECT_EQ(changed, false);

    // At the limit it has changed, though it does not rest.
    wait(500ms);
    time.advanceBy(300ms);
    host.sendFrame({});
    time.advanceBy(200ms);
    EXPECT_EQ(changed, true);
}

TEST_F(AgentSessionTest, aPictureThatIsOnlySentAgainIsNoChange) {
    stream();
    const auto moment = host.nowMicros();
    host.sendFrame({.captureMicros = moment});
    time.advanceBy(50ms);
    std::optional<bool> changed;
    session->waitForChange({.limit = 1s, .settle = 100ms}, [&](bool has) { changed = has; });
    host.sendFrame({.captureMicros = moment});
    time.advanceBy(200ms);
    host.sendFrame({.captureMicros = moment});
    time.advanceBy(1s);
    EXPECT_EQ(changed, false);
}

TEST_F(AgentSessionTest, countingGoesOnOverConnections) {
    stream();
    std::optional<bool> changed;
    session->waitForChange({.limit = 30s, .settle = 400ms}, [&](bool has) { changed = has; });
    session->disconnect();
    time.advanceBy(1s);
    EXPECT_EQ(changed, std::nullopt);
    ask();
    time.advanceBy(4s);
    showPicture();
    time.advanceBy(600ms);
    EXPECT_EQ(changed, true);
}

TEST_F(AgentSessionTest, inputIsSentWhileThereIsAStream) {
    session->send(InputGestures::moveTo({0.5, 0.5}));
    session->setRemoteClipboard("lost");
    session->selectDisplay(1);
    stream();
    session->send(InputGestures::click({0.5, 0.25}, InputGestures::Button::left, 1));
    session->setRemoteClipboard("é");
    time.advanceBy(50ms);
    EXPECT_EQ(host.countOf(MessageType::input), 3);
    EXPECT_EQ(InputEvent::decode(host.lastOf(MessageType::input))->y, 0.25);
    EXPECT_EQ(host.countOf(MessageType::clipboard), 1);
    EXPECT_EQ(host.lastOf(MessageType::clipboard), (Bytes{0, 0xC3, 0xA9}));
}

TEST_F(AgentSessionTest, displaysAreChosenByNumberOrTheVirtualOne) {
    const DisplayRequest size{800, 600, 1};
    make("10.0.0.5", size);
    stream();
    const auto selected = [&](std::optional<std::uint32_t> id) {
        session->selectDisplay(id);
        time.advanceBy(50ms);
        return *DisplaySelection::decode(host.lastOf(MessageType::selectDisplay));
    };
    EXPECT_EQ(selected(7), (DisplaySelection{.displayID = 7}));
    EXPECT_EQ(selected(std::nullopt), (DisplaySelection{.window = size}));
}

TEST_F(AgentSessionTest, whatTheHostTellsIsKeptAsLongAsItIsTrue) {
    stream();
    host.send(MessageType::displayList, DisplayList{{{1, "Main", 64, 48}}, true, 1}.encode());
    host.send(MessageType::clipboard, Bytes{0, 'h', 'i'});
    host.send(MessageType::clipboard, Bytes{9});
    time.advanceBy(50ms);
    EXPECT_EQ(session->displayList()->displays.size(), 1u);
    EXPECT_EQ(textOf(session->remoteClipboard()->data), "hi");
    session->disconnect();
    stream();
    EXPECT_EQ(session->displayList(), std::nullopt);
    EXPECT_TRUE(session->remoteClipboard());
    session->select({"10.0.0.6", std::nullopt, std::nullopt});
    EXPECT_FALSE(session->remoteClipboard());
}

}  // namespace
}  // namespace velmora
