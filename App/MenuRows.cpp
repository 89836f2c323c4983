#include "App/MenuRows.h"

#include <QApplication>
#include <QClipboard>
#include <QContextMenuEvent>
#include <QHBoxLayout>
#include <QHelpEvent>
#include <QPainter>
#include <QToolTip>
#include <algorithm>
#include <utility>

namespace velmora {

using Appearance::StatusColor;
using Style::grid;

namespace {

constexpr int padding = 10;    // within a row, at both ends
constexpr int signGap = 10;    // between sign and title
constexpr double dotSide = 8;  // of a dot
constexpr int leastTitle = 8;  // characters of a name that are always seen

void drawDot(QPainter& painter, const QPointF& centre, StatusColor color) {
    painter.setPen(Qt::NoPen);
    painter.setBrush(Appearance::colorOf(color));
    painter.drawEllipse(centre, dotSide / 2, dotSide / 2);
}

/// Where a menu belongs that was asked for by `event`: at the pointer, or below what has the keyboard.
QPoint menuPlace(const QContextMenuEvent& event, const QWidget& row) {
    if (event.reason() != QContextMenuEvent::Keyboard) return event.globalPos();
    return row.mapToGlobal(QPoint(padding, row.height()));
}

}  // namespace

MenuRow::MenuRow(Content content, QWidget* parent) : PlainButton({}, parent) {
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    setContent(std::move(content));
}

void MenuRow::setContent(Content content) {
    content_ = std::move(content);
    title_ = Style::line(content_.title);
    detail_ = Style::line(content_.detail);
    setAccessibleName(title_);
    QString state = detail_;
    if (content_.dot && state.isEmpty())
        state = *content_.dot == StatusColor::good ? QStringLiteral("Online") : QStringLiteral("Offline");
    setAccessibleDescription(state);
    setEnabled(content_.enabled);
    updateGeometry();
    update();
}

int MenuRow::widthBesideTitle() const {
    int width = 2 * padding;
    if (content_.icon != Style::Glyph::none) width += Style::signSide + signGap;
    if (!detail_.isEmpty()) width += grid + fontMetrics().horizontalAdvance(detail_);
    if (content_.dot) width += grid + static_cast<int>(dotSide);
    return width;
}

QRect MenuRow::titleArea() const {
    const int left = padding + (content_.icon == Style::Glyph::none ? 0 : Style::signSide + signGap);
    return {left, 0, width() - widthBesideTitle(), height()};
}

QSize MenuRow::sizeHint() const {
    return {widthBesideTitle() + fontMetrics().horizontalAdvance(title_) + 1, Style::rowHeight(font())};
}

QSize MenuRow::minimumSizeHint() const {
    if (!content_.mayBeCut) return sizeHint();
    return {widthBesideTitle() + leastTitle * fontMetrics().averageCharWidth(), Style::rowHeight(font())};
}

bool MenuRow::event(QEvent* event) {
    if (event->type() == QEvent::ToolTip) {
        const bool isCut = fontMetrics().horizontalAdvance(title_) > titleArea().width();
        const auto* help = static_cast<QHelpEvent*>(event);
        if (isCut) {
            QToolTip::showText(help->globalPos(), Style::toolTip(content_.title), this);
        } else {
            QToolTip::hideText();
        }
        return true;
    }
    return PlainButton::event(event);
}

void MenuRow::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    drawGround(painter, rect(), Style::rowRadius);
    const QColor ink = isEnabled() && !content_.dimmed
                           ? palette().color(QPalette::Active, QPalette::WindowText)
                           : Style::faintInk(palette());
    if (content_.icon != Style::Glyph::none) {
        const QRectF field(padding, (height() - Style::signSide) / 2.0, Style::signSide, Style::signSide);
        Style::drawGlyph(painter, content_.icon, field, ink);
    }
    const QRect area = titleArea();
    painter.setPen(ink);
    painter.drawText(area, Qt::AlignVCenter | Qt::AlignLeft | Qt::TextSingleLine,
                     fontMetrics().elidedText(title_, Qt::ElideRight, area.width()));
    int right = width() - padding;
    if (content_.dot) {
        drawDot(painter, {right - dotSide / 2, height() / 2.0}, *content_.dot);
        right -= static_cast<int>(dotSide) + grid;
    }
    painter.setPen(Style::faintInk(palette()));
    painter.drawText(QRect(area.right(), 0, right - area.right(), height()),
                     Qt::AlignVCenter | Qt::AlignRight | Qt::TextSingleLine, detail_);
}

