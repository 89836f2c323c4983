#include "Platform/Linux/System/PngFile.h"

#include <fmt/format.h>
#include <png.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <system_error>

#include "Platform/Linux/System/Rgb709.h"

namespace velmora {

namespace {

Status failureOf(const std::filesystem::path& path, int error) {
    return Failure{fmt::format("{}: {}", path.string(), std::generic_category().message(error)), error};
}

}  // namespace

Result<Bytes> encodePng(const Picture& picture) {
    if (picture.size.width <= 0 || picture.size.height <= 0) return Failure{"a picture without pixels"};
    const Bytes rgb = Rgb709::rgbOf<3>(picture, {0, 0, picture.size.width, picture.size.height});
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(picture.size.width);
    image.height = static_cast<png_uint_32>(picture.size.height);
    image.format = PNG_FORMAT_RGB;
    image.flags = PNG_IMAGE_FLAG_FAST;  // a third of the time for a tenth more bytes

    Bytes png(PNG_IMAGE_PNG_SIZE_MAX(image));
    png_alloc_size_t size = png.size();
    const bool written = png_image_write_to_memory(&image, png.data(), &size, 0, rgb.data(), 0, nullptr) != 0;
    png_image_free(&image);
    if (!written) return Failure{image.message};
    png.resize(size);
    return png;
}

Status writePng(const Picture& picture, const std::filesystem::path& path) {
    const auto png = encodePng(picture);
    if (!png) return png.error();
    const auto unfinished = path.string() + ".part";
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(unfinished.c_str(), "wbe"),
                                                               [](std::FILE* f) { return std::fclose(f); });
    if (!file) return failureOf(path, errno);
    if (std::fwrite(png->data(), 1, png->size(), file.get()) != png->size() || std::fflush(file.get()) != 0) {
        const int error = errno;
        std::remove(unfinished.c_str());
        return failureOf(path, error);
    }
    std::error_code error;
    std::filesystem::rename(unfinished, path, error);
    if (error) {
        std::remove(unfinished.c_str());
        return failureOf(path, error.value());
    }
    return Done{};
}

}  // namespace velmora
