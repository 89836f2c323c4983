#include "VelmoraKit/Wire/RelayTags.h"

namespace velmora::relayTags {
namespace {

constexpr std::string_view registrationTag = "VLREG";
constexpr std::string_view acknowledgementTag = "VLACK";
constexpr std::string_view punchTag = "VLPUNCH";

std::string_view asText(ByteView payload) {
    return {reinterpret_cast<const char*>(payload.data()), payload.size()};
}

}  // namespace

Bytes registration(std::string_view token) {
    Bytes payload = bytesOf(registrationTag);
    const ByteView tail = viewOf(token);
    payload.insert(payload.end(), tail.begin(), tail.end());
    return payload;
}

Bytes acknowledgement() {
    return bytesOf(acknowledgementTag);
}

Bytes punch() {
    return bytesOf(punchTag);
}

std::optional<std::string_view> tokenOf(ByteView payload) {
    const std::string_view text = asText(payload);
    if (!text.starts_with(registrationTag)) return std::nullopt;
    return text.substr(registrationTag.size());
}

bool isAcknowledgement(ByteView payload) {
    return asText(payload) == acknowledgementTag;
}

bool isPunch(ByteView payload) {
    return asText(payload) == punchTag;
}

}  // namespace velmora::relayTags
