#pragma once

#include <memory>

#include "App/StatusItem.h"
#include "Platform/TrayPresence.h"

class QSystemTrayIcon;

namespace velmora {

/// The program's sign in the desktop's tray, through Qt: on a tray that watches for items (StatusNotifier) or
/// on one that takes their windows in (XEmbed). It has no menu, so that left and right click do the same.
/// Lives on the main thread; takes the callback of the presence.
class TrayStatusItem final : public StatusItem {
public:
    explicit TrayStatusItem(TrayPresence& presence);  // outlives us
    ~TrayStatusItem() override;

    bool isAvailable() const override;
    /// Only an XEmbed tray tells.
    std::optional<QRect> place() const override;
    void setHighlighted(bool highlighted) override;

private:
    void follow();

    TrayPresence& presence_;
    std::unique_ptr<QSystemTrayIcon> icon_;
};

}  // namespace velmora
