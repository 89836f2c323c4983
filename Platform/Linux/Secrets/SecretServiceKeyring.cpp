#include "Platform/Linux/Secrets/SecretServiceKeyring.h"

#include <gio/gio.h>

#include <atomic>
#include <future>
#include <optional>
#include <string>
#include <utility>

#include "Platform/Linux/System/SessionBus.h"

namespace velmora {
namespace {

template <auto release>
struct Release {
    template <class T>
    void operator()(T* object) const {
        release(object);
    }
};
template <class T>
using Object = std::unique_ptr<T, Release<g_object_unref>>;
using Variant = std::unique_ptr<GVariant, Release<g_variant_unref>>;
using Text = std::unique_ptr<gchar, Release<g_free>>;

/// Holds the error of one call.
struct Error {
    GError* error = nullptr;
    Error() = default;
    Error(const Error&) = delete;
    Error& operator=(const Error&) = delete;
    ~Error() { g_clear_error(&error); }
    explicit operator bool() const { return error != nullptr; }
    std::string text() const { return error ? error->message : "no answer"; }

    /// There is nobody to talk to, rather than somebody who does not answer.
    bool saysNoService() const {
        if (!error) return false;
        const bool noOwner = g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
                             g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER);
        const bool noStart = error->domain == G_DBUS_ERROR && error->code >= G_DBUS_ERROR_SPAWN_EXEC_FAILED &&
                             error->code <= G_DBUS_ERROR_SPAWN_FILE_INVALID;
        return noOwner || noStart;
    }
};

/// What items are found by; the first name is the one libsecret's tools show.
GVariant* attributesOf(const SecretName& name) {
    GVariantBuilder attributes;
    g_variant_builder_init(&attributes, G_VARIANT_TYPE("a{ss}"));
    g_variant_builder_add(&attributes, "{ss}", "xdg:schema", "com.velmora.Secret");
    g_variant_builder_add(&attributes, "{ss}", "service", name.service.c_str());
    g_variant_builder_add(&attributes, "{ss}", "account", name.account.c_str());
    return g_variant_builder_end(&attributes);
}

GVariant* bytesVariant(ByteView bytes) {
    return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1);
}

constexpr const char* serviceName = "org.freedesktop.secrets";
constexpr const char* servicePath = "/org/freedesktop/secrets";
constexpr const char* serviceInterface = "org.freedesktop.Secret.Service";
constexpr const char* collectionInterface = "org.freedesktop.Secret.Collection";
constexpr const char* itemInterface = "org.freedesktop.Secret.Item";

}  // namespace

class SecretServiceKeyring::Session {
public:
    Session() : context_(g_main_context_new()), cancellable_(g_cancellable_new()) {}
    ~Session() {
        connection_.reset();
        g_main_context_unref(context_);
    }

    /// Any thread: the running call ends at once. Calls after it fail until `begin`.
    void cancel() { g_cancellable_cancel(cancellable_.get()); }

    /// Makes ready for one question on the session's thread.
    void begin() {
        g_main_context_push_thread_default(context_);
        while (g_main_context_iteration(context_, FALSE)) continue;
        g_cancellable_reset(cancellable_.get());
    }
    void end() { g_main_context_pop_thread_default(context_); }

    Result<Bytes, Problem> read(const SecretName& name) {
        const auto place = locate(name);
        if (!place) return place.error();
        if (!place->isItem) return Problem{Trouble::absent, "not found"};
        Error error;
        const Variant answer = call(place->path, itemInterface, "GetSecret",
                                    g_variant_new("(o)", session_.c_str()), "((oayays))", error);
        if (!answer) return problemOf(error);
        const Variant secret(g_variant_get_child_value(answer.get(), 0));
        const Variant value(g_variant_get_child_value(secret.get(), 2));
        gsize length = 0;
        const auto* data =
            static_cast<const std::uint8_t*>(g_variant_get_fixed_array(value.get(), &length, 1));
        return Bytes(data, data + length);
    }

