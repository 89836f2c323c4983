#include "Platform/Linux/Tray/LinuxTrayPresence.h"

#include <fmt/format.h>
#include <xcb/xcb.h>
#include <xcb/xfixes.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QSocketNotifier>
#include <optional>
#include <utility>

#include "Platform/Linux/Display/XConnection.h"
#include "Platform/Linux/System/SessionBus.h"

namespace velmora {

/// A connection of its own, so that nobody else's use of the bus matters to it.
class LinuxTrayPresence::Bus {
public:
    explicit Bus(std::function<void()> onChange)
        : name_(QStringLiteral("velmora.tray.%1").arg(reinterpret_cast<quintptr>(this))),
          onChange_(std::move(onChange)) {
        if (!hasSessionBus()) return;
        QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, name_);
        if (!bus.isConnected()) return;
        watcher_.setConnection(bus);
        watcher_.setWatchMode(QDBusServiceWatcher::WatchForOwnerChange);
        watcher_.addWatchedService(service_);
        QObject::connect(
            &watcher_, &QDBusServiceWatcher::serviceOwnerChanged, &watcher_,
            [this](const QString&, const QString&, const QString& owner) { setThere(!owner.isEmpty()); });
        auto question = QDBusMessage::createMethodCall(
            QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
            QStringLiteral("org.freedesktop.DBus"), QStringLiteral("NameHasOwner"));
        question << service_;
        auto* answer = new QDBusPendingCallWatcher(bus.asyncCall(question), &watcher_);
        QObject::connect(answer, &QDBusPendingCallWatcher::finished, &watcher_,
                         [this](QDBusPendingCallWatcher* call) {
                             const QDBusPendingReply<bool> reply = *call;
                             call->deleteLater();
                             // A change that came while we waited is the newer news.
                             if (!there_ && !reply.isError()) setThere(reply.value());
                         });
    }
    ~Bus() { QDBusConnection::disconnectFromBus(name_); }
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    bool hasTray() const { return there_.value_or(false); }

private:
    void setThere(bool there) {
        there_ = there;
        onChange_();
    }

    const QString service_ = QStringLiteral("org.kde.StatusNotifierWatcher");
    const QString name_;
    const std::function<void()> onChange_;
    std::optional<bool> there_;
    QDBusServiceWatcher watcher_;
};

class LinuxTrayPresence::XServer {
public:
    explicit XServer(std::function<void()> onChange) : onChange_(std::move(onChange)) {
        auto opened = XConnection::open();
        if (!opened || !(*opened)->extension(xcb_xfixes_id)) return;
        x_ = std::move(*opened);
        const std::string name = fmt::format("_NET_SYSTEM_TRAY_S{}", screenNumber());
        const auto atom =
            x_->reply(xcb_intern_atom_reply,
                      xcb_intern_atom(*x_, 0, static_cast<std::uint16_t>(name.size()), name.c_str()));
        const auto version =
            x_->reply(xcb_xfixes_query_version_reply,
                      xcb_xfixes_query_version(*x_, XCB_XFIXES_MAJOR_VERSION, XCB_XFIXES_MINOR_VERSION));
        if (!atom || !version) return;
        xcb_xfixes_select_selection_input(*x_, x_->root(), atom->atom,
                                          XCB_XFIXES_SELECTION_EVENT_MASK_SET_SELECTION_OWNER |
                                              XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_WINDOW_DESTROY |
                                              XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_CLIENT_CLOSE);
        const auto owner = x_->reply(xcb_get_selection_owner_reply, xcb_get_selection_owner(*x_, atom->atom));
        hasTray_ = owner && owner->owner != XCB_NONE;
        firstEvent_ = x_->extension(xcb_xfixes_id)->first_event;
        wake_.emplace(xcb_get_file_descriptor(*x_), QSocketNotifier::Read);
        QObject::connect(&*wake_, &QSocketNotifier::activated, &*wake_, [this] { readEvents(); });
        readEvents();  // what came along with the answers wakes nobody
    }

    bool hasTray() const { return hasTray_; }

private:
    int screenNumber() const {
        int number = 0;
        for (auto at = xcb_setup_roots_iterator(&x_->setup()); at.rem > 0; xcb_screen_next(&at), ++number) {
            if (at.data->root == x_->root()) return number;
        }
        return 0;
    }
    void readEvents() {
        const bool before = hasTray_;
        while (const auto event = x_->pollEvent()) {
            if ((event->response_type & 0x7F) != firstEvent_ + XCB_XFIXES_SELECTION_NOTIFY) continue;
            const auto& notify = reinterpret_cast<const xcb_xfixes_selection_notify_event_t&>(*event);
            hasTray_ =
                notify.subtype == XCB_XFIXES_SELECTION_EVENT_SET_SELECTION_OWNER && notify.owner != XCB_NONE;
        }
        if (x_->isBroken()) {
            wake_->setEnabled(false);
            hasTray_ = false;
        }
        if (hasTray_ != before) onChange_();
    }

    const std::function<void()> onChange_;
    std::unique_ptr<XConnection> x_;
    std::optional<QSocketNotifier> wake_;
    std::uint8_t firstEvent_ = 0;
    bool hasTray_ = false;
};

LinuxTrayPresence::LinuxTrayPresence(Windows windows) {
    bus_ = std::make_unique<Bus>([this] { look(); });
    if (windows == Windows::x11) xServer_ = std::make_unique<XServer>([this] { look(); });
    isThere_ = xServer_ && xServer_->hasTray();
}

LinuxTrayPresence::~LinuxTrayPresence() = default;

void LinuxTrayPresence::look() {
    const bool there = bus_->hasTray() || (xServer_ && xServer_->hasTray());
    if (std::exchange(isThere_, there) == there) return;
    if (const auto tell = onChange) tell();
}

}  // namespace velmora
