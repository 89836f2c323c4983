#include "Platform/Linux/Accessibility/AccessibilityBus.h"

#include <utility>

#include "Platform/Linux/System/SessionBus.h"

namespace velmora {

namespace {

constexpr int limitMs = 1000;       // a program that takes longer to say what it has is stuck
constexpr int startLimitMs = 5000;  // for the bus itself to come up

constexpr const char* registryName = "org.a11y.atspi.Registry";
constexpr const char* accessible = "org.a11y.atspi.Accessible";

Failure takeFailure(GError* error) {
    Failure failure{error ? error->message : "no answer", error ? error->code : 0};
    g_clear_error(&error);
    return failure;
}

/// What travels with an asynchronous call, and outlives whoever made it.
template <class F>
struct Pending {
    std::weak_ptr<char> owner;
    F done;
};

}  // namespace

AccessibilityBus::AccessibilityBus() : cancellable_(g_cancellable_new()) {}

AccessibilityBus::~AccessibilityBus() {
    g_cancellable_cancel(cancellable_);
    g_object_unref(cancellable_);
    if (bus_) {
        for (const guint id : subscriptions_) g_dbus_connection_signal_unsubscribe(bus_, id);
        g_signal_handlers_disconnect_by_data(bus_, this);
        // The registry forgets whose connection is gone, and programs go silent.
        g_dbus_connection_close(bus_, nullptr, nullptr, nullptr);
        g_object_unref(bus_);
    }
    g_clear_object(&session_);
}

AtSpiObject AccessibilityBus::root() {
    return {registryName, "/org/a11y/atspi/accessible/root"};
}

// Connecting

void AccessibilityBus::connect(UniqueFunction<void(Status)> done) {
    onConnected_ = std::move(done);
    if (!hasSessionBus()) return finish(Failure{"there is no session bus"});
    GError* error = nullptr;
    gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    if (!address) return fail(error);
    open(address, &AccessibilityBus::askForAddress);
    g_free(address);
}

void AccessibilityBus::finish(const Status& status) {
    if (auto done = std::exchange(onConnected_, nullptr)) done(status);
}

void AccessibilityBus::fail(GError* error) {
    finish(takeFailure(error));
}

void AccessibilityBus::open(const char* address, Opened then) {
    auto opened = [this, then](GDBusConnection* connection, GError* error) {
        connection ? (this->*then)(connection) : fail(error);
    };
    using Waiting = Pending<decltype(opened)>;
    constexpr auto flags = static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    g_dbus_connection_new_for_address(
        address, flags, nullptr, cancellable_,
        [](GObject*, GAsyncResult* result, gpointer data) {
            const std::unique_ptr<Waiting> waiting(static_cast<Waiting*>(data));
            GError* error = nullptr;
            GDBusConnection* connection = g_dbus_connection_new_for_address_finish(result, &error);
            if (!waiting->owner.expired()) return waiting->done(connection, error);
            g_clear_object(&connection);
            g_clear_error(&error);
        },
        new Waiting{alive_, opened});
}

void AccessibilityBus::askForAddress(GDBusConnection* session) {
    session_ = session;
    call(session_, {"org.a11y.Bus", "/org/a11y/bus"}, {"org.a11y.Bus", "GetAddress", "(s)"}, nullptr,
         [this](Result<Variant> answer) {
             g_clear_object(&session_);
             if (!answer) return finish(answer.error());
             const gchar* address = nullptr;
             g_variant_get(answer->get(), "(&s)", &address);
             if (!g_dbus_is_supported_address(address, nullptr))
                 return finish(Failure{"the accessibility bus has no address"});
             open(address, &AccessibilityBus::listen);
         });
}

void AccessibilityBus::listen(GDBusConnection* bus) {
    bus_ = bus;
    g_dbus_connection_set_exit_on_close(bus_, FALSE);
    g_signal_connect(bus_, "closed", G_CALLBACK(handleClosed), this);
    subscribe("org.a11y.atspi.Event.Object", "StateChanged", "focused", handleStateChanged);
    subscribe("org.a11y.atspi.Event.Window", "Deactivate", nullptr, handleDeactivated);
    subscribe("org.freedesktop.DBus", "NameOwnerChanged", nullptr, handleOwnerChanged);
    // Programs are silent as long as nobody has asked.
    registerEvent("window:activate");  // without it Qt does not tell of the other either
    registerEvent("window:deactivate");
    registerEvent("object:state-changed:focused");
    finish(velmora::Done{});
}

void AccessibilityBus::subscribe(const char* interface, const char* member, const char* argument,
                                 GDBusSignalCallback callback) {
    subscriptions_.push_back(g_dbus_connection_signal_subscribe(bus_, nullptr, interface, member, nullptr,
                                                                argument, G_DBUS_SIGNAL_FLAGS_NONE, callback,
                                                                this, nullptr));
}

void AccessibilityBus::registerEvent(const char* event) {
    const AtSpiObject registry{registryName, "/org/a11y/atspi/registry"};
    // No properties to come along, and no program in particular.
    call(bus_, registry, {registryName, "RegisterEvent", nullptr},
         g_variant_new("(s@ass)", event, g_variant_new_strv(nullptr, 0), ""), [](const auto&) {});
}

// What is told

void AccessibilityBus::handleStateChanged(GDBusConnection*, const gchar* sender, const gchar* path,
                                          const gchar*, const gchar*, GVariant* values, gpointer self) {
    // (siiv...): the kind of state, whether it has it now, and more that toolkits do not agree on.
    if (!sender || g_variant_n_children(values) < 2) return;
    const Variant has(g_variant_get_child_value(values, 1));
    if (!g_variant_is_of_type(has.get(), G_VARIANT_TYPE_INT32)) return;
    auto* bus = static_cast<AccessibilityBus*>(self);
    if (bus->onFocus) bus->onFocus({sender, path}, g_variant_get_int32(has.get()) != 0);
}

void AccessibilityBus::handleDeactivated(GDBusConnection*, const gchar* sender, const gchar*, const gchar*,
                                         const gchar*, GVariant*, gpointer self) {
    auto* bus = static_cast<AccessibilityBus*>(self);
    if (sender && bus->onDeactivated) bus->onDeactivated(sender);
}

void AccessibilityBus::handleOwnerChanged(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                                          const gchar*, GVariant* values, gpointer self) {
    if (!g_variant_is_of_type(values, G_VARIANT_TYPE("(sss)"))) return;
    const gchar *name = nullptr, *before = nullptr, *after = nullptr;
    g_variant_get(values, "(&s&s&s)", &name, &before, &after);
    auto* bus = static_cast<AccessibilityBus*>(self);
    if (!*after && bus->onGone) bus->onGone(name);
}

void AccessibilityBus::handleClosed(GDBusConnection*, gboolean, GError*, gpointer self) {
    auto* bus = static_cast<AccessibilityBus*>(self);
    if (bus->onClosed) bus->onClosed();
}

// What is asked

void AccessibilityBus::call(GDBusConnection* connection, const AtSpiObject& object, const Method& method,
                            GVariant* arguments, Done<Variant> done) {
    using Waiting = Pending<Done<Variant>>;
    g_dbus_connection_call(
        connection, object.program.c_str(), object.path.c_str(), method.interface, method.name, arguments,
        method.answer ? G_VARIANT_TYPE(method.answer) : nullptr, G_DBUS_CALL_FLAGS_NONE,
        connection == session_ ? startLimitMs : limitMs, cancellable_,
        [](GObject* source, GAsyncResult* result, gpointer data) {
            const std::unique_ptr<Waiting> waiting(static_cast<Waiting*>(data));
            GError* error = nullptr;
            Variant answer(g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error));
            if (waiting->owner.expired()) {
                g_clear_error(&error);
            } else if (answer) {
                waiting->done(std::move(answer));
            } else {
                waiting->done(takeFailure(error));
            }
        },
        new Waiting{alive_, std::move(done)});
}

