#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/PreferenceStore.h"
#include "Shared/Keychain.h"
#include "Shared/ObserverList.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// What a viewer must know to reach this machine: a 9-digit Host ID that never changes, and a 6-digit
/// password that its user can see and replace. One per process; lives on the main queue. The credential
/// store is asked on `worker`, so the password is there a moment after construction, or, while the store is
/// locked, once it can be read: until then nobody may be let in. A password is only made when the store
/// says that there is none.
class HostIdentity {
public:
    enum class State {
        loading,
        unavailable,  // the store does not answer; asked again every `retryInterval`
        ready,
    };
    struct Parameters {
        std::chrono::milliseconds retryInterval{5000};  // a person unlocks a keyring within seconds
        /// A uniform number in 0 ..< bound from a secure source.
        std::function<std::uint32_t(std::uint32_t bound)> random = secureRandom;
    };

    /// All outlive us; `worker` runs no more blocks once we are gone.
    HostIdentity(PreferenceStore& preferences, Keychain& keychain, Queue& main, Queue& worker,
                 Parameters parameters);
    HostIdentity(PreferenceStore& preferences, Keychain& keychain, Queue& main, Queue& worker);

    const std::string& id() const { return id_; }
    State state() const { return state_; }
    bool isReady() const { return state_ == State::ready; }
    /// Six digits; empty until ready.
    const std::string& password() const { return password_; }

    /// Told on the main queue after the password or the state has changed.
    [[nodiscard]] ObserverList::Token observe(ObserverList::Observer observer) {
        return observers_.add(std::move(observer));
    }

    /// Makes, publishes and saves another password. Nothing while not ready.
    void newPassword();
    /// Takes exactly six characters, each a number; ignores anything else. Nothing while not ready.
    void setPassword(const std::string& password);

    /// Runs of three characters from the left, joined by a blank: "123456789" gives "123 456 789".
    static std::string grouped(std::string_view text);

    static std::uint32_t secureRandom(std::uint32_t bound);

private:
    void load();
    void finishLoading(const Result<std::string, SecretStore::Lack>& stored);
    void adopt(std::string password);
    void moveTo(State next);
    std::string randomPassword() const;

    PreferenceStore& preferences_;
    Keychain& keychain_;
    Queue& main_;
    Queue& worker_;
    const Parameters parameters_;
    std::string id_;
    std::string password_;
    State state_ = State::loading;
    TimerToken retryTimer_;  // held while unavailable
    ObserverList observers_;
    Liveness liveness_;
};

}  // namespace velmora
