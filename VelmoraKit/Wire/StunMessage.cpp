#include "VelmoraKit/Wire/StunMessage.h"

#include <fmt/format.h>

#include <algorithm>

namespace velmora::stun {
namespace {

constexpr std::uint16_t bindingRequest = 0x0001;
constexpr std::uint16_t bindingSuccess = 0x0101;
constexpr std::uint16_t xorMappedAddress = 0x0020;
constexpr std::uint8_t familyIPv4 = 1;
constexpr std::uint8_t familyIPv6 = 2;
constexpr std::array<std::uint8_t, 4> cookie{0x21, 0x12, 0xA4, 0x42};
constexpr std::size_t transactionOffset = 8;
constexpr std::size_t attributeHeader = 4;
constexpr std::size_t addressValue = 8;  // zero, family, port, IPv4 address

std::uint16_t u16At(ByteView data, std::size_t offset) {
    return static_cast<std::uint16_t>(data[offset] << 8 | data[offset + 1]);
}

void append16(Bytes& out, std::uint16_t value) {
    out.push_back(static_cast<std::uint8_t>(value >> 8));
    out.push_back(static_cast<std::uint8_t>(value));
}

Bytes header(std::uint16_t type, std::uint16_t length, const TransactionId& transaction) {
    Bytes packet;
    packet.reserve(headerSize + length);
    append16(packet, type);
    append16(packet, length);
    packet.insert(packet.end(), cookie.begin(), cookie.end());
    packet.insert(packet.end(), transaction.begin(), transaction.end());
    return packet;
}

/// The port is hidden by the first half of the cookie, an address by all of it and, as far as it is longer,
/// by the transaction: the 16 bytes that they fill together in a header.
Bytes response(const TransactionId& transaction, std::uint8_t family, ByteView address, std::uint16_t port) {
    const auto valueSize = static_cast<std::uint16_t>(4 + address.size());
    Bytes packet =
        header(bindingSuccess, static_cast<std::uint16_t>(attributeHeader + valueSize), transaction);
    append16(packet, xorMappedAddress);
    append16(packet, valueSize);
    packet.push_back(0);
    packet.push_back(family);
    append16(packet, static_cast<std::uint16_t>(port ^ u16At(cookie, 0)));
    for (std::size_t i = 0; i < address.size(); ++i) {
        packet.push_back(static_cast<std::uint8_t>(address[i] ^ packet[4 + i]));
    }
    return packet;
}

/// The reverse, for IPv4.
MappedAddress unmasked(ByteView value) {
    MappedAddress mapped;
    mapped.port = static_cast<std::uint16_t>(u16At(value, 2) ^ u16At(cookie, 0));
    for (std::size_t i = 0; i < cookie.size(); ++i) {
        mapped.address[i] = static_cast<std::uint8_t>(value[4 + i] ^ cookie[i]);
    }
    return mapped;
}

}  // namespace

std::string MappedAddress::text() const {
    return fmt::format("{}.{}.{}.{}:{}", address[0], address[1], address[2], address[3], port);
}

Bytes encodeBindingRequest(const TransactionId& transaction) {
    return header(bindingRequest, 0, transaction);
}

std::optional<TransactionId> decodeBindingRequest(ByteView packet) {
    if (packet.size() < headerSize || u16At(packet, 0) != bindingRequest) return std::nullopt;
    // The length must be that of the packet: this port also receives what is no STUN at all.
    if (headerSize + u16At(packet, 2) != packet.size()) return std::nullopt;
    if (!std::ranges::equal(packet.subspan(4, cookie.size()), cookie)) return std::nullopt;
    TransactionId transaction;
    std::ranges::copy(packet.subspan(transactionOffset, transaction.size()), transaction.begin());
    return transaction;
}

Bytes encodeBindingResponse(const TransactionId& transaction, const MappedAddress& mapped) {
    return response(transaction, familyIPv4, mapped.address, mapped.port);
}

Bytes encodeBindingResponse(const TransactionId& transaction, const std::array<std::uint8_t, 16>& address,
                            std::uint16_t port) {
    return response(transaction, familyIPv6, address, port);
}

std::optional<MappedAddress> decodeBindingResponse(ByteView packet, const TransactionId& transaction) {
    if (packet.size() < headerSize || u16At(packet, 0) != bindingSuccess) return std::nullopt;
    if (!std::ranges::equal(packet.subspan(transactionOffset, transaction.size()), transaction)) {
        return std::nullopt;
    }
    std::size_t offset = headerSize;
    while (offset + attributeHeader <= packet.size()) {
        const std::uint16_t type = u16At(packet, offset);
        const std::size_t length = u16At(packet, offset + 2);
        const ByteView value = packet.subspan(offset + attributeHeader);
        if (type == xorMappedAddress && value.size() >= addressValue && value[1] == familyIPv4) {
            return unmasked(value);
        }
        offset += attributeHeader + (length + 3) / 4 * 4;  // values are padded to multiples of 4
    }
    return std::nullopt;
}

}  // namespace velmora::stun
