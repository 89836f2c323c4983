#include "Shared/RemoteDevices.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <iterator>
#include <optional>

#include <fmt/format.h>

#include "Shared/Characters.h"
#include "Shared/HostIdentity.h"
#include "Shared/Preferences.h"
#include "Shared/Uuid.h"
#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Core/Utf8.h"
#include "VelmoraKit/Wire/JsonCoding.h"
#include "VelmoraKit/Wire/MessageType.h"

namespace velmora {

static void eachKey(auto& keys, json::MaybeConst<RemoteDevices::SavedDevice> auto& device) {
    keys("id", device.id);
    keys("name", device.name);
    keys("address", device.address);
    keys("hostID", device.hostID);
}

namespace {

constexpr std::size_t hostIdLength = 9;
constexpr std::size_t passwordLength = 6;

/// What the rendezvous service is asked.
struct StatusQuery {
    struct Device {
        std::string id;  // the Host ID
        std::string password;
    };
    std::vector<Device> devices;
};
void eachKey(auto& keys, json::MaybeConst<StatusQuery::Device> auto& device) {
    keys("id", device.id);
    keys("password", device.password);
}
void eachKey(auto& keys, json::MaybeConst<StatusQuery> auto& query) {
    keys("devices", query.devices);
}

bool isTrue(const json::Json& object, const char* key) {
    const auto found = object.find(key);
    return found != object.end() && found->is_boolean() && found->get<bool>();
}

RemoteDevices::Status statusIn(const json::Json& device) {
    using Status = RemoteDevices::Status;
    if (isTrue(device, "locked")) return Status::locked;
    if (isTrue(device, "passwordChanged")) return Status::wrongPassword;
    return isTrue(device, "online") ? Status::online : Status::offline;
}

std::string digitsOf(std::string_view text) {
    std::string digits;
    std::ranges::copy_if(text, std::back_inserter(digits), [](char c) { return c >= '0' && c <= '9'; });
    return digits;
}

std::optional<std::string> textIn(const ServiceDiscovery::TxtRecord& txt, const char* key) {
    const auto found = txt.find(key);
    if (found == txt.end()) return std::nullopt;
    return repairedUtf8(viewOf(found->second));
}

std::optional<std::uint16_t> portOf(std::string_view digits) {
    std::uint16_t port = 0;
    const auto* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, port);
    if (error != std::errc() || stop != end) return std::nullopt;
    return port;
}

}  // namespace

RemoteDevices::RemoteDevices(Services services) : services_(std::move(services)) {
    load();
    rebuild();
    browser_ = services_.discovery.browse(velmoraServiceType, services_.main,
                                          [this](std::vector<ServiceDiscovery::FoundService> found) {
                                              found_ = std::move(found);
                                              rebuild();
                                          });
}

void RemoteDevices::load() {
    const auto stored = services_.preferences.getAs<Bytes>(PreferenceKeys::savedRemoteDevices);
    if (!stored) return;
    if (auto decoded = json::decodeRecord<std::vector<SavedDevice>>(*stored)) saved_ = *std::move(decoded);
    // From before there were Host IDs: there is no way to reach them any more.
    std::erase_if(saved_, [](const SavedDevice& device) { return !device.hostID; });
}

void RemoteDevices::store() {
    services_.preferences.set(PreferenceKeys::savedRemoteDevices, json::encodeRecord(saved_));
}

// The merged list

void RemoteDevices::rebuild() {
    assertOn(services_.main);
    if (mergeFoundAndSaved()) observers_.notify();
}

/// Whether the list has changed.
bool RemoteDevices::mergeFoundAndSaved() {
    std::vector<Found> unclaimed = currentlyFound();
    std::vector<Device> saved;
    for (const SavedDevice& entry : saved_) {
        Device device = savedDevice(entry);
        const auto here = std::ranges::find(unclaimed, entry.hostID, &Found::hostID);
        if (here != unclaimed.end()) {
            device.availability = Availability::online;
            device.lanEndpoint = here->endpoint;
            device.fingerprint = here->fingerprint;
            device.kind = kindOf(here->name);
            unclaimed.erase(here);
        }
        saved.push_back(std::move(device));
    }
    std::vector<Device> merged;
    for (const Found& found : unclaimed) {
        merged.push_back({.id = "bonjour:" + found.name,
                          .name = found.name,
                          .target = found.hostID ? Target(HostId{*found.hostID}) : Target(found.endpoint),
                          .isSaved = false,
                          .fingerprint = found.fingerprint,
                          .availability = Availability::online,
                          .kind = kindOf(found.name),
                          .lanEndpoint = found.endpoint});
    }
    const auto byName = [this](const Device& left, const Device& right) {
        return comesBefore_(left.name, right.name);
    };
    std::ranges::stable_sort(merged, byName);
    std::ranges::stable_sort(saved, byName);
    std::ranges::move(saved, std::back_inserter(merged));
    if (merged == devices_) return false;
    devices_ = std::move(merged);
    return true;
}

