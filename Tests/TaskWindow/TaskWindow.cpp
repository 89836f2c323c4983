// A window with something to do in it, which judges by itself whether it was done. It takes one JSON object
// to a line on standard input, and shows what it asks for:
//   {"show":"place","x":,"y":,"width":,"height":}      where the window is on the screen from now on
//   {"show":"target","x":,"y":,"size":,"button":,"count":}    something to click, in window pixels
//   {"show":"drag","x":,"y":,"toX":,"toY":,"size":}    something to drag to its frame
//   {"show":"list","line":}                            300 lines of 20 pixels, one of which is to be clicked
//   {"show":"field","text":,"start":,"select":}        something to write, perhaps by changing what is there
//   {"show":"shortcut","keys":"Ctrl+S"}                a shortcut to press
//   {"show":"menu","menu":,"item":}                    a menu's item to choose
//   {"show":"dialog","by":"click" or a key}            a dialog to open by its button, and to confirm
//   {"show":"motion","seconds":}                       movement that ends
//   {"show":"copy"}                                    a picture that it copies
//   {"show":"text"}                                    text of 8 pixels
//   {"ask":true}                                       how it stands
// What is to be acted on first is magenta, what comes after it orange, and all is green once it is done. It
// answers with one JSON object to a line: {"shown":}, {"right":true}, {"wrong":"why"},
// {"rested":microseconds}, {"holds":}.

#include <unistd.h>
#include <QApplication>
#include <QClipboard>
#include <QDialog>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QListWidget>
#include <QMainWindow>
#include <QMenuBar>
#include <QMouseEvent>
#include <QPainter>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QShortcut>
#include <QSocketNotifier>
#include <QTimer>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

namespace {

const QColor first(255, 0, 255), second(255, 128, 0), finished(0, 160, 60), paper(235, 235, 228);

void say(const QJsonObject& object) {
    std::puts(QJsonDocument(object).toJson(QJsonDocument::Compact).constData());
    std::fflush(stdout);
}

constexpr int lineHeight = 20;

QIcon swatch(const QColor& colour) {
    QPixmap pixmap(16, 16);
    pixmap.fill(colour);
    return pixmap;
}

/// Judges once, says so, and shows that it is done.
class Judge {
public:
    std::function<void()> onRight;
    void right() {
        if (std::exchange(isDone_, true)) return;
        if (onRight) onRight();
        say({{"right", true}});
    }
    void wrong(const QString& why) {
        if (!std::exchange(isDone_, true)) say({{"wrong", why}});
    }

private:
    bool isDone_ = false;
};

/// What is painted, and what the pointer does to it.
class Canvas final : public QWidget {
public:
    enum class Kind { target, drag, motion, text, done };
    Canvas(Kind kind, const QJsonObject& task, Judge& judge)
        : kind_(kind),
          task_(task),
          judge_(judge),
          thing_(number("x") - number("size") / 2, number("y") - number("size") / 2, number("size"),
                 number("size")) {
        setAttribute(Qt::WA_OpaquePaintEvent);
        judge_.onRight = [this] {
            kind_ = Kind::done;
            update();
        };
        if (kind == Kind::motion) startMotion();
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.fillRect(rect(), kind_ == Kind::done ? finished : paper);
        if (kind_ == Kind::target) painter.fillRect(thing_, first);
        if (kind_ == Kind::drag) {
            painter.setPen(QPen(Qt::black, 2));
            painter.drawRect(goal());
            painter.fillRect(thing_, first);
        }
        if (kind_ == Kind::motion)
            painter.fillRect(40 + static_cast<int>(clock_.elapsed() / 2) % 600, 100, 60, 200, Qt::darkBlue);
        if (kind_ == Kind::text) drawText(painter);
    }
    void mousePressEvent(QMouseEvent* event) override {
        if (kind_ == Kind::drag && thing_.contains(event->pos())) grip_ = event->pos() - thing_.topLeft();
        if (kind_ == Kind::target) takeClick(*event, 1);
    }
    void mouseDoubleClickEvent(QMouseEvent* event) override {
        if (kind_ == Kind::target) takeClick(*event, 2);
    }
    void mouseMoveEvent(QMouseEvent* event) override {
        if (!grip_) return;
        thing_.moveTopLeft(event->pos() - *grip_);
        update();
    }
    void mouseReleaseEvent(QMouseEvent* event) override {
        if (kind_ != Kind::drag) return;
        if (!grip_) return judge_.wrong("it was not taken up");
        thing_.moveTopLeft(event->pos() - *grip_);
        update();
        const QPoint off = thing_.center() - goal().center();
        if (off.manhattanLength() <= 3) return judge_.right();
        judge_.wrong(QString("%1, %2 beside its frame").arg(off.x()).arg(off.y()));
    }

private:
    int number(const char* name) const { return task_[QLatin1String(name)].toInt(); }
    QRect goal() const {
        return {number("toX") - thing_.width() / 2, number("toY") - thing_.height() / 2, thing_.width(),
                thing_.height()};
    }
    void takeClick(const QMouseEvent& event, int count) {
        if (!thing_.contains(event.pos())) {
            const QPoint off = event.pos() - thing_.center();
            return judge_.wrong(QString("clicked %1, %2 from its middle").arg(off.x()).arg(off.y()));
        }
        const Qt::MouseButton buttons[] = {Qt::LeftButton, Qt::RightButton, Qt::MiddleButton};
        if (event.button() != buttons[number("button")]) return judge_.wrong("with another button");
        if (count == std::max(number("count"), 1)) judge_.right();
    }
    void startMotion() {
        clock_.start();
        auto* const timer = new QTimer(this);
        connect(timer, &QTimer::timeout, this, [this, timer] {
            update();
            if (clock_.elapsed() < task_["seconds"].toDouble() * 1000) return;
            timer->stop();
            kind_ = Kind::done;
            repaint();
            const auto now = std::chrono::steady_clock::now().time_since_epoch();
            say({{"rested", static_cast<double>(now / std::chrono::microseconds(1))}});
        });
        timer->start(16);
    }
    void drawText(QPainter& painter) const {
        QFont small("DejaVu Sans");
        small.setPixelSize(8);
        painter.setFont(small);
        painter.setPen(Qt::black);
        for (int line = 0; line * 12 < height(); ++line) {
            const QString words = "%1. The quick brown fox jumps over the lazy dog; 0123456789 (%2) ";
            painter.drawText(4, 12 * line + 10, words.arg(line).arg(line * 37).repeated(8));
        }
    }