void MenuRow::contextMenuEvent(QContextMenuEvent* event) {
    if (!onMenu) return event->ignore();
    onMenu(menuPlace(*event, *this));
}

CopyRow::CopyRow(const QString& what, const QString& edit, Queue& main, QWidget* parent)
    : QWidget(parent),
      main_(main),
      label_(new QLabel(what + QStringLiteral(":"), this)),
      value_(new InkLabel(this)),
      edit_(edit.isEmpty() ? nullptr : new GlyphButton(Style::Glyph::pencil, edit, edit, this)),
      copy_(new GlyphButton(Style::Glyph::copy, QStringLiteral("Copy %1").arg(what), QStringLiteral("Copy"),
                            this)) {
    label_->setForegroundRole(QPalette::PlaceholderText);
    value_->setAccessibleDescription(what);
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(padding, grid / 2, grid / 2, grid / 2);
    layout->setSpacing(0);
    layout->addWidget(label_);
    layout->addSpacing(grid);
    layout->addWidget(value_, 1);
    if (edit_) layout->addWidget(edit_);
    layout->addWidget(copy_);
    copy_->onClick = [this] { copy(); };
    if (!edit_) return;
    edit_->onClick = [this] {
        if (const auto act = onEdit) act();
    };
}

void CopyRow::setValue(const std::string& shown, const std::string& copied) {
    if (copied != copied_) mark(false);
    copied_ = copied;
    isMissing_ = false;
    present(Style::line(shown), std::nullopt);
}

void CopyRow::setMissing(const QString& words, StatusColor ink) {
    mark(false);
    copied_.clear();
    isMissing_ = true;
    present(words, ink);
}

void CopyRow::present(const QString& text, std::optional<StatusColor> ink) {
    value_->setText(text);
    value_->setInk(ink);
    value_->setFont(isMissing_ ? Style::font(1) : Style::font(1.3, QFont::DemiBold));
    copy_->setEnabled(!isMissing_);
    if (edit_) edit_->setEnabled(!isMissing_);
}

int CopyRow::valueLeft() const {
    return padding + label_->width() + grid;
}

void CopyRow::copy() {
    if (isMissing_) return;
    QApplication::clipboard()->setText(QString::fromStdString(copied_));
    mark(true);
    markEnd_ = main_.after(markTime, [this] { mark(false); });
}

void CopyRow::mark(bool copied) {
    if (!copied) markEnd_.reset();
    copy_->setGlyph(copied ? Style::Glyph::checkmark : Style::Glyph::copy);
    copy_->setInk(copied ? std::optional(StatusColor::good) : std::nullopt);
    copy_->setAccessibleDescription(copied ? QStringLiteral("Copied") : QStringLiteral("Copy"));
}

void CopyRow::contextMenuEvent(QContextMenuEvent* event) {
    if (!onMenu || isMissing_) return event->ignore();
    onMenu(menuPlace(*event, *this));
}

SectionHeader::SectionHeader(const QString& title, QWidget* parent) : QLabel(title, parent) {
    setFont(Style::font(0.9, QFont::DemiBold));
    setForegroundRole(QPalette::PlaceholderText);
    setContentsMargins(padding, grid / 2, padding, grid / 2);
}

