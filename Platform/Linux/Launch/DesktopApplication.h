#pragma once

#include <optional>
#include <string>
#include <vector>

#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// An installed application, as its desktop entry describes it (Desktop Entry Specification 1.5).
struct DesktopApplication {
    std::string name;
    std::string command;             // the entry's Exec, with its field codes
    std::string icon, file, folder;  // the entry's Icon, where it stands, and its Path; may be empty
    bool needsTerminal = false;

    /// The one that people mean by `name`: by its name rather than by what kind of program it is, by a whole
    /// name rather than by the beginning of one.
    static std::optional<DesktopApplication> named(const std::string& name);
    static std::optional<DesktopApplication> forFile(const std::string& path);
    static std::optional<DesktopApplication> forScheme(const std::string& scheme);

    /// What to run to open `target`, a path or an address; none of it: the application alone. Empty if the
    /// entry's command cannot be understood.
    std::vector<std::string> argumentsFor(const std::optional<std::string>& target) const;
};

/// Runs a program that outlives us, in a session of its own, with no streams of ours and nothing in its
/// environment that was meant for us alone. `folder` may be empty.
Status startProgram(const std::vector<std::string>& arguments, const std::string& folder);

}  // namespace velmora
