#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Picture.h"
#include "Testing/ScratchFolder.h"

namespace velmora {

/// A Wayland desktop for tests: one screen, one seat, a clipboard, and no window but the newest of its
/// clients', whose pixels can be looked at. It does by itself what programs need to be shown; what a person
/// does is up to the test. Lives on a thread of its own; each call returns when it has been done there.
class WaylandCompositor {
public:
    struct Options {
        PixelSize window{800, 600};  // what a new window is told to be
        bool lendsShortcuts = true;  // whether there is such a protocol
    };
    WaylandCompositor() : WaylandCompositor(Options{}) {}
    explicit WaylandCompositor(const Options& options);
    ~WaylandCompositor();
    WaylandCompositor(const WaylandCompositor&) = delete;
    WaylandCompositor& operator=(const WaylandCompositor&) = delete;

    /// What WAYLAND_DISPLAY is set to; empty if it did not start.
    const std::string& socket() const { return socket_; }

    /// 0xRRGGBB of the window; none outside of it or where there is no window yet.
    std::optional<std::uint32_t> pixelAt(int x, int y);

    /// The window gets the keys, and with them the clipboard; or nobody does.
    void focus();
    void unfocus();
    /// By its code in Linux's input-event-codes.h.
    void key(std::uint32_t code, bool down);
    void movePointerTo(int x, int y);
    void takePointerAway();

    /// Requests to leave the desktop's shortcuts to the window that stand now.
    int shortcutRequests();
    /// The person lets the window have them, as at first, or takes them back.
    void lendShortcuts(bool lent);

    /// Another program's copy: forms by their types; and that it gives no more of it to whoever asks.
    void copy(std::map<std::string, std::string> forms);
    void fallSilent();
    /// What the other program pastes of the client's; none if it is not offered.
    std::optional<std::string> paste(const std::string& type);

private:
    class Desktop;
    template <class F>
    auto ask(F question);

    ScratchFolder folder_;
    std::unique_ptr<Desktop> desktop_;
    std::string socket_;
};

}  // namespace velmora
