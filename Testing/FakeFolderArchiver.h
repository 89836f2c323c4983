#pragma once

#include "Platform/FolderArchiver.h"

namespace velmora {

/// Archives in a format of its own: for each file its path below the folder, a zero, its length and its
/// bytes. Knows files and folders, no links.
class FakeFolderArchiver final : public FolderArchiver {
public:
    Result<Bytes, Fault> pack(const std::filesystem::path& folder, std::size_t most) override;
    Result<Done, Fault> unpack(ByteView archive, const std::filesystem::path& target) override;
};

}  // namespace velmora
