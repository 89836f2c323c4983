#include "Platform/Linux/Clipboard/UriList.h"

#include <fmt/format.h>
#include <unistd.h>

#include <charconv>
#include <optional>

namespace velmora {

namespace {

constexpr std::string_view scheme = "file:";

bool isUnreserved(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("-._~/").find(c) != std::string_view::npos;
}

std::optional<std::string> percentDecoded(std::string_view text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\0') return std::nullopt;  // no path holds one
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        unsigned char byte = 0;
        const char* first = text.data() + i + 1;
        if (i + 2 >= text.size() || std::from_chars(first, first + 2, byte, 16).ptr != first + 2 || byte == 0)
            return std::nullopt;
        decoded += static_cast<char>(byte);
        i += 2;
    }
    return decoded;
}

bool isThisMachine(std::string_view host) {
    char name[256]{};
    ::gethostname(name, sizeof name - 1);
    return host.empty() || host == "localhost" || host == name;
}

std::optional<std::filesystem::path> localFile(std::string_view uri) {
    if (!uri.starts_with(scheme)) return std::nullopt;
    uri.remove_prefix(scheme.size());
    if (uri.starts_with("//")) {
        const auto slash = uri.find('/', 2);
        if (slash == uri.npos || !isThisMachine(uri.substr(2, slash - 2))) return std::nullopt;
        uri.remove_prefix(slash);
    }
    auto path = percentDecoded(uri);
    if (!path || !path->starts_with('/')) return std::nullopt;
    return *std::move(path);
}

}  // namespace

std::string fileUri(const std::filesystem::path& file) {
    std::string uri = "file://";
    for (const char c : file.string()) {
        if (isUnreserved(c)) {
            uri += c;
        } else {
            uri += fmt::format("%{:02X}", static_cast<unsigned char>(c));
        }
    }
    return uri;
}

std::vector<std::filesystem::path> localFiles(std::string_view list) {
    std::vector<std::filesystem::path> files;
    while (!list.empty()) {
        const auto end = list.find('\n');
        std::string_view line = list.substr(0, end);
        list = end == list.npos ? std::string_view() : list.substr(end + 1);
        while (line.ends_with('\r') || line.ends_with('\0')) line.remove_suffix(1);
        if (auto file = localFile(line)) files.push_back(*std::move(file));
    }
    return files;
}

}  // namespace velmora
