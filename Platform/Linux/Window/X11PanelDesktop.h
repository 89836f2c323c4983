#pragma once

#include <memory>

#include "Platform/PanelDesktop.h"

namespace velmora {

/// Through the X server, on a connection of its own. Made and used on the main thread of a QGuiApplication on
/// X11. Without the XInput extension it tells of no presses.
class X11PanelDesktop final : public PanelDesktop {
public:
    X11PanelDesktop();
    ~X11PanelDesktop() override;

    bool managesWindows() const override;
    void keepOutOfTaskBar(WindowId window) override;
    void startWatching() override;
    void stopWatching() override;

private:
    class Server;
    const std::unique_ptr<Server> server_;
};

}  // namespace velmora
