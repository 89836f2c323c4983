#include "Shared/Keychain.h"

#include <gtest/gtest.h>

#include "Testing/FakeSecretStore.h"

namespace velmora {
namespace {

TEST(KeychainTest, savingAgainReplacesTheValueAndKeepsTheLabel) {
    FakeSecretStore store;
    Keychain keychain(store);
    EXPECT_EQ(keychain.read("service", "account"), std::nullopt);
    EXPECT_TRUE(keychain.save("123456", "service", "account", "first"));
    EXPECT_TRUE(keychain.save("", "service", "account", "second"));
    EXPECT_EQ(keychain.read("service", "account"), "");
    EXPECT_EQ(store.labelOf({"service", "account"}), "first");
    keychain.remove("service", "account");
    EXPECT_EQ(keychain.read("service", "account"), std::nullopt);
}

TEST(KeychainTest, tellsALockedStoreFromAMissingItemAndTakesBrokenTextForMissing) {
    FakeSecretStore store;
    Keychain keychain(store);
    ASSERT_TRUE(store.save({"service", "account"}, Bytes{'1', 0xc3, '2'}, "label").ok());
    EXPECT_EQ(keychain.read("service", "account"), std::nullopt);
    EXPECT_EQ(keychain.lookUp("service", "account").error(), SecretStore::Lack::absent);
    store.setLocked(true);
    EXPECT_EQ(keychain.lookUp("service", "account").error(), SecretStore::Lack::unavailable);
    EXPECT_FALSE(keychain.save("1", "service", "account", "label"));
}

}  // namespace
}  // namespace velmora
