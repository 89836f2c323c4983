#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Host/StreamServer.h"
#include "Host/StreamSession.h"
#include "Testing/FakeCursorSource.h"
#include "Testing/FakeDisplays.h"
#include "Testing/FakeEventPoster.h"
#include "Testing/FakeFolderArchiver.h"
#include "Testing/FakeKeepAwake.h"
#include "Testing/FakeKeyboardLayout.h"
#include "Testing/FakeMachineInfo.h"
#include "Testing/FakePasteboard.h"
#include "Testing/FakeScreenCapture.h"
#include "Testing/FakeServiceDiscovery.h"
#include "Testing/FakeTextFocusSource.h"
#include "Testing/FakeVideoCompressor.h"
#include "Testing/ScratchFolder.h"
#include "Testing/VirtualQueue.h"

namespace velmora {

/// A whole host on fakes, in virtual time: the real server and sessions, with one display of 64 x 32 pixels
/// that a test paints on. Arrange what it stands on, then `start`. `time` and `stack` outlive it.
class HostFixture {
public:
    static constexpr DisplayId mainDisplay = 1;
    static constexpr const char* password = "042137";
    static constexpr const char* fingerprint = "AB01";

    HostFixture(VirtualTime& time, TransportStack& stack);
    /// Passes the time that ending takes.
    ~HostFixture();
    HostFixture(const HostFixture&) = delete;
    HostFixture& operator=(const HostFixture&) = delete;

    void start();
    /// What is connected from now on; the first is the main display.
    void setDisplays(const std::vector<Display>& displays);
    static Display display(DisplayId id, const std::string& name, PixelSize size);
    /// Something changes on the main display.
    void paint() { screen.paint(mainDisplay, {0, 0, 8, 8}, ++grey_); }
    std::string status() const { return statuses.empty() ? std::string() : statuses.back(); }

private:
    VirtualTime& time_;

public:
    VirtualQueue main, quic, capture, displayQueue, input, worker;
    TransportStack& stack;
    ServerSettings settings{.codec = VideoCodec::h264};
    std::optional<HostCredentials> credentials{{.id = "123456789", .password = password}};
    FakeDisplays displays;
    FakeScreen screen;
    FakeVideoCompressorFactory compressors;
    FakeCursorSource cursor{main};
    FakeTextFocusSource textFocus{main};
    FakeServiceDiscovery discovery;
    FakeKeepAwake keepAwake{main};
    FakeMachineInfo machine;
    FakeEventPosterFactory posters;
    FakeKeyboardLayout keyboard;
    FakePasteboard pasteboard{main};
    FakeFolderArchiver archiver;
    ScratchFolder inbox;
    VirtualDisplayFactory* virtualDisplays = nullptr;
    double cpuPercent = 0;

    std::vector<std::string> statuses;
    bool isConnected = false;
    std::unique_ptr<StreamServer> server;

private:
    StreamSession::Services sessionServices();

    std::vector<Display> connected_;
    std::uint8_t grey_ = 50;
};

}  // namespace velmora
