#include "Viewer/Window/VideoView.h"

#include <QBackingStore>
#include <QGuiApplication>
#include <QInputMethodEvent>
#include <QMouseEvent>
#include <QPaintEvent>
#include <QPainter>
#include <QStyleHints>
#include <QVariantAnimation>
#include <QWheelEvent>
#include <cmath>
#include <set>
#include <utility>

#include "Platform/EventPoster.h"
#include "Shared/Preferences.h"
#include "Viewer/Window/PictureChange.h"
#include "Viewer/Window/RemoteCursor.h"

namespace velmora {

namespace {

// Linux hosts make one click of so many pixels: a notch here is a notch there.
constexpr double pixelsPerNotch = 53, anglePerNotch = 120;
constexpr double flashOpacity = 0.6;
constexpr int flashMilliseconds = 350;

/// Whether Qt's input method knows no more than dead keys and the Compose key. One that does more would take
/// keys which are meant for the host, where another one may wait for them.
bool desktopOnlyComposes() {
    const QByteArray chosen = qgetenv("QT_IM_MODULE");
    return QGuiApplication::platformName() == QLatin1String("xcb") &&
           (chosen.isEmpty() || chosen == "compose");
}

/// None for a button that hosts do not know: they would take a mouse's "back" for its middle button.
std::optional<std::int64_t> buttonOf(Qt::MouseButton button) {
    switch (button) {
        case Qt::LeftButton:
            return 0;
        case Qt::RightButton:
            return 1;
        case Qt::MiddleButton:
            return 2;
        default:
            return std::nullopt;
    }
}

}  // namespace

VideoView::VideoView(std::unique_ptr<PicturePainter> painter, const PreferenceStore& preferences,
                     QWidget* parent, Rendering rendering)
    : QWidget(parent), painter_(std::move(painter)), preferences_(preferences) {
    setAttribute(Qt::WA_OpaquePaintEvent);
    setAttribute(Qt::WA_NoSystemBackground);
    setAttribute(Qt::WA_InputMethodEnabled, false);
    setMouseTracking(true);
    setFocusPolicy(Qt::StrongFocus);
    setAccessibleName(QStringLiteral("Screen of the other Mac"));
    if (rendering == Rendering::software) return;
    gl_ = new GlPicture([this] { return scene(); }, this);
    gl_->onFailed = [this] {
        gl_->hide();
        std::exchange(gl_, nullptr)->deleteLater();
        update();
    };
}

// The picture

void VideoView::showPicture(SharedPicture picture) {
    const SharedPicture before = std::exchange(picture_, std::move(picture));
    if (!picture_) return;
    if (gl_) return redraw();
    const PixelSize size = picture_->size;
    if (!before || before->size != size) return repaint();
    const PixelRect changed = changedPart(*before, *picture_);
    if (changed.isEmpty()) return;
    const PixelRect to = place();
    const double scaleX = static_cast<double>(to.width) / size.width;
    const double scaleY = static_cast<double>(to.height) / size.height;
    // Scaling mixes neighbours: a pixel more on each side.
    const double margin = to.width == size.width ? 0 : 1;
    const QPointF topLeft(to.x + (changed.x - margin) * scaleX, to.y + (changed.y - margin) * scaleY);
    const QPointF bottomRight(to.x + (changed.x + changed.width + margin) * scaleX,
                              to.y + (changed.y + changed.height + margin) * scaleY);
    const QPointF origin(mapTo(window(), QPoint(0, 0)));
    repaint(QRectF(topLeft / pixelRatio() - origin, bottomRight / pixelRatio() - origin)
                .toAlignedRect()
                .intersected(rect()));
}

void VideoView::setStreamSize(PixelSize size) {
    geometry_.stream = size;
    redraw();
}

void VideoView::setZoom(double zoom) {
    zoom = std::clamp(zoom, PictureGeometry::leastZoom, PictureGeometry::mostZoom);
    if (zoom == geometry_.zoom) return;
    geometry_.zoom = zoom;
    if (zoom <= PictureGeometry::leastZoom) geometry_.pointer.reset();
    redraw();
}

/// Where all of the picture lies, in pixels of the window.
PixelRect VideoView::place() const {
    const PictureGeometry::Rect r = geometry_.picture();
    const QPoint origin = mapTo(window(), QPoint(0, 0));
    const double ratio = pixelRatio();
    const auto pixels = [ratio](double points) { return static_cast<int>(std::lround(points * ratio)); };
    PixelRect to{pixels(origin.x() + r.x), pixels(origin.y() + r.y), pixels(r.width), pixels(r.height)};
    // A window of odd size gets a picture of even size: rather a line of black than all of it blurred.
    constexpr int bearable = 2;
    const PixelSize size = picture_ ? picture_->size : geometry_.stream;
    if (std::abs(to.width - size.width) <= bearable && std::abs(to.height - size.height) <= bearable) {
        to.x += (to.width - size.width) / 2;
        to.y += (to.height - size.height) / 2;
        to.width = size.width;
        to.height = size.height;
    }
    return to;
}

GlPicture::Scene VideoView::scene() const {
    PixelRect to = place();
    const QPointF origin = mapTo(window(), QPointF(0, 0)) * pixelRatio();
    to.x -= static_cast<int>(std::lround(origin.x()));
    to.y -= static_cast<int>(std::lround(origin.y()));
    return {.picture = picture_, .place = to, .light = flash_ ? flash_->currentValue().toFloat() : 0};
}

void VideoView::redraw() {
    if (gl_) return gl_->update();
    update();
}

void VideoView::paintEvent(QPaintEvent* event) {
    if (gl_) return;
    const PixelRect to = place();
    const double ratio = pixelRatio();
    const QPoint origin = mapTo(window(), QPoint(0, 0));
    const QRegion picture = picture_ ? QRegion(QRectF(to.x / ratio - origin.x(), to.y / ratio - origin.y(),
                                                      to.width / ratio, to.height / ratio)
                                                   .toAlignedRect())
                                     : QRegion();
    // Fractions of a point at its edge are painted black first.
    const QRegion inside = picture_ ? QRegion(picture.boundingRect().adjusted(1, 1, -1, -1)) : QRegion();
    if (const QRegion bars = event->region() - (picture == rect() ? picture : inside); !bars.isEmpty()) {
        QPainter painter(this);
        for (const QRect& bar : bars) painter.fillRect(bar, Qt::black);
    }
    if (picture_) {
        auto* const image = dynamic_cast<QImage*>(backingStore()->paintDevice());
        const bool isDirect = image && image->depth() == 32;
        if (isDirect) {
            const PixelMemory memory{
                image->bits(), static_cast<int>(image->bytesPerLine()), {image->width(), image->height()}};
            for (const QRect& part : event->region() & picture) paintPart(part, memory);
        } else {
            QImage own(window()->size() * ratio, QImage::Format_RGB32);
            const PixelMemory memory{
                own.bits(), static_cast<int>(own.bytesPerLine()), {own.width(), own.height()}};
            for (const QRect& part : event->region() & picture) paintPart(part, memory);
            own.setDevicePixelRatio(ratio);
            QPainter(this).drawImage(-origin, own);
        }
    }
    if (flash_) {
        QColor light(Qt::white);
        light.setAlphaF(flash_->currentValue().toFloat());
        QPainter(this).fillRect(picture.boundingRect(), light);
    }
}

void VideoView::paintPart(const QRect& part, const PixelMemory& memory) const {
    const double ratio = pixelRatio();
    const QPointF origin(mapTo(window(), QPoint(0, 0)));
    const QRect pixels =
        QRectF((part.topLeft() + origin) * ratio, QSizeF(part.size()) * ratio).toAlignedRect();
    painter_->paint(picture_, place(), {pixels.x(), pixels.y(), pixels.width(), pixels.height()}, memory);
}

void VideoView::resizeEvent(QResizeEvent*) {
    geometry_.width = width();
    geometry_.height = height();
    if (gl_) gl_->setGeometry(rect());
    redraw();
}

void VideoView::flash() {
    delete flash_;
    flash_ = new QVariantAnimation(this);
    flash_->setStartValue(flashOpacity);
    flash_->setEndValue(0.0);
    flash_->setDuration(flashMilliseconds);
    flash_->setEasingCurve(QEasingCurve::OutQuad);
    connect(flash_, &QVariantAnimation::valueChanged, this, [this] { redraw(); });
    connect(flash_, &QVariantAnimation::finished, this, [this] {
        std::exchange(flash_, nullptr)->deleteLater();
        redraw();
    });
    flash_->start();
}

// The pointer

PictureGeometry::Point VideoView::fractionsAt(const QPointF& position) const {
    return geometry_.fractionsAt({position.x(), position.y()});
}

void VideoView::follow(const QMouseEvent& event) {
    if (geometry_.zoom <= PictureGeometry::leastZoom) return;
    geometry_.pointer = {event.position().x(), event.position().y()};
    redraw();
}

void VideoView::keepButtons(const QMouseEvent& event) {
    std::set<std::int64_t> held;
    for (const Qt::MouseButton button : {Qt::LeftButton, Qt::RightButton, Qt::MiddleButton}) {
        if (event.buttons() & button) held.insert(*buttonOf(button));
    }
    input_.keepButtons(held, fractionsAt(event.position()), flagsOf(event.modifiers()));
}

void VideoView::mouseMoveEvent(QMouseEvent* event) {
    follow(*event);
    updateCursorAt(event->position());
    keepButtons(*event);
    input_.move(fractionsAt(event->position()), flagsOf(event->modifiers()));
}

void VideoView::mousePressEvent(QMouseEvent* event) {
    setFocus(Qt::MouseFocusReason);
    if (onPress) onPress();
    const auto button = buttonOf(event->button());
    if (!button) return;
    const QStyleHints& hints = *QGuiApplication::styleHints();
    const int count = clicks_.press(*button, event->position().x(), event->position().y(),
                                    static_cast<std::int64_t>(event->timestamp()),
                                    {.interval = hints.mouseDoubleClickInterval(),
                                     .distance = static_cast<double>(hints.mouseDoubleClickDistance())});
    input_.pressButton(*button, fractionsAt(event->position()), count, flagsOf(event->modifiers()));
}

void VideoView::mouseDoubleClickEvent(QMouseEvent* event) {
    mousePressEvent(event);
}

void VideoView::mouseReleaseEvent(QMouseEvent* event) {
    if (const auto button = buttonOf(event->button())) {
        input_.releaseButton(*button, fractionsAt(event->position()), std::max(clicks_.count(), 1),
                             flagsOf(event->modifiers()));
    }
}

void VideoView::wheelEvent(QWheelEvent* event) {
    const bool isX11 = QGuiApplication::platformName() == QLatin1String("xcb");
    const std::uint64_t flags = flagsOf(event->modifiers());
    event->accept();
    // What X11 calls pixels is the driver's invention.
    if (const QPoint pixels = event->pixelDelta(); !pixels.isNull() && !isX11)
        return input_.scroll(pixels.x(), pixels.y(), flags);
    QPointF notches = QPointF(event->angleDelta()) / anglePerNotch;
    // There Qt turns a wheel sideways while Alt is held; the host shall decide about that.
    if (isX11 && (event->modifiers() & Qt::AltModifier)) notches = notches.transposed();
    input_.scroll(notches.x() * pixelsPerNotch, notches.y() * pixelsPerNotch, flags);
}

void VideoView::enterEvent(QEnterEvent* event) {
    updateCursorAt(event->position());
    setMouseInside(true);
}

void VideoView::leaveEvent(QEvent*) {
    setMouseInside(false);
}

bool VideoView::isUnderPointer() const {
    // Wayland tells a program nothing about a pointer that is elsewhere: Qt goes on giving its last place.
    if (QGuiApplication::platformName().startsWith(QLatin1String("wayland"))) return underMouse();
    const QPoint pointer = QCursor::pos();
    if (!isVisible() || !rect().contains(mapFromGlobal(pointer))) return false;
    // In full screen the bars lie over the picture.
    const QWidget* const at = window()->childAt(window()->mapFromGlobal(pointer));
    return !at || at == this || isAncestorOf(at);
}

void VideoView::setMouseInside(bool inside) {
    if (std::exchange(isMouseInside_, inside) == inside) return;
    if (!inside &&
        KeyboardPreferences::sendKeys(preferences_) != KeyboardPreferences::SendKeys::windowActive) {
        releaseKeys();
    }
    if (const auto notify = onMouseInsideChanged) notify(inside);
}

void VideoView::setRemoteCursor(const CursorShape& shape) {
    remoteCursor_ = geometry_.stream.width > 0 ? cursorOf(shape, pixelRatio()) : std::nullopt;
    showsRemoteCursor_ = false;
    unsetCursor();
    updateCursorAt(mapFromGlobal(QPointF(QCursor::pos())));
}

void VideoView::updateCursorAt(const QPointF& position) {
    const bool wanted = remoteCursor_ && geometry_.picture().contains({position.x(), position.y()});
    if (std::exchange(showsRemoteCursor_, wanted) == wanted) return;
    if (wanted) {
        setCursor(*remoteCursor_);
    } else {
        unsetCursor();
    }
}

// The keyboard

void VideoView::forwardKey(const QKeyEvent& event) {
    const std::uint64_t flags = inputFlagsOf(event);
    if (event.type() == QEvent::KeyRelease) {
        if (event.isAutoRepeat()) return;
        const auto down = codesDown_.find(event.nativeScanCode());
        if (down == codesDown_.end()) return;
        const std::uint16_t code = down->second;
        codesDown_.erase(down);
        return input_.releaseKey(code, flags);
    }
    capsLock_ = (flags & EventFlags::capsLock) != 0;
    KeyCharacters::Press press;
    if (KeyboardPreferences::matchCharacters(preferences_)) press = characters_.take(event);
    if (!press.before.empty()) input_.type(press.before, flags);
    if (press.waits) return;
    const auto code = keyCodeOf(event);
    if (code) {
        codesDown_[event.nativeScanCode()] = *code;
        input_.pressKey(*code, press.characters, flags);
    } else if (press.characters) {
        input_.type(*press.characters, flags);
    }
}

void VideoView::setKeysGoToHost(bool go) {
    const bool composes = go && desktopOnlyComposes() && KeyboardPreferences::matchCharacters(preferences_);
    if (testAttribute(Qt::WA_InputMethodEnabled) == composes) return;
    setAttribute(Qt::WA_InputMethodEnabled, composes);
    characters_.reset();
}

void VideoView::inputMethodEvent(QInputMethodEvent* event) {
    event->accept();
    const QString text = event->commitString();
    if (text.isEmpty() || !testAttribute(Qt::WA_InputMethodEnabled)) return;
    characters_.reset();
    for (const std::string& character : KeyCharacters::typeableIn(text)) input_.type(character, 0);
}

bool VideoView::isHeldRemotely(const QKeyEvent& event) const {
    const auto down = codesDown_.find(event.nativeScanCode());
    return down != codesDown_.end() && input_.holdsKey(down->second);
}

void VideoView::releaseKeys() {
    input_.releaseKeys();
    codesDown_.clear();
    characters_.reset();
}

void VideoView::releaseEverything() {
    releaseKeys();
    input_.releaseButtons();
}

}  // namespace velmora
