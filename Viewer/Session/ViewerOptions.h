#pragma once

#include <optional>
#include <string>

#include "Shared/RemoteDevices.h"
#include "VelmoraKit/Transport/Endpoint.h"

namespace velmora {

/// Whom a connection is to and who asks. Given at construction and never changed.
struct ViewerOptions {
    RemoteDevices::Target target;
    std::string name;  // of the host as the user knows it: in messages, and the key of its last picture
    std::optional<std::string> password;     // six digits; absent when none is saved
    std::optional<Endpoint> lanEndpoint;     // where a Host ID machine was last seen on this network
    std::optional<std::string> fingerprint;  // of the host's certificate, if known already
    std::string clientName;                  // of this machine, for the host to show
    bool audio = false;                      // ask for sound
    bool agent = false;                      // an agent's session, not a person's
};

}  // namespace velmora
