#include "Platform/Linux/System/BusCaller.h"

#include <gio/gunixfdlist.h>

#include "Platform/Linux/System/SessionBus.h"

namespace velmora {
namespace {

Failure failureOf(GError* error) {
    Failure failure{error ? error->message : "no bus", error ? error->code : 0};
    g_clear_error(&error);
    return failure;
}

}  // namespace

BusCaller::~BusCaller() {
    if (connection_) g_object_unref(connection_);
}

GDBusConnection* BusCaller::connect() {
    if (connection_ && !g_dbus_connection_is_closed(connection_)) return connection_;
    g_clear_object(&connection_);
    if (bus_ == Bus::session && !hasSessionBus()) return nullptr;
    gchar* address = g_dbus_address_get_for_bus_sync(
        bus_ == Bus::session ? G_BUS_TYPE_SESSION : G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (!address) return nullptr;
    constexpr auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    connection_ = g_dbus_connection_new_for_address_sync(address, flags, nullptr, nullptr, nullptr);
    g_free(address);
    return connection_;
}

Result<Variant> BusCaller::call(const Target& target, const char* method, GVariant* arguments,
                                const char* answer, int* descriptor) {
    const Variant held(arguments ? g_variant_ref_sink(arguments) : nullptr);
    GDBusConnection* connection = connect();
    if (!connection) return Failure{"no message bus"};
    GError* error = nullptr;
    GUnixFDList* descriptors = nullptr;
    Variant result(g_dbus_connection_call_with_unix_fd_list_sync(
        connection, target.service, target.path, target.interface, method, held.get(), G_VARIANT_TYPE(answer),
        G_DBUS_CALL_FLAGS_NO_AUTO_START, static_cast<gint>(limit_.count()), nullptr, &descriptors, nullptr,
        &error));
    if (descriptor) *descriptor = descriptors ? g_unix_fd_list_get(descriptors, 0, nullptr) : -1;
    g_clear_object(&descriptors);
    if (!result) return failureOf(error);
    return result;
}

Result<Variant> BusCaller::property(const Target& target, const char* name) {
    const Target properties{target.service, target.path, "org.freedesktop.DBus.Properties"};
    auto answer = call(properties, "Get", g_variant_new("(ss)", target.interface, name), "(v)");
    if (!answer) return answer.error();
    GVariant* value = nullptr;
    g_variant_get(answer->get(), "(v)", &value);
    return Variant(value);
}

}  // namespace velmora
