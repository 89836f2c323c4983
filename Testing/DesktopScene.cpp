#include "Testing/DesktopScene.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

namespace velmora {
namespace {

constexpr int cellWidth = 8, cellHeight = 16;
constexpr unsigned letters = 64;

/// Coverage of each pixel of a cell by a letter, 0...255: strokes with the soft edges of rendered text.
using Glyph = std::array<std::uint8_t, cellWidth * cellHeight>;

const std::array<Glyph, letters>& glyphs() {
    static const auto made = [] {
        std::array<Glyph, letters> all{};
        std::mt19937 random(7);
        for (Glyph& glyph : all) {
            for (int stroke = 0; stroke < 3; ++stroke) {
                const bool upright = random() % 2 == 0;
                const int from = static_cast<int>(random() % 4), to = 5 + static_cast<int>(random() % 2);
                const int at =
                    upright ? 1 + static_cast<int>(random() % 5) : 3 + static_cast<int>(random() % 9);
                const auto soft = static_cast<std::uint8_t>(60 + random() % 120);
                for (int i = from; i <= (upright ? to + 6 : to); ++i) {
                    const int x = upright ? at : i, y = upright ? i : at;
                    glyph[static_cast<std::size_t>(y * cellWidth + x)] = 255;
                    auto& edge =
                        glyph[static_cast<std::size_t>((y + (upright ? 0 : 1)) * cellWidth +
                                                       std::min(x + (upright ? 1 : 0), cellWidth - 2))];
                    edge = std::max(edge, soft);
                }
            }
        }
        return all;
    }();
    return made;
}

std::uint8_t mix(std::uint8_t paper, std::uint8_t ink, int coverage) {
    return static_cast<std::uint8_t>(paper + (ink - paper) * coverage / 255);
}

std::uint8_t clampedLuma(float value) {
    return static_cast<std::uint8_t>(std::clamp(value, 16.0F, 235.0F));
}

/// Smooth noise summed over octaves, about -150...150.
std::vector<float> fractal(int width, int height, unsigned seed) {
    std::vector<float> sum(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
    std::mt19937 random(seed);
    float amplitude = 60;
    for (int cell = 256; cell >= 2; cell /= 2, amplitude *= 0.62F) {
        const int columns = width / cell + 2, rows = height / cell + 2;
        std::vector<float> grid(static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows));
        for (float& value : grid) value = static_cast<float>(static_cast<int>(random() % 2001) - 1000) / 1000;
        for (int y = 0; y < height; ++y) {
            const int row = y / cell;
            const float fy = static_cast<float>(y % cell) / static_cast<float>(cell);
            for (int x = 0; x < width; ++x) {
                const float fx = static_cast<float>(x % cell) / static_cast<float>(cell);
                const float* corner = &grid[static_cast<std::size_t>(row * columns + x / cell)];
                const float upper = corner[0] * (1 - fx) + corner[1] * fx;
                const float lower = corner[columns] * (1 - fx) + corner[columns + 1] * fx;
                sum[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
                    static_cast<std::size_t>(x)] += (upper * (1 - fy) + lower * fy) * amplitude;
            }
        }
    }
    return sum;
}

void copyPlane(const std::uint8_t* from, int fromStride, std::uint8_t* to, int toStride, int width,
               int height) {
    for (int y = 0; y < height; ++y) {
        std::memcpy(to + std::ptrdiff_t{y} * toStride, from + std::ptrdiff_t{y} * fromStride,
                    static_cast<std::size_t>(width));
    }
}

}  // namespace

DesktopScene::DesktopScene(PixelSize size, Kind kind)
    : size_(size), kind_(kind), picture_(std::make_shared<PictureBuffer>(size)) {
    drawDesktop();
    if (kind == Kind::scroll) makePage();
    if (kind == Kind::motion) makeLandscape();
    if (kind == Kind::scroll || kind == Kind::motion) step();
}

std::vector<PixelRect> DesktopScene::step() {
    ++steps_;
    switch (kind_) {
        case Kind::still:
            return {};
        case Kind::typing:
            return type();
        case Kind::scroll:
            return scrollOn();
        case Kind::motion:
            return moveOn();
    }
    return {};
}

SharedPicture DesktopScene::snapshot() const {
    auto copy = std::make_shared<PictureBuffer>(size_);
    copyPlane(picture_->y, picture_->strideY, copy->y, copy->strideY, size_.width, size_.height);
    copyPlane(picture_->u, picture_->strideUV, copy->u, copy->strideUV, size_.width / 2, size_.height / 2);
    copyPlane(picture_->v, picture_->strideUV, copy->v, copy->strideUV, size_.width / 2, size_.height / 2);
    return PictureBuffer::view(copy);
}

void DesktopScene::fill(const PixelRect& rect, Ink ink) {
    for (int y = rect.y; y < rect.y + rect.height; ++y) {
        std::memset(picture_->y + std::ptrdiff_t{y} * picture_->strideY + rect.x, ink.y,
                    static_cast<std::size_t>(rect.width));
        if (y % 2 != 0) continue;
        const auto at = std::ptrdiff_t{y / 2} * picture_->strideUV + rect.x / 2;
        std::memset(picture_->u + at, ink.u, static_cast<std::size_t>(rect.width / 2));
        std::memset(picture_->v + at, ink.v, static_cast<std::size_t>(rect.width / 2));
    }
}

void DesktopScene::drawLetter(int x, int y, unsigned letter, Ink ink, Ink paper) {
    const Glyph& glyph = glyphs()[letter % letters];
    fill({x, y, cellWidth, cellHeight}, paper);
    for (int row = 0; row < cellHeight; ++row) {
        std::uint8_t* line = picture_->y + std::ptrdiff_t{y + row} * picture_->strideY + x;
        for (int column = 0; column < cellWidth; ++column) {
            line[column] = mix(paper.y, ink.y, glyph[static_cast<std::size_t>(row * cellWidth + column)]);
        }
    }
}

void DesktopScene::drawLine(int x, int y, int count, Ink ink, Ink paper) {
    for (int i = 0; i < count; ++i) {
        if (random_() % 6 != 0) drawLetter(x + i * cellWidth, y, random_(), ink, paper);
    }
}

PixelRect DesktopScene::terminal() const {
    const int width = size_.width / 2 / cellWidth * cellWidth,
              height = size_.height / 2 / cellHeight * cellHeight;
    return {size_.width * 2 / 5 / 2 * 2, size_.height / 4 / 2 * 2, width, height};
}

void DesktopScene::drawDesktop() {
    for (int y = 0; y < size_.height; y += 2) {
        const auto shade = static_cast<std::uint8_t>(60 + y * 60 / size_.height);
        fill({0, y, size_.width, 2}, {shade, 140, static_cast<std::uint8_t>(110 + y * 30 / size_.height)});
    }
    const Ink black{30, 128, 128}, white{235, 128, 128}, green{200, 110, 115}, dark{32, 130, 127};
    const PixelRect sheet{size_.width / 40 * 2, size_.height / 20 * 2, size_.width / 2,
                          size_.height * 4 / 5 / 2 * 2};
    fill(sheet, white);
    for (int y = sheet.y; y + cellHeight <= sheet.y + sheet.height; y += cellHeight + 4) {
        drawLine(sheet.x, y, sheet.width / cellWidth, black, white);
    }
    fill(terminal(), dark);
    for (int y = 0; y < terminal().height / 2 / cellHeight * cellHeight; y += cellHeight) {
        drawLine(terminal().x, terminal().y + y, terminal().width / cellWidth * 2 / 3, green, dark);
    }
    row_ = terminal().height / cellHeight / 2;
}

std::vector<PixelRect> DesktopScene::type() {
    const Ink green{200, 110, 115}, dark{32, 130, 127};
    const PixelRect area = terminal();
    const auto cell = [&] {
        return PixelRect{area.x + column_ * cellWidth, area.y + row_ * cellHeight, cellWidth, cellHeight};
    };
    const PixelRect typed = cell();
    drawLetter(typed.x, typed.y, random_(), green, dark);
    if (++column_ == area.width / cellWidth) {
        column_ = 0;
        row_ = (row_ + 1) % (area.height / cellHeight);
    }
    fill(cell(), green);
    return {typed, cell()};
}

void DesktopScene::makePage() {
    // Drawn through the picture, screen by screen, into a page of eight.
    const PixelSize pageSize{size_.width, size_.height * 8};
    source_ = std::make_unique<PictureBuffer>(pageSize);
    const Ink paper{235, 128, 128};
    for (int screen = 0; screen < 8; ++screen) {
        fill({0, 0, size_.width, size_.height}, paper);
        for (int y = 2; y + cellHeight <= size_.height; y += cellHeight + 4) {
            const Ink ink = random_() % 12 == 0 ? Ink{60, 160, 110} : Ink{30, 128, 128};
            drawLine(4, y, static_cast<int>(size_.width / cellWidth * (2 + random_() % 2) / 3) - 1, ink,
                     paper);
        }
        const auto top = std::ptrdiff_t{screen} * size_.height;
        copyPlane(picture_->y, picture_->strideY, source_->y + top * source_->strideY, source_->strideY,
                  size_.width, size_.height);
        for (const auto& [from, to] :
             {std::pair{picture_->u, source_->u}, std::pair{picture_->v, source_->v}}) {
            copyPlane(from, picture_->strideUV, to + top / 2 * source_->strideUV, source_->strideUV,
                      size_.width / 2, size_.height / 2);
        }
    }
}

std::vector<PixelRect> DesktopScene::scrollOn() {
    const int offset = steps_ * 37 % (size_.height * 7) / 2 * 2;
    copyPlane(source_->y + std::ptrdiff_t{offset} * source_->strideY, source_->strideY, picture_->y,
              picture_->strideY, size_.width, size_.height);
    const auto chroma = std::ptrdiff_t{offset / 2} * source_->strideUV;
    copyPlane(source_->u + chroma, source_->strideUV, picture_->u, picture_->strideUV, size_.width / 2,
              size_.height / 2);
    copyPlane(source_->v + chroma, source_->strideUV, picture_->v, picture_->strideUV, size_.width / 2,
              size_.height / 2);
    return {{0, 0, size_.width, size_.height}};
}

void DesktopScene::makeLandscape() {
    const PixelSize size{size_.width + 600, size_.height + 400};
    source_ = std::make_unique<PictureBuffer>(size);
    const auto luma = fractal(size.width, size.height, 1), tint = fractal(size.width / 2, size.height / 2, 2);
    for (int y = 0; y < size.height; ++y) {
        for (int x = 0; x < size.width; ++x) {
            source_->y[std::ptrdiff_t{y} * source_->strideY + x] =
                clampedLuma(126 + luma[static_cast<std::size_t>(y * size.width + x)]);
        }
    }
    for (int y = 0; y < size.height / 2; ++y) {
        for (int x = 0; x < size.width / 2; ++x) {
            const float value = tint[static_cast<std::size_t>(y * (size.width / 2) + x)] * 0.35F;
            source_->u[std::ptrdiff_t{y} * source_->strideUV + x] = clampedLuma(128 + value);
            source_->v[std::ptrdiff_t{y} * source_->strideUV + x] = clampedLuma(128 - value);
        }
    }
}

std::vector<PixelRect> DesktopScene::moveOn() {
    const double t = steps_ / 60.0;
    const int left = static_cast<int>(300 + 290 * std::sin(t * 1.8)) / 2 * 2;
    const int top = static_cast<int>(200 + 190 * std::sin(t * 1.3 + 1)) / 2 * 2;
    copyPlane(source_->y + std::ptrdiff_t{top} * source_->strideY + left, source_->strideY, picture_->y,
              picture_->strideY, size_.width, size_.height);
    const auto chroma = std::ptrdiff_t{top / 2} * source_->strideUV + left / 2;
    copyPlane(source_->u + chroma, source_->strideUV, picture_->u, picture_->strideUV, size_.width / 2,
              size_.height / 2);
    copyPlane(source_->v + chroma, source_->strideUV, picture_->v, picture_->strideUV, size_.width / 2,
              size_.height / 2);
    const int radius = std::min(size_.width, size_.height) / 6;
    for (int disc = 0; disc < 3; ++disc) {
        const int centreX =
            static_cast<int>(size_.width * (0.5 + 0.35 * std::sin(t * (1.1 + disc * 0.4) + disc * 2)));
        const int centreY =
            static_cast<int>(size_.height * (0.5 + 0.3 * std::cos(t * (0.8 + disc * 0.5) + disc)));
        for (int dy = -radius; dy <= radius; ++dy) {
            const int y = centreY + dy, half = static_cast<int>(std::sqrt(double(radius * radius - dy * dy)));
            const int from = std::max(0, centreX - half), to = std::min(size_.width, centreX + half);
            if (y < 0 || y >= size_.height || from >= to) continue;
            std::memset(picture_->y + std::ptrdiff_t{y} * picture_->strideY + from, 70 + 60 * disc,
                        static_cast<std::size_t>(to - from));
        }
    }
    // Grain: what makes camera pictures dear.
    std::uint32_t state = random_();
    for (int y = 0; y < size_.height; ++y) {
        std::uint8_t* line = picture_->y + std::ptrdiff_t{y} * picture_->strideY;
        for (int x = 0; x < size_.width; ++x) {
            state = state * 1664525U + 1013904223U;
            line[x] = static_cast<std::uint8_t>(line[x] + (state >> 30));
        }
    }
    return {{0, 0, size_.width, size_.height}};
}

}  // namespace velmora
