#include "VelmoraKit/Core/Utf8.h"

#include <algorithm>
#include <cstdint>

namespace velmora {

namespace {

/// What may follow a lead byte: how many bytes, and the bounds of the first of them. The bounds keep out
/// overlong forms, surrogates and values past U+10FFFF (Unicode, table 3-7).
struct Lead {
    int following = -1;
    std::uint8_t low = 0x80, high = 0xBF;
};

Lead leadOf(std::uint8_t byte) {
    if (byte < 0x80) return {0};
    if (byte >= 0xC2 && byte <= 0xDF) return {1};
    if (byte == 0xE0) return {2, 0xA0, 0xBF};
    if (byte == 0xED) return {2, 0x80, 0x9F};
    if (byte >= 0xE1 && byte <= 0xEF) return {2};
    if (byte == 0xF0) return {3, 0x90, 0xBF};
    if (byte >= 0xF1 && byte <= 0xF3) return {3};
    if (byte == 0xF4) return {3, 0x80, 0x8F};
    return {};
}

/// How many bytes at `at` of valid text may not stand in a line as they are; 0: they may.
std::size_t unprintableAt(std::string_view text, std::size_t at) {
    const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[at + i]); };
    if (byte(0) < 0x20 || byte(0) == 0x7F) return 1;
    // U+0080 to U+009F are controls, too: terminals take U+009B for the beginning of a command.
    if (byte(0) == 0xC2 && byte(1) < 0xA0) return 2;
    if (byte(0) != 0xE2) return 0;
    const bool isSeparatorOrEmbedding =
        byte(1) == 0x80 && byte(2) >= 0xA8 && byte(2) <= 0xAE;                     // U+2028 to U+202E
    const bool isIsolate = byte(1) == 0x81 && byte(2) >= 0xA6 && byte(2) <= 0xA9;  // U+2066 to U+2069
    return isSeparatorOrEmbedding || isIsolate ? 3 : 0;
}

}  // namespace

std::string repairedUtf8(ByteView bytes) {
    std::string text;
    text.reserve(bytes.size());
    std::size_t at = 0;
    while (at < bytes.size()) {
        const Lead lead = leadOf(bytes[at]);
        const std::size_t start = at++;
        int seen = 0;
        while (seen < lead.following && at < bytes.size()) {
            const std::uint8_t low = seen == 0 ? lead.low : 0x80;
            const std::uint8_t high = seen == 0 ? lead.high : 0xBF;
            if (bytes[at] < low || bytes[at] > high) break;
            ++seen;
            ++at;
        }
        if (seen == lead.following) {
            text += textOf(bytes.subspan(start, at - start));
        } else {
            text += "\xEF\xBF\xBD";
        }
    }
    return text;
}

std::string printableLine(std::string_view text, std::size_t longest) {
    const bool isCut = text.size() > longest;
    if (isCut) {
        text = text.substr(0, longest);
        // The character that the cut went through.
        while (!text.empty() && (text.back() & 0xC0) == 0x80) text.remove_suffix(1);
        if (!text.empty() && (text.back() & 0x80) != 0) text.remove_suffix(1);
    }
    const std::string valid = repairedUtf8(viewOf(text));
    std::string line;
    line.reserve(valid.size());
    for (std::size_t i = 0; i < valid.size();) {
        const std::size_t unprintable = unprintableAt(valid, i);
        line += unprintable > 0 ? ' ' : valid[i];
        i += std::max<std::size_t>(unprintable, 1);
    }
    if (isCut) line += "…";
    return line;
}

}  // namespace velmora
