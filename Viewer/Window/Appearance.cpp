#include "Viewer/Window/Appearance.h"

#include <QApplication>
#include <QPalette>
#include <QWidget>

#include "Viewer/Window/WidgetStyle.h"

namespace velmora::Appearance {

namespace {

bool isDark(const QPalette& palette) {
    return palette.color(QPalette::Window).lightness() < 128;
}

// Text on its background has a contrast of at least 4.5 to 1 in both.
QPalette palette(bool dark) {
    struct Shades {
        QRgb window, base, alternate, button, text, faint, highlight, highlighted, link, tip, tipText;
    };
    const Shades light{0xF4F5F7, 0xFFFFFF, 0xF0F1F4, 0xFFFFFF, 0x1C1D21, 0x64676E,
                       0x0B63CE, 0xFFFFFF, 0x0B57B5, 0x2A2C31, 0xF5F6F8};
    const Shades night{0x2A2C30, 0x1E2023, 0x25272B, 0x3A3D42, 0xF2F3F5, 0xA3A7AE,
                       0x5AA2FF, 0x0C1522, 0x7DB6FF, 0x44474D, 0xF5F6F8};
    const Shades& s = dark ? night : light;
    const auto color = [](QRgb rgb) { return QColor::fromRgb(rgb); };
    QPalette p(color(s.button), color(s.window));
    p.setColor(QPalette::Window, color(s.window));
    p.setColor(QPalette::WindowText, color(s.text));
    p.setColor(QPalette::Base, color(s.base));
    p.setColor(QPalette::AlternateBase, color(s.alternate));
    p.setColor(QPalette::Text, color(s.text));
    p.setColor(QPalette::Button, color(s.button));
    p.setColor(QPalette::ButtonText, color(s.text));
    p.setColor(QPalette::BrightText, Qt::white);
    p.setColor(QPalette::PlaceholderText, color(s.faint));
    p.setColor(QPalette::Highlight, color(s.highlight));
    p.setColor(QPalette::HighlightedText, color(s.highlighted));
    p.setColor(QPalette::Link, color(s.link));
    p.setColor(QPalette::ToolTipBase, color(s.tip));
    p.setColor(QPalette::ToolTipText, color(s.tipText));
    for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        p.setColor(QPalette::Disabled, role, color(s.faint));
    return p;
}

}  // namespace

void apply(Theme theme) {
    static const bool desktopIsDark = isDark(QApplication::palette());
    static const bool isStyled = (QApplication::setStyle(new WidgetStyle), true);
    if (!isStyled) return;
    QApplication::setPalette(palette(theme == Theme::dark || (theme == Theme::automatic && desktopIsDark)));
}

QColor colorOf(StatusColor color) {
    switch (color) {
        case StatusColor::quiet:
            return {0x8E, 0x91, 0x98};
        case StatusColor::busy:
            return {0xF0, 0x8C, 0x1A};
        case StatusColor::good:
            return {0x2F, 0xB3, 0x55};
        case StatusColor::bad:
            return {0xE0, 0x3E, 0x3A};
    }
    return {};
}

QColor hairlineOf(const QWidget& widget) {
    QColor line = widget.palette().color(QPalette::WindowText);
    line.setAlphaF(0.15F);
    return line;
}

}  // namespace velmora::Appearance
