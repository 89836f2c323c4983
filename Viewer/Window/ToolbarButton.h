#pragma once

#include <QAbstractButton>
#include <QPainter>
#include <functional>

namespace velmora {

/// The signs on buttons, drawn by one hand: lines of one width on a field of 20 by 20 points.
enum class Symbol { none, zoomOut, zoomIn, camera, chart, log, enterFullScreen, leaveFullScreen };
void drawSymbol(QPainter& painter, Symbol symbol, const QRectF& field, const QColor& color);

/// A button of a toolbar: a sign, or words with a mark that a menu opens below them. `label` is what screen
/// readers say.
class ToolbarButton final : public QAbstractButton {
public:
    ToolbarButton(Symbol symbol, const QString& label, const QString& toolTip, QWidget* parent);

    void setSymbol(Symbol symbol);
    /// Its words, cut where they become too long or the bar too short; then it has no sign.
    void setWords(const QString& words);
    /// Shown as pressed while its menu is open.
    void setMenuOpen(bool open);

    static constexpr int side = 32;
    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    bool event(QEvent* event) override;

private:
    Symbol symbol_;
    bool isMenuOpen_ = false;
};

}  // namespace velmora
