#include "App/DeviceList.h"

#include <QApplication>
#include <QLinearGradient>
#include <QPainter>
#include <QScrollBar>
#include <QVBoxLayout>
#include <algorithm>
#include <utility>

namespace velmora {

namespace {

using Appearance::StatusColor;
using Style::Glyph;
using Device = RemoteDevices::Device;

constexpr int leastRows = 3;  // that stay seen when the room is short
constexpr int noLimit = 1 << 20;

Glyph glyphOf(MacKind kind) {
    switch (kind) {
        case MacKind::macbook:
            return Glyph::laptop;
        case MacKind::imac:
            return Glyph::allInOne;
        case MacKind::macmini:
            return Glyph::mini;
        case MacKind::macstudio:
            return Glyph::studio;
        case MacKind::macpro:
            return Glyph::tower;
        case MacKind::mac:
            return Glyph::display;
    }
    return Glyph::display;
}

MenuRow::Content contentOf(const Device& device) {
    MenuRow::Content content{.icon = glyphOf(device.kind), .title = device.name, .mayBeCut = true};
    switch (device.availability) {
        case RemoteDevices::Availability::online:
            content.dot = StatusColor::good;
            break;
        case RemoteDevices::Availability::offline:
            content.dot = StatusColor::quiet;
            content.dimmed = true;
            break;
        case RemoteDevices::Availability::unknown:
            break;
    }
    return content;
}

/// Lies over the rows and lets them fade where there are more of them.
class Fade final : public QWidget {
public:
    explicit Fade(QScrollArea& area) : QWidget(&area), bar_(*area.verticalScrollBar()) {
        setAttribute(Qt::WA_TransparentForMouseEvents);
        connect(&bar_, &QScrollBar::valueChanged, this, [this] { update(); });
        connect(&bar_, &QScrollBar::rangeChanged, this, [this] { update(); });
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        const QColor ground = palette().color(QPalette::Window);
        const auto fade = [&](const QRect& band, double from, double to) {
            QLinearGradient gradient(0, from, 0, to);
            QColor clear = ground;
            clear.setAlpha(0);
            gradient.setColorAt(0, ground);
            gradient.setColorAt(1, clear);
            painter.fillRect(band, gradient);
        };
        if (bar_.value() > bar_.minimum()) fade({0, 0, width(), band_}, 0, band_);
        if (bar_.value() < bar_.maximum())
            fade({0, height() - band_, width(), band_}, height(), height() - band_);
    }

private:
    static constexpr int band_ = 2 * Style::grid;
    QScrollBar& bar_;
};

}  // namespace

DeviceList::DeviceList(QWidget* parent)
    : QScrollArea(parent),
      content_(new QWidget(this)),
      layout_(new QVBoxLayout(content_)),
      none_(new MenuRow({.title = "No devices found", .enabled = false}, content_)),
      fade_(new Fade(*this)),
      heightLimit_(noLimit) {
    setAccessibleName(QStringLiteral("Remote devices"));
    setFrameShape(QFrame::NoFrame);
    setFocusPolicy(Qt::NoFocus);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    setWidgetResizable(true);
    viewport()->setAutoFillBackground(false);
    layout_->setContentsMargins(0, 0, 0, 0);
    layout_->setSpacing(0);
    layout_->addWidget(none_);
    layout_->addStretch(1);
    setWidget(content_);
    content_->setAutoFillBackground(false);
    connect(verticalScrollBar(), &QScrollBar::valueChanged, this, [this] { pointAgain(); });
    // Qt scrolls for who walks within the list, but not for who comes from below it.
    connect(qApp, &QApplication::focusChanged, this, [this](QWidget*, QWidget* now) {
        if (now && content_->isAncestorOf(now)) ensureWidgetVisible(now, 0, 0);
    });
}

void DeviceList::setDevices(const std::vector<Device>& devices) {
    std::vector<Entry> before = std::exchange(entries_, {});
    const QWidget* const keyboard = window()->focusWidget();
    const auto focused = std::ranges::find(before, keyboard, [](const Entry& entry) { return entry.row; });
    const auto focusedAt = static_cast<std::size_t>(focused - before.begin());

    QWidget* previous = none_;
    for (const Device& device : devices) {
        MenuRow* row = takeRowOf(device.id, before);
        if (!row) row = makeRow(device.id);
        row->setContent(contentOf(device));
        layout_->removeWidget(row);
        layout_->insertWidget(static_cast<int>(entries_.size()), row);
        setTabOrder(previous, row);
        previous = row;
        entries_.push_back({device, row});
    }
    none_->setVisible(entries_.empty());
    for (const Entry& gone : before) {
        if (gone.row == keyboard && !entries_.empty())
            entries_[std::min(focusedAt, entries_.size() - 1)].row->setFocus(Qt::OtherFocusReason);
        gone.row->hide();
        gone.row->deleteLater();  // it may be telling us something at this very moment
    }
    updateGeometry();
}

std::vector<MenuRow*> DeviceList::rows() const {
    std::vector<MenuRow*> rows;
    for (const Entry& entry : entries_) rows.push_back(entry.row);
    return rows;
}

MenuRow* DeviceList::takeRowOf(const std::string& id, std::vector<Entry>& entries) {
    const auto found = std::ranges::find(entries, id, [](const Entry& entry) { return entry.device.id; });
    if (found == entries.end()) return nullptr;
    MenuRow* const row = found->row;
    entries.erase(found);
    return row;
}

MenuRow* DeviceList::makeRow(const std::string& id) {
    auto* row = new MenuRow({}, content_);
    row->onClick = [this, id] {
        const Device* device = deviceOf(id);
        if (const auto act = onConnect; act && device) act(Device(*device));
    };
    row->onMenu = [this, id](const QPoint& place) {
        const Device* device = deviceOf(id);
        if (device && onMenu) onMenu(*device, place);
    };
    row->show();
    return row;
}

const Device* DeviceList::deviceOf(const std::string& id) const {
    const auto found = std::ranges::find(entries_, id, [](const Entry& entry) { return entry.device.id; });
    return found == entries_.end() ? nullptr : &found->device;
}

void DeviceList::setHeightLimit(int limit) {
    heightLimit_ = limit;
    updateGeometry();
}

int DeviceList::fullHeight() const {
    return static_cast<int>(std::max<std::size_t>(entries_.size(), 1)) * Style::rowHeight(font());
}

/// Rows that move under the pointer are not told of it.
void DeviceList::pointAgain() {
    const QPoint pointer = QCursor::pos();
    const bool isWithin = viewport()->rect().contains(viewport()->mapFromGlobal(pointer));
    for (const Entry& entry : entries_) {
        entry.row->setAttribute(Qt::WA_UnderMouse,
                                isWithin && entry.row->rect().contains(entry.row->mapFromGlobal(pointer)));
        entry.row->update();
    }
}

void DeviceList::resizeEvent(QResizeEvent* event) {
    QScrollArea::resizeEvent(event);
    fade_->setGeometry(viewport()->geometry());
    fade_->raise();
}

QSize DeviceList::sizeHint() const {
    return {QScrollArea::sizeHint().width(), std::min(fullHeight(), heightLimit_)};
}

QSize DeviceList::minimumSizeHint() const {
    return {content_->minimumSizeHint().width(),
            std::min(fullHeight(), leastRows * Style::rowHeight(font()))};
}

}  // namespace velmora
