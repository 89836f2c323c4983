#include "Platform/Linux/Codec/AvcodecDecompressor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <x264.h>

#include <algorithm>

#include "Platform/Linux/Codec/NalUnits.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {
namespace {

using testing::HasSubstr;

struct Stream {
    std::vector<Bytes> sets;
    Bytes key;
};

/// One grey keyframe of `luma` in forms that our own encoders never write.
Stream streamOf(PixelSize size, int csp, bool fullRange, std::uint8_t luma) {
    x264_param_t parameters;
    x264_param_default_preset(&parameters, "ultrafast", "zerolatency");
    parameters.i_width = size.width;
    parameters.i_height = size.height;
    parameters.i_csp = csp;
    parameters.i_threads = 1;
    parameters.b_sliced_threads = 0;
    parameters.b_annexb = 0;
    parameters.b_repeat_headers = 0;
    parameters.vui.b_fullrange = fullRange;
    parameters.i_log_level = X264_LOG_NONE;
    parameters.rc.i_rc_method = X264_RC_CQP;
    parameters.rc.i_qp_constant = 10;
    x264_t* encoder = x264_encoder_open(&parameters);
    x264_picture_t in, out;
    x264_picture_alloc(&in, csp, size.width, size.height);
    for (int plane = 0; plane < 3; ++plane) {
        const int rows = plane == 0 || csp == X264_CSP_I444 ? size.height : size.height / 2;
        std::fill_n(in.img.plane[plane], in.img.i_stride[plane] * rows,
                    plane == 0 ? luma : std::uint8_t{128});
    }
    x264_nal_t* units = nullptr;
    int count = 0;
    Stream stream;
    x264_encoder_headers(encoder, &units, &count);
    for (int i = 0; i < 2; ++i)
        stream.sets.emplace_back(units[i].p_payload + 4, units[i].p_payload + units[i].i_payload);
    const int length = x264_encoder_encode(encoder, &units, &count, &in, &out);
    stream.key.assign(units[0].p_payload, units[0].p_payload + length);
    x264_picture_clean(&in);
    x264_encoder_close(encoder);
    return stream;
}

/// The keyframe with its own parameter sets in front, as a peer that means harm may send it.
Bytes withSetsInside(const Stream& stream) {
    Bytes data;
    for (const Bytes& set : stream.sets) appendLengthPrefixed(data, set);
    data.insert(data.end(), stream.key.begin(), stream.key.end());
    return data;
}

Result<std::unique_ptr<VideoDecompressor>> open(const Stream& stream,
                                                AvcodecDecompressor::Parameters limits = {}) {
    return AvcodecDecompressor::open({.parameterSets = stream.sets}, limits);
}

TEST(AvcodecDecompressorTest, bringsFullRangePicturesIntoLimitedRange) {
    for (const auto& [full, limited] : {std::pair{0, 16}, std::pair{128, 126}, std::pair{255, 235}}) {
        const auto stream = streamOf({64, 48}, X264_CSP_I420, true, static_cast<std::uint8_t>(full));
        const auto decompressor = open(stream);
        ASSERT_TRUE(decompressor.ok());
        const auto shown = decompressor.value()->decode(stream.key);
        ASSERT_TRUE(shown.ok()) << shown.error().text;
        EXPECT_NEAR((*shown)->y[30], limited, 1) << "of " << full;
        EXPECT_NEAR((*shown)->u[10], 128, 1);
    }
}

TEST(AvcodecDecompressorTest, refusesSampleFormsItCannotShowInWords) {
    const auto stream = streamOf({64, 48}, X264_CSP_I444, false, 100);
    const auto refused = open(stream);
    ASSERT_FALSE(refused.ok());
    EXPECT_THAT(refused.error().text, HasSubstr("4:2:0"));
    EXPECT_FALSE(AvcodecDecompressorFactory({}).canDescribe({.parameterSets = stream.sets}));
}

TEST(AvcodecDecompressorTest, aSampleFormThatChangesInsideTheStreamIsAFailureAndTold) {
    const auto plain = streamOf({64, 48}, X264_CSP_I420, false, 100);
    const auto other = streamOf({64, 48}, X264_CSP_I444, false, 100);
    const auto decompressor = open(plain);
    ASSERT_TRUE(decompressor.ok());
    DebugLog::shared().clear();
    EXPECT_FALSE(decompressor.value()->decode(withSetsInside(other)).ok());
    EXPECT_FALSE(decompressor.value()->decode(withSetsInside(other)).ok());
    EXPECT_EQ(DebugLog::shared().entries().size(), 1U) << "told once";
    EXPECT_TRUE(decompressor.value()->decode(withSetsInside(plain)).ok());
}

TEST(AvcodecDecompressorTest, refusesPicturesOverTheLimitBeforeAndInsideTheStream) {
    const auto small = streamOf({64, 48}, X264_CSP_I420, false, 100);
    const auto large = streamOf({256, 256}, X264_CSP_I420, false, 100);
    const AvcodecDecompressor::Parameters limits{.maxSide = 128, .maxPixels = 128 * 128};
    const auto refused = open(large, limits);
    ASSERT_FALSE(refused.ok());
    EXPECT_THAT(refused.error().text, HasSubstr("256x256"));
    const auto decompressor = open(small, limits);
    ASSERT_TRUE(decompressor.ok());
    EXPECT_FALSE(decompressor.value()->accepts({.parameterSets = large.sets}));
    EXPECT_FALSE(decompressor.value()->decode(withSetsInside(large)).ok());
    EXPECT_TRUE(decompressor.value()->decode(withSetsInside(small)).ok());
}

}  // namespace
}  // namespace velmora
