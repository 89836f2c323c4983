#include "Shared/HostIdentity.h"

#include <gtest/gtest.h>

#include <deque>

#include "Shared/Preferences.h"
#include "Testing/FakePreferenceStore.h"
#include "Testing/FakeSecretStore.h"
#include "Testing/VirtualQueue.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

class HostIdentityTest : public testing::Test {
protected:
    HostIdentityTest() { DebugLog::shared().clear(); }

    HostIdentity& start(std::deque<std::uint32_t> draws = {}) {
        draws_ = std::move(draws);
        HostIdentity::Parameters parameters;
        parameters.random = [this](std::uint32_t bound) {
            EXPECT_FALSE(draws_.empty()) << "nothing more was to be drawn";
            if (draws_.empty()) return 0u;
            const auto drawn = draws_.front();
            draws_.pop_front();
            EXPECT_LT(drawn, bound);
            return drawn;
        };
        identity.emplace(preferences, keychain, main, worker, parameters);
        return *identity;
    }
    void store(const std::string& password) {
        keychain.save(password, "com.velmora.host", "password", "Velmora host password");
    }
    std::optional<std::string> stored() { return keychain.read("com.velmora.host", "password"); }

    VirtualTime time;
    VirtualQueue main{time, "main"};
    VirtualQueue worker{time, "secrets"};
    FakePreferenceStore preferences;
    FakeSecretStore secrets;
    Keychain keychain{secrets};
    std::optional<HostIdentity> identity;

private:
    std::deque<std::uint32_t> draws_;
};

TEST_F(HostIdentityTest, aFirstStartMakesBothValuesAndTheNextOneFindsThem) {
    auto& made = start({0, 42});
    EXPECT_EQ(made.id(), "100000000");
    EXPECT_FALSE(made.isReady());
    time.settle();
    EXPECT_TRUE(made.isReady());
    EXPECT_EQ(made.password(), "000042");
    EXPECT_EQ(stored(), "000042");
    EXPECT_EQ(secrets.labelOf({"com.velmora.host", "password"}), "Velmora host password");
    EXPECT_EQ(preferences.string("host.id"), "100000000");

    auto& found = start();
    time.settle();
    EXPECT_EQ(found.id(), "100000000");
    EXPECT_EQ(found.password(), "000042");
}

TEST_F(HostIdentityTest, theLargestDrawStillGivesNineDigits) {
    EXPECT_EQ(start({899'999'999, 999'999}).id(), "999999999");
    time.settle();
    EXPECT_EQ(identity->password(), "999999");
}

TEST_F(HostIdentityTest, aStoredIdIsTakenAsItStandsAndAPasswordOfAnotherLengthIsReplaced) {
    preferences.set(PreferenceKeys::hostId, std::string("12"));
    store("1234567");
    auto& made = start({7});
    time.settle();
    EXPECT_EQ(made.id(), "12");
    EXPECT_EQ(made.password(), "000007");
    EXPECT_EQ(stored(), "000007");
}

TEST_F(HostIdentityTest, aLockedStoreIsWaitedForWithOneLineAndNothingIsOverwritten) {
    store("123456");
    secrets.setLocked(true);
    preferences.set(PreferenceKeys::hostId, std::string("123456789"));
    auto& made = start();
    int told = 0;
    const auto token = made.observe([&] { ++told; });
    time.advanceBy(60s);
    EXPECT_EQ(made.state(), HostIdentity::State::unavailable);
    EXPECT_EQ(made.password(), "");
    EXPECT_EQ(told, 1);
    EXPECT_EQ(DebugLog::shared().entries().size(), 1u);
    made.newPassword();
    made.setPassword("654321");
    time.settle();

    secrets.setLocked(false);
    EXPECT_EQ(stored(), "123456");
    time.advanceBy(5s);
    EXPECT_TRUE(made.isReady());
    EXPECT_EQ(made.password(), "123456");
    EXPECT_EQ(told, 2);
}

TEST_F(HostIdentityTest, onlySixNumbersAreTakenAsAPassword) {
    store("123456");
    preferences.set(PreferenceKeys::hostId, std::string("123456789"));
    auto& identity = start({5});
    time.settle();
    int told = 0;
    const auto token = identity.observe([&] { ++told; });
    for (const auto* bad : {"12a456", "12345", "1234567", "", "12 456", "é12345"}) identity.setPassword(bad);
    EXPECT_EQ(identity.password(), "123456");
    EXPECT_EQ(told, 0);
    identity.setPassword("000001");
    EXPECT_EQ(identity.password(), "000001");
    identity.setPassword("١٢٣٤٥٦");
    EXPECT_EQ(identity.password(), "١٢٣٤٥٦");
    identity.newPassword();
    EXPECT_EQ(identity.password(), "000005");
    EXPECT_EQ(told, 3);
    time.settle();
    EXPECT_EQ(stored(), "000005");
}

TEST_F(HostIdentityTest, aPasswordThatCannotBeSavedHoldsForThisRun) {
    auto& identity = start({1, 2});
    secrets.setLocked(false);
    time.settle();
    secrets.setLocked(true);
    identity.setPassword("222222");
    time.settle();
    EXPECT_EQ(identity.password(), "222222");
}

TEST_F(HostIdentityTest, anAnswerAfterTheEndIsDropped) {
    start({1});
    identity.reset();
    time.settle();
    EXPECT_EQ(stored(), std::nullopt);
}

TEST_F(HostIdentityTest, groupsByThreeFromTheLeft) {
    EXPECT_EQ(HostIdentity::grouped("123456789"), "123 456 789");
    EXPECT_EQ(HostIdentity::grouped("123456"), "123 456");
    EXPECT_EQ(HostIdentity::grouped("1234"), "123 4");
    EXPECT_EQ(HostIdentity::grouped(""), "");
    EXPECT_EQ(HostIdentity::grouped("äöü🖥"), "äöü 🖥");
}

}  // namespace
}  // namespace velmora
