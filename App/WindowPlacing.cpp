#include "App/WindowPlacing.h"

#include <fmt/format.h>

#include <QEvent>
#include <QGuiApplication>
#include <QScreen>
#include <QStringList>
#include <QWidget>
#include <algorithm>
#include <chrono>
#include <utility>

namespace velmora {

namespace {

using namespace std::chrono_literals;

constexpr auto settleTime = 500ms;     // a drag is one change
constexpr QSize leastVisible(96, 32);  // enough of a title bar to take hold of
constexpr QRect noScreen(0, 0, 1280, 800);

QRect roomOnScreen() {
    const QScreen* const screen = QGuiApplication::primaryScreen();
    return screen ? screen->availableGeometry() : noScreen;
}

bool isWithinReach(const QRect& frame) {
    return std::ranges::any_of(QGuiApplication::screens(), [&](const QScreen* screen) {
        const QRect seen =
            screen->availableGeometry() & QRect(frame.topLeft(), QSize(frame.width(), leastVisible.height()));
        return seen.width() >= leastVisible.width() && seen.height() >= leastVisible.height() / 2;
    });
}

}  // namespace

void bringForward(QWidget& window) {
    if (window.isMinimized()) window.setWindowState(window.windowState() & ~Qt::WindowMinimized);
    window.show();
    window.raise();
    window.activateWindow();
}

void centreOnScreen(QWidget& window) {
    const QRect room = roomOnScreen();
    QRect frame(QPoint(), window.size());
    frame.moveCenter(room.center());
    window.move(std::max(frame.x(), room.x()), std::max(frame.y(), room.y()));
}

RememberedFrame::RememberedFrame(QWidget& window, PreferenceStore& preferences, std::string key)
    : QObject(&window), window_(window), preferences_(preferences), key_(std::move(key)) {
    saving_.setSingleShot(true);
    saving_.setInterval(settleTime);
    connect(&saving_, &QTimer::timeout, this, [this] { save(); });
    window.installEventFilter(this);
}

void RememberedFrame::restore(QSize firstSize) {
    const auto frame = remembered();
    window_.resize((frame ? frame->size() : firstSize).boundedTo(roomOnScreen().size()));
    if (frame && isWithinReach(*frame)) {
        window_.move(frame->topLeft());
    } else {
        centreOnScreen(window_);
    }
}

bool RememberedFrame::eventFilter(QObject* object, QEvent* event) {
    const bool changes = event->type() == QEvent::Move || event->type() == QEvent::Resize;
    if (changes && window_.isVisible() && window_.windowState() == Qt::WindowNoState) saving_.start();
    if (event->type() == QEvent::Hide && saving_.isActive()) save();
    return QObject::eventFilter(object, event);
}

std::optional<QRect> RememberedFrame::remembered() const {
    const auto text = preferences_.string(key_);
    if (!text) return std::nullopt;
    const QStringList words = QString::fromStdString(*text).split(QLatin1Char(' '));
    if (words.size() != 4) return std::nullopt;
    int numbers[4] = {};
    for (int i = 0; i < 4; ++i) {
        bool isNumber = false;
        numbers[i] = words[i].toInt(&isNumber);
        constexpr int most = 1 << 15;  // no X window is larger or farther off
        if (!isNumber || numbers[i] < -most || numbers[i] > most) return std::nullopt;
    }
    const QRect frame(numbers[0], numbers[1], numbers[2], numbers[3]);
    if (frame.isEmpty()) return std::nullopt;
    return frame;
}

void RememberedFrame::save() {
    saving_.stop();
    const QPoint corner = window_.pos();
    preferences_.set(key_,
                     fmt::format("{} {} {} {}", corner.x(), corner.y(), window_.width(), window_.height()));
}

}  // namespace velmora
