#include "App/MenuPanelController.h"

#include <QApplication>
#include <QCloseEvent>
#include <QKeyEvent>
#include <QPainter>
#include <QPainterPath>
#include <QScreen>
#include <QVBoxLayout>
#include <algorithm>

#include "App/MenuPanelView.h"
#include "App/PanelPlacement.h"
#include "App/Style.h"

namespace velmora {

namespace {

constexpr double cornerRadius = 10;

const QScreen* screenOf(const QRect& area) {
    const QScreen* screen = QGuiApplication::screenAt(area.center());
    return screen ? screen : QGuiApplication::primaryScreen();
}

/// Wayland always blends windows; an X server only with a compositor, and black corners where there is none
/// would be worse than hard ones.
bool blendsWindows() {
    return QGuiApplication::platformName().startsWith(QLatin1String("wayland"));
}

}  // namespace

/// What is seen of it: a small window without a frame that floats above the others, or an ordinary one.
class MenuPanelController::Panel final : public QWidget {
public:
    enum class Form { panel, window };

    Panel(MenuModel& model, HostIdentity& identity, RemoteDevices& devices, Queue& main)
        : view_(new MenuPanelView(model, identity, devices, main, this)) {
        setWindowTitle(QStringLiteral("Velmora"));
        auto* layout = new QVBoxLayout(this);
        layout->setContentsMargins(edge_, edge_, edge_, edge_);
        layout->addWidget(view_);
        view_->onMenuClosed = [this] { tell(onFocusLost); };
        view_->onContent = [this] { grow(); };
    }

    std::function<void()> onCancel;     // Escape
    std::function<void()> onFocusLost;  // perhaps: whoever hears it looks again
    std::function<void()> onClose;      // by the window's own button
    std::function<void()> onRestored;   // from the task bar

    Form form() const { return form_; }
    bool isSeen() const { return isVisible() && !isMinimized(); }

    /// At `item`, or at the pointer.
    void openAt(const std::optional<QRect>& item, PanelDesktop* desktop) {
        take(Form::panel);
        if (desktop) desktop->keepOutOfTaskBar(winId());
        const QRect anchor = item.value_or(QRect(QCursor::pos(), QSize(1, 1)));
        const QScreen* screen = screenOf(anchor);
        const QRect visible = screen ? screen->availableGeometry() : QRect();
        const QSize size = fittingSize(item ? tallestPanel(anchor, visible) : tallestPanel(visible));
        setGeometry(panelFrame(anchor, size, visible));
        present();
    }
    void openAsWindow() {
        if (form_ == Form::window && isVisible()) {
            setWindowState(windowState() & ~Qt::WindowMinimized);
            raise();
            return activateWindow();
        }
        take(Form::window);
        resize(fittingSize(tallestWindow()));
        setMinimumSize(width(), std::min(height(), 20 * Style::grid));
        present();
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        if (form_ == Form::window) return painter.fillRect(rect(), palette().color(QPalette::Window));
        painter.setRenderHint(QPainter::Antialiasing);
        QColor line = palette().color(QPalette::WindowText);
        line.setAlphaF(0.28F);
        if (!blendsWindows()) {  // what the hard corners leave outside of the line looks like the line
            painter.fillRect(rect(), palette().color(QPalette::Window));
            painter.fillRect(rect(), line);
        }
        painter.setBrush(palette().color(QPalette::Window));
        painter.setPen(QPen(line, 1));
        painter.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), cornerRadius, cornerRadius);
    }
    void resizeEvent(QResizeEvent* event) override {
        QWidget::resizeEvent(event);
        if (form_ == Form::window || blendsWindows()) return clearMask();
        QPainterPath outline;
        outline.addRoundedRect(QRectF(rect()), cornerRadius, cornerRadius);
        setMask(QRegion(outline.toFillPolygon().toPolygon()));
    }
    void keyPressEvent(QKeyEvent* event) override {
        if (event->key() == Qt::Key_Escape) return tell(onCancel);
        QWidget::keyPressEvent(event);
    }
    void closeEvent(QCloseEvent* event) override {
        event->ignore();
        tell(onClose);
    }
    bool event(QEvent* event) override {
        if (event->type() == QEvent::WindowDeactivate) tell(onFocusLost);
        return QWidget::event(event);
    }
    void changeEvent(QEvent* event) override {
        if (event->type() == QEvent::WindowStateChange) {
            const auto before = static_cast<QWindowStateChangeEvent*>(event)->oldState();
            if ((before & Qt::WindowMinimized) && !isMinimized()) tell(onRestored);
        }
        QWidget::changeEvent(event);
    }

