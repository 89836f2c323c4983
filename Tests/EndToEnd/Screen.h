#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

#include "Platform/Picture.h"
#include "Testing/ImageCompare.h"
#include "Testing/XTestClient.h"

namespace velmora {

/// An image as it is shown, 0xRRGGBB, in rows without gaps.
struct ScreenImage {
    PixelSize size;
    std::vector<std::uint32_t> pixels;
};

/// What a desktop is made of: windows with fine text, and a field of gradients.
ScreenImage desktopImage(PixelSize size);

/// Draws on the screen, over whatever windows are there; returns when it is done.
void show(XTestClient& client, const ScreenImage& image, int x = 0, int y = 0);

/// What the server shows there; none if it does not say.
std::optional<ScreenImage> screenshotOf(XTestClient& client, const PixelRect& rect);

/// What spans all that has this colour, 0xRRGGBB, or nearly: video does not keep colours. Empty if nothing
/// has.
PixelRect whereIs(std::uint32_t color, const ScreenImage& image);

bool writePng(const ScreenImage& image, const std::filesystem::path& file);
/// None if the file is no image.
std::optional<ScreenImage> readPng(const std::filesystem::path& file);

/// How alike two images are in their brightness, 0...1; see `ssimLuma`.
double likeness(const ScreenImage& a, const ScreenImage& b);

}  // namespace velmora
