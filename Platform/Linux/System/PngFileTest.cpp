#include "Platform/Linux/System/PngFile.h"

#include <gtest/gtest.h>
#include <png.h>

#include <algorithm>
#include <array>
#include <memory>

#include "Testing/ScratchFolder.h"

namespace velmora {
namespace {

struct Rgb {
    int red, green, blue;
};

/// A picture of one colour, given as BT.709 limited range.
SharedPicture plain(PixelSize size, std::uint8_t y, std::uint8_t u, std::uint8_t v) {
    auto buffer = std::make_shared<PictureBuffer>(size);
    std::fill(buffer->y, buffer->u, y);
    std::fill(buffer->u, buffer->v, u);
    std::fill_n(buffer->v, buffer->v - buffer->u, v);
    return PictureBuffer::view(buffer);
}

/// The pixel in the bottom right corner, as a reader of the file sees it.
Rgb cornerOf(const std::filesystem::path& path, PixelSize expected) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    EXPECT_NE(png_image_begin_read_from_file(&image, path.c_str()), 0);
    EXPECT_EQ(image.width, static_cast<png_uint_32>(expected.width));
    EXPECT_EQ(image.height, static_cast<png_uint_32>(expected.height));
    image.format = PNG_FORMAT_RGB;
    Bytes pixels(PNG_IMAGE_SIZE(image));
    EXPECT_NE(png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr), 0);
    if (pixels.size() < 3) return {};
    return {pixels[pixels.size() - 3], pixels[pixels.size() - 2], pixels[pixels.size() - 1]};
}

class PngFileTest : public testing::Test {
protected:
    void expectColour(const SharedPicture& picture, Rgb colour) {
        const auto path = folder.path() / "picture.png";
        ASSERT_TRUE(writePng(*picture, path));
        const Rgb seen = cornerOf(path, picture->size);
        EXPECT_NEAR(seen.red, colour.red, 3);
        EXPECT_NEAR(seen.green, colour.green, 3);
        EXPECT_NEAR(seen.blue, colour.blue, 3);
    }
    ScratchFolder folder;
};

TEST_F(PngFileTest, coloursAreThoseOfBt709LimitedRange) {
    expectColour(plain({70, 50}, 235, 128, 128), {255, 255, 255});
    expectColour(plain({70, 50}, 16, 128, 128), {0, 0, 0});
    expectColour(plain({70, 50}, 63, 102, 240), {255, 0, 0});
    expectColour(plain({70, 50}, 32, 240, 118), {0, 0, 255});
    expectColour(plain({3, 5}, 173, 42, 26), {0, 255, 0});  // sides that no row length divides
}

TEST_F(PngFileTest, aFailureLeavesNothingBehind) {
    const auto picture = plain({4, 4}, 16, 128, 128);
    EXPECT_FALSE(writePng(*picture, folder.path() / "absent" / "picture.png"));
    std::filesystem::create_directory(folder.path() / "taken");
    EXPECT_FALSE(writePng(*picture, folder.path() / "taken"));
    EXPECT_FALSE(std::filesystem::exists(folder.path() / "taken.part"));
    EXPECT_FALSE(encodePng(Picture{}));
}

}  // namespace
}  // namespace velmora
