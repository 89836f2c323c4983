#include "Benchmarks/Agent/Desktop.h"

#include <fmt/format.h>
#include <time.h>
#include <turbojpeg.h>

#include <cstdlib>
#include <thread>

#include "VelmoraKit/Core/Base64.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto patience = 20s;  // of a machine that does much else

[[noreturn]] void giveUp(const std::string& words) {
    fmt::print(stderr, "{}\n", words);
    std::exit(2);
}

}  // namespace

Desktop::Desktop(PixelSize size, int displays)
    : size_(size),
      server_({.kind = XServerFixture::Kind::xvfb, .size = {size.width * displays, size.height}}),
      eye_(server_.display()) {
    if (!server_.ok() || !eye_.ok()) giveUp("No X server came up: " + server_.error());
    const std::string home = home_.path();
    const ChildProgram::Environment onScreen{"DISPLAY=" + server_.display(), "WAYLAND_DISPLAY",
                                             "HOME=" + home, "QT_QPA_PLATFORM=xcb",
                                             "DBUS_SESSION_BUS_ADDRESS=disabled:"};
    if (displays == 2) {
        eye_.defineMonitor("left", {0, 0, size.width, size.height}, "screen");
        eye_.defineMonitor("right", {size.width, 0, size.width, size.height});
    }
    auto manager = ChildProgram::start({"openbox", "--sm-disable"}, onScreen, true);
    if (manager) manager_ = std::move(*manager);
    for (const auto end = Clock::now() + patience; !eye_.hasWindowManager();) {
        if (Clock::now() > end) giveUp("No window manager came up");
        std::this_thread::sleep_for(10ms);  // between two looks
    }
    window_ = std::make_unique<TalkingProgram>(std::vector<std::string>{TASK_WINDOW}, onScreen);
    place({0, 0, size.width, size.height});
    host_ = std::make_unique<HostProcess>(VELMORA_PROGRAM, server_, "{}");
    bridge_ = std::make_unique<TalkingProgram>(
        std::vector<std::string>{VELMORA_PROGRAM, "mcp", "--own-display"},
        ChildProgram::Environment{"DISPLAY", "HOME=" + home, "XDG_CONFIG_HOME=" + home + "/config",
                                  "XDG_DATA_HOME=" + home + "/data", "XDG_STATE_HOME=" + home + "/state",
                                  "DBUS_SESSION_BUS_ADDRESS=disabled:"});
    const auto answer = call("connect", {{"device", "127.0.0.1"}, {"password", host_->password()}});
    if (answer.isError) giveUp("The bridge does not connect: " + answer.text);
}

Desktop::Answer Desktop::call(const std::string& tool, const nlohmann::json& arguments) {
    const auto begun = Clock::now();
    bridge_->tell({{"jsonrpc", "2.0"},
                   {"id", ++calls_},
                   {"method", "tools/call"},
                   {"params", {{"name", tool}, {"arguments", arguments}}}});
    const auto reply = bridge_->next(90s);
    if (!reply || (*reply)["id"] != calls_) giveUp(fmt::format("The bridge does not answer to {}", tool));
    Answer answer{.isError = (*reply)["result"]["isError"], .took = Clock::now() - begun};
    for (const auto& block : (*reply)["result"]["content"]) {
        if (block["type"] == "text") {
            answer.text = block["text"];
        } else if (const auto bytes = bytesOfBase64(block["data"].get<std::string>())) {
            answer.jpeg.assign(reinterpret_cast<const char*>(bytes->data()), bytes->size());
        }
    }
    return answer;
}

std::optional<Desktop::Point> Desktop::lookFor(std::uint32_t colour) {
    const auto image = readJpeg(call("screenshot").jpeg);
    return image ? middleOf(*image, colour) : std::nullopt;
}

std::optional<Desktop::Point> Desktop::find(std::uint32_t colour) {
    for (const auto end = Clock::now() + patience; Clock::now() < end;)
        if (const auto point = lookFor(colour)) return point;
    return std::nullopt;
}

void Desktop::show(const std::string& kind, nlohmann::json task) {
    // The last task's marks could be taken for the next one's on a machine that is slow to show things.
    window_->tell({{"show", "nothing"}});
    if (!said("shown")) giveUp("The task window does not answer");
    const auto end = Clock::now() + patience;
    while ((lookFor(magenta) || lookFor(orange)) && Clock::now() < end) continue;
    task["show"] = kind;
    window_->tell(task);
    if (!said("shown")) giveUp("The task window does not show " + kind);
}

void Desktop::place(const PixelRect& rect) {
    window_->tell(
        {{"show", "place"}, {"x", rect.x}, {"y", rect.y}, {"width", rect.width}, {"height", rect.height}});
    if (!said("shown")) giveUp("The task window does not come up");
}

std::optional<nlohmann::json> Desktop::said(const char* name) {
    for (const auto end = Clock::now() + patience; Clock::now() < end;) {
        const auto answer = window_->next(std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()));
        if (!answer) return std::nullopt;
        if (answer->contains(name)) return (*answer)[name];
        if (answer->contains("wrong")) return std::nullopt;
    }
    return std::nullopt;
}

bool Desktop::isRight() {
    const auto answer = window_->next(patience);
    if (answer && answer->contains("right")) return true;
    std::string holds;
    if (!answer) {
        window_->tell({{"ask", true}});
        if (const auto content = said("holds")) holds = content->dump();
    }
    fmt::print(stderr, "  missed: {} {}\n", answer ? answer->dump() : "nothing happened; the field holds",
               holds);
    return false;
}

bool Desktop::useLayout(const std::string& layout) {
    const auto program = server_.run({"setxkbmap", "-layout", layout});
    return program && (*program)->waitForExit(patience) == 0;
}

Milliseconds Desktop::bridgeTime() const {
    clockid_t clock{};
    timespec time{};
    if (clock_getcpuclockid(bridge_->pid(), &clock) != 0 || clock_gettime(clock, &time) != 0) return {};
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

std::optional<ScreenImage> readJpeg(const std::string& jpeg) {
    const std::unique_ptr<void, int (*)(void*)> decoder(tjInitDecompress(), tjDestroy);
    const auto* bytes = reinterpret_cast<const unsigned char*>(jpeg.data());
    int width = 0, height = 0, sampling = 0, colours = 0;
    if (tjDecompressHeader3(decoder.get(), bytes, jpeg.size(), &width, &height, &sampling, &colours) != 0)
        return std::nullopt;
    ScreenImage image{{width, height}, {}};
    image.pixels.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
    if (tjDecompress2(decoder.get(), bytes, jpeg.size(),
                      reinterpret_cast<unsigned char*>(image.pixels.data()), width, 0, height, TJPF_BGRX,
                      0) != 0)
        return std::nullopt;
    return image;
}

std::optional<Desktop::Point> middleOf(const ScreenImage& image, std::uint32_t colour) {
    constexpr int tolerance = 75;
    double x = 0, y = 0, count = 0;
    for (std::size_t i = 0; i < image.pixels.size(); ++i) {
        const auto isNear = [pixel = image.pixels[i], colour](int shift) {
            return std::abs(static_cast<int>(pixel >> shift & 0xFF) -
                            static_cast<int>(colour >> shift & 0xFF)) < tolerance;
        };
        if (!isNear(0) || !isNear(8) || !isNear(16)) continue;
        const auto width = static_cast<std::size_t>(image.size.width);
        x += static_cast<double>(i % width) + 0.5;
        y += static_cast<double>(i / width) + 0.5;
        ++count;
    }
    if (count < 4) return std::nullopt;
    return Desktop::Point{x / count, y / count};
}

}  // namespace velmora
