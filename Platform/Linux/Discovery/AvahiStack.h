#pragma once

#include <avahi-common/address.h>
#include <avahi-common/strlst.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Platform/ServiceDiscovery.h"

namespace velmora {

/// One way to multicast DNS: the system's Avahi daemon, or a responder inside this process. Lives on the
/// Avahi loop; so do its callbacks. Handles end what they stand for and do not outlive the stack. Neither a
/// handle nor the stack may be destroyed in a callback: post it to the loop.
class AvahiStack {
public:
    enum class State { waiting, running, gone };
    enum class EntryState { established, collision, failed };
    enum class BrowseEvent { appeared, disappeared };

    /// Where a service was seen: the same service comes once per interface and protocol.
    struct Sighting {
        AvahiIfIndex interface;
        AvahiProtocol protocol;
        ServiceDiscovery::ServiceName service;
        auto operator<=>(const Sighting&) const = default;
    };
    struct Resolution {
        AvahiIfIndex interface;
        AvahiAddress address;
        std::uint16_t port;
        ServiceDiscovery::TxtRecord txt;
    };

    class Handle {
    public:
        virtual ~Handle() = default;
    };
    using EntryCallback = std::function<void(EntryState)>;
    using BrowseCallback = std::function<void(BrowseEvent, const Sighting&)>;
    /// None: not found, or no longer there.
    using ResolveCallback = std::function<void(const std::optional<Resolution>&)>;

    virtual ~AvahiStack() = default;

    /// Each change; set before `start`. Requests are possible while it runs, and all handles are to be let
    /// go when it no longer does.
    std::function<void(State)> onState;
    virtual void start() = 0;

    /// The callback may come from inside the call. None if the stack refuses, with `failed` told.
    virtual std::unique_ptr<Handle> addService(const ServiceDiscovery::Service& service,
                                               EntryCallback callback) = 0;
    virtual std::unique_ptr<Handle> browse(const std::string& type, BrowseCallback callback) = 0;
    /// Goes on telling as the record changes. `family` is that of the address wanted.
    virtual std::unique_ptr<Handle> resolve(const Sighting& sighting, AvahiProtocol family,
                                            ResolveCallback callback) = 0;
};

/// Pairs of "key=value"; what is too long for the format (255 bytes) is left out.
struct TxtList {
    explicit TxtList(const ServiceDiscovery::TxtRecord& txt);
    ~TxtList() { avahi_string_list_free(list); }
    TxtList(const TxtList&) = delete;
    TxtList& operator=(const TxtList&) = delete;
    AvahiStringList* list = nullptr;
};
ServiceDiscovery::TxtRecord txtRecordOf(AvahiStringList* list);

}  // namespace velmora
