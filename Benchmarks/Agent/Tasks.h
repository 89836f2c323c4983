#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Benchmarks/Agent/Desktop.h"

namespace velmora {

/// What the bridge was seen to do while tasks were done.
struct Observations {
    std::vector<double> clickToPicture;  // milliseconds from calling `click` to the picture after it
    int late = 0;                        // such pictures that did not show yet what the click had done
};

/// Something to do with the tools of an agent. It looks for what to act on in the pictures, and has no eyes
/// but them.
struct Task {
    enum class Place { ordinary, small, large, twoDisplays };  // the desktop on which it is done
    std::string name;
    Place place = Place::ordinary;
    /// False if it was missed.
    std::function<bool(Desktop&, Observations&)> perform;
};
std::vector<Task> allTasks();

/// The size of its displays, and how many there are.
struct DesktopKind {
    PixelSize size;
    int displays = 1;
};
DesktopKind kindOf(Task::Place place);

}  // namespace velmora
