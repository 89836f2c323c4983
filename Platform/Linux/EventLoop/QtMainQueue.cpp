#include "Platform/Linux/EventLoop/QtMainQueue.h"

#include <QCoreApplication>
#include <QEvent>
#include <QObject>
#include <QTimer>
#include <chrono>
#include <deque>
#include <mutex>
#include <utility>

namespace velmora {

/// Collects blocks under a lock and wakes the event loop once for all that have gathered: a posted event
/// costs far more than a block.
class QtMainQueue::Receiver final : public QObject {
public:
    void add(Block block) {
        bool wake = false;
        {
            std::lock_guard lock(mutex_);
            blocks_.push_back(std::move(block));
            wake = std::exchange(awake_, true) == false;
        }
        if (wake) QCoreApplication::postEvent(this, new QEvent(QEvent::User));
    }

protected:
    bool event(QEvent* event) override {
        if (event->type() != QEvent::User) return QObject::event(event);
        std::deque<Block> due;
        {
            std::lock_guard lock(mutex_);
            due.swap(blocks_);
            awake_ = false;
        }
        // One round only: what these blocks post waits for the next, so that timers and windows get a turn.
        while (!due.empty()) {
            Block block = std::move(due.front());
            due.pop_front();
            block();
        }
        return true;
    }

private:
    std::mutex mutex_;  // guards both; never held while a block runs
    std::deque<Block> blocks_;
    bool awake_ = false;
};

QtMainQueue::QtMainQueue() : thread_(std::this_thread::get_id()), receiver_(std::make_unique<Receiver>()) {}

QtMainQueue::~QtMainQueue() = default;

void QtMainQueue::post(Block block) {
    receiver_->add(std::move(block));
}

TimerToken QtMainQueue::after(HostClock::duration delay, Block block) {
    assertOn(*this);
    auto alive = std::make_shared<bool>(true);
    const auto wait =
        std::chrono::ceil<std::chrono::milliseconds>(std::max(delay, HostClock::duration::zero()));
    auto held = std::make_shared<Block>(std::move(block));  // Qt copies what it calls
    QTimer::singleShot(wait, Qt::PreciseTimer, receiver_.get(), [alive, held] {
        if (std::exchange(*alive, false)) (*held)();
    });
    return TimerToken(std::move(alive));
}

}  // namespace velmora
