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
class QMenu;
class QMenuBar;

namespace velmora {

/// One host's window: where its parts lie, and what the window system says about it. Decides nothing about
/// the session. At its top are the bars: the menu bar, if there is one, and the toolbar. In full screen the
/// picture has all of the window, and the bars come over it when the pointer rests at the top edge.
class ViewerWindow final : public QWidget {
public:
    ViewerWindow(std::unique_ptr<PicturePainter> painter, const PreferenceStore& preferences, Queue& main,
                 Rendering rendering);

    std::function<void()> onResized;  // of the picture's part, or its screen has other pixels now
    std::function<void()> onActiveChanged;
    std::function<void()> onMenuChanged;  // one has opened or closed
    /// The person closes it; it is still there for the rest of this turn of the queue.
    std::function<void()> onClose;
    /// A key for this window, whatever has the focus in it. True: it is taken.
    std::function<bool(const QKeyEvent&)> onKey;

    VideoView& view() { return *view_; }
    ViewerToolbar& toolbar() { return *toolbar_; }
    const ViewerToolbar& toolbar() const { return *toolbar_; }
    ConnectingOverlay& connecting() { return *connecting_; }
    StatsOverlayView& stats() { return *stats_; }
    CaptureToast& toast() { return *toast_; }

    /// A child of the window with all its menus; once, before the window is shown.
    void setMenuBar(QMenuBar& bar);
    bool isMenuOpen() const;

    /// Also whether it is among what comes at the top edge of a full screen.
    void setToolbarShown(bool shown);
    bool isToolbarShown() const { return isToolbarShown_; }
    /// In full screen, until `hideBars` or until the pointer has been on them and left.
    void showBars();
    void hideBars();

    /// Of the picture's part, in points.
    void setContentSize(QSize size);
    /// Whether that was overruled: by a desktop that tiles its windows, or by the person.
    bool isSizedByDesktop() const;
    /// Like `setContentSize`, for one that is shown: moved if it would leave the screen.
    void changeContentSize(QSize size);
    /// That fits on its screen, with what is around it.
    QSize mostContent() const;
    void centre();
    /// The part of its screen, or else of the main one, that windows may use.
    QRect visibleFrame() const;
    /// The largest picture's part of a window that leaves some of that screen free and fits on it, with bars
    /// and frame.
    QSizeF roomForContent() const;
    void toggleFullScreen();

    static constexpr double partOfScreen = 0.85;    // that a window takes
    static constexpr QSize leastContent{640, 400};  // less on a screen that has no room for it

protected:
    void resizeEvent(QResizeEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void changeEvent(QEvent* event) override;
    void closeEvent(QCloseEvent* event) override;
    bool eventFilter(QObject* object, QEvent* event) override;

private:
    void layOut();
    void layOutOverlays();
    int menuBarHeight() const;
    int barsHeight() const;
    void limitSize();
    void setBarsRevealed(bool revealed);
    void pointerMovedTo(int y);
    void hearOfScreens();

    VideoView* view_;
    ViewerToolbar* toolbar_;
    ConnectingOverlay* connecting_;
    StatsOverlayView* stats_;
    CaptureToast* toast_;
    QSize asked_;
    QTimer reveal_;  // while the pointer rests at the top edge
    QMenuBar* menuBar_ = nullptr;
    QList<QMenu*> menus_;
    bool isToolbarShown_ = true;
    bool areBarsRevealed_ = false;  // in full screen
    bool areBarsKept_ = false;      // wherever the pointer is
};

}  // namespace velmora
