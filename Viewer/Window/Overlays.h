#pragma once

#include <QImage>
#include <QTimer>
#include <QWidget>
#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// Covers the picture while there is none to be seen: the host's last one, blurred and dark, and what is
/// being waited for. On the main queue.
class ConnectingOverlay final : public QWidget {
public:
    explicit ConnectingOverlay(QWidget* parent);

    /// What shines through; none: plain dark glass.
    void setSnapshot(const QImage& snapshot);
    void setWords(const QString& words);
    const QString& words() const { return words_; }

protected:
    void paintEvent(QPaintEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    void drawSpinner(QPainter& painter, const QRectF& field) const;

    QImage snapshot_;  // blurred, and small
    QString words_;
    QTimer turn_;  // while shown
    int step_ = 0;
};

/// The figures of the stream over its picture.
class StatsOverlayView final : public QWidget {
public:
    explicit StatsOverlayView(QWidget* parent);
    void setText(const QString& text);
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QString text_;
};

/// Says for some seconds where something was saved; a click shows the file.
class CaptureToast final : public QWidget {
public:
    CaptureToast(Queue& main, QWidget* parent);

    /// Not null.
    std::function<void(const std::filesystem::path&)> reveal;
    void showSaved(const QString& words, std::filesystem::path file);
    /// Back to its place, after its parent has another size.
    void place();

    static constexpr std::chrono::milliseconds shown{4000};

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;

private:
    QSize wantedSize() const;

    Queue& main_;
    QString words_;
    std::filesystem::path file_;
    TimerToken hideTimer_;  // while shown
};

/// The image as if seen through thick glass, much smaller than it is: it is drawn large again.
QImage blurred(const QImage& image);

}  // namespace velmora
