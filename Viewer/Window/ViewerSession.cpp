#include "Viewer/Window/ViewerSession.h"

#include <fmt/format.h>

#include <QApplication>
#include <QScreen>
#include <QWindow>
#include <algorithm>
#include <cmath>
#include <utility>

#include "Shared/Preferences.h"
#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Core/HostClock.h"
#include "VelmoraKit/Core/Utf8.h"

namespace velmora {

namespace {

using ToolbarStatus = ViewerToolbar::Status;

constexpr std::size_t longestName = 200;

QString textOf(std::string_view words) {
    return QString::fromUtf8(words.data(), static_cast<qsizetype>(words.size()));
}

std::string labelOf(const std::optional<std::string>& path) {
    if (path == "LAN") return "Local network";
    if (path == "Direct") return "Direct over the internet";
    if (path == "Relay") return "Relay (Velmora Cloud)";
    return "Connected";
}

/// The picture as an image for the glass that covers it; empty if there is none.
QImage imageOf(PicturePainter& painter, const SharedPicture& picture) {
    if (!picture) return {};
    QImage image(picture->size.width, picture->size.height, QImage::Format_RGB32);
    if (image.isNull()) return {};
    const PixelRect all{0, 0, picture->size.width, picture->size.height};
    painter.paint(picture, all, all, {image.bits(), static_cast<int>(image.bytesPerLine()), picture->size});
    return image;
}

}  // namespace

ViewerSession::ViewerSession(ViewerOptions options, Services services)
    : services_(std::move(services)),
      main_(services_.main),
      preferences_(services_.connection.preferences),
      shownName_(QString::fromStdString(printableLine(options.name, longestName))),
      slot_(std::make_shared<PictureSlot>(main_)),
      window_(services_.makePainter(), preferences_, main_, services_.rendering),
      keyboard_([this](bool take) { return grabKeys(take); }, main_),
      follower_([this] { return displayRequest(); }, services_.isPointerHeld, main_),
      shapeKeeper_(services_.isPointerHeld, main_),
      connection_(std::move(options), connectionServices(), main_, services_.client) {
    if (services_.clipboard) clipboard_.emplace("host", debugLog, *services_.clipboard);
    shapeKeeper_.onSize = [this](PixelSize size) {
        // Its state may be told later than its size.
        if (!window_.isMaximized() && !window_.isFullScreen())
            window_.changeContentSize({size.width, size.height});
    };
    follower_.onRequest = [this](const DisplayRequest& request) {
        debugLog(fmt::format("Window resized: asking for {}×{} pt @{}x", request.width, request.height,
                             request.scale));
        connection_.send(MessageType::resizeDisplay, request.encode());
    };
}

ViewerSession::~ViewerSession() {
    tearDown();
    connection_.close();
    // The client's queue may be showing a picture this moment; behind that it has no more use for it.
    slot_->onPicture = nullptr;
    services_.client.post([slot = slot_] {});
}

ViewerConnection::Services ViewerSession::connectionServices() {
    ViewerConnection::Services all = services_.connection;
    all.renderer = slot_.get();
    all.vsync = &slot_->vsync;
    all.saveSnapshot = [this](SharedPicture picture, const std::string& name) {
        services_.snapshots.save(std::move(picture), name);
    };
    return all;
}

void ViewerSession::start() {
    assertOn(main_);
    listenToConnection();
    prepareWindow();
    listenToWindow();
    constexpr auto reason = "Showing a remote screen";
    activity_ = services_.keepAwake.beginActivity(reason);
    displaySleep_ = services_.keepAwake.preventIdleDisplaySleep(reason, [](const Status& outcome) {
        if (!outcome) debugLog(fmt::format("⚠︎ The display may go dark: {}", outcome.error().text));
    });
    preferenceObservation_ = preferences_.observe(main_, [this](const std::string& key) {
        if (key == PreferenceKeys::showStatsOverlay) updateStatsOverlay();
        if (key == PreferenceKeys::keyboardSendKeys || key == PreferenceKeys::keyboardMatchCharacters)
            updateKeyboardCapture();
    });

    std::optional<DisplayRequest> request;
    if (ViewerPreferences::screenMode(preferences_) == ScreenMode::matchWindow) request = displayRequest();
    follower_.setLastRequest(request);
    connection_.start(request);
}

void ViewerSession::prepareWindow() {
    window_.setContentSize(window_.roomForContent().toSize());
    window_.setWindowTitle(shownName_);
    window_.centre();

    ViewerToolbar& toolbar = window_.toolbar();
    toolbar.onSelectDisplay = [this](std::optional<std::uint32_t> id) { selectDisplay(id); };
    toolbar.onZoom = [this](double zoom) {
        window_.view().setZoom(zoom);
        stateChanged();
    };
    toolbar.onScreenshot = [this] { takeScreenshot(); };
    toolbar.onToggleStats = [this] { toggleStats(); };
    toolbar.onShowDebugLog = services_.showDebugLog;
    toolbar.onToggleFullScreen = [this] { window_.toggleFullScreen(); };
    toolbar.showWhatWorks();
    toolbar.setStatsShown(showsStats());
    window_.toast().reveal = services_.revealFile;

    window_.connecting().setSnapshot(
        QImage(QString::fromStdString(services_.snapshots.fileFor(name()).string())));
    showStatus(ViewerConnection::Status::connecting);
    window_.show();
    window_.raise();
    window_.activateWindow();
}

void ViewerSession::listenToWindow() {
    window_.onResized = [this] { windowResized(); };
    window_.onActiveChanged = [this] { windowActiveChanged(); };
    window_.onMenuChanged = [this] { menuChanged(); };
    window_.onClose = [this] { closedByPerson(); };
    window_.onKey = [this](const QKeyEvent& event) { return takeKey(event); };
    window_.view().onMouseInsideChanged = [this](bool) { updateKeyboardCapture(); };
    window_.view().onPress = [this] {
        keyboard_.resume();
        window_.hideBars();
    };
    window_.view().input().onInput = [this](const InputEvent& event) { connection_.sendInput(event); };
    slot_->onPicture = [this](SharedPicture picture) {
        if (!closed_) window_.view().showPicture(std::move(picture));
    };
    tellScreenBeat();
}

void ViewerSession::listenToConnection() {
    connection_.onStatus = [this](ViewerConnection::Status status) { showStatus(status); };
    connection_.onStreamChanged = [this](PixelSize size, bool dynamic) { streamChanged(size, dynamic); };
    connection_.onCursor = [this](const CursorShape& shape) { window_.view().setRemoteCursor(shape); };
    connection_.onDisplayList = [this](const DisplayList& list) { showDisplays(list); };
    connection_.onStats = [this](const ViewerStats::Snapshot& snapshot) { showStats(snapshot); };
    if (clipboard_) connection_.onClipboard = clipboard_->receiver();
    connection_.onEnded = [this](const ConnectionError& error) {
        if (closed_) return;
        tearDown();
        window_.hide();
        if (const auto notify = onClose) notify(error);
    };
}

// What the connection tells

void ViewerSession::showStatus(ViewerConnection::Status status) {
    const bool waits = status == ViewerConnection::Status::waitingForApproval;
    window_.toolbar().setStatus(
        {waits ? ToolbarStatus::Kind::waitingForApproval : ToolbarStatus::Kind::connecting});
    window_.connecting().setWords(
        (waits ? QStringLiteral("Waiting for %1 to allow this Mac…") : QStringLiteral("Connecting to %1…"))
            .arg(shownName_));
}

void ViewerSession::streamChanged(PixelSize size, bool dynamic) {
    if (closed_) return;
    const bool wasFollowing = streaming_ && dynamic_;
    streaming_ = true;
    dynamic_ = dynamic;
    window_.connecting().hide();
    window_.toolbar().setCaptureAvailable(true);
    if (const auto& path = connection_.pathLabel())
        window_.toolbar().setStatus(ToolbarStatus::connected(labelOf(path)));
    updateKeyboardCapture();
    window_.view().setStreamSize(size);
    updateStatsOverlay();
    if (!statsLog_) {  // the first time
        statsLog_.emplace(services_.statsFolder, name());
        startClipboard();
    }
    if (!dynamic && !window_.isFullScreen()) fitWindowTo(size);
    if (!dynamic || !wasFollowing) follower_.setFollowing(false);
    follower_.setFollowing(dynamic);
    shapeKeeper_.setShape(dynamic ? std::nullopt : std::optional(size));
    window_.setWindowTitle(shownName_);
    stateChanged();
}

void ViewerSession::startClipboard() {
    if (!clipboard_) return;
    clipboard_->start([this](const ClipboardContent& content) { connection_.sendClipboard(content); });
}

/// A display of a shape of its own: the window takes that shape.
void ViewerSession::fitWindowTo(PixelSize size) {
    if (size.width <= 0 || size.height <= 0 || window_.isMaximized() || window_.isSizedByDesktop()) return;
    const QSizeF room = window_.roomForContent();
    const double fit = std::min(room.width() / size.width, room.height() / size.height);
    window_.setContentSize({static_cast<int>(size.width * fit), static_cast<int>(size.height * fit)});
    window_.centre();
}

void ViewerSession::showDisplays(const DisplayList& list) {
    displays_ = list;
    window_.toolbar().update(list);
    if (streaming_) window_.connecting().hide();
}

void ViewerSession::showStats(const ViewerStats::Snapshot& snapshot) {
    if (!streaming_ || closed_) return;
    const auto& path = connection_.pathLabel();
    std::string detail = fmt::format("{} · {}", connection_.codecName(), snapshot.title);
    if (path) detail = fmt::format("{} · {}", *path, detail);
    window_.toolbar().setStatus(ToolbarStatus::connected(labelOf(path)), detail);
    window_.stats().setText(textOf(snapshot.overlay));
    if (statsLog_) statsLog_->append(snapshot.csvRow);
}

void ViewerSession::toggleStats() {
    preferences_.set(PreferenceKeys::showStatsOverlay, !showsStats());
}

bool ViewerSession::showsStats() const {
    return StatsPreferences::showOverlay(preferences_);
}

void ViewerSession::updateStatsOverlay() {
    window_.toolbar().setStatsShown(showsStats());
    window_.stats().setVisible(streaming_ && showsStats());
    stateChanged();
}

void ViewerSession::selectDisplay(std::optional<std::uint32_t> id) {
    if (!streaming_ || closed_) return;
    DisplaySelection selection{.displayID = id};
    if (!id) {
        selection.window = displayRequest();
        follower_.setLastRequest(selection.window);
    }
    ViewerPreferences::setScreenMode(preferences_, id ? ScreenMode::serverDisplay : ScreenMode::matchWindow);
    debugLog(id ? fmt::format("Switching to server display {}…", *id)
                : "Switching to a virtual display matching this window…");
    window_.toolbar().setStatus({ToolbarStatus::Kind::switching});
    window_.connecting().setSnapshot(imageOf(*services_.makePainter(), connection_.lastImage()));
    window_.connecting().setWords(QStringLiteral("Switching display…"));
    window_.connecting().show();
    connection_.send(MessageType::selectDisplay, selection.encode());
}

// What the window tells

DisplayRequest ViewerSession::displayRequest() {
    const VideoView& view = window_.view();
    return {
        .width = view.width(), .height = view.height(), .scale = window_.devicePixelRatioF() >= 2 ? 2 : 1};
}

void ViewerSession::windowResized() {
    tellScreenBeat();
    if (closed_) return;
    follower_.windowChanged();
    const auto points = [](QSize size) { return PixelSize{size.width(), size.height()}; };
    const bool isFree = !window_.isMaximized() && !window_.isFullScreen();
    shapeKeeper_.windowChanged(points(window_.view().size()),
                               isFree ? std::optional(ShapeKeeper::Limits{points(ViewerWindow::leastContent),
                                                                          points(window_.mostContent())})
                                      : std::nullopt);
}

/// Pictures are drawn when they come; what counts is when the screen shows them.
void ViewerSession::tellScreenBeat() {
    const QScreen* screen = window_.screen();
    const double rate = screen && screen->refreshRate() > 1 ? screen->refreshRate() : 60;
    const double now = static_cast<double>(main_.nowMicros()) / 1'000'000;
    slot_->vsync.tick(now, now + 1 / rate);
}

bool ViewerSession::keysGoToRemote() {
    return KeyboardPreferences::sendKeys(preferences_) == KeyboardPreferences::SendKeys::windowActive ||
           window_.view().isMouseInside();
}

bool ViewerSession::takeKey(const QKeyEvent& event) {
    VideoView& view = window_.view();
    if (!streaming_ || closed_ || window_.isMenuOpen()) return false;
    if (!keysGoToRemote() && !view.isHeldRemotely(event)) return false;
    // Whoever asked for a way out can use this window's own keys; no modifier alone opens a menu.
    if (event.type() == QEvent::ShortcutOverride)
        return !keyboard_.isSuspended() || KeyCharacters::isModifier(event.key());
    // Who is out already may have gone to full screen since, where the bars are out of sight.
    const bool canLeave = keyboard_.isAsked() || keyboard_.isSuspended();
    if (const auto code = keyCodeOf(event); event.type() == QEvent::KeyPress && canLeave && code &&
                                            KeyboardCapture::isWayOut(*code, inputFlagsOf(event))) {
        keyboard_.letGo();
        view.releaseEverything();
        window_.showBars();
        return true;
    }
    view.forwardKey(event);
    return true;
}

bool ViewerSession::grabKeys(bool take) {
    const ShortcutGrab::WindowId id = window_.internalWinId();
    if (take) return services_.shortcuts.take(id);
    services_.shortcuts.giveBack(id);
    return false;
}

void ViewerSession::updateKeyboardCapture() {
    VideoView& view = window_.view();
    const bool isKey = window_.isActiveWindow();
    if (isKey && !closed_ && view.isUnderPointer() != view.isMouseInside()) {
        view.setMouseInside(!view.isMouseInside());  // which comes back here
        return;
    }
    // A menu takes the keyboard for itself; a person who wanted out still does when it closes.
    const bool menuHasKeys = window_.isMenuOpen() && !keyboard_.isSuspended();
    const bool keysGo = streaming_ && !closed_ && isKey && keysGoToRemote() && !menuHasKeys;
    view.setKeysGoToHost(keysGo);
    keyboard_.setActive(keysGo);
}

void ViewerSession::menuChanged() {
    if (window_.isMenuOpen() && !closed_) window_.view().releaseKeys();
    updateKeyboardCapture();
}

void ViewerSession::stateChanged() {
    if (const auto notify = onStateChanged) notify();
}

void ViewerSession::windowActiveChanged() {
    // What is held when another window gets the keys comes up there.
    if (!window_.isActiveWindow() && !closed_) window_.view().releaseKeys();
    updateKeyboardCapture();
}

void ViewerSession::takeScreenshot() {
    const SharedPicture picture = connection_.lastImage();
    if (!streaming_ || closed_ || !picture) {
        QApplication::beep();
        return;
    }
    window_.view().flash();
    services_.captures.saveScreenshot(
        picture, name(), liveness_.guard([this](const CaptureFiles::Saved& saved) { captureSaved(saved); }));
}

void ViewerSession::captureSaved(const CaptureFiles::Saved& saved) {
    if (!saved) {
        const CaptureError& error = saved.error();
        debugLog(fmt::format("⚠︎ Screenshot not saved: {}", error.description));
        if (!closed_ && services_.showAlert) services_.showAlert(error.description, error.suggestion);
        return;
    }
    debugLog(fmt::format("Screenshot saved: {}", saved->string()));
    if (closed_) return;
    window_.toast().showSaved(
        textOf(fmt::format("Screenshot saved to {}", saved->parent_path().filename().string())), *saved);
}

// The end

void ViewerSession::closedByPerson() {
    if (closed_) return;
    connection_.close();
    tearDown();
    // The window is in the middle of its own closing.
    main_.post(liveness_.guard([this] {
        if (const auto notify = onClose) notify(std::nullopt);
    }));
}

void ViewerSession::tearDown() {
    if (std::exchange(closed_, true)) return;
    streaming_ = false;
    window_.toolbar().setCaptureAvailable(false);
    follower_.setFollowing(false);
    shapeKeeper_.setShape(std::nullopt);
    activity_.reset();
    displaySleep_.reset();
    if (statsLog_) statsLog_->close();
    preferenceObservation_.reset();
    keyboard_.stop();
    if (clipboard_) clipboard_->stop();
    stateChanged();
}

}  // namespace velmora
