#pragma once

#include <string>
#include <vector>

namespace velmora {

/// The device nodes through which video hardware is reached. Most servers have none.
struct VideoDevices {
    std::vector<std::string> renderNodes;  // /dev/dri/renderD128 and on, lowest first
    bool hasNvidia = false;

    /// Looks below `root`; whether a device can do anything is found out by trying.
    static VideoDevices find(const std::string& root = "/dev");
};

}  // namespace velmora
