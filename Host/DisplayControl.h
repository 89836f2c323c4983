#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Host/InputReceiver.h"
#include "Host/QueueOwned.h"
#include "Host/SessionLog.h"
#include "Host/VideoPipeline.h"
#include "Host/VirtualDisplay.h"
#include "Platform/Displays.h"
#include "Shared/ServerSettings.h"
#include "VelmoraKit/Wire/DisplayRecords.h"

namespace velmora {

/// Decides which display a session shows, and changes it while it runs: at its start, when the viewer selects
/// another one, and when it resizes its window while a virtual display follows that. Owned by StreamSession;
/// lives on the display queue, since asking the window system may block.
///
/// One operation at a time: each consists of steps on this queue and on the capture queue, with waits between
/// them, and ends with `finish`; what is asked meanwhile waits its turn. Of resizes only the newest waits,
/// and of selections not more than a few. Each failure keeps the session alive where a picture can be had;
/// only a lost capture ends it.
class DisplayControl : public std::enable_shared_from_this<DisplayControl> {
public:
    struct Parameters {
        int findRounds = 30;  // a display may take seconds to appear
        std::chrono::milliseconds findInterval{100};
        std::size_t mostWaiting = 16;  // operations; a selection beyond takes the place of the one before it
        DisplayRequest defaultWindow{.width = 1600, .height = 1000, .scale = 2};
    };
    /// `virtualDisplays` may be none: then there are no virtual displays.
    struct Services {
        Queue& display;
        Displays& displays;
        VirtualDisplayFactory* virtualDisplays = nullptr;
        QueueRef<InputSeat> input;
        std::shared_ptr<MessageConnection> connection;
    };

    /// Takes the pipeline over: what it shows is decided here, and it has to outlast the virtual display.
    DisplayControl(Services services, QueueOwned<VideoPipeline> video, const ServerSettings& settings);
    DisplayControl(Services services, QueueOwned<VideoPipeline> video, const ServerSettings& settings,
                   Parameters parameters);

    struct Beginning {
        std::optional<DisplayRequest>
            window;  // what the virtual display should fit; none: the host's own one
        bool audio = false;
    };
    /// Chooses the display and starts encoder and capture. `done` runs on this queue unless `stop` comes
    /// first.
    void start(const Beginning& beginning, std::function<void(Status)> done);
    void resize(const DisplayRequest& request);
    void select(const DisplaySelection& selection);
    /// Ends capture and encoder, then the virtual display, so that a capture never loses its display. Nothing
    /// is done or told afterwards.
    void stop();

    /// Pixels of the stream for a display of this size: even, and no side longer than the limit.
    static PixelSize streamSize(PixelSize pixels);

private:
    using Operation = std::function<void()>;
    using Found = std::function<void(const Result<Display>&)>;

    // Operations, one after the other.
    void enqueue(Operation operation);
    void runNext();
    void finish();
    /// `step(arguments...)` on this queue, unless the session has stopped by then. For use as a completion
    /// on any queue.
    template <class F>
    auto resumeWith(F step);

    enum class FirstRound { onlyThisDisplay, anyDisplay };
    struct Search {
        DisplayId id = 0;
        FirstRound firstRound = FirstRound::onlyThisDisplay;
        bool listFailureEnds = false;  // else the list is asked again like any other
    };
    /// Looks for a display now and then again, for some seconds.
    void find(const Search& search, Found found, int round = 1);

    void chooseDisplay(const Beginning& beginning);
    void beginVirtual(const DisplayRequest& window);
    void beginWithMain();
    void beginWith(const Display& display);
    void beginCapture(const Display& display, PixelSize size);
    void startFailed(const Failure& failure);

    void processResizes();
    void serveResizes();
    void applyResize(const DisplayRequest& request, Operation then);
    /// Another display or size for the running capture, and an encoder for it. If the capture cannot change,
    /// everything goes on as it was; without a new encoder the old one does, and other sizes are skipped.
    void changeStream(DisplayId display, PixelSize size, std::function<void(Status)> then);

    void applySelection(const DisplaySelection& selection);
    void selectPhysical(DisplayId id);
    void switchTo(const Display& display, const std::string& name);
    /// The end of a selection that changes nothing.
    void refuse(const std::string& line);
    void selectVirtual(const DisplaySelection& selection);
    void makeVirtual(const DisplayRequest& window);
    void fallBackFromVirtual();
    void restartCapture(const Display& display, bool isDynamic, const std::string& label);
    void captureLost(const std::string& line);

    void showDisplay(DisplayId id, bool isDynamic);
    void sendDisplayList();
    std::vector<ServerDisplay> physicalDisplays();
    HostClock::time_point now() const { return services_.display.now(); }
    double millisecondsSince(HostClock::time_point start) const;

    const Services services_;
    const ServerSettings settings_;
    const Parameters parameters_;
    const SessionLog log_;
    QueueOwned<VideoPipeline> video_;
    std::function<void(Status)> onStarted_;  // until it has been told
    bool sendsAudio_ = false;

    std::deque<Operation> operations_;
    std::shared_ptr<DisplaySelection> lastSelection_;  // the newest that was enqueued
    bool isBusy_ = false;
    TimerToken wait_;  // between two rounds of a search

    bool hasStream_ = false;
    bool stopped_ = false;
    DisplayId currentDisplay_ = 0;
    bool isDynamic_ = false;
    PixelSize streamSize_;  // the encoder's
    bool virtualUnavailable_;
    std::unique_ptr<VirtualDisplay> virtualDisplay_;
    std::optional<DisplayRequest> pendingResize_;
    bool resizeIsQueued_ = false;
};

}  // namespace velmora
