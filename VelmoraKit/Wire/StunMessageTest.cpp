#include "VelmoraKit/Wire/StunMessage.h"

#include <gtest/gtest.h>

#include <initializer_list>

#include "VelmoraKit/Wire/RelayTags.h"

namespace velmora::stun {
namespace {

constexpr TransactionId transaction{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
const Bytes requestBytes{0x00, 0x01, 0x00, 0x00, 0x21, 0x12, 0xA4, 0x42, 1,  2,
                         3,    4,    5,    6,    7,    8,    9,    10,   11, 12};
// 192.0.2.1, port 32853; the example of RFC 5769 section 2.2.
const Bytes ipv4Attribute{0x00, 0x20, 0x00, 0x08, 0x00, 0x01, 0xA1, 0x47, 0xE1, 0x12, 0xA6, 0x43};
const MappedAddress mapped{{192, 0, 2, 1}, 32853};

Bytes response(std::initializer_list<Bytes> attributes) {
    Bytes packet = requestBytes;
    packet[0] = 0x01;
    for (const Bytes& attribute : attributes) {
        packet.insert(packet.end(), attribute.begin(), attribute.end());
        packet[3] = static_cast<std::uint8_t>(packet[3] + attribute.size());
    }
    return packet;
}

TEST(StunMessageTest, requestAndResponseAreTheBytesOfTheStandard) {
    EXPECT_EQ(encodeBindingRequest(transaction), requestBytes);
    EXPECT_EQ(decodeBindingRequest(requestBytes), transaction);
    EXPECT_EQ(encodeBindingResponse(transaction, mapped), response({ipv4Attribute}));
    EXPECT_EQ(decodeBindingResponse(response({ipv4Attribute}), transaction), mapped);
    EXPECT_EQ(mapped.text(), "192.0.2.1:32853");
}

TEST(StunMessageTest, hidesAnIPv6AddressBehindCookieAndTransaction) {
    // The example of RFC 5769 section 2.3.
    const TransactionId other{0xB7, 0xE7, 0xA7, 0x01, 0xBC, 0x34, 0xD6, 0x86, 0xFA, 0x87, 0xDF, 0xAE};
    const Bytes answer = encodeBindingResponse(
        other,
        {0x20, 0x01, 0x0D, 0xB8, 0x12, 0x34, 0x56, 0x78, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77},
        32853);
    const Bytes attribute{0x00, 0x20, 0x00, 0x14, 0x00, 0x02, 0xA1, 0x47, 0x01, 0x13, 0xA9, 0xFA,
                          0xA5, 0xD3, 0xF1, 0x79, 0xBC, 0x25, 0xF4, 0xB5, 0xBE, 0xD2, 0xB9, 0xD9};
    EXPECT_EQ(Bytes(answer.begin() + headerSize, answer.end()), attribute);
    EXPECT_EQ(answer[3], attribute.size());
}

TEST(StunMessageTest, findsTheAddressAmongOtherAttributes) {
    const Bytes software{0x80, 0x22, 0x00, 0x05, 'h', 'e', 'l', 'l', 'o', 0, 0, 0};  // padded to 12
    const Bytes plainAddress{0x00, 0x01, 0x00, 0x08, 0x00, 0x01, 0x12, 0x34, 10, 0, 0, 1};
    Bytes ipv6Attribute{0x00, 0x20, 0x00, 0x14, 0x00, 0x02, 0xA1, 0x47};
    ipv6Attribute.resize(24, 0x33);
    EXPECT_EQ(
        decodeBindingResponse(response({software, plainAddress, ipv6Attribute, ipv4Attribute}), transaction),
        mapped);
    EXPECT_EQ(decodeBindingResponse(response({plainAddress, ipv6Attribute}), transaction), std::nullopt);
}

TEST(StunMessageTest, refusesEveryOtherPacket) {
    const Bytes good = response({ipv4Attribute});
    for (std::size_t size = 0; size < good.size(); ++size) {
        EXPECT_EQ(decodeBindingResponse(ByteView(good).first(size), transaction), std::nullopt) << size;
    }
    Bytes failure = good;
    failure[1] = 0x11;  // Binding Error Response
    EXPECT_EQ(decodeBindingResponse(failure, transaction), std::nullopt);
    TransactionId other = transaction;
    other.back() ^= 1;
    EXPECT_EQ(decodeBindingResponse(good, other), std::nullopt);
    Bytes endless = response({{0x80, 0x22, 0xFF, 0xFF}});
    EXPECT_EQ(decodeBindingResponse(endless, transaction), std::nullopt);

    for (std::size_t size = 0; size < requestBytes.size(); ++size) {
        EXPECT_EQ(decodeBindingRequest(ByteView(requestBytes).first(size)), std::nullopt) << size;
    }
    for (const std::size_t spoilt : {0, 1, 3, 4, 7}) {
        Bytes request = requestBytes;
        request[spoilt] ^= 0x04;
        EXPECT_EQ(decodeBindingRequest(request), std::nullopt) << spoilt;
    }
}

TEST(RelayTagsTest, areTheirBareBytes) {
    EXPECT_EQ(relayTags::registration("tök"), bytesOf("VLREGt\xC3\xB6k"));
    EXPECT_EQ(relayTags::tokenOf(bytesOf("VLREGt\xC3\xB6k")), "tök");
    EXPECT_EQ(relayTags::tokenOf(bytesOf("VLREG")), "");
    EXPECT_EQ(relayTags::tokenOf(bytesOf("VLRE")), std::nullopt);
    EXPECT_EQ(relayTags::tokenOf(bytesOf("VLACKx")), std::nullopt);

    EXPECT_EQ(relayTags::acknowledgement(), bytesOf("VLACK"));
    EXPECT_TRUE(relayTags::isAcknowledgement(bytesOf("VLACK")));
    for (const char* other : {"", "VLAC", "VLACK\n", "vlack", "VLREG"}) {
        EXPECT_FALSE(relayTags::isAcknowledgement(bytesOf(other))) << other;
    }
    EXPECT_EQ(relayTags::punch(), bytesOf("VLPUNCH"));
    EXPECT_TRUE(relayTags::isPunch(bytesOf("VLPUNCH")));
    EXPECT_FALSE(relayTags::isPunch(bytesOf("VLPUNCH!")));
}

}  // namespace
}  // namespace velmora::stun
