#include "Testing/FakeScreenCapture.h"

#include <algorithm>
#include <utility>

namespace velmora {

void FakeScreen::setDisplay(DisplayId id, PixelSize size) {
    displays_[id] = {size, std::vector<std::uint8_t>(static_cast<std::size_t>(size.width) *
                                                     static_cast<std::size_t>(size.height))};
    for (FakeScreenCapture* capture : captures_) {
        if (capture->configuration_.display == id) capture->captureWhole();
    }
}

void FakeScreen::removeDisplay(DisplayId id) {
    displays_.erase(id);
    for (FakeScreenCapture* capture : std::vector(captures_)) {
        if (capture->configuration_.display == id) capture->end({"the display is gone"});
    }
}

void FakeScreen::paint(DisplayId display, const PixelRect& rect, std::uint8_t grey) {
    const auto found = displays_.find(display);
    if (found == displays_.end()) return;
    auto& [size, greys] = found->second;
    for (int y = std::max(rect.y, 0); y < std::min(rect.y + rect.height, size.height); ++y) {
        for (int x = std::max(rect.x, 0); x < std::min(rect.x + rect.width, size.width); ++x) {
            greys[static_cast<std::size_t>(y * size.width + x)] = grey;
        }
    }
    for (FakeScreenCapture* capture : captures_) {
        if (capture->configuration_.display == display) capture->changed(rect);
    }
}

void FakeScreen::fail(const Failure& failure) {
    failure_ = failure;
    displays_.clear();
    for (FakeScreenCapture* capture : std::vector(captures_)) capture->end(failure);
}

std::unique_ptr<ScreenCapture> FakeScreen::make(Queue& queue) {
    return std::make_unique<FakeScreenCapture>(*this, queue);
}

FakeScreenCapture::FakeScreenCapture(FakeScreen& screen, Queue& queue) : screen_(screen), queue_(queue) {
    screen_.captures_.push_back(this);
}

FakeScreenCapture::~FakeScreenCapture() {
    std::erase(screen_.captures_, this);
}

void FakeScreenCapture::start(const Configuration& configuration, Completion completion) {
    queue_.post(alive_.guard([this, configuration, done = std::move(completion)]() mutable {
        if (running_) return done(Failure{"capture is running already"});
        if (auto shown = show(configuration); !shown) return done(shown.error());
        running_ = true;
        schedule();
        done(Done{});
    }));
}

void FakeScreenCapture::update(const Configuration& configuration, Completion completion) {
    queue_.post(alive_.guard([this, configuration, done = std::move(completion)]() mutable {
        if (!running_) return done(Failure{"capture is not running"});
        auto shown = show(configuration);
        schedule();
        done(std::move(shown));
    }));
}

void FakeScreenCapture::stop(Completion completion) {
    queue_.post(alive_.guard([this, done = std::move(completion)]() mutable {
        running_ = false;
        due_.reset();
        done(Done{});
    }));
}

void FakeScreenCapture::resume() {
    queue_.post(alive_.guard([this] {
        isPutOff_ = false;
        schedule();
    }));
}

void FakeScreenCapture::captureWhole() {
    queue_.post(alive_.guard([this] {
        wholeWanted_ = true;
        schedule();
    }));
}

Status FakeScreenCapture::show(const Configuration& configuration) {
    if (screen_.failure_) return *screen_.failure_;
    if (!screen_.displays_.contains(configuration.display)) return Failure{"the display is not there"};
    if (((configuration.size.width | configuration.size.height) & 1) != 0 || configuration.size.width < 2 ||
        configuration.size.height < 2) {
        return Failure{"no picture can have that size"};
    }
    configuration_ = configuration;
    buffer_ = std::make_shared<PictureBuffer>(configuration.size);
    view_ = PictureBuffer::view(buffer_);
    wholeWanted_ = true;
    isPutOff_ = false;
    return Done{};
}

void FakeScreenCapture::changed(const PixelRect& rect) {
    if (!running_) return;
    changes_.push_back(rect);
    if (!changedAt_) changedAt_ = queue_.nowMicros();
    queue_.post(alive_.guard([this] { schedule(); }));
}

void FakeScreenCapture::end(const Failure& failure) {
    if (!running_) return;
    running_ = false;
    due_.reset();
    queue_.post(alive_.guard([this, failure] {
        if (auto notify = onStopped) notify(failure);
    }));
}

void FakeScreenCapture::schedule() {
    if (!running_ || isPutOff_ || due_ || (changes_.empty() && !wholeWanted_)) return;
    due_ = queue_.after(std::max(nextBeat_ - queue_.now(), HostClock::duration{0}), [this] { capture(); });
}

void FakeScreenCapture::capture() {
    if (admit && admit() == Admission::putOff) {
        isPutOff_ = true;
        return;
    }
    nextBeat_ = queue_.now() + HostClock::duration(1'000'000 / std::max(configuration_.framesPerSecond, 1));
    const auto& content = screen_.displays_.at(configuration_.display);
    if (wholeWanted_) changes_ = {{0, 0, content.size.width, content.size.height}};
    const auto damage = damageFrom(std::exchange(changes_, {}), content.size);
    const auto when = std::exchange(changedAt_, std::nullopt).value_or(queue_.nowMicros());
    wholeWanted_ = false;
    if (damage.empty()) return;
    for (const PixelRect& rect : damage) render(content, rect);
    lastMicros_ = std::max(when, lastMicros_ + 1);
    if (onSample) onSample({.picture = view_, .damage = damage, .captureMicros = lastMicros_});
    schedule();
}

std::vector<PixelRect> FakeScreenCapture::damageFrom(const std::vector<PixelRect>& changes,
                                                     PixelSize source) const {
    const PixelSize size = configuration_.size;
    const auto low = [](int at, int from, int to) { return std::max(0, at * to / from) & ~1; };
    const auto high = [](int at, int from, int to) {
        return std::min(to, ((at * to + from - 1) / from + 1) & ~1);
    };
    std::vector<PixelRect> damage;
    for (const PixelRect& change : changes) {
        const int left = low(change.x, source.width, size.width);
        const int top = low(change.y, source.height, size.height);
        PixelRect rect{left, top, high(change.x + change.width, source.width, size.width) - left,
                       high(change.y + change.height, source.height, size.height) - top};
        if (rect.isEmpty()) continue;
        // Whatever shares rows with an earlier one joins it, so that none overlap.
        for (auto other = damage.begin(); other != damage.end();) {
            if (other->y >= rect.y + rect.height || rect.y >= other->y + other->height) {
                ++other;
                continue;
            }
            const int right = std::max(rect.x + rect.width, other->x + other->width);
            const int bottom = std::max(rect.y + rect.height, other->y + other->height);
            rect.x = std::min(rect.x, other->x);
            rect.y = std::min(rect.y, other->y);
            rect.width = right - rect.x;
            rect.height = bottom - rect.y;
            damage.erase(other);
            other = damage.begin();
        }
        damage.push_back(rect);
    }
    std::ranges::sort(damage, {}, &PixelRect::y);
    return damage;
}

void FakeScreenCapture::render(const FakeScreen::Content& content, const PixelRect& rect) {
    for (int y = rect.y; y < rect.y + rect.height; ++y) {
        for (int x = rect.x; x < rect.x + rect.width; ++x) {
            const int sourceX = x * content.size.width / configuration_.size.width;
            const int sourceY = y * content.size.height / configuration_.size.height;
            const int grey = content.greys[static_cast<std::size_t>(sourceY * content.size.width + sourceX)];
            buffer_->y[y * buffer_->strideY + x] = static_cast<std::uint8_t>(16 + (grey * 219 + 127) / 255);
        }
    }
}

}  // namespace velmora
