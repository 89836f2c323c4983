#pragma once

#include <QWidget>
#include <functional>
#include <optional>
#include <string>

#include "App/DeviceList.h"
#include "App/MenuModel.h"
#include "App/MenuRows.h"
#include "Shared/HostIdentity.h"

class QMenu;
class QScrollArea;

namespace velmora {

/// What the server has to say that a person should read, such as that its port is in use; none while it runs
/// or rests as it should.
std::optional<std::string> serverNote(const MenuModel::State& state);

/// All that the menu panel shows, from the logo down to “Quit”. It decides nothing and keeps nothing but what
/// the pointer is on: it follows the models, which outlive it, and calls the model's actions. On the main
/// queue.
class MenuPanelView final : public QWidget {
public:
    MenuPanelView(MenuModel& model, HostIdentity& identity, RemoteDevices& devices, Queue& main,
                  QWidget* parent);

    /// The size at which all is seen, or as much as fits into `tallest`: then the devices scroll.
    QSize fittingSize(int tallest);
    /// As at a first opening: from the top, and nobody has the keyboard yet.
    void reset();

    /// A menu of one of the rows has closed.
    std::function<void()> onMenuClosed;
    /// There is more or less to show than before.
    std::function<void()> onContent;

protected:
    void hideEvent(QHideEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    void layOut();
    QWidget* makeHeader();
    void fillCard();
    void connectActions();
    void show(const MenuModel::State& state);
    void showIdentity();
    void showNote();
    void showDevices();
    void openPasswordMenu(const QPoint& place);
    void openDeviceMenu(const RemoteDevices::Device& device, const QPoint& place);
    void popUp(QMenu* menu, const QPoint& place);
    int contentHeight(int width) const;

    MenuModel& model_;
    HostIdentity& identity_;
    RemoteDevices& devices_;
    QScrollArea* const scroll_;
    QWidget* const content_;
    QWidget* const card_;
    CopyRow* const id_;
    CopyRow* const password_;
    IDStatusBadge* const badge_;
    InkLabel* const note_;
    ViewerRow* const viewer_;
    MenuRow* const server_;
    DeviceList* const list_;
    MenuRow* const addDevice_;
    ObserverList::Token modelObserver_, identityObserver_, devicesObserver_;
};

}  // namespace velmora
