#pragma once

#include <QCoreApplication>
#include <QEvent>
#include <QEventLoop>
#include <QTimer>
#include <chrono>

namespace velmora {

/// A Qt application whose events a test turns by itself.
class QtPump {
public:
    QtPump() = default;
    QtPump(const QtPump&) = delete;
    QtPump& operator=(const QtPump&) = delete;
    /// Without a running event loop nobody else does what `deleteLater` asked for.
    ~QtPump() { QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); }

    /// Runs events until `condition` holds; false if it does not within `limit`.
    template <class F>
    bool until(F condition, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
        QTimer deadline;
        deadline.setSingleShot(true);
        deadline.start(limit);
        while (!condition()) {
            if (!deadline.isActive()) return false;
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        }
        return true;
    }

private:
    int argc_ = 1;
    char name_[5] = "test";
    char* argv_[2] = {name_, nullptr};
    QCoreApplication application_{argc_, argv_};
};

}  // namespace velmora
