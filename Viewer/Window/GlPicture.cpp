#include "Viewer/Window/GlPicture.h"

#include <fmt/format.h>

#include <QOpenGLContext>
#include <QSurfaceFormat>
#include <algorithm>
#include <cstddef>
#include <utility>

#include "Platform/PicturePainter.h"
#include "VelmoraKit/Core/DebugLog.h"
#include "Viewer/Window/PictureChange.h"

namespace velmora {

namespace {

constexpr GLenum unpackRowLength = 0x0CF2;  // the header of OpenGL ES 2 has no name for it

constexpr auto vertexShader = R"(
attribute highp vec2 corner;
uniform highp vec4 part;
varying highp vec2 at;
void main() {
    at = part.xy + corner * part.zw;
    gl_Position = vec4(2.0 * corner.x - 1.0, 1.0 - 2.0 * corner.y, 0.0, 1.0);
}
)";

// BT.709, limited range.
constexpr auto fragmentShader = R"(
varying highp vec2 at;
uniform sampler2D luma;
uniform sampler2D blue;
uniform sampler2D red;
uniform mediump float light;
void main() {
    mediump float y = 1.164384 * (texture2D(luma, at).r - 0.062745);
    mediump float b = texture2D(blue, at).r - 0.501961;
    mediump float r = texture2D(red, at).r - 0.501961;
    mediump vec3 color = vec3(y + 1.792741 * r, y - 0.213249 * b - 0.532909 * r, y + 2.112402 * b);
    gl_FragColor = vec4(mix(clamp(color, 0.0, 1.0), vec3(1.0), light), 1.0);
}
)";

}  // namespace

GlPicture::GlPicture(std::function<Scene()> scene, QWidget* parent)
    : QOpenGLWidget(parent), scene_(std::move(scene)) {
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setFocusPolicy(Qt::NoFocus);
    // Showing a picture must not wait for the screen: input comes by the same thread, and on Wayland a hidden
    // window's wait has no end. The window around us takes its format from nowhere else.
    QSurfaceFormat format = QSurfaceFormat::defaultFormat();
    format.setSwapInterval(0);
    QSurfaceFormat::setDefaultFormat(format);
}

GlPicture::~GlPicture() {
    if (!context()) return;
    disconnect(context(), nullptr, this, nullptr);
    release();
}

void GlPicture::initializeGL() {
    initializeOpenGLFunctions();
    // It goes when the window's does, and another may come.
    connect(context(), &QOpenGLContext::aboutToBeDestroyed, this, &GlPicture::release);
    if (const auto obstacle = build()) fail(*obstacle);
}

std::optional<std::string_view> GlPicture::build() {
    const QOpenGLContext& with = *context();
    if (with.isOpenGLES() && with.format().majorVersion() < 3 &&
        !with.hasExtension("GL_EXT_unpack_subimage")) {
        return "this OpenGL ES cannot take parts of a picture";
    }
    program_ = std::make_unique<QOpenGLShaderProgram>();
    if (!program_->addShaderFromSourceCode(QOpenGLShader::Vertex, vertexShader) ||
        !program_->addShaderFromSourceCode(QOpenGLShader::Fragment, fragmentShader) || !program_->link()) {
        return "the shaders were refused";
    }
    glGenTextures(static_cast<GLsizei>(textures_.size()), textures_.data());
    for (const GLuint texture : textures_) {
        glBindTexture(GL_TEXTURE_2D, texture);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    }
    return std::nullopt;
}

void GlPicture::release() {
    makeCurrent();
    if (textures_[0]) glDeleteTextures(static_cast<GLsizei>(textures_.size()), textures_.data());
    textures_ = {};
    program_.reset();
    uploaded_.reset();
    doneCurrent();
}

void GlPicture::paintEvent(QPaintEvent* event) {
    QOpenGLWidget::paintEvent(event);
    if (!isValid()) fail("the context is lost");
}

