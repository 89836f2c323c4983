#include "Platform/Linux/Discovery/AvahiCoreStack.h"

#include <arpa/inet.h>
#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>
#include <avahi-core/log.h>
#include <avahi-core/lookup.h>
#include <fmt/format.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <random>
#include <utility>

namespace velmora {
namespace {

using namespace std::chrono_literals;

const char* orNull(const std::string& text) {
    return text.empty() ? nullptr : text.c_str();
}

class Entry final : public AvahiStack::Handle {
public:
    Entry(AvahiServer* server, const ServiceDiscovery::Service& service, AvahiStack::EntryCallback callback)
        : callback_(std::move(callback)), group_(avahi_s_entry_group_new(server, changed, this)) {
        if (!group_) {
            callback_(AvahiStack::EntryState::failed);
            return;
        }
        const TxtList txt(service.txt);
        int status = avahi_server_add_service_strlst(server, group_, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, {},
                                                     service.name.c_str(), service.type.c_str(), nullptr,
                                                     nullptr, service.port, txt.list);
        if (status >= 0) status = avahi_s_entry_group_commit(group_);
        if (status < 0) {
            callback_(status == AVAHI_ERR_COLLISION ? AvahiStack::EntryState::collision
                                                    : AvahiStack::EntryState::failed);
        }
    }
    ~Entry() override {
        if (group_) avahi_s_entry_group_free(group_);
    }

private:
    static void changed(AvahiServer*, AvahiSEntryGroup*, AvahiEntryGroupState state, void* self) {
        const auto& tell = static_cast<Entry*>(self)->callback_;
        switch (state) {
            case AVAHI_ENTRY_GROUP_ESTABLISHED:
                return tell(AvahiStack::EntryState::established);
            case AVAHI_ENTRY_GROUP_COLLISION:
                return tell(AvahiStack::EntryState::collision);
            case AVAHI_ENTRY_GROUP_FAILURE:
                return tell(AvahiStack::EntryState::failed);
            case AVAHI_ENTRY_GROUP_UNCOMMITED:
            case AVAHI_ENTRY_GROUP_REGISTERING:
                return;
        }
    }

    const AvahiStack::EntryCallback callback_;
    AvahiSEntryGroup* const group_;
};

class Browser final : public AvahiStack::Handle {
public:
    Browser(AvahiServer* server, const std::string& type, AvahiStack::BrowseCallback callback)
        : callback_(std::move(callback)),
          browser_(avahi_s_service_browser_new(server, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, type.c_str(),
                                               nullptr, {}, event, this)) {}
    ~Browser() override {
        if (browser_) avahi_s_service_browser_free(browser_);
    }

private:
    static void event(AvahiSServiceBrowser*, AvahiIfIndex interface, AvahiProtocol protocol,
                      AvahiBrowserEvent event, const char* name, const char* type, const char* domain,
                      AvahiLookupResultFlags, void* self) {
        if (event != AVAHI_BROWSER_NEW && event != AVAHI_BROWSER_REMOVE) return;
        static_cast<Browser*>(self)->callback_(event == AVAHI_BROWSER_NEW
                                                   ? AvahiStack::BrowseEvent::appeared
                                                   : AvahiStack::BrowseEvent::disappeared,
                                               {interface, protocol, {name, type, domain}});
    }

    const AvahiStack::BrowseCallback callback_;
    AvahiSServiceBrowser* const browser_;
};

class Resolver final : public AvahiStack::Handle {
public:
    Resolver(AvahiServer* server, const AvahiStack::Sighting& sighting, AvahiProtocol family,
             AvahiStack::ResolveCallback callback)
        : callback_(std::move(callback)),
          resolver_(avahi_s_service_resolver_new(server, sighting.interface, sighting.protocol,
                                                 sighting.service.name.c_str(), sighting.service.type.c_str(),
                                                 orNull(sighting.service.domain), family, {}, event, this)) {}
    ~Resolver() override {
        if (resolver_) avahi_s_service_resolver_free(resolver_);
    }

private:
    static void event(AvahiSServiceResolver*, AvahiIfIndex interface, AvahiProtocol, AvahiResolverEvent event,
                      const char*, const char*, const char*, const char*, const AvahiAddress* address,
                      std::uint16_t port, AvahiStringList* txt, AvahiLookupResultFlags, void* self) {
        const auto& tell = static_cast<Resolver*>(self)->callback_;
        if (event != AVAHI_RESOLVER_FOUND || !address) return tell(std::nullopt);
        tell(AvahiStack::Resolution{interface, *address, port, txtRecordOf(txt)});
    }

