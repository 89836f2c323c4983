#pragma once

#include <fmt/format.h>

#include <cstdio>
#include <string_view>

#include "VelmoraKit/Core/Utf8.h"

namespace velmora {

/// One line on standard error, which the journal or the container's log keeps. Any thread. Never passwords
/// and tokens, and no addresses or IDs of people: what happens often is a number in Metrics instead.
inline void serviceLog(std::string_view text) {
    fmt::print(stderr, "{}\n", printableLine(text, 1000));
}

}  // namespace velmora