    /// An item that exists is given another secret and so keeps its label.
    Result<Done, Problem> save(const SecretName& name, ByteView value, const std::string& label) {
        const auto place = locate(name);
        if (!place) return place.error();
        GVariant* secret = g_variant_new("(o@ay@ays)", session_.c_str(), bytesVariant({}),
                                         bytesVariant(value), "text/plain");
        Error error;
        if (place->isItem) {
            const Variant set = call(place->path, itemInterface, "SetSecret",
                                     g_variant_new("(@(oayays))", secret), "()", error);
            if (!set) return problemOf(error);
            return Done{};
        }
        GVariantBuilder properties;
        g_variant_builder_init(&properties, G_VARIANT_TYPE("a{sv}"));
        g_variant_builder_add(&properties, "{sv}", "org.freedesktop.Secret.Item.Label",
                              g_variant_new_string(label.c_str()));
        g_variant_builder_add(&properties, "{sv}", "org.freedesktop.Secret.Item.Attributes",
                              attributesOf(name));
        const Variant made =
            call(place->path, collectionInterface, "CreateItem",
                 g_variant_new("(a{sv}@(oayays)b)", &properties, secret, TRUE), "(oo)", error);
        if (!made) return problemOf(error);
        const gchar* item = nullptr;
        g_variant_get(made.get(), "(&o&o)", &item, nullptr);
        if (std::string_view(item) == "/")
            return Problem{Trouble::unavailable, "the keyring wants to ask first"};
        return Done{};
    }

    Result<Done, Problem> remove(const SecretName& name) {
        const auto place = locate(name);
        if (!place) return place.error();
        if (!place->isItem) return Done{};
        Error error;
        if (!call(place->path, itemInterface, "Delete", nullptr, "(o)", error)) return problemOf(error);
        return Done{};
    }

private:
    struct Place {
        bool isItem;       // or there is none yet: the unlocked collection where it belongs
        std::string path;  // of either
    };

    /// Touches nothing that is locked, so that no prompt comes up unasked.
    Result<Place, Problem> locate(const SecretName& name) {
        if (const auto trouble = connect()) return Problem{*trouble, "no session bus"};
        Error error;
        const Variant found = call(servicePath, serviceInterface, "SearchItems",
                                   g_variant_new("(@a{ss})", attributesOf(name)), "(aoao)", error);
        if (!found) return problemOf(error);
        if (const auto unlocked = firstPath(*found, 0)) return Place{true, *unlocked};
        if (const auto locked = firstPath(*found, 1)) return askToUnlock(*locked);

        const Variant alias =
            call(servicePath, serviceInterface, "ReadAlias", g_variant_new("(s)", "default"), "(o)", error);
        if (!alias) return problemOf(error);
        const gchar* collection = nullptr;
        g_variant_get(alias.get(), "(&o)", &collection);
        if (std::string_view(collection) == "/") {
            return Problem{Trouble::missing, "the secret service has no keyring"};
        }
        const auto locked = property(collection, collectionInterface, "Locked", error);
        if (!locked) return problemOf(error);
        if (!g_variant_is_of_type(locked.get(), G_VARIANT_TYPE_BOOLEAN) ||
            g_variant_get_boolean(locked.get())) {
            return askToUnlock(collection);
        }
        return Place{false, collection};
    }

