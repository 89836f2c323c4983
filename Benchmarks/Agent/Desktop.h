#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Benchmarks/Agent/TalkingProgram.h"
#include "Benchmarks/Stream/HostProcess.h"
#include "Tests/EndToEnd/Screen.h"

namespace velmora {

using Milliseconds = std::chrono::duration<double, std::milli>;

/// A desktop with the task window on it, shared by the built host, and the built agent bridge, connected to
/// it. What goes wrong with them ends the benchmark in words; a task that is missed does not.
class Desktop {
public:
    /// One display of this size, or two of it side by side.
    Desktop(PixelSize size, int displays);

    struct Answer {
        std::string text;
        std::string jpeg;  // empty: none
        bool isError = false;
        Milliseconds took{0};
    };
    Answer call(const std::string& tool, const nlohmann::json& arguments = nlohmann::json::object());
    /// Looks again and again, as an agent does, until something of this colour is seen; its middle.
    struct Point {
        double x = 0, y = 0;
    };
    std::optional<Point> find(std::uint32_t colour);
    /// One look.
    std::optional<Point> lookFor(std::uint32_t colour);

    /// Clears the window, and has it show a task when that has been seen.
    void show(const std::string& kind, nlohmann::json task = nlohmann::json::object());
    void place(const PixelRect& rect);
    /// Whether the window found it right; says on standard error why not.
    bool isRight();
    /// The next thing that the window says which has this name.
    std::optional<nlohmann::json> said(const char* name);

    bool useLayout(const std::string& layout);
    std::optional<ScreenImage> screen(const PixelRect& rect) { return screenshotOf(eye_, rect); }
    /// That the bridge has used so far.
    Milliseconds bridgeTime() const;
    int calls() const { return calls_; }
    PixelSize size() const { return size_; }

private:
    const PixelSize size_;
    XServerFixture server_;
    XTestClient eye_;
    std::unique_ptr<ChildProgram> manager_;
    std::unique_ptr<HostProcess> host_;
    std::unique_ptr<TalkingProgram> window_, bridge_;
    ScratchFolder home_;
    int calls_ = 0;
};

constexpr std::uint32_t magenta = 0xFF00FF, orange = 0xFF8000, green = 0x00A03C;

/// None if it is no JPEG.
std::optional<ScreenImage> readJpeg(const std::string& jpeg);
/// The middle of what is of this colour, near enough for a picture that was compressed twice.
std::optional<Desktop::Point> middleOf(const ScreenImage& image, std::uint32_t colour);

}  // namespace velmora
