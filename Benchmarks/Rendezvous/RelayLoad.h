#pragma once

#include <cstddef>

namespace velmora {

struct RelayLoadOptions {
    std::size_t pairs = 50;
    double seconds = 5;
};

/// A relay in a process of its own with one thread; prints how many datagrams a second a core of it passes
/// on, and what it adds to a datagram's way, idle and beside 100 Mbit/s of others. False if the relay failed.
bool measureRelay(const RelayLoadOptions& options);

}  // namespace velmora
