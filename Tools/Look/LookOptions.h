#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Shared/RemoteDevices.h"
#include "Tools/Look/LookScript.h"
#include "VelmoraKit/Core/Result.h"
#include "VelmoraKit/Wire/DisplayRecords.h"

namespace velmora {

/// What the command line asks for.
struct LookOptions {
    std::string address;                  // as it was given; a Host ID in its grouped form
    std::optional<std::string> password;  // its digits
    std::optional<std::string> fingerprint;
    std::optional<DisplayRequest> size;  // of a virtual display
    std::vector<LookStep> steps;         // from --type, --seconds and --png, in this order
    std::optional<std::string> script;   // a file to go on with, "-" for standard input
    LookStep::Seconds limit{30};         // for the first picture
    bool agent = false;
    bool stats = false;
    bool log = false;

    /// A Host ID, a service on the local network ("Name._velmora._udp.local."), else a host or host:port.
    RemoteDevices::Target target() const;

    static const std::string_view usage;
    static Result<LookOptions> parse(const std::vector<std::string>& arguments);
};

}  // namespace velmora
