#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Platform/CursorSource.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// The pointer of an X server, whose pixels are points. XFIXES tells of changes, so that a pointer that keeps
/// its shape costs nothing, wherever it moves. Each watch has a connection and a thread of its own.
class X11CursorSource final : public CursorSource {
public:
    /// `display` as for XConnection. `main` outlives us.
    explicit X11CursorSource(Queue& main, std::string display = {});
    /// Waits for the threads, as long as the X server takes for an answer.
    ~X11CursorSource() override;

    std::unique_ptr<Watch> watch(Told onShape) override;

private:
    class Watching;
    class Token;

    Queue& main_;
    const std::string display_;
    std::vector<std::shared_ptr<Watching>> watchings_;  // also those that are ending
};

}  // namespace velmora
