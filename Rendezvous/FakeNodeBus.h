#pragma once

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Rendezvous/NodeLink.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// Joins nodes within a process: what one sends reaches the others with the queue's next turn.
class FakeNodeBus {
public:
    explicit FakeNodeBus(Queue& queue) : queue_(queue) {}

    class Link final : public NodeLink {
    public:
        Link(FakeNodeBus& bus, std::string name) : bus_(bus), name_(std::move(name)) {
            bus_.links_.push_back(this);
        }
        ~Link() override { std::erase(bus_.links_, this); }

        const std::string& node() const override { return name_; }
        void listenAt(HostNumber host) override { hosts_.insert(host); }
        void leave(HostNumber host) override { hosts_.erase(host); }
        void request(HostNumber host, std::string message, std::chrono::milliseconds limit,
                     Answer answer) override {
            const auto listeners = bus_.listenersAt(host, *this);
            if (listeners.empty() || !isUp) return answer(std::nullopt);
            // Whichever comes first: the reply, or the end of waiting.
            struct Waiting {
                Answer answer;
                TimerToken limit;
            };
            auto waiting = std::make_shared<Waiting>();
            waiting->answer = std::move(answer);
            const auto finish = [waiting](std::optional<std::string> text) {
                if (Answer once = std::exchange(waiting->answer, nullptr)) once(std::move(text));
            };
            waiting->limit = bus_.queue_.after(limit, [finish] { finish(std::nullopt); });
            for (Link* listener : listeners) {
                bus_.deliver(listener, [this, host, message, finish](Link& to) {
                    if (!to.onRequest || to.isMute) return;
                    to.onRequest(host, message, [this, finish](std::string reply) {
                        bus_.queue_.post([finish, reply = std::move(reply)] { finish(reply); });
                    });
                });
            }
        }
        void sendToHost(HostNumber host, std::string message) override {
            request(host, std::move(message), std::chrono::seconds(1), [](const auto&) {});
        }
        void sendTo(const std::string& node, std::string message) override {
            for (Link* link : bus_.links_) {
                if (link->name_ == node) tell(link, message);
            }
        }
        void sendToAll(std::string message) override {
            for (Link* link : bus_.links_) {
                if (link != this) tell(link, message);
            }
        }

        bool isUp = true;     // whether this node reaches the others
        bool isMute = false;  // it takes requests and never answers

    private:
        friend class FakeNodeBus;
        void tell(Link* link, const std::string& message) {
            if (!isUp || !link->isUp) return;
            bus_.deliver(link, [message](Link& to) {
                if (to.onMessage) to.onMessage(message);
            });
        }
        FakeNodeBus& bus_;
        const std::string name_;
        std::set<HostNumber> hosts_;
    };

private:
    std::vector<Link*> listenersAt(HostNumber host, const Link& asking) {
        std::vector<Link*> found;
        for (Link* link : links_) {
            if (link != &asking && link->isUp && link->hosts_.contains(host)) found.push_back(link);
        }
        return found;
    }
    template <class F>
    void deliver(Link* link, F action) {
        queue_.post([this, link, action = std::move(action)]() mutable {
            if (std::find(links_.begin(), links_.end(), link) != links_.end()) action(*link);
        });
    }

    Queue& queue_;
    std::vector<Link*> links_;
};

}  // namespace velmora
