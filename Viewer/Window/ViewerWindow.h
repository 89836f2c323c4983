#pragma once

#include <QTimer>
#include <QWidget>
#include <functional>
#include <memory>

#include "Platform/PicturePainter.h"
#include "Platform/PreferenceStore.h"
#include "VelmoraKit/Core/Queue.h"
#include "Viewer/Window/Overlays.h"
#include "Viewer/Window/VideoView.h"
#include "Viewer/Window/ViewerToolbar.h"

class QKeyEvent;

namespace velmora {

/// One host's window: where its parts lie, and what the window system says about it. Decides nothing about
/// the session. In full screen the picture has all of it, and the toolbar comes when the pointer rests at the
/// top edge.
class ViewerWindow final : public QWidget {
public:
    ViewerWindow(std::unique_ptr<PicturePainter> painter, const PreferenceStore& preferences, Queue& main);

    std::function<void()> onResized;  // of the picture's part, or its screen has other pixels now
    std::function<void()> onActiveChanged;
    /// The person closes it; it is still there for the rest of this turn of the queue.
    std::function<void()> onClose;
    /// A key for this window, whatever has the focus in it. True: it is taken.
    std::function<bool(const QKeyEvent&)> onKey;

    VideoView& view() { return *view_; }
    ViewerToolbar& toolbar() { return *toolbar_; }
    ConnectingOverlay& connecting() { return *connecting_; }
    StatsOverlayView& stats() { return *stats_; }
    CaptureToast& toast() { return *toast_; }

    /// Of the picture's part, in points.
    void setContentSize(QSize size);
    void centre();
    /// The part of its screen, or else of the main one, that windows may use.
    QRect visibleFrame() const;
    void toggleFullScreen();

    static constexpr QSize leastContent{640, 400};

protected:
    void resizeEvent(QResizeEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void changeEvent(QEvent* event) override;
    void closeEvent(QCloseEvent* event) override;
    bool eventFilter(QObject* object, QEvent* event) override;

private:
    void layOut();
    void layOutOverlays();
    void setToolbarRevealed(bool revealed);
    void pointerMovedTo(int y);
    void hearOfScreens();

    VideoView* view_;
    ViewerToolbar* toolbar_;
    ConnectingOverlay* connecting_;
    StatsOverlayView* stats_;
    CaptureToast* toast_;
    QTimer reveal_;  // while the pointer rests at the top edge
    bool isToolbarRevealed_ = false;
};

}  // namespace velmora
