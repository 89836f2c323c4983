#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "Platform/TextFocusSource.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// Tells whether the element with the keyboard focus takes text: once after the start, whatever is known by
/// then, and after each change. Owned by StreamSession; on the main queue.
class TextFocusWatcher {
public:
    struct Parameters {
        std::chrono::milliseconds firstReport{500};  // what is not known by then counts as no
        // Between two windows the focus is nowhere for a moment, which is no news.
        std::chrono::milliseconds rest{100};
    };
    using Changed = std::function<void(bool takesText)>;

    /// Both outlive us.
    TextFocusWatcher(TextFocusSource& source, Queue& main);
    TextFocusWatcher(TextFocusSource& source, Queue& main, Parameters parameters);

    /// Ends an earlier run.
    void start(Changed onChange);
    /// Nothing is told after it; a later start tells again.
    void stop();

    static bool takesText(const std::optional<FocusedElement>& focused);

private:
    void handle(const std::optional<FocusedElement>& focused);
    void report();

    TextFocusSource& source_;
    Queue& main_;
    const Parameters parameters_;
    Changed onChange_;
    bool current_ = false;
    std::optional<bool> last_;  // told last
    TimerToken timer_;          // until the first report, and while a change rests
    std::unique_ptr<TextFocusSource::Watch> watch_;
};

}  // namespace velmora
