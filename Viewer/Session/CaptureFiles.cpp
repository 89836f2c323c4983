#include "Viewer/Session/CaptureFiles.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <system_error>
#include <utility>

#include "Shared/Preferences.h"
#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Core/Utf8.h"

namespace velmora {

CaptureError CaptureError::couldNotSave(const std::filesystem::path& file) {
    return {fmt::format("Couldn't save to “{}”", file.parent_path().filename().string()),
            "Check that Velmora may write there, or choose another folder in Settings → Viewer."};
}

std::filesystem::path CaptureFiles::folder() const {
    if (const auto chosen = services_.preferences.string(PreferenceKeys::captureFolder)) {
        std::error_code ignored;
        if (!chosen->empty() && std::filesystem::is_directory(*chosen, ignored)) return *chosen;
    }
    return services_.systemFolder();
}

std::filesystem::path CaptureFiles::newFile(const std::filesystem::path& folder, std::string_view kind,
                                            std::string_view name, std::string_view extension,
                                            std::chrono::system_clock::time_point now) {
    constexpr std::size_t longestName = 120;  // bytes; with all the rest well under the 255 of a file name
    std::string safeName = printableLine(name, longestName);
    for (char& c : safeName) {
        if (c == '/' || c == ':') c = '-';
    }
    const std::string base = fmt::format("{} of {} {:%Y-%m-%d at %H.%M.%S}", kind, safeName,
                                         fmt::localtime(std::chrono::system_clock::to_time_t(now)));
    auto file = folder / fmt::format("{}.{}", base, extension);
    std::error_code ignored;
    for (int copy = 2; std::filesystem::exists(file, ignored); ++copy)
        file = folder / fmt::format("{} ({}).{}", base, copy, extension);
    return file;
}

void CaptureFiles::saveScreenshot(SharedPicture picture, const std::string& name,
                                  std::function<void(const Saved&)> completion) {
    services_.worker.post([services = services_, folder = folder(), picture = std::move(picture), name,
                           completion = std::move(completion)]() mutable {
        const auto file = newFile(folder, "Screenshot", name, "png", std::chrono::system_clock::now());
        const Status written = services.writePng(*picture, file);
        if (!written) debugLog(fmt::format("⚠︎ {}", written.error().text));
        Saved saved = written ? Saved(file) : Saved(CaptureError::couldNotSave(file));
        services.main.post(
            [completion = std::move(completion), saved = std::move(saved)] { completion(saved); });
    });
}

}  // namespace velmora