void GlPicture::paintGL() {
    if (hasFailed_) return;
    // Not ours, but Qt's. A lost context has no end of them.
    for (int left = 16; left > 0 && glGetError() != GL_NO_ERROR;) --left;
    const Scene scene = scene_();
    const double ratio = devicePixelRatioF();
    const PixelSize area{static_cast<int>(width() * ratio), static_cast<int>(height() * ratio)};
    glClearColor(0, 0, 0, 1);
    glClear(GL_COLOR_BUFFER_BIT);
    if (scene.picture && scene.picture->size.width > 0 && scene.picture->size.height > 0) {
        if (!upload(scene.picture)) return fail("the picture is too large for a texture");
        draw(scene, area);
    }
    if (const GLenum error = glGetError(); error != GL_NO_ERROR) fail(fmt::format("error {:#x}", error));
}

bool GlPicture::upload(const SharedPicture& picture) {
    const PixelSize size = picture->size;
    GLint longest = 0;
    glGetIntegerv(GL_MAX_TEXTURE_SIZE, &longest);
    if (std::max(size.width, size.height) > longest) return false;
    const bool isNew = !uploaded_ || uploaded_->size != size;
    const PixelRect part =
        isNew ? PixelRect{0, 0, size.width, size.height} : changedPart(*uploaded_, *picture);
    const std::array samples{picture->y, picture->u, picture->v};
    const std::array strides{picture->strideY, picture->strideU, picture->strideV};
    glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
    for (std::size_t i = 0; i < textures_.size(); ++i) {
        const int divisor = i == 0 ? 1 : 2;
        const auto shared = [divisor](int pixels) { return (pixels + divisor - 1) / divisor; };
        glActiveTexture(GL_TEXTURE0 + static_cast<GLenum>(i));
        glBindTexture(GL_TEXTURE_2D, textures_[i]);
        if (isNew) {
            glTexImage2D(GL_TEXTURE_2D, 0, GL_LUMINANCE, shared(size.width), shared(size.height), 0,
                         GL_LUMINANCE, GL_UNSIGNED_BYTE, nullptr);
        }
        if (part.isEmpty()) continue;
        const int x = part.x / divisor, y = part.y / divisor;
        glPixelStorei(unpackRowLength, strides[i]);
        glTexSubImage2D(GL_TEXTURE_2D, 0, x, y, shared(part.width), shared(part.height), GL_LUMINANCE,
                        GL_UNSIGNED_BYTE, samples[i] + std::ptrdiff_t{y} * strides[i] + x);
    }
    uploaded_ = picture;
    return true;
}

/// Only what is seen of `place`: zoomed, it may be larger than a driver allows.
void GlPicture::draw(const Scene& scene, PixelSize area) {
    const PixelRect& place = scene.place;
    const PixelRect seen = intersectionOf(place, {0, 0, area.width, area.height});
    if (seen.isEmpty()) return;
    glViewport(seen.x, area.height - seen.y - seen.height, seen.width, seen.height);
    const auto width = static_cast<float>(place.width), height = static_cast<float>(place.height);
    program_->bind();
    program_->setUniformValue(
        "part", static_cast<float>(seen.x - place.x) / width, static_cast<float>(seen.y - place.y) / height,
        static_cast<float>(seen.width) / width, static_cast<float>(seen.height) / height);
    program_->setUniformValue("luma", 0);
    program_->setUniformValue("blue", 1);
    program_->setUniformValue("red", 2);
    program_->setUniformValue("light", scene.light);
    constexpr std::array<float, 8> corners{0, 0, 1, 0, 0, 1, 1, 1};
    program_->enableAttributeArray("corner");
    program_->setAttributeArray("corner", corners.data(), 2);
    glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
}

void GlPicture::fail(std::string_view reason) {
    if (std::exchange(hasFailed_, true)) return;
    debugLog(fmt::format("⚠︎ OpenGL fails: {}. This window's picture is drawn in software from now on",
                         reason));
    const auto tell = [this] {
        if (const auto notify = onFailed) notify();
    };
    QMetaObject::invokeMethod(this, tell, Qt::QueuedConnection);
}

}  // namespace velmora
