#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "Platform/Picture.h"
#include "Platform/PreferenceStore.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Core/Result.h"

namespace velmora {

/// Why something that a person wanted to keep was not kept, in words for that person.
struct CaptureError {
    std::string description;
    std::string suggestion;

    static CaptureError couldNotSave(const std::filesystem::path& file);
    bool operator==(const CaptureError&) const = default;
};

/// Where screenshots go, and how. Lives on the main queue for the life of the process.
class CaptureFiles {
public:
    using Saved = Result<std::filesystem::path, CaptureError>;
    struct Services {
        const PreferenceStore& preferences;
        Queue& main;
        Queue& worker;  // where files are written
        std::function<Status(const Picture&, const std::filesystem::path&)> writePng;
        /// Where the desktop's own screenshots go.
        std::function<std::filesystem::path()> systemFolder;
    };
    explicit CaptureFiles(Services services) : services_(std::move(services)) {}

    /// What the preferences name, while it is there; else the system's.
    std::filesystem::path folder() const;

    /// A name that is still free in `folder`, such as "Screenshot of Desk 2026-03-01 at 09.41.00.png".
    static std::filesystem::path newFile(const std::filesystem::path& folder, std::string_view kind,
                                         std::string_view name, std::string_view extension,
                                         std::chrono::system_clock::time_point now);

    /// `completion` runs on the main queue.
    void saveScreenshot(SharedPicture picture, const std::string& name,
                        std::function<void(const Saved&)> completion);

private:
    const Services services_;
};

}  // namespace velmora
