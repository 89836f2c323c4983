#include "Viewer/Session/StatsLog.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "Shared/FileNames.h"
#include "Viewer/Session/ViewerStats.h"

namespace velmora {

StatsLog::StatsLog(const std::filesystem::path& folder, std::string_view serverName,
                   std::chrono::system_clock::time_point now) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) return;
    const auto localTime = fmt::localtime(std::chrono::system_clock::to_time_t(now));
    const auto path =
        folder / fmt::format("viewer-{:%Y%m%d-%H%M%S}-{}.csv", localTime, fileNamePart(serverName));
    file_.reset(std::fopen(path.c_str(), "wxe"));  // x: never over a log that is there
    append(ViewerStats::csvHeader);
}

void StatsLog::append(std::string_view row) {
    if (!file_) return;
    std::fwrite(row.data(), 1, row.size(), file_.get());
    std::fputc('\n', file_.get());
    std::fflush(file_.get());  // a row a second: whoever reads along sees it, and a crash loses none
}

void StatsLog::close() {
    file_.reset();
}

}  // namespace velmora
