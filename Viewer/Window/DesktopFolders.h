#pragma once

#include <filesystem>

namespace velmora::DesktopFolders {

/// Where this desktop keeps screenshots: "Screenshots" among the pictures where there is one, else the
/// desktop itself, else the home folder.
std::filesystem::path screenshots();

/// Opens the folder that `file` lies in.
void reveal(const std::filesystem::path& file);

}  // namespace velmora::DesktopFolders
