#include "Viewer/Session/QUICClient.h"

#include <fmt/format.h>

#include <array>
#include <chrono>
#include <utility>

#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Media/VideoReassembler.h"

namespace velmora {

using namespace std::chrono_literals;

/// The datagrams of one connection, and their reassembly. Made on the main queue, then on the client's only.
class QUICClient::VideoReceiver : public std::enable_shared_from_this<VideoReceiver> {
public:
    VideoReceiver(std::shared_ptr<DatagramFlow> flow, VideoHandlers handlers, Queue& queue)
        : flow_(std::move(flow)), handlers_(std::move(handlers)), queue_(queue) {}

    /// On the main queue.
    void open();
    void stop();

private:
    static constexpr HostClock::duration checkInterval = 20ms;  // the reassembler's delay
    // The host hears of the flow by a datagram of its own: one that is lost, or that overtook the stream,
    // would cost the session its datagrams. Waits from each repeat to the next.
    static constexpr std::array<HostClock::duration, 3> openingWaits{100ms, 200ms, 400ms};

    void sendOpening();
    void repeatOpeningLater(std::size_t round);
    void handleDatagram(Bytes datagram);
    void check();
    void apply(VideoReassembler::Output output);

    std::shared_ptr<DatagramFlow> flow_;
    const VideoHandlers handlers_;
    Queue& queue_;
    VideoReassembler reassembler_;
    TimerToken openingTimer_;  // until video comes
    TimerToken checkTimer_;    // exactly while a hole is pending
    bool isStopped_ = false;
};

void QUICClient::VideoReceiver::open() {
    flow_->onDatagram = [weak = weak_from_this()](Bytes datagram) {
        if (const auto self = weak.lock()) self->handleDatagram(std::move(datagram));
    };
    flow_->start(queue_);
    sendOpening();
    debugLog(fmt::format("QUIC video datagrams ready (up to {} bytes each)",
                         flow_->usableDatagramFrameSize().value_or(0)));
    queue_.post([self = shared_from_this()] { self->repeatOpeningLater(0); });
}

void QUICClient::VideoReceiver::stop() {
    isStopped_ = true;
    openingTimer_.reset();
    checkTimer_.reset();
    flow_->cancel();
}

void QUICClient::VideoReceiver::sendOpening() {
    flow_->send({std::make_shared<const Bytes>(1, std::uint8_t{0})}, 0);
}

void QUICClient::VideoReceiver::repeatOpeningLater(std::size_t round) {
    const bool hasVideo = reassembler_.newest().has_value();
    if (isStopped_ || hasVideo || round == openingWaits.size()) return;
    openingTimer_ = queue_.after(openingWaits[round], [this, round] {
        sendOpening();
        repeatOpeningLater(round + 1);
    });
}

void QUICClient::VideoReceiver::handleDatagram(Bytes datagram) {
    if (isStopped_) return;
    apply(reassembler_.add(std::move(datagram), secondsOf(queue_.now())));
    if (reassembler_.newest()) openingTimer_.reset();
}

void QUICClient::VideoReceiver::check() {
    apply(reassembler_.check(secondsOf(queue_.now())));
}

void QUICClient::VideoReceiver::apply(VideoReassembler::Output output) {
    if (!reassembler_.hasHole()) {
        checkTimer_.reset();
    } else if (!checkTimer_) {
        checkTimer_ = queue_.after(checkInterval, [this] { check(); });
    }
    for (const auto& nack : output.nacks) {
        if (handlers_.onNack) handlers_.onNack(nack);
    }
    if (output.gap && handlers_.onGap) handlers_.onGap();
    for (auto& record : output.frames) {
        if (handlers_.onFrame) handlers_.onFrame(std::move(record));
    }
}

QUICClient::QUICClient(Attempt attempt, TransportStack& stack, Queue& queue, Queue& main)
    : label_(std::move(attempt.label)),
      queue_(queue),
      main_(main),
      group_(stack.connectTo(attempt.endpoint, {.identity = std::nullopt,
                                                .verification = std::move(attempt.verification),
                                                .localPort = attempt.localPort})) {}

QUICClient::~QUICClient() {
    cancel();
}

void QUICClient::start() {
    assertOn(main_);
    group_->onState = [this, weak = alive_.weak(), &main = main_](TransportState state, const auto& error) {
        if (state != TransportState::ready && state != TransportState::failed) return;
        main.post([this, weak, state, reason = error ? error->text : std::string("?")] {
            if (weak.expired()) return;
            if (state == TransportState::ready) {
                if (const auto notify = onReady) notify(*this);
            } else {
                if (const auto notify = onFailed) notify(*this, reason);
            }
        });
    };
    // A host never opens anything towards the viewer: what arrives is dropped, which cancels it.
    group_->start(queue_);
}

void QUICClient::startVideo(VideoHandlers handlers) {
    assertOn(main_);
    auto flow = group_->openDatagramFlow();
    if (!flow) {
        debugLog("⚠︎ QUIC: no datagram flow; video will use the control stream");
        return;
    }
    video_ = std::make_shared<VideoReceiver>(std::move(flow), std::move(handlers), queue_);
    video_->open();
}

void QUICClient::cancel() {
    alive_.renew();
    if (auto video = std::exchange(video_, nullptr)) {
        queue_.post([video = std::move(video)] { video->stop(); });
    }
    group_->cancel();
}

}  // namespace velmora