void AccessibilityBus::readRole(const AtSpiObject& object, Done<std::uint32_t> done) {
    call(bus_, object, {accessible, "GetRole", "(u)"}, nullptr,
         [done = std::move(done)](Result<Variant> answer) mutable {
             if (!answer) return done(answer.error());
             guint32 role = 0;
             g_variant_get(answer->get(), "(u)", &role);
             done(role);
         });
}

void AccessibilityBus::readStates(const AtSpiObject& object, Done<AtSpiStates> done) {
    call(bus_, object, {accessible, "GetState", "(au)"}, nullptr,
         [done = std::move(done)](Result<Variant> answer) mutable {
             if (!answer) return done(answer.error());
             const Variant words(g_variant_get_child_value(answer->get(), 0));
             AtSpiStates states;
             for (gsize i = 0; i < 2 && i < g_variant_n_children(words.get()); ++i) {
                 guint32 word = 0;
                 g_variant_get_child(words.get(), i, "u", &word);
                 states.bits |= static_cast<std::uint64_t>(word) << (32 * i);
             }
             done(states);
         });
}

void AccessibilityBus::readChildren(const AtSpiObject& object, Done<std::vector<AtSpiObject>> done) {
    call(bus_, object, {accessible, "GetChildren", "(a(so))"}, nullptr,
         [done = std::move(done)](Result<Variant> answer) mutable {
             if (!answer) return done(answer.error());
             const Variant list(g_variant_get_child_value(answer->get(), 0));
             std::vector<AtSpiObject> children;
             for (gsize i = 0; i < g_variant_n_children(list.get()); ++i) {
                 const gchar *program = nullptr, *path = nullptr;
                 g_variant_get_child(list.get(), i, "(&s&o)", &program, &path);
                 // A name that is none would be our own mistake in the next call.
                 if (g_dbus_is_name(program)) children.push_back({program, path});
             }
             done(std::move(children));
         });
}

}  // namespace velmora
