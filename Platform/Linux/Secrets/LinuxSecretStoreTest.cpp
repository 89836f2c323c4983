#include "Platform/Linux/Secrets/LinuxSecretStore.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <optional>

#include "Testing/ScratchFolder.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {
namespace {

/// A keyring that does what the test says.
class ScriptedKeyring final : public Keyring {
public:
    Result<Bytes, Problem> read(const SecretName& name) override {
        if (trouble) return problem();
        const auto found = items.find(name);
        if (found == items.end()) return Problem{Trouble::absent, "absent"};
        return found->second;
    }
    Result<Done, Problem> save(const SecretName& name, ByteView value, std::string_view) override {
        if (trouble) return problem();
        items.insert_or_assign(name, Bytes(value.begin(), value.end()));
        return Done{};
    }
    Result<Done, Problem> remove(const SecretName& name) override {
        if (trouble) return problem();
        items.erase(name);
        return Done{};
    }

    std::optional<Trouble> trouble;  // of every call
    std::map<SecretName, Bytes> items;

private:
    Problem problem() const { return {*trouble, "trouble"}; }
};

class LinuxSecretStoreTest : public testing::Test {
protected:
    using Lack = SecretStore::Lack;
    using Trouble = Keyring::Trouble;

    const SecretName name{"com.velmora.host", "password"};
    ScratchFolder folder;
    const std::filesystem::path file = folder / "velmora/secrets.json";
    ScriptedKeyring keyring;
    LinuxSecretStore store{keyring, file};
};

TEST_F(LinuxSecretStoreTest, anItemPutIntoTheFileStaysThereWhenAKeyringAppears) {
    keyring.trouble = Trouble::missing;
    EXPECT_EQ(store.read(name).error(), Lack::absent);
    ASSERT_TRUE(store.save(name, viewOf("111111"), "label"));
    struct stat info {};
    ASSERT_EQ(::stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);

    keyring.trouble.reset();
    EXPECT_EQ(store.read(name).value(), bytesOf("111111"));
    ASSERT_TRUE(store.save(name, viewOf("222222"), "label"));
    EXPECT_TRUE(keyring.items.empty());
    LinuxSecretStore restarted(keyring, file);
    EXPECT_EQ(restarted.read(name).value(), bytesOf("222222"));
}

TEST_F(LinuxSecretStoreTest, anItemOfTheKeyringIsUnavailableWhileTheKeyringIsMissing) {
    ASSERT_TRUE(store.save(name, viewOf("111111"), "label"));
    LinuxSecretStore restarted(keyring, file);
    for (const auto trouble : {Trouble::missing, Trouble::unavailable}) {
        keyring.trouble = trouble;
        EXPECT_EQ(restarted.read(name).error(), Lack::unavailable);
        EXPECT_FALSE(restarted.save(name, viewOf("222222"), "label"));
        EXPECT_FALSE(restarted.remove(name));
    }
    keyring.trouble.reset();
    EXPECT_EQ(restarted.read(name).value(), bytesOf("111111"));
    keyring.items.clear();
    EXPECT_EQ(restarted.read(name).error(), Lack::absent) << "somebody deleted it";
}

TEST_F(LinuxSecretStoreTest, aLockedKeyringIsNeverReplacedByTheFile) {
    keyring.trouble = Trouble::unavailable;
    EXPECT_EQ(store.read(name).error(), Lack::unavailable);
    EXPECT_FALSE(store.save(name, viewOf("222222"), "label"));
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(LinuxSecretStoreTest, anItemFoundInTheKeyringIsRememberedEvenIfTheFileWasLost) {
    ASSERT_TRUE(store.save(name, viewOf("111111"), "label"));
    std::filesystem::remove(file);
    EXPECT_EQ(store.read(name).value(), bytesOf("111111"));
    keyring.trouble = Trouble::missing;
    EXPECT_EQ(store.read(name).error(), Lack::unavailable);
}

TEST_F(LinuxSecretStoreTest, aBrokenFileIsSetAsideAndAnUnreadableOneLeftAlone) {
    keyring.trouble = Trouble::missing;
    std::filesystem::create_directories(file.parent_path());
    for (const auto* text :
         {"[{\"service\": 1}]", "{}", "[{\"service\":\"a\",\"account\":\"b\",\"value\":\"!\"}]"}) {
        DebugLog::shared().clear();
        std::ofstream(file) << text;
        EXPECT_EQ(store.read(name).error(), Lack::absent);
        EXPECT_FALSE(std::filesystem::exists(file));
        EXPECT_EQ(DebugLog::shared().entries().size(), 1u);
    }
    std::filesystem::create_directory(file);  // cannot be read as a file, even by root
    EXPECT_EQ(store.read(name).error(), Lack::unavailable);
    EXPECT_FALSE(store.save(name, viewOf("1"), "label"));
}

}  // namespace
}  // namespace velmora
