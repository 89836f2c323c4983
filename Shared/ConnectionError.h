#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "VelmoraKit/Core/Bytes.h"

namespace velmora {

/// How a connection ended, for code and for people: what happened, why, and what to do about it. All words
/// about ends of connections stand here; `name` is the host's name as the user knows it.
struct ConnectionError {
    enum class Kind {
        wrongPassword,
        locked,
        offline,
        busy,
        rateLimited,
        onlyLocalNetwork,
        noInternet,
        unreachable,
        connectionLost,
        endedByHost,
        captureFailed,
        outdated,
        noSavedPassword,
        other,
    };

    Kind kind = Kind::other;
    std::string title;       // one line
    std::string message;     // what happened
    std::string suggestion;  // what to do; may be empty

    /// Message and suggestion in one text.
    std::string summary() const;

    static ConnectionError wrongPassword(std::string_view name);
    static ConnectionError locked(std::string_view name);
    static ConnectionError offline(std::string_view name);
    static ConnectionError busy(std::string_view name);
    static ConnectionError rateLimited();
    static ConnectionError onlyLocalNetwork(std::string_view name);
    static ConnectionError noInternet();
    static ConnectionError unreachable(std::string_view name);
    static ConnectionError connectionLost(std::string_view name);
    static ConnectionError endedByHost(std::string_view name);
    static ConnectionError endedByService(std::string_view name);  // also of kind endedByHost
    static ConnectionError captureFailed(std::string_view name, std::string message);
    static ConnectionError outdated(std::string_view name);
    static ConnectionError noSavedPassword(std::string_view name);
    static ConnectionError other(std::string_view name, std::string message);

    /// What the rendezvous service refused with. A code that is known has its words here; only an unknown
    /// one shows the service's own message.
    static ConnectionError fromSignaling(const std::optional<std::string>& code,
                                         const std::optional<std::string>& message, std::string_view name);
    /// The payload of a host's `denied` message: its JSON, or bare text, which is shown repaired.
    static ConnectionError fromHost(ByteView data, std::string_view name);

    bool operator==(const ConnectionError&) const = default;
};

}  // namespace velmora
