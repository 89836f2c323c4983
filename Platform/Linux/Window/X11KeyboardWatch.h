#pragma once

#include <functional>
#include <memory>

namespace velmora {

/// Hears when another program takes the keyboard from a window of ours that keeps the focus, as a window
/// manager does for its shortcuts: the releases of the keys that are held go to that program, and Qt says
/// nothing. Made and used on the main thread of a QGuiApplication on X11; elsewhere it never tells anything.
class X11KeyboardWatch {
public:
    explicit X11KeyboardWatch(std::function<void()> onTaken);
    ~X11KeyboardWatch();
    X11KeyboardWatch(const X11KeyboardWatch&) = delete;
    X11KeyboardWatch& operator=(const X11KeyboardWatch&) = delete;

private:
    class Filter;
    const std::unique_ptr<Filter> filter_;
};

}  // namespace velmora
