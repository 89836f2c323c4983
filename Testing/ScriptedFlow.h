#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "VelmoraKit/Transport/DatagramFlow.h"

namespace velmora {

/// A flow whose network is the test: it notes what is sent, and says what waits and how the path does.
class ScriptedFlow final : public DatagramFlow {
public:
    struct Sent {
        std::vector<SharedBytes> datagrams;
        std::uint64_t tag = 0;
    };

    void start(Queue&) override {}
    void send(std::vector<SharedBytes> datagrams, std::uint64_t tag) override {
        sent.push_back({std::move(datagrams), tag});
    }
    std::size_t pendingBytes() const override { return pending; }
    std::chrono::microseconds oldestPendingAge() const override { return age; }
    std::optional<std::size_t> usableDatagramFrameSize() const override { return usableSize; }
    PathStatistics statistics() const override { return path; }
    TransportState state() const override { return presentState; }
    void cancel() override { presentState = TransportState::cancelled; }

    std::vector<Sent> sent;
    std::size_t pending = 0;
    std::chrono::microseconds age{0};
    std::optional<std::size_t> usableSize = 1165;
    PathStatistics path;
    TransportState presentState = TransportState::ready;
};

}  // namespace velmora
