#pragma once

#include <string>
#include <string_view>

namespace velmora::Version {

/// What this build is called: "1.0.0", and the number of the build. "?" for what the build was not told.
std::string_view number();
std::string_view build();

/// "Version 1.0.0 (build 1)".
std::string text();

}  // namespace velmora::Version
