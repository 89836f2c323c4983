#include "Viewer/Window/DesktopFolders.h"

#include <QDesktopServices>
#include <QStandardPaths>
#include <QUrl>
#include <system_error>

namespace velmora::DesktopFolders {

namespace {

std::filesystem::path standard(QStandardPaths::StandardLocation location) {
    return QStandardPaths::writableLocation(location).toStdString();
}

}  // namespace

std::filesystem::path screenshots() {
    std::error_code ignored;
    for (const auto& folder : {standard(QStandardPaths::PicturesLocation) / "Screenshots",
                               standard(QStandardPaths::DesktopLocation)}) {
        if (std::filesystem::is_directory(folder, ignored)) return folder;
    }
    return standard(QStandardPaths::HomeLocation);
}

void reveal(const std::filesystem::path& file) {
    QDesktopServices::openUrl(QUrl::fromLocalFile(QString::fromStdString(file.parent_path().string())));
}

}  // namespace velmora::DesktopFolders