    Kind kind_;
    const QJsonObject task_;
    Judge& judge_;
    QRect thing_;
    std::optional<QPoint> grip_;
    QElapsedTimer clock_;
};

class TaskWindow final : public QMainWindow {
public:
    TaskWindow() {
        setWindowFlag(Qt::FramelessWindowHint);
        setWindowTitle("Tasks");
        setPlace({});
    }

    void take(const QJsonObject& task) {
        if (task.contains("ask")) return say({{"holds", field_ ? field_->toPlainText() : QString()}});
        const QString kind = task["show"].toString();
        if (kind == "place") {
            setPlace(task);
        } else {
            show(kind, task);
        }
        // Answered when the server has it on the screen, and the window the keyboard.
        activateWindow();
        raise();
        answerWhenReady(kind);
    }

private:
    void setPlace(const QJsonObject& task) {
        setGeometry(task["x"].toInt(), task["y"].toInt(), task["width"].toInt(800),
                    task["height"].toInt(600));
    }

    void answerWhenReady(const QString& kind) {
        if (!isActiveWindow()) {
            QTimer::singleShot(20, this, [this, kind] {
                activateWindow();
                answerWhenReady(kind);
            });
            return;
        }
        repaint();
        QApplication::processEvents();
        say({{"shown", kind}});
    }

    void show(const QString& kind, const QJsonObject& task) {
        judge_ = std::make_unique<Judge>();
        field_ = nullptr;
        delete std::exchange(extra_, nullptr);
        menuBar()->clear();
        menuBar()->hide();
        if (kind == "list") return setCentralWidget(makeList(task["line"].toInt()));
        if (kind == "field") return setCentralWidget(makeField(task));
        const auto canvasKind = kind == "target"   ? Canvas::Kind::target
                                : kind == "drag"   ? Canvas::Kind::drag
                                : kind == "motion" ? Canvas::Kind::motion
                                : kind == "text"   ? Canvas::Kind::text
                                                   : Canvas::Kind::done;
        setCentralWidget(new Canvas(canvasKind, task, *judge_));
        if (canvasKind != Canvas::Kind::done) return;
        judge_->onRight = nullptr;
        if (kind == "shortcut") watchFor(task["keys"].toString());
        if (kind == "menu") fillMenus(task["menu"].toInt(), task["item"].toInt());
        if (kind == "copy") QApplication::clipboard()->setPixmap(swatch(first).pixmap(16, 16));
        if (kind == "dialog") offerDialog(task["by"].toString());
    }

