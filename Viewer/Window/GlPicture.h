#pragma once

#include <QOpenGLFunctions>
#include <QOpenGLShaderProgram>
#include <QOpenGLWidget>
#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "Platform/Picture.h"

namespace velmora {

/// The host's picture drawn by the graphics processor: what lies in VideoView where there is one. Asks for
/// what to draw each time that it is drawn (`update`), so the newest picture wins; only what changed of it
/// goes into its textures. Takes no input. Owned by its parent; lives on the main queue.
///
/// Without mipmaps: a picture at less than half its size looks rougher than the software's.
class GlPicture final : public QOpenGLWidget, private QOpenGLFunctions {
public:
    struct Scene {
        SharedPicture picture;  // none: black
        PixelRect place;        // of all of it, in pixels of the widget; it may reach beyond
        float light = 0;        // of a flash over the picture: 1 is white
    };
    GlPicture(std::function<Scene()> scene, QWidget* parent);
    ~GlPicture() override;

    /// Nothing can be drawn any more, which the log has been told. Once, from the event loop.
    std::function<void()> onFailed;

protected:
    void initializeGL() override;
    void paintGL() override;
    void paintEvent(QPaintEvent* event) override;

private:
    std::optional<std::string_view> build();  // why it cannot be done; none: done
    bool upload(const SharedPicture& picture);
    void draw(const Scene& scene, PixelSize area);
    void release();
    void fail(std::string_view reason);

    const std::function<Scene()> scene_;
    std::unique_ptr<QOpenGLShaderProgram> program_;  // while there is a context
    std::array<GLuint, 3> textures_{};               // luma, blue, red
    SharedPicture uploaded_;                         // what they hold
    bool hasFailed_ = false;
};

}  // namespace velmora
