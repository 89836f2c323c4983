#include "Viewer/Window/ViewerWindow.h"

#include <QCloseEvent>
#include <QGuiApplication>
#include <QKeyEvent>
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

}  // namespace

ViewerWindow::ViewerWindow(std::unique_ptr<PicturePainter> painter, const PreferenceStore& preferences,
                           Queue& main)
    : view_(new VideoView(std::move(painter), preferences, this)),
      toolbar_(new ViewerToolbar(this)),
      connecting_(new ConnectingOverlay(view_)),
      stats_(new StatsOverlayView(view_)),
      toast_(new CaptureToast(main, view_)) {
    setMinimumSize(leastContent.width(), leastContent.height() + ViewerToolbar::barHeight);
    stats_->hide();
    view_->installEventFilter(this);
    toolbar_->installEventFilter(this);
    reveal_.setSingleShot(true);
    reveal_.setInterval(revealDelay);
    connect(&reveal_, &QTimer::timeout, this, [this] { setToolbarRevealed(true); });
    view_->setFocus();
}

void ViewerWindow::setContentSize(QSize size) {
    resize(size.width(), size.height() + ViewerToolbar::barHeight);
}

QRect ViewerWindow::visibleFrame() const {
    const QScreen* at = isVisible() ? screen() : QGuiApplication::primaryScreen();
    return at ? at->availableGeometry() : QRect(0, 0, 1280, 800);
}

void ViewerWindow::centre() {
    const QRect frame = visibleFrame();
    const QSize outer = isVisible() ? frameGeometry().size() : size();
    // What the window manager puts around it does not count while it is not known.
    move(frame.x() + std::max(0, (frame.width() - std::max(outer.width(), width())) / 2),
         frame.y() + std::max(0, (frame.height() - std::max(outer.height(), height())) / 2));
}

void ViewerWindow::toggleFullScreen() {
    setWindowState(windowState() ^ Qt::WindowFullScreen);
}

// Where things are

void ViewerWindow::layOut() {
    if (isFullScreen()) {
        view_->setGeometry(rect());
        toolbar_->setGeometry(0, 0, width(), ViewerToolbar::barHeight);
        toolbar_->setVisible(isToolbarRevealed_);
        toolbar_->raise();
        return;
    }
    toolbar_->setGeometry(0, 0, width(), ViewerToolbar::barHeight);
    toolbar_->show();
    view_->setGeometry(0, ViewerToolbar::barHeight, width(),
                       std::max(0, height() - ViewerToolbar::barHeight));
}

void ViewerWindow::layOutOverlays() {
    connecting_->setGeometry(view_->rect());
    stats_->move(statsMargin, statsMargin);
    toast_->place();
}

void ViewerWindow::setToolbarRevealed(bool revealed) {
    reveal_.stop();
    if (std::exchange(isToolbarRevealed_, revealed) != revealed) layOut();
}

/// `y` from the top of the window.
void ViewerWindow::pointerMovedTo(int y) {
    if (!isFullScreen()) return;
    if (y <= 1) {
        if (!isToolbarRevealed_ && !reveal_.isActive()) reveal_.start();
        return;
    }
    reveal_.stop();
    if (y > ViewerToolbar::barHeight && !toolbar_->isMenuOpen()) setToolbarRevealed(false);
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
    layOut();
}

void ViewerWindow::hearOfScreens() {
    if (const auto notify = onResized) notify();
}

void ViewerWindow::changeEvent(QEvent* event) {
    QWidget::changeEvent(event);
    if (event->type() == QEvent::ActivationChange) {
        if (const auto notify = onActiveChanged) notify();
    } else if (event->type() == QEvent::WindowStateChange) {
        isToolbarRevealed_ = false;
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
            if (object != view_ && object != toolbar_) break;
            pointerMovedTo(static_cast<QWidget*>(object)
                               ->mapTo(this, static_cast<QMouseEvent*>(event)->position().toPoint())
                               .y());
            break;
        case QEvent::Resize:
            if (object != view_) break;
            layOutOverlays();
            if (const auto notify = onResized) notify();
            break;
        default:
            break;
    }
    return QWidget::eventFilter(object, event);
}

}  // namespace velmora
