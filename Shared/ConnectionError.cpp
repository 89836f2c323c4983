#include "Shared/ConnectionError.h"

#include <fmt/format.h>

#include <utility>

#include "VelmoraKit/Core/Utf8.h"
#include "VelmoraKit/Wire/SessionRecords.h"

namespace velmora {

std::string ConnectionError::summary() const {
    if (message.empty()) return suggestion;
    if (suggestion.empty()) return message;
    return message + " " + suggestion;
}

ConnectionError ConnectionError::wrongPassword(std::string_view name) {
    return {Kind::wrongPassword, "Wrong password", fmt::format("The password for {} didn't match.", name),
            fmt::format("Check the 6-digit password in Velmora's menu on {}. It changes when someone clicks "
                        "New Password there.",
                        name)};
}

ConnectionError ConnectionError::locked(std::string_view name) {
    return {Kind::locked, fmt::format("{} is locked", name),
            "Too many wrong passwords were tried for this Mac.",
            "Wait an hour, then try again with the right password."};
}

ConnectionError ConnectionError::offline(std::string_view name) {
    return {Kind::offline, fmt::format("{} is offline", name),
            fmt::format("Velmora on {} isn't reachable: it may not be running, or the Mac is off, asleep or "
                        "without internet.",
                        name),
            fmt::format("Make sure Velmora is running in {}'s menu bar and the server is started.", name)};
}

ConnectionError ConnectionError::busy(std::string_view name) {
    return {Kind::busy, fmt::format("{} is in use", name),
            fmt::format("Someone else is connected to {} right now.", name), "Try again when they're done."};
}

ConnectionError ConnectionError::rateLimited() {
    return {Kind::rateLimited, "Too many attempts", "This device tried to connect too often in a short time.",
            "Wait a minute, then try again."};
}

ConnectionError ConnectionError::onlyLocalNetwork(std::string_view name) {
    return {Kind::onlyLocalNetwork, fmt::format("{} accepts only its own network", name),
            fmt::format("“Reachable from anywhere” is turned off on {}.", name),
            fmt::format("Connect from the same network, or turn it on in Velmora's Settings on {} (Access & "
                        "Security).",
                        name)};
}

ConnectionError ConnectionError::noInternet() {
    return {Kind::noInternet, "No connection to Velmora Cloud",
            "This device can't reach the Velmora service.",
            "Check the internet connection. Macs on the same network that you've connected to before still "
            "work without it."};
}

ConnectionError ConnectionError::unreachable(std::string_view name) {
    return {Kind::unreachable, fmt::format("Can't reach {}", name),
            fmt::format("No network path to {} worked: not on the local network, not directly, not through "
                        "the relay.",
                        name),
            "Check that both devices are online. On the same network, allow Local Network access for Velmora "
            "(System Settings → Privacy & Security)."};
}

ConnectionError ConnectionError::connectionLost(std::string_view name) {
    return {Kind::connectionLost, fmt::format("Connection to {} lost", name),
            "The network connection dropped.",
            "Try again. If it keeps happening, check the network of both devices."};
}

ConnectionError ConnectionError::endedByHost(std::string_view name) {
    return {Kind::endedByHost, fmt::format("{} ended the session", name),
            fmt::format("The session was closed on {} (Disconnect, Stop Server or Velmora quit).", name), ""};
}

ConnectionError ConnectionError::endedByService(std::string_view name) {
    return {Kind::endedByHost, fmt::format("Disconnected from {}", name),
            "The Velmora Cloud server administrator ended this session.", ""};
}

ConnectionError ConnectionError::captureFailed(std::string_view name, std::string message) {
    return {Kind::captureFailed, fmt::format("{} can't share its screen", name), std::move(message),
            fmt::format("On {}, allow Screen Recording for Velmora (Settings → Permissions), then quit and "
                        "reopen Velmora there.",
                        name)};
}

ConnectionError ConnectionError::outdated(std::string_view name) {
    return {Kind::outdated, "Update Velmora",
            fmt::format("{} and this device run Velmora versions that don't work together.", name),
            "Update Velmora on both devices."};
}

ConnectionError ConnectionError::noSavedPassword(std::string_view name) {
    return {Kind::noSavedPassword, "Password needed", fmt::format("There's no saved password for {}.", name),
            fmt::format("Enter the password shown in Velmora's menu on {}.", name)};
}

ConnectionError ConnectionError::other(std::string_view name, std::string message) {
    return {Kind::other, fmt::format("Couldn't connect to {}", name), std::move(message), ""};
}

ConnectionError ConnectionError::fromSignaling(const std::optional<std::string>& code,
                                               const std::optional<std::string>& message,
                                               std::string_view name) {
    if (code == "wrong_password") return wrongPassword(name);
    if (code == "locked") return locked(name);
    if (code == "offline") return offline(name);
    if (code == "busy") return busy(name);
    if (code == "rate_limited") return rateLimited();
    if (code == "remote_off") return onlyLocalNetwork(name);
    return other(name, message.value_or("Velmora Cloud refused the connection."));
}

ConnectionError ConnectionError::fromHost(ByteView data, std::string_view name) {
    const auto denied = Denied::decode(data);
    if (!denied) return other(name, repairedUtf8(data));
    if (denied->code == HostDenial::wrongPassword) return wrongPassword(name);
    if (denied->code == HostDenial::locked) return locked(name);
    if (denied->code == HostDenial::noPassword) return outdated(name);
    if (denied->code == HostDenial::busy) return busy(name);
    if (denied->code == HostDenial::capture) {
        return captureFailed(name, denied->message.value_or("Screen capture didn't start."));
    }
    return other(name, denied->message.value_or(fmt::format("{} refused the connection.", name)));
}

}  // namespace velmora
