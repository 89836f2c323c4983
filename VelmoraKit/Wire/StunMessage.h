#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "VelmoraKit/Core/Bytes.h"

/// The binding exchange of STUN (RFC 5389): under which public address does the server see this packet?
namespace velmora::stun {

inline constexpr std::uint16_t port = 3478;
inline constexpr std::size_t headerSize = 20;

using TransactionId = std::array<std::uint8_t, 12>;

struct MappedAddress {
    std::array<std::uint8_t, 4> address{};
    std::uint16_t port = 0;

    std::string text() const;  // "192.0.2.1:32853"
    bool operator==(const MappedAddress&) const = default;
};

/// Header alone, no attributes: type 00 01, length 0, magic cookie, transaction. 20 bytes.
Bytes encodeBindingRequest(const TransactionId& transaction);
/// The transaction of a binding request, whatever attributes it has; none if it is not one.
std::optional<TransactionId> decodeBindingRequest(ByteView packet);

/// Type 01 01 with the one attribute XOR-MAPPED-ADDRESS. 32 bytes.
Bytes encodeBindingResponse(const TransactionId& transaction, const MappedAddress& mapped);
/// The same to an IPv6 address. 44 bytes.
Bytes encodeBindingResponse(const TransactionId& transaction, const std::array<std::uint8_t, 16>& address,
                            std::uint16_t port);
/// The first IPv4 XOR-MAPPED-ADDRESS of a success response to `transaction`; none if it has none or is
/// something else. IPv6 addresses and the plain MAPPED-ADDRESS, which some NATs rewrite, do not count.
std::optional<MappedAddress> decodeBindingResponse(ByteView packet, const TransactionId& transaction);

}  // namespace velmora::stun
