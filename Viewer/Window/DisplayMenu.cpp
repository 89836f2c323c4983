#include "Viewer/Window/DisplayMenu.h"

#include <QMenu>
#include <algorithm>
#include <string>

#include "VelmoraKit/Core/Utf8.h"

namespace velmora {

namespace {

constexpr std::size_t longestName = 300;  // bytes of a display's name that are worth looking at
constexpr int widestEntry = 420;          // points of a menu's entry

QString matching() {
    return QStringLiteral("Match This Window");
}

QString nameOf(const ServerDisplay& display) {
    return QString::fromStdString(printableLine(display.name, longestName));
}

}  // namespace

QString menuEntry(const QMenu& menu, const QString& words) {
    return menu.fontMetrics()
        .elidedText(words, Qt::ElideMiddle, widestEntry)
        .replace('&', QLatin1String("&&"));
}

void fillDisplayMenu(QMenu& menu, const DisplayList& list,
                     const std::function<void(std::optional<std::uint32_t>)>& choose) {
    menu.clear();
    menu.setToolTipsVisible(true);
    const auto add = [&](const QString& words, bool isCurrent, std::optional<std::uint32_t> id) {
        QAction* const entry = menu.addAction(menuEntry(menu, words));
        entry->setCheckable(isCurrent);  // no empty boxes: a tick on one of them
        entry->setChecked(isCurrent);
        entry->setToolTip(words);
        QObject::connect(entry, &QAction::triggered, entry, [entry, isCurrent, id, choose] {
            entry->setChecked(isCurrent);
            choose(id);
        });
        return entry;
    };
    QAction* const virtualDisplay = add(matching(), !list.currentID, std::nullopt);
    virtualDisplay->setEnabled(list.virtualAvailable);
    virtualDisplay->setToolTip(
        list.virtualAvailable
            ? QStringLiteral("A virtual display the size of this window that follows when you resize")
            : QStringLiteral(
                  "Not available: turn on “Match Viewer Window Size” in Velmora's menu on the other Mac"));
    menu.addSeparator();
    for (const ServerDisplay& display : list.displays) {
        add(QStringLiteral("%1 — %2×%3").arg(nameOf(display)).arg(display.width).arg(display.height),
            list.currentID == display.id, display.id);
    }
}

QString shownDisplayOf(const DisplayList& list) {
    const auto shown = std::ranges::find(list.displays, list.currentID, [](const ServerDisplay& display) {
        return std::optional(display.id);
    });
    return shown == list.displays.end() ? matching() : nameOf(*shown);
}

}  // namespace velmora
