#include "Platform/Linux/Launch/DesktopOpener.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <glib.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string_view>

#include "Platform/Linux/Launch/DesktopApplication.h"

namespace velmora {
namespace {

bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isLetterOrDigit(char c) {
    return isLetter(c) || (c >= '0' && c <= '9');
}

std::string trimmed(const std::string& text) {
    constexpr const char* blanks = " \t\r\n";
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/// "https" of "https://example.org", as RFC 3986 section 3.1 has it; none if the text is no such address.
std::optional<std::string> schemeOf(const std::string& text) {
    const auto colon = text.find(':');
    if (colon == std::string::npos || colon < 2 || colon + 1 == text.size()) return std::nullopt;
    if (text.find(' ') != std::string::npos || !isLetter(text[0])) return std::nullopt;
    std::string scheme = text.substr(0, colon);
    const bool isWhole = std::ranges::all_of(
        scheme, [](char c) { return isLetterOrDigit(c) || c == '+' || c == '-' || c == '.'; });
    const bool isPort = std::ranges::all_of(text.substr(colon + 1, text.find('/', colon) - colon - 1),
                                            [](char c) { return c >= '0' && c <= '9'; });
    if (!isWhole || (isPort && text.compare(colon, 3, "://") != 0)) return std::nullopt;
    std::ranges::transform(scheme, scheme.begin(), [](char c) { return g_ascii_tolower(c); });
    return scheme;
}

/// "example.org", "example.org:8080/page", "localhost:3000": what people write without its scheme.
bool isBareAddress(const std::string& text) {
    const std::string host = text.substr(0, text.find_first_of(":/?"));
    if (host.empty() ||
        !std::ranges::all_of(host, [](char c) { return isLetterOrDigit(c) || c == '-' || c == '.'; }))
        return false;
    if (host == "localhost") return true;
    const auto dot = host.rfind('.');
    if (dot == std::string::npos || dot == 0) return false;
    const std::string_view last = std::string_view(host).substr(dot + 1);
    const bool isNumber = std::ranges::count(host, '.') == 3 &&
                          std::ranges::none_of(host, [](char c) { return isLetter(c) || c == '-'; });
    return isNumber || (last.size() >= 2 && std::ranges::all_of(last, isLetter));
}

Result<std::string> run(const std::vector<std::string>& arguments, const std::string& folder = {}) {
    if (arguments.empty()) return Failure{"The application's entry has no command"};
    if (const auto started = startProgram(arguments, folder); !started) return started.error();
    return fmt::format("{}", fmt::join(arguments, " "));
}

Result<std::string> start(const DesktopApplication& application,
                          const std::optional<std::string>& target = {}) {
    return run(application.argumentsFor(target), application.folder);
}

Result<std::string> openAddress(const std::string& address, const std::string& scheme) {
    if (const auto application = DesktopApplication::forScheme(scheme)) return start(*application, address);
    if (scheme == "http" || scheme == "https") {
        for (const char* browser : {"x-www-browser", "firefox", "firefox-esr", "chromium", "epiphany"}) {
            if (gchar* const found = g_find_program_in_path(browser)) {
                const std::string program = found;
                g_free(found);
                return run({program, address});
            }
        }
        return Failure{"There is no browser on this machine"};
    }
    return Failure{fmt::format("No application opens “{}:” addresses", scheme)};
}

Result<std::string> openPath(const std::string& path) {
    const auto application = DesktopApplication::forFile(path);
    if (!application) return Failure{fmt::format("No application opens {}", path)};
    return start(*application, path);
}

std::optional<std::string> existing(const std::string& path) {
    std::error_code error;
    return std::filesystem::exists(path, error) ? std::optional(path) : std::nullopt;
}

}  // namespace

Result<std::string> DesktopOpener::open(const std::string& text) {
    const std::string target = trimmed(text);
    if (target.empty()) return Failure{"Nothing was written"};
    const std::string home = g_get_home_dir();
    if (target[0] == '/' || target == "~" || target.starts_with("~/")) {
        const std::string path = target[0] == '~' ? home + target.substr(1) : target;
        if (existing(path)) return openPath(path);
        return Failure{fmt::format("There is nothing at {}", path)};
    }
    const auto scheme = schemeOf(target);
    if (scheme == "file") {
        gchar* const path = g_filename_from_uri(target.c_str(), nullptr, nullptr);
        const std::string found = path ? path : "";
        g_free(path);
        if (existing(found)) return openPath(found);
        return Failure{fmt::format("There is nothing at {}", target)};
    }
    if (scheme) return openAddress(target, *scheme);
    if (const auto application = DesktopApplication::named(target)) return start(*application);
    if (const auto path = existing(home + "/" + target)) return openPath(*path);
    if (isBareAddress(target)) return openAddress("https://" + target, "https");
    return Failure{fmt::format("Nothing here is called “{}”", target)};
}

}  // namespace velmora
