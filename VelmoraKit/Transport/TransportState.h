#pragma once

#include <cerrno>
#include <string>

namespace velmora {

/// Why a stream, a group or a listener is not well: an errno where the system told one (EADDRINUSE of a
/// bind, EMSGSIZE), else 0, and words for a log line.
struct TransportError {
    int code = 0;
    std::string text;
    bool operator==(const TransportError&) const = default;
};

/// The life of everything that connects. `failed` and `cancelled` are final; exactly one of them comes.
enum class TransportState { setup, waiting, preparing, ready, failed, cancelled };

constexpr bool isFinal(TransportState state) {
    return state == TransportState::failed || state == TransportState::cancelled;
}

}  // namespace velmora
