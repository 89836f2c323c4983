#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/PathMonitor.h"
#include "Platform/PreferenceStore.h"
#include "Platform/VideoDecompressor.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Transport/ConnectionGroup.h"
#include "VelmoraKit/Wire/ClipboardContent.h"
#include "VelmoraKit/Wire/InputRecords.h"
#include "VelmoraKit/Wire/SessionRecords.h"
#include "Viewer/Session/QUICClient.h"
#include "Viewer/Session/RendezvousPath.h"
#include "Viewer/Session/ViewerHeartbeat.h"
#include "Viewer/Session/ViewerMediaPath.h"
#include "Viewer/Session/ViewerOptions.h"

namespace velmora {

/// A viewer's end of one connection to one host: finds a path, proves who the other end is, says hello, and
/// hands every message to the media path. One object serves one attempt and is never restarted.
///
/// The ladder: on this network if the place is known, then through the rendezvous service. The first attempt
/// that is ready wins; then the control stream opens, the host answers the hello with a stream, and whatever
/// ends it is told once, as a ConnectionError.
///
/// Owned by a window or an agent's session, with which it is destroyed; lives on the main queue.
class ViewerConnection final : private RendezvousPath::Ladder {
public:
    enum class Status {
        connecting,
        waitingForApproval,  // nothing sends it now; whoever shows a status still has words for it
    };
    /// What it is built on; all outlive it.
    struct Services {
        TransportStack& transport;
        PreferenceStore& preferences;  // also read and written on a network thread
        PathMonitor& paths;
        VideoDecompressorFactory& decompressors;
        VideoRenderer* renderer = nullptr;    // none: nothing is shown
        const VsyncTracker* vsync = nullptr;  // none: a picture counts as shown when it is decoded
        /// Keeps the last picture of the host of that name; called on the main queue, must not hold it up.
        std::function<void(SharedPicture, const std::string& name)> saveSnapshot;
        /// None: hosts are found on this network only.
        RendezvousPath::Factory makeRendezvousPath;
    };
    struct Parameters {
        std::chrono::milliseconds localLimit{8000};        // for a host on this network to answer
        std::chrono::milliseconds rendezvousLimit{20000};  // for the whole way through the service
        int silentBeats = 2;  // a second each, before a path is opened once more; the end comes after 20
        std::chrono::milliseconds snapshotInterval{15000};  // what a crash may cost of the last picture
    };

    /// `client` ("velmora.quic.client") is where messages and frames are handled; it outlives everything
    /// that was started on it, and so this object by far.
    ViewerConnection(ViewerOptions options, Services services, Queue& main, Queue& client,
                     const Parameters& parameters);
    ViewerConnection(ViewerOptions options, Services services, Queue& main, Queue& client)
        : ViewerConnection(std::move(options), std::move(services), main, client, Parameters{}) {}
    ~ViewerConnection();  // closes; nothing is called afterwards on the main queue
    ViewerConnection(const ViewerConnection&) = delete;
    ViewerConnection& operator=(const ViewerConnection&) = delete;

    // Set before `start`. On the main queue, each as the last thing done: it may destroy the connection.
    std::function<void(Status)> onStatus;
    std::function<void(PixelSize, bool isDynamic)> onStreamChanged;
    std::function<void(const CursorShape&)> onCursor;
    std::function<void(const DisplayList&)> onDisplayList;
    std::function<void(bool)> onTextFocus;
    std::function<void(const ViewerStats::Snapshot&)> onStats;
    std::function<void(const ConnectionError&)> onEnded;  // once, unless it is closed from this side
    // On the client's queue, perhaps a moment after the connection has gone: they hold their owner weakly.
    std::function<void(const Bytes& payload)> onClipboard;  // packed, as it came
    std::function<void(const DecodedFrame&)> onDecodedFrame;

    /// Once. With a request the host shall make a virtual display of that size; without, it shows one of its
    /// own.
    void start(std::optional<DisplayRequest> initialRequest);

    /// While streaming; otherwise nothing is sent.
    void sendInput(const InputEvent& event);
    void sendClipboard(const ClipboardContent& content);
    /// The rest of what a viewer says, once the control stream is there: which display.
    void send(MessageType type, ByteView payload);

    /// Ends the connection from this side: says goodbye, keeps the last picture; `onEnded` is not called.
    void close();

    const ViewerOptions& options() const override { return options_; }
    /// "LAN", "Direct" or "Relay" once a path has won.
    const std::optional<std::string>& pathLabel() const { return pathLabel_; }
    const std::string& codecName() const { return stream_.codec; }  // empty before the first stream
    bool isStreaming() const { return isStreaming_; }
    PixelSize streamSize() const { return {stream_.width, stream_.height}; }
    /// The newest decoded picture.
    SharedPicture lastImage() const { return media_ ? media_->latestPicture() : nullptr; }

    /// What this installation is called by: made on first use and then kept.
    static std::string deviceIDIn(PreferenceStore& preferences);

private:
    /// Wraps `f` so that calling it from any thread runs it on the main queue, if we still live then.
    template <class F>
    auto onMain(F f);

    void connectOnLocalNetwork(const Endpoint& endpoint, std::function<void(const std::string&)> failed);
    void connectThroughRendezvous(const std::string& hostID);
    QUICSetup::Verification verificationFor(const Endpoint& endpoint) const;
    QUICClient& addClient(QUICClient::Attempt attempt);

    void win(QUICClient& client);
    void attach(std::shared_ptr<Stream> stream);
    void listenToMedia();
    void startVideo();
    void limitBitrateByPath(PathKind kind);
    Hello hello() const;
    std::string helloLine() const;

    void handleState(TransportState state);
    void handleStream(const ViewerMediaPath::StreamFormat& format);
    void handleSnapshot(const ViewerStats::Snapshot& snapshot);
    void reopenPathIfSilent();
    void tearDown();

    // The ladder, as its second rung sees it.
    const std::string& deviceID() const override { return deviceID_; }
    void attempt(Attempt attempt) override;
    std::string attemptedLabels() const override;
    bool hasWinner() const override { return quic_ != nullptr; }
    bool hasConnection() const override { return connection_ != nullptr; }
    void setSessionToken(std::optional<std::string> token) override { sessionToken_ = std::move(token); }
    void reportConnecting() override;
    void end(const ConnectionError& error) override;

    const ViewerOptions options_;
    const Services services_;
    Queue& main_;
    Queue& client_;
    const Parameters parameters_;
    const std::string deviceID_;
    std::optional<DisplayRequest> initialRequest_;
    std::optional<std::string> sessionToken_;

    // The stage is told by what is there: attempts while paths are tried, `quic_` and `connection_` from the
    // win on, `connected_` from the open control stream on.
    std::vector<std::unique_ptr<QUICClient>> attempts_;
    std::unique_ptr<QUICClient> quic_;
    std::shared_ptr<ViewerMediaPath> media_;  // lives on client_
    std::shared_ptr<MessageConnection> connection_;
    std::unique_ptr<RendezvousPath> rendezvous_;
    std::unique_ptr<PathMonitor::Request> pathRequest_;
    ViewerHeartbeat heartbeat_;
    std::optional<std::string> pathLabel_;
    ViewerStats::Stream stream_;
    bool connected_ = false;
    bool isStreaming_ = false;
    bool closed_ = false;
    int silence_ = 0;  // beats without a word of the host
    HostClock::time_point lastSnapshotSave_;
    TimerToken connectTimer_;  // while paths are tried or the control stream opens
    Liveness liveness_;
};

}  // namespace velmora
