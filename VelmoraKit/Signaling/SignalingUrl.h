#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// Where the rendezvous service is: a URL such as "wss://rendezvous.example:8443", used as it was given.
class SignalingUrl {
public:
    /// A failure if it is no URL (RFC 3986): empty, characters that must be escaped, a port that is none.
    static Result<SignalingUrl> parse(std::string_view text);

    /// The service of this build.
    static const SignalingUrl& ofThisBuild();

    const std::string& text() const { return text_; }
    /// The name of the machine, which answers STUN too; that of this build's service if the URL has none.
    std::string host() const;
    /// The same machine by HTTP, or by HTTPS unless this is a "ws" URL, with `path` in place of its own.
    std::string httpUrl(std::string_view path) const;

    bool operator==(const SignalingUrl&) const = default;

private:
    SignalingUrl() = default;

    std::string text_;
    std::string scheme_;     // lower-cased; empty: none
    std::string authority_;  // user, host and port, as written
    std::string host_;       // without brackets
    std::string query_;      // with its "?"
};

}  // namespace velmora
