#pragma once

#include <xcb/shm.h>

#include <cstddef>
#include <memory>

#include "Platform/Linux/Display/XConnection.h"

namespace velmora {

/// Memory that this process and the X server both see. Ours, and only attached by the server: the place it
/// would use for its own is small in containers.
class SharedSegment {
public:
    static Result<std::unique_ptr<SharedSegment>> make(const XConnection& connection, std::size_t size);
    ~SharedSegment();
    SharedSegment(const SharedSegment&) = delete;
    SharedSegment& operator=(const SharedSegment&) = delete;

    xcb_shm_seg_t id() const { return id_; }
    const std::uint8_t* bytes() const { return bytes_; }
    std::size_t size() const { return size_; }

private:
    SharedSegment(const XConnection& connection, xcb_shm_seg_t id, std::uint8_t* bytes, std::size_t size)
        : connection_(connection), id_(id), bytes_(bytes), size_(size) {}
    const XConnection& connection_;  // outlives us
    const xcb_shm_seg_t id_;
    std::uint8_t* const bytes_;
    const std::size_t size_;
};

}  // namespace velmora
