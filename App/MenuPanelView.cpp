#include "App/MenuPanelView.h"

#include <QApplication>
#include <QKeyEvent>
#include <QMenu>
#include <QPainter>
#include <QScrollArea>
#include <QScrollBar>
#include <QVBoxLayout>
#include <algorithm>

#include "App/Version.h"
#include "Viewer/Window/Logo.h"

namespace velmora {

using Appearance::StatusColor;
using Style::Glyph;
using Style::grid;

namespace {

constexpr int usualWidth = 288, greatestWidth = 432;
constexpr int mostRows = 9;  // of devices before they scroll, and half of one to show that there are more

class LogoView final : public QWidget {
public:
    explicit LogoView(QWidget* parent) : QWidget(parent) { setFixedSize(side_, side_); }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        drawLogo(painter, rect());
    }

private:
    static constexpr int side_ = 40;
};

class Card final : public QWidget {
public:
    using QWidget::QWidget;

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        Style::drawCard(painter, rect(), palette());
    }
};

bool startsWith(const std::string& text, std::string_view start) {
    return text.compare(0, start.size(), start) == 0;
}

MenuRow* addRow(QVBoxLayout& layout, Glyph glyph, const char* title, std::function<void()> action) {
    auto* row = new MenuRow({.icon = glyph, .title = title}, layout.parentWidget());
    row->onClick = std::move(action);
    layout.addWidget(row);
    return row;
}

}  // namespace

std::optional<std::string> serverNote(const MenuModel::State& state) {
    const std::string& text = state.serverStatus;
    const bool isAsItShould =
        text.empty() || text == "Stopped" || startsWith(text, "Running") || startsWith(text, "Streaming to ");
    if (isAsItShould) return std::nullopt;
    return text;
}

MenuPanelView::MenuPanelView(MenuModel& model, HostIdentity& identity, RemoteDevices& devices, Queue& main,
                             QWidget* parent)
    : QWidget(parent),
      model_(model),
      identity_(identity),
      devices_(devices),
      scroll_(new QScrollArea(this)),
      content_(new QWidget(this)),
      card_(new Card(content_)),
      id_(new CopyRow(QStringLiteral("ID"), {}, main, card_)),
      password_(new CopyRow(QStringLiteral("Password"), QStringLiteral("Change Password"), main, card_)),
      badge_(new IDStatusBadge(card_)),
      note_(new InkLabel(content_)),
      viewer_(new ViewerRow(content_)),
      server_(new MenuRow({}, content_)),
      list_(new DeviceList(content_)),
      addDevice_(new MenuRow({.icon = Glyph::plus, .title = "Add new device"}, content_)) {
    layOut();
    connectActions();
    modelObserver_ = model_.observe([this] { show(model_.state()); });
    identityObserver_ = identity_.observe([this] { showIdentity(); });
    devicesObserver_ = devices_.observe([this] { showDevices(); });
    showIdentity();
    showDevices();
    show(model_.state());
}

void MenuPanelView::layOut() {
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(0, 0, 0, 0);
    outer->addWidget(scroll_);
    scroll_->setFrameShape(QFrame::NoFrame);
    scroll_->setFocusPolicy(Qt::NoFocus);
    scroll_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scroll_->setWidgetResizable(true);
    scroll_->setWidget(content_);
    scroll_->viewport()->setAutoFillBackground(false);
    content_->setAutoFillBackground(false);
    connect(qApp, &QApplication::focusChanged, this, [this](QWidget*, QWidget* now) {
        if (now && content_->isAncestorOf(now)) scroll_->ensureWidgetVisible(now, 0, grid);
    });

    auto* rows = new QVBoxLayout(content_);
    rows->setContentsMargins(grid, grid, grid, grid);
    rows->setSpacing(0);
    rows->addWidget(makeHeader());
    rows->addSpacing(grid);
    rows->addWidget(new SectionHeader(QStringLiteral("Server"), content_));
    fillCard();
    rows->addWidget(card_);
    note_->setWordWrap(true);
    note_->setInk(StatusColor::busy);
    note_->setFont(Style::font(0.95));
    note_->setContentsMargins(grid + 2, grid, grid + 2, 0);
    rows->addWidget(note_);
    rows->addSpacing(grid);
    rows->addWidget(viewer_);
    rows->addWidget(server_);
    rows->addWidget(new PanelDivider(content_));
    rows->addWidget(new SectionHeader(QStringLiteral("Remote devices"), content_));
    rows->addWidget(list_, 1);
    rows->addWidget(addDevice_);
    rows->addWidget(new PanelDivider(content_));
    addRow(*rows, Glyph::help, "Help", [this] { model_.actions.openHelp(); });
    addRow(*rows, Glyph::power, "Quit Velmora", [this] { model_.actions.quit(); });
}

