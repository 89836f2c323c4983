#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VelmoraKit/Wire/DisplayRecords.h"

namespace velmora {

/// What stands behind "Velmora mcp" on the command line.
struct AgentArguments {
    std::optional<std::string> deviceName;
    /// The virtual display that the host shall make; none shows one of its own.
    std::optional<DisplayRequest> display = DisplayRequest{.width = 1440, .height = 900, .scale = 1};

    /// None: say `usage` and end with status 2. A later option overrides an earlier one.
    static std::optional<AgentArguments> parse(const std::vector<std::string>& arguments);
    static constexpr std::string_view usage =
        "usage: Velmora mcp [--device NAME] [--size WIDTHxHEIGHT | --own-display]";
    static constexpr int usageStatus = 2;

    bool operator==(const AgentArguments&) const = default;
};

}  // namespace velmora
