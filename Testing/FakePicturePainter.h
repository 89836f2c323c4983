#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>

#include "Platform/PicturePainter.h"

namespace velmora {

/// Draws by the book, pixel by pixel: slow, and what others are compared with.
class FakePicturePainter final : public PicturePainter {
public:
    int paintings = 0;
    PixelRect lastClip;

    void paint(const SharedPicture& picture, const PixelRect& place, const PixelRect& clip,
               const PixelMemory& target) override {
        ++paintings;
        lastClip = clip;
        const PixelRect all{0, 0, target.size.width, target.size.height};
        const PixelRect part = intersectionOf(intersectionOf(place, clip), all);
        for (int y = part.y; y < part.y + part.height; ++y) {
            for (int x = part.x; x < part.x + part.width; ++x) {
                const std::uint32_t pixel = pixelOf(*picture, place, x, y);
                std::memcpy(target.pixels + std::ptrdiff_t{y} * target.stride + std::ptrdiff_t{x} * 4, &pixel,
                            sizeof pixel);
            }
        }
    }

private:
    struct Rgb {
        double r, g, b;
    };
    static Rgb rgbAt(const Picture& p, int x, int y) {
        const double light = 255.0 / 219 * (p.y[std::ptrdiff_t{y} * p.strideY + x] - 16);
        const double cb = 255.0 / 224 * (p.u[std::ptrdiff_t{y / 2} * p.strideU + x / 2] - 128);
        const double cr = 255.0 / 224 * (p.v[std::ptrdiff_t{y / 2} * p.strideV + x / 2] - 128);
        return {std::clamp(light + 1.5748 * cr, 0.0, 255.0),
                std::clamp(light - 0.18732 * cb - 0.46812 * cr, 0.0, 255.0),
                std::clamp(light + 1.8556 * cb, 0.0, 255.0)};
    }
    static std::uint32_t pixelOf(const Picture& p, const PixelRect& place, int x, int y) {
        const auto [width, height] = p.size;
        const double sx = std::clamp((x - place.x + 0.5) * width / place.width - 0.5, 0.0, width - 1.0);
        const double sy = std::clamp((y - place.y + 0.5) * height / place.height - 0.5, 0.0, height - 1.0);
        const int x0 = static_cast<int>(sx), y0 = static_cast<int>(sy);
        Rgb sum{0, 0, 0};
        for (const int dx : {0, 1}) {
            for (const int dy : {0, 1}) {
                const double share = (dx ? sx - x0 : 1 - (sx - x0)) * (dy ? sy - y0 : 1 - (sy - y0));
                const Rgb c = rgbAt(p, std::min(x0 + dx, width - 1), std::min(y0 + dy, height - 1));
                sum = {sum.r + share * c.r, sum.g + share * c.g, sum.b + share * c.b};
            }
        }
        const auto byte = [](double v) { return static_cast<std::uint32_t>(std::lround(v)); };
        return 0xFF000000 | byte(sum.r) << 16 | byte(sum.g) << 8 | byte(sum.b);
    }
};

}  // namespace velmora
