#pragma once

#include <map>
#include <optional>

#include "Platform/Linux/Clipboard/XAtoms.h"
#include "Platform/Pasteboard.h"
#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

/// Asks the owner of a selection for what it holds, any number of requests at once. Large contents come in
/// pieces (INCR), and an owner that falls silent is given up. Lives on the thread of its connection, which
/// passes the events.
class XSelectionReader {
public:
    struct Parameters {
        // A program on a busy machine answers within some tens of milliseconds; one that was stopped never.
        HostClock::duration silence = std::chrono::seconds(2);
        HostClock::duration whole = std::chrono::seconds(20);
    };
    XSelectionReader(const XConnection& connection, XAtoms& atoms, xcb_atom_t selection,
                     Parameters parameters);
    ~XSelectionReader();
    XSelectionReader(const XSelectionReader&) = delete;
    XSelectionReader& operator=(const XSelectionReader&) = delete;

    /// `done` is called from one of the functions below, and may read again.
    void read(xcb_atom_t target, std::size_t most, HostClock::time_point now, Pasteboard::Reading done);

    void handle(const xcb_selection_notify_event_t& event, HostClock::time_point now);
    void handle(const xcb_property_notify_event_t& event, HostClock::time_point now);
    /// The owner is gone: nothing more will come.
    void giveUpAll();
    void giveUpSilent(HostClock::time_point now);
    std::optional<HostClock::time_point> nextDeadline() const;

private:
    struct Request {
        std::size_t most = 0;
        Pasteboard::Reading done;
        HostClock::time_point silentUntil, until;
        bool comesInPieces = false;
        Bytes data;
    };
    /// A window of its own for each: what comes too late then belongs to nobody.
    using Requests = std::map<xcb_window_t, Request>;

    void finish(Requests::iterator request, Result<Bytes, Pasteboard::Lack> outcome);
    XReply<xcb_get_property_reply_t> takeProperty(xcb_window_t window, std::size_t most) const;

    const XConnection& connection_;
    const xcb_atom_t selection_, property_, incremental_;
    const Parameters parameters_;
    Requests requests_;
};

}  // namespace velmora
