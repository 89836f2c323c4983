#pragma once

#include <QColor>
#include <QFont>
#include <QPalette>
#include <QString>
#include <string_view>

#include "Viewer/Window/Appearance.h"

class QPainter;
class QRectF;

namespace velmora {

/// The application's windows in measures, colours and signs beyond what Appearance gives to every widget. On
/// the main thread, once there is a QApplication.
namespace Style {

using Appearance::grid;
inline constexpr int margin = 2 * grid;  // between a window's edge and what stands in it
inline constexpr int signSide = 20;      // of a glyph
inline constexpr double cardRadius = 8, rowRadius = 6;
/// Tall enough to be hit, and for the words whatever their font.
int rowHeight(const QFont& font);

/// The application's font, `factor` as large.
QFont font(double factor, QFont::Weight weight = QFont::Normal);

/// Each reads as text (4.5 to 1 at least) on the window's ground, also under the pointer, and on a card.
QColor faintInk(const QPalette& palette);
QColor inkOf(Appearance::StatusColor color, const QPalette& palette);

/// A card lies on the window and holds what belongs together.
QColor cardGround(const QPalette& palette);
void drawCard(QPainter& painter, const QRectF& area, const QPalette& palette);
/// Behind what the pointer is on, and behind what is held down; both let the ground shine through.
QColor hoverGround(const QPalette& palette);
QColor pressedGround(const QPalette& palette);
/// Around what has the keyboard; within `area`.
void drawFocusRing(QPainter& painter, const QRectF& area, double radius, const QPalette& palette);

/// Drawn by one hand: lines of one width on a field of 20 by 20 points.
enum class Glyph {
    none,
    allInOne,
    cast,
    checkmark,
    closedEye,
    copy,
    display,
    eye,
    help,
    laptop,
    mini,
    pencil,
    play,
    plus,
    power,
    square,
    studio,
    tower,
};
void drawGlyph(QPainter& painter, Glyph glyph, const QRectF& field, const QColor& color);

/// Words that somebody else wrote, for a label or a row: one line, without control characters.
QString line(std::string_view text);
/// The same for a tool tip, which breaks long words into lines and takes nothing for markup.
QString toolTip(std::string_view text);

}  // namespace Style
}  // namespace velmora
