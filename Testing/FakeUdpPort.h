#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "VelmoraKit/Transport/UdpPort.h"

namespace velmora {

/// A network that answers as the test says: per place, a reply after a delay, or a failure. It keeps what was
/// sent. All on one thread, in virtual time.
class FakeUdpPort final : public UdpPort {
public:
    struct Answer {
        std::chrono::milliseconds delay{20};
        std::function<Bytes(const Datagram&)> reply;
        std::string failure{};  // if not empty: it comes instead
    };
    struct Sent {
        HostClock::time_point when;
        Datagram datagram;
    };

    std::vector<Sent> sent;
    std::map<std::string, Answer> answers;  // by "host:port"; nobody else answers

    void exchange(Datagram datagram, Queue& queue, UniqueFunction<void(Outcome)> completion) override {
        sent.push_back({queue.now(), datagram});
        auto done = std::make_shared<UniqueFunction<void(Outcome)>>(std::move(completion));
        const auto found = answers.find(datagram.host + ":" + std::to_string(datagram.port));
        if (found != answers.end() && !found->second.failure.empty()) {
            const Failure failure{found->second.failure};
            return queue.post([done, failure] { (*done)(failure); });
        }
        if (datagram.waitForReply <= std::chrono::milliseconds(0)) {
            return queue.post([done] { (*done)(std::optional<Bytes>()); });
        }
        if (found == answers.end() || found->second.delay > datagram.waitForReply) {
            return later(queue, datagram.waitForReply, [done] { (*done)(std::optional<Bytes>()); });
        }
        later(queue, found->second.delay,
              [done, reply = found->second.reply(datagram)] { (*done)(std::optional<Bytes>(reply)); });
    }

private:
    void later(Queue& queue, std::chrono::milliseconds delay, Queue::Block block) {
        timers_.push_back(queue.after(delay, std::move(block)));
    }
    std::vector<TimerToken> timers_;
};

}  // namespace velmora
