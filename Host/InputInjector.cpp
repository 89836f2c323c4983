#include "Host/InputInjector.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <string_view>

#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {
namespace {

using Kind = PostedEvent::Kind;

// Reading the displays takes a round trip to the window system: once per fifth of a second, not per movement.
constexpr auto boundsLifetime = std::chrono::milliseconds(200);

/// Events know left, right and other.
int postedButton(int button) {
    return button == 0 || button == 1 ? button : 2;
}

int cutButton(std::int64_t button) {
    return button < 0 || button > 31 ? 31 : static_cast<int>(button);
}

int wholePixels(double delta) {
    if (std::isnan(delta)) return 0;
    constexpr double limit = std::numeric_limits<std::int32_t>::max();
    return static_cast<int>(std::round(std::clamp(delta, -limit, limit)));
}

/// A key stands for a character, or a few that belong together. Each may take tens of milliseconds to type,
/// and nothing stops a text once it is begun: a megabyte would hold up everybody's input for hours.
constexpr std::size_t longestText = 1000;

/// The Unicode scalars of `utf8`, which the record's decoder has found valid; stray bytes become U+FFFD.
std::u32string scalarsOf(std::string_view utf8) {
    std::u32string scalars;
    for (std::size_t i = 0; i < utf8.size();) {
        const auto first = static_cast<unsigned char>(utf8[i]);
        const std::size_t length = first < 0x80             ? 1
                                   : (first & 0xE0) == 0xC0 ? 2
                                   : (first & 0xF0) == 0xE0 ? 3
                                   : (first & 0xF8) == 0xF0 ? 4
                                                            : 0;
        char32_t scalar = length <= 1 ? first : first & (0x7Fu >> length);
        bool valid = length != 0 && i + length <= utf8.size();
        for (std::size_t k = 1; valid && k < length; ++k) {
            const auto next = static_cast<unsigned char>(utf8[i + k]);
            valid = (next & 0xC0) == 0x80;
            scalar = scalar << 6 | (next & 0x3Fu);
        }
        valid = valid && scalar <= 0x10FFFF && !(scalar >= 0xD800 && scalar <= 0xDFFF);
        scalars.push_back(valid ? scalar : U'\uFFFD');
        i += valid ? length : 1;
    }
    return scalars;
}

std::u16string utf16Of(const std::u32string& scalars) {
    std::u16string units;
    for (const char32_t scalar : scalars) {
        if (scalar < 0x10000) {
            units.push_back(static_cast<char16_t>(scalar));
            continue;
        }
        units.push_back(static_cast<char16_t>(0xD800 + ((scalar - 0x10000) >> 10)));
        units.push_back(static_cast<char16_t>(0xDC00 + ((scalar - 0x10000) & 0x3FF)));
    }
    return units;
}

/// Whether this is something to type, and not the sign of a control or function key.
bool isTypeable(const std::u32string& characters) {
    return !characters.empty() && std::ranges::none_of(characters, [](char32_t scalar) {
        return scalar < 32 || scalar == 127 || (scalar >= 0xF700 && scalar <= 0xF8FF);
    });
}

}  // namespace

InputInjector::InputInjector(std::unique_ptr<EventPoster> poster, KeyboardLayout& layout, Displays& displays,
                             const Queue& input, Options options, Launcher* launcher)
    : poster_(std::move(poster)),
      displays_(displays),
      input_(input),
      options_(options),
      layout_(layout, input) {
    if (options.agent && launcher) launcher_.emplace(*launcher);
}

void InputInjector::setDisplay(DisplayId display) {
    assertOn(input_);
    displayId_ = display;
    boundsReadAt_.reset();
}

void InputInjector::handle(const InputEvent& event) {
    assertOn(input_);
    if (launcher_ && launcher_->take(event, displayBounds().value_or(PixelRect{}))) return;
    switch (event.kind) {
        case InputEvent::Kind::mouseMove:
            return handleMove(event);
        case InputEvent::Kind::mouseDown:
        case InputEvent::Kind::mouseUp:
            return handleButton(event);
        case InputEvent::Kind::scroll:
            return handleScroll(event);
        case InputEvent::Kind::key:
            return event.down ? handleKeyDown(event) : handleKeyUp(event);
    }
}

void InputInjector::releaseAll() {
    assertOn(input_);
    if (launcher_) launcher_->close();
    for (const Button button : std::exchange(buttonsDown_, {})) postButton(Kind::mouseUp, button, 1, 0);
}

