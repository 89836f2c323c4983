#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>

#include "VelmoraKit/Core/Bytes.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// Makes one zip archive of a folder, and a folder of one. Both take as long as the disk does, so they stay
/// off the main queue; any thread, one call at a time.
class FolderArchiver {
public:
    /// A folder of a few tens of megabytes packed is ordinary; these stop what would fill a disk.
    struct Limits {
        std::uint64_t contentBytes = std::uint64_t{1} << 30;  // of all files together, unpacked
        std::size_t entries = 100'000;
    };
    enum class Fault {
        unreadable,  // a file or folder cannot be read; a damaged or hostile archive
        tooLarge,    // the archive would be longer than allowed, or a limit is exceeded
        unwritable,  // the disk
    };

    virtual ~FolderArchiver() = default;

    /// The folder, under its own name, with all in it. Links stay links; sockets, pipes and devices are left
    /// out. Stops as soon as the archive is longer than `most` bytes.
    virtual Result<Bytes, Fault> pack(const std::filesystem::path& folder, std::size_t most) = 0;

    /// Puts the one folder of the archive into `target`, which does not exist, but whose parent does. After a
    /// fault nothing is there. An archive decides nothing outside `target`: entries that lead out of it are a
    /// fault, links that do are left out. Files belong to this user and have no special rights.
    virtual Result<Done, Fault> unpack(ByteView archive, const std::filesystem::path& target) = 0;
};

}  // namespace velmora
