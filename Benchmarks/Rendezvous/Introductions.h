#pragma once

#include <cstdint>
#include <optional>

#include "Benchmarks/Rendezvous/SocketLoop.h"
#include "VelmoraKit/Core/SampleSet.h"

namespace velmora {

struct IntroductionOptions {
    ServicePort port{};
    std::uint32_t hosts = 1;  // of a HostCrowd, taken in turn
    double seconds = 10;
    std::optional<double> perSecond;  // none: a new one as soon as one of `atATime` ends
    std::uint32_t atATime = 32;
};

struct IntroductionFigures {
    std::uint32_t made = 0;
    std::uint32_t failed = 0;  // refused, lost, or not answered within 5 s
    double perSecond = 0;
    SampleSet introduced;       // ms from `join` to `accepted`: by way of the host, which accepts at once
    SampleSet connected;        // ms before that: TCP, TLS and WebSocket
    std::uint32_t relayed = 0;  // of those made, had a relay on offer
};

/// Viewers, each on a connection of its own, that join a host, are accepted, and hang up.
IntroductionFigures introduce(const IntroductionOptions& options);

}  // namespace velmora