/// Each name once, without our own. Remembers the kinds that are told, for when the machine is not there.
std::vector<RemoteDevices::Found> RemoteDevices::currentlyFound() {
    std::vector<Found> entries;
    for (const auto& [service, txt] : found_) {
        const std::string name = repairedUtf8(viewOf(service.name));
        if (const auto kind = textIn(txt, "kind")) {
            services_.preferences.set(PreferenceKeys::macKindOf(name), *kind);
        }
        auto hostID = textIn(txt, "id");
        if (hostID && userPerceivedCharacters(*hostID).size() != hostIdLength) hostID.reset();
        // Of two machines with one name the network renames one: the ID tells them apart.
        const bool isOwn = ownName && (hostID && ownHostID ? hostID == ownHostID : name == ownName);
        if (isOwn || std::ranges::count(entries, name, &Found::name) > 0) continue;
        entries.push_back({name, Endpoint::service(service.name, service.type, service.domain),
                           textIn(txt, "fp"), std::move(hostID)});
    }
    return entries;
}

RemoteDevices::Device RemoteDevices::savedDevice(const SavedDevice& saved) const {
    Device device{.id = saved.id,
                  .name = saved.name,
                  .target = HostId{*saved.hostID},
                  .isSaved = true,
                  .availability = Availability::unknown,
                  .kind = kindOf(saved.name)};
    const auto known = status_.find(saved.id);
    if (known == status_.end()) return device;
    if (known->second == Status::online) device.availability = Availability::online;
    if (known->second == Status::offline) device.availability = Availability::offline;
    return device;
}

MacKind RemoteDevices::kindOf(const std::string& serviceName) const {
    const auto stored = services_.preferences.string(PreferenceKeys::macKindOf(serviceName));
    return macKindFor(stored.value_or("")).value_or(MacKind::mac);
}

std::optional<RemoteDevices::Device> RemoteDevices::deviceOf(const std::string& id) const {
    const auto found = std::ranges::find(devices_, id, &Device::id);
    if (found == devices_.end()) return std::nullopt;
    return *found;
}

// The user's changes

std::optional<RemoteDevices::Device> RemoteDevices::add(const std::string& name, std::string_view hostID,
                                                        std::string_view password) {
    assertOn(services_.main);
    const std::string id = digitsOf(hostID);
    const std::string secret = digitsOf(password);
    if (id.size() != hostIdLength || secret.size() != passwordLength) return std::nullopt;

    auto entry = std::ranges::find(saved_, id, &SavedDevice::hostID);
    if (entry == saved_.end()) {
        saved_.push_back({.id = newUuid(),
                          .name = name.empty() ? HostIdentity::grouped(id) : name,
                          .address = {},
                          .hostID = id});
        entry = saved_.end() - 1;
        store();
    }
    const std::string deviceID = entry->id;
    savePassword(*entry, secret);
    refreshStatus();  // behind the password, on the same queue
    const bool changed = mergeFoundAndSaved();
    auto device = deviceOf(deviceID);
    if (changed) observers_.notify();
    return device;
}

void RemoteDevices::savePassword(const SavedDevice& device, const std::string& password) {
    services_.worker.post([&keychain = services_.keychain, id = device.id, name = device.name, password] {
        if (keychain.save(password, Keychain::devicesService, id, Keychain::deviceLabel(name))) return;
        debugLog(fmt::format("⚠︎ The password for {} can't be saved", name));
    });
}

