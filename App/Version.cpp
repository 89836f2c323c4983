#include "App/Version.h"

#include <fmt/format.h>

namespace velmora::Version {

namespace {

constexpr std::string_view knownOr(std::string_view told) {
    return told.empty() ? "?" : told;
}

}  // namespace

std::string_view number() {
    return knownOr(VELMORA_VERSION);
}

std::string_view build() {
    return knownOr(VELMORA_BUILD);
}

std::string text() {
    return fmt::format("Version {} (build {})", number(), build());
}

}  // namespace velmora::Version
