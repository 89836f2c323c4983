#pragma once

#include <QLabel>
#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "App/Controls.h"
#include "Host/HostSignaling.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// A line of the menu panel that does something: a sign, a title, perhaps a detail and a coloured dot.
class MenuRow : public PlainButton {
public:
    struct Content {
        Style::Glyph icon = Style::Glyph::none;
        std::string title;  // of any length, from anybody
        std::string detail{};
        std::optional<Appearance::StatusColor> dot{};
        bool dimmed = false;
        bool enabled = true;
        bool mayBeCut = false;  // a name; our own words are always shown whole
    };
    MenuRow(Content content, QWidget* parent);

    void setContent(Content content);
    const Content& content() const { return content_; }

    /// Somebody wants the row's menu, which belongs at `place` on the screen.
    std::function<void(const QPoint& place)> onMenu;

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    bool event(QEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void contextMenuEvent(QContextMenuEvent* event) override;

private:
    int widthBesideTitle() const;
    QRect titleArea() const;

    Content content_;
    QString title_, detail_;
};

/// A value to copy: what it is, the value, a button that copies it and perhaps one that changes it.
class CopyRow final : public QWidget {
public:
    /// `what` is the value's name, such as "ID"; the row adds the colon. `edit` says what the button that
    /// changes the value does; empty: there is no such button.
    CopyRow(const QString& what, const QString& edit, Queue& main, QWidget* parent);

    /// Shows `shown`; the button copies `copied`.
    void setValue(const std::string& shown, const std::string& copied);
    /// There is nothing to copy or to change now, and `words` say why.
    void setMissing(const QString& words, Appearance::StatusColor ink);
    std::function<void()> onEdit;
    /// Somebody wants the row's menu; only while there is a value.
    std::function<void(const QPoint& place)> onMenu;

    /// So that values stand below each other.
    int labelWidth() const { return label_->sizeHint().width(); }
    void setLabelWidth(int width) { label_->setFixedWidth(width); }
    int valueLeft() const;

    /// The mark that it has been copied stays for so long.
    static constexpr std::chrono::milliseconds markTime{1200};

protected:
    void contextMenuEvent(QContextMenuEvent* event) override;

private:
    void copy();
    void mark(bool copied);
    void present(const QString& text, std::optional<Appearance::StatusColor> ink);

    Queue& main_;
    QLabel* const label_;
    InkLabel* const value_;
    GlyphButton* const edit_;  // or none
    GlyphButton* const copy_;
    std::string copied_;
    bool isMissing_ = false;
    TimerToken markEnd_;
};

/// What stands above a group of rows.
class SectionHeader final : public QLabel {
public:
    SectionHeader(const QString& title, QWidget* parent);
};

/// A rule between groups of rows.
class PanelDivider final : public QWidget {
public:
    explicit PanelDivider(QWidget* parent);
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
};

/// Whether this machine can be found by its ID.
class IDStatusBadge final : public InkLabel {
public:
    explicit IDStatusBadge(QWidget* parent);
    /// Nothing is shown for `off`.
    void setStatus(const HostSignaling::Status& status);

protected:
    void paintEvent(QPaintEvent* event) override;
};

/// Who is looking at this machine's screen, and the button that ends it.
class ViewerRow final : public QWidget {
public:
    explicit ViewerRow(QWidget* parent);

    void setViewer(const std::string& name);
    std::function<void()> onDisconnect;

    QSize minimumSizeHint() const override { return sizeHint(); }
    QSize sizeHint() const override;

protected:
    bool event(QEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    QRect wordsArea() const;

    QString name_;
    WordButton* const disconnect_;
};

}  // namespace velmora
