#include "Platform/Linux/System/PngFile.h"

#include <fmt/format.h>
#include <png.h>

#include <algorithm>
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

Result<Bytes> encode(PixelSize size, png_uint_32 format, const Bytes& pixels) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(size.width);
    image.height = static_cast<png_uint_32>(size.height);
    image.format = format;
    image.flags = PNG_IMAGE_FLAG_FAST;  // a third of the time for a tenth more bytes

    Bytes png(PNG_IMAGE_PNG_SIZE_MAX(image));
    png_alloc_size_t length = png.size();
    const bool written =
        png_image_write_to_memory(&image, png.data(), &length, 0, pixels.data(), 0, nullptr) != 0;
    png_image_free(&image);
    if (!written) return Failure{image.message};
    png.resize(length);
    return png;
}

}  // namespace

Result<Bytes> encodePng(const Picture& picture) {
    if (picture.size.width <= 0 || picture.size.height <= 0) return Failure{"a picture without pixels"};
    const Bytes rgb = Rgb709::rgbOf<3>(picture, {0, 0, picture.size.width, picture.size.height});
    return encode(picture.size, PNG_FORMAT_RGB, rgb);
}

Result<Bytes> encodePng(PixelSize size, std::span<const std::uint32_t> premultiplied) {
    const auto count = static_cast<std::size_t>(std::max(size.width, 0)) *
                       static_cast<std::size_t>(std::max(size.height, 0));
    if (count == 0 || premultiplied.size() < count) return Failure{"a picture without pixels"};
    Bytes rgba;
    rgba.reserve(count * 4);
    for (const std::uint32_t pixel : premultiplied.first(count)) {
        const std::uint32_t alpha = pixel >> 24;
        for (const int shift : {16, 8, 0}) {
            const std::uint32_t part = pixel >> shift & 0xFF;
            const auto plain = alpha == 0 ? 0 : std::min((part * 255 + alpha / 2) / alpha, 255U);
            rgba.push_back(static_cast<std::uint8_t>(plain));
        }
        rgba.push_back(static_cast<std::uint8_t>(alpha));
    }
    return encode(size, PNG_FORMAT_RGBA, rgba);
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
