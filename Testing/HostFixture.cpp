#include "Testing/HostFixture.h"

#include <algorithm>
#include <utility>

#include "Host/InputInjector.h"

namespace velmora {

HostFixture::HostFixture(VirtualTime& time, TransportStack& stack)
    : time_(time),
      main(time, "main"),
      quic(time, "velmora.quic"),
      capture(time, "velmora.capture"),
      displayQueue(time, "velmora.display"),
      input(time, "velmora.input"),
      worker(time, "velmora.worker"),
      stack(stack) {
    setDisplays({display(mainDisplay, "Built-in", {64, 32})});
}

HostFixture::~HostFixture() {
    if (server) server->stop();
    time_.advanceBy(std::chrono::seconds(1));
    server.reset();
    time_.advanceBy(std::chrono::seconds(1));
}

Display HostFixture::display(DisplayId id, const std::string& name, PixelSize size) {
    return {.id = id, .name = name, .bounds = {0, 0, size.width, size.height}, .pixels = size};
}

void HostFixture::setDisplays(const std::vector<Display>& next) {
    for (const Display& display : next) {
        const auto known = std::ranges::find(connected_, display.id, &Display::id);
        if (known == connected_.end() || known->pixels != display.pixels)
            screen.setDisplay(display.id, display.pixels);
    }
    for (const Display& display : std::exchange(connected_, next)) {
        if (std::ranges::find(next, display.id, &Display::id) == next.end()) screen.removeDisplay(display.id);
    }
    displays.set(next);
}

StreamSession::Services HostFixture::sessionServices() {
    return {.main = main,
            .capture = capture,
            .display = displayQueue,
            .input = input,
            .keepAwake = keepAwake,
            .displays = displays,
            .captures = screen,
            .compressors = compressors,
            .cursor = cursor,
            .textFocus = textFocus,
            .virtualDisplays = virtualDisplays,
            .makeInput = [this](const InputReceiverOptions& options) -> std::unique_ptr<InputReceiver> {
                auto poster = posters.make({.agent = options.agent});
                if (!poster) return nullptr;
                return std::make_unique<InputInjector>(std::move(poster), keyboard, displays, input, options);
            },
            .clipboard = ClipboardSync::Services{.pasteboard = pasteboard,
                                                 .archiver = archiver,
                                                 .main = main,
                                                 .worker = worker,
                                                 .inbox = inbox.path()},
            .cpuPercent = [this] { return cpuPercent; }};
}

void HostFixture::start() {
    server = std::make_unique<StreamServer>(
        StreamServer::Services{.main = main,
                               .quic = quic,
                               .transport = stack,
                               .discovery = discovery,
                               .keepAwake = keepAwake,
                               .machine = machine,
                               .loadCertificate = []() -> Result<HostIdentityCertificate, KeyStore::Lack> {
                                   return HostIdentityCertificate{
                                       {.certificate = bytesOf(fingerprint), .privateKey = {}}, fingerprint};
                               },
                               .machineKind = [] { return MacKind::macmini; },
                               .makeSession =
                                   [this](AdmittedViewer viewer) {
                                       return std::make_unique<StreamSession>(std::move(viewer),
                                                                              sessionServices());
                                   }},
        settings);
    server->identity = [this] { return credentials; };
    server->onStatus = [this](const std::string& text, bool connected) {
        statuses.push_back(text);
        isConnected = connected;
    };
    server->start();
    time_.settle();
}

}  // namespace velmora
