#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "App/MenuModel.h"
#include "Shared/HostIdentity.h"
#include "Shared/Preferences.h"
#include "Shared/RemoteDevices.h"
#include "Testing/FakeHttpClient.h"
#include "Testing/FakePreferenceStore.h"
#include "Testing/FakeSecretStore.h"
#include "Testing/FakeServiceDiscovery.h"
#include "Testing/VirtualQueue.h"

namespace velmora {

/// What the application's windows look at, over fakes: this machine's ID is 852 290 732 and its password
/// 042 137, unless the keyring is locked.
struct PanelModels {
    enum class Keyring { open, locked };
    explicit PanelModels(Keyring keyring = Keyring::open) {
        secrets.setLocked(keyring == Keyring::locked);
        time.settle();
    }

    /// A machine on the local network.
    void advertise(const std::string& name, const std::string& kind = "mac") {
        advertised.push_back(network.publish(
            {.name = name, .type = "_velmora._udp", .port = 47272, .txt = {{"kind", kind}}}, main, nullptr));
        time.settle();
    }
    /// A machine that the user saved; `kind` as it advertised itself at some time.
    void save(const std::string& name, const std::string& hostID, const std::string& kind = "mac") {
        preferences.set("macKind:" + name, kind);
        devices.add(name, hostID, "042137");
        time.settle();
    }
    /// The rendezvous service's answer: `devices` as in its JSON.
    void tellStatus(const std::string& statusOfDevices) {
        devices.refreshStatus();
        time.settle();
        http.answer(http.requests.size() - 1, "{\"devices\":[" + statusOfDevices + "]}");
        time.settle();
    }
    void change(const std::function<void(MenuModel::State&)>& how) {
        auto state = model.state();
        how(state);
        model.setState(std::move(state));
    }

    VirtualTime time;
    VirtualQueue main{time, "main"}, worker{time, "worker"};
    FakePreferenceStore preferences;
    FakeSecretStore secrets;
    Keychain keychain{secrets};
    const bool isKnown = storeIdentity();  // before the identity looks for it
    FakeServiceDiscovery network;
    FakeHttpClient http;
    std::vector<std::unique_ptr<ServiceDiscovery::Request>> advertised;
    HostIdentity identity{preferences, keychain, main, worker};
    RemoteDevices devices{{.preferences = preferences,
                           .keychain = keychain,
                           .discovery = network,
                           .http = http,
                           .main = main,
                           .worker = worker,
                           .rendezvous = *SignalingUrl::parse("wss://rendezvous.example")}};
    MenuModel model;

private:
    bool storeIdentity() {
        preferences.set(PreferenceKeys::hostId, std::string("852290732"));
        keychain.save("042137", "com.velmora.host", "password", "Velmora host password");
        return true;
    }
};

}  // namespace velmora
