#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VelmoraKit/Core/Result.h"
#include "Viewer/Session/ViewerOptions.h"

namespace velmora {

/// What the command line of velmora-view asks for.
struct ViewOptions {
    std::vector<ViewerOptions> hosts;  // a window for each
    bool log = false;

    static const std::string_view usage;
    static Result<ViewOptions> parse(const std::vector<std::string>& arguments);
};

}  // namespace velmora
