#pragma once

#include <sys/types.h>

#include <atomic>
#include <string>
#include <thread>

#include "Testing/LinkPipe.h"

namespace velmora {

/// A cable between two network namespaces on which packets take their time and get lost: a TUN device in
/// each, and a thread between them. The devices have no address yet and vanish with this object.
class SlowCable {
public:
    struct End {
        pid_t inhabitant;  // a process in the namespace
        std::string device;
    };
    SlowCable(const End& one, const End& other, const LinkPipe::Direction& eachWay);
    ~SlowCable();
    SlowCable(const SlowCable&) = delete;
    SlowCable& operator=(const SlowCable&) = delete;

    /// False where the system does not let us have such devices.
    bool isLaid() const { return ends_[0] >= 0 && ends_[1] >= 0; }

private:
    void carry();

    const int ends_[2];
    const int wake_;
    LinkPipe pipes_[2];  // from each end to the other
    std::atomic<bool> ending_ = false;
    std::thread thread_;
};

}  // namespace velmora
