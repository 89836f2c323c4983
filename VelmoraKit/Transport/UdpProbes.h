#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Transport/UdpPort.h"
#include "VelmoraKit/Wire/StunMessage.h"

namespace velmora {

/// What two machines behind NAT send before they can reach each other: it leaves from the local port that
/// QUIC uses afterwards, asks how that port looks from outside, or opens a way in to it. Each is sent once.
/// Lives on one queue, where it also answers; nothing is called once it is gone.
class UdpProbes {
public:
    struct Parameters {
        std::chrono::milliseconds replyLimit{1'000};   // of a STUN server
        std::chrono::milliseconds answerLimit{1'200};  // then the caller is told that there was none
        /// Unpredictable, so that only the server that was asked can answer.
        std::function<stun::TransactionId()> newTransaction = randomTransaction;
    };
    using MappedAddressCompletion = std::function<void(const std::optional<std::string>& mapped)>;

    /// `stunServer` is a name or an address. `port` and `queue` outlive us and every wait for a reply.
    UdpProbes(UdpPort& port, std::string stunServer, Queue& queue);
    UdpProbes(UdpPort& port, std::string stunServer, Queue& queue, Parameters parameters);

    /// Asks the STUN server for the public "ip:port" of `localPort`. `completion` runs once, never from
    /// inside this call: with nothing if the reply is of no use, at once then, or does not come within the
    /// limit.
    void mappedAddress(std::uint16_t localPort, MappedAddressCompletion completion);

    /// Sends one datagram. `reply`, which may be unset, runs if one comes within `datagram.waitForReply`.
    void sendFromPort(UdpPort::Datagram datagram, std::function<void(const Bytes&)> reply = nullptr);

    static stun::TransactionId randomTransaction();

private:
    using QuestionId = std::uint64_t;
    struct Question {
        MappedAddressCompletion completion;
        TimerToken limit;
    };
    void answer(QuestionId id, const std::optional<std::string>& mapped);

    UdpPort& port_;
    const std::string stunServer_;
    Queue& queue_;
    const Parameters parameters_;
    std::map<QuestionId, Question> questions_;
    QuestionId lastQuestion_ = 0;
    Liveness liveness_;
};

}  // namespace velmora
