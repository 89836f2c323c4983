#include "Viewer/Session/InputGestures.h"

#include <algorithm>

#include "Shared/Characters.h"

namespace velmora::InputGestures {

namespace {

constexpr std::uint16_t returnKey = 36, tabKey = 48;

InputEvent pointerEvent(InputEvent::Kind kind, Point at) {
    return {.kind = kind, .x = at.x, .y = at.y};
}

}  // namespace

Point pointAt(double x, double y, int width, int height) {
    if (width <= 0 || height <= 0) return {};
    return {std::clamp(x / width, 0.0, 1.0), std::clamp(y / height, 0.0, 1.0)};
}

std::vector<InputEvent> moveTo(Point point) {
    return {pointerEvent(InputEvent::Kind::mouseMove, point)};
}

std::vector<InputEvent> click(Point point, Button button, int count) {
    auto events = moveTo(point);
    for (int i = 1; i <= std::max(count, 1); ++i) {
        for (const auto kind : {InputEvent::Kind::mouseDown, InputEvent::Kind::mouseUp}) {
            InputEvent event = pointerEvent(kind, point);
            event.button = static_cast<int>(button);
            event.clickCount = i;
            events.push_back(event);
        }
    }
    return events;
}

std::vector<InputEvent> drag(Point from, Point to) {
    std::vector<Point> way{from};
    for (int i = 1; i <= dragSteps; ++i) {
        const double part = static_cast<double>(i) / dragSteps;
        way.push_back({from.x + (to.x - from.x) * part, from.y + (to.y - from.y) * part});
    }
    return dragAlong(way);
}

std::vector<InputEvent> dragAlong(const std::vector<Point>& way) {
    if (way.empty()) return {};
    auto events = moveTo(way.front());
    events.push_back(pointerEvent(InputEvent::Kind::mouseDown, way.front()));
    for (auto point = way.begin() + 1; point != way.end(); ++point)
        events.push_back(pointerEvent(InputEvent::Kind::mouseMove, *point));
    events.push_back(pointerEvent(InputEvent::Kind::mouseUp, way.back()));
    return events;
}

std::vector<InputEvent> scroll(Point point, double dx, double dy) {
    auto events = moveTo(point);
    InputEvent event = pointerEvent(InputEvent::Kind::scroll, point);
    event.dx = dx;
    event.dy = dy;
    events.push_back(event);
    return events;
}

std::vector<InputEvent> press(std::uint16_t keyCode, const std::optional<std::string>& characters,
                              std::uint64_t flags) {
    InputEvent down{.kind = InputEvent::Kind::key,
                    .keyCode = keyCode,
                    .characters = characters,
                    .down = true,
                    .flags = flags};
    InputEvent up = down;
    up.down = false;
    return {std::move(down), std::move(up)};
}

std::vector<InputEvent> type(std::string_view text) {
    std::vector<InputEvent> events;
    for (const std::string& character : userPerceivedCharacters(text)) {
        const bool isReturn = character == "\n" || character == "\r\n";
        const bool isTab = character == "\t";
        // Code 0 with characters asks for the text, not for the key of that code.
        auto pair = isReturn ? press(returnKey, std::nullopt, 0)
                    : isTab  ? press(tabKey, std::nullopt, 0)
                             : press(0, character, 0);
        for (InputEvent& event : pair) events.push_back(std::move(event));
    }
    return events;
}

}  // namespace velmora::InputGestures
