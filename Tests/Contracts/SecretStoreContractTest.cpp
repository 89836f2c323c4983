#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <thread>

#include "Platform/Linux/Secrets/LinuxSecretStore.h"
#include "Platform/Linux/Secrets/SecretServiceKeyring.h"
#include "Testing/FakeSecretStore.h"
#include "Testing/PrivateBus.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

struct FakeFixture {
    FakeSecretStore store;
    bool isThere() const { return true; }
};

/// No session bus: everything is kept in the file.
struct FileFixture {
    FileFixture() { ::unsetenv("DBUS_SESSION_BUS_ADDRESS"), ::unsetenv("XDG_RUNTIME_DIR"); }
    ScratchFolder folder;
    SecretServiceKeyring keyring;
    LinuxSecretStore store{keyring, folder / "secrets.json"};
    bool isThere() const { return true; }
};

/// A keyring daemon of its own, unlocked with an empty password.
struct KeyringFixture {
    KeyringFixture() {
        std::filesystem::permissions(folder.path(), std::filesystem::perms::owner_all);
        std::ofstream(folder / "password") << "\n";
        auto started = ChildProgram::start(
            {"sh", "-c",
             "exec gnome-keyring-daemon --unlock --components=secrets --foreground < " +
                 (folder / "password").string()},
            {"HOME=" + folder.path().string(), "XDG_DATA_HOME=" + (folder / "data").string(),
             "XDG_RUNTIME_DIR=" + folder.path().string()},
            true);
        if (!started) return;
        daemon = *std::move(started);
        // The daemon takes its name when it is ready: until then nobody owns it.
        for (int i = 0; i < 200 && !answers; ++i) {
            const auto reading = keyring.read({"probe", "probe"});
            answers = !reading && reading.error().trouble == Keyring::Trouble::absent;
            if (!answers) std::this_thread::sleep_for(50ms);
        }
    }
    bool isThere() const { return answers; }

    ScratchFolder folder;
    PrivateBus bus{PrivateBus::Role::session};
    std::unique_ptr<ChildProgram> daemon;
    SecretServiceKeyring keyring;
    LinuxSecretStore store{keyring, folder / "secrets.json"};
    bool answers = false;
};

template <class Fixture>
class SecretStoreContract : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(fixture_.isThere()); }
    SecretStore& store() { return fixture_.store; }
    Fixture fixture_;
};
using Fixtures = testing::Types<FakeFixture, FileFixture, KeyringFixture>;
TYPED_TEST_SUITE(SecretStoreContract, Fixtures);

TYPED_TEST(SecretStoreContract, keepsItemsByServiceAndAccount) {
    SecretStore& store = this->store();
    const SecretName host{"com.velmora.host", "password"}, device{"com.velmora.devices", "password"};
    EXPECT_EQ(store.read(host).error(), SecretStore::Lack::absent);
    EXPECT_TRUE(store.remove(host));

    ASSERT_TRUE(store.save(host, viewOf("000042"), "Velmora host password"));
    ASSERT_TRUE(store.save(device, viewOf("123456"), "Velmora password for Mini “ä”"));
    EXPECT_EQ(store.read(host).value(), bytesOf("000042"));
    EXPECT_EQ(store.read(device).value(), bytesOf("123456"));

    ASSERT_TRUE(store.save(host, viewOf("777777"), "another label"));
    EXPECT_EQ(store.read(host).value(), bytesOf("777777"));
    ASSERT_TRUE(store.remove(host));
    EXPECT_EQ(store.read(host).error(), SecretStore::Lack::absent);
    EXPECT_EQ(store.read(device).value(), bytesOf("123456"));
}

TYPED_TEST(SecretStoreContract, keepsAnyBytes) {
    SecretStore& store = this->store();
    Bytes every(4096);
    for (std::size_t i = 0; i < every.size(); ++i) every[i] = static_cast<std::uint8_t>(i * 7);
    for (const Bytes& value : {Bytes{}, Bytes{0}, Bytes{0xff, 0, 0xc3}, every}) {
        ASSERT_TRUE(store.save({"service", "account"}, value, "label"));
        EXPECT_EQ(store.read({"service", "account"}).value(), value) << value.size();
    }
}

class KeyringStore : public testing::Test, protected KeyringFixture {
protected:
    void SetUp() override { ASSERT_TRUE(isThere()); }
};

TEST_F(KeyringStore, itemsAreInTheKeyringAndUnavailableWithoutIt) {
    const SecretName name{"com.velmora.host", "password"};
    ASSERT_TRUE(store.save(name, viewOf("135790"), "label"));
    std::ifstream file(folder / "secrets.json");
    const std::string text(std::istreambuf_iterator<char>(file), {});
    EXPECT_NE(text.find("com.velmora.host"), std::string::npos);
    EXPECT_EQ(text.find("value"), std::string::npos);

    SecretServiceKeyring another;
    LinuxSecretStore restarted(another, folder / "secrets.json");
    EXPECT_EQ(restarted.read(name).value(), bytesOf("135790"));
    daemon.reset();
    EXPECT_EQ(restarted.read(name).error(), SecretStore::Lack::unavailable);
    EXPECT_FALSE(restarted.save(name, viewOf("000000"), "label"));
    bus.stop();
    EXPECT_EQ(restarted.read(name).error(), SecretStore::Lack::unavailable);
}

TEST_F(KeyringStore, aLockedKeyringTellsOfNoItemThatItIsAbsent) {
    const SecretName name{"com.velmora.host", "password"};
    ASSERT_TRUE(store.save(name, viewOf("135790"), "label"));
    ASSERT_EQ(std::system("gdbus call --session --dest org.freedesktop.secrets "
                          "--object-path /org/freedesktop/secrets "
                          "--method org.freedesktop.Secret.Service.Lock "
                          "\"['/org/freedesktop/secrets/collection/login']\" > /dev/null"),
              0);
    EXPECT_EQ(store.read(name).error(), SecretStore::Lack::unavailable);
    EXPECT_EQ(store.read({"com.velmora.host", "never saved"}).error(), SecretStore::Lack::unavailable);
    EXPECT_FALSE(store.save(name, viewOf("000000"), "label"));
    EXPECT_FALSE(store.save({"com.velmora.host", "never saved"}, viewOf("000000"), "label"));
}

TEST_F(KeyringStore, aServiceThatDoesNotAnswerIsUnavailableWithinTheLimit) {
    SecretServiceKeyring impatient(300ms);
    LinuxSecretStore restarted(impatient, folder / "secrets.json");
    daemon->signal(SIGSTOP);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(restarted.read({"com.velmora.host", "password"}).error(), SecretStore::Lack::unavailable);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    daemon->signal(SIGCONT);
}

}  // namespace
}  // namespace velmora
