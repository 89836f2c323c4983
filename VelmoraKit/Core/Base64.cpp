#include "VelmoraKit/Core/Base64.h"

namespace velmora {
namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string base64Of(ByteView bytes) {
    std::string text((bytes.size() + 2) / 3 * 4, '=');
    char* out = text.data();
    const auto write = [&](std::uint32_t group, int digits) {
        for (int i = 0; i < digits; ++i) out[i] = alphabet[group >> (18 - 6 * i) & 63];
        out += 4;
    };
    const std::size_t whole = bytes.size() / 3 * 3;
    for (std::size_t i = 0; i < whole; i += 3)
        write(std::uint32_t{bytes[i]} << 16 | std::uint32_t{bytes[i + 1]} << 8 | bytes[i + 2], 4);
    if (bytes.size() - whole == 1) write(std::uint32_t{bytes[whole]} << 16, 2);
    if (bytes.size() - whole == 2)
        write(std::uint32_t{bytes[whole]} << 16 | std::uint32_t{bytes[whole + 1]} << 8, 3);
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
