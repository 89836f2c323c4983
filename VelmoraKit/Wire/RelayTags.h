#pragma once

#include <optional>
#include <string_view>

#include "VelmoraKit/Core/Bytes.h"

/// Bare UDP payloads beside QUIC: plain bytes, no header, no terminator.
namespace velmora::relayTags {

/// A client to the relay: its address belongs to `token`.
Bytes registration(std::string_view token);
/// The relay to the client: the registration was seen.
Bytes acknowledgement();
/// The host to the viewer's public address: opens the host's NAT. Nothing answers it.
Bytes punch();

/// The token of a registration, borrowed from it; none if it is no registration.
std::optional<std::string_view> tokenOf(ByteView payload);
/// Exact: with anything behind it, it is none.
bool isAcknowledgement(ByteView payload);
bool isPunch(ByteView payload);

}  // namespace velmora::relayTags
