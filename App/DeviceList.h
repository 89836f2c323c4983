#pragma once

#include <QScrollArea>
#include <functional>
#include <string>
#include <vector>

#include "App/MenuRows.h"
#include "Shared/RemoteDevices.h"

class QVBoxLayout;

namespace velmora {

/// The rows of the devices, which scroll when there are many. On the main queue.
class DeviceList final : public QScrollArea {
public:
    explicit DeviceList(QWidget* parent);

    /// Rows of devices that were there before stay what they are: neither pointer nor keyboard loses them.
    void setDevices(const std::vector<RemoteDevices::Device>& devices);
    /// The rows of devices, from top to bottom; none while there is no device.
    std::vector<MenuRow*> rows() const;

    std::function<void(const RemoteDevices::Device& device)> onConnect;
    /// Somebody wants the menu of a device.
    std::function<void(const RemoteDevices::Device& device, const QPoint& place)> onMenu;

    /// As high as all rows, or as `limit` if that is less.
    void setHeightLimit(int limit);
    int fullHeight() const;
    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void resizeEvent(QResizeEvent* event) override;

private:
    struct Entry {
        RemoteDevices::Device device;
        MenuRow* row;
    };
    void pointAgain();
    MenuRow* takeRowOf(const std::string& id, std::vector<Entry>& entries);
    MenuRow* makeRow(const std::string& id);
    const RemoteDevices::Device* deviceOf(const std::string& id) const;

    QWidget* const content_;
    QVBoxLayout* const layout_;
    MenuRow* const none_;
    QWidget* const fade_;
    std::vector<Entry> entries_;
    int heightLimit_;
};

}  // namespace velmora
