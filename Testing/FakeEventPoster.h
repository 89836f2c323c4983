#pragma once

#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "Platform/EventPoster.h"

namespace velmora {

/// What a machine without a window system got from its posters, in order.
struct PostedLog {
    std::vector<PostedEvent> events;
    std::vector<PostedEvent> take() { return std::exchange(events, {}); }
};

/// Writes down what is posted, and keeps the promise of the interface to lift whatever is still pressed at
/// the end.
class FakeEventPoster final : public EventPoster {
public:
    explicit FakeEventPoster(std::shared_ptr<PostedLog> log) : log_(std::move(log)) {}
    ~FakeEventPoster() override {
        for (const int button : buttons_) add({.kind = PostedEvent::Kind::mouseUp, .button = button});
        for (const std::uint16_t key : keys_) add({.kind = PostedEvent::Kind::keyUp, .keyCode = key});
    }
    void post(const PostedEvent& event) override {
        switch (event.kind) {
            case PostedEvent::Kind::keyDown:
                keys_.insert(event.keyCode);
                break;
            case PostedEvent::Kind::keyUp:
                keys_.erase(event.keyCode);
                break;
            case PostedEvent::Kind::mouseDown:
                buttons_.insert(event.button);
                break;
            case PostedEvent::Kind::mouseUp:
                buttons_.erase(event.button);
                break;
            case PostedEvent::Kind::mouseMove:
            case PostedEvent::Kind::mouseDrag:
            case PostedEvent::Kind::scroll:
            case PostedEvent::Kind::text:
                break;
        }
        add(event);
    }

private:
    void add(const PostedEvent& event) { log_->events.push_back(event); }

    const std::shared_ptr<PostedLog> log_;
    std::set<int> buttons_;
    std::set<std::uint16_t> keys_;
};

class FakeEventPosterFactory final : public EventPosterFactory {
public:
    std::unique_ptr<EventPoster> make(const Options& options) override {
        lastOptions = options;
        if (refuses) return nullptr;
        return std::make_unique<FakeEventPoster>(log);
    }
    const std::shared_ptr<PostedLog> log = std::make_shared<PostedLog>();
    Options lastOptions;
    bool refuses = false;
};

}  // namespace velmora
