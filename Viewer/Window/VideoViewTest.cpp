#include "Viewer/Window/VideoView.h"

#include <QBackingStore>
#include <QInputMethodEvent>
#include <QMouseEvent>
#include <QWheelEvent>
#include <vector>

#include "Shared/Preferences.h"
#include "Testing/FakePicturePainter.h"
#include "Testing/FakePreferenceStore.h"
#include "Viewer/Window/WidgetTest.h"

namespace velmora {
namespace {

class VideoViewTest : public WidgetTest {
protected:
    VideoViewTest() {
        auto owned = std::make_unique<FakePicturePainter>();
        painter = owned.get();
        view = std::make_unique<VideoView>(std::move(owned), preferences, nullptr);
        view->resize(320, 200);
        view->setStreamSize({320, 160});
        view->input().onInput = [this](const InputEvent& event) { sent.push_back(event); };
        view->show();
        turnEvents();
        painter->paintings = 0;
    }
    static SharedPicture picture(std::uint8_t light, std::optional<QPoint> dot = {}) {
        const auto buffer = std::make_shared<PictureBuffer>(PixelSize{320, 160});
        std::fill(buffer->y, buffer->u, light);
        if (dot) buffer->y[dot->y() * buffer->strideY + dot->x()] = 16;
        return PictureBuffer::view(buffer);
    }
    QRgb pixelAt(int x, int y) const {
        return dynamic_cast<QImage*>(view->backingStore()->paintDevice())->pixel(x, y);
    }
    void moveTo(double x, double y, Qt::MouseButtons held = {}) {
        QMouseEvent event(QEvent::MouseMove, {x, y}, {x, y}, Qt::NoButton, held, {});
        QCoreApplication::sendEvent(view.get(), &event);
    }
    void press(Qt::MouseButton button, double x, double y, bool isDown = true) {
        QMouseEvent event(isDown ? QEvent::MouseButtonPress : QEvent::MouseButtonRelease, {x, y}, {x, y},
                          button, isDown ? button : Qt::NoButton, {});
        QCoreApplication::sendEvent(view.get(), &event);
    }
    void key(QEvent::Type type, int key, const QString& text, quint32 evdev, bool isRepeat = false) {
        view->forwardKey(QKeyEvent(type, key, {}, evdev + 8, 0, 0, text, isRepeat));
    }
    std::vector<InputEvent> taken() { return std::exchange(sent, {}); }

    FakePreferenceStore preferences;
    FakePicturePainter* painter = nullptr;
    std::unique_ptr<VideoView> view;
    std::vector<InputEvent> sent;
};

TEST_F(VideoViewTest, aPictureIsThereAtOnceAndOnlyItsChangeIsDrawnAgain) {
    EXPECT_EQ(pixelAt(160, 100), 0xFF000000);
    view->showPicture(picture(235));
    EXPECT_EQ(pixelAt(0, 20), 0xFFFFFFFF);
    EXPECT_EQ(pixelAt(319, 179), 0xFFFFFFFF);
    EXPECT_EQ(pixelAt(0, 19), 0xFF000000);  // the bars above and below
    EXPECT_EQ(pixelAt(319, 180), 0xFF000000);
    EXPECT_EQ(painter->paintings, 1);
    view->showPicture(picture(235));
    turnEvents();
    EXPECT_EQ(painter->paintings, 1);
    view->showPicture(picture(235, QPoint(100, 50)));
    EXPECT_EQ(painter->paintings, 2);
    EXPECT_EQ(pixelAt(100, 70), 0xFF000000);
    EXPECT_LE(painter->lastClip.width * painter->lastClip.height, 40);
    view->showPicture(picture(16));
    turnEvents();
    EXPECT_EQ(painter->paintings, 3);
    EXPECT_EQ(pixelAt(160, 100), 0xFF000000);
}

TEST_F(VideoViewTest, aZoomedPictureFollowsThePointerAndInputWithIt) {
    view->showPicture(picture(235, QPoint(0, 0)));
    moveTo(160, 100);
    EXPECT_EQ(taken().back().x, 0.5);
    view->setZoom(9);
    EXPECT_EQ(view->zoom(), 5);
    turnEvents();
    EXPECT_EQ(pixelAt(1, 1), 0xFFFFFFFF);  // its middle, all around
    moveTo(0, 0);
    turnEvents();
    EXPECT_EQ(pixelAt(1, 1), 0xFF000000);  // the dot in its corner
    EXPECT_EQ(taken().back().x, 0);
    moveTo(319.9, 100);
    EXPECT_GT(taken().back().x, 0.99);
    view->setZoom(1);
    turnEvents();
    EXPECT_EQ(pixelAt(0, 19), 0xFF000000);
}

TEST_F(VideoViewTest, buttonsAndWheelsSayWhereAndHowMuch) {
    press(Qt::LeftButton, 80, 100);
    moveTo(-40, 300, Qt::LeftButton);  // dragged outside: the edge of the stream
    press(Qt::LeftButton, 80, 100, false);
    press(Qt::BackButton, 80, 100);  // hosts know no such button
    QWheelEvent wheel({5, 5}, {5, 5}, {}, {0, -120}, {}, {}, Qt::NoScrollPhase, false);
    QCoreApplication::sendEvent(view.get(), &wheel);
    const auto events = taken();
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0], (InputEvent{.kind = InputEvent::Kind::mouseDown, .x = 0.25, .y = 0.5}));
    EXPECT_EQ(events[1], (InputEvent{.kind = InputEvent::Kind::mouseMove, .x = 0, .y = 1}));
    EXPECT_EQ(events[2].kind, InputEvent::Kind::mouseUp);
    EXPECT_EQ(events[3], (InputEvent{.kind = InputEvent::Kind::scroll, .dy = -53}));
    // A release that went to somebody else shows in the next movement.
    press(Qt::RightButton, 80, 100);
    moveTo(80, 100);
    EXPECT_EQ(taken()[1], (InputEvent{.kind = InputEvent::Kind::mouseUp, .x = 0.25, .y = 0.5, .button = 1}));
}

