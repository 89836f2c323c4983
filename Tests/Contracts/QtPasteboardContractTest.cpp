#include <QGuiApplication>
#include <QWindow>
#include <future>
#include <memory>

#include "Platform/Linux/Clipboard/ClipboardForms.h"
#include "Platform/Linux/Clipboard/Pasteboards.h"
#include "Platform/Linux/EventLoop/QtMainQueue.h"
#include "Testing/WaylandCompositor.h"
#include "Tests/Contracts/PasteboardContract.h"

namespace velmora {
namespace {

using namespace std::chrono_literals;

/// A program on Wayland whose window has the keys; the other one is the desktop's own.
class WaylandRig {
public:
    static constexpr bool knowsTypes = true;

    WaylandRig() {
        window_->show();
        QCoreApplication::processEvents();
        EXPECT_TRUE(waitUntil([this] {
            desktop_.focus();
            return QGuiApplication::focusWindow() != nullptr;
        }));
    }
    ~WaylandRig() { qunsetenv("WAYLAND_DISPLAY"); }

    Pasteboard& pasteboard() { return *pasteboard_; }
    void copyElsewhere(const std::vector<PasteboardItem>& items) {
        std::map<std::string, std::string> forms;
        for (const auto& item : items) forms[item.type] = textOf(item.data);
        desktop_.copy(std::move(forms));
    }
    void copyFilesElsewhere(const std::vector<std::filesystem::path>& files) {
        copyElsewhere(ClipboardForms::ofFiles(files));
    }
    void fallSilent() { desktop_.fallSilent(); }
    /// It asks us, and we answer on this thread.
    std::optional<Bytes> pasteElsewhere(const std::string& type) {
        QCoreApplication::processEvents();
        auto pasted = std::async(std::launch::async, [&] { return desktop_.paste(type); });
        EXPECT_TRUE(waitUntil([&] { return pasted.wait_for(0s) == std::future_status::ready; }));
        const auto text = pasted.get();
        return text ? std::optional(bytesOf(*text)) : std::nullopt;
    }
    template <class F>
    bool waitUntil(F condition) {
        const auto end = HostClock::now() + 30s;
        while (!condition()) {
            if (HostClock::now() > end) return false;
            const auto next = main_->after(10ms, [] {});
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        }
        return true;
    }

private:
    std::unique_ptr<QGuiApplication> startApplication() {
        qputenv("QT_QPA_PLATFORM", "wayland");
        qputenv("WAYLAND_DISPLAY", desktop_.socket().c_str());
        return std::make_unique<QGuiApplication>(argc_, argv_);
    }

    int argc_ = 1;
    char name_[5] = "test";
    char* argv_[2] = {name_, nullptr};
    WaylandCompositor desktop_;
    const std::unique_ptr<QGuiApplication> application_ = startApplication();
    const std::unique_ptr<QtMainQueue> main_ = std::make_unique<QtMainQueue>();
    const std::unique_ptr<QWindow> window_ = std::make_unique<QWindow>();
    std::unique_ptr<Pasteboard> pasteboard_ = makePasteboard(*main_);
};

INSTANTIATE_TYPED_TEST_SUITE_P(Wayland, PasteboardContract, testing::Types<WaylandRig>);

}  // namespace
}  // namespace velmora
