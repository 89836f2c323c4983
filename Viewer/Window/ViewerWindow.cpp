#include "Viewer/Window/ViewerWindow.h"

#include <QCloseEvent>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QMenu>
#include <QMenuBar>
#include <QMouseEvent>
#include <QScreen>
#include <QWindow>
#include <algorithm>
#include <chrono>
#include <utility>

#include "Viewer/Window/Appearance.h"

namespace velmora {

namespace {

using namespace std::chrono_literals;

constexpr auto revealDelay = 250ms;  // the host's own menu may be at the top too
constexpr int statsMargin = 10;
constexpr QSizeF usualFrame{16, 40};  // while the window manager has not put its own around the window

}  // namespace

ViewerWindow::ViewerWindow(std::unique_ptr<PicturePainter> painter, const PreferenceStore& preferences,
                           Queue& main, Rendering rendering)
    : view_(new VideoView(std::move(painter), preferences, this, rendering)),
      toolbar_(new ViewerToolbar(this)),
      connecting_(new ConnectingOverlay(view_)),
      stats_(new StatsOverlayView(view_)),
      toast_(new CaptureToast(main, view_)) {
    limitSize();
    stats_->hide();
    view_->installEventFilter(this);
    toolbar_->installEventFilter(this);
    menus_.append(&toolbar_->displayMenu());
    menus_.first()->installEventFilter(this);
    reveal_.setSingleShot(true);
    reveal_.setInterval(revealDelay);
    connect(&reveal_, &QTimer::timeout, this, [this] { setBarsRevealed(true); });
    view_->setFocus();
}

void ViewerWindow::setContentSize(QSize size) {
    resize(size.width(), size.height() + barsHeight());
    asked_ = this->size();
}

bool ViewerWindow::isSizedByDesktop() const {
    // An X11 window manager that tiles ignores what we ask for; Wayland leaves it to us to obey.
    return QGuiApplication::platformName().startsWith(QLatin1String("wayland")) && size() != asked_;
}

QSize ViewerWindow::mostContent() const {
    return visibleFrame().size() - (frameGeometry().size() - view_->size());
}

void ViewerWindow::changeContentSize(QSize size) {
    const QSize growth = size - view_->size();
    const QRect visible = visibleFrame(), outer = frameGeometry();
    const QRect after(outer.topLeft(), outer.size() + growth);
    const QPoint beyond(std::max(0, after.right() - std::max(visible.right(), outer.right())),
                        std::max(0, after.bottom() - std::max(visible.bottom(), outer.bottom())));
    setContentSize(size);
    if (!beyond.isNull()) move(outer.topLeft() - beyond);
}

QRect ViewerWindow::visibleFrame() const {
    const QScreen* at = isVisible() ? screen() : QGuiApplication::primaryScreen();
    return at ? at->availableGeometry() : QRect(0, 0, 1280, 800);
}

QSizeF ViewerWindow::roomForContent() const {
    const QSizeF screen = visibleFrame().size();
    const QSizeF known = frameGeometry().size() - size();
    const QSizeF frame = known.isEmpty() ? usualFrame : known;
    return (screen * partOfScreen).boundedTo(screen - frame - QSizeF(0, barsHeight()));
}

void ViewerWindow::centre() {
    const QRect frame = visibleFrame();
    const QSize outer = isVisible() ? frameGeometry().size() : size() + usualFrame.toSize();
    move(frame.x() + std::max(0, (frame.width() - outer.width()) / 2),
         frame.y() + std::max(0, (frame.height() - outer.height()) / 2));
}

void ViewerWindow::toggleFullScreen() {
    setWindowState(windowState() ^ Qt::WindowFullScreen);
}

// The bars

void ViewerWindow::setMenuBar(QMenuBar& bar) {
    menuBar_ = &bar;
    bar.installEventFilter(this);
    bar.setMouseTracking(true);
    for (QMenu* const menu : bar.findChildren<QMenu*>()) {
        menus_.append(menu);
        menu->installEventFilter(this);
    }
    limitSize();
    layOut();
}

bool ViewerWindow::isMenuOpen() const {
    return std::ranges::any_of(menus_, &QMenu::isVisible);
}

int ViewerWindow::menuBarHeight() const {
    return menuBar_ ? menuBar_->sizeHint().height() : 0;
}

int ViewerWindow::barsHeight() const {
    return menuBarHeight() + (isToolbarShown_ ? ViewerToolbar::barHeight : 0);
}

void ViewerWindow::setToolbarShown(bool shown) {
    if (std::exchange(isToolbarShown_, shown) == shown) return;
    limitSize();
    layOut();
}

void ViewerWindow::showBars() {
    if (!isFullScreen()) return;
    areBarsKept_ = true;
    setBarsRevealed(true);
}

void ViewerWindow::hideBars() {
    areBarsKept_ = false;
    setBarsRevealed(false);
}

void ViewerWindow::setBarsRevealed(bool revealed) {
    reveal_.stop();
    if (std::exchange(areBarsRevealed_, revealed) != revealed) layOut();
}

/// `y` from the top of the window.
void ViewerWindow::pointerMovedTo(int y) {
    if (!isFullScreen()) return;
    if (y < barsHeight() && areBarsRevealed_) areBarsKept_ = false;
    if (y <= 1) {
        if (!areBarsRevealed_ && !reveal_.isActive()) reveal_.start();
        return;
    }
    reveal_.stop();
    if (y > barsHeight() && !areBarsKept_ && !isMenuOpen()) setBarsRevealed(false);
}

// Where things are

/// A screen of few points, as a small one of double density has, must still hold the window and its frame.
void ViewerWindow::limitSize() {
    const QSize least = leastContent.boundedTo(roomForContent().toSize());
    setMinimumSize(least.width(), least.height() + barsHeight());
}

void ViewerWindow::layOut() {
    const bool isFull = isFullScreen();
    const bool hasBars = !isFull || areBarsRevealed_;
    const int menuHeight = menuBarHeight();
    if (menuBar_) {
        menuBar_->setGeometry(0, 0, width(), menuHeight);
        menuBar_->setVisible(hasBars);
    }
    toolbar_->setGeometry(0, menuHeight, width(), ViewerToolbar::barHeight);
    toolbar_->setVisible(hasBars && isToolbarShown_);
    const int top = isFull ? 0 : barsHeight();
    view_->setGeometry(0, top, width(), std::max(0, height() - top));
    view_->lower();
}

void ViewerWindow::layOutOverlays() {
    connecting_->setGeometry(view_->rect());
    stats_->move(statsMargin, statsMargin);
    toast_->place();
}

// What the window system says

void ViewerWindow::resizeEvent(QResizeEvent*) {
    layOut();
}

void ViewerWindow::showEvent(QShowEvent*) {
    if (QWindow* const handle = windowHandle()) {
        handle->removeEventFilter(this);
        handle->installEventFilter(this);
        connect(handle, &QWindow::screenChanged, this, [this] { hearOfScreens(); });
    }
    limitSize();
    layOut();
}

void ViewerWindow::hearOfScreens() {
    limitSize();
    if (const auto notify = onResized) notify();
}

void ViewerWindow::changeEvent(QEvent* event) {
    QWidget::changeEvent(event);
    if (event->type() == QEvent::ActivationChange) {
        if (const auto notify = onActiveChanged) notify();
    } else if (event->type() == QEvent::WindowStateChange) {
        hideBars();
        toolbar_->setFullScreen(isFullScreen());
        layOut();
    }
}

void ViewerWindow::closeEvent(QCloseEvent* event) {
    event->accept();
    if (const auto notify = onClose) notify();
}

bool ViewerWindow::eventFilter(QObject* object, QEvent* event) {
    switch (event->type()) {
        case QEvent::KeyPress:
        case QEvent::KeyRelease:
        case QEvent::ShortcutOverride:
            if (object != windowHandle()) break;
            if (onKey && onKey(static_cast<const QKeyEvent&>(*event))) {
                event->accept();
                return true;
            }
            break;
        case QEvent::MouseMove:
            if (object != view_ && object != toolbar_ && object != menuBar_) break;
            pointerMovedTo(static_cast<QWidget*>(object)
                               ->mapTo(this, static_cast<QMouseEvent*>(event)->position().toPoint())
                               .y());
            break;
        case QEvent::Resize:
            if (object != view_) break;
            layOutOverlays();
            if (const auto notify = onResized) notify();
            break;
        case QEvent::Show:
        case QEvent::Hide:
            if (std::ranges::find(menus_, object) == menus_.end()) break;
            if (const auto notify = onMenuChanged) notify();
            break;
        default:
            break;
    }
    return QWidget::eventFilter(object, event);
}

}  // namespace velmora
