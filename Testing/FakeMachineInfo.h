#pragma once

#include <optional>
#include <string>

#include "Platform/MachineInfo.h"

namespace velmora {

/// A machine that is what the test says.
class FakeMachineInfo final : public MachineInfo {
public:
    std::string localizedName() const override { return name; }
    std::optional<MacKind> kind() const override { return machineKind; }

    std::string name = "Studio";
    std::optional<MacKind> machineKind;
};

}  // namespace velmora
