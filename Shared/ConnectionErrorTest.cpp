#include "Shared/ConnectionError.h"

#include <gtest/gtest.h>

#include "VelmoraKit/Wire/SessionRecords.h"

namespace velmora {
namespace {

using Kind = ConnectionError::Kind;

Kind kindFromSignaling(const char* code) {
    return ConnectionError::fromSignaling(code, "the service's words", "Desk").kind;
}
ConnectionError fromHost(std::string_view payload) {
    return ConnectionError::fromHost(viewOf(payload), "Desk");
}

TEST(ConnectionErrorTest, summaryJoinsWhatIsThere) {
    EXPECT_EQ(ConnectionError::busy("Desk").summary(),
              "Someone else is connected to Desk right now. Try again when they're done.");
    EXPECT_EQ(ConnectionError::endedByHost("Desk").summary(),
              "The session was closed on Desk (Disconnect, Stop Server or Velmora quit).");
    EXPECT_EQ((ConnectionError{Kind::other, "Title", "", "Do this."}).summary(), "Do this.");
}

TEST(ConnectionErrorTest, theServicesCodesHaveOurWords) {
    EXPECT_EQ(kindFromSignaling("wrong_password"), Kind::wrongPassword);
    EXPECT_EQ(kindFromSignaling("locked"), Kind::locked);
    EXPECT_EQ(kindFromSignaling("offline"), Kind::offline);
    EXPECT_EQ(kindFromSignaling("busy"), Kind::busy);
    EXPECT_EQ(kindFromSignaling("rate_limited"), Kind::rateLimited);
    EXPECT_EQ(kindFromSignaling("remote_off"), Kind::onlyLocalNetwork);
    EXPECT_EQ(ConnectionError::fromSignaling("busy", "no", "Desk"), ConnectionError::busy("Desk"));

    const auto unknown = ConnectionError::fromSignaling("quota", "No more today.", "Desk");
    EXPECT_EQ(unknown, ConnectionError::other("Desk", "No more today."));
    EXPECT_EQ(ConnectionError::fromSignaling(std::nullopt, std::nullopt, "Desk").message,
              "Velmora Cloud refused the connection.");
}

TEST(ConnectionErrorTest, aHostsDenialIsTranslated) {
    EXPECT_EQ(fromHost(R"({"code":"wrong_password","message":"Wrong password."})"),
              ConnectionError::wrongPassword("Desk"));
    EXPECT_EQ(fromHost(R"({"code":"locked"})").kind, Kind::locked);
    EXPECT_EQ(fromHost(R"({"code":"no_password"})").kind, Kind::outdated);
    EXPECT_EQ(fromHost(R"({"code":"busy"})").kind, Kind::busy);
    EXPECT_EQ(fromHost(R"({"code":"capture","message":"No display."})"),
              ConnectionError::captureFailed("Desk", "No display."));
    EXPECT_EQ(fromHost(R"({"code":"capture"})").message, "Screen capture didn't start.");
    // Codes that only the rendezvous service uses mean nothing when a host sends them.
    EXPECT_EQ(fromHost(R"({"code":"rate_limited"})"),
              ConnectionError::other("Desk", "Desk refused the connection."));
    EXPECT_EQ(fromHost(R"({"code":"offline","message":"Gone."})"), ConnectionError::other("Desk", "Gone."));
    // What our own host builds is understood.
    EXPECT_EQ(ConnectionError::fromHost(HostDenial::encode(HostDenial::capture, "Black."), "Desk").message,
              "Black.");
}

TEST(ConnectionErrorTest, aDenialThatIsNoJsonIsShownAsText) {
    EXPECT_EQ(fromHost("Go away."), ConnectionError::other("Desk", "Go away."));
    EXPECT_EQ(fromHost(R"({"message":"no code"})").message, R"({"message":"no code"})");
    EXPECT_EQ(fromHost("bad \xFF byte").message, "bad � byte");
    EXPECT_EQ(fromHost("").message, "");
}

}  // namespace
}  // namespace velmora
