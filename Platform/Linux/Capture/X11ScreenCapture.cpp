#include "Platform/Linux/Capture/X11ScreenCapture.h"

#include <fmt/format.h>
#include <pthread.h>

#include <algorithm>
#include <utility>

#include "Platform/Linux/Display/X11Displays.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {
namespace {

constexpr std::chrono::milliseconds patience{1000};  // with a display that is not there
constexpr std::chrono::milliseconds retryInterval{50};

HostClock::duration intervalOf(int framesPerSecond) {
    return HostClock::duration(1'000'000 / std::clamp(framesPerSecond, 1, 1000));
}

}  // namespace

HostClock::time_point momentOfChange(std::uint32_t serverMilliseconds, HostClock::time_point heard) {
    const std::uint64_t heardMillis = HostClock::micros(heard) / 1000;
    const auto age = static_cast<std::int32_t>(static_cast<std::uint32_t>(heardMillis) - serverMilliseconds);
    if (age < 0 || age > 1000) return heard;
    const auto lastMicroOf = (static_cast<std::int64_t>(heardMillis) - age) * 1000 + 999;
    return std::min(heard, HostClock::time_point(HostClock::duration(lastMicroOf)));
}

X11ScreenCapture::X11ScreenCapture(Queue& queue, std::string xDisplay)
    : queue_(queue), xDisplay_(std::move(xDisplay)) {}

X11ScreenCapture::~X11ScreenCapture() {
    // What is running there must have ended, and what is still posted must find us gone.
    queue_.runSync([this] {
        stopWatching();
        alive_.renew();
    });
    stopWatching();  // should the queue have ended, at the end of the process
}

void X11ScreenCapture::start(const Configuration& configuration, Completion completion) {
    queue_.post(alive_.guard([this, configuration, completion = std::move(completion)]() mutable {
        if (state_ == State::starting || state_ == State::running) {
            return completion(Failure{"capture is running already"});
        }
        stopWatching();
        state_ = State::starting;
        configuration_ = configuration;
        missingSince_.reset();
        ending_ = false;
        {
            std::lock_guard lock(mutex_);
            pacer_ = CapturePacer(intervalOf(configuration.framesPerSecond));
        }
        watcher_ = std::thread([this, configuration, done = std::move(completion)]() mutable {
            pthread_setname_np(pthread_self(), "screen");
            watch(configuration, std::move(done));
        });
    }));
}

void X11ScreenCapture::update(const Configuration& configuration, Completion completion) {
    queue_.post(alive_.guard([this, configuration, completion = std::move(completion)]() mutable {
        if (state_ != State::running) return completion(Failure{"capture is not running"});
        if (auto shown = grabber_->show(configuration.display, configuration.size); !shown) {
            return completion(shown.error());
        }
        configuration_ = configuration;
        missingSince_.reset();
        {
            std::lock_guard lock(mutex_);
            pacer_.setInterval(intervalOf(configuration.framesPerSecond));
            pacer_.wantWhole();
        }
        waiter_.wake();
        completion(Done{});
    }));
}

void X11ScreenCapture::stop(Completion completion) {
    queue_.post(alive_.guard([this, completion = std::move(completion)]() mutable {
        if (state_ != State::starting) state_ = State::idle;
        stopWatching();
        // A start that is under way completes first: what it posted stands before this in the queue.
        queue_.post(alive_.guard([this, done = std::move(completion)]() mutable {
            state_ = State::idle;
            grabber_.reset();
            done(Done{});
        }));
    }));
}

void X11ScreenCapture::resume() {
    {
        std::lock_guard lock(mutex_);
        pacer_.resume();
    }
    waiter_.wake();
}

void X11ScreenCapture::captureWhole() {
    {
        std::lock_guard lock(mutex_);
        pacer_.wantWhole();
    }
    waiter_.wake();
}

Result<X11ScreenCapture::Opened> X11ScreenCapture::open(const std::string& xDisplay,
                                                        const Configuration& configuration) {
    Opened opened;
    auto grabber = ScreenGrabber::open(xDisplay);
    if (!grabber) return grabber.error();
    opened.grabber = std::move(grabber).value();
    auto events = XConnection::open(xDisplay);
    if (!events) return events.error();
    opened.events = std::move(events).value();
    const XConnection& x = *opened.events;

    // Changes of displays first: one between looking and listening would go unnoticed.
    X11Displays::selectChanges(x);
    const auto* extension = x.extension(xcb_damage_id);
    if (!extension) return Failure{"the X server does not answer"};
    opened.damageNotify = extension->first_event + XCB_DAMAGE_NOTIFY;
    x.reply(xcb_damage_query_version_reply, xcb_damage_query_version(x, 1, 1));
    opened.damage = xcb_generate_id(x);
    // One event when the first change comes in, and none until it has been taken: other levels send up to a
    // thousand times as many.
    xcb_damage_create(x, opened.damage, x.root(), XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY);
    // An answer means that the server has done all this, so that the grabber may name the object.
    if (!x.reply(xcb_get_input_focus_reply, xcb_get_input_focus(x))) {
        return Failure{"the X server does not answer"};
    }
    if (auto shown = opened.grabber->show(configuration.display, configuration.size); !shown) {
        return shown.error();
    }
    return opened;
}

