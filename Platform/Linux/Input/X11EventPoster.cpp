#include "Platform/Linux/Input/X11EventPoster.h"

#include <fmt/format.h>
#include <xcb/xtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Wire/KeyCodes.h"

namespace velmora {
namespace {

using Kind = PostedEvent::Kind;
using Lock = XKeymap::Lock;

constexpr std::uint16_t macTab = 0x30, macSpace = 0x31, macC = 0x08, macV = 0x09, macCapsLock = 0x39,
                        macRightCommand = 0x36, macLeftCommand = 0x37;
constexpr int xCodeOfEvdev = 8;  // how far X11 key codes lie above evdev's
constexpr std::uint8_t returnKey = 36, tabKey = 23, leftControl = 37, rightControl = 105, rightAlt = 108;
// Of an agent's drag, whose events come all at once. A window manager that has been told of the press asks
// for the pointer, and if the button is up again by then, there was no drag. No hand is that fast.
constexpr std::chrono::milliseconds dragBegins{40}, dragInterval{8};
constexpr std::uint8_t wheelUp = 4, wheelDown = 5, wheelLeft = 6, wheelRight = 7;

std::uint8_t xButton(int button) {
    return button == 0 ? 1 : button == 1 ? 3 : 2;
}

std::int16_t coordinate(double value) {
    if (std::isnan(value)) return 0;
    return static_cast<std::int16_t>(std::floor(std::clamp(value, -32768.0, 32767.0)));
}

bool isKeypadDigit(std::uint16_t keyCode) {
    return keyCode == 0x41 || (keyCode >= 0x52 && keyCode <= 0x59) || keyCode == 0x5B || keyCode == 0x5C;
}

/// Before a keymap is known, and where a layout has no say: the keys of any keyboard.
HeldKeys::Layout commonLayout() {
    using enum ModifierKind;
    return {.kinds = {{50, shift},
                      {62, shift},
                      {leftControl, control},
                      {rightControl, control},
                      {64, option},
                      {rightAlt, option},
                      {133, command},
                      {134, command}},
            .keyFor = {50, leftControl, 64, 133, 0}};
}

bool hasXTest(const XConnection& connection) {
    return connection.extension(xcb_test_id) != nullptr;
}

}  // namespace

Result<std::unique_ptr<EventPoster>> X11EventPoster::open(const std::string& display,
                                                          const EventPosterFactory::Options& options) {
    auto connection = XConnection::open(display);
    if (!connection) return connection.error();
    if (!hasXTest(**connection)) return Failure{"the X server takes no synthetic events (no XTEST)"};
    SpareKeys::clearLeftovers(**connection);
    return std::unique_ptr<EventPoster>(new X11EventPoster(std::move(*connection), options));
}

X11EventPoster::X11EventPoster(std::unique_ptr<XConnection> connection,
                               const EventPosterFactory::Options& options)
    : connection_(std::move(connection)),
      options_(options),
      focus_(*connection_, [this](const xcb_generic_event_t& event) { keymap_.handleEvent(event); }),
      keymap_(*connection_, [this](XKeymap::Code code) { return spareKeys_ && spareKeys_->isOurs(code); }),
      held_([this](HeldKeys::Device device, HeldKeys::Code code, bool down) {
          if (device == HeldKeys::Device::key) {
              emit(down ? XCB_KEY_PRESS : XCB_KEY_RELEASE, code);
          } else {
              emit(down ? XCB_BUTTON_PRESS : XCB_BUTTON_RELEASE, code);
          }
      }) {
    held_.setLayout(commonLayout());
    followKeymap();  // now, and not when the first key is waiting
}

X11EventPoster::~X11EventPoster() {
    held_.releaseEverything();
    for (const auto& [lock, on] : locksBefore_) keymap_.setLocked(lock, on);
    xcb_flush(*connection_);
    spareKeys_.reset();
    // The server may still read what we wrote when the connection closes, but is not sure to: ask it
    // something.
    connection_->reply(xcb_get_input_focus_reply, xcb_get_input_focus(*connection_));
}

void X11EventPoster::post(const PostedEvent& event) {
    takeEvents();
    if (connection_->isBroken()) {
        if (!std::exchange(saidBroken_, true))
            hostLog("⚠︎ The X server is gone: no more input is posted");
        return;
    }
    switch (event.kind) {
        case Kind::mouseMove:
            movePointer(event);
            break;
        case Kind::mouseDrag:
            movePointer(event, std::exchange(isDragging_, options_.agent) ? dragInterval : dragBegins);
            break;
        case Kind::mouseDown:
            movePointer(event);
            held_.pressButton(xButton(event.button), modifiersFor(event));
            break;
        case Kind::mouseUp:
            movePointer(event, dragInterval);
            held_.releaseButton(xButton(event.button));
            isDragging_ = false;
            break;
        case Kind::scroll:
            scroll(event);
            break;
        case Kind::keyDown:
            pressKey(event);
            break;
        case Kind::keyUp:
            releaseKey(event);
            break;
        case Kind::text:
            type(event.text);
            break;
    }
    xcb_flush(*connection_);
}

/// `pause` is what lies before the event if it is part of an agent's drag.
void X11EventPoster::movePointer(const PostedEvent& event, std::chrono::milliseconds pause) {
    // The server does the waiting: it takes up nothing further from this connection meanwhile.
    const auto wait = isDragging_ ? pause : pause.zero();
    emit(XCB_MOTION_NOTIFY, 0, coordinate(event.x), coordinate(event.y), wait);
}

void X11EventPoster::scroll(const PostedEvent& event) {
    const auto click = [&](int clicks, std::uint8_t positive, std::uint8_t negative) {
        for (int i = 0; i < std::abs(clicks); ++i) {
            held_.tapButton(clicks > 0 ? positive : negative, modifiersFor(event));
        }
    };
    const int up = vertical_.add(event.scrollY);
    const int left = horizontal_.add(event.scrollX);
    if (up == 0 && left == 0) return;
    click(up, wheelUp, wheelDown);
    click(left, wheelLeft, wheelRight);
    held_.putBack();
}

void X11EventPoster::pressKey(const PostedEvent& event) {
    followKeymap();
    if (event.keyCode == macCapsLock) return lock(Lock::caps, true);
    const auto code = xCodeFor(event.keyCode);
    if (!code) return;
    ModifierSet wanted = modifiersFor(event);
    if (options_.agent && wanted.contains(ModifierKind::command)) {
        if (event.keyCode == macSpace) return;  // opens nothing here
        wanted = shortcutOfAgent(*code, event.keyCode, wanted);
    }
    const bool isModifier = event.keyCode >= macRightCommand && event.keyCode <= 0x3F;
    if (!isModifier) {
        lock(Lock::caps, (event.flags & EventFlags::capsLock) != 0);
        if (isKeypadDigit(event.keyCode)) lock(Lock::num, true);
        if (const auto character = deadCharacterAt(event, *code)) return type({1, char16_t(*character)});
    }
    held_.pressKey(*code, wanted);
}

void X11EventPoster::releaseKey(const PostedEvent& event) {
    if (event.keyCode == macCapsLock) return lock(Lock::caps, false);
    if (const auto code = xCodeFor(event.keyCode)) held_.releaseKey(*code);
}

/// A Mac has Command where other machines have Control.
ModifierSet X11EventPoster::shortcutOfAgent(std::uint8_t code, std::uint16_t keyCode, ModifierSet wanted) {
    wanted.erase(ModifierKind::command);
    if (keyCode == macTab) {
        wanted.insert(ModifierKind::option);
        return wanted;
    }
    wanted.insert(ModifierKind::control);
    const char32_t character = plainCharacterOf(code);
    const bool isCopyOrPaste =
        character != 0 ? character == U'c' || character == U'v' : keyCode == macC || keyCode == macV;
    // In a terminal control and C end the program.
    if (isCopyOrPaste && focus_.isTerminal()) wanted.insert(ModifierKind::shift);
    return wanted;
}

char32_t X11EventPoster::plainCharacterOf(std::uint8_t code) {
    return keymap_.refresh() ? xkb_keysym_to_utf32(keymap_.symbolOf({.code = code})) : 0;
}

/// An agent that types a sign means that sign; on a dead key it would wait for a letter, and "x^2" would come
/// out as "x²". A person's viewer composes letters with it.
std::optional<char32_t> X11EventPoster::deadCharacterAt(const PostedEvent& event, std::uint8_t code) {
    constexpr std::uint64_t shortcut = EventFlags::control | EventFlags::command;
    if (!options_.agent || !event.forCharacter || (event.flags & shortcut) != 0) return std::nullopt;
    if (!keymap_.refresh()) return std::nullopt;
    const char32_t character = XKeymap::spacingCharacterOf(keymap_.symbolOf(
        {.code = code, .shift = (event.flags & EventFlags::shift) != 0, .level3 = event.optionIsLevel}));
    if (character == 0) return std::nullopt;
    return character;
}

void X11EventPoster::type(const std::u16string& text) {
    followKeymap();
    lock(Lock::caps, false);
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t character = text[i];
        if (character >= 0xD800 && character <= 0xDFFF) {
            const bool isPair =
                character < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF;
            if (!isPair) continue;
            character = 0x10000 + ((character - 0xD800) << 10) + (text[++i] - 0xDC00u);
        }
        typeCharacter(character);
    }
    held_.putBack();
}

