#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "VelmoraKit/Core/Bytes.h"

namespace velmora {

using Digest = std::array<std::uint8_t, 32>;

/// From the system's secure source.
void fillRandomly(std::span<std::uint8_t> bytes);
/// Twice as many characters as `bytes`.
std::string randomHex(std::size_t bytes);

Digest sha256(ByteView bytes);
/// Takes as long whether the first byte differs or none.
bool equalInConstantTime(const Digest& a, const Digest& b);

}  // namespace velmora
