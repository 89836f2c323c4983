#include "Platform/Linux/Codec/VideoCodecFactories.h"

#include <fmt/format.h>

#include <set>
#include <utility>

#include "Platform/Linux/Codec/AvcodecDecompressor.h"
#include "Platform/Linux/Codec/AvcodecHardwareCompressor.h"
#include "Platform/Linux/Codec/X264Compressor.h"
#include "Platform/Linux/Codec/X265Compressor.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {
namespace {

using Made = Result<std::unique_ptr<VideoCompressor>>;

class ChoosingCompressorFactory final : public VideoCompressorFactory {
public:
    explicit ChoosingCompressorFactory(VideoCompressorChoice choice) : choice_(std::move(choice)) {}

    Made make(const VideoCompressor::Configuration& configuration) override {
        if (auto made = makeHardware(configuration)) return std::move(*made);
        if (configuration.codec == VideoCodec::h264) return X264Compressor::open(configuration);
        if (choice_.allowSoftwareHevc) return X265Compressor::open(configuration);
        auto h264 = configuration;
        h264.codec = VideoCodec::h264;
        return make(h264);
    }

private:
    using Hardware = AvcodecHardwareCompressor;

    std::optional<std::unique_ptr<VideoCompressor>> makeHardware(
        const VideoCompressor::Configuration& configuration) {
        std::vector<std::pair<Hardware::Interface, std::string>> candidates;
        if (choice_.devices.hasNvidia) candidates.emplace_back(Hardware::Interface::nvenc, "");
        for (const auto interface : {Hardware::Interface::vaapi, Hardware::Interface::quickSync}) {
            for (const auto& node : choice_.devices.renderNodes) candidates.emplace_back(interface, node);
        }
        for (const auto& [interface, device] : candidates) {
            auto made = Hardware::open(interface, device, configuration);
            if (made) return std::move(made).value();
            sayOnce(fmt::format("Hardware encoder not used: {}", made.error().text));
        }
        return std::nullopt;
    }

    /// An encoder is made at every change of size; what does not work stays the same.
    void sayOnce(const std::string& line) {
        if (said_.insert(line).second) hostLog(line);
    }

    const VideoCompressorChoice choice_;
    std::set<std::string> said_;
};

}  // namespace

std::unique_ptr<VideoCompressorFactory> makeVideoCompressorFactory(VideoCompressorChoice choice) {
    return std::make_unique<ChoosingCompressorFactory>(std::move(choice));
}

std::unique_ptr<VideoDecompressorFactory> makeVideoDecompressorFactory(const VideoDevices& devices) {
    return std::make_unique<AvcodecDecompressorFactory>(
        AvcodecDecompressor::Parameters{.devices = devices.renderNodes});
}

}  // namespace velmora
