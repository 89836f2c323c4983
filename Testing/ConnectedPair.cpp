#include "Testing/ConnectedPair.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace velmora {

using namespace std::chrono_literals;

ConnectedPair::ConnectedPair(VirtualTime& time, SimulatedLink& link, Queue& hostQueue, Queue& viewerQueue,
                             std::uint16_t port) {
    const auto await = [&time](auto condition) {
        if (time.advanceUntil(condition, 10s)) return;
        std::fputs("ConnectedPair: the link connects nothing\n", stderr);
        std::abort();
    };
    const auto conditionsToListener = link.toListener.conditions;
    const auto conditionsToConnector = link.toConnector.conditions;
    for (auto* path : {&link.toListener, &link.toConnector}) {
        path->conditions.loss = path->conditions.duplication = 0;
    }
    const Bytes certificate = bytesOf("FINGERPRINT");
    listener =
        link.listenOn(port, {.identity = TransportIdentity{.certificate = certificate, .privateKey = {}}});
    listener->onGroup = [&](std::shared_ptr<ConnectionGroup> group) {
        hostGroup = std::move(group);
        hostGroup->onStream = [&](std::shared_ptr<Stream> stream) { hostStream = std::move(stream); };
        hostGroup->onDatagramFlow = [&](std::shared_ptr<DatagramFlow> flow) { hostFlow = std::move(flow); };
        hostGroup->start(hostQueue);
    };
    listener->start(hostQueue);
    viewerGroup = link.connectTo(Endpoint::hostPort("198.51.100.1", port), {});
    viewerGroup->start(viewerQueue);
    await([this] { return viewerGroup->state() == TransportState::ready; });

    viewerStream = viewerGroup->openStream();
    viewerStream->start(viewerQueue);
    viewerStream->send({0}, nullptr);
    viewerFlow = viewerGroup->openDatagramFlow();
    if (viewerFlow) {
        viewerFlow->start(viewerQueue);
        viewerFlow->send({std::make_shared<const Bytes>(1, std::uint8_t{0})}, 0);
    }
    await([this] { return hostStream && (hostFlow || !viewerFlow); });
    listener->onGroup = nullptr;
    hostGroup->onStream = nullptr;
    hostGroup->onDatagramFlow = nullptr;
    hostStream->start(hostQueue);
    if (hostFlow) hostFlow->start(hostQueue);
    bool isRead = false;
    hostStream->receiveExactly(1, [&isRead](const auto&) { isRead = true; });
    await([&isRead] { return isRead; });
    link.toListener.conditions = conditionsToListener;
    link.toConnector.conditions = conditionsToConnector;
}

}  // namespace velmora
