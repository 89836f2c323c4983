#pragma once

#include <filesystem>
#include <string_view>

#include "Platform/MachineInfo.h"

namespace velmora {

/// The machine's name from /etc/machine-info, else the host name; its kind from the case type that the
/// firmware tells (DMI).
class LinuxMachineInfo final : public MachineInfo {
public:
    /// `root` stands for "/" in tests.
    explicit LinuxMachineInfo(std::filesystem::path root = "/");

    std::string localizedName() const override;
    std::optional<MacKind> kind() const override;

    /// The value of PRETTY_HOSTNAME in a machine-info file; empty if there is none.
    static std::string prettyHostnameIn(std::string_view text);
    /// The kind nearest to a case type of the SMBIOS specification (section 7.4.1).
    static std::optional<MacKind> kindOfChassis(int type);

private:
    const std::filesystem::path root_;
};

}  // namespace velmora
