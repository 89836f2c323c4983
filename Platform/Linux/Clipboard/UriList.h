#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

/// The "file" URI of an absolute path (RFC 8089).
std::string fileUri(const std::filesystem::path& file);

/// The local files of a list of URIs, one a line (RFC 2483 section 5): absolute paths. Comments, the URIs of
/// other schemes and machines, and what is no URI are left out.
std::vector<std::filesystem::path> localFiles(std::string_view list);

}  // namespace velmora
