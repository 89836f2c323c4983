#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// What `velmora-rendezvous` is told on its command line.
struct Options {
    std::vector<std::string> listen;  // empty: by whether there is a certificate
    std::string certificate, key;
    bool plain = false;
    std::vector<std::string> proxies, metricsReaders;
    std::string publicAddress;  // what clients reach the relay by; empty: no relay
    std::string udpAddress;     // empty: every one
    bool udp = true;
    std::uint16_t stunPort = 3478;
    std::vector<std::uint16_t> relayPorts;  // empty: the usual ones
    std::string nats;
    std::string seenFile;
    unsigned threads = 0;         // 0: one per core
    std::size_t connections = 0;  // 0: as many as the process may have descriptors, less some
    std::size_t connectionsOfAddress = 256;
    double joinsOfAddress = 60;
    double registrationsOfAddress = 512;
    bool help = false;
};

/// The failure is a line for the person who typed it.
Result<Options> parseOptions(std::span<const char* const> arguments);
std::string optionsHelp();

}  // namespace velmora
