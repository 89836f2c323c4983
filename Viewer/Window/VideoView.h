#pragma once

#include <QWidget>
#include <functional>
#include <map>
#include <memory>
#include <optional>

#include "Platform/PicturePainter.h"
#include "Platform/PreferenceStore.h"
#include "VelmoraKit/Wire/CursorShape.h"
#include "Viewer/Window/GlPicture.h"
#include "Viewer/Window/KeyCharacters.h"
#include "Viewer/Window/PictureGeometry.h"
#include "Viewer/Window/ViewerInput.h"

class QVariantAnimation;

namespace velmora {

/// Who draws the host's picture.
enum class Rendering { software, graphicsProcessor };

/// The part of a window that shows the host's picture and turns what happens over it into input. In software
/// only what changed of a picture is drawn, straight into the window's memory, before `showPicture` returns.
/// The graphics processor draws all of it in the next turn of the event loop; where it fails the view goes on
/// in software. On the main queue.
class VideoView final : public QWidget {
public:
    /// `preferences` outlives the view.
    VideoView(std::unique_ptr<PicturePainter> painter, const PreferenceStore& preferences, QWidget* parent,
              Rendering rendering = Rendering::software);

    std::function<void(bool)> onMouseInsideChanged;
    /// A button was pressed over the view.
    std::function<void()> onPress;

    void showPicture(SharedPicture picture);
    const SharedPicture& picture() const { return picture_; }
    void setStreamSize(PixelSize size);
    /// Cut to what there is; the picture then follows the pointer.
    void setZoom(double zoom);
    double zoom() const { return geometry_.zoom; }
    /// None where the host's cannot be shown: then this machine's arrow.
    void setRemoteCursor(const CursorShape& shape);
    /// A flash of light, as a camera's.
    void flash();

    bool isMouseInside() const { return isMouseInside_; }
    void setMouseInside(bool inside);
    bool isUnderPointer() const;

    /// Sends a key press or release to the host. A release that the server made up for a repeat is not one.
    void forwardKey(const QKeyEvent& event);
    bool isHeldRemotely(const QKeyEvent& event) const;
    /// Whether keys are the host's now. Then, if characters are to match, the desktop composes them: text of
    /// several keys (a Compose key's) is typed there when it is complete.
    void setKeysGoToHost(bool go);
    ViewerInput& input() { return input_; }
    /// No key stays down at the host.
    void releaseKeys();
    /// Nothing does.
    void releaseEverything();

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    void enterEvent(QEnterEvent* event) override;
    void leaveEvent(QEvent* event) override;
    void inputMethodEvent(QInputMethodEvent* event) override;

private:
    double pixelRatio() const { return devicePixelRatioF(); }
    PixelRect place() const;
    GlPicture::Scene scene() const;
    void redraw();
    void paintPart(const QRect& part, const PixelMemory& memory) const;
    void follow(const QMouseEvent& event);
    PictureGeometry::Point fractionsAt(const QPointF& position) const;
    std::uint64_t flagsOf(Qt::KeyboardModifiers modifiers) const {
        return inputFlagsOf(modifiers, capsLock_);
    }
    void updateCursorAt(const QPointF& position);
    void keepButtons(const QMouseEvent& event);

    const std::unique_ptr<PicturePainter> painter_;
    const PreferenceStore& preferences_;
    PictureGeometry geometry_;
    SharedPicture picture_;
    ViewerInput input_;
    ClickCounter clicks_;
    KeyCharacters characters_;
    std::map<quint32, std::uint16_t> codesDown_;  // by scan code: what a key was when it was pressed
    std::optional<QCursor> remoteCursor_;
    bool showsRemoteCursor_ = false;
    bool isMouseInside_ = false;
    bool capsLock_ = false;
    QVariantAnimation* flash_ = nullptr;  // a child; while it shines
    GlPicture* gl_ = nullptr;             // a child, over all of the view; none: drawn in software
};

}  // namespace velmora
