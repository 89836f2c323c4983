#include "VelmoraKit/Wire/KeyCodes.h"

#include <array>

namespace velmora {
namespace {

struct Pair {
    std::uint8_t mac;
    std::uint8_t evdev;
};

// By macOS code. Of the two Enter keys that share an evdev code (0x34 of old portable keyboards and 0x4C of
// the keypad) the later one is the way back.
constexpr Pair pairs[] = {
    // clang-format off
    {0x00, 30}, {0x01, 31}, {0x02, 32}, {0x03, 33}, {0x04, 35}, {0x05, 34}, {0x06, 44}, {0x07, 45},
    {0x08, 46}, {0x09, 47}, {0x0A, 86}, {0x0B, 48}, {0x0C, 16}, {0x0D, 17}, {0x0E, 18}, {0x0F, 19},
    {0x10, 21}, {0x11, 20}, {0x12, 2}, {0x13, 3}, {0x14, 4}, {0x15, 5}, {0x16, 7}, {0x17, 6}, {0x18, 13},
    {0x19, 10}, {0x1A, 8}, {0x1B, 12}, {0x1C, 9}, {0x1D, 11}, {0x1E, 27}, {0x1F, 24}, {0x20, 22},
    {0x21, 26}, {0x22, 23}, {0x23, 25}, {0x24, 28}, {0x25, 38}, {0x26, 36}, {0x27, 40}, {0x28, 37},
    {0x29, 39}, {0x2A, 43}, {0x2B, 51}, {0x2C, 53}, {0x2D, 49}, {0x2E, 50}, {0x2F, 52}, {0x30, 15},
    {0x31, 57}, {0x32, 41}, {0x33, 14}, {0x34, 96}, {0x35, 1}, {0x36, 126}, {0x37, 125}, {0x38, 42},
    {0x39, 58}, {0x3A, 56}, {0x3B, 29}, {0x3C, 54}, {0x3D, 100}, {0x3E, 97}, {0x40, 187}, {0x41, 83},
    {0x43, 55}, {0x45, 78}, {0x47, 69}, {0x48, 115}, {0x49, 114}, {0x4A, 113}, {0x4B, 98}, {0x4C, 96},
    {0x4E, 74}, {0x4F, 188}, {0x50, 189}, {0x51, 117}, {0x52, 82}, {0x53, 79}, {0x54, 80}, {0x55, 81},
    {0x56, 75}, {0x57, 76}, {0x58, 77}, {0x59, 71}, {0x5A, 190}, {0x5B, 72}, {0x5C, 73}, {0x5D, 124},
    {0x5E, 89}, {0x5F, 121}, {0x60, 63}, {0x61, 64}, {0x62, 65}, {0x63, 61}, {0x64, 66}, {0x65, 67},
    {0x66, 94}, {0x67, 87}, {0x68, 92}, {0x69, 183}, {0x6A, 186}, {0x6B, 184}, {0x6D, 68}, {0x6E, 127},
    {0x6F, 88}, {0x71, 185}, {0x72, 110}, {0x73, 102}, {0x74, 104}, {0x75, 111}, {0x76, 62}, {0x77, 107},
    {0x78, 60}, {0x79, 109}, {0x7A, 59}, {0x7B, 105}, {0x7C, 106}, {0x7D, 108}, {0x7E, 103},
    // clang-format on
};

using Table = std::array<std::uint16_t, 256>;
constexpr std::uint16_t none = 0xFFFF;

constexpr Table makeTable(std::uint8_t Pair::*from, std::uint8_t Pair::*to) {
    Table table{};
    for (auto& entry : table) entry = none;
    for (const Pair& pair : pairs) table[pair.*from] = pair.*to;
    return table;
}

constexpr Table evdevByMac = makeTable(&Pair::mac, &Pair::evdev);
constexpr Table macByEvdev = makeTable(&Pair::evdev, &Pair::mac);

std::optional<std::uint16_t> lookUp(const Table& table, std::uint16_t code) {
    if (code >= table.size() || table[code] == none) return std::nullopt;
    return table[code];
}

}  // namespace

std::optional<std::uint16_t> evdevFromMacKey(std::uint16_t keyCode) {
    return lookUp(evdevByMac, keyCode);
}

std::optional<std::uint16_t> macKeyFromEvdev(std::uint16_t evdevCode) {
    return lookUp(macByEvdev, evdevCode);
}

}  // namespace velmora
