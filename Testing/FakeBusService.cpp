#include "Testing/FakeBusService.h"

#include <fcntl.h>
#include <gio/gunixfdlist.h>
#include <poll.h>
#include <unistd.h>

namespace velmora {

FakeBusService::FakeBusService(const std::string& address, const char* name, const char* path,
                               const char* interface)
    : context_(g_main_context_new()),
      loop_(g_main_loop_new(context_, FALSE)),
      thread_([this, address, name, path, interface] { serve(address, name, path, interface); }) {
    ready_.get_future().wait();
}

FakeBusService::~FakeBusService() {
    // From within the loop: one that has not begun to run yet would not hear of it.
    const auto quit = [](gpointer loop) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
        return G_SOURCE_REMOVE;
    };
    GSource* const last = g_idle_source_new();
    g_source_set_callback(last, quit, loop_, nullptr);
    g_source_attach(last, context_);
    g_source_unref(last);
    thread_.join();
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
    if (lockReader_ >= 0) ::close(lockReader_);
}

void FakeBusService::serve(const std::string& address, const char* name, const char* path,
                           const char* interface) {
    g_main_context_push_thread_default(context_);
    constexpr auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    GDBusConnection* bus =
        g_dbus_connection_new_for_address_sync(address.c_str(), flags, nullptr, nullptr, nullptr);
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(interface, nullptr);
    static const GDBusInterfaceVTable table{handleCall, handleGet, nullptr, {}};
    g_dbus_connection_register_object(bus, path, node->interfaces[0], &table, this, nullptr, nullptr);
    GVariant* owned = g_dbus_connection_call_sync(
        bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "RequestName",
        g_variant_new("(su)", name, 4u), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    if (owned) g_variant_unref(owned);
    ready_.set_value();
    g_main_loop_run(loop_);
    g_dbus_connection_close_sync(bus, nullptr, nullptr);
    g_object_unref(bus);
    g_dbus_node_info_unref(node);
    g_main_context_pop_thread_default(context_);
}

void FakeBusService::answer(const std::string& method, const std::string& text) {
    std::lock_guard lock(mutex_);
    answers_[method] = text;
}

void FakeBusService::setProperty(const std::string& name, const std::string& text) {
    std::lock_guard lock(mutex_);
    properties_[name] = text;
}

std::vector<std::string> FakeBusService::calls() {
    std::lock_guard lock(mutex_);
    return calls_;
}

bool FakeBusService::lockIsHeld() {
    std::lock_guard lock(mutex_);
    pollfd reader{lockReader_, POLLIN, 0};
    return lockReader_ >= 0 && (::poll(&reader, 1, 0) == 0 || !(reader.revents & POLLHUP));
}

void FakeBusService::handleCall(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                                const gchar* method, GVariant* arguments, GDBusMethodInvocation* invocation,
                                gpointer self) {
    auto& service = *static_cast<FakeBusService*>(self);
    std::lock_guard lock(service.mutex_);
    gchar* text = g_variant_print(arguments, FALSE);
    service.calls_.push_back(std::string(method) + text);
    g_free(text);
    const auto answer = service.answers_.find(method);
    if (answer == service.answers_.end()) {
        g_dbus_method_invocation_return_dbus_error(invocation, "org.example.Refused", "refused");
        return;
    }
    if (answer->second != "fd") {
        g_dbus_method_invocation_return_value(
            invocation, g_variant_parse(nullptr, answer->second.c_str(), nullptr, nullptr, nullptr));
        return;
    }
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    service.lockReader_ = ends[0];
    GUnixFDList* descriptors = g_unix_fd_list_new_from_array(&ends[1], 1);
    g_dbus_method_invocation_return_value_with_unix_fd_list(invocation, g_variant_new("(h)", 0), descriptors);
    g_object_unref(descriptors);
}

GVariant* FakeBusService::handleGet(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                                    const gchar* name, GError**, gpointer self) {
    auto& service = *static_cast<FakeBusService*>(self);
    std::lock_guard lock(service.mutex_);
    const auto found = service.properties_.find(name);
    if (found == service.properties_.end()) return nullptr;
    return g_variant_parse(nullptr, found->second.c_str(), nullptr, nullptr, nullptr);
}

}  // namespace velmora
