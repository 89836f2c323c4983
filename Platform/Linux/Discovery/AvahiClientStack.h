#pragma once

#include <avahi-client/client.h>

#include "Platform/Linux/Discovery/AvahiLoop.h"
#include "Platform/Linux/Discovery/AvahiStack.h"

namespace velmora {

/// The Avahi daemon of the system, over D-Bus. Waits for a daemon that is not there yet; is gone when there
/// is no bus, or when the daemon went away.
class AvahiClientStack final : public AvahiStack {
public:
    explicit AvahiClientStack(AvahiLoop& loop) : loop_(loop) {}
    ~AvahiClientStack() override;

    void start() override;
    std::unique_ptr<Handle> addService(const ServiceDiscovery::Service& service,
                                       EntryCallback callback) override;
    std::unique_ptr<Handle> browse(const std::string& type, BrowseCallback callback) override;
    std::unique_ptr<Handle> resolve(const Sighting& sighting, AvahiProtocol family,
                                    ResolveCallback callback) override;

private:
    void changed(AvahiClient* client, AvahiClientState state);

    AvahiLoop& loop_;
    AvahiClient* client_ = nullptr;
};

}  // namespace velmora
