#pragma once

#include <QWidget>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "VelmoraKit/Wire/DisplayRecords.h"

class QMenu;
class QSlider;

namespace velmora {

class ToolbarButton;

/// The bar above a host's picture: how the connection is, which display is shown, zoom, and what can be done.
/// A control whose callback is not set is not there. On the main queue.
class ViewerToolbar final : public QWidget {
public:
    explicit ViewerToolbar(QWidget* parent);

    // Set before the window is shown.
    std::function<void(std::optional<std::uint32_t> id)> onSelectDisplay;  // none: a virtual display
    std::function<void(double)> onZoom;
    std::function<void()> onScreenshot;
    std::function<void()> onToggleStats;
    std::function<void()> onShowDebugLog;
    std::function<void()> onToggleFullScreen;

    struct Status {
        enum class Kind { connecting, waitingForApproval, switching, connected, failed };
        Kind kind = Kind::connecting;
        std::string label = {};  // of `connected` and `failed`; the others have their own words

        static Status connected(std::string label) { return {Kind::connected, std::move(label)}; }
        static Status failed(std::string label) { return {Kind::failed, std::move(label)}; }
        std::string words() const;
    };
    /// `detail` is the tool tip.
    void setStatus(const Status& status, const std::string& detail = {});
    void update(const DisplayList& list);
    void setCaptureAvailable(bool available);
    void setStatsShown(bool shown);
    void setFullScreen(bool fullScreen);
    /// Shows the controls whose callbacks are there.
    void showWhatWorks();

    void zoomIn() { stepZoom(1); }
    void zoomOut() { stepZoom(-1); }
    void resetZoom();
    double zoom() const;
    QMenu& displayMenu() { return *displayMenu_; }

    static constexpr int barHeight = 48;

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    bool eventFilter(QObject* object, QEvent* event) override;

private:
    class StatusDot;
    class StatusLine;
    void stepZoom(int direction);
    void sliderMoved();
    void openDisplayMenu();

    StatusDot* dot_;
    StatusLine* status_;
    ToolbarButton* display_;
    QMenu* displayMenu_;
    ToolbarButton* zoomOut_;
    QSlider* zoom_;
    ToolbarButton* zoomIn_;
    ToolbarButton* screenshot_;
    ToolbarButton* stats_;
    ToolbarButton* debug_;
    ToolbarButton* fullScreen_;
};

}  // namespace velmora
