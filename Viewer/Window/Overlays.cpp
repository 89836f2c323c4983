#include "Viewer/Window/Overlays.h"

#include <QFontDatabase>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <algorithm>
#include <utility>
#include <vector>

#include "Viewer/Window/Appearance.h"
#include "Viewer/Window/ToolbarButton.h"

namespace velmora {

namespace {

using Appearance::grid;

constexpr int spinnerSide = 32, spinnerSteps = 12, spinnerMilliseconds = 80;
constexpr double glassOverSnapshot = 0.55, snapshotOpacity = 0.8;
constexpr QRgb glass = 0xFF1B1D21;

/// A box blur along rows, written as columns: twice makes both directions.
QImage boxBlurred(const QImage& from, int radius) {
    QImage to(from.height(), from.width(), QImage::Format_RGB32);
    const int width = from.width(), window = 2 * radius + 1;
    for (int y = 0; y < from.height(); ++y) {
        const auto* row = reinterpret_cast<const QRgb*>(from.constScanLine(y));
        const auto at = [&](int x) { return row[std::clamp(x, 0, width - 1)]; };
        int red = 0, green = 0, blue = 0;
        const auto add = [&](QRgb pixel, int sign) {
            red += sign * qRed(pixel);
            green += sign * qGreen(pixel);
            blue += sign * qBlue(pixel);
        };
        for (int x = -radius; x <= radius; ++x) add(at(x), 1);
        for (int x = 0; x < width; ++x) {
            reinterpret_cast<QRgb*>(to.scanLine(x))[y] = qRgb(red / window, green / window, blue / window);
            add(at(x + radius + 1), 1);
            add(at(x - radius), -1);
        }
    }
    return to;
}

void drawPanel(QPainter& painter, const QRect& area, double radius) {
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(QColor(255, 255, 255, 40), 1));
    painter.setBrush(QColor(20, 21, 24, 232));
    painter.drawRoundedRect(QRectF(area).adjusted(0.5, 0.5, -0.5, -0.5), radius, radius);
}

}  // namespace

QImage blurred(const QImage& image) {
    constexpr int side = 160, radius = 3, passes = 3;  // as a radius of 24 on a picture of 1280
    QImage small = image.scaled(side, side, Qt::KeepAspectRatio, Qt::SmoothTransformation)
                       .convertToFormat(QImage::Format_RGB32);
    if (small.isNull()) return small;
    for (int pass = 0; pass < 2 * passes; ++pass) small = boxBlurred(small, radius);
    return small;
}

// ConnectingOverlay

ConnectingOverlay::ConnectingOverlay(QWidget* parent) : QWidget(parent) {
    setAttribute(Qt::WA_OpaquePaintEvent);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    turn_.setInterval(spinnerMilliseconds);
    connect(&turn_, &QTimer::timeout, this, [this] {
        step_ = (step_ + 1) % spinnerSteps;
        const QPoint middle = rect().center();
        update(QRect(middle - QPoint(spinnerSide, 2 * spinnerSide), QSize(2 * spinnerSide, 3 * spinnerSide)));
    });
}

void ConnectingOverlay::setSnapshot(const QImage& snapshot) {
    snapshot_ = snapshot.isNull() ? QImage() : blurred(snapshot);
    update();
}

void ConnectingOverlay::setWords(const QString& words) {
    words_ = words;
    setAccessibleName(words);
    update();
}

void ConnectingOverlay::showEvent(QShowEvent*) {
    turn_.start();
}

void ConnectingOverlay::hideEvent(QHideEvent*) {
    turn_.stop();
}