private:
    static void tell(const std::function<void()>& callback) {
        if (const auto copy = callback) copy();
    }
    static int tallestWindow() {
        const QScreen* screen = QGuiApplication::primaryScreen();
        constexpr int frame = 6 * Style::grid;  // what a window manager puts around it, at most
        return screen ? screen->availableGeometry().height() - frame : 0;
    }

    void take(Form form) {
        hide();
        form_ = form;
        setMinimumSize(0, 0);
        setAttribute(Qt::WA_TranslucentBackground, form == Form::panel && blendsWindows());
        setWindowFlags(form == Form::panel ? Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint
                                           : Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint |
                                                 Qt::WindowSystemMenuHint | Qt::WindowMinimizeButtonHint |
                                                 Qt::WindowCloseButtonHint);
        if (form == Form::window) clearMask();
    }
    QSize fittingSize(int tallest) {
        ensurePolished();
        return view_->fittingSize(tallest - 2 * edge_) + QSize(2 * edge_, 2 * edge_);
    }
    void present() {
        view_->reset();
        show();
        raise();
        activateWindow();
    }
    /// An ordinary window stays open while machines come and go. A panel keeps the size that it opened with.
    void grow() {
        if (form_ != Form::window || !isSeen()) return;
        const int height = fittingSize(tallestWindow()).height();
        if (height > this->height()) resize(width(), height);
    }

    static constexpr int edge_ = 1;
    Form form_ = Form::panel;
    MenuPanelView* const view_;
};

MenuPanelController::MenuPanelController(MenuModel& model, HostIdentity& identity, RemoteDevices& devices,
                                         StatusItem& statusItem, Queue& main, const Parameters& parameters)
    : statusItem_(statusItem),
      main_(main),
      parameters_(parameters),
      panel_(std::make_unique<Panel>(model, identity, devices, main)) {
    panel_->onCancel = [this] { hide(); };
    // The focus goes before it is known where to: to a menu of ours perhaps.
    panel_->onFocusLost = [this] { main_.post(liveness_.guard([this] { closeUnlessActive(); })); };
    panel_->onClose = [this] { close(); };
    panel_->onRestored = [this] {
        if (const auto tell = onShow) tell();
    };
    if (parameters_.desktop) parameters_.desktop->onPress = [this] { closeIfPointerIsElsewhere(); };
    statusItem_.onClick = [this] { toggle(); };
    statusItem_.onAvailability = [this] { trayChanged(); };
    trayChanged();
}

MenuPanelController::~MenuPanelController() {
    if (parameters_.desktop) {
        parameters_.desktop->stopWatching();
        parameters_.desktop->onPress = nullptr;
    }
    statusItem_.onClick = nullptr;
    statusItem_.onAvailability = nullptr;
}

bool MenuPanelController::isVisible() const {
    return panel_->isSeen();
}

void MenuPanelController::toggle() {
    if (isVisible()) return close();
    if (!justClosed_) show();
}

void MenuPanelController::show() {
    patience_.reset();
    if (!statusItem_.isAvailable()) return openAsWindow();
    openAtItem();
}

void MenuPanelController::openAtItem() {
    panel_->openAt(statusItem_.place(), parameters_.desktop);
    if (parameters_.desktop) parameters_.desktop->startWatching();
    statusItem_.setHighlighted(true);
    if (const auto tell = onShow) tell();
}

void MenuPanelController::openAsWindow() {
    panel_->openAsWindow();
    if (const auto tell = onShow) tell();
}

void MenuPanelController::hide() {
    if (panel_->form() == Panel::Form::panel) close();
}

void MenuPanelController::close() {
    if (!panel_->isVisible()) return;
    if (panel_->form() == Panel::Form::window && !statusItem_.isAvailable()) return panel_->showMinimized();
    panel_->hide();
    if (parameters_.desktop) parameters_.desktop->stopWatching();
    statusItem_.setHighlighted(false);
}

void MenuPanelController::closeUnlessActive() {
    if (!isVisible() || panel_->form() == Panel::Form::window) return;
    if (panel_->isActiveWindow() || QApplication::activePopupWidget()) return;
    close();
    justClosed_ = main_.after(parameters_.reopenGuard, [] {});
}

void MenuPanelController::closeIfPointerIsElsewhere() {
    if (!isVisible() || panel_->geometry().contains(QCursor::pos()) || QApplication::activePopupWidget())
        return;
    close();
    justClosed_ = main_.after(parameters_.reopenGuard, [] {});
}

void MenuPanelController::trayChanged() {
    patience_.reset();
    const bool hasWindow = panel_->isVisible() && panel_->form() == Panel::Form::window;
    if (statusItem_.isAvailable() || hasWindow || !parameters_.trayPatience) return;
    patience_ = main_.after(*parameters_.trayPatience, [this] {
        // A window that cannot be put away would lie over the bare screen for good.
        const bool canBePutAway = !parameters_.desktop || parameters_.desktop->managesWindows();
        if (canBePutAway) return show();
        trayChanged();
    });
}

}  // namespace velmora
