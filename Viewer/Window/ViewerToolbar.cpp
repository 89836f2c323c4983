#include "Viewer/Window/ViewerToolbar.h"

#include <fmt/format.h>

#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenu>
#include <QPainter>
#include <QSlider>
#include <climits>
#include <cmath>

#include "VelmoraKit/Core/Utf8.h"
#include "Viewer/Window/Appearance.h"
#include "Viewer/Window/DisplayMenu.h"
#include "Viewer/Window/PictureGeometry.h"
#include "Viewer/Window/ToolbarButton.h"

namespace velmora {

namespace {

constexpr int perZoom = 100;        // steps of the slider
constexpr int roomForSlider = 600;  // points; in a shorter bar the buttons beside it must do
constexpr double snapBelow = 1.1, zoomStep = 0.5;
constexpr std::size_t longestLine = 300;  // bytes that are worth looking at

QString textOf(std::string_view words) {
    return QString::fromStdString(printableLine(words, longestLine));
}

}  // namespace

class ViewerToolbar::StatusDot final : public QWidget {
public:
    explicit StatusDot(QWidget* parent) : QWidget(parent) { setFixedSize(10, 10); }
    void setColor(const QColor& color) {
        color_ = color;
        QWidget::update();
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(Qt::NoPen);
        painter.setBrush(color_);
        painter.drawEllipse(rect());
    }

private:
    QColor color_;
};

/// Words that are cut where the bar has no room for them, and are then part of the tool tip.
class ViewerToolbar::StatusLine final : public QLabel {
public:
    explicit StatusLine(QWidget* parent) : QLabel(parent) {
        setTextFormat(Qt::PlainText);
        setSizePolicy(QSizePolicy::Maximum, QSizePolicy::Preferred);
    }
    void say(const QString& words, const QString& detail) {
        setText(words);
        detail_ = detail;
        updateToolTip();
    }
    QSize minimumSizeHint() const override { return sizeHint().boundedTo({leastWidth, INT_MAX}); }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setPen(palette().color(QPalette::WindowText));
        painter.drawText(rect(), Qt::AlignVCenter | Qt::AlignLeft,
                         fontMetrics().elidedText(text(), Qt::ElideRight, width()));
    }
    void resizeEvent(QResizeEvent* event) override {
        QLabel::resizeEvent(event);
        updateToolTip();
    }

private:
    void updateToolTip() {
        QStringList lines;
        if (width() < sizeHint().width()) lines << text();
        if (!detail_.isEmpty()) lines << detail_;
        setToolTip(lines.join('\n'));
    }
    static constexpr int leastWidth = 48;
    QString detail_;
};

std::string ViewerToolbar::Status::words() const {
    switch (kind) {
        case Kind::connecting:
            return "Connecting…";
        case Kind::waitingForApproval:
            return "Waiting for approval on the other Mac";
        case Kind::switching:
            return "Switching display…";
        case Kind::connected:
        case Kind::failed:
            return label;
    }
    return {};
}

ViewerToolbar::ViewerToolbar(QWidget* parent) : QWidget(parent) {
    using Appearance::grid;
    setObjectName(QStringLiteral("VelmoraViewerToolbar"));
    auto* const row = new QHBoxLayout(this);
    row->setContentsMargins(2 * grid, 0, grid, 0);
    row->setSpacing(grid / 2);

    dot_ = new StatusDot(this);
    status_ = new StatusLine(this);
    status_->setAccessibleDescription(QStringLiteral("Status"));
    row->addWidget(dot_);
    row->addSpacing(grid / 2);
    row->addWidget(status_);
    row->addStretch(1);

    display_ = new ToolbarButton(Symbol::none, QStringLiteral("Display"),
                                 QStringLiteral("Which screen of the other Mac to show"), this);
    displayMenu_ = new QMenu(this);
    connect(display_, &QAbstractButton::clicked, this, [this] { openDisplayMenu(); });
    connect(displayMenu_, &QMenu::aboutToHide, this, [this] { display_->setMenuOpen(false); });
    row->addWidget(display_);
    row->addStretch(1);

    const auto button = [this, row](Symbol symbol, const char* label, const char* toolTip, auto callback) {
        auto* const made =
            new ToolbarButton(symbol, QString::fromUtf8(label), QString::fromUtf8(toolTip), this);
        connect(made, &QAbstractButton::clicked, this, callback);
        row->addWidget(made);
        return made;
    };
    const auto call = [this](std::function<void()> ViewerToolbar::*callback) {
        return [this, callback] {
            if (const auto notify = this->*callback) notify();
        };
    };
    zoomOut_ = button(Symbol::zoomOut, "Zoom out", "Zoom out", [this] { zoomOut(); });
    zoom_ = new QSlider(Qt::Horizontal, this);
    zoom_->setRange(static_cast<int>(PictureGeometry::leastZoom * perZoom),
                    static_cast<int>(PictureGeometry::mostZoom * perZoom));
    zoom_->setSingleStep(static_cast<int>(zoomStep * perZoom));
    zoom_->setPageStep(perZoom);
    zoom_->setFixedWidth(12 * grid);
    zoom_->setAccessibleName(QStringLiteral("Zoom"));
    zoom_->setToolTip(QStringLiteral("Zoom: the zoomed picture follows the mouse. Double-click to reset."));
    zoom_->installEventFilter(this);
    connect(zoom_, &QSlider::valueChanged, this, [this] { sliderMoved(); });
    row->addWidget(zoom_);
    zoomIn_ = button(Symbol::zoomIn, "Zoom in", "Zoom in", [this] { zoomIn(); });
    row->addSpacing(grid);
    screenshot_ = button(Symbol::camera, "Screenshot", "Take a screenshot of the other Mac's screen",
                         call(&ViewerToolbar::onScreenshot));
    stats_ =
        button(Symbol::chart, "Stats", "Show or hide the stats panel", call(&ViewerToolbar::onToggleStats));
    debug_ = button(Symbol::log, "Debug Log", "Show the debug log", call(&ViewerToolbar::onShowDebugLog));
    fullScreen_ = button(Symbol::enterFullScreen, "Full Screen", "Enter Full Screen",
                         call(&ViewerToolbar::onToggleFullScreen));
    zoomOut_->setEnabled(false);
    display_->hide();  // until the host has told what there is
    setCaptureAvailable(false);
    setStatus({});
}

