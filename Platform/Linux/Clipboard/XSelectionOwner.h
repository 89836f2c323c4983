#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "Platform/Linux/Clipboard/XAtoms.h"
#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

/// Owns a selection and answers who asks for it: single targets, several at once (MULTIPLE), and large
/// contents in pieces (INCR). Lives on the thread of its connection, which passes the events.
class XSelectionOwner {
public:
    struct Parameters {
        std::size_t piece = 128 * 1024;  // what is longer goes in pieces; within any server's longest request
        std::size_t mostTransfers = 64;  // in pieces, at once
        HostClock::duration silence = std::chrono::seconds(10);
    };
    struct Item {
        xcb_atom_t target = XCB_ATOM_NONE;
        SharedBytes data;
        /// If set, `data` becomes what is offered only when somebody asks; none: it cannot.
        std::function<std::optional<Bytes>(ByteView)> convert{};
    };

    XSelectionOwner(const XConnection& connection, XAtoms& atoms, xcb_atom_t selection,
                    Parameters parameters);
    ~XSelectionOwner();
    XSelectionOwner(const XSelectionOwner&) = delete;
    XSelectionOwner& operator=(const XSelectionOwner&) = delete;

    xcb_window_t window() const { return window_; }
    /// Takes the selection; it is ours on return unless somebody has taken it at once.
    void offer(std::vector<Item> items);
    /// What is offered while the selection is ours.
    const std::vector<Item>* items() const { return current_ ? &current_->items : nullptr; }

    /// The server's word, in the order of its events, that the last offer took the selection then.
    void handleTaken(xcb_timestamp_t time);

    /// Asks the owner of that other selection to save what is offered (the freedesktop clipboard manager's
    /// protocol); it answers with a SelectionNotify. False if there is none.
    bool askToSave(xcb_atom_t manager);

    void handle(const xcb_selection_request_event_t& event, HostClock::time_point now);
    void handle(const xcb_selection_clear_event_t& event);
    void handle(const xcb_property_notify_event_t& event, HostClock::time_point now);
    void handle(const xcb_destroy_notify_event_t& event);
    void giveUpSilent(HostClock::time_point now);
    std::optional<HostClock::time_point> nextDeadline() const;

private:
    struct Offer {
        std::vector<Item> items;
        std::optional<xcb_timestamp_t> since;  // as soon as the server has told it
    };
    /// On its way into a property of somebody's window.
    struct Transfer {
        Item item;
        std::size_t sent = 0;
        HostClock::time_point silentUntil;
    };
    using Transfers = std::map<std::pair<xcb_window_t, xcb_atom_t>, Transfer>;

    bool answer(xcb_window_t requestor, xcb_atom_t target, xcb_atom_t property, HostClock::time_point now);
    bool answerMultiple(const xcb_selection_request_event_t& event, HostClock::time_point now);
    bool begin(xcb_window_t requestor, xcb_atom_t property, const Item& item, HostClock::time_point now);
    void end(Transfers::iterator transfer);
    void listenTo(xcb_window_t requestor, std::uint32_t events) const;
    template <class T>
    void put(xcb_window_t requestor, xcb_atom_t property, xcb_atom_t type,
             const std::vector<T>& values) const;

    const XConnection& connection_;
    const xcb_atom_t selection_, targets_, multiple_, timestamp_, atomPair_, incremental_, saveTargets_;
    const Parameters parameters_;
    const xcb_window_t window_;
    std::optional<Offer> current_;
    Transfers transfers_;
};

}  // namespace velmora
