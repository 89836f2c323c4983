#include "Platform/Linux/Window/X11KeyboardWatch.h"

#include <xcb/xcb.h>

#include <QAbstractNativeEventFilter>
#include <QByteArray>
#include <QCoreApplication>
#include <utility>

namespace velmora {

class X11KeyboardWatch::Filter final : public QAbstractNativeEventFilter {
public:
    explicit Filter(std::function<void()> onTaken) : onTaken_(std::move(onTaken)) {}

    bool nativeEventFilter(const QByteArray& type, void* message, qintptr*) override {
        if (type != "xcb_generic_event_t") return false;
        const auto* event = static_cast<const xcb_generic_event_t*>(message);
        if ((event->response_type & 0x7F) != XCB_FOCUS_OUT) return false;
        const auto mode = static_cast<const xcb_focus_out_event_t*>(message)->mode;
        if (mode == XCB_NOTIFY_MODE_GRAB && onTaken_) onTaken_();
        return false;
    }

private:
    const std::function<void()> onTaken_;
};

X11KeyboardWatch::X11KeyboardWatch(std::function<void()> onTaken)
    : filter_(std::make_unique<Filter>(std::move(onTaken))) {
    QCoreApplication::instance()->installNativeEventFilter(filter_.get());
}

X11KeyboardWatch::~X11KeyboardWatch() = default;  // a filter takes itself out

}  // namespace velmora