void ConnectingOverlay::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.fillRect(rect(), Qt::black);
    QColor cover = QColor::fromRgba(glass);
    if (!snapshot_.isNull()) {
        const QSize filling = snapshot_.size().scaled(size(), Qt::KeepAspectRatioByExpanding);
        QRect place(QPoint(0, 0), filling);
        place.moveCenter(rect().center());
        painter.setRenderHint(QPainter::SmoothPixmapTransform);
        painter.setOpacity(snapshotOpacity);
        painter.drawImage(place, snapshot_);
        painter.setOpacity(1);
        cover.setAlphaF(glassOverSnapshot);
    }
    painter.fillRect(rect(), cover);

    QFont font = this->font();
    font.setPixelSize(15);
    font.setWeight(QFont::Medium);
    painter.setFont(font);
    constexpr int spacing = 12;
    const int lineHeight = painter.fontMetrics().height();
    const int top = (height() - spinnerSide - spacing - lineHeight) / 2;
    drawSpinner(painter, {(width() - spinnerSide) / 2.0, static_cast<double>(top), spinnerSide, spinnerSide});
    const QRect line(2 * grid, top + spinnerSide + spacing, width() - 4 * grid, lineHeight);
    painter.setPen(Qt::white);
    painter.drawText(line, Qt::AlignCenter,
                     painter.fontMetrics().elidedText(words_, Qt::ElideMiddle, line.width()));
}

void ConnectingOverlay::drawSpinner(QPainter& painter, const QRectF& field) const {
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(field.center());
    for (int i = 0; i < spinnerSteps; ++i) {
        const int age = (step_ - i + spinnerSteps) % spinnerSteps;
        painter.setPen(
            QPen(QColor(255, 255, 255, std::max(40, 255 - age * 24)), 2.5, Qt::SolidLine, Qt::RoundCap));
        painter.save();
        painter.rotate(360.0 * i / spinnerSteps);
        painter.drawLine(QPointF(0, -field.height() * 0.26), QPointF(0, -field.height() * 0.46));
        painter.restore();
    }
    painter.restore();
}

// StatsOverlayView

StatsOverlayView::StatsOverlayView(QWidget* parent) : QWidget(parent) {
    setAttribute(Qt::WA_TransparentForMouseEvents);
    QFont mono = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    mono.setPixelSize(12);
    setFont(mono);
}

void StatsOverlayView::setText(const QString& text) {
    if (std::exchange(text_, text) == text) return;
    resize(sizeHint());
    update();
}

QSize StatsOverlayView::sizeHint() const {
    const QSize text = fontMetrics().size(0, text_);
    return text + QSize(3 * grid, 2 * grid);
}

void StatsOverlayView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    drawPanel(painter, rect(), grid);
    painter.setPen(Qt::white);
    painter.drawText(rect().adjusted(3 * grid / 2, grid, -grid, -grid), Qt::AlignLeft | Qt::AlignTop, text_);
}

// CaptureToast

CaptureToast::CaptureToast(Queue& main, QWidget* parent) : QWidget(parent), main_(main) {
    setCursor(Qt::PointingHandCursor);
    hide();
}

void CaptureToast::showSaved(const QString& words, std::filesystem::path file) {
    words_ = words;
    file_ = std::move(file);
    setToolTip(words + QStringLiteral(". Show in Finder"));
    setAccessibleName(words);
    place();
    show();
    raise();
    update();
    hideTimer_ = main_.after(shown, [this] { hide(); });
}

void CaptureToast::place() {
    constexpr int margin = 16;
    const QSize size = wantedSize(), room = parentWidget()->size();
    setGeometry((room.width() - size.width()) / 2, room.height() - size.height() - margin, size.width(),
                size.height());
}

QSize CaptureToast::wantedSize() const {
    constexpr int sign = 20;
    // Widths are fractions: what is rounded down would be cut in the middle.
    const int wanted = fontMetrics().horizontalAdvance(words_) + 1 + sign + 5 * grid;
    const int room = parentWidget()->width() - 4 * grid;
    return {std::min(wanted, std::max(room, 0)), 5 * grid};
}

void CaptureToast::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    drawPanel(painter, rect(), height() / 2.0);
    constexpr int sign = 20;
    drawSymbol(painter, Symbol::camera, QRectF(2 * grid, (height() - sign) / 2.0, sign, sign), Qt::white);
    const QRect line = rect().adjusted(2 * grid + sign + grid, 0, -2 * grid, 0);
    painter.setPen(Qt::white);
    painter.drawText(line, Qt::AlignVCenter | Qt::AlignLeft,
                     fontMetrics().elidedText(words_, Qt::ElideMiddle, line.width()));
}

void CaptureToast::mousePressEvent(QMouseEvent* event) {
    event->accept();
    hideTimer_.reset();
    hide();
    if (reveal) reveal(file_);
}

}  // namespace velmora
