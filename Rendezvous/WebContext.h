#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "Rendezvous/MeetingPoint.h"
#include "Rendezvous/Metrics.h"
#include "Rendezvous/SocketBudget.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// What all sessions of a server share. Outlives them.
struct WebContext {
    struct Timing {
        std::chrono::milliseconds beat{1'000};      // between looks at the clock
        std::chrono::milliseconds request{10'000};  // for TLS and HTTP together
        std::chrono::milliseconds answer{20'000};   // a page, with what other nodes have to say to it
        std::chrono::milliseconds closing{5'000};   // until the peer has taken the last it is told
        std::chrono::milliseconds ping{
            20'000};  // keeps NATs open as well; without an answer to two it is gone
    };
    MeetingPoint& point;
    Queue& logic;  // the point's
    Metrics& metrics;
    SocketBudget& budget;
    std::vector<std::string> proxies;         // addresses whose word counts about who is behind them
    std::vector<std::string> metricsReaders;  // addresses that may see the numbers, besides this machine
    std::function<std::string()> health;      // the page; any thread
    Timing timing{};
};

}  // namespace velmora
