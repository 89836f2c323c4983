#include "Viewer/Window/MainMenu.h"

#include <QAction>
#include <QApplication>
#include <QMenu>
#include <algorithm>
#include <utility>

#include "Viewer/Window/DisplayMenu.h"
#include "Viewer/Window/ViewerSession.h"

namespace velmora {

MainMenu::MainMenu(ViewerSession& session, Application application)
    : QMenuBar(&session.window()), session_(session) {
    setNativeMenuBar(false);  // a desktop's panel would take its keys from the host
    addApplicationMenu(application);
    addViewMenu(application);
    addRemoteMenu();
    addWindowMenu();
    session.onStateChanged = [this] { validate(); };
    validate();
}

QMenu* MainMenu::add(const char* title) {
    QMenu* const menu = addMenu(QString::fromUtf8(title));
    connect(menu, &QMenu::aboutToShow, this, [this] { validate(); });
    return menu;
}

QAction* MainMenu::addItem(QMenu& menu, const char* title, std::function<void()> act) {
    QAction* const item = menu.addAction(QString::fromUtf8(title));
    connect(item, &QAction::triggered, this, [act = std::move(act)] { act(); });
    session_.window().addAction(item);  // in full screen the menus are hidden, and their keys with them
    return item;
}

void MainMenu::addApplicationMenu(const Application& application) {
    if (!application.about && !application.openSettings && !application.quit) return;
    QMenu& menu = *add("Vel&mora");
    if (application.about) addItem(menu, "About Velmora", application.about);
    if (application.openSettings) {
        menu.addSeparator();
        addItem(menu, "Settings…", application.openSettings)->setShortcut(Qt::CTRL | Qt::Key_Comma);
    }
    if (application.quit) {
        menu.addSeparator();
        addItem(menu, "Quit Velmora", application.quit)->setShortcut(Qt::CTRL | Qt::Key_Q);
    }
}

void MainMenu::addViewMenu(const Application& application) {
    QMenu& menu = *add("&View");
    ViewerWindow& window = session_.window();
    toolbar_ = addItem(menu, "Hide Toolbar", [&window] { window.setToolbarShown(!window.isToolbarShown()); });
    toolbar_->setShortcut(Qt::CTRL | Qt::ALT | Qt::Key_T);
    menu.addSeparator();
    // Where "+" needs Shift, the same key without it does too.
    addItem(menu, "Zoom In", [this] {
        session_.zoomIn();
    })->setShortcuts({QKeySequence(Qt::CTRL | Qt::Key_Plus), QKeySequence(Qt::CTRL | Qt::Key_Equal)});
    zoomOut_ = addItem(menu, "Zoom Out", [this] { session_.zoomOut(); });
    zoomOut_->setShortcut(Qt::CTRL | Qt::Key_Minus);
    actualSize_ = addItem(menu, "Actual Size", [this] { session_.resetZoom(); });
    actualSize_->setShortcut(Qt::CTRL | Qt::Key_0);
    menu.addSeparator();
    stats_ = addItem(menu, "Show Stats", [this] { session_.toggleStats(); });
    if (application.showDebugLog) addItem(menu, "Show Debug Log", application.showDebugLog);
}

void MainMenu::addRemoteMenu() {
    QMenu& menu = *add("&Remote");
    displays_ = menu.addMenu(QStringLiteral("Display"));
    connect(displays_, &QMenu::aboutToShow, this, [this] { fillDisplays(); });
    menu.addSeparator();
    screenshot_ = addItem(menu, "Take Screenshot", [this] { session_.takeScreenshot(); });
    menu.addSeparator();
    addItem(menu, "Disconnect", [this] { session_.window().close(); });
}

void MainMenu::addWindowMenu() {
    windows_ = add("&Window");
    ViewerWindow& window = session_.window();
    addItem(*windows_, "Close", [&window] { window.close(); })->setShortcut(Qt::CTRL | Qt::Key_W);
    addItem(*windows_, "Minimize", [&window] { window.showMinimized(); })->setShortcut(Qt::CTRL | Qt::Key_M);
    fullScreen_ = addItem(*windows_, "Enter Full Screen", [&window] { window.toggleFullScreen(); });
    fullScreen_->setShortcuts({QKeySequence(Qt::CTRL | Qt::Key_F), QKeySequence(Qt::Key_F11)});
    ownWindowItems_ = windows_->actions().size();
    connect(windows_, &QMenu::aboutToShow, this, [this] { fillWindows(); });
}

void MainMenu::validate() {
    const ViewerWindow& window = session_.window();
    toolbar_->setText(window.isToolbarShown() ? QStringLiteral("Hide Toolbar")
                                              : QStringLiteral("Show Toolbar"));
    const bool isZoomed = session_.isZoomed();
    zoomOut_->setEnabled(isZoomed);
    actualSize_->setEnabled(isZoomed);
    stats_->setText(session_.showsStats() ? QStringLiteral("Hide Stats") : QStringLiteral("Show Stats"));
    screenshot_->setEnabled(session_.isStreaming());
    fullScreen_->setText(window.isFullScreen() ? QStringLiteral("Exit Full Screen")
                                               : QStringLiteral("Enter Full Screen"));
}

void MainMenu::fillDisplays() {
    if (const auto& list = session_.displays())
        return fillDisplayMenu(*displays_, *list, [this](auto id) { session_.selectDisplay(id); });
    displays_->clear();
    displays_->addAction(QStringLiteral("No displays yet"))->setEnabled(false);
}

/// The viewer windows that are open, where there is a choice.
void MainMenu::fillWindows() {
    const QList<QAction*> items = windows_->actions();
    for (qsizetype i = ownWindowItems_; i < items.size(); ++i) delete items[i];
    QList<ViewerWindow*> open;
    for (QWidget* const widget : QApplication::topLevelWidgets()) {
        auto* const window = dynamic_cast<ViewerWindow*>(widget);
        if (window && (window->isVisible() || window->isMinimized())) open.append(window);
    }
    if (open.size() < 2) return;
    std::ranges::sort(open, {}, [](const ViewerWindow* window) { return window->windowTitle(); });
    windows_->addSeparator();
    for (ViewerWindow* const window : open) {
        QAction* const item = windows_->addAction(menuEntry(*windows_, window->windowTitle()));
        const bool isThis = window == &session_.window();
        item->setCheckable(isThis);
        item->setChecked(isThis);
        connect(item, &QAction::triggered, window, [window] {
            window->setWindowState(window->windowState() & ~Qt::WindowMinimized);
            window->show();
            window->raise();
            window->activateWindow();
        });
    }
}

}  // namespace velmora