TEST_F(VideoViewTest, repeatsAreForwardedAndTheirReleasesAreNot) {
    key(QEvent::KeyPress, Qt::Key_X, "x", 45);
    key(QEvent::KeyRelease, Qt::Key_X, "x", 45, true);
    key(QEvent::KeyPress, Qt::Key_X, "x", 45, true);
    EXPECT_EQ(taken().size(), 2u);
    key(QEvent::KeyRelease, Qt::Key_X, "x", 45);
    const auto up = taken();
    ASSERT_EQ(up.size(), 1u);
    EXPECT_FALSE(up[0].down);
    preferences.set(PreferenceKeys::keyboardMatchCharacters, false);
    key(QEvent::KeyPress, Qt::Key_X, "x", 45);
    EXPECT_EQ(taken().front().characters, std::nullopt);
}

TEST_F(VideoViewTest, composedTextIsTypedCharacterByCharacterWhileKeysAreTheHosts) {
    const auto commit = [this](const QString& text) {
        QInputMethodEvent event;
        event.setCommitString(text);
        QCoreApplication::sendEvent(view.get(), &event);
    };
    commit("é");
    EXPECT_TRUE(taken().empty());
    view->setAttribute(Qt::WA_InputMethodEnabled);  // as it is on a desktop that only composes
    key(QEvent::KeyPress, Qt::Key_Dead_Acute, "", 40);
    commit(QStringLiteral("é\n😀"));
    const auto events = taken();
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0].characters, "é");
    EXPECT_TRUE(events[0].down && !events[1].down);
    EXPECT_EQ(events[2].characters, "😀");
    key(QEvent::KeyPress, Qt::Key_O, "o", 24);
    EXPECT_EQ(taken().at(0).characters, "o");
}

TEST_F(VideoViewTest, leavingThePictureLetsKeysGoUnlessTheWindowTakesThem) {
    const QKeyEvent release(QEvent::KeyRelease, Qt::Key_X, {}, 53, 0, 0, "x");
    view->setMouseInside(true);
    key(QEvent::KeyPress, Qt::Key_X, "x", 45);
    EXPECT_TRUE(view->isHeldRemotely(release));
    view->setMouseInside(false);
    EXPECT_EQ(taken().size(), 2u);
    EXPECT_FALSE(view->isHeldRemotely(release));

    KeyboardPreferences::setSendKeys(preferences, KeyboardPreferences::SendKeys::windowActive);
    view->setMouseInside(true);
    key(QEvent::KeyPress, Qt::Key_X, "x", 45);
    view->setMouseInside(false);
    EXPECT_EQ(taken().size(), 1u);
    view->releaseEverything();
    EXPECT_EQ(taken().size(), 1u);
}

}  // namespace
}  // namespace velmora
