#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>

#include "Platform/CursorSource.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// Tells the shape of this machine's pointer when it changes, and only then: the pictures carry no cursor, so
/// that a viewer can draw it at its own pointer without a delay. Owned by StreamSession; on the main queue.
class CursorWatcher {
public:
    /// What sizes and hot spots are multiplied by.
    using Scale = std::function<double()>;
    using Changed = std::function<void(const CursorShape&)>;

    /// By then the stream is described: a viewer has no use for a cursor over a picture of unknown size.
    static constexpr std::chrono::milliseconds firstLook{50};

    /// Both outlive us.
    CursorWatcher(CursorSource& source, Queue& main) : source_(source), main_(main) {}

    /// Tells the present shape first, after `firstLook`. Ends an earlier run.
    void start(Scale scale, Changed onChange);
    /// Nothing is told after it; a later start tells the shape again.
    void stop();

private:
    void handle(CursorShape shape);

    CursorSource& source_;
    Queue& main_;
    Scale scale_;
    Changed onChange_;
    std::optional<std::size_t> lastHash_;  // of the shape told last
    TimerToken beginning_;
    std::unique_ptr<CursorSource::Watch> watch_;
};

}  // namespace velmora
