#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Platform/KeepAwake.h"
#include "Platform/PicturePainter.h"
#include "Platform/ShortcutGrab.h"
#include "Shared/ClipboardSync.h"
#include "VelmoraKit/Core/Queue.h"
#include "Viewer/Session/CaptureFiles.h"
#include "Viewer/Session/FrameSnapshot.h"
#include "Viewer/Session/StatsLog.h"
#include "Viewer/Session/ViewerConnection.h"
#include "Viewer/Window/KeyboardCapture.h"
#include "Viewer/Window/PictureSlot.h"
#include "Viewer/Window/ShapeKeeper.h"
#include "Viewer/Window/ViewerWindow.h"
#include "Viewer/Window/WindowFollower.h"

namespace velmora {

/// One viewer window and everything in it: turns what the connection tells into what a person sees, and what
/// happens to the window into what the host is told. Lives as long as its window, on the main queue; several
/// may be open at once.
class ViewerSession {
public:
    /// All outlive the session.
    struct Services {
        ViewerConnection::Services connection;  // its renderer, tracker and snapshots are ours to fill in
        Queue& main;
        Queue& client;
        KeepAwake& keepAwake;
        ShortcutGrab& shortcuts;
        FrameSnapshot& snapshots;
        CaptureFiles& captures;
        std::function<std::unique_ptr<PicturePainter>()> makePainter;
        std::filesystem::path statsFolder;
        /// Whether a button of the pointer is held, over whatever window; none: unknown.
        std::function<bool()> isPointerHeld;
        std::function<void(const std::filesystem::path&)> revealFile;
        std::function<void()> showDebugLog;  // none: there is no such window
        /// Tells the person at once what went wrong; the session goes on.
        std::function<void(const std::string& title, const std::string& text)> showAlert;
        std::optional<ClipboardSync::Services> clipboard{};  // none: it is not shared
        Rendering rendering = Rendering::software;
    };
    ViewerSession(ViewerOptions options, Services services);
    ~ViewerSession();
    ViewerSession(const ViewerSession&) = delete;
    ViewerSession& operator=(const ViewerSession&) = delete;

    /// Once, as the last thing done: it may destroy the session. None: the person closed the window.
    std::function<void(const std::optional<ConnectionError>&)> onClose;

    /// Shows the window, with a menu bar if it has been given one, and connects.
    void start();

    /// What a menu says has changed: whether there is a picture, its zoom, or what is shown over it.
    std::function<void()> onStateChanged;

    void takeScreenshot();
    /// In all windows: it is one setting.
    void toggleStats();
    bool showsStats() const;
    void zoomIn() { window_.toolbar().zoomIn(); }
    void zoomOut() { window_.toolbar().zoomOut(); }
    void resetZoom() { window_.toolbar().resetZoom(); }
    bool isZoomed() const { return window_.toolbar().zoom() > PictureGeometry::leastZoom; }
    /// What the host has to choose from; none: it has not told yet.
    const std::optional<DisplayList>& displays() const { return displays_; }
    /// None: a virtual display that follows the window.
    void selectDisplay(std::optional<std::uint32_t> id);

    /// Says goodbye to the host. The window stays as it is, for when there is no screen to close it on.
    void disconnect() { connection_.close(); }

    /// Somebody else has the keyboard now, though the window keeps the focus: what is held comes up there.
    void keyboardTaken() { window_.view().releaseKeys(); }

    ViewerWindow& window() { return window_; }
    const std::string& name() const { return connection_.options().name; }
    bool isStreaming() const { return streaming_; }
    bool takesAllKeys() const { return keyboard_.isHeld(); }

private:
    void prepareWindow();
    void listenToWindow();
    void listenToConnection();
    ViewerConnection::Services connectionServices();

    void showStatus(ViewerConnection::Status status);
    void streamChanged(PixelSize size, bool dynamic);
    void startClipboard();
    void fitWindowTo(PixelSize size);
    void windowResized();
    void showDisplays(const DisplayList& list);
    void showStats(const ViewerStats::Snapshot& snapshot);
    void updateStatsOverlay();
    void captureSaved(const CaptureFiles::Saved& saved);

    bool takeKey(const QKeyEvent& event);
    bool grabKeys(bool take);
    bool keysGoToRemote();
    void updateKeyboardCapture();
    DisplayRequest displayRequest();
    void tellScreenBeat();

    void windowActiveChanged();
    void menuChanged();
    void stateChanged();
    void closedByPerson();
    void tearDown();

    const Services services_;
    Queue& main_;
    PreferenceStore& preferences_;
    const QString shownName_;
    const std::shared_ptr<PictureSlot> slot_;
    ViewerWindow window_;
    KeyboardCapture keyboard_;
    WindowFollower follower_;
    ShapeKeeper shapeKeeper_;
    ViewerConnection connection_;
    std::optional<ClipboardSync> clipboard_;
    std::unique_ptr<KeepAwake::Assertion> activity_, displaySleep_;
    std::unique_ptr<PreferenceStore::Observation> preferenceObservation_;
    std::optional<StatsLog> statsLog_;
    std::optional<DisplayList> displays_;
    bool streaming_ = false, dynamic_ = false, closed_ = false;
    Liveness liveness_;
};

}  // namespace velmora
