#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "VelmoraKit/Core/Bytes.h"

namespace velmora {

std::string base64Of(ByteView bytes);
/// None unless `text` is padded standard base64 and nothing else (RFC 4648 section 4).
std::optional<Bytes> bytesOfBase64(std::string_view text);

}  // namespace velmora
