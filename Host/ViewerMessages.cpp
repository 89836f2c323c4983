#include "Host/ViewerMessages.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "VelmoraKit/Wire/InputRecords.h"
#include "VelmoraKit/Wire/SessionRecords.h"
#include "VelmoraKit/Wire/TimingRecords.h"

namespace velmora {

namespace {

/// A share of what waits; given back when the block that holds it has run or been dropped.
class Share {
public:
    Share(std::shared_ptr<std::atomic<std::size_t>> whole, std::size_t bytes)
        : whole_(std::move(whole)), bytes_(bytes) {
        *whole_ += bytes_;
    }
    Share(Share&& other) noexcept = default;
    Share& operator=(Share&&) = delete;
    ~Share() {
        if (whole_) *whole_ -= bytes_;
    }

private:
    std::shared_ptr<std::atomic<std::size_t>> whole_;
    const std::size_t bytes_;
};

}  // namespace

ViewerMessages::ViewerMessages(Services services, const ServerSettings& settings)
    : ViewerMessages(std::move(services), settings, Parameters()) {}

ViewerMessages::ViewerMessages(Services services, const ServerSettings& settings, Parameters parameters)
    : services_(std::move(services)),
      settings_(settings),
      parameters_(parameters),
      log_(services_.connection) {}

template <class T, class F>
void ViewerMessages::ask(const QueueRef<T>& whom, ByteView payload, F work) {
    if (isOverrun_) return;
    if (*waiting_ > parameters_.mostWaiting) {
        isOverrun_ = true;
        log_("⚠︎ The viewer asks for more than this Mac can keep up with; ending the connection");
        services_.connection->cancel();
        return;
    }
    whom.perform([share = Share(waiting_, payload.size() + parameters_.bookkeeping),
                  work = std::move(work)](T& object) mutable { work(object); });
}

void ViewerMessages::handle(MessageType type, ByteView payload) {
    assertOn(services_.connection->queue());
    switch (type) {
        case MessageType::requestKeyframe:
            log_("Viewer asked for a keyframe");
            ask(services_.video, payload, [](VideoPipeline& video) { video.requestKeyframe(); });
            return;
        case MessageType::input:
            handleInput(payload);
            return;
        case MessageType::bye:
            services_.connection->cancel();
            return;
        case MessageType::ping:
            answerPing(payload);
            return;
        case MessageType::resizeDisplay:
            if (auto request = DisplayRequest::decode(payload)) {
                ask(services_.display, payload,
                    [request = *request](DisplayControl& display) { display.resize(request); });
            }
            return;
        case MessageType::selectDisplay:
            if (auto selection = DisplaySelection::decode(payload)) {
                ask(services_.display, payload,
                    [selection = *selection](DisplayControl& display) { display.select(selection); });
            }
            return;
        case MessageType::bitrateHint:
            handleBitrateHint(payload);
            return;
        case MessageType::nack:
            handleNack(payload);
            return;
        case MessageType::clipboard:
            handleClipboard(payload);
            return;
        case MessageType::hello:
        case MessageType::streamConfig:
        case MessageType::videoFrame:
        case MessageType::pong:
        case MessageType::log:
        case MessageType::displayList:
        case MessageType::cursor:
        case MessageType::audio:
        case MessageType::textFocus:
        case MessageType::denied:
            return;
    }
}

void ViewerMessages::handleInput(ByteView payload) {
    auto event = InputEvent::decode(payload);
    if (!event) return;
    ask(services_.input, payload, [event = *std::move(event)](InputSeat& seat) {
        if (seat.receiver) seat.receiver->handle(event);
    });
}

void ViewerMessages::handleClipboard(ByteView payload) {
    auto content = ClipboardContent::decode(payload);
    if (!content) return;
    ask(services_.clipboard, payload, [content = *std::move(content)](ClipboardSync& clipboard) mutable {
        clipboard.receive(std::move(content));
    });
}

void ViewerMessages::answerPing(ByteView payload) {
    const auto ping = Ping::decode(payload);
    if (!ping || !SessionLog::takesAnswers(*services_.connection)) return;
    const double permille = std::round(std::max(services_.cpuPercent() * 10, 0.0));
    const Pong pong{.viewerMicros = ping->viewerMicros,
                    .serverMicros = services_.connection->queue().nowMicros(),
                    .serverCPUPermille = static_cast<std::uint32_t>(permille),
                    .droppedFrames = services_.sender->takeDroppedFrames()};
    services_.connection->send(MessageType::pong, pong.encode());
}

void ViewerMessages::handleBitrateHint(ByteView payload) {
    const auto hint = BitrateHint::decode(payload);
    if (!hint) return;
    const std::string asked =
        hint->maxMbps == 0 ? std::string("no limit") : fmt::format("{} Mbit/s", hint->maxMbps);
    log_(fmt::format("Viewer asked for at most {}; encoding at {} Mbit/s", asked,
                     VideoPipeline::allowedMbps(settings_, hint->maxMbps)));
    ask(services_.video, payload, [mbps = hint->maxMbps](VideoPipeline& video) { video.limitRateTo(mbps); });
}

void ViewerMessages::handleNack(ByteView payload) {
    const auto nack = Nack::decode(payload);
    if (!nack || !services_.sender->resend(*nack)) return;
    ask(services_.video, payload, [frame = nack->frame](VideoPipeline& video) { video.handleMended(frame); });
}

}  // namespace velmora
