#pragma once

#include <cstdint>

#include "Platform/PreferenceStore.h"
#include "VelmoraKit/Wire/VideoRecords.h"

namespace velmora {

/// What the host does, stored as one preference each. A missing or broken value reads as its default.
struct ServerSettings {
    VideoCodec codec = VideoCodec::hevc;
    std::int64_t bitrateMbps = 20;
    bool dynamicDisplay = true;       // offer a virtual display of the size of the viewer's window
    bool startOnLaunch = true;        // start the server with the program
    bool allowPasswordAccess = true;  // let viewers in by Host ID and password through the rendezvous service
    bool keepAwake = false;           // no idle sleep while the server runs

    static constexpr int fps = 60;             // ceiling
    static constexpr int maxDimension = 3840;  // longest side of the picture, pixels

    static ServerSettings load(const PreferenceStore& preferences);
    void save(PreferenceStore& preferences) const;

    bool operator==(const ServerSettings&) const = default;
};

}  // namespace velmora