QWidget* MenuPanelView::makeHeader() {
    auto* header = new QWidget(content_);
    auto* title = new QLabel(QStringLiteral("Velmora"), header);
    title->setFont(Style::font(1.4, QFont::DemiBold));
    auto* version = new QLabel(QString::fromStdString(Version::text()), header);
    version->setFont(Style::font(0.9));
    version->setForegroundRole(QPalette::PlaceholderText);
    auto* words = new QVBoxLayout;
    words->setSpacing(1);
    words->addWidget(title);
    words->addWidget(version);
    auto* layout = new QHBoxLayout(header);
    layout->setContentsMargins(grid, grid / 2, grid, grid / 2);
    layout->setSpacing(grid + grid / 2);
    layout->addWidget(new LogoView(header));
    layout->addLayout(words, 1);
    return header;
}

void MenuPanelView::fillCard() {
    auto* layout = new QVBoxLayout(card_);
    layout->setContentsMargins(0, grid / 2, 0, grid / 2);
    layout->setSpacing(0);
    layout->addWidget(id_);
    layout->addWidget(password_);
    const int width = std::max(id_->labelWidth(), password_->labelWidth());
    id_->setLabelWidth(width);
    password_->setLabelWidth(width);
    auto* status = new QHBoxLayout;  // below the values
    status->setContentsMargins(id_->valueLeft(), 0, grid, 0);
    status->addWidget(badge_);
    status->addStretch(1);
    layout->addLayout(status);
}

void MenuPanelView::connectActions() {
    password_->onEdit = [this] { model_.actions.changePassword(); };
    password_->onMenu = [this](const QPoint& place) { openPasswordMenu(place); };
    viewer_->onDisconnect = [this] { model_.actions.disconnectViewer(); };
    server_->onClick = [this] {
        if (model_.state().serverRunning) return model_.actions.stopServer();
        model_.actions.startServer();
    };
    list_->onConnect = [this](const RemoteDevices::Device& device) { model_.actions.connect(device); };
    list_->onMenu = [this](const RemoteDevices::Device& device, const QPoint& place) {
        openDeviceMenu(device, place);
    };
    addDevice_->onClick = [this] { model_.actions.addDevice(); };
}

void MenuPanelView::show(const MenuModel::State& state) {
    badge_->setStatus(state.idStatus);
    viewer_->setVisible(state.connectedViewer.has_value());
    viewer_->setViewer(state.connectedViewer.value_or(""));
    server_->setContent({.icon = state.serverRunning ? Glyph::square : Glyph::play,
                         .title = state.serverRunning ? "Stop Server" : "Start Server"});
    showNote();
}

void MenuPanelView::showIdentity() {
    id_->setValue(HostIdentity::grouped(identity_.id()), identity_.id());
    switch (identity_.state()) {
        case HostIdentity::State::loading:
            password_->setMissing(QStringLiteral("Loading…"), StatusColor::quiet);
            break;
        case HostIdentity::State::unavailable:
            password_->setMissing(QStringLiteral("Not available"), StatusColor::busy);
            break;
        case HostIdentity::State::ready:
            password_->setValue(HostIdentity::grouped(identity_.password()), identity_.password());
            break;
    }
    showNote();
}

