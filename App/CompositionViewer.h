#pragma once

#include <memory>

#include "App/CompositionShared.h"
#include "Platform/Linux/Display/X11Pointer.h"
#include "Platform/Linux/Network/QuicTransportStack.h"
#include "Platform/Linux/System/NetworkManagerPathMonitor.h"
#include "Platform/Linux/System/TurboJpegEncoder.h"
#include "Platform/ShortcutGrab.h"
#include "Platform/VideoDecompressor.h"
#include "Shared/EndpointResolver.h"
#include "VelmoraKit/Transport/UdpProbes.h"
#include "Viewer/Session/CaptureFiles.h"
#include "Viewer/Session/FrameSnapshot.h"
#include "Viewer/Window/ViewerSession.h"

namespace velmora {

/// Everything that viewer windows need of this system. Order is ownership: what is declared later uses what
/// stands above it, and goes first.
class ViewerServices {
public:
    /// `shared` outlives us, and ends when we go.
    explicit ViewerServices(SharedServices& shared);
    /// After the last session.
    ~ViewerServices();
    ViewerServices(const ViewerServices&) = delete;
    ViewerServices& operator=(const ViewerServices&) = delete;

    ViewerSession::Services forSession();

private:
    SharedServices& shared_;
    const std::unique_ptr<ShortcutGrab> shortcuts_;
    X11Pointer pointer_;
    NetworkManagerPathMonitor paths_;
    EndpointResolver resolver_;
    const std::unique_ptr<VideoDecompressorFactory> decompressors_;
    TurboJpegEncoder jpeg_{TurboJpegEncoder::rough};
    ThreadQueue client_{"velmora.quic.client"};
    FrameSnapshot snapshots_;
    CaptureFiles captures_;
    std::unique_ptr<NetworkStack> network_;
    UdpProbes probes_;
};

}  // namespace velmora
