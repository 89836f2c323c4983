#pragma once

#include <avahi-core/core.h>
#include <avahi-core/publish.h>

#include <optional>

#include "Platform/Linux/Discovery/AvahiLoop.h"
#include "Platform/Linux/Discovery/AvahiStack.h"

namespace velmora {

/// A multicast DNS responder inside this process, for machines without the daemon. It answers under a host
/// name of its own and adds this machine's addresses itself, without reverse records: two responders on one
/// machine would fight over those for ever. The addresses are added anew when they change.
class AvahiCoreStack final : public AvahiStack {
public:
    explicit AvahiCoreStack(AvahiLoop& loop) : loop_(loop) {}
    ~AvahiCoreStack() override;

    void start() override;
    std::unique_ptr<Handle> addService(const ServiceDiscovery::Service& service,
                                       EntryCallback callback) override;
    std::unique_ptr<Handle> browse(const std::string& type, BrowseCallback callback) override;
    std::unique_ptr<Handle> resolve(const Sighting& sighting, AvahiProtocol family,
                                    ResolveCallback callback) override;

private:
    void changed(AvahiServer* server, AvahiServerState state);
    void watchAddresses();
    void addressesMayHaveChanged();
    void publishAddresses();

    AvahiLoop& loop_;
    AvahiServer* server_ = nullptr;
    AvahiSEntryGroup* addresses_ = nullptr;
    bool isRunning_ = false;
    int netlink_ = -1;
    std::optional<AvahiLoop::Watch> addressWatch_;
    std::optional<AvahiLoop::Timer> settleTimer_;  // held while changes may still be coming
};

}  // namespace velmora
