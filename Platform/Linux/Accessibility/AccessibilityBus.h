#pragma once

#include <gio/gio.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/Accessibility/AtSpiElement.h"
#include "Platform/Linux/System/BusCaller.h"
#include "VelmoraKit/Core/Result.h"
#include "VelmoraKit/Core/UniqueFunction.h"

namespace velmora {

/// A client of the accessibility bus, on which programs say what is on the screen and what has the focus.
/// Lives on a GlibThread, where every call is made and every callback runs; nothing waits there. Once it is
/// destroyed no callback runs.
class AccessibilityBus {
public:
    template <class T>
    using Done = UniqueFunction<void(Result<T>)>;

    AccessibilityBus();
    ~AccessibilityBus();
    AccessibilityBus(const AccessibilityBus&) = delete;
    AccessibilityBus& operator=(const AccessibilityBus&) = delete;

    std::function<void(const AtSpiObject&, bool isFocused)> onFocus;
    std::function<void(const std::string& program)> onDeactivated;  // one of its windows
    std::function<void(const std::string& program)> onGone;
    std::function<void()> onClosed;  // the bus ended

    /// Looks the bus up, by way of the session's, and asks for events. Starts it where it does not run yet.
    void connect(UniqueFunction<void(Status)> done);

    void readRole(const AtSpiObject& object, Done<std::uint32_t> done);
    void readStates(const AtSpiObject& object, Done<AtSpiStates> done);
    void readChildren(const AtSpiObject& object, Done<std::vector<AtSpiObject>> done);
    /// Whose children are the programs.
    static AtSpiObject root();

private:
    struct Method {
        const char* interface;
        const char* name;
        const char* answer;  // its type
    };
    using Opened = void (AccessibilityBus::*)(GDBusConnection*);

    void open(const char* address, Opened then);
    void askForAddress(GDBusConnection* session);
    void listen(GDBusConnection* bus);
    void fail(GError* error);
    void finish(const Status& status);
    void subscribe(const char* interface, const char* member, const char* argument,
                   GDBusSignalCallback callback);
    void registerEvent(const char* event);
    void call(GDBusConnection* connection, const AtSpiObject& object, const Method& method,
              GVariant* arguments, Done<Variant> done);

    static void handleStateChanged(GDBusConnection*, const gchar* sender, const gchar* path, const gchar*,
                                   const gchar*, GVariant* values, gpointer self);
    static void handleDeactivated(GDBusConnection*, const gchar* sender, const gchar*, const gchar*,
                                  const gchar*, GVariant*, gpointer self);
    static void handleOwnerChanged(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                                   GVariant* values, gpointer self);
    static void handleClosed(GDBusConnection*, gboolean, GError*, gpointer self);

    GCancellable* const cancellable_;
    GDBusConnection* session_ = nullptr;  // until the address is known
    GDBusConnection* bus_ = nullptr;
    std::vector<guint> subscriptions_;
    UniqueFunction<void(Status)> onConnected_;
    const std::shared_ptr<char> alive_ = std::make_shared<char>();
};

}  // namespace velmora
