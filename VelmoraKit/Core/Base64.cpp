#include "VelmoraKit/Core/Base64.h"

namespace velmora {
namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string base64Of(ByteView bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const auto at = [&](std::size_t k) -> std::uint32_t { return k < bytes.size() ? bytes[k] : 0; };
        const std::uint32_t group = at(i) << 16 | at(i + 1) << 8 | at(i + 2);
        text += alphabet[group >> 18];
        text += alphabet[group >> 12 & 63];
        text += i + 1 < bytes.size() ? alphabet[group >> 6 & 63] : '=';
        text += i + 2 < bytes.size() ? alphabet[group & 63] : '=';
    }
    return text;
}

std::optional<Bytes> bytesOfBase64(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') ++padding;
    Bytes bytes;
    bytes.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        std::uint32_t group = 0;
        for (std::size_t k = i; k < i + 4; ++k) {
            const bool isPadding = k >= text.size() - padding;
            const auto digit = isPadding ? 0 : alphabet.find(text[k]);
            if (digit == std::string_view::npos) return std::nullopt;
            group = group << 6 | static_cast<std::uint32_t>(digit);
        }
        bytes.push_back(static_cast<std::uint8_t>(group >> 16));
        bytes.push_back(static_cast<std::uint8_t>(group >> 8));
        bytes.push_back(static_cast<std::uint8_t>(group));
    }
    bytes.resize(bytes.size() - padding);
    return bytes;
}

}  // namespace velmora
