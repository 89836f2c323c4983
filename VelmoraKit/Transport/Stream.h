#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Core/UniqueFunction.h"
#include "VelmoraKit/Transport/TransportState.h"

namespace velmora {

/// One ordered, reliable byte stream of a connection group, in both directions.
/// Callbacks and completions arrive on the queue given to `start`, one at a time, never from inside a call.
/// Dropping the last reference cancels; nothing is called afterwards.
class Stream {
public:
    /// Got: the bytes asked for; or fewer (perhaps none) with `isComplete` when the peer ended the stream;
    /// or an error.
    struct Received {
        Bytes data;
        bool isComplete = false;
        std::optional<TransportError> error;
    };
    using ReceiveCompletion = UniqueFunction<void(Received)>;
    /// The transport has taken the bytes over (they are accepted into packets), or never will: the error.
    using SendCompletion = UniqueFunction<void(std::optional<TransportError>)>;

    virtual ~Stream() = default;

    /// Every change of state; `failed` and `waiting` come with their error. The present state is not
    /// repeated to a late subscriber, except that `start` on a stream that is already ready reports `ready`.
    std::function<void(TransportState, const std::optional<TransportError>&)> onState;

    virtual void start(Queue& queue) = 0;

    /// Asks for exactly `count` bytes (at least 1). One request may be outstanding. Memory grows with what
    /// has arrived, not with `count`.
    virtual void receiveExactly(std::size_t count, ReceiveCompletion completion) = 0;

    /// Any thread. Sent in the order of the calls. Every completion is called exactly once while the object
    /// lives, also after the end.
    virtual void send(Bytes data, SendCompletion completion) = 0;

    /// Lets what has been sent leave for up to 0.5 s, ends the stream cleanly, then reports `cancelled`.
    /// May be repeated; any thread.
    virtual void cancel() = 0;

    virtual TransportState state() const = 0;
    /// "address:port" of the peer.
    virtual std::string remoteDescription() const = 0;
    /// "name (type)" of the interface in use, such as "eth0 (wired)"; "?" if unknown.
    virtual std::string interfaceDescription() const = 0;
};

}  // namespace velmora