void RemoteDevices::readPassword(const Device& device,
                                 UniqueFunction<void(std::optional<std::string>)> done) {
    auto answer = liveness_.guard(
        [done = std::move(done)](std::optional<std::string> password) mutable { done(std::move(password)); });
    services_.worker.post([&keychain = services_.keychain, &main = services_.main, account = device.id,
                           answer = std::move(answer)]() mutable {
        auto password = keychain.read(Keychain::devicesService, account);
        main.post([password = std::move(password), answer = std::move(answer)]() mutable {
            answer(std::move(password));
        });
    });
}

void RemoteDevices::remove(const Device& device) {
    assertOn(services_.main);
    if (const auto* endpoint = std::get_if<Endpoint>(&device.target)) {
        services_.preferences.remove(PreferenceKeys::knownHost(endpoint->text()));
    }
    std::erase_if(saved_, [&](const SavedDevice& saved) { return saved.id == device.id; });
    services_.worker.post(
        [&keychain = services_.keychain, id = device.id] { keychain.remove(Keychain::devicesService, id); });
    store();
    rebuild();
}

// Who is online

void RemoteDevices::refreshStatus() {
    assertOn(services_.main);
    services_.worker.post([this, weak = liveness_.weak(), saved = saved_, &keychain = services_.keychain,
                           &main = services_.main] {
        StatusQuery query;
        for (const SavedDevice& device : saved) {
            if (const auto password = keychain.read(Keychain::devicesService, device.id)) {
                query.devices.push_back({*device.hostID, *password});
            }
        }
        if (query.devices.empty()) return;
        main.post([this, weak, body = json::encodeRecord(query)] {
            if (!weak.expired()) askForStatus(body);
        });
    });
}

void RemoteDevices::askForStatus(const Bytes& query) {
    services_.http.post({.url = services_.rendezvous.httpUrl("/devices"),
                         .contentType = "application/json",
                         .body = query,
                         .timeout = std::chrono::seconds(8)},
                        liveness_.guard([this](const Result<HttpClient::Response>& response) {
                            if (response) handleStatus(response->body);
                        }));
}

void RemoteDevices::handleStatus(const Bytes& reply) {
    if (reply.size() > json::longestText) return;
    const auto object = json::Json::parse(reply.begin(), reply.end(), nullptr, /*allow_exceptions=*/false);
    if (!object.is_object()) return;
    const auto list = object.find("devices");
    if (list == object.end() || !list->is_array()) return;

    auto status = status_;
    for (const auto& told : *list) {
        const auto hostID = told.find("id");  // the end for what is no object
        if (hostID == told.end() || !hostID->is_string()) continue;
        for (const SavedDevice& saved : saved_) {
            if (saved.hostID == hostID->get_ref<const std::string&>()) status[saved.id] = statusIn(told);
        }
    }
    const bool statusChanged = status != status_;
    status_ = std::move(status);
    if (mergeFoundAndSaved() || statusChanged) observers_.notify();
}

Endpoint RemoteDevices::endpointFor(std::string_view text) {
    const auto colon = text.find(':');
    const bool hasOneColon = colon != std::string_view::npos && colon == text.rfind(':');
    if (hasOneColon && text.find(']') == std::string_view::npos) {
        if (const auto port = portOf(text.substr(colon + 1))) {
            return Endpoint::hostPort(std::string(text.substr(0, colon)), *port);
        }
    }
    return Endpoint::hostPort(std::string(text), velmoraDefaultPort);
}

MacKind macKindForModelName(std::string_view modelName) {
    std::string lowered(modelName);
    std::transform(lowered.begin(), lowered.end(), lowered.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; });
    const auto names = [&](std::string_view part) { return lowered.find(part) != std::string::npos; };
    if (names("macbook")) return MacKind::macbook;
    if (names("imac")) return MacKind::imac;
    if (names("mac mini")) return MacKind::macmini;
    if (names("mac studio")) return MacKind::macstudio;
    if (names("mac pro")) return MacKind::macpro;
    return MacKind::mac;
}

MacKind thisMacKind(PreferenceStore& preferences, const MachineInfo& machine) {
    if (const auto stored = preferences.string(PreferenceKeys::macKind)) {
        if (const auto kind = macKindFor(*stored)) return *kind;
    }
    const auto kind = machine.kind();
    if (!kind) return MacKind::mac;
    preferences.set(PreferenceKeys::macKind, std::string(rawValueOf(*kind)));
    return *kind;
}

}  // namespace velmora
