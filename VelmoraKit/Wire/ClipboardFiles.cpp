#include "VelmoraKit/Wire/ClipboardFiles.h"

#include <cstdlib>
#include <limits>
#include <utility>

#include "VelmoraKit/Core/Utf8.h"

namespace velmora {

namespace {

std::uint32_t lengthOf(std::size_t size) {
    if (size > std::numeric_limits<std::uint32_t>::max()) std::abort();
    return static_cast<std::uint32_t>(size);
}

}  // namespace

Bytes ClipboardFiles::encode() const {
    std::size_t size = 4;
    for (const Item& item : items) size += 9 + item.name.size() + item.data.size();
    ByteWriter writer(size);
    writer.u32(lengthOf(items.size()));
    for (const Item& item : items) {
        writer.u8(item.isFolder ? 1 : 0);
        writer.u32(lengthOf(item.name.size()));
        writer.bytes(viewOf(item.name));
        writer.u32(lengthOf(item.data.size()));
        writer.bytes(item.data);
    }
    return std::move(writer.data);
}

Result<ClipboardFiles, WireError> ClipboardFiles::decode(ByteView data) {
    ByteReader reader(data);
    const auto count = reader.u32();
    if (!count || *count > mostItems) return WireError::malformed;
    ClipboardFiles files;
    for (std::uint32_t i = 0; i < *count; ++i) {
        const auto flag = reader.u8();
        const auto nameLength = reader.u32();
        if (!flag || !nameLength) return WireError::malformed;
        const auto name = reader.bytes(*nameLength);
        const auto dataLength = reader.u32();
        if (!name || !dataLength) return WireError::malformed;
        const auto content = reader.bytes(*dataLength);
        if (!content) return WireError::malformed;
        files.items.push_back({.name = repairedUtf8(*name),
                               .isFolder = *flag == 1,
                               .data = {content->begin(), content->end()}});
    }
    return files;
}

}  // namespace velmora
