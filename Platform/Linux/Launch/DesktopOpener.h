#pragma once

#include <string>

#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// Opens what a person would: the name of an application ("Text Editor", "mousepad"), a path ("/etc/hosts",
/// "~/notes.txt", or one that exists in the home folder), an address ("mailto:somebody@example.org",
/// "example.org"). Applications are the desktop entries of this system; files and addresses go to the one
/// that is chosen for them. Nothing passes through a shell.
class DesktopOpener {
public:
    /// Reads files and may take a while; from any thread. Gives the command that was started, or says in
    /// words for the one who asked why there is none. What is started outlives us, without our standard
    /// streams.
    static Result<std::string> open(const std::string& target);
};

}  // namespace velmora
