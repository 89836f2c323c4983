#include <gtest/gtest.h>

#include <limits>
#include <memory>

#include "Platform/Linux/System/TurboJpegEncoder.h"
#include "Testing/FakeJpegEncoder.h"

namespace velmora {
namespace {

template <class Encoder>
class JpegEncoderContract : public testing::Test {
protected:
    bool encodes(const PixelRect& from, PixelSize size) {
        const auto file = encoder.encode(*picture, from, size);
        return file && !file->empty();
    }
    Encoder encoder;
    const SharedPicture picture = PictureBuffer::view(std::make_shared<PictureBuffer>(PixelSize{30, 20}));
};

using Encoders = testing::Types<FakeJpegEncoder, TurboJpegEncoder>;
TYPED_TEST_SUITE(JpegEncoderContract, Encoders);

TYPED_TEST(JpegEncoderContract, anyPartAtAnySizeIsAFile) {
    EXPECT_TRUE(this->encodes({0, 0, 30, 20}, {30, 20}));
    EXPECT_TRUE(this->encodes({29, 19, 1, 1}, {1, 1}));
    EXPECT_TRUE(this->encodes({3, 3, 5, 7}, {300, 1}));
}

TYPED_TEST(JpegEncoderContract, whatIsNotOnThePictureIsRefused) {
    constexpr int most = std::numeric_limits<int>::max();
    for (const PixelRect& part :
         {PixelRect{0, 0, 31, 20}, PixelRect{0, 1, 30, 20}, PixelRect{-1, 0, 5, 5}, PixelRect{0, 0, 0, 5},
          PixelRect{5, 5, most, most}, PixelRect{most, 0, 1, 1}}) {
        EXPECT_FALSE(this->encodes(part, {4, 4})) << part.x << "," << part.y;
    }
    EXPECT_FALSE(this->encodes({0, 0, 30, 20}, {0, 4}));
    EXPECT_FALSE(this->encodes({0, 0, 30, 20}, {4, -1}));
}

}  // namespace
}  // namespace velmora
