#include "Platform/Linux/Capture/X11CursorSource.h"

#include <fmt/format.h>
#include <pthread.h>
#include <xcb/xfixes.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <optional>
#include <span>
#include <thread>
#include <utility>

#include "Platform/Linux/Display/XConnection.h"
#include "Platform/Linux/Display/XEventWaiter.h"
#include "Platform/Linux/System/PngFile.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

namespace {

constexpr std::chrono::milliseconds leastInterval{50};  // pointers may be animated
constexpr int longestSide = 512;                        // pixels; no viewer shows a larger one

std::optional<CursorShape> shapeOf(const xcb_xfixes_get_cursor_image_reply_t& image) {
    const PixelSize size{image.width, image.height};
    if (size.width < 1 || size.height < 1 || size.width > longestSide || size.height > longestSide)
        return std::nullopt;
    const int count = xcb_xfixes_get_cursor_image_cursor_image_length(&image);
    if (count < size.width * size.height) return std::nullopt;
    auto png = encodePng(
        size, std::span(xcb_xfixes_get_cursor_image_cursor_image(&image), static_cast<std::size_t>(count)));
    if (!png) return std::nullopt;
    return CursorShape{.width = static_cast<double>(size.width),
                       .height = static_cast<double>(size.height),
                       .hotX = static_cast<double>(image.xhot),
                       .hotY = static_cast<double>(image.yhot),
                       .png = *std::move(png)};
}

}  // namespace

/// The thread, and what lives on it.
class X11CursorSource::Watching {
public:
    Watching(std::string display, std::function<void(CursorShape)> tell)
        : tell_(std::move(tell)), thread_([this, display = std::move(display)] { run(display); }) {}
    ~Watching() {
        end();
        thread_.join();
    }
    /// Does not wait. Any thread.
    void end() {
        isEnding_ = true;
        waiter_.wake();
    }
    bool hasEnded() const { return hasEnded_; }

private:
    void run(const std::string& display) {
        pthread_setname_np(pthread_self(), "cursor");
        if (const Status status = open(display); !status) {
            hostLog(fmt::format("⚠︎ The cursor's shape is not shared: {}", status.error().text));
        } else {
            while (!isEnding_ && !connection_->isBroken()) step();
        }
        connection_.reset();
        hasEnded_ = true;
    }

    Status open(const std::string& display) {
        auto opened = XConnection::open(display);
        if (!opened) return opened.error();
        connection_ = *std::move(opened);
        const auto* fixes = connection_->extension(xcb_xfixes_id);
        if (!fixes ||
            !connection_->reply(xcb_xfixes_query_version_reply, xcb_xfixes_query_version(*connection_, 5, 0)))
            return Failure{"the X server has no XFIXES"};
        cursorEvent_ = fixes->first_event + XCB_XFIXES_CURSOR_NOTIFY;
        xcb_xfixes_select_cursor_input(*connection_, connection_->root(),
                                       XCB_XFIXES_CURSOR_NOTIFY_MASK_DISPLAY_CURSOR);
        return Done{};
    }

    void step() {
        while (const auto event = connection_->pollEvent()) {
            if ((event->response_type & 0x7f) == cursorEvent_) isDue_ = true;
        }
        const auto now = HostClock::now();
        if (isDue_ && now >= next_) {
            isDue_ = false;
            next_ = now + leastInterval;
            read();
        }
        waiter_.wait(*connection_, isDue_ ? std::optional(next_ - now) : std::nullopt);
    }

    void read() {
        const auto image =
            connection_->reply(xcb_xfixes_get_cursor_image_reply, xcb_xfixes_get_cursor_image(*connection_));
        // Also one that could not be told: it would not be any better the second time.
        if (!image || std::exchange(lastSerial_, image->cursor_serial) == image->cursor_serial) return;
        if (auto shape = shapeOf(*image)) tell_(*std::move(shape));
    }

    const std::function<void(CursorShape)> tell_;
    XEventWaiter waiter_;
    std::atomic<bool> isEnding_ = false, hasEnded_ = false;

    // Of the thread.
    std::unique_ptr<XConnection> connection_;
    int cursorEvent_ = 0;
    bool isDue_ = true;
    HostClock::time_point next_{};
    std::optional<std::uint32_t> lastSerial_;

    std::thread thread_;  // last: it starts with everything above in place
};

class X11CursorSource::Token final : public Watch {
public:
    ~Token() override {
        if (const auto held = watching.lock()) held->end();
    }
    Liveness liveness;
    std::weak_ptr<Watching> watching;
};

X11CursorSource::X11CursorSource(Queue& main, std::string display)
    : main_(main), display_(std::move(display)) {}

X11CursorSource::~X11CursorSource() = default;

std::unique_ptr<CursorSource::Watch> X11CursorSource::watch(Told onShape) {
    assertOn(main_);
    std::erase_if(watchings_, [](const auto& watching) { return watching->hasEnded(); });
    auto token = std::make_unique<Token>();
    auto watching = std::make_shared<Watching>(
        display_, [&main = main_, told = token->liveness.guard(std::move(onShape))](CursorShape shape) {
            main.post([told, shape = std::move(shape)]() mutable { told(std::move(shape)); });
        });
    token->watching = watching;
    watchings_.push_back(std::move(watching));
    return token;
}

}  // namespace velmora
