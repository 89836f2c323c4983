#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Platform/Picture.h"
#include "Shared/ConnectionError.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Transport/MessageConnection.h"
#include "VelmoraKit/Wire/CursorShape.h"
#include "VelmoraKit/Wire/DisplayRecords.h"
#include "VelmoraKit/Wire/VideoRecords.h"
#include "Viewer/Session/VideoDecoder.h"
#include "Viewer/Session/VideoRenderer.h"
#include "Viewer/Session/ViewerStats.h"
#include "Viewer/Session/VsyncTracker.h"

namespace velmora {

/// A decoded picture. A host sends a picture again to sharpen it, or so that a lost last one is noticed: such
/// a repeat looks better than what it replaces but shows nothing new.
struct DecodedFrame {
    SharedPicture picture;
    bool isChange = true;
};

/// What becomes of each message once a path has won: frames are decoded and shown at once, a gap or a failed
/// decode asks for a keyframe, everything else goes to whoever owns the connection.
///
/// Made on the main queue by ViewerConnection, then lives on the client's queue, as do all its callbacks;
/// `stats` and `latestPicture` are for any thread. It must also be destroyed on the client's queue.
class ViewerMediaPath {
public:
    struct Parameters {
        std::chrono::milliseconds keyframeRequestInterval{500};  // a host needs time to answer the last one
        std::size_t longestLogLine = 8192;                       // bytes kept of a line that a host sends
    };
    /// What a `streamConfig` brought.
    struct StreamFormat {
        std::string codecName;
        bool hardwareDecode = false;
        PixelSize size;
        bool isDynamic = false;   // a virtual display that follows the window
        bool hasChanged = false;  // size or `isDynamic`, or it is the first
    };

    /// All outlive us; no renderer and no tracker where there is no window.
    ViewerMediaPath(std::string hostName, Queue& client, VideoDecompressorFactory& decompressors,
                    VideoRenderer* renderer, const VsyncTracker* vsync, const Parameters& parameters);
    ViewerMediaPath(std::string hostName, Queue& client, VideoDecompressorFactory& decompressors,
                    VideoRenderer* renderer, const VsyncTracker* vsync)
        : ViewerMediaPath(std::move(hostName), client, decompressors, renderer, vsync, Parameters{}) {}

    std::function<void(const StreamFormat&)> onStream;
    std::function<void(const DecodedFrame&)> onDecodedFrame;
    std::function<void()> onLostFrame;
    std::function<void(CursorShape)> onCursor;
    std::function<void(DisplayList)> onDisplayList;
    std::function<void(bool)> onTextFocus;
    std::function<void(Bytes payload)> onClipboard;  // packed, as it came
    std::function<void(ConnectionError)> onDenied;

    /// Where requests go. Set once, before anything arrives.
    void sendThrough(std::weak_ptr<MessageConnection> connection) { connection_ = std::move(connection); }

    /// A message of the control stream, or a whole frame from the datagrams as `videoFrame`. One that does
    /// not decode is dropped without a word.
    void handle(MessageType type, const Bytes& payload);
    /// The reassembler gave a frame up.
    void handleGap();
    /// The reassembler wants packets again.
    void handleNack(const Nack& nack);

    /// Lets the decoder go; frames that still come are dropped.
    void close();

    ViewerStats& stats() { return stats_; }
    /// The newest decoded picture; none before the first.
    SharedPicture latestPicture() const;
    void forgetLatestPicture();

private:
    void handleStreamConfig(const Bytes& payload);
    void handleVideoFrame(const Bytes& payload);
    bool decode(const VideoSample& sample, FrameTiming timing);
    void show(const SharedPicture& picture, FrameTiming timing);
    void logFromHost(const Bytes& payload) const;
    void handleCursor(const Bytes& payload);
    void handleDisplayList(const Bytes& payload);
    void handleDenied(const Bytes& payload);
    void waitForKeyframe();
    void requestKeyframe();
    void send(MessageType type, const Bytes& payload = {});

    const std::string hostName_;
    Queue& client_;
    VideoRenderer* const renderer_;
    const VsyncTracker* const vsync_;
    const Parameters parameters_;

    // The client's queue.
    std::weak_ptr<MessageConnection> connection_;
    VideoDecompressorFactory& decompressors_;
    VideoDecoder decoder_;
    std::optional<VideoFormat> format_;
    std::shared_ptr<const DisplayFormat> displayFormat_;
    std::optional<StreamFormat> stream_;  // as last told
    bool waitingForKeyframe_ = true;      // show nothing until one comes
    bool closed_ = false;
    std::optional<HostClock::time_point> lastKeyframeRequest_;
    /// What the last decoded picture showed: a picture of the same moment and size is a repeat of it.
    struct Shown {
        std::uint64_t captureMicros;
        PixelSize size;
        bool operator==(const Shown&) const = default;
    };
    std::optional<Shown> lastShown_;

    // Any thread.
    ViewerStats stats_;
    mutable std::mutex latestPictureLock_;
    SharedPicture latestPicture_;  // guarded by latestPictureLock_
};

}  // namespace velmora
