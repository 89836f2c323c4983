#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <unordered_map>

#include "Host/InputReceiver.h"
#include "Host/KeyboardLayoutMap.h"
#include "Host/LauncherKeys.h"
#include "Platform/EventPoster.h"
#include "VelmoraKit/Wire/InputRecords.h"

namespace velmora {

/// Turns what a viewer does into events of this machine. Owned by a session; lives on the input queue.
///
/// An agent names keys ("shift+1") where a person's viewer sends what its own shift has made of them ("!"):
/// with `Options::agent` the shift of a typed key therefore stands as it is. Its Command+Space opens the
/// launcher, where there is one.
class InputInjector final : public InputReceiver {
public:
    using Options = InputReceiverOptions;
    /// The references, and the launcher, outlive us.
    InputInjector(std::unique_ptr<EventPoster> poster, KeyboardLayout& layout, Displays& displays,
                  const Queue& input, Options options, Launcher* launcher = nullptr);

    /// The main display until this is called. Call it again after the display changed its size, and that
    /// shows at once instead of within 200 ms.
    void setDisplay(DisplayId display) override;
    void handle(const InputEvent& event) override;
    /// Lifts the mouse buttons where the pointer was last. Keys still held are lifted when the injector goes.
    void releaseAll() override;

private:
    struct Point {
        double x = 0, y = 0;
    };
    using Button = int;  // as the viewer numbers them, cut to 0...31

    void handleMove(const InputEvent& event);
    void handleButton(const InputEvent& event);
    void handleScroll(const InputEvent& event);
    void handleKeyDown(const InputEvent& event);
    void handleKeyUp(const InputEvent& event);
    void pressMapped(const InputEvent& event, const KeyboardLayoutMap::Key& key);

    std::optional<Point> globalPoint(const InputEvent& event);
    std::optional<PixelRect> displayBounds();
    void postButton(PostedEvent::Kind kind, Button button, int clickCount, std::uint64_t flags);

    const std::unique_ptr<EventPoster> poster_;
    Displays& displays_;
    const Queue& input_;
    const Options options_;
    KeyboardLayoutMap layout_;
    std::optional<LauncherKeys> launcher_;  // of an agent

    DisplayId displayId_ = 0;          // 0: the main display
    std::optional<PixelRect> bounds_;  // of displayId_, as of boundsReadAt_
    std::optional<HostClock::time_point> boundsReadAt_;

    std::set<Button> buttonsDown_;
    Point lastPoint_;
    std::unordered_map<std::uint16_t, std::uint16_t> mappedDown_;  // viewer's key code to the host's
};

}  // namespace velmora
