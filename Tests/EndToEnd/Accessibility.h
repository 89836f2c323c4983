#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Picture.h"
#include "Testing/FakeBusService.h"
#include "Testing/PrivateBus.h"

namespace velmora {

/// A part of a window, as a screen reader knows it.
struct Control {
    std::string role;  // "push button", "label", "text" ...
    std::string name;
    std::string description;
    std::string value;   // what a field holds; a slider's position
    std::string window;  // the name of the window that it is in
    PixelRect place;     // on the screen
    bool isShowing = false, isEnabled = false, isFocusable = false, isFocused = false, isChecked = false;
};

/// How tests see the controls of programs: by the names that the programs give them (AT-SPI), on a bus of
/// their own. There is no registry of programs there: a program is found by its process.
class Accessibility {
public:
    Accessibility();
    ~Accessibility();
    Accessibility(const Accessibility&) = delete;
    Accessibility& operator=(const Accessibility&) = delete;

    /// What a program is started with to be seen here: "NAME=value".
    std::vector<std::string> environment() const;

    /// All that is in the windows of a program, each window before what is in it; empty if it is not there,
    /// or not yet.
    std::vector<Control> controlsOf(pid_t program);

private:
    struct Reference {
        std::string bus, path;
    };
    using Variant = std::unique_ptr<GVariant, void (*)(GVariant*)>;
    Variant call(const Reference& whom, const char* interface, const char* method, GVariant* arguments,
                 const char* answer);
    std::optional<std::string> busNameOf(pid_t program);
    std::vector<Reference> childrenOf(const Reference& whom);
    std::string propertyOf(const Reference& whom, const char* interface, const char* property);
    Control read(const Reference& whom, const std::string& window);
    void collect(const Reference& whom, const std::string& window, int depth, std::vector<Control>& all);

    PrivateBus bus_{PrivateBus::Role::session};
    FakeBusService guide_, registry_;
    GDBusConnection* connection_ = nullptr;
};

}  // namespace velmora
