#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Testing/ScratchFolder.h"
#include "VelmoraKit/Core/HostClock.h"
#include "Viewer/Session/ViewerConnection.h"

namespace velmora {

/// A viewer without a window, in this process, that notes what it decodes and when.
class BenchViewer {
public:
    struct Seen {
        HostClock::time_point at;
        int number = 0;  // of the screen's change
    };

    BenchViewer();
    ~BenchViewer();

    /// Connects to a port of the loopback; the time from here to the first decoded picture, or none within
    /// ten seconds.
    std::optional<std::chrono::duration<double>> connect(std::uint16_t port, const std::string& password);
    void close();

    /// The pictures that showed a change, since the last call.
    std::vector<Seen> take();
    std::uint64_t framesDecoded() const;
    /// Since the viewer began, as of the last full second.
    struct Repairs {
        int requests = 0;   // for packets to be sent again
        int keyframes = 0;  // the first one too
    };
    Repairs repairs() const;
    /// What the host copied has arrived this often.
    int clipboards() const;

private:
    struct Services;
    struct Shared;
    const ScratchFolder folder_;  // each host has a certificate of its own: nothing is remembered
    const std::unique_ptr<Services> services_;
    const std::shared_ptr<Shared> shared_;
    std::unique_ptr<ViewerConnection> connection_;  // on the main queue
};

}  // namespace velmora
