#include "Agent/KeyNames.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

namespace velmora {

namespace {

constexpr auto modifiers = std::to_array<std::pair<std::string_view, std::uint64_t>>({
    {"shift", 0x20000},
    {"ctrl", 0x40000},
    {"control", 0x40000},
    {"alt", 0x80000},
    {"opt", 0x80000},
    {"option", 0x80000},
    {"cmd", 0x100000},
    {"command", 0x100000},
    {"meta", 0x100000},
    {"super", 0x100000},
    {"fn", 0x800000},
});

// "delete" is the key left of the cursor's, as on the keyboards that these codes come from.
constexpr auto named = std::to_array<std::pair<std::string_view, std::uint16_t>>({
    {"return", 36}, {"enter", 36},
    {"tab", 48},    {"space", 49},
    {"delete", 51}, {"backspace", 51},
    {"escape", 53}, {"esc", 53},
    {"del", 117},   {"home", 115},
    {"end", 119},   {"pageup", 116},
    {"left", 123},  {"forwarddelete", 117},
    {"right", 124}, {"down", 125},
    {"up", 126},    {"pagedown", 121},
    {"f1", 122},    {"f2", 120},
    {"f3", 99},     {"f4", 118},
    {"f5", 96},     {"f6", 97},
    {"f7", 98},     {"f8", 100},
    {"f9", 101},    {"f10", 109},
    {"f11", 103},   {"f12", 111},
});

// One key code per character of `printable`, ANSI layout.
constexpr std::string_view printable = "abcdefghijklmnopqrstuvwxyz0123456789-=[]\\;'`,./";
constexpr auto printableCodes = std::to_array<std::uint16_t>(
    {0,  11, 8,  2,  14, 3,  5,  4,  34, 38, 40, 37, 46, 45, 31, 35, 12, 15, 1,  17, 32, 9,  13, 7,
     16, 6,  29, 18, 19, 20, 21, 23, 22, 26, 28, 25, 27, 24, 33, 30, 42, 41, 39, 50, 43, 47, 44});
static_assert(printable.size() == printableCodes.size());

template <class Table>
auto find(const Table& table, std::string_view word) {
    const auto entry = std::ranges::find(table, word, [](const auto& e) { return e.first; });
    return entry == table.end() ? std::nullopt : std::optional(entry->second);
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n\v\f";
    const auto start = text.find_first_not_of(blanks);
    if (start == std::string_view::npos) return {};
    return text.substr(start, text.find_last_not_of(blanks) - start + 1);
}

/// The words between the plus signs, trimmed; two signs in a row have none between them.
std::vector<std::string_view> wordsOf(std::string_view text) {
    std::vector<std::string_view> words;
    while (!text.empty()) {
        const auto plus = std::min(text.find('+'), text.size());
        if (plus > 0) words.push_back(trimmed(text.substr(0, plus)));
        text.remove_prefix(std::min(plus + 1, text.size()));
    }
    return words;
}

}  // namespace

std::optional<KeyNames::Combo> KeyNames::parse(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    auto words = wordsOf(lower);
    if (words.empty()) return std::nullopt;
    const std::string_view key = words.back();
    words.pop_back();

    Combo combo;
    for (const std::string_view word : words) {
        const auto mask = find(modifiers, word);
        if (!mask) return std::nullopt;
        combo.flags |= *mask;
    }
    if (const auto code = find(named, key)) {
        combo.keyCode = *code;
        return combo;
    }
    const auto at = key.size() == 1 ? printable.find(key) : std::string_view::npos;
    if (at == std::string_view::npos) return std::nullopt;
    combo.keyCode = printableCodes[at];
    combo.characters = std::string(key);
    return combo;
}

}  // namespace velmora
