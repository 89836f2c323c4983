#pragma once

#include <optional>
#include <string>

#include "Platform/MacKind.h"

namespace velmora {

/// What this machine is called and what it is. Any thread; reads a few small files.
class MachineInfo {
public:
    virtual ~MachineInfo() = default;

    /// The name a person gave the machine, in their own words, else its host name; "Mac" if it has none.
    virtual std::string localizedName() const = 0;

    /// What the hardware says of its case; none when it says nothing.
    virtual std::optional<MacKind> kind() const = 0;
};

}  // namespace velmora
