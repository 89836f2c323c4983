#include <gtest/gtest.h>

#include "Platform/Linux/Secrets/GnuTlsKeyStore.h"
#include "Testing/FakeKeyStore.h"
#include "Testing/FakeSecretStore.h"
#include "Testing/ScratchFolder.h"
#include "VelmoraKit/Transport/HostCertificate.h"

namespace velmora {
namespace {

struct FakeFixture {
    FakeKeyStore store;
};
struct GnuTlsFixture {
    ScratchFolder folder;
    FakeSecretStore secrets;
    GnuTlsKeyStore store{secrets, folder.path()};
};

template <class Fixture>
class KeyStoreContract : public testing::Test {
protected:
    KeyStore& store() { return fixture_.store; }

private:
    Fixture fixture_;
};
using Fixtures = testing::Types<FakeFixture, GnuTlsFixture>;
TYPED_TEST_SUITE(KeyStoreContract, Fixtures);

TYPED_TEST(KeyStoreContract, keysAreFoundByLabelUntilReplacedOrDeleted) {
    KeyStore& store = this->store();
    EXPECT_EQ(store.publicKey("one").error(), KeyStore::Lack::absent);
    EXPECT_EQ(store.privateKey("one").error(), KeyStore::Lack::absent);
    EXPECT_FALSE(store.sign("one", viewOf("message")));
    EXPECT_TRUE(store.deleteKey("one"));

    ASSERT_TRUE(store.createKey("one"));
    ASSERT_TRUE(store.createKey("two"));
    const Bytes first = store.publicKey("one").value();
    EXPECT_EQ(first.size(), 65u);
    EXPECT_EQ(first[0], 4);
    EXPECT_EQ(store.publicKey("one").value(), first);
    EXPECT_NE(store.publicKey("two").value(), first);
    EXPECT_NE(store.sign("one", viewOf("a")).value(), store.sign("one", viewOf("b")).value());
    EXPECT_EQ(store.sign("one", viewOf("a")).value()[0], 0x30);

    ASSERT_TRUE(store.createKey("one"));
    EXPECT_NE(store.publicKey("one").value(), first);
    EXPECT_TRUE(store.deleteKey("one"));
    EXPECT_EQ(store.publicKey("one").error(), KeyStore::Lack::absent);
    EXPECT_TRUE(store.publicKey("two"));
}

TYPED_TEST(KeyStoreContract, certificatesAreFoundByLabelAndCarryTheirKey) {
    KeyStore& store = this->store();
    EXPECT_EQ(store.findCertificate("Velmora Host").error(), KeyStore::Lack::absent);
    EXPECT_TRUE(store.deleteCertificate("Velmora Host"));
    const auto made = HostCertificate::load(store);
    ASSERT_TRUE(made);
    EXPECT_EQ(store.findCertificate("Velmora Host").value(), made->identity.certificate);
    EXPECT_EQ(store.publicKeyOfCertificate(made->identity.certificate).value(),
              store.publicKey("Velmora Host QUIC").value());
    EXPECT_FALSE(store.publicKeyOfCertificate(viewOf("no certificate")));
    EXPECT_TRUE(store.deleteCertificate("Velmora Host"));
    EXPECT_EQ(store.findCertificate("Velmora Host").error(), KeyStore::Lack::absent);
}

TYPED_TEST(KeyStoreContract, randomBytesDifferAndHashesDoNot) {
    KeyStore& store = this->store();
    EXPECT_EQ(store.randomBytes(8).size(), 8u);
    EXPECT_NE(store.randomBytes(16), store.randomBytes(16));
    EXPECT_EQ(store.sha256(viewOf("a")), store.sha256(viewOf("a")));
    EXPECT_NE(store.sha256(viewOf("a")), store.sha256(viewOf("b")));
}

}  // namespace
}  // namespace velmora
