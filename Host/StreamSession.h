#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "Host/CursorWatcher.h"
#include "Host/DisplayControl.h"
#include "Host/FrameSender.h"
#include "Host/HostSession.h"
#include "Host/InputReceiver.h"
#include "Host/LineBudget.h"
#include "Host/QueueOwned.h"
#include "Host/SessionLog.h"
#include "Host/TextFocusWatcher.h"
#include "Host/VideoPipeline.h"
#include "Host/ViewerMessages.h"
#include "Host/VirtualDisplay.h"
#include "Platform/CursorSource.h"
#include "Platform/Displays.h"
#include "Platform/KeepAwake.h"
#include "Platform/ScreenCapture.h"
#include "Platform/TextFocusSource.h"
#include "Platform/VideoCompressor.h"
#include "Shared/ClipboardSync.h"

namespace velmora {

/// One viewer's stay on this machine. It only builds the parts, each on the queue where it lives, and takes
/// them down again: what is shown is DisplayControl's affair, how it gets onto the wire VideoPipeline's, what
/// the viewer sends is answered by ViewerMessages. Owned by StreamServer, on the main queue.
class StreamSession final : public HostSession {
public:
    /// All outlive the session and the blocks it leaves on the queues.
    struct Services {
        Queue& main;
        Queue& capture;  // "velmora.capture"
        Queue& display;  // "velmora.display": may block
        Queue& input;    // "velmora.input": may block
        KeepAwake& keepAwake;
        Displays& displays;
        ScreenCaptureFactory& captures;
        VideoCompressorFactory& compressors;
        CursorSource& cursor;
        TextFocusSource& textFocus;
        VirtualDisplayFactory* virtualDisplays = nullptr;  // none: there are no virtual displays
        InputReceiverFactory makeInput;                    // unset: input is ignored
        std::optional<ClipboardSync::Services> clipboard;  // none: it is not shared
        /// Of one core, by this process, since the last call; asked on the connection's queue.
        std::function<double()> cpuPercent;
    };

    StreamSession(AdmittedViewer viewer, Services services);
    ~StreamSession() override;

    void start(std::function<void(Status)> done) override;
    void stop() override;
    std::function<void(MessageType, Bytes)> messageHandler() override;
    Statistics takeStatistics() override { return sender_->takeStatistics(); }

private:
    void keepDisplayOn();
    void listenToFlow();
    void makeClipboard();
    void startClipboard();
    void startWatchers();
    void sendCursor(const CursorShape& shape);

    const AdmittedViewer viewer_;
    const Services services_;
    const SessionLog log_;
    const std::shared_ptr<FrameSender> sender_;
    QueueOwned<InputSeat> input_;
    QueueRef<VideoPipeline> video_;  // owned by display_
    QueueOwned<DisplayControl> display_;
    QueueOwned<ClipboardSync> clipboard_;  // on main
    CursorWatcher cursor_;
    LineBudget cursorLines_{{.mostAtOnce = 20, .perSecond = 1}};  // a cursor that is animated never rests
    TextFocusWatcher textFocus_;
    std::shared_ptr<ViewerMessages> messages_;  // on the connection's queue
    std::unique_ptr<KeepAwake::Assertion> activity_;
    std::unique_ptr<KeepAwake::Assertion> displayAssertion_;
    Liveness alive_;
};

}  // namespace velmora