void X11EventPoster::typeCharacter(char32_t character) {
    if (character == U'\n' || character == U'\r') return held_.tapKey(returnKey, {});
    if (character == U'\t') return held_.tapKey(tabKey, {});
    if (character < 32 || character == 127) return;
    if (const auto stroke = characters_.find(character); stroke != characters_.end()) {
        ModifierSet wanted;
        if (stroke->second.shift) wanted.insert(ModifierKind::shift);
        if (stroke->second.level3) wanted.insert(ModifierKind::level3);
        return held_.tapKey(stroke->second.code, wanted);
    }
    const xkb_keysym_t symbol = xkb_utf32_to_keysym(character);
    if (symbol == XKB_KEY_NoSymbol) return;
    if (const auto code = spareKeys().codeFor(symbol)) held_.tapKey(*code, {});
}

std::optional<std::uint8_t> X11EventPoster::xCodeFor(std::uint16_t keyCode) const {
    if (options_.agent && keyCode == macLeftCommand) return leftControl;
    if (options_.agent && keyCode == macRightCommand) return rightControl;
    const auto evdev = evdevFromMacKey(keyCode);
    if (!evdev) return std::nullopt;
    return static_cast<std::uint8_t>(*evdev + xCodeOfEvdev);
}

ModifierSet X11EventPoster::modifiersFor(const PostedEvent& event) const {
    ModifierSet wanted;
    if (event.flags & EventFlags::shift) wanted.insert(ModifierKind::shift);
    if (event.flags & EventFlags::control) wanted.insert(ModifierKind::control);
    if (event.flags & EventFlags::option) {
        wanted.insert(event.optionIsLevel ? ModifierKind::level3 : ModifierKind::option);
    }
    if (event.flags & EventFlags::command) wanted.insert(ModifierKind::command);
    const bool isPointer = event.kind == Kind::mouseDown || event.kind == Kind::scroll;
    if (options_.agent && isPointer && wanted.contains(ModifierKind::command)) {
        wanted.erase(ModifierKind::command);
        wanted.insert(ModifierKind::control);
    }
    return wanted;
}

