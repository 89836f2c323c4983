#pragma once

#include <QMetaObject>
#include <QMimeData>
#include <QPointer>
#include <memory>

#include "Platform/Pasteboard.h"
#include "VelmoraKit/Core/Queue.h"

namespace velmora {

/// The clipboard as Qt knows it, for programs with windows on Wayland, where it belongs to the window with
/// the keys: what is copied elsewhere is told when a window of ours gets them, and what is written while none
/// has them may be refused. `x-kde-passwordManagerHint` counts as the concealed type; pictures in other forms
/// are read as PNG.
///
/// Reading holds the main queue up, for up to a second where the other program is silent. Needs the
/// QGuiApplication, and goes before it.
class QtPasteboard final : public Pasteboard {
public:
    /// `main` outlives the pasteboard, and is the queue of the application's thread.
    explicit QtPasteboard(Queue& main);
    /// What was written is gone, as it is on Wayland when a program ends.
    ~QtPasteboard() override;
    QtPasteboard(const QtPasteboard&) = delete;
    QtPasteboard& operator=(const QtPasteboard&) = delete;

    std::int64_t changeCount() override { return count_; }
    void readTypes(Types done) override;
    void read(const std::string& type, std::size_t most, Reading done) override;
    void readFiles(Files done) override;
    void write(std::vector<PasteboardItem> items) override;
    void writeFiles(const std::vector<std::filesystem::path>& files) override;

private:
    void handleChange();
    /// None: the clipboard is empty.
    void offer(std::unique_ptr<QMimeData> data);
    /// The first of the targets that is offered, as it comes.
    static Result<Bytes, Lack> readFirst(const std::vector<std::string>& targets, std::size_t most);

    Queue& main_;
    std::int64_t count_ = 0;
    QMetaObject::Connection watch_;
    QPointer<QMimeData> offered_;  // by us
    Liveness alive_;
};

}  // namespace velmora
