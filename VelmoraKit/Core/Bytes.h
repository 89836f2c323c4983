#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

/// Raw bytes, owned and borrowed. Octets are `uint8_t`, as every codec and crypto library takes them.
using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

/// Immutable bytes shared between queues: a packet waits in the repair history and in the flow at once.
using SharedBytes = std::shared_ptr<const Bytes>;

inline ByteView viewOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

inline Bytes bytesOf(std::string_view text) {
    const ByteView view = viewOf(text);
    return {view.begin(), view.end()};
}

/// The bytes as text, unchecked: whoever shows or encodes it repairs bad UTF-8.
inline std::string textOf(ByteView bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace velmora
