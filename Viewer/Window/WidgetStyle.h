#pragma once

#include <QProxyStyle>

class QStyleOptionButton;
class QStyleOptionSlider;

namespace velmora {

/// How controls are drawn: Qt's Fusion, with push buttons and line fields of one rounded shape, a ring around
/// what has the keyboard, and the button that Return presses filled. Scroll bars are thin and without arrows,
/// menus raised areas with an edge, buttons without signs.
class WidgetStyle final : public QProxyStyle {
public:
    WidgetStyle();

    int styleHint(StyleHint hint, const QStyleOption* option, const QWidget* widget,
                  QStyleHintReturn* result) const override;
    int pixelMetric(PixelMetric metric, const QStyleOption* option, const QWidget* widget) const override;
    QSize sizeFromContents(ContentsType type, const QStyleOption* option, const QSize& contents,
                           const QWidget* widget) const override;
    QRect subElementRect(SubElement element, const QStyleOption* option,
                         const QWidget* widget) const override;
    QRect subControlRect(ComplexControl control, const QStyleOptionComplex* option, SubControl part,
                         const QWidget* widget) const override;
    void drawPrimitive(PrimitiveElement element, const QStyleOption* option, QPainter* painter,
                       const QWidget* widget) const override;
    void drawControl(ControlElement element, const QStyleOption* option, QPainter* painter,
                     const QWidget* widget) const override;
    void drawComplexControl(ComplexControl control, const QStyleOptionComplex* option, QPainter* painter,
                            const QWidget* widget) const override;

private:
    static QRect partOfBar(const QStyleOptionSlider& bar, SubControl part);
};

}  // namespace velmora