void X11EventPoster::takeEvents() {
    while (const auto event = connection_->pollEvent()) keymap_.handleEvent(*event);
}

/// What we keep of the keyboard map, brought up to date.
void X11EventPoster::followKeymap() {
    if (!keymap_.refresh() || keymap_.generation() == keymapSeen_) return;
    keymapSeen_ = keymap_.generation();
    if (spareKeys_) spareKeys_->mapWasReplaced();
    characters_ = keymap_.characters();
    HeldKeys::Layout layout = commonLayout();
    if (const auto code = keymap_.level3Key()) {
        layout.keyFor[static_cast<std::size_t>(ModifierKind::level3)] = code;
        layout.kinds[code] = ModifierKind::level3;
    }
    held_.setLayout(std::move(layout));
}

SpareKeys& X11EventPoster::spareKeys() {
    if (!spareKeys_) {
        spareKeys_ = std::make_unique<SpareKeys>(*connection_, [this] {
            // What is typed so far must be with the application before it is asked whether it has taken it.
            xcb_flush(*connection_);
            focus_.settle();
        });
    }
    return *spareKeys_;
}

void X11EventPoster::lock(Lock lock, bool on) {
    if (keymap_.isLocked(lock) == on) return;
    locksBefore_.try_emplace(lock, !on);
    keymap_.setLocked(lock, on);
}

void X11EventPoster::emit(std::uint8_t type, std::uint8_t detail, int x, int y,
                          std::chrono::milliseconds wait) {
    xcb_test_fake_input(*connection_, type, detail, static_cast<std::uint32_t>(wait.count()),
                        connection_->root(), static_cast<std::int16_t>(x), static_cast<std::int16_t>(y), 0);
}

namespace {

class X11EventPosterFactory final : public EventPosterFactory {
public:
    explicit X11EventPosterFactory(std::string display) : display_(std::move(display)) {}

    std::unique_ptr<EventPoster> make(const Options& options) override {
        auto poster = X11EventPoster::open(display_, options);
        if (poster) return std::move(*poster);
        hostLog(fmt::format("⚠︎ No input can be posted: {}", poster.error().text));
        return nullptr;
    }

private:
    const std::string display_;
};

class NoEventPosterFactory final : public EventPosterFactory {
public:
    std::unique_ptr<EventPoster> make(const Options&) override {
        hostLog("⚠︎ No input can be posted: a Wayland session takes none from an X11 program");
        return nullptr;
    }
};

bool isWaylandSession() {
    const char* type = std::getenv("XDG_SESSION_TYPE");
    const char* socket = std::getenv("WAYLAND_DISPLAY");
    return (type != nullptr && std::strcmp(type, "wayland") == 0) || (socket != nullptr && *socket != '\0');
}

}  // namespace

std::unique_ptr<EventPosterFactory> makeX11EventPosterFactory(std::string display) {
    return std::make_unique<X11EventPosterFactory>(std::move(display));
}

std::unique_ptr<EventPosterFactory> makeEventPosterFactory() {
    if (isWaylandSession()) return std::make_unique<NoEventPosterFactory>();
    if (const auto connection = XConnection::open()) SpareKeys::clearLeftovers(**connection);
    return makeX11EventPosterFactory();
}

}  // namespace velmora
