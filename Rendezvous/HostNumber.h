#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmora {

/// A Host ID as a number, which takes less room than its nine digits.
enum class HostNumber : std::uint32_t {};

namespace detail {
inline bool areDigits(std::string_view text, std::size_t count) {
    return text.size() == count &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}
}  // namespace detail

inline std::optional<HostNumber> hostNumberOf(std::string_view id) {
    if (!detail::areDigits(id, 9)) return std::nullopt;
    std::uint32_t number = 0;
    std::from_chars(id.data(), id.data() + id.size(), number);
    return HostNumber{number};
}

inline std::string hostIdOf(HostNumber number) {
    return fmt::format("{:09}", static_cast<std::uint32_t>(number));
}

inline bool isHostPassword(std::string_view text) {
    return detail::areDigits(text, 6);
}

}  // namespace velmora
