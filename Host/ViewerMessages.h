#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>

#include "Host/DisplayControl.h"
#include "Host/FrameSender.h"
#include "Host/InputReceiver.h"
#include "Host/QueueOwned.h"
#include "Host/SessionLog.h"
#include "Host/VideoPipeline.h"
#include "Shared/ClipboardSync.h"
#include "Shared/ServerSettings.h"
#include "VelmoraKit/Transport/MessageConnection.h"

namespace velmora {

/// Answers what an admitted viewer sends: decodes it and hands it to whom it concerns, on their queue. Owned
/// by StreamSession; lives on the connection's queue, which nothing here holds up.
/// What cannot be decoded, and what no host understands, is ignored. A viewer that asks for far more than the
/// queues get done is sent away before what waits there fills the memory.
class ViewerMessages {
public:
    struct Parameters {
        std::size_t mostWaiting = 32'000'000;  // payload bytes handed to other queues and not yet looked at
        std::size_t bookkeeping = 512;         // what a block that waits takes beside them
    };
    struct Services {
        std::shared_ptr<MessageConnection> connection;
        std::shared_ptr<FrameSender> sender;
        QueueRef<VideoPipeline> video;
        QueueRef<DisplayControl> display;
        QueueRef<InputSeat> input;
        QueueRef<ClipboardSync> clipboard;
        std::function<double()> cpuPercent;  // of one core, since the last call
    };

    ViewerMessages(Services services, const ServerSettings& settings);
    ViewerMessages(Services services, const ServerSettings& settings, Parameters parameters);

    void handle(MessageType type, ByteView payload);

private:
    /// `work(object)` on the object's queue, if there is room for `payload` among what waits.
    template <class T, class F>
    void ask(const QueueRef<T>& whom, ByteView payload, F work);
    void handleInput(ByteView payload);
    void handleClipboard(ByteView payload);
    void answerPing(ByteView payload);
    void handleBitrateHint(ByteView payload);
    void handleNack(ByteView payload);

    const Services services_;
    const ServerSettings settings_;
    const Parameters parameters_;
    const SessionLog log_;
    const std::shared_ptr<std::atomic<std::size_t>> waiting_ = std::make_shared<std::atomic<std::size_t>>(0);
    bool isOverrun_ = false;
};

}  // namespace velmora
