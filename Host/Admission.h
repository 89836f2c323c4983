#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "VelmoraKit/Core/HostClock.h"
#include "VelmoraKit/Wire/SessionRecords.h"

namespace velmora {

/// What a viewer must know to be let in. The password is missing while the credential store does not answer;
/// then only a token opens the door.
struct HostCredentials {
    std::string id;
    std::optional<std::string> password;
};

/// Decides from a viewer's first message whether it gets a session. Pure, apart from remembering wrong
/// passwords and tokens; lives with StreamServer on the main queue.
class Admission {
public:
    using TimePoint = HostClock::time_point;

    struct Parameters {
        std::chrono::seconds passwordWindow{3600};  // a wrong password is remembered so long
        std::size_t lockOutCount = 20;              // so many of them lock the passwords of everybody
        std::chrono::seconds tokenLifetime{600};
    };
    /// The session that runs now, if one does.
    struct Running {
        std::optional<std::string> deviceID;
    };
    struct Circumstances {
        std::optional<Running> session;
        std::optional<HostCredentials> credentials;
        TimePoint now;
    };
    enum class Outcome {
        wrongProtocol,  // `text` goes to both sides, and the connection ends at once
        denied,         // `text` is for the host; the viewer gets `code` and `message`
        admitted,       // `text` goes to both sides
    };
    struct Decision {
        Outcome outcome = Outcome::denied;
        std::string text;
        std::string_view code{}, message{};
        /// The running session ends first, whatever the outcome; for both sides.
        std::optional<std::string> replacement{};
    };

    Admission() = default;
    explicit Admission(Parameters parameters) : parameters_(parameters) {}

    /// No `hello`: what came could not be decoded. A wrong password is counted.
    Decision decide(const std::optional<Hello>& hello, const Circumstances& circumstances);

    /// The rendezvous service has checked ID and password of somebody who will show `token`, perhaps more
    /// than once.
    void authorize(const std::string& token, const std::string& viewerName, TimePoint now);

private:
    struct Authorization {
        std::string viewerName;
        TimePoint expires;
    };
    bool isAuthorized(const std::optional<std::string>& token, TimePoint now) const;
    Decision decideByPassword(const Hello& hello, const std::string& size,
                              const Circumstances& circumstances);

    const Parameters parameters_{};
    std::deque<TimePoint> failedPasswords_;  // rising
    std::map<std::string, Authorization, std::less<>> authorizedTokens_;
};

}  // namespace velmora