/// The first thing that keeps viewers away.
void MenuPanelView::showNote() {
    const MenuModel::State& state = model_.state();
    std::string note;
    if (identity_.state() == HostIdentity::State::unavailable) {
        note = "The password store doesn't answer. Unlock your keyring to let viewers in.";
    } else if (const auto server = serverNote(state)) {
        note = *server;
    } else if (state.idStatus.kind == HostSignaling::Status::Kind::offline) {
        note = state.idStatus.reason;
    }
    note_->setText(Style::line(note));
    note_->setVisible(!note.empty());
    if (const auto tell = onContent) tell();
}

void MenuPanelView::showDevices() {
    list_->setDevices(devices_.devices());
    const auto rows = list_->rows();
    setTabOrder(rows.empty() ? server_ : rows.back(), addDevice_);
    const QWidget* keyboard = window()->focusWidget();
    if (keyboard && list_->isAncestorOf(keyboard) && rows.empty()) addDevice_->setFocus(Qt::OtherFocusReason);
    if (const auto tell = onContent) tell();
}

void MenuPanelView::openPasswordMenu(const QPoint& place) {
    auto* menu = new QMenu(this);
    menu->addAction(QStringLiteral("Change Password…"), this, [this] { model_.actions.changePassword(); });
    menu->addAction(QStringLiteral("Generate New Password"), this, [this] { model_.actions.newPassword(); });
    popUp(menu, place);
}

void MenuPanelView::openDeviceMenu(const RemoteDevices::Device& device, const QPoint& place) {
    auto* menu = new QMenu(this);
    menu->addAction(QStringLiteral("Connect"), this, [this, device] { model_.actions.connect(device); });
    if (device.isSaved)
        menu->addAction(QStringLiteral("Remove"), this,
                        [this, device] { model_.actions.removeDevice(device); });
    popUp(menu, place);
}

void MenuPanelView::popUp(QMenu* menu, const QPoint& place) {
    menu->setAttribute(Qt::WA_DeleteOnClose);
    connect(menu, &QMenu::aboutToHide, this, [this] {
        if (const auto tell = onMenuClosed) tell();
    });
    menu->popup(place);
}

QSize MenuPanelView::fittingSize(int tallest) {
    const int row = Style::rowHeight(font());
    content_->ensurePolished();
    const int width = std::clamp(content_->minimumSizeHint().width(), usualWidth, greatestWidth);
    list_->setHeightLimit(mostRows * row + row / 2);
    const int whole = contentHeight(width);
    if (whole <= tallest) return {width, whole};
    const int others = whole - list_->sizeHint().height();
    list_->setHeightLimit(std::max(tallest - others, list_->minimumSizeHint().height()));
    return {width, std::min(contentHeight(width), tallest)};
}

int MenuPanelView::contentHeight(int width) const {
    auto* layout = content_->layout();
    layout->invalidate();
    layout->activate();
    return layout->hasHeightForWidth() ? layout->totalHeightForWidth(width)
                                       : layout->totalSizeHint().height();
}

void MenuPanelView::reset() {
    scroll_->verticalScrollBar()->setValue(0);
    list_->verticalScrollBar()->setValue(0);
    setFocus(Qt::PopupFocusReason);
}

void MenuPanelView::hideEvent(QHideEvent* event) {
    // Qt forgets to say that the pointer has gone from what is hidden under it.
    for (auto* button : findChildren<QAbstractButton*>()) button->setAttribute(Qt::WA_UnderMouse, false);
    for (auto* menu : findChildren<QMenu*>()) menu->close();
    QWidget::hideEvent(event);
}

void MenuPanelView::keyPressEvent(QKeyEvent* event) {
    switch (event->key()) {
        case Qt::Key_Down:
            focusNextChild();
            break;
        case Qt::Key_Up:
            focusPreviousChild();
            break;
        default:
            QWidget::keyPressEvent(event);
    }
}

}  // namespace velmora
