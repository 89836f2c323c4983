#include "Viewer/Window/GlPicture.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QLabel>
#include <QScreen>
#include <QTest>
#include <cstdlib>
#include <utility>

#include "Platform/Linux/Painting/YuvPicturePainter.h"
#include "Platform/Linux/Window/GraphicsProcessor.h"
#include "Testing/DesktopScene.h"
#include "Testing/FakePreferenceStore.h"
#include "Testing/ImageCompare.h"
#include "Testing/XServerFixture.h"
#include "VelmoraKit/Core/DebugLog.h"
#include "Viewer/Window/VideoView.h"

namespace velmora {
namespace {

constexpr QSize area{640, 400};
constexpr PixelSize pictureSize{640, 360};

class GlPictureTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        static XServerFixture server({.size = {800, 600}});
        ASSERT_TRUE(server.ok()) << server.error();
        static ScopedDisplay display(server.display());
        qputenv("QT_QPA_PLATFORM", "xcb");
        static int argc = 1;
        static char name[] = "test";
        static char* argv[] = {name, nullptr};
        [[maybe_unused]] static auto* const application = new QApplication(argc, argv);
        renderer = rendererOfOpenGl();
    }
    void SetUp() override {
        if (!renderer) GTEST_SKIP() << "this machine has no OpenGL, not even in software";
    }
    static void show(QWidget& window) {
        window.setWindowFlag(Qt::FramelessWindowHint);
        window.setGeometry(0, 0, area.width(), area.height());
        window.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
    }
    static QImage onScreen() {
        QCoreApplication::processEvents();
        return QGuiApplication::primaryScreen()
            ->grabWindow(0, 0, 0, area.width(), area.height())
            .toImage()
            .convertToFormat(QImage::Format_RGB32);
    }
    static QImage painted(const GlPicture::Scene& scene) {
        QImage image(area, QImage::Format_RGB32);
        image.fill(Qt::black);
        YuvPicturePainter().paint(
            scene.picture, scene.place, {0, 0, area.width(), area.height()},
            {image.bits(), static_cast<int>(image.bytesPerLine()), {area.width(), area.height()}});
        return image;
    }
    static GrayView view(const QImage& image) {
        return {image.bits(), image.width(), image.height(), static_cast<int>(image.bytesPerLine())};
    }
    /// Flat areas are the same colour, edges may be mixed a little differently.
    static void expectAlike(const QImage& seen, const QImage& expected) {
        const QImage rgb = seen.convertToFormat(QImage::Format_RGB32);
        ASSERT_EQ(rgb.size(), expected.size());
        std::ptrdiff_t far = 0;
        for (std::ptrdiff_t i = 0; i < rgb.sizeInBytes(); ++i)
            far += std::abs(rgb.constBits()[i] - expected.constBits()[i]) > 4;
        EXPECT_LT(far, rgb.sizeInBytes() / 50);
        EXPECT_GT(ssimLuma(view(rgb.convertToFormat(QImage::Format_Grayscale8)),
                           view(expected.convertToFormat(QImage::Format_Grayscale8))),
                  0.98);
    }
    static SharedPicture plain(PixelSize size, std::uint8_t light) {
        const auto buffer = std::make_shared<PictureBuffer>(size);
        std::fill(buffer->y, buffer->u, light);
        return PictureBuffer::view(buffer);
    }

    static inline std::optional<std::string> renderer;
};

