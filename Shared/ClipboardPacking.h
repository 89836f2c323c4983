#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Platform/FolderArchiver.h"
#include "VelmoraKit/Wire/ClipboardFiles.h"

namespace velmora {

/// Turns files and folders into what travels, and what came into files again. Everything is held in memory.
/// Takes as long as the disk does: off the main queue, one call at a time.
class ClipboardPacking {
public:
    struct PackError {
        std::string message;
        bool operator==(const PackError&) const = default;
    };

    /// `inbox` is where received files live; nobody else puts anything there. `archiver` outlives this.
    ClipboardPacking(FolderArchiver& archiver, std::filesystem::path inbox)
        : archiver_(archiver), inbox_(std::move(inbox)) {}

    /// All of them, in their order, or none: the first one that cannot be had fails the whole.
    Result<ClipboardFiles, PackError> packFiles(const std::vector<std::filesystem::path>& files) const;

    /// Where they are now, in item order, perhaps none; no value when there is no place for them. Files of
    /// earlier calls are gone then: a clipboard replaces the one before it, and the inbox cannot grow.
    /// Whatever a name says, it is a file right inside a new folder of the inbox. What cannot be written
    /// whole, or unpacked, leaves nothing.
    std::optional<std::vector<std::filesystem::path>> saveFiles(const ClipboardFiles& files) const;

private:
    Result<ClipboardFiles::Item, PackError> packed(const std::filesystem::path& file, std::size_t room) const;
    bool save(const ClipboardFiles::Item& item, const std::filesystem::path& target) const;

    FolderArchiver& archiver_;
    const std::filesystem::path inbox_;
};

}  // namespace velmora
