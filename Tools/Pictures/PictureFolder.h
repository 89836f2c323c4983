#pragma once

#include <QString>
#include <string>

class QWidget;

namespace velmora {

/// Takes the pictures of the application's windows, for people who look whether they are as they should be:
/// "NAME-light.png", "NAME-dark.png", at one pixel to a point and, with "@2x", at two.
class PictureFolder {
public:
    explicit PictureFolder(QString folder) : folder_(std::move(folder)) {}

    /// Which of the two looks the windows have now; they are made anew for each.
    void setLook(bool dark);
    /// Takes `window` as it is. It is shown already, and has drawn itself.
    void take(QWidget& window, const std::string& name);
    /// None of the files could not be written.
    bool isWhole() const { return isWhole_; }

private:
    const QString folder_;
    QString look_;
    bool isWhole_ = true;
};

}  // namespace velmora
