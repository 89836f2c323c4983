#include "Tools/View/ViewOptions.h"

#include <fmt/format.h>

#include <algorithm>

#include "Shared/RemoteDevices.h"

namespace velmora {

const std::string_view ViewOptions::usage =
    R"(Usage: velmora-view ADDRESS [--password N] [--name NAME] [--fingerprint F] [ADDRESS ...] [--log]
Opens a window on each host. ADDRESS is a name or address, with or without a port, or a 9-digit Host ID.
  --password N       the host's six digits
  --name NAME        what to call it
  --fingerprint F    trust only the certificate with this fingerprint
  --log              print the diary to standard error
Ends with the last window: with 1 if a connection failed, with 2 if it was not understood.
)";

namespace {

RemoteDevices::Target targetOf(const std::string& address) {
    const bool isHostId =
        address.size() == 9 && std::ranges::all_of(address, [](char c) { return c >= '0' && c <= '9'; });
    if (isHostId) return RemoteDevices::HostId{address};
    return RemoteDevices::endpointFor(address);
}

}  // namespace

Result<ViewOptions> ViewOptions::parse(const std::vector<std::string>& arguments) {
    ViewOptions options;
    for (auto argument = arguments.begin(); argument != arguments.end(); ++argument) {
        if (*argument == "--log") {
            options.log = true;
            continue;
        }
        if (!argument->starts_with("--")) {
            options.hosts.push_back({.target = targetOf(*argument), .name = *argument});
            continue;
        }
        const std::string& option = *argument;
        if (option != "--password" && option != "--name" && option != "--fingerprint")
            return Failure{fmt::format("there is no option {}", option)};
        if (options.hosts.empty())
            return Failure{fmt::format("{} comes after the address it is for", option)};
        if (++argument == arguments.end()) return Failure{fmt::format("{} needs a value", option)};
        ViewerOptions& host = options.hosts.back();
        if (option == "--password") host.password = *argument;
        if (option == "--name") host.name = *argument;
        if (option == "--fingerprint") host.fingerprint = *argument;
    }
    if (options.hosts.empty()) return Failure{"whom to look at?"};
    return options;
}

}  // namespace velmora
