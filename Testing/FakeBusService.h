#pragma once

#include <gio/gio.h>

#include <future>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace velmora {

/// One object under one name on a bus, on a thread of its own. It answers each method with what the test
/// set, and remembers the calls.
class FakeBusService {
public:
    /// `interface` is introspection XML; the object answers once this returns.
    FakeBusService(const std::string& address, const char* name, const char* path, const char* interface);
    ~FakeBusService();

    /// The text form of the answer, such as "(uint32 7,)". A method "Inhibit" with answer "fd" gives the
    /// writing end of a pipe, so that `lockIsHeld` can tell whether it is still open.
    void answer(const std::string& method, const std::string& text);
    void setProperty(const std::string& name, const std::string& text);

    /// "Method(arguments)" of each call, in order.
    std::vector<std::string> calls();
    bool lockIsHeld();

private:
    static void handleCall(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method,
                           GVariant* arguments, GDBusMethodInvocation* invocation, gpointer self);
    static GVariant* handleGet(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* name,
                               GError**, gpointer self);
    void serve(const std::string& address, const char* name, const char* path, const char* interface);

    GMainContext* const context_;
    GMainLoop* const loop_;
    std::mutex mutex_;  // guards the three below
    std::map<std::string, std::string> answers_;
    std::map<std::string, std::string> properties_;
    std::vector<std::string> calls_;
    int lockReader_ = -1;
    std::promise<void> ready_;
    std::thread thread_;
};

}  // namespace velmora
