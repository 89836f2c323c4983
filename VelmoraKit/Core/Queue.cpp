#include "VelmoraKit/Core/Queue.h"

#include <future>

namespace velmora {

void Queue::runSync(Block block) {
    if (isCurrent()) return block();
    // Broken when the queue ends without running the block: the waiter then simply goes on.
    auto done = std::make_shared<std::promise<void>>();
    auto finished = done->get_future();
    post([&block, done = std::move(done)]() mutable {
        block();
        done->set_value();
        done.reset();
    });
    finished.wait();
}

}  // namespace velmora
