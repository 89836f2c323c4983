#include "Platform/Linux/Codec/VideoDevices.h"

#include <algorithm>
#include <filesystem>

namespace velmora {

VideoDevices VideoDevices::find(const std::string& root) {
    VideoDevices found;
    std::error_code ignored;
    for (std::filesystem::directory_iterator entry(root + "/dri", ignored), end; !ignored && entry != end;
         entry.increment(ignored)) {
        if (entry->path().filename().string().starts_with("renderD"))
            found.renderNodes.push_back(entry->path());
    }
    std::sort(found.renderNodes.begin(), found.renderNodes.end());
    found.hasNvidia = std::filesystem::exists(root + "/nvidia0", ignored);
    return found;
}

}  // namespace velmora