    QWidget* makeList(int wanted) {
        auto* const list = new QListWidget;
        for (int i = 0; i < 300; ++i) {
            auto* const item = new QListWidgetItem(QString("Line %1").arg(i), list);
            item->setSizeHint({0, lineHeight});
            if (i == wanted) item->setIcon(swatch(first));
        }
        list->setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
        connect(list, &QListWidget::itemClicked, this, [this, list, wanted](QListWidgetItem* item) {
            const int line = list->row(item);
            item->setBackground(finished);
            if (line == wanted) return judge_->right();
            judge_->wrong(QString("line %1 was clicked").arg(line));
        });
        return list;
    }

    QWidget* makeField(const QJsonObject& task) {
        field_ = new QPlainTextEdit(task["start"].toString());
        field_->moveCursor(QTextCursor::End);
        connect(field_, &QPlainTextEdit::textChanged, this, [this, wanted = task["text"].toString()] {
            if (field_->toPlainText() == wanted) judge_->right();
        });
        QTimer::singleShot(0, field_, [field = field_] { field->setFocus(); });
        return field_;
    }

    void watchFor(const QString& keys) {
        auto* const shortcut = new QShortcut(QKeySequence(keys), this);
        extra_ = shortcut;
        connect(shortcut, &QShortcut::activated, this, [this] { judge_->right(); });
    }

    void fillMenus(int wantedMenu, int wantedItem) {
        menuBar()->show();
        for (int i = 0; i < 6; ++i) {
            QMenu* const menu = menuBar()->addMenu(QString("Menu %1").arg(i));
            if (i == wantedMenu) menu->menuAction()->setIcon(swatch(first));
            for (int k = 0; k < 8; ++k) {
                QAction* const item = menu->addAction(QString("Item %1 of menu %2").arg(k).arg(i));
                const bool isWanted = i == wantedMenu && k == wantedItem;
                if (isWanted) item->setIcon(swatch(second));
                connect(item, &QAction::triggered, this, [this, isWanted, i, k] {
                    if (isWanted) return judge_->right();
                    judge_->wrong(QString("item %1 of menu %2 was chosen").arg(k).arg(i));
                });
            }
        }
    }

    void offerDialog(const QString& by) {
        auto* const button = new QPushButton(swatch(first), "Open", this);
        extra_ = button;
        button->setGeometry(width() / 3, height() / 2, 140, 36);
        button->show();
        connect(button, &QPushButton::clicked, this, [this, by] {
            auto* const dialog = new QDialog(this);
            dialog->setAttribute(Qt::WA_DeleteOnClose);
            dialog->setFixedSize(320, 140);
            auto* const confirm = new QPushButton(swatch(second), "Confirm", dialog);
            auto* const cancel = new QPushButton("Cancel", dialog);
            confirm->setGeometry(170, 80, 120, 32);
            cancel->setGeometry(30, 80, 120, 32);
            (by == "escape" ? cancel : confirm)->setDefault(true);
            connect(confirm, &QPushButton::clicked, dialog, &QDialog::accept);
            connect(cancel, &QPushButton::clicked, dialog, &QDialog::reject);
            connect(dialog, &QDialog::finished, this, [this, by](int result) {
                if ((result == QDialog::Accepted) != (by == "escape")) return judge_->right();
                judge_->wrong("the dialog was answered otherwise");
            });
            dialog->open();
        });
    }

    std::unique_ptr<Judge> judge_;
    QPlainTextEdit* field_ = nullptr;
    QObject* extra_ = nullptr;
};

}  // namespace

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    QApplication::setStyle("Fusion");
    QApplication::setCursorFlashTime(0);  // a caret that blinks is a screen that never rests
    TaskWindow window;
    window.QWidget::show();
    QSocketNotifier notifier(0, QSocketNotifier::Read);
    QByteArray waiting;
    QObject::connect(&notifier, &QSocketNotifier::activated, &window, [&] {
        char bytes[4096];
        const auto count = ::read(0, bytes, sizeof bytes);
        if (count <= 0) return QApplication::quit();
        waiting.append(bytes, static_cast<qsizetype>(count));
        for (qsizetype end = waiting.indexOf('\n'); end >= 0; end = waiting.indexOf('\n')) {
            const auto task = QJsonDocument::fromJson(waiting.left(end)).object();
            waiting.remove(0, end + 1);
            window.take(task);
        }
    });
    return QApplication::exec();
}
