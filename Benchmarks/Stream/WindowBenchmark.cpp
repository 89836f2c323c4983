// From a key press at the viewer to changed pixels in its window: the built host on one private X server, the
// built viewer with its window on another one, a path of 0.2 ms between them.
//   WindowBenchmark [--presses N]
// Prints milliseconds, at rest and while the whole screen moves, and what the viewer uses on a still screen.

#include <fmt/format.h>
#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Benchmarks/Stream/HostProcess.h"
#include "Benchmarks/Stream/ScreenLoad.h"
#include "Testing/UdpLinkEmulator.h"
#include "VelmoraKit/Wire/MessageType.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr PixelSize hostSize{1440, 900};
constexpr PixelSize viewerSize{1696, 1060};  // whose window shows the host's screen at its own size
constexpr PixelRect lamp{700, 420, 40, 24};  // on the host's screen; changes with each key
constexpr std::uint32_t lampOn = 0xFFFFFF, lampOff = 0x000000, lampMark = 0xFF00FF;
constexpr std::uint8_t aKey = 38;  // X11

[[noreturn]] void fail(const std::string& words) {
    fmt::print(stderr, "{}\n", words);
    std::exit(1);
}

template <class F>
void await(const std::string& what, F condition) {
    const auto end = Clock::now() + 20s;
    while (!condition()) {
        if (Clock::now() > end) fail("No " + what + " within 20 s.");
        std::this_thread::sleep_for(10ms);
    }
}

struct Connection {
    xcb_connection_t* const xcb;
    xcb_screen_t* const screen;
    explicit Connection(const std::string& display)
        : xcb(xcb_connect(display.c_str(), nullptr)),
          screen(xcb_setup_roots_iterator(xcb_get_setup(xcb)).data) {
        if (xcb_connection_has_error(xcb)) fail("no X server at " + display);
    }
    ~Connection() { xcb_disconnect(xcb); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
};

/// A program on the host's screen that changes a small field whenever a key is pressed.
class Lamp {
public:
    explicit Lamp(const std::string& display) : x_(display), thread_([this] { run(); }) {}
    ~Lamp() {
        xcb_client_message_event_t bye{};
        bye.response_type = XCB_CLIENT_MESSAGE;
        bye.format = 32;
        bye.window = window_;
        const Connection other(display_);
        xcb_send_event(other.xcb, 0, window_, XCB_EVENT_MASK_NO_EVENT, reinterpret_cast<const char*>(&bye));
        xcb_flush(other.xcb);
        thread_.join();
    }
    Lamp(const Lamp&) = delete;
    Lamp& operator=(const Lamp&) = delete;

    static std::unique_ptr<Lamp> on(const std::string& display) {
        auto made = std::make_unique<Lamp>(display);
        made->display_ = display;
        return made;
    }

private:
    void run() {
        window_ = xcb_generate_id(x_.xcb);
        const std::uint32_t values[] = {lampMark, 1, XCB_EVENT_MASK_KEY_PRESS};
        xcb_create_window(x_.xcb, XCB_COPY_FROM_PARENT, window_, x_.screen->root, lamp.x, lamp.y, lamp.width,
                          lamp.height, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT,
                          XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values);
        xcb_map_window(x_.xcb, window_);
        xcb_set_input_focus(x_.xcb, XCB_INPUT_FOCUS_PARENT, window_, XCB_CURRENT_TIME);
        const xcb_gcontext_t pen = xcb_generate_id(x_.xcb);
        xcb_create_gc(x_.xcb, pen, window_, 0, nullptr);
        xcb_flush(x_.xcb);
        const xcb_rectangle_t all{0, 0, lamp.width, lamp.height};
        bool isOn = false;
        while (const std::unique_ptr<xcb_generic_event_t, void (*)(void*)> event{xcb_wait_for_event(x_.xcb),
                                                                                 std::free}) {
            const int type = event->response_type & 0x7F;
            if (type == XCB_CLIENT_MESSAGE) return;
            if (type != XCB_KEY_PRESS) continue;
            isOn = !isOn;
            const std::uint32_t color = isOn ? lampOn : lampOff;
            xcb_change_gc(x_.xcb, pen, XCB_GC_FOREGROUND, &color);
            xcb_poly_fill_rectangle(x_.xcb, window_, pen, 1, &all);
            xcb_flush(x_.xcb);
        }
    }

    Connection x_;
    std::string display_;
    xcb_window_t window_ = 0;
    std::thread thread_;
};

/// Hands and eyes at the viewer's screen.
class Person {
public:
    explicit Person(const std::string& display) : x_(display) {}

    void movePointerTo(int x, int y) { fake(XCB_MOTION_NOTIFY, 0, x, y); }
    void press(std::uint8_t key) { fake(XCB_KEY_PRESS, key, 0, 0); }
    void release(std::uint8_t key) { fake(XCB_KEY_RELEASE, key, 0, 0); }