TEST_F(GlPictureTest, looksLikeTheSoftwarePicture) {
    EXPECT_TRUE(isSoftwareRenderer(*renderer)) << *renderer;  // no hardware draws on this X server
    DesktopScene desktop(pictureSize, DesktopScene::Kind::typing);
    GlPicture::Scene scene{.picture = desktop.snapshot()};
    GlPicture gl([&] { return scene; }, nullptr);
    show(gl);
    const std::initializer_list<PixelRect> places{
        {0, 20, 640, 360}, {-301, -199, 1280, 720}, {101, 30, 427, 300}, {0, -100, 3200, 1800}};
    for (const PixelRect& place : places) {
        SCOPED_TRACE(place.width);
        scene.place = place;
        expectAlike(gl.grabFramebuffer(), painted(scene));
    }
    scene.place = {0, 20, 640, 360};
    for (int step = 0; step < 5; ++step) desktop.step();
    const QImage before = gl.grabFramebuffer();
    scene.picture = desktop.snapshot();
    const QImage after = gl.grabFramebuffer();  // of which only what changed was uploaded
    EXPECT_NE(after, before);
    const SharedPicture whole = std::exchange(scene.picture, plain({320, 202}, 16));
    scene.light = 0.6F;
    const QImage flash = gl.grabFramebuffer();
    EXPECT_NEAR(qGreen(flash.pixel(300, 200)), 153, 2);
    EXPECT_EQ(flash.pixel(300, 19), 0xFF000000) << "a flash is over the picture only";
    scene = {.picture = whole, .place = scene.place};
    EXPECT_EQ(gl.grabFramebuffer(), after);
}

TEST_F(GlPictureTest, liesUnderWhatIsOverTheViewAndTakesNoInput) {
    const FakePreferenceStore preferences;
    VideoView view(std::make_unique<YuvPicturePainter>(), preferences, nullptr, Rendering::graphicsProcessor);
    QLabel overlay(&view);
    overlay.setGeometry(10, 100, 50, 50);
    overlay.setStyleSheet("background: rgba(255, 0, 0, 128)");
    view.setStreamSize(pictureSize);
    show(view);
    view.showPicture(plain(pictureSize, 235));
    const QImage screen = onScreen();
    EXPECT_EQ(screen.pixel(300, 21), 0xFFFFFFFF);
    EXPECT_EQ(screen.pixel(300, 19), 0xFF000000);
    EXPECT_NEAR(qGreen(screen.pixel(30, 120)), 127, 3) << "half of it shines through";
    EXPECT_EQ(qRed(screen.pixel(30, 120)), 255);
    EXPECT_EQ(view.childAt(300, 200), nullptr) << "the pointer is over the view itself";
}

TEST_F(GlPictureTest, whatOpenGlCannotDrawIsDrawnInSoftware) {
    const FakePreferenceStore preferences;
    VideoView view(std::make_unique<YuvPicturePainter>(), preferences, nullptr, Rendering::graphicsProcessor);
    view.setStreamSize(pictureSize);
    show(view);
    DebugLog::shared().clear();
    view.showPicture(plain({70000, 2}, 235));                                // longer than any texture
    for (int turn = 0; turn < 3; ++turn) QCoreApplication::processEvents();  // drawn, told, gone
    EXPECT_TRUE(view.findChildren<GlPicture*>().isEmpty());
    view.showPicture(plain(pictureSize, 235));
    EXPECT_EQ(onScreen().pixel(300, 200), 0xFFFFFFFF);
    EXPECT_EQ(DebugLog::shared().entries().size(), 1U) << DebugLog::shared().plainText();
}

TEST(GraphicsProcessorTest, programsThatPlayHardwareAreKnownByName) {
    for (const char* name : {"llvmpipe (LLVM 15.0.6, 256 bits)", "softpipe", "Software Rasterizer",
                             "Google SwiftShader", "virgl (LLVMPIPE (LLVM 15.0.6, 256 bits))"}) {
        EXPECT_TRUE(isSoftwareRenderer(name)) << name;
    }
    for (const char* name : {"Mesa Intel(R) UHD Graphics 620 (KBL GT2)", "NVIDIA GeForce RTX 3060/PCIe/SSE2",
                             "AMD Radeon RX 6600 (navi23, LLVM 15.0.6, DRM 3.49, 6.1.0)", "V3D 4.2"}) {
        EXPECT_FALSE(isSoftwareRenderer(name)) << name;
    }
}

}  // namespace
}  // namespace velmora
