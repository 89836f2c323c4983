#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "VelmoraKit/Wire/InputRecords.h"

namespace velmora {

/// What a person does with mouse and keyboard, as the events that say so: for viewers that have no hands.
/// The events of one gesture are sent at once, in order.
namespace InputGestures {

/// Fractions of the stream's width and height, from the top left.
struct Point {
    double x = 0, y = 0;
};
/// A pixel of a picture of that size as a point of the stream; the corner (0, 0) if it has no size.
Point pointAt(double x, double y, int width, int height);

enum class Button : std::uint8_t { left, right, middle };

std::vector<InputEvent> moveTo(Point point);
/// Moves there and clicks; `count` 2 is a double click, below 1 counts as 1.
std::vector<InputEvent> click(Point point, Button button, int count);
/// Presses the left button, moves in `dragSteps`, and releases.
std::vector<InputEvent> drag(Point from, Point to);
constexpr int dragSteps = 12;  // few enough to be quick, enough for what watches a drag's way
/// The same along a way of one's own; nothing for an empty one.
std::vector<InputEvent> dragAlong(const std::vector<Point>& way);
/// Moves there and scrolls by pixels: up and left are positive.
std::vector<InputEvent> scroll(Point point, double dx, double dy);
std::vector<InputEvent> press(std::uint16_t keyCode, const std::optional<std::string>& characters,
                              std::uint64_t flags);
/// Types a text, character by character; line feeds press Return, tabs Tab.
std::vector<InputEvent> type(std::string_view text);

}  // namespace InputGestures

}  // namespace velmora
