#include "Host/Admission.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

using namespace std::chrono_literals;
using Outcome = Admission::Outcome;

class AdmissionTest : public testing::Test {
protected:
    static constexpr const char* rightPassword = "042137";

    Admission::Decision decide(const std::optional<Hello>& hello) {
        return admission.decide(hello, {.session = session, .credentials = credentials, .now = now});
    }
    static Hello helloWith(std::optional<std::string> password) {
        return {.name = "Desk", .password = std::move(password)};
    }
    void expectDenied(const Hello& hello, std::string_view code) {
        const auto decision = decide(hello);
        EXPECT_EQ(decision.outcome, Outcome::denied);
        EXPECT_EQ(decision.code, code);
    }
    void failTimes(int count) {
        for (int i = 0; i < count; ++i) decide(helloWith("999999"));
    }

    Admission admission;
    HostClock::time_point now{1000s};
    std::optional<Admission::Running> session;
    std::optional<HostCredentials> credentials{{.id = "123456789", .password = rightPassword}};
};

TEST_F(AdmissionTest, onlyTheSameProtocolIsSpoken) {
    auto decision = decide(std::nullopt);
    EXPECT_EQ(decision.outcome, Outcome::wrongProtocol);
    EXPECT_EQ(decision.text,
              "⚠︎ Viewer uses protocol 0, this server 5. Update both Macs to the same build.");
    for (const std::int64_t version : {4, 6}) {
        Hello hello = helloWith(rightPassword);
        hello.protocolVersion = version;
        EXPECT_EQ(decide(hello).outcome, Outcome::wrongProtocol) << version;
    }
    session.emplace();
    session->deviceID = "A";
    Hello old{.name = "Desk", .protocolVersion = 4, .deviceID = "A"};
    EXPECT_FALSE(decide(old).replacement) << "a viewer of another version replaces nothing";
}

TEST_F(AdmissionTest, theRightPasswordOpensAndTheTextTellsTheWindow) {
    Hello hello = helloWith(rightPassword);
    EXPECT_EQ(decide(hello).text, "Hello from “Desk”. Right password on the local network");
    hello.display = {.width = 1440, .height = 900, .scale = 2};
    const auto decision = decide(hello);
    EXPECT_EQ(decision.outcome, Outcome::admitted);
    EXPECT_EQ(decision.text,
              "Hello from “Desk” (window 1440×900 pt @2x). Right password on the local network");
}

TEST_F(AdmissionTest, wrongPasswordsAreDeniedAndCounted) {
    for (const char* wrong : {"042138", "04213", "0421370", ""})
        expectDenied(helloWith(wrong), "wrong_password");
    const auto fifth = decide(helloWith("x"));
    EXPECT_EQ(fifth.message, "Wrong password.");
    EXPECT_EQ(fifth.text, "Denied “Desk”: wrong password (5 in the last hour)");
}

TEST_F(AdmissionTest, noPasswordOnEitherSideIsNoFailureOfTheViewer) {
    const auto decision = decide(helloWith(std::nullopt));
    EXPECT_EQ(decision.code, "no_password");
    EXPECT_EQ(decision.message, "This Mac needs its ID and password.");
    EXPECT_EQ(decision.text, "Denied “Desk”: no password");
    credentials->password.reset();
    expectDenied(helloWith(""), "no_password");
    credentials.reset();
    expectDenied(helloWith(rightPassword), "no_password");
    credentials = {.id = "1", .password = rightPassword};
    EXPECT_EQ(decide(helloWith("x")).text, "Denied “Desk”: wrong password (1 in the last hour)");
}

TEST_F(AdmissionTest, twentyWrongPasswordsLockEverybodyOutUntilTheOldestIsAnHourOld) {
    failTimes(1);
    now += 10s;
    failTimes(18);
    EXPECT_EQ(decide(helloWith("x")).text, "Denied “Desk”: wrong password (20 in the last hour)");
    const auto locked = decide(helloWith(rightPassword));
    EXPECT_EQ(locked.code, "locked");
    EXPECT_EQ(locked.message, "Too many wrong passwords.");
    EXPECT_EQ(locked.text, "Denied “Desk”: locked after 20 wrong passwords");
    now += 3590s;
    expectDenied(helloWith(rightPassword), "locked");
    now += 1us;
    expectDenied(helloWith("x"), "wrong_password");
    expectDenied(helloWith(rightPassword), "locked");
    now += 11s;
    EXPECT_EQ(decide(helloWith(rightPassword)).outcome, Outcome::admitted);
}

TEST_F(AdmissionTest, aTokenPassesAgainAndAgainEvenWhileLockedUntilItExpires) {
    admission.authorize("T", "Cloud viewer", now);
    failTimes(20);
    Hello hello = helloWith(std::nullopt);
    hello.sessionToken = "T";
    EXPECT_EQ(decide(hello).text,
              "Hello from “Desk”. Connected with this Mac's ID and password through Velmora Cloud");
    now += 599s;
    EXPECT_EQ(decide(hello).outcome, Outcome::admitted);
    now += 1s;
    expectDenied(hello, "no_password");
    hello.sessionToken = "unknown";
    hello.password = rightPassword;
    expectDenied(hello, "locked");
}

TEST_F(AdmissionTest, anExpiredTokenMakesRoomForANewOneOfTheSameText) {
    admission.authorize("T", "a", now);
    now += 601s;
    admission.authorize("T", "a", now);
    Hello hello = helloWith(std::nullopt);
    hello.sessionToken = "T";
    EXPECT_EQ(decide(hello).outcome, Outcome::admitted);
}

TEST_F(AdmissionTest, aSecondViewerIsBusyUnlessBothDeviceIDsAreKnownAndEqual) {
    struct Case {
        std::optional<std::string> running, theirs;
        bool replaces;
    };
    const Case cases[] = {{std::nullopt, std::nullopt, false},
                          {std::nullopt, "A", false},
                          {"A", std::nullopt, false},
                          {"A", "B", false},
                          {"A", "A", true}};
    admission.authorize("T", "a", now);
    for (const auto& [running, theirs, replaces] : cases) {
        session.emplace();
        session->deviceID = running;
        Hello hello = helloWith(rightPassword);
        hello.deviceID = theirs;
        hello.sessionToken = "T";
        const auto decision = decide(hello);
        EXPECT_EQ(decision.replacement.has_value(), replaces);
        if (replaces) {
            EXPECT_EQ(decision.outcome, Outcome::admitted);
            EXPECT_EQ(*decision.replacement, "“Desk” reconnected; replacing its old connection");
        } else {
            EXPECT_EQ(decision.code, "busy");
            EXPECT_EQ(decision.message, "Another viewer is connected.");
            EXPECT_EQ(decision.text, "Rejected “Desk”: another viewer is connected");
        }
    }
}

TEST_F(AdmissionTest, aReconnectWithAWrongPasswordLosesTheOldSessionAndIsDenied) {
    session.emplace();
    session->deviceID = "A";
    Hello hello = helloWith("x");
    hello.deviceID = "A";
    const auto decision = decide(hello);
    EXPECT_TRUE(decision.replacement);
    EXPECT_EQ(decision.code, "wrong_password");
}

}  // namespace
}  // namespace velmora
