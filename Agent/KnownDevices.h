#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Agent/DeviceDirectory.h"
#include "Shared/Keychain.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// The same list of Macs as the application's, and their passwords out of the same store.
class KnownDevices final : public DeviceDirectory {
public:
    /// `devices` and both queues outlive us, `keychain` every block on `worker`.
    KnownDevices(RemoteDevices& devices, Keychain& keychain, Queue& main, Queue& worker)
        : devices_(devices), keychain_(keychain), main_(main), worker_(worker) {}

    std::vector<Device> devices() const override { return devices_.devices(); }
    std::optional<Device> add(const std::string& name, const std::string& hostID,
                              const std::string& password) override {
        return devices_.add(name, hostID, password);
    }
    void readPassword(const Device& device, UniqueFunction<void(std::optional<std::string>)> done) override;

private:
    RemoteDevices& devices_;
    Keychain& keychain_;
    Queue& main_;
    Queue& worker_;  // where passwords are saved too: one that was just given is read back
    Liveness liveness_;
};

}  // namespace velmora