void InputInjector::handleMove(const InputEvent& event) {
    const auto point = globalPoint(event);
    if (!point) return;
    lastPoint_ = *point;
    PostedEvent posted{.kind = Kind::mouseMove, .x = point->x, .y = point->y, .flags = event.flags};
    for (const Button button : {0, 1, 2}) {
        if (!buttonsDown_.contains(button)) continue;
        posted.kind = Kind::mouseDrag;
        posted.button = button;
        break;
    }
    poster_->post(posted);
}

void InputInjector::handleButton(const InputEvent& event) {
    const bool down = event.kind == InputEvent::Kind::mouseDown;
    const Button button = cutButton(event.button);
    if (const auto point = globalPoint(event)) {
        lastPoint_ = *point;
    } else if (down) {
        return;  // but an up is wanted wherever it is: the button must not stay pressed
    }
    if (down) {
        buttonsDown_.insert(button);
    } else {
        buttonsDown_.erase(button);
    }
    const auto clickCount =
        std::clamp<std::int64_t>(event.clickCount, 1, std::numeric_limits<std::int32_t>::max());
    postButton(down ? Kind::mouseDown : Kind::mouseUp, button, static_cast<int>(clickCount), event.flags);
}

void InputInjector::postButton(Kind kind, Button button, int clickCount, std::uint64_t flags) {
    poster_->post({.kind = kind,
                   .x = lastPoint_.x,
                   .y = lastPoint_.y,
                   .button = postedButton(button),
                   .clickCount = clickCount,
                   .flags = flags});
}

void InputInjector::handleScroll(const InputEvent& event) {
    poster_->post({.kind = Kind::scroll,
                   .scrollX = wholePixels(event.dx),
                   .scrollY = wholePixels(event.dy),
                   .flags = event.flags});
}

void InputInjector::handleKeyDown(const InputEvent& event) {
    std::u32string characters = scalarsOf(event.characters.value_or(""));
    if (!isTypeable(characters)) {
        poster_->post({.kind = Kind::keyDown, .keyCode = event.keyCode, .flags = event.flags});
        return;
    }
    if (const auto key = layout_.keyFor(*event.characters)) return pressMapped(event, *key);
    if (characters.size() > longestText) {
        hostLog(fmt::format("⚠︎ A key stood for {} characters; typing the first {}", characters.size(),
                            longestText));
        characters.resize(longestText);
    }
    // The key's own up follows as a stray one for its raw code, which presses nothing and lifts nothing.
    poster_->post({.kind = Kind::text, .text = utf16Of(characters)});
}

void InputInjector::pressMapped(const InputEvent& event, const KeyboardLayoutMap::Key& key) {
    using namespace EventFlags;
    mappedDown_[event.keyCode] = key.keyCode;
    const bool isShortcut = (event.flags & (control | command)) != 0;
    std::uint64_t flags = event.flags & ~(shift | option);
    if (key.shift || (options_.agent && (event.flags & shift))) flags |= shift;
    if (key.option || (isShortcut && (event.flags & option))) flags |= option;
    poster_->post({.kind = Kind::keyDown,
                   .keyCode = key.keyCode,
                   .flags = flags,
                   .forCharacter = true,
                   .optionIsLevel = key.option});
}

void InputInjector::handleKeyUp(const InputEvent& event) {
    PostedEvent posted{.kind = Kind::keyUp, .keyCode = event.keyCode, .flags = event.flags};
    if (const auto mapped = mappedDown_.find(event.keyCode); mapped != mappedDown_.end()) {
        posted.keyCode = mapped->second;
        mappedDown_.erase(mapped);
    }
    poster_->post(posted);
}

/// None if nobody knows the display, or the viewer's numbers lead nowhere.
std::optional<InputInjector::Point> InputInjector::globalPoint(const InputEvent& event) {
    const auto bounds = displayBounds();
    if (!bounds) return std::nullopt;
    const Point point{bounds->x + event.x * bounds->width, bounds->y + event.y * bounds->height};
    if (!std::isfinite(point.x) || !std::isfinite(point.y)) return std::nullopt;
    return point;
}

std::optional<PixelRect> InputInjector::displayBounds() {
    const auto now = input_.now();
    if (boundsReadAt_ && now - *boundsReadAt_ < boundsLifetime) return bounds_;
    boundsReadAt_ = now;
    const auto all = displays_.list();
    bounds_.reset();
    if (!all) return bounds_;
    const auto found = displayId_ == 0 ? all->begin() : std::ranges::find(*all, displayId_, &Display::id);
    if (found != all->end()) bounds_ = found->bounds;
    return bounds_;
}

}  // namespace velmora
