#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Shared/RemoteDevices.h"
#include "VelmoraKit/Core/UniqueFunction.h"

namespace velmora {

/// The Macs that an agent can name: those saved, and those seen on the network right now. Lives on the main
/// queue.
class DeviceDirectory {
public:
    using Device = RemoteDevices::Device;
    using Availability = RemoteDevices::Availability;

    virtual ~DeviceDirectory() = default;

    /// In the order in which they are listed.
    virtual std::vector<Device> devices() const = 0;
    /// Saves a Mac with its password at once, before either is proven; the name is empty to have one made of
    /// the Host ID. None: the ID has not nine digits or the password not six.
    virtual std::optional<Device> add(const std::string& name, const std::string& hostID,
                                      const std::string& password) = 0;
    /// Calls back on the main queue, later: a credential store may take its time.
    virtual void readPassword(const Device& device,
                              UniqueFunction<void(std::optional<std::string>)> done) = 0;
};

}  // namespace velmora
