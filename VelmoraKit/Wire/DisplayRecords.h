#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "VelmoraKit/Wire/ByteCoding.h"

namespace velmora {

// JSON records about displays. Sizes come from a peer unchecked: they may be zero, negative or absurd.

/// Viewer to host: the size that a virtual display should have.
struct DisplayRequest {
    std::int64_t width = 0, height = 0;  // points
    std::int64_t scale = 1;              // pixels per point

    Bytes encode() const;
    static Result<DisplayRequest, WireError> decode(ByteView data);
    bool operator==(const DisplayRequest&) const = default;
};

/// One display that the host can show.
struct ServerDisplay {
    std::uint32_t id = 0;
    std::string name;
    std::int64_t width = 0, height = 0;

    Bytes encode() const;
    static Result<ServerDisplay, WireError> decode(ByteView data);
    bool operator==(const ServerDisplay&) const = default;
};

/// Host to viewer: what there is to choose from.
struct DisplayList {
    std::vector<ServerDisplay> displays;
    bool virtualAvailable = false;
    std::optional<std::uint32_t> currentID;  // the display now shown

    Bytes encode() const;
    static Result<DisplayList, WireError> decode(ByteView data);
    bool operator==(const DisplayList&) const = default;
};

/// Viewer to host: the display to show. Without `displayID`, the virtual display that follows `window`.
struct DisplaySelection {
    std::optional<std::uint32_t> displayID;
    std::optional<DisplayRequest> window;

    Bytes encode() const;
    static Result<DisplaySelection, WireError> decode(ByteView data);
    bool operator==(const DisplaySelection&) const = default;
};

}  // namespace velmora