void ViewerToolbar::showWhatWorks() {
    zoomOut_->setVisible(onZoom != nullptr);
    zoomIn_->setVisible(onZoom != nullptr);
    zoom_->setVisible(onZoom != nullptr && width() >= roomForSlider);
    screenshot_->setVisible(onScreenshot != nullptr);
    stats_->setVisible(onToggleStats != nullptr);
    debug_->setVisible(onShowDebugLog != nullptr);
    fullScreen_->setVisible(onToggleFullScreen != nullptr);
}

void ViewerToolbar::setStatus(const Status& status, const std::string& detail) {
    using Kind = Status::Kind;
    using Appearance::StatusColor;
    const StatusColor color = status.kind == Kind::connecting  ? StatusColor::quiet
                              : status.kind == Kind::connected ? StatusColor::good
                              : status.kind == Kind::failed    ? StatusColor::bad
                                                               : StatusColor::busy;
    dot_->setColor(Appearance::colorOf(color));
    status_->say(textOf(status.words()), textOf(detail));
}

void ViewerToolbar::update(const DisplayList& list) {
    fillDisplayMenu(*displayMenu_, list, [this](std::optional<std::uint32_t> id) {
        if (const auto notify = onSelectDisplay) notify(id);
    });
    display_->setWords(shownDisplayOf(list));
    display_->setVisible(onSelectDisplay != nullptr);
}

void ViewerToolbar::openDisplayMenu() {
    display_->setMenuOpen(true);
    displayMenu_->popup(display_->mapToGlobal(QPoint(0, display_->height() + Appearance::grid / 2)));
}

void ViewerToolbar::setCaptureAvailable(bool available) {
    screenshot_->setEnabled(available);
}

void ViewerToolbar::setStatsShown(bool shown) {
    stats_->setCheckable(true);
    stats_->setChecked(shown);
}

void ViewerToolbar::setFullScreen(bool fullScreen) {
    fullScreen_->setSymbol(fullScreen ? Symbol::leaveFullScreen : Symbol::enterFullScreen);
    fullScreen_->setToolTip(fullScreen ? QStringLiteral("Exit Full Screen")
                                       : QStringLiteral("Enter Full Screen"));
}

double ViewerToolbar::zoom() const {
    return static_cast<double>(zoom_->value()) / perZoom;
}

void ViewerToolbar::resetZoom() {
    zoom_->setValue(perZoom);
}

void ViewerToolbar::stepZoom(int direction) {
    zoom_->setValue(static_cast<int>(std::lround((zoom() + direction * zoomStep) * perZoom)));
}

void ViewerToolbar::sliderMoved() {
    if (zoom() < snapBelow && zoom_->value() != perZoom) return resetZoom();
    zoomOut_->setEnabled(zoom_->value() > zoom_->minimum());
    zoomIn_->setEnabled(zoom_->value() < zoom_->maximum());
    if (const auto notify = onZoom) notify(zoom());
}

bool ViewerToolbar::eventFilter(QObject* object, QEvent* event) {
    if (object == zoom_ && event->type() == QEvent::MouseButtonDblClick) {
        resetZoom();
        return true;
    }
    return QWidget::eventFilter(object, event);
}

void ViewerToolbar::resizeEvent(QResizeEvent*) {
    zoom_->setVisible(onZoom != nullptr && width() >= roomForSlider);
}

void ViewerToolbar::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.fillRect(rect(), palette().color(QPalette::Window));
    painter.fillRect(QRect(0, height() - 1, width(), 1), Appearance::hairlineOf(*this));
}

}  // namespace velmora
