// Writes the seeds of DecoderFuzzer into the folder given: streams of 64x48 by our own encoders, whole and
// spoilt in the ways that networks and peers spoil them. Run by hand; its output is kept under
// Corpora/DecoderFuzzer.

#include <cstdio>
#include <fstream>
#include <string>

#include "Platform/Linux/Codec/X264Compressor.h"
#include "Platform/Linux/Codec/X265Compressor.h"
#include "Testing/DesktopScene.h"

namespace velmora {
namespace {

void append(Bytes& out, std::uint8_t kind, const Bytes& body) {
    out.insert(out.end(),
               {kind, static_cast<std::uint8_t>(body.size() >> 8), static_cast<std::uint8_t>(body.size())});
    out.insert(out.end(), body.begin(), body.end());
}

/// A picture of a new size halfway, so that decoders are changed and taken over.
Bytes stream(VideoCodec codec, DesktopScene::Kind kind) {
    Bytes out;
    for (const PixelSize size : {PixelSize{64, 48}, PixelSize{96, 64}}) {
        const VideoCompressor::Configuration configuration{
            .codec = codec, .size = size, .bitsPerSecond = 100'000};
        auto made = codec == VideoCodec::h264 ? X264Compressor::open(configuration)
                                              : X265Compressor::open(configuration);
        if (!made) return {};
        DesktopScene scene({std::max(size.width, 64), std::max(size.height, 48)}, kind);
        for (int i = 0; i < 3; ++i) {
            const auto damage = scene.step();
            const auto picture = made.value()->encode(*scene.view(), {.damage = damage});
            if (!picture) return {};
            if (picture->parameterSets) {
                const StreamConfig config{.codec = codec,
                                          .width = static_cast<std::uint32_t>(size.width),
                                          .height = static_cast<std::uint32_t>(size.height),
                                          .parameterSets = *picture->parameterSets};
                append(out, 0, config.encode());
            }
            append(out, 1, picture->data);
        }
    }
    return out;
}

void save(const std::string& path, const Bytes& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace
}  // namespace velmora

int main(int count, char** arguments) {
    using namespace velmora;
    if (count != 2) {
        std::fprintf(stderr, "usage: %s FOLDER\n", arguments[0]);
        return 2;
    }
    const std::string folder = arguments[1];
    for (const auto& [codec, name] :
         {std::pair{VideoCodec::h264, "h264"}, std::pair{VideoCodec::hevc, "hevc"}}) {
        const Bytes typing = stream(codec, DesktopScene::Kind::typing);
        const Bytes motion = stream(codec, DesktopScene::Kind::motion);
        Bytes flipped = motion;
        for (std::size_t i = 200; i < flipped.size(); i += 97) flipped[i] ^= 0x10;
        save(folder + "/" + name + "-typing", typing);
        save(folder + "/" + name + "-motion", motion);
        save(folder + "/" + name + "-flipped", flipped);
        save(folder + "/" + name + "-cut",
             Bytes(typing.begin(), typing.begin() + static_cast<std::ptrdiff_t>(typing.size() / 3)));
    }
    return 0;
}
