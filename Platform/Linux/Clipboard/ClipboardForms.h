#pragma once

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "Platform/Linux/Clipboard/UriList.h"
#include "Platform/Pasteboard.h"

namespace velmora {

/// What the programs of Linux desktops call the forms of what is copied.
namespace ClipboardForms {

constexpr const char* passwordHint = "x-kde-passwordManagerHint";
constexpr const char* copiedFiles = "x-special/gnome-copied-files";

/// The forms that pictures come in, the best first.
inline const std::vector<std::string> pictures{Pasteboard::Type::png, "image/tiff", "image/bmp",
                                               "image/jpeg"};

inline bool contains(const std::vector<std::string>& names, const std::string& name) {
    return std::ranges::find(names, name) != names.end();
}

/// The names in the list that stand for another one which is not there add that one.
inline void addIfOffered(std::vector<std::string>& types, const std::string& type,
                         const std::vector<std::string>& standIns) {
    const bool isOffered =
        std::ranges::any_of(standIns, [&](const auto& name) { return contains(types, name); });
    if (isOffered && !contains(types, type)) types.push_back(type);
}

/// Whoever sets the hint and does not say what it is keeps a secret too.
inline bool isSecret(const Result<Bytes, Pasteboard::Lack>& hint) {
    return !hint || textOf(*hint).starts_with("secret");
}

/// Files in all the forms that programs take them in.
inline std::vector<PasteboardItem> ofFiles(const std::vector<std::filesystem::path>& files) {
    std::string list, copied = "copy", paths;
    for (const auto& file : files) {
        const std::string uri = fileUri(file);
        list += uri + "\r\n";
        copied += "\n" + uri;
        paths += (paths.empty() ? "" : "\n") + file.string();
    }
    return {{Pasteboard::Type::files, bytesOf(list)},
            {copiedFiles, bytesOf(copied)},
            {Pasteboard::Type::text, bytesOf(paths)}};
}

}  // namespace ClipboardForms

}  // namespace velmora
