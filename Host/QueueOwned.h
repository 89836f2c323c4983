#pragma once

#include <memory>
#include <utility>

#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// A way to reach an object that lives on another queue: blocks run there, and are dropped once the object is
/// gone. Copies are free; any thread may hold and use one.
template <class T>
class QueueRef {
public:
    QueueRef() = default;
    QueueRef(Queue& queue, std::weak_ptr<T> object) : queue_(&queue), object_(std::move(object)) {}

    /// Runs `work(object)` on the object's queue.
    template <class F>
    void perform(F work) const {
        if (!queue_) return;
        queue_->post([object = object_, work = std::move(work)]() mutable {
            if (const auto held = object.lock()) work(*held);
        });
    }
    Queue& queue() const { return *queue_; }

private:
    Queue* queue_ = nullptr;
    std::weak_ptr<T> object_;
};

/// Owns an object that is used on `queue` only, from wherever the owner lives. It is destroyed there, after
/// everything that was asked of it before; the owner does not wait. `queue` outlives it.
template <class T>
class QueueOwned {
public:
    QueueOwned() = default;
    QueueOwned(Queue& queue, std::shared_ptr<T> object) : queue_(&queue), object_(std::move(object)) {}
    QueueOwned(QueueOwned&& other) noexcept = default;
    QueueOwned& operator=(QueueOwned&& other) noexcept {
        if (this == &other) return *this;
        reset();
        queue_ = other.queue_;
        object_ = std::move(other.object_);
        return *this;
    }
    ~QueueOwned() { reset(); }

    void reset() {
        if (object_) queue_->post([object = std::move(object_)]() mutable { object.reset(); });
        object_.reset();
    }
    explicit operator bool() const { return object_ != nullptr; }
    QueueRef<T> ref() const { return object_ ? QueueRef<T>(*queue_, object_) : QueueRef<T>(); }
    template <class F>
    void perform(F work) const {
        ref().perform(std::move(work));
    }

private:
    Queue* queue_ = nullptr;
    std::shared_ptr<T> object_;
};

}  // namespace velmora
