// How long a posted event takes to reach an application: TypingBenchmark
// Prints microseconds for keys and movements, and what typed text costs per character.

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "Platform/Linux/Input/X11EventPoster.h"
#include "Testing/XInputWindow.h"
#include "Testing/XServerFixture.h"

using namespace velmora;
using Kind = PostedEvent::Kind;
using Clock = std::chrono::steady_clock;

namespace {

template <class F>
void measure(const std::string& name, int rounds, F post, XInputWindow& window) {
    std::vector<double> micros;
    for (int i = 0; i < rounds; ++i) {
        window.take();
        const auto begun = Clock::now();
        post(i);
        while (window.events().empty()) {
        }
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begun).count());
    }
    std::ranges::sort(micros);
    const auto at = [&](double part) {
        return micros[static_cast<std::size_t>(part * static_cast<double>(rounds - 1))];
    };
    fmt::print("{}: median {:.0f} us, 95 % {:.0f} us, most {:.0f} us\n", name, at(0.5), at(0.95), at(1));
}

}  // namespace

int main() {
    XServerFixture server({.size = {1024, 768}});
    if (!server.ok()) {
        fmt::print(stderr, "{}\n", server.error());
        return 1;
    }
    XInputWindow window(server.display());
    const auto poster = makeX11EventPosterFactory(server.display())->make({});
    if (!poster || !window.ok()) return 1;

    measure(
        "movement", 500,
        [&](int i) { poster->post({.kind = Kind::mouseMove, .x = 10.0 + i % 100, .y = 10}); }, window);
    measure(
        "key with shift", 500,
        [&](int) {
            poster->post({.kind = Kind::keyDown, .keyCode = 0, .flags = EventFlags::shift});
            poster->post({.kind = Kind::keyUp, .keyCode = 0});
        },
        window);
    measure(
        "character by a spare key, known", 200,
        [&](int i) {
            poster->post({.kind = Kind::text, .text = {1, char16_t(0x4E00 + i % 10)}});
        },
        window);
    measure(
        "fifteen new characters by spare keys", 1,
        [&](int) {
            std::u16string text;
            for (int k = 0; k < 15; ++k) text += char16_t(0x5000 + k);
            poster->post({.kind = Kind::text, .text = text});
        },
        window);
    const auto begun = Clock::now();
    std::u16string text;
    for (int i = 0; i < 1000; ++i) text += char16_t(u'a' + i % 26);
    poster->post({.kind = Kind::text, .text = text});
    const auto spent = Clock::now() - begun;
    fmt::print("text of the layout: {:.1f} us a character\n",
               std::chrono::duration<double, std::micro>(spent).count() / 1000);
}
