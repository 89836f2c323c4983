#include "VelmoraKit/Transport/UdpProbes.h"

#include <fmt/format.h>

#include <random>
#include <utility>

#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

UdpProbes::UdpProbes(UdpPort& port, std::string stunServer, Queue& queue)
    : UdpProbes(port, std::move(stunServer), queue, Parameters()) {}

UdpProbes::UdpProbes(UdpPort& port, std::string stunServer, Queue& queue, Parameters parameters)
    : port_(port), stunServer_(std::move(stunServer)), queue_(queue), parameters_(std::move(parameters)) {}

stun::TransactionId UdpProbes::randomTransaction() {
    std::random_device source;  // the system's secure one
    std::uniform_int_distribution<unsigned> byte(0, 255);
    stun::TransactionId transaction;
    for (auto& value : transaction) value = static_cast<std::uint8_t>(byte(source));
    return transaction;
}

void UdpProbes::mappedAddress(std::uint16_t localPort, MappedAddressCompletion completion) {
    assertOn(queue_);
    const QuestionId id = ++lastQuestion_;
    questions_[id] = {std::move(completion),
                      queue_.after(parameters_.answerLimit, [this, id] { answer(id, std::nullopt); })};

    const auto transaction = parameters_.newTransaction();
    sendFromPort({.localPort = localPort,
                  .host = stunServer_,
                  .port = stun::port,
                  .payload = stun::encodeBindingRequest(transaction),
                  .waitForReply = parameters_.replyLimit},
                 [this, id, transaction](const Bytes& reply) {
                     const auto mapped = stun::decodeBindingResponse(reply, transaction);
                     answer(id, mapped ? std::optional(mapped->text()) : std::nullopt);
                 });
}

void UdpProbes::answer(QuestionId id, const std::optional<std::string>& mapped) {
    const auto question = questions_.extract(id);
    if (question.empty()) return;  // a reply that came after the limit
    question.mapped().completion(mapped);
}

void UdpProbes::sendFromPort(UdpPort::Datagram datagram, std::function<void(const Bytes&)> reply) {
    assertOn(queue_);
    const auto route =
        fmt::format("UDP from port {} to {}:{}", datagram.localPort, datagram.host, datagram.port);
    port_.exchange(std::move(datagram), queue_,
                   liveness_.guard([route, reply = std::move(reply)](UdpPort::Outcome outcome) {
                       if (!outcome)
                           return debugLog(fmt::format("⚠︎ {} failed: {}", route, outcome.error().text));
                       if (*outcome && reply) reply(**outcome);
                   }));
}

}  // namespace velmora
