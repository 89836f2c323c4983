#pragma once

#include <QAbstractButton>
#include <QAction>
#include <QMenu>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Shared/Preferences.h"
#include "Testing/FakeFolderArchiver.h"
#include "Testing/FakeJpegEncoder.h"
#include "Testing/FakeKeepAwake.h"
#include "Testing/FakePasteboard.h"
#include "Testing/FakePathMonitor.h"
#include "Testing/FakePicturePainter.h"
#include "Testing/FakePreferenceStore.h"
#include "Testing/FakeShortcutGrab.h"
#include "Testing/FakeVideoDecompressor.h"
#include "Testing/ScratchFolder.h"
#include "Testing/ScriptedHost.h"
#include "Testing/SimulatedLink.h"
#include "Testing/VirtualQueue.h"
#include "Viewer/Window/ViewerSession.h"
#include "Viewer/Window/WidgetTest.h"

namespace velmora {

/// A window, and a host that says what the test wants, on a simulated network in virtual time.
class ViewerSessionFixture : public WidgetTest {
protected:
    void open(ScreenMode mode = ScreenMode::matchWindow) {
        ViewerPreferences::setScreenMode(preferences, mode);
        session = std::make_unique<ViewerSession>(
            ViewerOptions{.target = Endpoint::hostPort("10.0.0.5", 47272), .name = name},
            ViewerSession::Services{
                .connection = {.transport = link,
                               .preferences = preferences,
                               .paths = paths,
                               .decompressors = decompressors},
                .main = main,
                .client = client,
                .keepAwake = keepAwake,
                .shortcuts = shortcuts,
                .snapshots = snapshots,
                .captures = captures,
                .makePainter = [] { return std::make_unique<FakePicturePainter>(); },
                .statsFolder = scratch / "stats",
                .isPointerHeld = [this] { return isPointerHeld; },
                .revealFile = [this](const std::filesystem::path& file) { revealed.push_back(file); },
                .showAlert = [this](const std::string& title,
                                    const std::string&) { alerts.push_back(title); },
                .clipboard = ClipboardSync::Services{.pasteboard = pasteboard,
                                                     .archiver = archiver,
                                                     .main = main,
                                                     .worker = worker,
                                                     .inbox = scratch / "inbox"}});
        session->onClose = [this](const auto& error) {
            ended = error ? error->title : "closed";
            session.reset();
        };
        if (prepare) prepare();
        session->start();
        advance(std::chrono::milliseconds(50));
    }
    void stream(PixelSize size, bool isDynamic) {
        host.startStream(size, VideoCodec::h264, isDynamic);
        host.sendKeyframe();
        advance(std::chrono::milliseconds(50));
    }
    void advance(HostClock::duration span) {
        time.advanceBy(span);
        turnEvents();
    }
    ViewerWindow& window() { return session->window(); }
    bool press(const char* label) {
        for (auto* button : window().toolbar().findChildren<QAbstractButton*>()) {
            if (button->accessibleName() != QLatin1String(label) || !button->isVisible() ||
                !button->isEnabled())
                continue;
            button->click();
            advance(std::chrono::milliseconds(10));
            return true;
        }
        return false;
    }
    /// What the user's menu shows, ticked entries with a star.
    std::vector<std::string> displayMenu() {
        std::vector<std::string> entries;
        for (const QAction* entry : window().toolbar().displayMenu().actions()) {
            if (!entry->isSeparator())
                entries.push_back((entry->isChecked() ? "*" : "") + entry->text().toStdString());
        }
        return entries;
    }
    ~ViewerSessionFixture() override {
        session.reset();
        time.settle();
    }

    VirtualTime time;
    VirtualQueue main{time, "main"}, client{time, "velmora.quic.client"}, hostQueue{time, "host"},
        worker{time, "velmora.worker"};
    SimulatedLink link{time};
    FakePreferenceStore preferences;
    FakePathMonitor paths{main};
    FakeVideoDecompressorFactory decompressors;
    FakeKeepAwake keepAwake{main};
    FakeShortcutGrab shortcuts;
    FakeJpegEncoder jpeg;
    FakePasteboard pasteboard{main};
    FakeFolderArchiver archiver;
    ScratchFolder scratch;
    FrameSnapshot snapshots{scratch / "frames", jpeg, worker};
    bool diskIsFull = false;
    std::vector<std::string> alerts;
    CaptureFiles captures{{.preferences = preferences,
                           .main = main,
                           .worker = worker,
                           .writePng = [this](const Picture&, const std::filesystem::path& file) -> Status {
                               if (diskIsFull) return Failure{"no space"};
                               std::ofstream(file) << "png";
                               return Done{};
                           },
                           .systemFolder = [this] { return scratch.path(); }}};
    ScriptedHost host{link, hostQueue, {}};
    std::function<void()> prepare;  // before the session starts
    std::string name = "Desk";
    bool isPointerHeld = false;
    std::vector<std::filesystem::path> revealed;
    std::string ended;
    std::unique_ptr<ViewerSession> session;
};

}  // namespace velmora