    std::uint32_t colorAt(int x, int y) { return imageOf({x, y, 1, 1}).front(); }
    /// The middle of what has about that colour.
    std::optional<PixelRect> find(std::uint32_t color) {
        const auto pixels = imageOf({0, 0, viewerSize.width, viewerSize.height});
        int left = viewerSize.width, top = viewerSize.height, right = -1, bottom = -1;
        for (int y = 0; y < viewerSize.height; ++y) {
            for (int x = 0; x < viewerSize.width; ++x) {
                if (distance(pixels[static_cast<std::size_t>(y * viewerSize.width + x)], color) > 60)
                    continue;
                left = std::min(left, x), right = std::max(right, x);
                top = std::min(top, y), bottom = std::max(bottom, y);
            }
        }
        if (right < left) return std::nullopt;
        return PixelRect{left, top, right - left + 1, bottom - top + 1};
    }
    static int distance(std::uint32_t a, std::uint32_t b) {
        int most = 0;
        for (const int shift : {0, 8, 16})
            most = std::max(
                most, std::abs(static_cast<int>(a >> shift & 255) - static_cast<int>(b >> shift & 255)));
        return most;
    }

private:
    void fake(std::uint8_t type, std::uint8_t detail, int x, int y) {
        xcb_test_fake_input(x_.xcb, type, detail, XCB_CURRENT_TIME, x_.screen->root,
                            static_cast<std::int16_t>(x), static_cast<std::int16_t>(y), 0);
        xcb_flush(x_.xcb);
    }
    std::vector<std::uint32_t> imageOf(const PixelRect& r) {
        const auto cookie =
            xcb_get_image(x_.xcb, XCB_IMAGE_FORMAT_Z_PIXMAP, x_.screen->root, static_cast<std::int16_t>(r.x),
                          static_cast<std::int16_t>(r.y), static_cast<std::uint16_t>(r.width),
                          static_cast<std::uint16_t>(r.height), ~0u);
        const std::unique_ptr<xcb_get_image_reply_t, void (*)(void*)> reply{
            xcb_get_image_reply(x_.xcb, cookie, nullptr), std::free};
        if (!reply) fail("the viewer's screen cannot be read");
        const auto* first = reinterpret_cast<const std::uint32_t*>(xcb_get_image_data(reply.get()));
        return {first, first + r.width * r.height};
    }

    Connection x_;
};

/// Presses keys and waits for the lamp; milliseconds, sorted.
std::vector<double> measure(Person& person, const PixelRect& place, int presses) {
    const int x = place.x + place.width / 2, y = place.y + place.height / 2;
    std::vector<double> taken;
    for (int i = 0; i < presses + 5; ++i) {
        const std::uint32_t before = person.colorAt(x, y);
        const auto begun = Clock::now();
        person.press(aKey);
        while (Person::distance(person.colorAt(x, y), before) < 128) {
            if (Clock::now() - begun > 5s) fail("a key press changed nothing");
            std::this_thread::sleep_for(200us);
        }
        const double ms = std::chrono::duration<double, std::milli>(Clock::now() - begun).count();
        if (i >= 5) taken.push_back(ms);
        person.release(aKey);
        // Not in step with anything that comes sixty times a second.
        std::this_thread::sleep_for(180ms + std::chrono::milliseconds(i * 7 % 40));
    }
    std::ranges::sort(taken);
    return taken;
}

void report(const std::string& what, const std::vector<double>& ms) {
    const auto at = [&](double part) {
        return ms[static_cast<std::size_t>(part * static_cast<double>(ms.size() - 1))];
    };
    fmt::print("{}: p50 {:.1f}, p95 {:.1f}, most {:.1f} ms ({} presses)\n", what, at(0.5), at(0.95), at(1),
               ms.size());
    std::fflush(stdout);
}

int run(int presses) {
    const XServerFixture hostServer({.size = hostSize}), viewerServer({.size = viewerSize});
    if (!hostServer.ok() || !viewerServer.ok()) fail(hostServer.error() + viewerServer.error());
    const HostProcess host(VELMORA_PROGRAM, hostServer, "{}");
    const UdpLinkEmulator link(velmoraDefaultPort,
                               {.toHost = {.delay = 100us}, .toViewer = {.delay = 100us}});
    const auto lampProgram = Lamp::on(hostServer.display());

    const ScratchFolder home;
    const std::string folder = home.path().string();
    const auto windowManager = viewerServer.run({"openbox"}, {"HOME=" + folder});
    const auto viewer = viewerServer.run(
        {VIEW_PROGRAM, fmt::format("127.0.0.1:{}", link.port()), "--password", host.password()},
        {"HOME=" + folder, "XDG_CONFIG_HOME=" + folder, "XDG_STATE_HOME=" + folder,
         "XDG_CACHE_HOME=" + folder, "VELMORA_SIGNALING=ws://127.0.0.1:1",
         "DBUS_SESSION_BUS_ADDRESS=disabled:"});
    if (!windowManager || !viewer) fail("no window manager or no viewer");

    Person person(viewerServer.display());
    std::optional<PixelRect> place;
    await("picture", [&] { return (place = person.find(lampMark)).has_value(); });
    if (place->width > lamp.width + 2) fail("the picture is not shown at its own size");
    person.movePointerTo(place->x - 100, place->y - 100);
    // A busy desktop gives a new window the keys when it gets round to it.
    await("answer to a key", [&] {
        const auto color = [&] { return person.colorAt(place->x + 1, place->y + 1); };
        const std::uint32_t before = color();
        person.press(aKey);
        person.release(aKey);
        std::this_thread::sleep_for(300ms);
        return Person::distance(color(), before) >= 128;
    });
    std::this_thread::sleep_for(1s);  // what comes once, after a window has opened

    report("key press to pixels", measure(person, *place, presses));
    {
        std::this_thread::sleep_for(2s);
        const double before = useOf((*viewer)->pid()).cpuSeconds;
        std::this_thread::sleep_for(10s);
        const ProcessUse use = useOf((*viewer)->pid());
        fmt::print("viewer of a still screen: {:.2f} % of a core, {:.0f} MB\n",
                   (use.cpuSeconds - before) * 10, use.megabytes);
    }
    ScreenLoad load(hostServer.display(), hostSize);
    load.start(ScreenLoad::Kind::motion);
    std::this_thread::sleep_for(2s);
    report("while the whole screen moves", measure(person, *place, presses));
    return 0;
}

}  // namespace
}  // namespace velmora

int main(int argc, char** argv) {
    const int presses = argc > 2 ? std::atoi(argv[2]) : 100;
    return velmora::run(std::max(presses, 20));
}
