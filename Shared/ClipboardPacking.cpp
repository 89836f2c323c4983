#include "Shared/ClipboardPacking.h"

#include <fmt/format.h>

#include <fstream>
#include <utility>

#include "Shared/Uuid.h"
#include "VelmoraKit/Core/Utf8.h"
#include "VelmoraKit/Wire/ClipboardContent.h"

namespace velmora {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t limit = ClipboardContent::maxFileBytes;
const ClipboardPacking::PackError overLimit{"files are over the 60 MB limit"};

/// No value when it cannot be read; never much more than `most` bytes, whatever the file grows to meanwhile.
std::optional<Bytes> contentOf(const fs::path& file, std::size_t most) {
    std::ifstream in(file, std::ios::binary);
    if (!in) return std::nullopt;
    Bytes content;
    constexpr std::size_t step = 1 << 20;
    while (in && content.size() <= most) {
        const std::size_t before = content.size();
        content.resize(before + step);
        in.read(reinterpret_cast<char*>(content.data() + before), step);
        content.resize(before + static_cast<std::size_t>(in.gcount()));
    }
    if (in.bad()) return std::nullopt;
    return content;
}

bool writeWhole(const fs::path& file, ByteView content) {
    std::ofstream out(file, std::ios::binary);
    out.write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
    out.close();
    return static_cast<bool>(out);
}

/// The last component of a peer's name, empty if it names no file.
std::string safeName(std::string_view name) {
    while (name.ends_with('/')) name.remove_suffix(1);
    if (const auto slash = name.rfind('/'); slash != name.npos) name.remove_prefix(slash + 1);
    if (name == "." || name == ".." || name.find('\0') != name.npos) return {};
    return std::string(name);
}

}  // namespace

Result<ClipboardFiles, ClipboardPacking::PackError> ClipboardPacking::packFiles(
    const std::vector<fs::path>& files) const {
    ClipboardFiles all;
    std::size_t room = limit;
    for (const fs::path& file : files) {
        auto item = packed(file, room);
        if (!item) return item.error();
        room -= item->data.size();
        all.items.push_back(std::move(*item));
    }
    if (all.items.empty()) return PackError{"no readable files"};
    return all;
}

Result<ClipboardFiles::Item, ClipboardPacking::PackError> ClipboardPacking::packed(const fs::path& file,
                                                                                   std::size_t room) const {
    const fs::path named = file.has_filename() ? file : file.parent_path();
    ClipboardFiles::Item item{.name = repairedUtf8(viewOf(named.filename().string()))};
    const PackError unreadable{fmt::format("can't read {}", item.name)};
    std::error_code error;
    const fs::file_status status = fs::status(named, error);
    if (fs::is_directory(status)) {
        item.isFolder = true;
        auto archive = archiver_.pack(named, room);
        if (!archive) return archive.error() == FolderArchiver::Fault::tooLarge ? overLimit : unreadable;
        item.data = std::move(*archive);
        return item;
    }
    // Nothing else: a pipe would be waited for, and a device has no end.
    if (!fs::is_regular_file(status)) return unreadable;
    const auto size = fs::file_size(named, error);
    if (!error && size > room) return overLimit;
    auto content = contentOf(named, room);
    if (!content) return unreadable;
    if (content->size() > room) return overLimit;
    item.data = *std::move(content);
    return item;
}

std::optional<std::vector<fs::path>> ClipboardPacking::saveFiles(const ClipboardFiles& files) const {
    std::error_code error;
    fs::remove_all(inbox_, error);
    const fs::path folder = inbox_ / newUuid();
    if (!fs::create_directories(folder, error)) return std::nullopt;
    fs::permissions(inbox_, fs::perms::owner_all, error);
    std::vector<fs::path> saved;
    for (const ClipboardFiles::Item& item : files.items) {
        const std::string name = safeName(item.name);
        if (name.empty()) continue;
        // The first of a name stays: there is no telling what a second one would go into or through.
        const fs::path target = folder / name;
        if (fs::exists(fs::symlink_status(target, error))) continue;
        if (save(item, target)) saved.push_back(target);
    }
    return saved;
}

bool ClipboardPacking::save(const ClipboardFiles::Item& item, const fs::path& target) const {
    if (item.isFolder) return archiver_.unpack(item.data, target).ok();
    if (writeWhole(target, item.data)) return true;
    std::error_code ignored;
    fs::remove(target, ignored);
    return false;
}

}  // namespace velmora
