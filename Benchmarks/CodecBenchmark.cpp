// What a picture costs: CPU of encoding and decoding it, and its bytes, for typing, scrolling and full
// motion. CPU is process time, so that a busy machine changes it little. Usage: CodecBenchmark [Mbit/s]
// [pictures]

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/Codec/VideoCodecFactories.h"
#include "Testing/DesktopScene.h"
#include "Testing/ImageCompare.h"
#include "VelmoraKit/Core/SampleSet.h"

namespace velmora {
namespace {

double cpuMilliseconds() {
    return static_cast<double>(std::clock()) * 1000 / CLOCKS_PER_SEC;
}

struct Scene {
    DesktopScene::Kind kind;
    const char* name;
};

struct Figures {
    SampleSet encode, decode, bytes, similarity;
    std::size_t keyframeBytes = 0;
    double keyframeCpu = 0;
};

std::optional<Figures> measure(PixelSize size, DesktopScene::Kind kind, std::int64_t bitsPerSecond,
                               int pictures) {
    auto compressor = makeVideoCompressorFactory()->make({.size = size, .bitsPerSecond = bitsPerSecond});
    if (!compressor) return std::nullopt;
    DesktopScene scene(size, kind);
    std::unique_ptr<VideoDecompressor> decompressor;
    Figures figures;
    std::vector<PixelRect> damage{{0, 0, size.width, size.height}};
    for (int i = 0; i < pictures; ++i) {
        const double begin = cpuMilliseconds();
        const auto compressed = compressor.value()->encode(*scene.view(), {.damage = damage});
        const double encoded = cpuMilliseconds();
        if (!compressed) return std::nullopt;
        if (!decompressor) {
            auto made = makeVideoDecompressorFactory()->make({.parameterSets = *compressed->parameterSets});
            if (!made) return std::nullopt;
            decompressor = std::move(made).value();
        }
        const double received = cpuMilliseconds();
        const auto shown = decompressor->decode(compressed->data);
        const double decoded = cpuMilliseconds();
        if (!shown) return std::nullopt;
        if (i == 0) {
            figures.keyframeBytes = compressed->data.size();
            figures.keyframeCpu = encoded - begin;
        } else {
            figures.encode.add(encoded - begin);
            figures.decode.add(decoded - received);
            figures.bytes.add(static_cast<double>(compressed->data.size()));
            if (i % 5 == 0) figures.similarity.add(ssimLuma(**shown, *scene.view()));
        }
        damage = scene.step();
    }
    return figures;
}

int run(std::int64_t megabits, int pictures) {
    fmt::print("{} pictures each, at most {} Mbit/s; milliseconds of CPU, bytes\n\n", pictures, megabits);
    fmt::print("{:>10} {:8} | {:>6} {:>6} | {:>6} {:>6} | {:>7} {:>7} {:>9} | {:>7} {:>6} | {:>6}\n", "size",
               "scene", "enc50", "enc95", "dec50", "dec95", "B p50", "B p95", "Mbit/s@60", "key B", "key ms",
               "SSIM");
    static constexpr Scene scenes[] = {{DesktopScene::Kind::typing, "typing"},
                                       {DesktopScene::Kind::scroll, "scroll"},
                                       {DesktopScene::Kind::motion, "motion"}};
    for (const PixelSize size : {PixelSize{1440, 900}, PixelSize{1920, 1080}}) {
        for (const Scene& scene : scenes) {
            const auto figures = measure(size, scene.kind, megabits * 1'000'000, pictures);
            if (!figures) return 1;
            fmt::print(
                "{:>10} {:8} | {:6.1f} {:6.1f} | {:6.1f} {:6.1f} | {:7.0f} {:7.0f} {:9.1f} | {:7} {:6.1f} | "
                "{:.4f}\n",
                fmt::format("{}x{}", size.width, size.height), scene.name, figures->encode.percentile(50),
                figures->encode.percentile(95), figures->decode.percentile(50),
                figures->decode.percentile(95), figures->bytes.percentile(50), figures->bytes.percentile(95),
                figures->bytes.average() * 8 * 60 / 1e6, figures->keyframeBytes, figures->keyframeCpu,
                figures->similarity.average());
        }
    }
    return 0;
}

}  // namespace
}  // namespace velmora

int main(int count, char** arguments) {
    const std::int64_t megabits = count > 1 ? std::atoll(arguments[1]) : 20;
    const int pictures = count > 2 ? std::atoi(arguments[2]) : 120;
    return velmora::run(std::max<std::int64_t>(megabits, 1), std::max(pictures, 2));
}
