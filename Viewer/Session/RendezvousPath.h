#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Shared/ConnectionError.h"
#include "VelmoraKit/Transport/Endpoint.h"
#include "Viewer/Session/ViewerOptions.h"

namespace velmora {

/// The second rung of the ladder: asks the rendezvous service where a host is and lets attempts race.
/// Owned by ViewerConnection; lives on the main queue.
class RendezvousPath {
public:
    /// The ladder, as its second rung sees it.
    class Ladder {
    public:
        virtual const ViewerOptions& options() const = 0;
        virtual const std::string& deviceID() const = 0;

        /// An attempt, pinned to the fingerprint that the service told. The first to be ready wins.
        struct Attempt {
            std::string label;  // "LAN ...", "Direct ..." or "Relay"
            Endpoint endpoint;
            std::string fingerprint;
            std::optional<std::uint16_t> localPort;
        };
        virtual void attempt(Attempt attempt) = 0;
        virtual std::string attemptedLabels() const = 0;  // joined by ", "

        virtual bool hasWinner() const = 0;
        /// A control stream exists: what happens to the service no longer matters.
        virtual bool hasConnection() const = 0;

        /// The host has taken our password by way of the service: the token stands for it.
        virtual void setSessionToken(std::optional<std::string> token) = 0;
        virtual void reportConnecting() = 0;
        /// Ends the whole connection, which destroys the path: the last thing it may do.
        virtual void end(const ConnectionError& error) = 0;

    protected:
        ~Ladder() = default;
    };
    using Factory = std::function<std::unique_ptr<RendezvousPath>(Ladder&)>;

    virtual ~RendezvousPath() = default;

    /// Once. A password is there.
    virtual void start(const std::string& hostID) = 0;
    /// Nothing has been heard for some seconds over the path that won: a NAT on the way may have given us
    /// another address, which has to be told to somebody. May be repeated.
    virtual void reopenDirect() = 0;
    virtual void reopenRelay() = 0;
    /// The connection has ended: tells the service so and lets the link go when that has had time to leave.
    /// The ladder is not called any more.
    virtual void hangUp() = 0;
};

}  // namespace velmora
