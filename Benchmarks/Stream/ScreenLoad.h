#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Picture.h"
#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

/// Changes a screen the way people's work does, from a thread of its own, and remembers when. Each change
/// carries its number in a small pattern at the top left corner, which is read back from decoded pictures.
class ScreenLoad {
public:
    enum class Kind {
        typing,  // 30 small glyphs a second, one after the other
        strip,   // a band over the whole width, 60 times a second
        scroll,  // a page of text moves by a line, 60 times a second
        motion,  // the whole screen, 60 times a second: a textured picture that pans
    };
    static constexpr int numbers = 4096;  // then they begin again

    ScreenLoad(const std::string& display, PixelSize size);
    ~ScreenLoad();

    void start(Kind kind);
    void stop();

    /// When change `number` was handed to the X server; the latest of that number.
    HostClock::time_point changedAt(int number) const;
    /// The number of the latest change.
    int latest() const { return latest_; }
    /// CPU time that drawing took in this process, seconds.
    double cpuSeconds() const { return cpuSeconds_; }

    /// What a decoded picture shows; none if the pattern cannot be read.
    static std::optional<int> numberIn(const Picture& picture);

private:
    class Canvas;
    void run(Kind kind);

    const std::unique_ptr<Canvas> canvas_;
    std::vector<std::atomic<std::int64_t>> changedAt_;
    std::atomic<int> latest_ = 0;
    std::atomic<double> cpuSeconds_ = 0;
    std::atomic<bool> ending_ = false;
    std::thread thread_;
};

}  // namespace velmora
