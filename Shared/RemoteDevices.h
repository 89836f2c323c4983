#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "Platform/HttpClient.h"
#include "Platform/MacKind.h"
#include "Platform/MachineInfo.h"
#include "Platform/PreferenceStore.h"
#include "Platform/ServiceDiscovery.h"
#include "Shared/Keychain.h"
#include "Shared/NameOrder.h"
#include "Shared/ObserverList.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Core/UniqueFunction.h"
#include "VelmoraKit/Signaling/SignalingUrl.h"
#include "VelmoraKit/Transport/Endpoint.h"

namespace velmora {

/// The machines that this program can connect to: those the user saved, by Host ID and password, and those
/// found on the local network right now. One per process; lives on the main queue. The credential store is
/// asked on `worker`.
class RemoteDevices {
public:
    /// A place on the network, or a machine known by its 9-digit Host ID.
    struct HostId {
        std::string digits;
        bool operator==(const HostId&) const = default;
    };
    using Target = std::variant<Endpoint, HostId>;

    enum class Availability { online, offline, unknown };
    /// What the rendezvous service says of a saved machine.
    enum class Status { unknown, online, offline, wrongPassword, locked };

    struct Device {
        std::string id;  // a saved one's UUID; "bonjour:" and the service name of a found one
        std::string name;
        Target target;
        bool isSaved = false;
        std::optional<std::string> fingerprint;  // of the certificate, as advertised
        Availability availability = Availability::unknown;
        MacKind kind = MacKind::mac;
        std::optional<Endpoint> lanEndpoint;  // on the local network
        bool operator==(const Device&) const = default;
    };
    /// All outlive us.
    struct Services {
        PreferenceStore& preferences;
        Keychain& keychain;  // outlives every block of `worker`, as `main` does
        ServiceDiscovery& discovery;
        HttpClient& http;
        Queue& main;
        Queue& worker;
        SignalingUrl rendezvous;
    };

    /// Browses from now on.
    explicit RemoteDevices(Services services);
    RemoteDevices(const RemoteDevices&) = delete;
    RemoteDevices& operator=(const RemoteDevices&) = delete;

    /// This machine's own name on the network while it advertises itself, so that it does not list itself.
    /// Call `rebuild` after a change.
    std::optional<std::string> ownName;
    /// Its Host ID; decides where the network tells one, since another machine may have the same name.
    std::optional<std::string> ownHostID;

    /// Found ones first, then saved ones, each group sorted by name.
    const std::vector<Device>& devices() const { return devices_; }
    /// By the id of a saved device; none for one that the service has said nothing of.
    const std::map<std::string, Status>& status() const { return status_; }
    /// Told after either has changed.
    [[nodiscard]] ObserverList::Token observe(ObserverList::Observer observer) {
        return observers_.add(std::move(observer));
    }

    /// Saves a machine, or the new password of one that is saved already, which keeps its name. Of ID and
    /// password only the digits count: nine and six of them, or nothing is done and there is no device.
    /// Without a name it is called by its ID.
    std::optional<Device> add(const std::string& name, std::string_view hostID, std::string_view password);
    /// The saved password, behind those that were given just now; none for whatever reason. `done` is called
    /// unless we are gone by then.
    void readPassword(const Device& device, UniqueFunction<void(std::optional<std::string>)> done);
    /// Forgets a saved machine, and what is remembered of a found one.
    void remove(const Device& device);
    /// Asks the rendezvous service about the saved machines. Without an answer all stays as it is.
    void refreshStatus();
    void rebuild();

    /// The place meant by a text that somebody typed: "host" or "host:port". An IPv6 address, bracketed or
    /// not, is all host.
    static Endpoint endpointFor(std::string_view text);

    /// As stored.
    struct SavedDevice {
        std::string id;  // UUID; the account of the password
        std::string name;
        std::string address;  // of entries from before Host IDs; empty in new ones
        std::optional<std::string> hostID;
    };

private:
    struct Found {
        std::string name;
        Endpoint endpoint;
        std::optional<std::string> fingerprint;
        std::optional<std::string> hostID;
    };

    void load();
    void store();
    std::vector<Found> currentlyFound();
    Device savedDevice(const SavedDevice& saved) const;
    MacKind kindOf(const std::string& serviceName) const;
    std::optional<Device> deviceOf(const std::string& id) const;
    void savePassword(const SavedDevice& device, const std::string& password);
    void askForStatus(const Bytes& query);
    void handleStatus(const Bytes& reply);
    bool mergeFoundAndSaved();

    const Services services_;
    const NameOrder comesBefore_;
    std::vector<SavedDevice> saved_;
    std::vector<ServiceDiscovery::FoundService> found_;
    std::vector<Device> devices_;
    std::map<std::string, Status> status_;
    ObserverList observers_;
    Liveness liveness_;
    std::unique_ptr<ServiceDiscovery::Request> browser_;
};

/// The kind that a model name such as "MacBook Pro" tells.
MacKind macKindForModelName(std::string_view modelName);

/// The kind of this machine, found once and then kept in the preferences. Blocks for a file or two the
/// first time.
MacKind thisMacKind(PreferenceStore& preferences, const MachineInfo& machine);

}  // namespace velmora
