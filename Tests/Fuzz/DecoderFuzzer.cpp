// A peer's stream of arbitrary bytes, from StreamConfig to the picture. Whatever comes, nothing crashes, and
// a picture that is shown has the planes it claims. Input: per message a kind (even: StreamConfig, odd:
// frame), a length u16 and as many bytes; the last message may be shorter than it says.

#include <cstdint>
#include <cstdlib>
#include <numeric>

#include "Platform/Linux/Codec/AvcodecDecompressor.h"
#include "Testing/VirtualQueue.h"
#include "Viewer/Session/VideoDecoder.h"

namespace velmora {
namespace {

/// Reads every sample, so that the sanitizer sees planes that are not there.
void look(const Picture& picture) {
    unsigned sum = 0;
    const auto read = [&](const std::uint8_t* plane, int stride, int width, int height) {
        for (int y = 0; y < height; ++y) {
            const std::uint8_t* row = plane + std::ptrdiff_t{y} * stride;
            sum = std::accumulate(row, row + width, sum);
        }
    };
    read(picture.y, picture.strideY, picture.size.width, picture.size.height);
    read(picture.u, picture.strideU, (picture.size.width + 1) / 2, (picture.size.height + 1) / 2);
    read(picture.v, picture.strideV, (picture.size.width + 1) / 2, (picture.size.height + 1) / 2);
    volatile unsigned seen = sum;
    (void)seen;
}

void play(ByteView input) {
    VirtualTime time;
    VirtualQueue queue(time);
    // Small pictures only: decoding a large grey one teaches the fuzzer nothing and takes seconds.
    AvcodecDecompressorFactory factory({.maxSide = 512, .maxPixels = 512 * 512, .threads = 1});
    VideoDecoder decoder(factory, queue);
    std::optional<VideoFormat> format;
    std::shared_ptr<const DisplayFormat> displayFormat;
    while (input.size() >= 3) {
        const bool isFrame = input[0] % 2 == 1;
        const std::size_t claimed = std::size_t{input[1]} << 8 | input[2];
        input = input.subspan(3);
        const ByteView body = input.first(std::min(claimed, input.size()));
        input = input.subspan(body.size());
        if (!isFrame) {
            const auto config = StreamConfig::decode(body);
            if (!config.ok()) continue;
            auto described = VideoDecoding::formatDescription(*config, factory);
            if (!described) continue;
            format = std::move(described);
            decoder.setFormat(*format);
            continue;
        }
        if (!format) continue;
        const auto sample = VideoDecoding::sampleBuffer(body, *format);
        if (!sample) continue;
        decoder.decode(*sample, [&](const SharedPicture& picture, std::uint64_t) {
            const auto shown = VideoDecoding::displaySample(picture, displayFormat);
            if (!shown || shown->format->size != picture->size) std::abort();
            look(*picture);
        });
    }
}

}  // namespace
}  // namespace velmora

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    velmora::play({data, size});
    return 0;
}