PanelDivider::PanelDivider(QWidget* parent) : QWidget(parent) {
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

QSize PanelDivider::sizeHint() const {
    return {0, grid + 1};
}

void PanelDivider::paintEvent(QPaintEvent*) {
    QPainter(this).fillRect(padding, grid / 2, width() - 2 * padding, 1, Appearance::hairlineOf(*this));
}

IDStatusBadge::IDStatusBadge(QWidget* parent) : InkLabel(parent) {
    setContentsMargins(static_cast<int>(dotSide) + grid - 1, grid / 4, 0, grid / 2 + grid / 4);
    setSizePolicy(QSizePolicy::Maximum, QSizePolicy::Fixed);
    setVisible(false);
}

void IDStatusBadge::setStatus(const HostSignaling::Status& status) {
    using Kind = HostSignaling::Status::Kind;
    QString words;
    std::string help;
    std::optional<StatusColor> color;
    switch (status.kind) {
        case Kind::off:
            break;
        case Kind::connecting:
            words = QStringLiteral("Connecting…");
            help = "Registering this Mac's ID at Velmora Cloud";
            color = StatusColor::quiet;
            break;
        case Kind::online:
            words = QStringLiteral("Online");
            help = "Reachable from anywhere with this ID and password";
            color = StatusColor::good;
            break;
        case Kind::offline:
            words = QStringLiteral("Offline");
            help = status.reason;
            color = StatusColor::busy;
            break;
    }
    setText(words);
    setToolTip(Style::toolTip(help));
    setAccessibleDescription(Style::line(help));
    setVisible(color.has_value());
    setInk(color);
}

void IDStatusBadge::paintEvent(QPaintEvent* event) {
    InkLabel::paintEvent(event);
    if (!ink()) return;
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    drawDot(painter, {dotSide / 2, contentsRect().center().y() + 0.5}, *ink());
}

ViewerRow::ViewerRow(QWidget* parent)
    : QWidget(parent),
      disconnect_(
          new WordButton(QStringLiteral("Disconnect"), QStringLiteral("End this viewer's session"), this)) {
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    disconnect_->onClick = [this] {
        if (const auto act = onDisconnect) act();
    };
}

void ViewerRow::setViewer(const std::string& name) {
    name_ = Style::line(name);
    setAccessibleName(name_);
    setAccessibleDescription(QStringLiteral("Connected"));
    setToolTip(Style::toolTip(name));
    update();
}

QSize ViewerRow::sizeHint() const {
    const int words = leastTitle * fontMetrics().averageCharWidth();
    return {2 * padding + Style::signSide + signGap + words + grid + disconnect_->sizeHint().width(),
            fontMetrics().height() + QFontMetrics(Style::font(0.9)).height() + grid};
}

QRect ViewerRow::wordsArea() const {
    const int left = padding + Style::signSide + signGap;
    return {left, grid / 2, disconnect_->x() - grid - left, height() - grid};
}

bool ViewerRow::event(QEvent* event) {
    if (event->type() == QEvent::FontChange) updateGeometry();
    return QWidget::event(event);
}

void ViewerRow::resizeEvent(QResizeEvent*) {
    const QSize button = disconnect_->sizeHint();
    disconnect_->setGeometry(
        {{width() - padding - button.width(), (height() - button.height()) / 2}, button});
}

void ViewerRow::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    const QColor lively = Style::inkOf(StatusColor::good, palette());
    const QRectF field(padding, (height() - Style::signSide) / 2.0, Style::signSide, Style::signSide);
    Style::drawGlyph(painter, Style::Glyph::cast, field, lively);
    const QRect area = wordsArea();
    painter.setPen(palette().color(QPalette::Active, QPalette::WindowText));
    painter.drawText(area, Qt::AlignTop | Qt::AlignLeft | Qt::TextSingleLine,
                     fontMetrics().elidedText(name_, Qt::ElideRight, area.width()));
    painter.setFont(Style::font(0.9));
    painter.setPen(lively);
    painter.drawText(area, Qt::AlignBottom | Qt::AlignLeft | Qt::TextSingleLine, QStringLiteral("Connected"));
}

}  // namespace velmora
