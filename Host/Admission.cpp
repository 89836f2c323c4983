#include "Host/Admission.h"

#include <fmt/format.h>

#include <cstdint>

namespace velmora {

namespace {

/// Takes the same time wherever two passwords of one length differ.
bool isSamePassword(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    std::uint8_t difference = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        difference = static_cast<std::uint8_t>(difference | (a[i] ^ b[i]));
    }
    return difference == 0;
}

std::string describe(const std::optional<DisplayRequest>& display) {
    if (!display) return {};
    return fmt::format(" (window {}×{} pt @{}x)", display->width, display->height, display->scale);
}

Admission::Decision denied(std::string_view code, std::string_view message, std::string text) {
    return {.outcome = Admission::Outcome::denied, .text = std::move(text), .code = code, .message = message};
}

}  // namespace

Admission::Decision Admission::decide(const std::optional<Hello>& hello, const Circumstances& circumstances) {
    const std::int64_t theirs = hello ? hello->protocolVersion : 0;
    if (theirs != velmoraProtocolVersion) {
        return {.outcome = Outcome::wrongProtocol,
                .text = fmt::format(
                    "⚠︎ Viewer uses protocol {}, this server {}. Update both Macs to the same "
                    "build.",
                    theirs, velmoraProtocolVersion)};
    }

    std::optional<std::string> replacement;
    if (circumstances.session) {
        const auto& running = circumstances.session->deviceID;
        if (!running || !hello->deviceID || *running != *hello->deviceID) {
            return denied(HostDenial::busy, "Another viewer is connected.",
                          fmt::format("Rejected “{}”: another viewer is connected", hello->name));
        }
        replacement = fmt::format("“{}” reconnected; replacing its old connection", hello->name);
    }

    const std::string size = describe(hello->display);
    Decision decision;
    if (isAuthorized(hello->sessionToken, circumstances.now)) {
        decision = {
            .outcome = Outcome::admitted,
            .text = fmt::format("Hello from “{}”{}. Connected with this Mac's ID and password through "
                                "Velmora Cloud",
                                hello->name, size)};
    } else {
        decision = decideByPassword(*hello, size, circumstances);
    }
    decision.replacement = std::move(replacement);
    return decision;
}

Admission::Decision Admission::decideByPassword(const Hello& hello, const std::string& size,
                                                const Circumstances& circumstances) {
    const auto& credentials = circumstances.credentials;
    if (!hello.password || !credentials || !credentials->password) {
        return denied(HostDenial::noPassword, "This Mac needs its ID and password.",
                      fmt::format("Denied “{}”: no password", hello.name));
    }
    const TimePoint now = circumstances.now;
    while (!failedPasswords_.empty() && failedPasswords_.front() < now - parameters_.passwordWindow) {
        failedPasswords_.pop_front();
    }
    if (failedPasswords_.size() >= parameters_.lockOutCount) {
        return denied(HostDenial::locked, "Too many wrong passwords.",
                      fmt::format("Denied “{}”: locked after {} wrong passwords", hello.name,
                                  parameters_.lockOutCount));
    }
    if (isSamePassword(*hello.password, *credentials->password)) {
        return {
            .outcome = Outcome::admitted,
            .text = fmt::format("Hello from “{}”{}. Right password on the local network", hello.name, size)};
    }
    failedPasswords_.push_back(now);
    return denied(HostDenial::wrongPassword, "Wrong password.",
                  fmt::format("Denied “{}”: wrong password ({} in the last hour)", hello.name,
                              failedPasswords_.size()));
}

bool Admission::isAuthorized(const std::optional<std::string>& token, TimePoint now) const {
    if (!token) return false;
    const auto found = authorizedTokens_.find(*token);
    return found != authorizedTokens_.end() && found->second.expires > now;
}

void Admission::authorize(const std::string& token, const std::string& viewerName, TimePoint now) {
    std::erase_if(authorizedTokens_, [&](const auto& entry) { return entry.second.expires <= now; });
    authorizedTokens_[token] = {viewerName, now + parameters_.tokenLifetime};
}

}  // namespace velmora
