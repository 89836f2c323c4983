#include "Platform/Linux/Discovery/AvahiClientStack.h"

#include <avahi-client/lookup.h>
#include <avahi-client/publish.h>
#include <avahi-common/error.h>

#include <utility>

namespace velmora {
namespace {

const char* orNull(const std::string& text) {
    return text.empty() ? nullptr : text.c_str();
}

class Entry final : public AvahiStack::Handle {
public:
    Entry(AvahiClient* client, const ServiceDiscovery::Service& service, AvahiStack::EntryCallback callback)
        : callback_(std::move(callback)), group_(avahi_entry_group_new(client, changed, this)) {
        if (!group_) {
            callback_(AvahiStack::EntryState::failed);
            return;
        }
        const TxtList txt(service.txt);
        int status = avahi_entry_group_add_service_strlst(group_, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, {},
                                                          service.name.c_str(), service.type.c_str(), nullptr,
                                                          nullptr, service.port, txt.list);
        if (status >= 0) status = avahi_entry_group_commit(group_);
        if (status < 0) {
            callback_(status == AVAHI_ERR_COLLISION ? AvahiStack::EntryState::collision
                                                    : AvahiStack::EntryState::failed);
        }
    }
    ~Entry() override {
        if (group_) avahi_entry_group_free(group_);
    }

private:
    static void changed(AvahiEntryGroup*, AvahiEntryGroupState state, void* self) {
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
    AvahiEntryGroup* const group_;
};

class Browser final : public AvahiStack::Handle {
public:
    Browser(AvahiClient* client, const std::string& type, AvahiStack::BrowseCallback callback)
        : callback_(std::move(callback)),
          browser_(avahi_service_browser_new(client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, type.c_str(),
                                             nullptr, {}, event, this)) {}
    ~Browser() override {
        if (browser_) avahi_service_browser_free(browser_);
    }

private:
    static void event(AvahiServiceBrowser*, AvahiIfIndex interface, AvahiProtocol protocol,
                      AvahiBrowserEvent event, const char* name, const char* type, const char* domain,
                      AvahiLookupResultFlags, void* self) {
        if (event != AVAHI_BROWSER_NEW && event != AVAHI_BROWSER_REMOVE) return;
        static_cast<Browser*>(self)->callback_(event == AVAHI_BROWSER_NEW
                                                   ? AvahiStack::BrowseEvent::appeared
                                                   : AvahiStack::BrowseEvent::disappeared,
                                               {interface, protocol, {name, type, domain}});
    }

    const AvahiStack::BrowseCallback callback_;
    AvahiServiceBrowser* const browser_;
};

class Resolver final : public AvahiStack::Handle {
public:
    Resolver(AvahiClient* client, const AvahiStack::Sighting& sighting, AvahiProtocol family,
             AvahiStack::ResolveCallback callback)
        : callback_(std::move(callback)),
          resolver_(avahi_service_resolver_new(client, sighting.interface, sighting.protocol,
                                               sighting.service.name.c_str(), sighting.service.type.c_str(),
                                               orNull(sighting.service.domain), family, {}, event, this)) {}
    ~Resolver() override {
        if (resolver_) avahi_service_resolver_free(resolver_);
    }

private:
    static void event(AvahiServiceResolver*, AvahiIfIndex interface, AvahiProtocol, AvahiResolverEvent event,
                      const char*, const char*, const char*, const char*, const AvahiAddress* address,
                      std::uint16_t port, AvahiStringList* txt, AvahiLookupResultFlags, void* self) {
        const auto& tell = static_cast<Resolver*>(self)->callback_;
        if (event != AVAHI_RESOLVER_FOUND || !address) return tell(std::nullopt);
        tell(AvahiStack::Resolution{interface, *address, port, txtRecordOf(txt)});
    }

    const AvahiStack::ResolveCallback callback_;
    AvahiServiceResolver* const resolver_;
};

}  // namespace

AvahiClientStack::~AvahiClientStack() {
    if (client_) avahi_client_free(client_);
}

void AvahiClientStack::start() {
    int error = 0;
    client_ = avahi_client_new(
        loop_.poll(), AVAHI_CLIENT_NO_FAIL,
        [](AvahiClient* client, AvahiClientState state, void* self) {
            static_cast<AvahiClientStack*>(self)->changed(client, state);
        },
        this, &error);
    if (!client_) onState(State::gone);
}

/// Also called from inside avahi_client_new, before it has returned the client.
void AvahiClientStack::changed(AvahiClient* client, AvahiClientState state) {
    client_ = client;
    switch (state) {
        case AVAHI_CLIENT_S_RUNNING:
            return onState(State::running);
        case AVAHI_CLIENT_FAILURE:
            return onState(State::gone);
        case AVAHI_CLIENT_S_REGISTERING:
        case AVAHI_CLIENT_S_COLLISION:
        case AVAHI_CLIENT_CONNECTING:
            return onState(State::waiting);
    }
}

std::unique_ptr<AvahiStack::Handle> AvahiClientStack::addService(const ServiceDiscovery::Service& service,
                                                                 EntryCallback callback) {
    return std::make_unique<Entry>(client_, service, std::move(callback));
}

std::unique_ptr<AvahiStack::Handle> AvahiClientStack::browse(const std::string& type,
                                                             BrowseCallback callback) {
    return std::make_unique<Browser>(client_, type, std::move(callback));
}

std::unique_ptr<AvahiStack::Handle> AvahiClientStack::resolve(const Sighting& sighting, AvahiProtocol family,
                                                              ResolveCallback callback) {
    return std::make_unique<Resolver>(client_, sighting, family, std::move(callback));
}

}  // namespace velmora
