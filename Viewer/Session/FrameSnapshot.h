#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "Platform/JpegEncoder.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// Keeps the last picture of each host as a small file, to be shown blurred while a window connects to it
/// again. Any thread; lives as long as the process.
class FrameSnapshot {
public:
    /// `folder` is made when it is needed. Files are written on `worker`; both outlive us.
    FrameSnapshot(std::filesystem::path folder, JpegEncoder& jpeg, Queue& worker)
        : folder_(std::move(folder)), jpeg_(jpeg), worker_(worker) {}

    /// Where the picture of the host `key` is, if there is one.
    std::filesystem::path fileFor(std::string_view key) const;
    /// Returns at once. A picture that cannot be written is silently none.
    void save(SharedPicture picture, const std::string& key);

    static constexpr int widest = 1280;  // pixels; it is only ever seen blurred

private:
    void write(const Picture& picture, const std::filesystem::path& file) const;

    const std::filesystem::path folder_;
    JpegEncoder& jpeg_;
    Queue& worker_;
};

}  // namespace velmora
