#include "App/TrayStatusItem.h"

#include <QPainter>
#include <QSystemTrayIcon>

#include "Viewer/Window/Logo.h"

namespace velmora {

namespace {

/// The logo as it looks when held down.
QIcon pressedIcon() {
    QIcon icon;
    for (const int side : {16, 20, 22, 24, 32, 48, 64}) {
        QPixmap picture = logoPixmap(side);
        QPainter painter(&picture);
        painter.setCompositionMode(QPainter::CompositionMode_SourceAtop);
        painter.fillRect(picture.rect(), QColor(0, 0, 0, 70));
        painter.end();
        icon.addPixmap(picture);
    }
    return icon;
}

}  // namespace

TrayStatusItem::TrayStatusItem(TrayPresence& presence) : presence_(presence) {
    presence_.onChange = [this] { follow(); };
    follow();
}

TrayStatusItem::~TrayStatusItem() {
    presence_.onChange = nullptr;
}

/// Qt looks for the kind of tray when the first item is made, and never again: an item that is made before
/// there is a tray would not find one that watches for items later.
void TrayStatusItem::follow() {
    if (presence_.isThere() && !icon_) {
        icon_ = std::make_unique<QSystemTrayIcon>(logoIcon());
        icon_->setToolTip(QStringLiteral("Velmora"));
        QObject::connect(icon_.get(), &QSystemTrayIcon::activated, icon_.get(),
                         [this](QSystemTrayIcon::ActivationReason reason) {
                             // A double click has come as a click already.
                             if (reason != QSystemTrayIcon::Trigger && reason != QSystemTrayIcon::Context)
                                 return;
                             if (const auto tell = onClick) tell();
                         });
        icon_->show();
    }
    if (const auto tell = onAvailability) tell();
}

bool TrayStatusItem::isAvailable() const {
    return icon_ && presence_.isThere();
}

std::optional<QRect> TrayStatusItem::place() const {
    const QRect place = icon_ ? icon_->geometry() : QRect();
    return place.isEmpty() ? std::nullopt : std::optional(place);
}

void TrayStatusItem::setHighlighted(bool highlighted) {
    if (icon_) icon_->setIcon(highlighted ? pressedIcon() : logoIcon());
}

}  // namespace velmora
