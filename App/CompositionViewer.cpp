#include "App/CompositionViewer.h"

#include <utility>

#include "Platform/Linux/Codec/VideoCodecFactories.h"
#include "Platform/Linux/Painting/YuvPicturePainter.h"
#include "Platform/Linux/System/PngFile.h"
#include "Platform/Linux/System/PrivateFile.h"
#include "Platform/Linux/Window/GraphicsProcessor.h"
#include "Platform/Linux/Window/ShortcutGrabs.h"
#include "Viewer/Session/SignalingRendezvousPath.h"
#include "Viewer/Window/DesktopFolders.h"

namespace velmora {

ClipboardSync::Services SharedServices::forClipboard() {
    return {.pasteboard = *pasteboard,
            .archiver = archiver,
            .main = main,
            .worker = files,
            .inbox = cacheFolder() / "Clipboard"};
}

ViewerServices::ViewerServices(SharedServices& shared)
    : shared_(shared),
      shortcuts_(makeShortcutGrab()),
      paths_(shared.main),
      resolver_(shared.discovery, shared.main),
      decompressors_(makeVideoDecompressorFactory()),
      snapshots_(cacheFolder() / "LastFrames", jpeg_, shared.worker),
      captures_({.preferences = shared.preferences,
                 .main = shared.main,
                 .worker = shared.worker,
                 .writePng = writePng,
                 .systemFolder = DesktopFolders::screenshots}),
      network_(makeQuicTransportStack(
          [this](const Endpoint& service, auto found) { resolver_.resolve(service, std::move(found)); })),
      probes_(*network_, shared.rendezvous.host(), shared.main) {}

/// What runs ends before what it uses goes.
ViewerServices::~ViewerServices() {
    network_.reset();
    client_.end();
    shared_.end();
}

ViewerSession::Services ViewerServices::forSession() {
    return {.connection = {.transport = *network_,
                           .preferences = shared_.preferences,
                           .paths = paths_,
                           .decompressors = *decompressors_,
                           .makeRendezvousPath = SignalingRendezvousPath::factory(
                               shared_.rendezvous,
                               {shared_.sockets, probes_, shared_.preferences, shared_.main})},
            .main = shared_.main,
            .client = client_,
            .keepAwake = shared_.keepAwake,
            .shortcuts = *shortcuts_,
            .snapshots = snapshots_,
            .captures = captures_,
            .makePainter = [] { return std::make_unique<YuvPicturePainter>(); },
            .statsFolder = stateFolder() / "stats",
            .isPointerHeld = [this] { return pointer_.isButtonHeld(); },
            .revealFile = DesktopFolders::reveal,
            .clipboard = shared_.forClipboard(),
            .rendering = hasGraphicsProcessor() ? Rendering::graphicsProcessor : Rendering::software};
}

}  // namespace velmora
