#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "VelmoraKit/Wire/ByteCoding.h"

namespace velmora {

/// Files and folders that somebody copied: the data of a ClipboardContent of kind `files`.
/// item count u32 | for each: isFolder u8, name length u32, name in UTF-8, data length u32, data.
/// What follows the last item is ignored.
struct ClipboardFiles {
    struct Item {
        std::string name;  // a last path component; from a peer, anything that is UTF-8
        bool isFolder = false;
        Bytes data;  // a file's content; a folder's zip archive
        bool operator==(const Item&) const = default;
    };
    /// An item takes many times its nine bytes in memory, and nobody copies so many: more are malformed.
    static constexpr std::size_t mostItems = 65'536;

    std::vector<Item> items;

    /// A length of 4 GiB or more is a programming error and stops the process.
    Bytes encode() const;
    static Result<ClipboardFiles, WireError> decode(ByteView data);
    bool operator==(const ClipboardFiles&) const = default;
};

}  // namespace velmora