    /// A connection of our own: the one that GLib shares in a process outlives its bus, and ends the program
    /// with it.
    std::optional<Trouble> connect() {
        if (connection_ && !g_dbus_connection_is_closed(connection_.get())) return std::nullopt;
        connection_.reset();
        if (!hasSessionBus()) return Trouble::missing;
        Error error;
        const Text address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, cancellable_.get(), nullptr));
        constexpr auto flags = static_cast<GDBusConnectionFlags>(
            G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
        if (address) {
            connection_.reset(g_dbus_connection_new_for_address_sync(address.get(), flags, nullptr,
                                                                     cancellable_.get(), &error.error));
        }
        if (!connection_) {
            return g_cancellable_is_cancelled(cancellable_.get()) ? Trouble::unavailable : Trouble::missing;
        }
        // Plain: whoever can listen on this user's own bus could ask the keyring as well.
        const Variant opened = call(servicePath, serviceInterface, "OpenSession",
                                    g_variant_new("(sv)", "plain", g_variant_new_string("")), "(vo)", error);
        if (!opened) return problemOf(error).trouble;
        const gchar* session = nullptr;
        g_variant_get_child(opened.get(), 1, "&o", &session);
        session_ = session;
        return std::nullopt;
    }

    Problem problemOf(const Error& error) {
        const auto trouble = error.saysNoService() ? Trouble::missing : Trouble::unavailable;
        // The next question starts from nothing: a new bus or service may have come.
        connection_.reset();
        return {trouble, error.text()};
    }

    Variant call(const std::string& path, const char* interface, const char* method, GVariant* arguments,
                 const char* answer, Error& error) {
        return Variant(g_dbus_connection_call_sync(
            connection_.get(), serviceName, path.c_str(), interface, method, arguments,
            G_VARIANT_TYPE(answer), G_DBUS_CALL_FLAGS_NONE, -1, cancellable_.get(), &error.error));
    }

    Variant property(const std::string& path, const char* interface, const char* name, Error& error) {
        const Variant answer = call(path, "org.freedesktop.DBus.Properties", "Get",
                                    g_variant_new("(ss)", interface, name), "(v)", error);
        if (!answer) return nullptr;
        GVariant* value = nullptr;
        g_variant_get(answer.get(), "(v)", &value);
        return Variant(value);
    }

    static std::optional<std::string> firstPath(GVariant& lists, gsize which) {
        const Variant paths(g_variant_get_child_value(&lists, which));
        if (g_variant_n_children(paths.get()) == 0) return std::nullopt;
        const gchar* path = nullptr;
        g_variant_get_child(paths.get(), 0, "&o", &path);
        return path;
    }

    /// Lets the service show its prompt, without waiting for the person.
    Problem askToUnlock(const std::string& object) {
        const Problem locked{Trouble::unavailable, "locked"};
        if (std::exchange(askedToUnlock_, true)) return locked;
        Error error;
        const char* objects[] = {object.c_str()};
        const Variant answer = call(servicePath, serviceInterface, "Unlock",
                                    g_variant_new("(@ao)", g_variant_new_objv(objects, 1)), "(aoo)", error);
        if (!answer) return locked;
        const gchar* prompt = nullptr;
        g_variant_get_child(answer.get(), 1, "&o", &prompt);
        if (std::string_view(prompt) == "/") return locked;
        const Variant shown =
            call(prompt, "org.freedesktop.Secret.Prompt", "Prompt", g_variant_new("(s)", ""), "()", error);
        return locked;
    }

    GMainContext* const context_;
    const Object<GCancellable> cancellable_;
    Object<GDBusConnection> connection_;
    std::string session_;  // path of the service's session, as long as the connection
    bool askedToUnlock_ = false;
};

SecretServiceKeyring::SecretServiceKeyring(std::chrono::milliseconds limit)
    : limit_(limit), session_(std::make_shared<Session>()) {}

SecretServiceKeyring::~SecretServiceKeyring() {
    session_->cancel();
}

template <class T>
Result<T, Keyring::Problem> SecretServiceKeyring::ask(std::function<Result<T, Problem>(Session&)> question) {
    // Shared with the block: a caller that stopped waiting leaves both behind.
    struct Exchange {
        std::promise<Result<T, Problem>> answer;
        std::atomic<bool> abandoned = false;
    };
    auto exchange = std::make_shared<Exchange>();
    auto answer = exchange->answer.get_future();
    queue_.post([session = session_, exchange, question = std::move(question)] {
        if (exchange->abandoned) return;
        session->begin();
        auto result = question(*session);
        session->end();
        exchange->answer.set_value(std::move(result));
    });
    if (answer.wait_for(limit_) == std::future_status::ready) return answer.get();
    exchange->abandoned = true;
    session_->cancel();
    return Problem{Trouble::unavailable, "no answer in time"};
}

Result<Bytes, Keyring::Problem> SecretServiceKeyring::read(const SecretName& name) {
    return ask<Bytes>([name](Session& session) { return session.read(name); });
}

Result<Done, Keyring::Problem> SecretServiceKeyring::save(const SecretName& name, ByteView value,
                                                          std::string_view label) {
    return ask<Done>([name, value = Bytes(value.begin(), value.end()), label = std::string(label)](
                         Session& session) { return session.save(name, value, label); });
}

Result<Done, Keyring::Problem> SecretServiceKeyring::remove(const SecretName& name) {
    return ask<Done>([name](Session& session) { return session.remove(name); });
}

}  // namespace velmora
