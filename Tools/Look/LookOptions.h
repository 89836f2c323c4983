#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Tools/Look/LookScript.h"
#include "VelmoraKit/Core/Result.h"
#include "VelmoraKit/Wire/DisplayRecords.h"

namespace velmora {

/// What the command line asks for.
struct LookOptions {
    std::string address;  // host, host:port, or a 9-digit Host ID
    std::optional<std::string> password;
    std::optional<std::string> fingerprint;
    std::optional<DisplayRequest> size;  // of a virtual display
    std::vector<LookStep> steps;         // from --type, --seconds and --png, in this order
    std::optional<std::string> script;   // a file to go on with, "-" for standard input
    LookStep::Seconds limit{30};         // for the first picture
    bool agent = false;
    bool stats = false;
    bool log = false;

    static const std::string_view usage;
    static Result<LookOptions> parse(const std::vector<std::string>& arguments);
};

}  // namespace velmora
