#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Agent/ShotGeometry.h"
#include "Platform/Picture.h"
#include "VelmoraKit/Core/HostClock.h"
#include "VelmoraKit/Core/Result.h"
#include "VelmoraKit/Core/UniqueFunction.h"
#include "VelmoraKit/Wire/ClipboardContent.h"
#include "VelmoraKit/Wire/DisplayRecords.h"
#include "VelmoraKit/Wire/InputRecords.h"

namespace velmora {

/// A screenshot as it is sent to the agent.
struct Shot {
    Bytes jpeg;
    PixelSize size;
};

/// The remote Mac that an agent's tools look at and act on. Lives on the main queue, where its continuations
/// run too, at once or later; those still waiting when it is destroyed are dropped.
class RemoteMac {
public:
    virtual ~RemoteMac() = default;

    /// One line for each Mac that is known.
    virtual std::vector<std::string> deviceLines() const = 0;
    /// The Host ID behind a name, in any case, if that Mac is known by one.
    virtual std::optional<std::string> hostIDOf(const std::string& name) const = 0;
    virtual std::string statusText() const = 0;
    /// The Mac that is selected, by name, Host ID or address.
    virtual const std::optional<std::string>& deviceName() const = 0;

    /// Who is meant from now on. A connection to anybody else ends, and so does any if a password is given:
    /// with a Host ID both are saved when a connection is next made.
    struct Selection {
        std::string name;
        std::optional<std::string> hostID, password;
        bool operator==(const Selection&) const = default;
    };
    virtual void select(const Selection& selection) = 0;
    /// Connects unless there is a picture already; a failure has words for the agent.
    virtual void ensureStreaming(HostClock::duration limit, UniqueFunction<void(const Status&)> done) = 0;
    virtual bool hasConnection() const = 0;
    virtual void disconnect() = 0;

    /// The size of a full screenshot, (0, 0) without a stream.
    virtual PixelSize shotSize() const = 0;
    /// None without a picture, or if nothing of the region is on it.
    virtual void takeShot(const std::optional<ShotGeometry::Region>& region,
                          UniqueFunction<void(std::optional<Shot>)> done) = 0;
    /// Tells whether the screen changed: once it has and has then rested for `settle`, or after `limit`.
    struct Rest {
        HostClock::duration limit, settle;
    };
    virtual void waitForChange(const Rest& rest, UniqueFunction<void(bool)> done) = 0;

    // While streaming; else nothing is sent, without a word.
    virtual void send(const std::vector<InputEvent>& events) = 0;
    virtual void setRemoteClipboard(const std::string& text) = 0;
    /// None: the virtual display.
    virtual void selectDisplay(std::optional<std::uint32_t> id) = 0;

    /// What the host has told last.
    virtual const std::optional<ClipboardContent>& remoteClipboard() const = 0;
    virtual const std::optional<DisplayList>& displayList() const = 0;
};

}  // namespace velmora
