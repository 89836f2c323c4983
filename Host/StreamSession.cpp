#include "Host/StreamSession.h"

#include <fmt/format.h>

#include <utility>

namespace velmora {

StreamSession::StreamSession(AdmittedViewer viewer, Services services)
    : viewer_(std::move(viewer)),
      services_(std::move(services)),
      log_(viewer_.connection),
      sender_(std::make_shared<FrameSender>(viewer_.connection, viewer_.videoFlow, services_.capture)),
      input_(services_.input, std::make_shared<InputSeat>()),
      cursor_(services_.cursor, services_.main),
      textFocus_(services_.textFocus, services_.main) {
    auto pipeline =
        std::make_shared<VideoPipeline>(VideoPipeline::Services{.capture = services_.capture,
                                                                .captures = services_.captures,
                                                                .compressors = services_.compressors,
                                                                .connection = viewer_.connection,
                                                                .sender = sender_},
                                        viewer_.settings);
    pipeline->onStopped = [log = log_, connection = viewer_.connection](const Failure& failure) {
        log(fmt::format("⚠︎ Capture stopped: {}", failure.text));
        connection->cancel();
    };
    QueueOwned<VideoPipeline> video(services_.capture, std::move(pipeline));
    video_ = video.ref();
    display_ = {services_.display, std::make_shared<DisplayControl>(
                                       DisplayControl::Services{.display = services_.display,
                                                                .displays = services_.displays,
                                                                .virtualDisplays = services_.virtualDisplays,
                                                                .input = input_.ref(),
                                                                .connection = viewer_.connection},
                                       std::move(video), viewer_.settings)};
    makeClipboard();
    messages_ = std::make_shared<ViewerMessages>(ViewerMessages::Services{.connection = viewer_.connection,
                                                                          .sender = sender_,
                                                                          .video = video_,
                                                                          .display = display_.ref(),
                                                                          .input = input_.ref(),
                                                                          .clipboard = clipboard_.ref(),
                                                                          .cpuPercent = services_.cpuPercent},
                                                 viewer_.settings);
}

StreamSession::~StreamSession() {
    stop();
}

void StreamSession::start(std::function<void(Status)> done) {
    assertOn(services_.main);
    keepDisplayOn();
    listenToFlow();
    if (services_.makeInput) {
        input_.perform([make = services_.makeInput, agent = viewer_.agent](InputSeat& seat) {
            seat.receiver = make({.agent = agent});
        });
    }
    auto finish = alive_.guard([this, done = std::move(done)](const Status& status) {
        if (status) {
            startClipboard();
            startWatchers();
        }
        done(status);  // may be our end
    });
    auto tell = [&main = services_.main, finish = std::move(finish)](const Status& status) {
        main.post([finish, status]() mutable { finish(status); });
    };
    display_.perform(
        [beginning = DisplayControl::Beginning{.window = viewer_.display, .audio = viewer_.audio},
         tell = std::move(tell)](DisplayControl& display) { display.start(beginning, tell); });
}

void StreamSession::keepDisplayOn() {
    activity_ = services_.keepAwake.beginActivity("Streaming the screen to a viewer");
    services_.keepAwake.declareUserActivity("Velmora viewer connected");
    displayAssertion_ = services_.keepAwake.preventIdleDisplaySleep(
        "Streaming the screen to a Velmora viewer", [](const Status& outcome) {
            if (!outcome)
                hostLog(fmt::format("⚠︎ Couldn't keep the display on: {}", outcome.error().text));
        });
    log_("Woke the display (it may have been off or locked) and keeping it on while streaming");
}

void StreamSession::makeClipboard() {
    if (!services_.clipboard) return;
    clipboard_ = {services_.main,
                  std::make_shared<ClipboardSync>(
                      "viewer", [](const std::string& line) { hostLog(line); }, *services_.clipboard)};
}

void StreamSession::startClipboard() {
    clipboard_.perform([connection = viewer_.connection](ClipboardSync& clipboard) {
        clipboard.start([connection](const ClipboardContent& content) {
            connection->sendBulk(MessageType::clipboard, content.encode());
        });
    });
}

void StreamSession::startWatchers() {
    cursor_.start([] { return 1.0; }, [this](const CursorShape& shape) { sendCursor(shape); });
    textFocus_.start([connection = viewer_.connection](bool takesText) {
        if (SessionLog::takesAnswers(*connection))
            connection->send(MessageType::textFocus, TextFocus{takesText}.encode());
    });
}

void StreamSession::sendCursor(const CursorShape& shape) {
    if (!SessionLog::takesAnswers(*viewer_.connection)) return;
    if (const auto leftOut = cursorLines_.spend(services_.main.now())) {
        if (*leftOut > 0) hostLog(fmt::format("({} changes of the cursor left out)", *leftOut));
        hostLog(fmt::format("Cursor shape changed: {:.0f}×{:.0f} pt", shape.width, shape.height));
    }
    viewer_.connection->send(MessageType::cursor, shape.encode());
}

void StreamSession::listenToFlow() {
    if (!viewer_.videoFlow) return;
    // Its callbacks run on the connection's queue, and may only be changed there.
    viewer_.connection->queue().post([weak = std::weak_ptr(viewer_.videoFlow), video = video_] {
        const auto flow = weak.lock();
        if (!flow) return;
        flow->onDrained = [video] {
            video.perform([](VideoPipeline& pipeline) { pipeline.handleDrained(); });
        };
        flow->onLost = [video](std::uint64_t tag) {
            if (tag == 0) return;
            video.perform([frame = static_cast<std::uint32_t>(tag)](VideoPipeline& pipeline) {
                pipeline.handleLost(frame);
            });
        };
    });
}

void StreamSession::stop() {
    assertOn(services_.main);
    alive_.renew();
    cursor_.stop();
    textFocus_.stop();
    if (messages_)
        viewer_.connection->queue().post([messages = std::move(messages_)]() mutable { messages.reset(); });
    input_.perform([](InputSeat& seat) {
        if (seat.receiver) seat.receiver->releaseAll();
    });
    input_.reset();
    display_.perform([](DisplayControl& display) { display.stop(); });
    display_.reset();
    clipboard_.perform([](ClipboardSync& clipboard) { clipboard.stop(); });
    clipboard_.reset();
    activity_.reset();
    displayAssertion_.reset();
}

std::function<void(MessageType, Bytes)> StreamSession::messageHandler() {
    return [weak = std::weak_ptr(messages_)](MessageType type, const Bytes& payload) {
        if (const auto messages = weak.lock()) messages->handle(type, payload);
    };
}

}  // namespace velmora
