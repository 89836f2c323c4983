#include "Platform/Linux/Window/GraphicsProcessor.h"

#include <fmt/format.h>

#include <QDir>
#include <QOffscreenSurface>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QRegularExpression>

#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

namespace {

bool findGraphicsProcessor() {
    if (QDir("/dev/dri").entryList({"renderD*"}, QDir::System).isEmpty()) return false;
    const auto renderer = rendererOfOpenGl();
    const bool isHardware = renderer && !isSoftwareRenderer(*renderer);
    debugLog(isHardware
                 ? fmt::format("Picture drawn by {}", *renderer)
                 : fmt::format("Picture drawn in software: OpenGL is {}", renderer.value_or("missing")));
    return isHardware;
}

}  // namespace

bool hasGraphicsProcessor() {
    static const bool found = findGraphicsProcessor();
    return found;
}

std::optional<std::string> rendererOfOpenGl() {
    QOffscreenSurface surface;
    surface.create();
    QOpenGLContext context;
    if (!context.create() || !context.makeCurrent(&surface)) return std::nullopt;
    const auto* const name = reinterpret_cast<const char*>(context.functions()->glGetString(GL_RENDERER));
    return name ? std::optional<std::string>(name) : std::nullopt;
}

bool isSoftwareRenderer(std::string_view renderer) {
    static const QRegularExpression programs("llvmpipe|softpipe|swrast|software rasterizer|swiftshader",
                                             QRegularExpression::CaseInsensitiveOption);
    return QString::fromUtf8(renderer.data(), static_cast<qsizetype>(renderer.size())).contains(programs);
}

}  // namespace velmora
