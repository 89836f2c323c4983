#pragma once

#include <QMenuBar>
#include <functional>

class QAction;
class QMenu;

namespace velmora {

class ViewerSession;

/// The menus of one viewer window: what can be done with its host, with the window, and with the program. A
/// child of the window, put there with `ViewerWindow::setMenuBar` before the session starts; on the main
/// queue.
///
/// Its keys are the host's first. While keys go to the host (the pointer is over the picture, or the settings
/// say always), Ctrl+W and all the others travel and do nothing here. They act here while keys stay here, and
/// after Ctrl+Alt+Shift+Escape until the picture is clicked or the pointer comes back to it; meanwhile the
/// keys that are in no menu still travel.
class MainMenu final : public QMenuBar {
public:
    /// What belongs to the program rather than to the window. An item whose function is not set is not there.
    struct Application {
        std::function<void()> about, openSettings, quit, showDebugLog;
    };
    /// The session outlives us; its `onStateChanged` becomes ours.
    MainMenu(ViewerSession& session, Application application);

    /// Brings titles, ticks and what can be chosen up to date; also done when a menu opens.
    void validate();

private:
    QMenu* add(const char* title);
    QAction* addItem(QMenu& menu, const char* title, std::function<void()> act);
    void addApplicationMenu(const Application& application);
    void addViewMenu(const Application& application);
    void addRemoteMenu();
    void addWindowMenu();
    void fillDisplays();
    void fillWindows();

    ViewerSession& session_;
    QAction *toolbar_ = nullptr, *zoomOut_ = nullptr, *actualSize_ = nullptr, *stats_ = nullptr;
    QAction *screenshot_ = nullptr, *fullScreen_ = nullptr;
    QMenu *displays_ = nullptr, *windows_ = nullptr;
    qsizetype ownWindowItems_ = 0;  // before the list of windows
};

}  // namespace velmora
