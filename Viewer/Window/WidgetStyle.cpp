#include "Viewer/Window/WidgetStyle.h"

#include <QLineEdit>
#include <QPainter>
#include <QPushButton>
#include <QStyleOption>
#include <algorithm>
#include <cstdint>

#include "Viewer/Window/Appearance.h"

namespace velmora {

namespace {

using Appearance::grid;

constexpr double cornerRadius = 6;
constexpr int leastControlHeight = 4 * grid, fieldPadding = 5;
constexpr int barWidth = 8, leastSliderLength = 4 * grid;

QColor shade(QColor color, float alpha) {
    color.setAlphaF(alpha);
    return color;
}

/// A line field in a frame of its own, not within another control.
bool isField(const QWidget* widget) {
    const auto* const field = qobject_cast<const QLineEdit*>(widget);
    return field && field->hasFrame();
}

bool isFilled(const QStyleOptionButton& button) {
    return button.features.testFlag(QStyleOptionButton::DefaultButton) &&
           button.state.testFlag(QStyle::State_Enabled);
}

void drawButton(const QStyleOptionButton& button, QPainter& painter) {
    const QPalette& colors = button.palette;
    const bool filled = isFilled(button), enabled = button.state.testFlag(QStyle::State_Enabled);
    const QRectF area = QRectF(button.rect).adjusted(0.5, 0.5, -0.5, -0.5);
    const QColor ink = colors.color(filled ? QPalette::HighlightedText : QPalette::ButtonText);
    painter.setPen(filled ? QPen(Qt::NoPen) : QPen(shade(ink, enabled ? 0.25F : 0.12F), 1));
    painter.setBrush(filled    ? colors.color(QPalette::Highlight)
                     : enabled ? colors.color(QPalette::Button)
                               : QColor(Qt::transparent));
    painter.drawRoundedRect(area, cornerRadius, cornerRadius);
    const bool isPressed =
        button.state.testFlag(QStyle::State_Sunken) || button.state.testFlag(QStyle::State_On);
    if (enabled && (isPressed || button.state.testFlag(QStyle::State_MouseOver))) {
        painter.setPen(Qt::NoPen);
        painter.setBrush(shade(ink, isPressed ? 0.18F : 0.08F));
        painter.drawRoundedRect(area, cornerRadius, cornerRadius);
    }
    if (!button.state.testFlag(QStyle::State_HasFocus)) return;
    painter.setBrush(Qt::NoBrush);
    painter.setPen(QPen(filled ? ink : colors.color(QPalette::Highlight), filled ? 1.5 : 2));
    const double inset = filled ? 2.5 : 0.5;
    painter.drawRoundedRect(area.adjusted(inset, inset, -inset, -inset), cornerRadius - inset,
                            cornerRadius - inset);
}

void drawField(const QStyleOption& field, QPainter& painter) {
    const QPalette& colors = field.palette;
    const bool focused = field.state.testFlag(QStyle::State_HasFocus);
    painter.setPen(focused ? QPen(colors.color(QPalette::Highlight), 2)
                           : QPen(shade(colors.color(QPalette::Text), 0.5F), 1));
    const bool enabled = field.state.testFlag(QStyle::State_Enabled);
    painter.setBrush(colors.color(enabled ? QPalette::Base : QPalette::Window));
    const double inset = focused ? 1 : 0.5;
    painter.drawRoundedRect(QRectF(field.rect).adjusted(inset, inset, -inset, -inset), cornerRadius,
                            cornerRadius);
}

/// Fusion's can hardly be told from a dark window below it.
void drawMenuPanel(const QStyleOption& menu, QPainter& painter) {
    painter.setRenderHint(QPainter::Antialiasing, false);
    painter.setPen(shade(menu.palette.color(QPalette::WindowText), 0.25F));
    painter.setBrush(menu.palette.button());
    painter.drawRect(menu.rect.adjusted(0, 0, -1, -1));
}

void drawSlider(const QStyleOptionSlider& bar, const QRect& slider, QPainter& painter) {
    const bool isBusy =
        bar.state.testFlag(QStyle::State_Sunken) || bar.state.testFlag(QStyle::State_MouseOver);
    painter.setPen(Qt::NoPen);
    painter.setBrush(shade(bar.palette.color(QPalette::WindowText), isBusy ? 0.55F : 0.35F));
    painter.drawRoundedRect(QRectF(slider).adjusted(2, 2, -2, -2), barWidth / 2.0 - 2, barWidth / 2.0 - 2);
}

/// Draws with edges smoothed, and leaves the painter as it was.
template <class F>
void paint(QPainter& painter, F draw) {
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    draw();
    painter.restore();
}

}  // namespace

WidgetStyle::WidgetStyle() : QProxyStyle(QStringLiteral("Fusion")) {}

int WidgetStyle::styleHint(StyleHint hint, const QStyleOption* option, const QWidget* widget,
                           QStyleHintReturn* result) const {
    if (hint == SH_DialogButtonBox_ButtonsHaveIcons) return 0;
    if (hint == SH_Menu_Scrollable) return 1;  // rather than columns all over the screen
    return QProxyStyle::styleHint(hint, option, widget, result);
}

// Measures

int WidgetStyle::pixelMetric(PixelMetric metric, const QStyleOption* option, const QWidget* widget) const {
    switch (metric) {
        case PM_MenuBarHMargin:
            return grid / 2;
        case PM_MenuBarVMargin:
            return grid / 4;
        case PM_ScrollBarExtent:
            return barWidth;
        default:
            return QProxyStyle::pixelMetric(metric, option, widget);
    }
}

QSize WidgetStyle::sizeFromContents(ContentsType type, const QStyleOption* option, const QSize& contents,
                                    const QWidget* widget) const {
    QSize size = QProxyStyle::sizeFromContents(type, option, contents, widget);
    if (type == CT_PushButton) size.setWidth(std::max(size.width(), contents.width() + 4 * grid));
    if (type == CT_PushButton || (type == CT_LineEdit && isField(widget)))
        size.setHeight(
            std::max({size.height(), leastControlHeight, option->fontMetrics.height() + 2 * grid}));
    return size;
}

QRect WidgetStyle::subElementRect(SubElement element, const QStyleOption* option,
                                  const QWidget* widget) const {
    const QRect area = QProxyStyle::subElementRect(element, option, widget);
    if (element != SE_LineEditContents || !isField(widget)) return area;
    return area.adjusted(fieldPadding, 0, -fieldPadding, 0);
}

QRect WidgetStyle::subControlRect(ComplexControl control, const QStyleOptionComplex* option, SubControl part,
                                  const QWidget* widget) const {
    const auto* const bar = qstyleoption_cast<const QStyleOptionSlider*>(option);
    if (control != CC_ScrollBar || !bar) return QProxyStyle::subControlRect(control, option, part, widget);
    return partOfBar(*bar, part);
}

QRect WidgetStyle::partOfBar(const QStyleOptionSlider& bar, SubControl part) {
    const bool isFlat = bar.orientation == Qt::Horizontal;
    const int all = isFlat ? bar.rect.width() : bar.rect.height();
    const auto span = static_cast<std::int64_t>(bar.maximum) - bar.minimum + bar.pageStep;
    const int wanted = span > 0 ? static_cast<int>(std::int64_t{all} * bar.pageStep / span) : all;
    const int length = std::min(std::max(wanted, leastSliderLength), all);
    const int start =
        sliderPositionFromValue(bar.minimum, bar.maximum, bar.sliderPosition, all - length, bar.upsideDown);
    const auto piece = [&](int from, int to) {
        return isFlat ? QRect(bar.rect.x() + from, bar.rect.y(), to - from, bar.rect.height())
                      : QRect(bar.rect.x(), bar.rect.y() + from, bar.rect.width(), to - from);
    };
    switch (part) {
        case SC_ScrollBarGroove:
            return bar.rect;
        case SC_ScrollBarSlider:
            return piece(start, start + length);
        case SC_ScrollBarSubPage:
            return piece(0, start);
        case SC_ScrollBarAddPage:
            return piece(start + length, all);
        default:  // it has no arrows
            return {};
    }
}

// Drawing

void WidgetStyle::drawPrimitive(PrimitiveElement element, const QStyleOption* option, QPainter* painter,
                                const QWidget* widget) const {
    const auto* const button = qstyleoption_cast<const QStyleOptionButton*>(option);
    if (element == PE_PanelButtonCommand && button)
        return paint(*painter, [&] { drawButton(*button, *painter); });
    if (element == PE_PanelLineEdit && isField(widget))
        return paint(*painter, [&] { drawField(*option, *painter); });
    if (element == PE_PanelMenu) return paint(*painter, [&] { drawMenuPanel(*option, *painter); });
    if (element == PE_FrameFocusRect && qobject_cast<const QPushButton*>(widget))
        return;  // its panel shows it
    QProxyStyle::drawPrimitive(element, option, painter, widget);
}

void WidgetStyle::drawControl(ControlElement element, const QStyleOption* option, QPainter* painter,
                              const QWidget* widget) const {
    const auto* const button = qstyleoption_cast<const QStyleOptionButton*>(option);
    if (element != CE_PushButtonLabel || !button || !isFilled(*button))
        return QProxyStyle::drawControl(element, option, painter, widget);
    QStyleOptionButton filled = *button;
    filled.palette.setColor(QPalette::ButtonText, filled.palette.color(QPalette::HighlightedText));
    QProxyStyle::drawControl(element, &filled, painter, widget);
}

void WidgetStyle::drawComplexControl(ComplexControl control, const QStyleOptionComplex* option,
                                     QPainter* painter, const QWidget* widget) const {
    const auto* const bar = qstyleoption_cast<const QStyleOptionSlider*>(option);
    if (control != CC_ScrollBar || !bar)
        return QProxyStyle::drawComplexControl(control, option, painter, widget);
    if (bar->maximum <= bar->minimum) return;
    paint(*painter, [&] { drawSlider(*bar, partOfBar(*bar, SC_ScrollBarSlider), *painter); });
}

}  // namespace velmora
