#include "VelmoraKit/Signaling/SignalingUrl.h"

#include <fmt/format.h>

#include <algorithm>
#include <cassert>
#include <charconv>
#include <cstdint>

namespace velmora {
namespace {

bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isHexDigit(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

/// RFC 3986 section 2: reserved, unreserved, and whole percent escapes.
bool hasOnlyUrlCharacters(std::string_view text) {
    constexpr std::string_view others = "-._~:/?#[]@!$&'()*+,;=";
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '%') {
            if (i + 2 >= text.size() || !isHexDigit(text[i + 1]) || !isHexDigit(text[i + 2])) return false;
        } else if (!isLetter(c) && !isDigit(c) && others.find(c) == std::string_view::npos) {
            return false;
        }
    }
    return true;
}

std::string_view schemeOf(std::string_view text) {
    const auto end = text.find_first_of(":/?#");
    if (end == std::string_view::npos || text[end] != ':') return {};
    return text.substr(0, end);
}

bool isScheme(std::string_view text) {
    return isLetter(text.front()) && std::ranges::all_of(text, [](char c) {
               return isLetter(c) || isDigit(c) || c == '+' || c == '-' || c == '.';
           });
}

/// Empty, as after "host:", is the default port.
bool isPort(std::string_view digits) {
    if (digits.empty()) return true;
    std::uint16_t port = 0;
    const auto [stop, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
    return error == std::errc() && stop == digits.data() + digits.size();
}

/// The host of "user@host:port", without the brackets of an IPv6 address.
std::optional<std::string_view> hostOf(std::string_view authority) {
    std::string_view rest = authority.substr(authority.rfind('@') + 1);  // npos + 1 is 0
    std::string_view host, afterHost;
    if (rest.starts_with('[')) {
        const auto end = rest.find(']');
        if (end == std::string_view::npos) return std::nullopt;
        host = rest.substr(1, end - 1);
        afterHost = rest.substr(end + 1);
    } else {
        const auto end = std::min(rest.find(':'), rest.size());
        host = rest.substr(0, end);
        afterHost = rest.substr(end);
    }
    if (host.find_first_of("[]") != std::string_view::npos) return std::nullopt;
    if (afterHost.empty()) return host;
    if (afterHost.front() != ':' || !isPort(afterHost.substr(1))) return std::nullopt;
    return host;
}

}  // namespace

Result<SignalingUrl> SignalingUrl::parse(std::string_view text) {
    const auto invalid = [&] { return Failure{fmt::format("“{}” is not a URL", text)}; };
    if (text.empty() || !hasOnlyUrlCharacters(text)) return invalid();
    SignalingUrl url;
    url.text_ = text;

    const std::string_view scheme = schemeOf(text);
    std::string_view rest = text;
    if (text.front() == ':') return invalid();
    if (!scheme.empty()) {
        if (!isScheme(scheme)) return invalid();
        url.scheme_ = scheme;
        std::ranges::transform(url.scheme_, url.scheme_.begin(),
                               [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; });
        rest.remove_prefix(scheme.size() + 1);
    }
    rest = rest.substr(0, rest.find('#'));
    if (const auto query = rest.find('?'); query != std::string_view::npos) {
        url.query_ = rest.substr(query);
        rest = rest.substr(0, query);
    }
    if (!rest.starts_with("//")) return url;
    rest.remove_prefix(2);
    url.authority_ = rest.substr(0, rest.find('/'));
    const auto host = hostOf(url.authority_);
    if (!host) return invalid();
    url.host_ = *host;
    return url;
}

const SignalingUrl& SignalingUrl::ofThisBuild() {
    static const SignalingUrl url = [] {
        auto parsed = parse(VELMORA_DEFAULT_SIGNALING);
        assert(parsed && !parsed->host_.empty() && "the build's own URL must name a machine");
        return *std::move(parsed);
    }();
    return url;
}

std::string SignalingUrl::host() const {
    return host_.empty() ? ofThisBuild().host_ : host_;
}

std::string SignalingUrl::httpUrl(std::string_view path) const {
    return fmt::format("{}://{}{}{}", scheme_ == "ws" ? "http" : "https", authority_, path, query_);
}

}  // namespace velmora
