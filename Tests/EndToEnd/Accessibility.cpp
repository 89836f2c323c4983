#include "Tests/EndToEnd/Accessibility.h"

#include <gio/gio.h>

#include <algorithm>
#include <array>

namespace velmora {

namespace {

constexpr int longestAnswer = 5000;  // milliseconds: programs answer in their event loops
constexpr int deepest = 40;
constexpr const char* accessible = "org.a11y.atspi.Accessible";
constexpr const char* rootPath = "/org/a11y/atspi/accessible/root";

/// Where programs learn on which bus they are to be seen.
constexpr const char* guideInterface = R"xml(<node><interface name="org.a11y.Bus">
  <method name="GetAddress"><arg type="s" direction="out"/></method>
</interface></node>)xml";
constexpr const char* registryInterface = R"xml(<node><interface name="org.a11y.atspi.Socket">
  <method name="Embed"><arg type="(so)" direction="in"/><arg type="(so)" direction="out"/></method>
</interface></node>)xml";

// Bits of a state, counted from the lowest of the first word.
enum class State { checked = 4, enabled = 8, focusable = 11, focused = 12, showing = 25 };

}  // namespace

Accessibility::Accessibility()
    : guide_(bus_.address(), "org.a11y.Bus", "/org/a11y/bus", guideInterface),
      registry_(bus_.address(), "org.a11y.atspi.Registry", rootPath, registryInterface) {
    guide_.answer("GetAddress", "('" + bus_.address() + "',)");
    registry_.answer("Embed", "(('', objectpath '/org/a11y/atspi/null'),)");
    connection_ = g_dbus_connection_new_for_address_sync(
        bus_.address().c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
}

Accessibility::~Accessibility() {
    if (connection_) g_object_unref(connection_);
}

std::vector<std::string> Accessibility::environment() const {
    return {"DBUS_SESSION_BUS_ADDRESS=" + bus_.address(), "QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1"};
}

/// Takes `arguments` over. None if there is no answer, or not of that type.
Accessibility::Variant Accessibility::call(const Reference& whom, const char* interface, const char* method,
                                           GVariant* arguments, const char* answer) {
    GVariant* const reply =
        connection_ ? g_dbus_connection_call_sync(connection_, whom.bus.c_str(), whom.path.c_str(), interface,
                                                  method, arguments, G_VARIANT_TYPE(answer),
                                                  G_DBUS_CALL_FLAGS_NONE, longestAnswer, nullptr, nullptr)
                    : nullptr;
    return {reply, [](GVariant* variant) {
                if (variant) g_variant_unref(variant);
            }};
}

std::optional<std::string> Accessibility::busNameOf(pid_t program) {
    const Reference bus{"org.freedesktop.DBus", "/org/freedesktop/DBus"};
    const auto names = call(bus, "org.freedesktop.DBus", "ListNames", nullptr, "(as)");
    if (!names) return std::nullopt;
    GVariantIter* all = nullptr;
    g_variant_get(names.get(), "(as)", &all);
    std::optional<std::string> found;
    const char* name = nullptr;
    while (g_variant_iter_next(all, "&s", &name)) {
        if (name[0] != ':') continue;
        const auto process = call(bus, "org.freedesktop.DBus", "GetConnectionUnixProcessID",
                                  g_variant_new("(s)", name), "(u)");
        guint32 pid = 0;
        if (process) g_variant_get(process.get(), "(u)", &pid);
        if (static_cast<pid_t>(pid) != program) continue;
        if (childrenOf({name, rootPath}).empty()) continue;  // another connection of the same program
        found = name;
        break;
    }
    g_variant_iter_free(all);
    return found;
}

std::vector<Accessibility::Reference> Accessibility::childrenOf(const Reference& whom) {
    std::vector<Reference> children;
    const auto reply = call(whom, accessible, "GetChildren", nullptr, "(a(so))");
    if (!reply) return children;
    GVariantIter* all = nullptr;
    g_variant_get(reply.get(), "(a(so))", &all);
    const char *bus = nullptr, *path = nullptr;
    while (g_variant_iter_next(all, "(&s&o)", &bus, &path)) children.push_back({bus, path});
    g_variant_iter_free(all);
    return children;
}

std::string Accessibility::propertyOf(const Reference& whom, const char* interface, const char* property) {
    const auto reply = call(whom, "org.freedesktop.DBus.Properties", "Get",
                            g_variant_new("(ss)", interface, property), "(v)");
    if (!reply) return {};
    GVariant* value = nullptr;
    g_variant_get(reply.get(), "(v)", &value);
    std::string text;
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) text = g_variant_get_string(value, nullptr);
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_DOUBLE))
        text = std::to_string(g_variant_get_double(value));
    g_variant_unref(value);
    return text;
}

Control Accessibility::read(const Reference& whom, const std::string& window) {
    Control control{.window = window};
    if (const auto role = call(whom, accessible, "GetRoleName", nullptr, "(s)")) {
        const char* name = nullptr;
        g_variant_get(role.get(), "(&s)", &name);
        control.role = name;
    }
    control.name = propertyOf(whom, accessible, "Name");
    control.description = propertyOf(whom, accessible, "Description");
    if (const auto state = call(whom, accessible, "GetState", nullptr, "(au)")) {
        std::array<guint32, 2> words{};
        GVariantIter* all = nullptr;
        g_variant_get(state.get(), "(au)", &all);
        for (auto& word : words) g_variant_iter_next(all, "u", &word);
        g_variant_iter_free(all);
        const auto is = [&](State bit) { return (words[0] >> static_cast<int>(bit) & 1) != 0; };
        control.isShowing = is(State::showing);
        control.isEnabled = is(State::enabled);
        control.isFocusable = is(State::focusable);
        control.isFocused = is(State::focused);
        control.isChecked = is(State::checked);
    }
    if (const auto place =
            call(whom, "org.a11y.atspi.Component", "GetExtents", g_variant_new("(u)", 0U), "((iiii))")) {
        PixelRect& rect = control.place;
        g_variant_get(place.get(), "((iiii))", &rect.x, &rect.y, &rect.width, &rect.height);
    }
    if (control.role.find("text") != std::string::npos) {
        const auto text = call(whom, "org.a11y.atspi.Text", "GetText", g_variant_new("(ii)", 0, -1), "(s)");
        const char* words = "";
        if (text) g_variant_get(text.get(), "(&s)", &words);
        control.value = words;
    }
    if (control.role == "slider") control.value = propertyOf(whom, "org.a11y.atspi.Value", "CurrentValue");
    return control;
}

void Accessibility::collect(const Reference& whom, const std::string& window, int depth,
                            std::vector<Control>& all) {
    if (depth > deepest) return;
    all.push_back(read(whom, window));
    const std::string within = window.empty() ? all.back().name : window;
    for (const Reference& child : childrenOf(whom)) collect(child, within, depth + 1, all);
}

std::vector<Control> Accessibility::controlsOf(pid_t program) {
    std::vector<Control> all;
    if (const auto name = busNameOf(program)) {
        for (const Reference& window : childrenOf({*name, rootPath})) collect(window, {}, 0, all);
    }
    return all;
}

}  // namespace velmora
