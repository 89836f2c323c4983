#pragma once

#include <QWidget>
#include <deque>
#include <optional>

#include "Platform/Pasteboard.h"
#include "Platform/PreferenceStore.h"
#include "VelmoraKit/Core/DebugLog.h"
#include "VelmoraKit/Core/Queue.h"

class QPlainTextEdit;
class QPushButton;

namespace velmora {

/// The diary, as it is being written. Lives on the main queue; while it is closed it holds no lines and hears
/// of none. Open, it is the log's one observer, and shows what has come a few times a second: a line costs
/// the same whether one comes or thousands.
class DebugLogWindow final : public QWidget {
public:
    /// All outlive the window.
    struct Services {
        DebugLog& log;
        Queue& main;
        PreferenceStore& preferences;
        Pasteboard& pasteboard;
    };
    explicit DebugLogWindow(const Services& services);
    ~DebugLogWindow() override;

    enum class Focus { take, leave };
    /// Shows it where it last was. `leave`: the keyboard stays where it is.
    void present(Focus focus);

    static constexpr std::chrono::milliseconds showInterval{50};

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    void changeEvent(QEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    void startListening();
    void stopListening();
    void hear(const std::optional<DebugLog::Entry>& entry);
    void showWaiting();
    void emptyText();
    void append(const std::deque<DebugLog::Entry>& entries);
    bool isAtEnd() const;
    void scrollToEnd();
    void copyAll();

    const Services services_;
    QPlainTextEdit* text_;
    QPushButton* copy_;
    std::deque<DebugLog::Entry> waiting_;  // heard, not shown yet
    TimerToken showTimer_;                 // held while any wait
    TimerToken copiedTimer_;
    Liveness listening_;
};

}  // namespace velmora
