#include "Benchmarks/Stream/ScreenLoad.h"

#include <xcb/xcb.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <random>

namespace velmora {

namespace {

using namespace std::chrono_literals;

// The pattern: a row of 12 black or white squares, the number's bits, and below it the same inverted.
constexpr int bits = 12;
constexpr int square = 8;

std::int16_t coordinate(int value) {
    return static_cast<std::int16_t>(value);
}
std::uint16_t length(int value) {
    return static_cast<std::uint16_t>(value);
}

}  // namespace

/// Draws on the root window with the server's own primitives: the load of making pixels stays there.
class ScreenLoad::Canvas {
public:
    Canvas(const std::string& display, PixelSize size)
        : size_(size), connection_(xcb_connect(display.c_str(), nullptr)) {
        root_ = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data->root;
        pen_ = xcb_generate_id(connection_);
        const std::uint32_t values[] = {0};
        xcb_create_gc(connection_, pen_, root_, XCB_GC_GRAPHICS_EXPOSURES, values);
        paintTexture();
    }
    ~Canvas() { xcb_disconnect(connection_); }

    void clear() {
        fill({0, 0, size_.width, size_.height}, 0xFFFFFF);
        for (int line = 0; line < size_.height / lineHeight; ++line) textLine(line * lineHeight);
    }
    void type(int n) {
        const int columns = size_.width / 10 - 2;
        const int x = 10 + n % columns * 10;
        const int y = 40 + n / columns % (size_.height / lineHeight - 4) * lineHeight;
        fill({x, y, 9, lineHeight}, 0xFFFFFF);
        glyph(x, y);
    }
    void strip(int n) {
        const int y = size_.height / 2;
        for (int x = 0; x < size_.width; x += 40) {
            fill({x, y, 40, 64}, static_cast<std::uint32_t>((x + n * 7) % 256) * 0x010203);
        }
    }
    void scroll() {
        const int top = 2 * square;
        xcb_copy_area(connection_, root_, root_, pen_, 0, coordinate(top + lineHeight), 0, coordinate(top),
                      length(size_.width), length(size_.height - top - lineHeight));
        const int last = size_.height - lineHeight;
        fill({0, last, size_.width, lineHeight}, 0xFFFFFF);
        textLine(last);
    }
    void pan(int n) {
        const int x = static_cast<int>(100 + 99 * std::sin(n / 25.0));
        const int y = static_cast<int>(100 + 99 * std::cos(n / 31.0));
        xcb_copy_area(connection_, texture_, root_, pen_, coordinate(x), coordinate(y), 0, 0,
                      length(size_.width), length(size_.height));
    }
    void number(int n) {
        for (int bit = 0; bit < bits; ++bit) {
            const std::uint32_t colour = n >> bit & 1 ? 0xFFFFFF : 0x000000;
            fill({bit * square, 0, square, square}, colour);
            fill({bit * square, square, square, square}, colour ^ 0xFFFFFF);
        }
    }
    void flush() { xcb_flush(connection_); }
    /// Waits until the server has drawn: else requests would pile up where a slow server hides them.
    void sync() {
        std::free(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
    }

private:
    static constexpr int lineHeight = 18;

    void fill(const PixelRect& r, std::uint32_t rgb) {
        xcb_change_gc(connection_, pen_, XCB_GC_FOREGROUND, &rgb);
        const xcb_rectangle_t rect{coordinate(r.x), coordinate(r.y), length(r.width), length(r.height)};
        xcb_poly_fill_rectangle(connection_, root_, pen_, 1, &rect);
    }
    void glyph(int x, int y) {
        const std::uint32_t black = 0x101010;
        xcb_change_gc(connection_, pen_, XCB_GC_FOREGROUND, &black);
        xcb_rectangle_t strokes[3];
        for (auto& s : strokes) {
            const bool isUpright = random_() % 2;
            s = {coordinate(x + static_cast<int>(random_() % 6)),
                 coordinate(y + 2 + static_cast<int>(random_() % 10)), length(isUpright ? 2 : 6),
                 length(isUpright ? 10 : 2)};
        }
        xcb_poly_fill_rectangle(connection_, root_, pen_, 3, strokes);
    }
    void textLine(int y) {
        for (int x = 10; x < size_.width - 20; x += 10) {
            if (random_() % 6) glyph(x, y);
        }
    }
    void paintTexture() {
        const int width = size_.width + 200, height = size_.height + 200;
        texture_ = xcb_generate_id(connection_);
        xcb_create_pixmap(connection_, 24, texture_, root_, length(width), length(height));
        const int rows = 32;
        std::vector<std::uint32_t> band(static_cast<std::size_t>(width * rows));
        for (int y = 0; y < height; y += rows) {
            const int count = std::min(rows, height - y);
            for (int i = 0; i < count * width; ++i) {
                const int px = i % width, py = y + i / width;
                const auto wave = [&](double a, double b) {
                    return 100 + 70 * std::sin(px * a + std::sin(py * b) * 2) +
                           static_cast<double>(random_() % 24);
                };
                band[static_cast<std::size_t>(i)] = static_cast<std::uint32_t>(wave(.011, .017)) << 16 |
                                                    static_cast<std::uint32_t>(wave(.023, .007)) << 8 |
                                                    static_cast<std::uint32_t>(wave(.005, .029));
            }
            xcb_put_image(connection_, XCB_IMAGE_FORMAT_Z_PIXMAP, texture_, pen_, length(width),
                          length(count), 0, coordinate(y), 0, 24,
                          static_cast<std::uint32_t>(count * width * 4),
                          reinterpret_cast<const std::uint8_t*>(band.data()));
        }
        sync();
    }

    const PixelSize size_;
    xcb_connection_t* const connection_;
    xcb_window_t root_ = 0;
    xcb_gcontext_t pen_ = 0;
    xcb_pixmap_t texture_ = 0;
    std::mt19937 random_{7};
};

ScreenLoad::ScreenLoad(const std::string& display, PixelSize size)
    : canvas_(std::make_unique<Canvas>(display, size)), changedAt_(numbers) {
    canvas_->clear();
    canvas_->sync();
}

ScreenLoad::~ScreenLoad() {
    stop();
}

void ScreenLoad::start(Kind kind) {
    stop();
    ending_ = false;
    thread_ = std::thread([this, kind] { run(kind); });
}

void ScreenLoad::stop() {
    ending_ = true;
    if (thread_.joinable()) thread_.join();
}

HostClock::time_point ScreenLoad::changedAt(int number) const {
    return HostClock::time_point(HostClock::duration(changedAt_[static_cast<std::size_t>(number)].load()));
}

void ScreenLoad::run(Kind kind) {
    const auto interval = kind == Kind::typing ? 33333us : 16667us;
    auto due = std::chrono::steady_clock::now();
    while (!ending_) {
        const int n = (latest_ + 1) % numbers;
        switch (kind) {
            case Kind::typing:
                canvas_->type(n);
                break;
            case Kind::strip:
                canvas_->strip(n);
                break;
            case Kind::scroll:
                canvas_->scroll();
                break;
            case Kind::motion:
                canvas_->pan(n);
                break;
        }
        canvas_->number(n);
        changedAt_[static_cast<std::size_t>(n)] = HostClock::now().time_since_epoch().count();
        canvas_->flush();
        latest_ = n;
        canvas_->sync();
        timespec cpu{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu);
        cpuSeconds_ = static_cast<double>(cpu.tv_sec) + static_cast<double>(cpu.tv_nsec) / 1e9;
        due += interval;
        std::this_thread::sleep_until(due);
    }
}

std::optional<int> ScreenLoad::numberIn(const Picture& picture) {
    if (picture.size.width < bits * square || picture.size.height < 2 * square) return std::nullopt;
    int number = 0;
    for (int bit = 0; bit < bits; ++bit) {
        const auto at = [&](int y) { return picture.y[y * picture.strideY + bit * square + square / 2]; };
        const int above = at(square / 2), below = at(square + square / 2);
        if (std::abs(above - below) < 80) return std::nullopt;
        if (above > below) number |= 1 << bit;
    }
    return number;
}

}  // namespace velmora
