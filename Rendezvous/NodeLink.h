#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "Rendezvous/HostNumber.h"
#include "VelmoraKit/Core/UniqueFunction.h"

namespace velmora {

/// What joins several nodes into one service: a host's node listens at the host's number, and each node at
/// its own name. Nothing is stored and nothing is sure to arrive. Everything is called, and calls, on the
/// logic's queue.
class NodeLink {
public:
    using Reply = UniqueFunction<void(std::string)>;
    /// None: nobody listens there, or no answer came in time.
    using Answer = UniqueFunction<void(std::optional<std::string>)>;

    virtual ~NodeLink() = default;

    /// Set before the first call below.
    std::function<void(HostNumber, std::string request, Reply)> onRequest;
    std::function<void(std::string message)> onMessage;  // to this node, or to all

    /// Unique among the nodes.
    virtual const std::string& node() const = 0;

    virtual void listenAt(HostNumber host) = 0;
    virtual void leave(HostNumber host) = 0;
    /// `answer` runs exactly once, perhaps before this returns. This node's own `listenAt` does not hear it.
    virtual void request(HostNumber host, std::string message, std::chrono::milliseconds limit,
                         Answer answer) = 0;
    virtual void sendToHost(HostNumber host,
                            std::string message) = 0;  // comes as a request whose reply is lost
    virtual void sendTo(const std::string& node, std::string message) = 0;
    virtual void sendToAll(std::string message) = 0;  // but this one
};

/// A node that is alone.
class NoNodeLink final : public NodeLink {
public:
    const std::string& node() const override { return name_; }
    void listenAt(HostNumber) override {}
    void leave(HostNumber) override {}
    void request(HostNumber, std::string, std::chrono::milliseconds, Answer answer) override {
        answer(std::nullopt);
    }
    void sendToHost(HostNumber, std::string) override {}
    void sendTo(const std::string&, std::string) override {}
    void sendToAll(std::string) override {}

private:
    const std::string name_ = "alone";
};

}  // namespace velmora
