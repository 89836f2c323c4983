#include "Viewer/Session/FrameSnapshot.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <system_error>
#include <utility>

#include "Shared/FileNames.h"

namespace velmora {

std::filesystem::path FrameSnapshot::fileFor(std::string_view key) const {
    constexpr std::size_t longest = 200;  // bytes; file systems end at 255
    return folder_ / (fileNamePart(key).substr(0, longest) + ".jpg");
}

void FrameSnapshot::save(SharedPicture picture, const std::string& key) {
    worker_.post([this, picture = std::move(picture), file = fileFor(key)] {
        if (picture) write(*picture, file);
    });
}

void FrameSnapshot::write(const Picture& picture, const std::filesystem::path& file) const {
    const PixelSize full = picture.size;
    const double scale = full.width >= 1 ? std::min(static_cast<double>(widest) / full.width, 1.0) : 1.0;
    const auto scaled = [scale](int side) {
        return std::max(1, static_cast<int>(std::lround(side * scale)));
    };
    const auto jpeg =
        jpeg_.encode(picture, {0, 0, full.width, full.height}, {scaled(full.width), scaled(full.height)});
    if (!jpeg) return;
    std::error_code ignored;
    std::filesystem::create_directories(folder_, ignored);
    // A reader shall never meet half a picture.
    auto unfinished = file;
    unfinished += ".part";
    std::ofstream out(unfinished, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(jpeg->data()), static_cast<std::streamsize>(jpeg->size()));
    out.close();
    if (out) {
        std::filesystem::rename(unfinished, file, ignored);
    } else {
        std::filesystem::remove(unfinished, ignored);
    }
}

}  // namespace velmora