    const AvahiStack::ResolveCallback callback_;
    AvahiSServiceResolver* const resolver_;
};

/// What peers can use: not the link-local IPv6 ones, which mean nothing without an interface.
bool isPublishable(const AvahiAddress& address) {
    if (address.proto == AVAHI_PROTO_INET) return true;
    in6_addr six{};
    std::memcpy(&six, address.data.ipv6.address, sizeof six);
    return !IN6_IS_ADDR_LINKLOCAL(&six) && !IN6_IS_ADDR_LOOPBACK(&six);
}

std::optional<AvahiAddress> avahiAddressOf(const sockaddr& address) {
    AvahiAddress result{};
    if (address.sa_family == AF_INET) {
        result.proto = AVAHI_PROTO_INET;
        result.data.ipv4.address = reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr;
        return result;
    }
    if (address.sa_family == AF_INET6) {
        result.proto = AVAHI_PROTO_INET6;
        std::memcpy(result.data.ipv6.address, &reinterpret_cast<const sockaddr_in6&>(address).sin6_addr, 16);
        return result;
    }
    return std::nullopt;
}

}  // namespace

AvahiCoreStack::~AvahiCoreStack() {
    settleTimer_.reset();
    addressWatch_.reset();
    if (netlink_ >= 0) ::close(netlink_);
    if (addresses_) avahi_s_entry_group_free(addresses_);
    if (server_) avahi_server_free(server_);
}

void AvahiCoreStack::start() {
    // Avahi reports each passing trouble on stderr, an agent's log among them.
    avahi_set_log_function([](AvahiLogLevel, const char*) {});
    AvahiServerConfig configuration;
    avahi_server_config_init(&configuration);
    configuration.publish_addresses = 0;
    configuration.publish_hinfo = 0;
    configuration.publish_workstation = 0;
    configuration.publish_domain = 0;
    configuration.disallow_other_stacks = 0;
    // Process numbers repeat: in containers, and on every machine of a network.
    configuration.host_name = avahi_strdup(fmt::format("velmora-{:08x}", std::random_device{}()).c_str());
    int error = 0;
    server_ = avahi_server_new(
        loop_.poll(), &configuration,
        [](AvahiServer* server, AvahiServerState state, void* self) {
            static_cast<AvahiCoreStack*>(self)->changed(server, state);
        },
        this, &error);
    avahi_server_config_free(&configuration);
    if (!server_) return onState(State::gone);
    watchAddresses();
}

/// Also called from inside avahi_server_new, before it has returned the server.
void AvahiCoreStack::changed(AvahiServer* server, AvahiServerState state) {
    server_ = server;
    isRunning_ = state == AVAHI_SERVER_RUNNING;
    switch (state) {
        case AVAHI_SERVER_RUNNING:
            publishAddresses();
            return onState(State::running);
        case AVAHI_SERVER_COLLISION: {
            char* name = avahi_alternative_host_name(avahi_server_get_host_name(server));
            avahi_server_set_host_name(server, name);
            avahi_free(name);
            return onState(State::waiting);
        }
        case AVAHI_SERVER_FAILURE:
            return onState(State::gone);
        case AVAHI_SERVER_INVALID:
        case AVAHI_SERVER_REGISTERING:
            return onState(State::waiting);
    }
}

void AvahiCoreStack::watchAddresses() {
    netlink_ = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    if (netlink_ < 0) return;
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    if (::bind(netlink_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return;
    addressWatch_.emplace(loop_, netlink_, [this] { addressesMayHaveChanged(); });
}

void AvahiCoreStack::addressesMayHaveChanged() {
    std::array<char, 8192> ignored;
    while (::recv(netlink_, ignored.data(), ignored.size(), 0) > 0) continue;
    if (settleTimer_) return;
    // A network that comes up tells in several steps.
    settleTimer_.emplace(loop_, 500ms, [this] {
        settleTimer_.reset();
        if (isRunning_) publishAddresses();
    });
}

void AvahiCoreStack::publishAddresses() {
    if (!addresses_) {
        const auto ignore = [](AvahiServer*, AvahiSEntryGroup*, AvahiEntryGroupState, void*) {};
        addresses_ = avahi_s_entry_group_new(server_, ignore, nullptr);
        if (!addresses_) return;
    }
    avahi_s_entry_group_reset(addresses_);
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) return;
    for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || !(entry->ifa_flags & IFF_UP)) continue;
        auto address = avahiAddressOf(*entry->ifa_addr);
        if (!address || !isPublishable(*address)) continue;
        const auto interface = static_cast<AvahiIfIndex>(::if_nametoindex(entry->ifa_name));
        avahi_server_add_address(server_, addresses_, interface, AVAHI_PROTO_UNSPEC, AVAHI_PUBLISH_NO_REVERSE,
                                 nullptr, &*address);
    }
    ::freeifaddrs(list);
    avahi_s_entry_group_commit(addresses_);
}

std::unique_ptr<AvahiStack::Handle> AvahiCoreStack::addService(const ServiceDiscovery::Service& service,
                                                               EntryCallback callback) {
    return std::make_unique<Entry>(server_, service, std::move(callback));
}

std::unique_ptr<AvahiStack::Handle> AvahiCoreStack::browse(const std::string& type, BrowseCallback callback) {
    return std::make_unique<Browser>(server_, type, std::move(callback));
}

std::unique_ptr<AvahiStack::Handle> AvahiCoreStack::resolve(const Sighting& sighting, AvahiProtocol family,
                                                            ResolveCallback callback) {
    return std::make_unique<Resolver>(server_, sighting, family, std::move(callback));
}

}  // namespace velmora
