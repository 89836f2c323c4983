#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include "Platform/Displays.h"
#include "Platform/Linux/Display/XConnection.h"
#include "Platform/Linux/Display/XEventWaiter.h"

namespace velmora {

/// The X server's monitors: what RandR lists as active, which covers CRTCs as well as monitors that were cut
/// out of the screen by hand. A display's id is the atom of its monitor's name, so that it stays the same
/// when the display goes and comes back, for as long as the server runs. Main is the primary monitor, else
/// the one at the origin, else the first.
class X11Displays final : public Displays {
public:
    /// `display` such as ":0"; empty means what DISPLAY says.
    explicit X11Displays(std::string display = {});
    ~X11Displays() override;

    Result<std::vector<Display>> list() override;
    void observe(Queue* queue, std::function<void()> onChange) override;

    /// The same list over a connection that is already there.
    static Result<std::vector<Display>> read(const XConnection& connection);
    /// Asks the server for an event whenever `read` may give something else; false without RandR.
    static bool selectChanges(const XConnection& connection);
    /// Whether `event` is one of those.
    static bool isChange(const XConnection& connection, const xcb_generic_event_t& event);

private:
    struct Observer {
        std::function<void()> onChange;
        std::atomic<bool> told = false;  // posted and not yet run: one block stands for many events
    };
    void watch(const XConnection& connection, Queue& queue, const std::shared_ptr<Observer>& observer);
    void stopWatching();

    const std::string display_;
    std::mutex mutex_;  // guards the connection behind list(); never held while calling out
    std::unique_ptr<XConnection> connection_;

    std::mutex watchMutex_;  // serialises observe()
    std::shared_ptr<Observer> observer_;
    std::atomic<bool> ending_ = false;
    XEventWaiter waiter_;
    std::thread watcher_;
};

/// The displays of the session this process runs in.
std::unique_ptr<Displays> makeDisplays();

}  // namespace velmora
