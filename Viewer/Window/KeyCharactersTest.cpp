#include "Viewer/Window/KeyCharacters.h"

#include "Platform/EventPoster.h"
#include "Viewer/Window/WidgetTest.h"

namespace velmora {
namespace {

constexpr quint32 lock = 2;  // of X11

using KeyCharactersTest = WidgetTest;

QKeyEvent pressOf(int key, const QString& text, Qt::KeyboardModifiers modifiers = {}, quint32 native = 0,
                  quint32 evdev = 30) {
    return QKeyEvent(QEvent::KeyPress, key, modifiers, evdev + 8, 0, native, text);
}

TEST_F(KeyCharactersTest, aKeyStandsForItsTextWithoutModifiers) {
    struct Case {
        const char* what;
        QKeyEvent event;
        std::optional<std::string> characters;
    };
    const auto ctrl = Qt::ControlModifier, shift = Qt::ShiftModifier, alt = Qt::AltModifier;
    const Case cases[] = {
        {"letter", pressOf(Qt::Key_A, "a"), "a"},
        {"shifted", pressOf(Qt::Key_A, "A", shift), "A"},
        {"with caps lock", pressOf(Qt::Key_A, "A", {}, lock), "a"},
        {"shifted with caps lock", pressOf(Qt::Key_A, "a", shift, lock), "A"},
        {"shortcut", pressOf(Qt::Key_C, "\x03", ctrl), "c"},
        {"shortcut with shift", pressOf(Qt::Key_C, "\x03", ctrl | shift), "C"},
        {"sign with alt", pressOf(Qt::Key_Exclam, "!", alt | shift), "!"},
        {"by AltGr", pressOf(Qt::Key_At, "@", Qt::GroupSwitchModifier), "@"},
        {"beyond the basic plane", pressOf(Qt::Key_unknown, QString::fromUtf8("😀")), "😀"},
        {"space", pressOf(Qt::Key_Space, " "), " "},
        {"return", pressOf(Qt::Key_Return, "\r"), std::nullopt},
        {"backspace", pressOf(Qt::Key_Backspace, "\b"), std::nullopt},
        {"delete", pressOf(Qt::Key_Delete, "\x7f"), std::nullopt},
        {"arrow", pressOf(Qt::Key_Left, ""), std::nullopt},
        {"function key's sign", pressOf(Qt::Key_F5, QString(QChar(0xF708))), std::nullopt},
        {"a function key with control", pressOf(Qt::Key_F5, "", ctrl), std::nullopt},
        {"two characters", pressOf(Qt::Key_unknown, "ab"), std::nullopt},
        {"modifier", pressOf(Qt::Key_Shift, ""), std::nullopt},
    };
    for (const Case& c : cases) {
        KeyCharacters characters;
        const auto press = characters.take(c.event);
        EXPECT_EQ(press.characters, c.characters) << c.what;
        EXPECT_FALSE(press.waits) << c.what;
    }
}

TEST_F(KeyCharactersTest, aDeadKeyBecomesOneCharacterWithTheNext) {
    const QKeyEvent acute = pressOf(Qt::Key_Dead_Acute, ""), tilde = pressOf(Qt::Key_Dead_Tilde, "");
    const QKeyEvent e = pressOf(Qt::Key_E, "e"), b = pressOf(Qt::Key_B, "b"), o = pressOf(Qt::Key_O, "o");
    const QKeyEvent shift = pressOf(Qt::Key_Shift, ""), bigE = pressOf(Qt::Key_E, "E", Qt::ShiftModifier);
    const QKeyEvent space = pressOf(Qt::Key_Space, " "), enter = pressOf(Qt::Key_Return, "\r");
    struct Case {
        const char* what;
        std::vector<const QKeyEvent*> events;
        std::string before;
        std::optional<std::string> characters;
    };
    const Case cases[] = {
        {"letter", {&acute, &e}, "", "é"},
        {"shift comes between", {&acute, &shift, &bigE}, "", "É"},
        {"space", {&tilde, &space}, "", "~"},
        {"twice", {&tilde, &tilde}, "", "~"},
        {"no such letter", {&acute, &b}, "´", "b"},
        {"return", {&acute, &enter}, "´", std::nullopt},
        {"another first", {&tilde, &acute, &o}, "", "ó"},
    };
    for (const Case& c : cases) {
        KeyCharacters characters;
        KeyCharacters::Press press;
        for (const QKeyEvent* event : c.events) press = characters.take(*event);
        EXPECT_EQ(press.before, c.before) << c.what;
        EXPECT_EQ(press.characters, c.characters) << c.what;
        EXPECT_FALSE(press.waits) << c.what;
    }
}

TEST_F(KeyCharactersTest, keysHaveTheCodeOfTheirPlaceAndModifiersOfTheTimeBefore) {
    const auto keypad = Qt::KeypadModifier;
    EXPECT_EQ(keyCodeOf(pressOf(Qt::Key_Q, "q", {}, 0, 16)), 0x0C);
    EXPECT_EQ(keyCodeOf(pressOf(Qt::Key_7, "7", keypad, 0, 71)), 0x59);
    EXPECT_EQ(keyCodeOf(pressOf(Qt::Key_Home, "", keypad, 0, 71)), 0x73);
    EXPECT_EQ(keyCodeOf(pressOf(Qt::Key_Print, "", {}, 0, 99)), std::nullopt);
    EXPECT_EQ(keyCodeOf(QKeyEvent(QEvent::KeyPress, Qt::Key_A, {}, 0, 0, 0)), std::nullopt);
    using namespace EventFlags;
    EXPECT_EQ(inputFlagsOf(pressOf(Qt::Key_A, "A", Qt::ShiftModifier | Qt::MetaModifier, lock)),
              shift | command | capsLock);
    EXPECT_EQ(inputFlagsOf(pressOf(Qt::Key_Shift, "", Qt::AltModifier)), option);
    // The second of two shifts: the first is held already.
    EXPECT_EQ(inputFlagsOf(pressOf(Qt::Key_Shift, "", Qt::ShiftModifier)), shift);
}

}  // namespace
}  // namespace velmora
