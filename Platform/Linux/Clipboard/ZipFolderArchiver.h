#pragma once

#include "Platform/FolderArchiver.h"

namespace velmora {

/// Zip archives by libarchive, in this process.
class ZipFolderArchiver final : public FolderArchiver {
public:
    ZipFolderArchiver() : ZipFolderArchiver(Limits()) {}
    explicit ZipFolderArchiver(const Limits& limits) : limits_(limits) {}

    Result<Bytes, Fault> pack(const std::filesystem::path& folder, std::size_t most) override;
    /// What stands in "__MACOSX" beside the folder, resources of another system, is left out.
    Result<Done, Fault> unpack(ByteView archive, const std::filesystem::path& target) override;

private:
    const Limits limits_;
};

}  // namespace velmora
