#include "Viewer/Window/KeyCharacters.h"

#include <QString>
#include <QTextBoundaryFinder>
#include <algorithm>
#include <iterator>

#include "Platform/EventPoster.h"

namespace velmora {

namespace {

/// A dead key, the mark that it puts on a letter, and its sign when it stands alone.
struct DeadKey {
    int key;
    char16_t mark, sign;
};
constexpr DeadKey deadKeys[] = {
    {Qt::Key_Dead_Grave, 0x300, 0x60},      {Qt::Key_Dead_Acute, 0x301, 0xB4},
    {Qt::Key_Dead_Circumflex, 0x302, 0x5E}, {Qt::Key_Dead_Tilde, 0x303, 0x7E},
    {Qt::Key_Dead_Macron, 0x304, 0xAF},     {Qt::Key_Dead_Breve, 0x306, 0x2D8},
    {Qt::Key_Dead_Abovedot, 0x307, 0x2D9},  {Qt::Key_Dead_Diaeresis, 0x308, 0xA8},
    {Qt::Key_Dead_Abovering, 0x30A, 0x2DA}, {Qt::Key_Dead_Doubleacute, 0x30B, 0x2DD},
    {Qt::Key_Dead_Caron, 0x30C, 0x2C7},     {Qt::Key_Dead_Cedilla, 0x327, 0xB8},
    {Qt::Key_Dead_Ogonek, 0x328, 0x2DB},
};

const DeadKey* findDeadKey(int key) {
    const auto found = std::ranges::find(deadKeys, key, &DeadKey::key);
    return found == std::end(deadKeys) ? nullptr : &*found;
}

struct CaretKey {
    int key;
    std::uint16_t code;
};
constexpr CaretKey caretKeys[] = {
    {Qt::Key_Home, 0x73},   {Qt::Key_End, 0x77},    {Qt::Key_PageUp, 0x74}, {Qt::Key_PageDown, 0x79},
    {Qt::Key_Left, 0x7B},   {Qt::Key_Right, 0x7C},  {Qt::Key_Down, 0x7D},   {Qt::Key_Up, 0x7E},
    {Qt::Key_Delete, 0x75}, {Qt::Key_Insert, 0x72},
};

constexpr int firstSpecialKey = 0x01000000;  // below it Qt's keys are characters
constexpr quint32 lockMask = 2;              // of X11's modifier state, which other platforms repeat

bool isTypeable(uint scalar) {
    return scalar >= 0x20 && !(scalar >= 0x7F && scalar < 0xA0) && !(scalar >= 0xF700 && scalar <= 0xF8FF);
}

/// The one character of `text` that a key may stand for.
QString typeable(const QString& text) {
    const auto scalars = text.toUcs4();
    return scalars.size() == 1 && isTypeable(scalars[0]) ? text : QString();
}

QString charactersOf(const QKeyEvent& event) {
    const bool shift = event.modifiers().testFlag(Qt::ShiftModifier);
    if (event.modifiers() & (Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier)) {
        if (event.key() <= 0 || event.key() >= firstSpecialKey) return {};
        const char32_t scalar = static_cast<char32_t>(event.key());
        const QString text = QString::fromUcs4(&scalar, 1);
        return typeable(shift ? text : text.toLower());
    }
    const QString text = typeable(event.text());
    if (!(event.nativeModifiers() & lockMask)) return text;
    return shift ? text.toUpper() : text.toLower();
}

}  // namespace

std::uint64_t inputFlagsOf(Qt::KeyboardModifiers modifiers, bool capsLock) {
    std::uint64_t flags = capsLock ? EventFlags::capsLock : 0;
    if (modifiers & Qt::ShiftModifier) flags |= EventFlags::shift;
    if (modifiers & Qt::ControlModifier) flags |= EventFlags::control;
    if (modifiers & Qt::AltModifier) flags |= EventFlags::option;
    if (modifiers & Qt::MetaModifier) flags |= EventFlags::command;
    return flags;
}

std::uint64_t inputFlagsOf(const QKeyEvent& event) {
    Qt::KeyboardModifiers before = event.modifiers();
    // QKeyEvent::modifiers turns over the bit of the key itself, which is wrong when its twin is held too.
    switch (event.key()) {
        case Qt::Key_Shift:
            before ^= Qt::ShiftModifier;
            break;
        case Qt::Key_Control:
            before ^= Qt::ControlModifier;
            break;
        case Qt::Key_Alt:
            before ^= Qt::AltModifier;
            break;
        case Qt::Key_Meta:
            before ^= Qt::MetaModifier;
            break;
        default:
            break;
    }
    return inputFlagsOf(before, (event.nativeModifiers() & lockMask) != 0);
}

std::optional<std::uint16_t> keyCodeOf(const QKeyEvent& event) {
    if ((event.modifiers() & Qt::KeypadModifier) && event.text().isEmpty()) {
        const auto caret = std::ranges::find(caretKeys, event.key(), &CaretKey::key);
        if (caret != std::end(caretKeys)) return caret->code;
    }
    constexpr quint32 x11Offset = 8;  // Wayland keeps it too
    if (event.nativeScanCode() < x11Offset) return std::nullopt;
    return macKeyFromEvdev(static_cast<std::uint16_t>(event.nativeScanCode() - x11Offset));
}

bool KeyCharacters::isModifier(int key) {
    switch (key) {
        case Qt::Key_Shift:
        case Qt::Key_Control:
        case Qt::Key_Meta:
        case Qt::Key_Alt:
        case Qt::Key_AltGr:
        case Qt::Key_CapsLock:
        case Qt::Key_NumLock:
        case Qt::Key_ScrollLock:
        case Qt::Key_Super_L:
        case Qt::Key_Super_R:
            return true;
        default:
            return false;
    }
}

std::vector<std::string> KeyCharacters::typeableIn(const QString& text) {
    std::vector<std::string> found;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    for (qsizetype start = 0, end; (end = finder.toNextBoundary()) != -1; start = end) {
        const QString character = text.mid(start, end - start);
        const auto scalars = character.toUcs4();
        if (std::ranges::all_of(scalars, isTypeable)) found.push_back(character.toStdString());
    }
    return found;
}

KeyCharacters::Press KeyCharacters::take(const QKeyEvent& event) {
    if (isModifier(event.key())) return {};
    if (findDeadKey(event.key())) return takeDeadKey(event.key());
    const DeadKey* const dead = findDeadKey(std::exchange(pending_, 0));
    const QString text = charactersOf(event);
    if (!dead) return text.isEmpty() ? Press{} : Press{.characters = text.toStdString()};
    const QString sign(QChar{dead->sign});
    if (text == QLatin1String(" ")) return {.characters = sign.toStdString()};
    const QString composed = (text + QChar{dead->mark}).normalized(QString::NormalizationForm_C);
    if (!text.isEmpty() && !typeable(composed).isEmpty()) return {.characters = composed.toStdString()};
    Press press{.before = sign.toStdString()};
    if (!text.isEmpty()) press.characters = text.toStdString();
    return press;
}

KeyCharacters::Press KeyCharacters::takeDeadKey(int key) {
    const DeadKey* const first = findDeadKey(std::exchange(pending_, 0));
    if (!first) {
        pending_ = key;
        return {.waits = true};
    }
    // Twice the same is its sign once; of two different ones the first is done with.
    const std::string sign = QString(QChar{first->sign}).toStdString();
    if (first->key == key) return {.characters = sign};
    pending_ = key;
    return {.before = sign, .waits = true};
}

}  // namespace velmora
