#include "Agent/AgentArguments.h"

#include <charconv>
#include <cstdint>

namespace velmora {

namespace {

std::optional<std::int64_t> integerOf(std::string_view text) {
    if (text.starts_with('+')) text.remove_prefix(1);
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

/// "1280x720"; pieces that are no integers are passed over, as long as two are left.
std::optional<DisplayRequest> sizeOf(std::string_view text) {
    std::vector<std::int64_t> sides;
    while (!text.empty()) {
        const auto end = std::min(text.find('x'), text.size());
        if (const auto side = integerOf(text.substr(0, end))) sides.push_back(*side);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    if (sides.size() != 2) return std::nullopt;
    return DisplayRequest{.width = sides[0], .height = sides[1], .scale = 1};
}

}  // namespace

std::optional<AgentArguments> AgentArguments::parse(const std::vector<std::string>& arguments) {
    AgentArguments parsed;
    for (auto next = arguments.begin(); next != arguments.end();) {
        const std::string& option = *next++;
        const bool hasValue = next != arguments.end();
        if (option == "--device") {
            parsed.deviceName = hasValue ? std::optional(*next++) : std::nullopt;
        } else if (option == "--own-display") {
            parsed.display.reset();
        } else if (option == "--size") {
            parsed.display = sizeOf(hasValue ? *next++ : std::string());
            if (!parsed.display) return std::nullopt;
        } else {
            return std::nullopt;
        }
    }
    return parsed;
}

}  // namespace velmora
