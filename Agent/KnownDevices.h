#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Agent/DeviceDirectory.h"

namespace velmora {

/// The same list of Macs as the application's, and their passwords out of the same store.
class KnownDevices final : public DeviceDirectory {
public:
    /// `devices` outlives us.
    explicit KnownDevices(RemoteDevices& devices) : devices_(devices) {}

    std::vector<Device> devices() const override { return devices_.devices(); }
    std::optional<Device> add(const std::string& name, const std::string& hostID,
                              const std::string& password) override {
        return devices_.add(name, hostID, password);
    }
    void readPassword(const Device& device, UniqueFunction<void(std::optional<std::string>)> done) override {
        devices_.readPassword(device, std::move(done));
    }

private:
    RemoteDevices& devices_;
};

}  // namespace velmora
