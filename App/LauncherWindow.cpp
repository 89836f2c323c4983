#include "App/LauncherWindow.h"

#include <fmt/format.h>

#include <QGuiApplication>
#include <QPainter>
#include <QScreen>
#include <QWidget>
#include <algorithm>

#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {

/// What is seen of it.
class LauncherWindow::Panel final : public QWidget {
public:
    Panel()
        : QWidget(nullptr, Qt::Tool | Qt::FramelessWindowHint | Qt::X11BypassWindowManagerHint |
                               Qt::WindowStaysOnTopHint | Qt::WindowDoesNotAcceptFocus) {
        setAttribute(Qt::WA_ShowWithoutActivating);
        setAttribute(Qt::WA_OpaquePaintEvent);
        QFont large = font();
        large.setPixelSize(height_ * 2 / 5);
        setFont(large);
    }

    void present(const QString& text, bool isComplaint) {
        text_ = text;
        isComplaint_ = isComplaint;
        setWindowTitle(text);  // for who reads the screen aloud
        if (!isVisible()) QWidget::show();
        raise();
        update();
    }
    void moveTo(const PixelRect& display) {
        const QRect area = areaOf(display);
        const int width = std::min(width_, area.width() - 2 * margin_);
        setGeometry(area.x() + (area.width() - width) / 2, area.y() + area.height() / 5, width, height_);
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.fillRect(rect(), QColor(38, 40, 46));
        painter.setPen(QColor(120, 124, 134));
        painter.drawRect(rect().adjusted(0, 0, -1, -1));
        const QRect field = rect().adjusted(margin_, 0, -margin_, 0);
        const bool isEmpty = text_.isEmpty();
        const QString shown =
            isEmpty ? QStringLiteral("A name, a path or an address")
                    : fontMetrics().elidedText(text_, isComplaint_ ? Qt::ElideRight : Qt::ElideLeft,
                                               field.width() - caret_ * 2);
        painter.setPen(isEmpty || isComplaint_ ? QColor(150, 154, 164) : QColor(240, 240, 240));
        painter.drawText(field, Qt::AlignVCenter | Qt::AlignLeft, shown);
        if (isComplaint_) return;
        const int end = isEmpty ? 0 : fontMetrics().horizontalAdvance(shown) + caret_;
        painter.fillRect(field.x() + end, height() / 4, caret_, height() / 2, QColor(240, 240, 240));
    }

private:
    /// Our coordinates count from a screen's true corner; only its size is scaled.
    static QRect areaOf(const PixelRect& display) {
        for (const QScreen* screen : QGuiApplication::screens())
            if (screen->geometry().topLeft() == QPoint(display.x, display.y) && !display.isEmpty())
                return screen->geometry();
        const QScreen* main = QGuiApplication::primaryScreen();
        return main ? main->geometry() : QRect(0, 0, width_, height_);
    }

    static constexpr int width_ = 640, height_ = 60, margin_ = 18, caret_ = 2;
    QString text_;
    bool isComplaint_ = false;
};

LauncherWindow::LauncherWindow(Queue& main, Queue& worker, Opener open, const Parameters& parameters)
    : main_(main),
      worker_(worker),
      open_(std::move(open)),
      parameters_(parameters),
      panel_(std::make_unique<Panel>()) {}

LauncherWindow::~LauncherWindow() = default;

void LauncherWindow::show(const std::string& text, const PixelRect& display) {
    main_.post(liveness_.guard([this, text, display] {
        ++generation_;
        complaintEnd_.reset();
        panel_->moveTo(display);
        panel_->present(QString::fromStdString(text), false);
    }));
}

void LauncherWindow::hide() {
    main_.post(liveness_.guard([this] {
        ++generation_;
        complaintEnd_.reset();
        panel_->QWidget::hide();
    }));
}

void LauncherWindow::open(const std::string& text) {
    main_.post(liveness_.guard([this, text] {
        const int generation = ++generation_;
        panel_->QWidget::hide();
        auto complain = liveness_.guard([this, generation](const std::string& words) {
            if (generation == generation_) this->complain(words);
        });
        worker_.post([&main = main_, open = open_, text, complain = std::move(complain)]() mutable {
            const auto opened = open(text);
            if (opened)
                return hostLog(fmt::format("The launcher started {}", opened->substr(0, opened->find(' '))));
            hostLog("⚠︎ The launcher opened nothing");
            main.post(
                [complain = std::move(complain), words = opened.error().text]() mutable { complain(words); });
        });
    }));
}

void LauncherWindow::complain(const std::string& words) {
    const int generation = ++generation_;
    panel_->present(QString::fromStdString(words), true);
    complaintEnd_ = main_.after(parameters_.complaintTime, [this, generation] {
        if (generation == generation_) panel_->QWidget::hide();
    });
}

}  // namespace velmora
