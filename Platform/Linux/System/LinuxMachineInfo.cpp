#include "Platform/Linux/System/LinuxMachineInfo.h"

#include <unistd.h>

#include <array>
#include <charconv>
#include <utility>

#include "Platform/Linux/System/PrivateFile.h"

namespace velmora {
namespace {

constexpr std::size_t maxFileSize = 65536;

std::string contentOf(const std::filesystem::path& path) {
    const auto content = readPrivateFile(path, maxFileSize);
    return content && *content ? textOf(**content) : std::string();
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n";
    const auto start = text.find_first_not_of(blanks);
    if (start == std::string_view::npos) return {};
    return text.substr(start, text.find_last_not_of(blanks) - start + 1);
}

/// A value as a shell would read it: quotes taken away, backslashes resolved.
std::string unquoted(std::string_view text) {
    const bool isQuoted =
        text.size() >= 2 && (text.front() == '"' || text.front() == '\'') && text.front() == text.back();
    if (isQuoted) text = text.substr(1, text.size() - 2);
    std::string value;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size()) ++i;
        value += text[i];
    }
    return value;
}

}  // namespace

LinuxMachineInfo::LinuxMachineInfo(std::filesystem::path root) : root_(std::move(root)) {}

std::string LinuxMachineInfo::localizedName() const {
    if (auto pretty = prettyHostnameIn(contentOf(root_ / "etc/machine-info")); !pretty.empty()) return pretty;
    std::array<char, 256> name{};
    if (::gethostname(name.data(), name.size() - 1) != 0 || name[0] == 0) return "Mac";
    const std::string_view full(name.data());
    return std::string(full.substr(0, full.find('.')));
}

std::optional<MacKind> LinuxMachineInfo::kind() const {
    const std::string content = contentOf(root_ / "sys/class/dmi/id/chassis_type");
    const auto text = trimmed(content);
    int type = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), type);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return kindOfChassis(type);
}

std::string LinuxMachineInfo::prettyHostnameIn(std::string_view text) {
    constexpr std::string_view key = "PRETTY_HOSTNAME=";
    std::string name;
    while (!text.empty()) {
        const auto end = text.find('\n');
        const auto line = trimmed(text.substr(0, end));
        if (line.starts_with(key)) name = unquoted(trimmed(line.substr(key.size())));
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    }
    return name;
}

std::optional<MacKind> LinuxMachineInfo::kindOfChassis(int type) {
    switch (type) {
        case 8:   // portable
        case 9:   // laptop
        case 10:  // notebook
        case 11:  // hand held
        case 14:  // sub notebook
        case 30:  // tablet
        case 31:  // convertible
        case 32:  // detachable
            return MacKind::macbook;
        case 13:  // all in one
            return MacKind::imac;
        case 4:   // low profile desktop
        case 15:  // space-saving
        case 16:  // lunch box
        case 35:  // mini PC
        case 36:  // stick PC
            return MacKind::macmini;
        case 3:   // desktop
        case 5:   // pizza box
        case 24:  // sealed-case PC
            return MacKind::macstudio;
        case 6:   // mini tower
        case 7:   // tower
        case 17:  // main server chassis
        case 23:  // rack mount
            return MacKind::macpro;
        case 1:  // other
        case 2:  // unknown: virtual machines
            return std::nullopt;
        default:
            return MacKind::mac;
    }
}

}  // namespace velmora
