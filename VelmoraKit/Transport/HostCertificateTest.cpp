#include "VelmoraKit/Transport/HostCertificate.h"

#include <gtest/gtest.h>

#include "Testing/FakeKeyStore.h"
#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Transport/DER.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

TEST(DERTest, lengthsTakeTheFewestBytes) {
    const auto header = [](std::size_t length) {
        Bytes der = DER::tagged(DER::Tag::sequence, ByteView(Bytes(length, 7)));
        der.resize(der.size() - length);
        return der;
    };
    EXPECT_EQ(header(0), (Bytes{0x30, 0}));
    EXPECT_EQ(header(127), (Bytes{0x30, 0x7f}));
    EXPECT_EQ(header(128), (Bytes{0x30, 0x81, 0x80}));
    EXPECT_EQ(header(255), (Bytes{0x30, 0x81, 0xff}));
    EXPECT_EQ(header(256), (Bytes{0x30, 0x82, 0x01, 0x00}));
    EXPECT_EQ(header(65536), (Bytes{0x30, 0x83, 0x01, 0x00, 0x00}));
}

TEST(DERTest, timesAreUtcWithTwoDigitsEach) {
    const auto text = [](std::chrono::system_clock::time_point date) {
        const Bytes der = DER::utcTime(date);
        EXPECT_EQ(der[0], 0x17);
        return textOf(ByteView(der).subspan(2));
    };
    EXPECT_EQ(text(std::chrono::sys_days(std::chrono::year(2026) / 1 / 2) + 3h + 4min + 5s + 999ms),
              "260102030405Z");
    EXPECT_EQ(text(std::chrono::sys_days(std::chrono::year(1999) / 12 / 31) + 23h + 59min + 59s),
              "991231235959Z");
}

class HostCertificateTest : public testing::Test {
protected:
    HostCertificateTest() { DebugLog::shared().clear(); }

    auto load() { return HostCertificate::load(store, now); }
    std::vector<std::string> lines() {
        std::vector<std::string> texts;
        for (const auto& entry : DebugLog::shared().entries()) {
            EXPECT_EQ(entry.source, DebugLog::Source::viewer);
            texts.push_back(entry.text);
        }
        return texts;
    }

    using Lines = std::vector<std::string>;
    const HostCertificate::WallClock now = std::chrono::sys_days(std::chrono::year(2026) / 11 / 22);
    FakeKeyStore store;
};

TEST_F(HostCertificateTest, isMadeOnceAndKeepsItsFingerprint) {
    const auto first = load();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->fingerprint.size(), 64u);
    EXPECT_EQ(first->fingerprint.find_first_not_of("0123456789ABCDEF"), std::string::npos);
    EXPECT_EQ(lines(), Lines{"Created this Mac's QUIC certificate"});
    const auto muchLater = HostCertificate::load(store, now + 20 * 8760h);
    ASSERT_TRUE(muchLater);
    EXPECT_EQ(muchLater->fingerprint, first->fingerprint);
    EXPECT_EQ(muchLater->identity, first->identity);
    EXPECT_EQ(lines().size(), 1u);
}

TEST_F(HostCertificateTest, withoutItsKeyIsDeletedAndTheNextLoadMakesANewOne) {
    const auto first = load();
    ASSERT_TRUE(first);
    ASSERT_TRUE(store.deleteKey("Velmora Host QUIC"));
    const auto second = load();
    ASSERT_FALSE(second);
    EXPECT_EQ(second.error(), KeyStore::Lack::absent);
    EXPECT_EQ(lines().back(), "⚠︎ QUIC certificate has no matching key; making a new one");
    const auto third = load();
    ASSERT_TRUE(third);
    EXPECT_NE(third->fingerprint, first->fingerprint);
}

TEST_F(HostCertificateTest, withAnotherKeyOrBrokenBytesIsReplacedToo) {
    ASSERT_TRUE(load());
    ASSERT_TRUE(store.createKey("Velmora Host QUIC"));
    EXPECT_FALSE(load());
    ASSERT_TRUE(load());
    ASSERT_TRUE(store.storeCertificate("Velmora Host", Bytes{1, 2, 3}));
    EXPECT_FALSE(load());
    EXPECT_TRUE(load());
}

TEST_F(HostCertificateTest, aLockedKeyIsNeitherReplacedNorComplainedOf) {
    store.keysUnavailable = true;
    EXPECT_EQ(load().error(), KeyStore::Lack::unavailable);
    EXPECT_EQ(lines(), Lines{});
    store.keysUnavailable = false;
    const auto made = load();
    ASSERT_TRUE(made);
    store.keysUnavailable = true;
    EXPECT_EQ(load().error(), KeyStore::Lack::unavailable);
    store.keysUnavailable = false;
    EXPECT_EQ(load()->fingerprint, made->fingerprint);
    EXPECT_EQ(lines().size(), 1u);
}

TEST_F(HostCertificateTest, eachFailureSaysWhatFailedAndThatThereIsNone) {
    const std::string none = "⚠︎ No QUIC certificate available; connections by ID use TCP";
    const auto expectLines = [&](const std::string& line) {
        DebugLog::shared().clear();
        const auto result = load();
        ASSERT_FALSE(result);
        EXPECT_EQ(result.error(), KeyStore::Lack::absent);
        EXPECT_EQ(lines(), (Lines{line, none}));
    };
    store.refuseCreate = true;
    expectLines("⚠︎ Could not create the QUIC key: refused");
    store.refuseCreate = false;
    store.refuseSign = true;
    expectLines("⚠︎ Could not sign the QUIC certificate");
    store.refuseSign = false;
    store.refuseStore = true;
    expectLines("⚠︎ Could not store the QUIC certificate (28)");
}

}  // namespace
}  // namespace velmora
