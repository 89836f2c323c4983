#pragma once

#include <memory>

#include "Platform/TrayPresence.h"

namespace velmora {

/// Looks for both kinds of tray: one that watches for items on the session bus
/// (org.kde.StatusNotifierWatcher), and one that takes windows of an X server in (the owner of
/// _NET_SYSTEM_TRAY). Made and used on the main thread of a Qt application. Without a bus or an X server it
/// knows of no tray of that kind; one that is lost does not come back.
class LinuxTrayPresence final : public TrayPresence {
public:
    enum class Windows { x11, wayland };  // a Wayland window cannot be taken in by a tray of an X server
    explicit LinuxTrayPresence(Windows windows);
    ~LinuxTrayPresence() override;

    bool isThere() const override { return isThere_; }

private:
    class Bus;
    class XServer;
    void look();

    bool isThere_ = false;
    std::unique_ptr<Bus> bus_;
    std::unique_ptr<XServer> xServer_;
};

}  // namespace velmora
