#pragma once

#include <QWidget>

namespace velmora {

/// The program's sign in a window, with a mark at its corner when something is wrong.
class LogoView final : public QWidget {
public:
    enum class Badge { none, warning, critical };
    LogoView(int side, Badge badge, QWidget* parent);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    void drawBadge(QPainter& painter, const QRectF& field) const;

    const Badge badge_;
};

}  // namespace velmora
