#include "Tests/EndToEnd/Screen.h"

#include <png.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "Testing/DesktopScene.h"

namespace velmora {

namespace {

constexpr int rowsAtOnce = 16;  // of an image on its way to the server: its requests are limited

std::uint32_t rgbOf(int y, int u, int v) {  // BT.709, limited range
    const double luma = 1.164384 * (y - 16);
    const auto byte = [](double value) {
        return static_cast<std::uint32_t>(std::clamp(value + 0.5, 0.0, 255.0));
    };
    return byte(luma + 1.792741 * (v - 128)) << 16 |
           byte(luma - 0.213249 * (u - 128) - 0.532909 * (v - 128)) << 8 | byte(luma + 2.112402 * (u - 128));
}

std::vector<std::uint8_t> lumaOf(const ScreenImage& image) {
    std::vector<std::uint8_t> luma(image.pixels.size());
    std::ranges::transform(image.pixels, luma.begin(), [](std::uint32_t p) {
        return static_cast<std::uint8_t>(
            (2126 * (p >> 16 & 0xFF) + 7152 * (p >> 8 & 0xFF) + 722 * (p & 0xFF)) / 10000);
    });
    return luma;
}

std::size_t areaOf(PixelSize size) {
    return static_cast<std::size_t>(size.width) * static_cast<std::size_t>(size.height);
}

}  // namespace

ScreenImage desktopImage(PixelSize size) {
    const auto scene = DesktopScene(size, DesktopScene::Kind::still).snapshot();
    ScreenImage image{size, std::vector<std::uint32_t>(areaOf(size))};
    auto pixel = image.pixels.begin();
    for (int y = 0; y < size.height; ++y) {
        for (int x = 0; x < size.width; ++x, ++pixel) {
            const bool isGradient = y > size.height * 3 / 4 && x > size.width / 2;
            *pixel = isGradient
                         ? static_cast<std::uint32_t>(x % 256 << 16 | y % 256 << 8 | (x + y) / 4 % 256)
                         : rgbOf(scene->y[y * scene->strideY + x], scene->u[y / 2 * scene->strideU + x / 2],
                                 scene->v[y / 2 * scene->strideV + x / 2]);
        }
    }
    return image;
}

void show(XTestClient& client, const ScreenImage& image, int x, int y) {
    xcb_connection_t* connection = client.connection();
    const auto pen = xcb_generate_id(connection);
    const std::uint32_t subwindows = XCB_SUBWINDOW_MODE_INCLUDE_INFERIORS;
    xcb_create_gc(connection, pen, client.root(), XCB_GC_SUBWINDOW_MODE, &subwindows);
    const auto width = static_cast<std::uint16_t>(image.size.width);
    for (int row = 0; row < image.size.height; row += rowsAtOnce) {
        const auto count = std::min(rowsAtOnce, image.size.height - row);
        xcb_put_image(connection, XCB_IMAGE_FORMAT_Z_PIXMAP, client.root(), pen, width,
                      static_cast<std::uint16_t>(count), static_cast<std::int16_t>(x),
                      static_cast<std::int16_t>(y + row), 0, 24,
                      static_cast<std::uint32_t>(count * width * 4),
                      reinterpret_cast<const std::uint8_t*>(image.pixels.data() + row * width));
    }
    xcb_free_gc(connection, pen);
    std::free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
}

std::optional<ScreenImage> screenshotOf(XTestClient& client, const PixelRect& rect) {
    const std::unique_ptr<xcb_get_image_reply_t, void (*)(void*)> reply(
        xcb_get_image_reply(
            client.connection(),
            xcb_get_image(client.connection(), XCB_IMAGE_FORMAT_Z_PIXMAP, client.root(),
                          static_cast<std::int16_t>(rect.x), static_cast<std::int16_t>(rect.y),
                          static_cast<std::uint16_t>(rect.width), static_cast<std::uint16_t>(rect.height),
                          ~0U),
            nullptr),
        std::free);
    ScreenImage image{{rect.width, rect.height}, {}};
    image.pixels.resize(areaOf(image.size));
    if (!reply || xcb_get_image_data_length(reply.get()) != static_cast<int>(image.pixels.size() * 4))
        return std::nullopt;
    std::memcpy(image.pixels.data(), xcb_get_image_data(reply.get()), image.pixels.size() * 4);
    return image;
}

PixelRect whereIs(std::uint32_t color, const ScreenImage& image) {
    const auto part = [](std::uint32_t pixel, int shift) { return static_cast<int>(pixel >> shift & 255); };
    const auto isIt = [&](std::uint32_t pixel) {
        return std::abs(part(pixel, 16) - part(color, 16)) < 12 &&
               std::abs(part(pixel, 8) - part(color, 8)) < 12 &&
               std::abs(part(pixel, 0) - part(color, 0)) < 12;
    };
    int left = image.size.width, top = image.size.height, right = -1, bottom = -1;
    auto pixel = image.pixels.begin();
    for (int y = 0; y < image.size.height; ++y) {
        for (int x = 0; x < image.size.width; ++x, ++pixel) {
            if (!isIt(*pixel)) continue;
            left = std::min(left, x), right = std::max(right, x);
            top = std::min(top, y), bottom = std::max(bottom, y);
        }
    }
    return right < 0 ? PixelRect{} : PixelRect{left, top, right - left + 1, bottom - top + 1};
}

bool writePng(const ScreenImage& image, const std::filesystem::path& file) {
    std::vector<std::uint8_t> rows;
    rows.reserve(image.pixels.size() * 3);
    for (const std::uint32_t pixel : image.pixels) {
        for (const int shift : {16, 8, 0}) rows.push_back(static_cast<std::uint8_t>(pixel >> shift));
    }
    png_image header{};
    header.version = PNG_IMAGE_VERSION;
    header.width = static_cast<png_uint_32>(image.size.width);
    header.height = static_cast<png_uint_32>(image.size.height);
    header.format = PNG_FORMAT_RGB;
    return png_image_write_to_file(&header, file.c_str(), 0, rows.data(), 0, nullptr) != 0;
}

std::optional<ScreenImage> readPng(const std::filesystem::path& file) {
    png_image header{};
    header.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&header, file.c_str())) return std::nullopt;
    header.format = PNG_FORMAT_BGRA;
    ScreenImage image{{static_cast<int>(header.width), static_cast<int>(header.height)}, {}};
    image.pixels.resize(areaOf(image.size));
    if (!png_image_finish_read(&header, nullptr, image.pixels.data(), 0, nullptr)) return std::nullopt;
    return image;
}

double likeness(const ScreenImage& a, const ScreenImage& b) {
    const auto lumaA = lumaOf(a), lumaB = lumaOf(b);
    return ssimLuma(GrayView{lumaA.data(), a.size.width, a.size.height, a.size.width},
                    GrayView{lumaB.data(), b.size.width, b.size.height, b.size.width});
}

}  // namespace velmora
