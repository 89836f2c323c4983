#include "Testing/FakeFolderArchiver.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>

#include "VelmoraKit/Wire/ByteCoding.h"

namespace velmora {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view magic = "folder";

bool unpackInto(ByteView archive, const fs::path& target) {
    fs::create_directory(target);
    if (archive.size() < magic.size() || std::memcmp(archive.data(), magic.data(), magic.size()) != 0)
        return false;
    for (archive = archive.subspan(magic.size()); !archive.empty();) {
        const auto end = std::find(archive.begin(), archive.end(), 0);
        if (end == archive.end()) return false;
        const std::string name(archive.begin(), end);
        const fs::path file = target / name;
        ByteReader reader(archive.subspan(name.size() + 1));
        const auto length = reader.u32();
        if (!length) return false;
        const auto content = reader.bytes(*length);
        if (!content) return false;
        fs::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << textOf(*content);
        archive = reader.remaining();
    }
    return true;
}

}  // namespace

Result<Bytes, FolderArchiver::Fault> FakeFolderArchiver::pack(const fs::path& folder, std::size_t most) {
    ByteWriter archive;
    archive.bytes(viewOf(magic));
    std::error_code error;
    for (const auto& entry : fs::recursive_directory_iterator(folder, error)) {
        if (!entry.is_regular_file()) continue;
        std::ifstream in(entry.path(), std::ios::binary);
        const Bytes content{std::istreambuf_iterator(in), {}};
        archive.bytes(viewOf(entry.path().lexically_relative(folder).string()));
        archive.u8(0);
        archive.u32(static_cast<std::uint32_t>(content.size()));
        archive.bytes(content);
    }
    if (error) return Fault::unreadable;
    if (archive.data.size() > most) return Fault::tooLarge;
    return std::move(archive.data);
}

Result<Done, FolderArchiver::Fault> FakeFolderArchiver::unpack(ByteView archive, const fs::path& target) {
    if (unpackInto(archive, target)) return Done{};
    fs::remove_all(target);
    return Fault::unreadable;
}

}  // namespace velmora
