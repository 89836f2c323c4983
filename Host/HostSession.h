#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "Shared/ServerSettings.h"
#include "VelmoraKit/Core/Result.h"
#include "VelmoraKit/Transport/DatagramFlow.h"
#include "VelmoraKit/Transport/MessageConnection.h"
#include "VelmoraKit/Wire/SessionRecords.h"

namespace velmora {

/// One admitted viewer's stay, as the server sees it. Owned by StreamServer; lives on the main queue and may
/// be destroyed at any moment.
class HostSession {
public:
    /// Sent since the last look.
    struct Statistics {
        std::uint64_t frames = 0;
        std::uint64_t bytes = 0;
    };
    virtual ~HostSession() = default;

    /// Begins to share the screen. `done` comes once, on the main queue, unless `stop` comes first.
    virtual void start(std::function<void(Status)> done) = 0;
    /// Ends it, also while it starts; the connection is left alone.
    virtual void stop() = 0;
    /// Takes the viewer's messages, on the connection's queue; may outlive the session, and then does
    /// nothing. The connection keeps it, so it must not keep the connection.
    virtual std::function<void(MessageType, Bytes)> messageHandler() = 0;
    virtual Statistics takeStatistics() = 0;
};

/// Whom a session is for.
struct AdmittedViewer {
    std::shared_ptr<MessageConnection> connection;
    std::shared_ptr<DatagramFlow> videoFlow;  // none: video goes over the connection
    ServerSettings settings;
    std::optional<DisplayRequest> display;  // the window to match; none: the host's own display
    bool audio = false;
    bool agent = false;
};
using HostSessionFactory = std::function<std::unique_ptr<HostSession>(AdmittedViewer)>;

}  // namespace velmora