void X11ScreenCapture::watch(const Configuration& configuration, Completion completion) {
    auto opened = open(xDisplay_, configuration);
    if (!opened) {
        queue_.post(alive_.guard([this, failure = opened.error(), done = std::move(completion)]() mutable {
            state_ = State::idle;
            done(std::move(failure));
        }));
        return;
    }
    const std::unique_ptr<XConnection> events = std::move(opened->events);
    queue_.post(alive_.guard(
        [this, grabber = std::move(opened->grabber), damage = opened->damage,
         done = std::move(completion)]() mutable { adopt(std::move(grabber), damage, std::move(done)); }));
    while (!ending_) {
        takeEvents(*events, opened->damageNotify);
        if (events->isBroken()) {
            queue_.post(alive_.guard([this] { end({"the X server has gone away"}); }));
            return;
        }
        const auto now = HostClock::now();
        const auto next = askWhenDue(now);
        waiter_.wait(*events, next ? std::optional(*next - now) : std::nullopt);
    }
}

void X11ScreenCapture::takeEvents(const XConnection& events, int damageNotify) {
    while (const auto event = events.pollEvent()) {
        if ((event->response_type & 0x7f) == damageNotify) {
            const auto& notify = reinterpret_cast<const xcb_damage_notify_event_t&>(*event);
            const auto when = momentOfChange(notify.timestamp, HostClock::now());
            std::lock_guard lock(mutex_);
            pacer_.change(when);
        } else if (X11Displays::isChange(events, *event)) {
            displaysChanged_ = true;
            std::lock_guard lock(mutex_);
            pacer_.wantWhole();
        }
    }
}

std::optional<HostClock::time_point> X11ScreenCapture::askWhenDue(HostClock::time_point now) {
    {
        std::lock_guard lock(mutex_);
        const auto next = pacer_.nextAsk();
        if (!next || *next > now) return next;
        pacer_.ask();
    }
    queue_.post(alive_.guard([this] { answer(); }));
    return std::nullopt;
}

void X11ScreenCapture::adopt(std::unique_ptr<ScreenGrabber> grabber, xcb_damage_damage_t damage,
                             Completion completion) {
    if (ending_) return completion(Failure{"capture was stopped"});
    grabber_ = std::move(grabber);
    damage_ = damage;
    state_ = State::running;
    captureWhole();
    completion(Done{});
}

void X11ScreenCapture::answer() {
    assertOn(queue_);
    if (state_ != State::running) return;
    if (admit && admit() == Admission::putOff) {
        std::lock_guard lock(mutex_);
        pacer_.putOff();
        waiter_.wake();  // unless it has been resumed meanwhile, there is nothing to do
        return;
    }
    capture(queue_.now());
    if (state_ != State::running) return;
    // What became due while the consumer was at work is asked for from here; the thread waits for the rest.
    if (askWhenDue(queue_.now())) waiter_.wake();
}

void X11ScreenCapture::capture(HostClock::time_point now) {
    const bool moved = displaysChanged_.exchange(false) || missingSince_;
    if (moved) {
        if (auto shown = grabber_->show(configuration_.display, configuration_.size); !shown) {
            return lookAgain(now, shown.error().text);
        }
    }
    CapturePacer::Capture turn;
    {
        std::lock_guard lock(mutex_);
        turn = pacer_.begin(now);
    }
    const auto outcome = turn.whole || moved ? grabber_->grabWhole(damage_) : grabber_->grabChanges(damage_);
    if (outcome == ScreenGrabber::Outcome::failed) {
        return lookAgain(now, "the X server refuses to show it");
    }
    missingSince_.reset();
    if (outcome == ScreenGrabber::Outcome::picture) deliver(turn);
    std::lock_guard lock(mutex_);
    pacer_.end();
}

void X11ScreenCapture::lookAgain(HostClock::time_point now, std::string reason) {
    if (grabber_->isBroken()) return end({"the X server has gone away"});
    if (!missingSince_) missingSince_ = now;
    if (now - *missingSince_ >= patience) {
        return end({fmt::format("the display is gone: {}", reason)});
    }
    std::lock_guard lock(mutex_);
    pacer_.retryAt(now + retryInterval);
}

void X11ScreenCapture::deliver(const CapturePacer::Capture& turn) {
    // A whole picture shows the present; a change is as old as its first pixel.
    const auto when = turn.changedAt.value_or(queue_.now());
    lastMicros_ = std::max(HostClock::micros(when), lastMicros_ + 1);
    if (!onSample) return;
    onSample({.picture = grabber_->picture(), .damage = grabber_->damage(), .captureMicros = lastMicros_});
}

void X11ScreenCapture::end(Failure failure) {
    assertOn(queue_);
    if (state_ != State::running) return;
    state_ = State::ended;
    ending_ = true;
    waiter_.wake();
    // In a block of its own: the owner may destroy us there.
    queue_.post(alive_.guard([this, failure = std::move(failure)] {
        if (state_ != State::ended) return;  // stopped meanwhile
        if (auto notify = onStopped) notify(failure);
    }));
}

void X11ScreenCapture::stopWatching() {
    if (!watcher_.joinable()) return;
    ending_ = true;
    waiter_.wake();
    watcher_.join();
}

}  // namespace velmora
