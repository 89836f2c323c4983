#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/buffer.h>
#include <libavutil/frame.h>
}

#include <memory>
#include <string>

namespace velmora {

struct AvDeleter {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
    void operator()(AVBufferRef* buffer) const { av_buffer_unref(&buffer); }
};
using AvContextPtr = std::unique_ptr<AVCodecContext, AvDeleter>;
using AvPacketPtr = std::unique_ptr<AVPacket, AvDeleter>;
using AvFramePtr = std::unique_ptr<AVFrame, AvDeleter>;
using AvBufferPtr = std::unique_ptr<AVBufferRef, AvDeleter>;

/// The library's complaints about a damaged stream come by the hundred; our own lines say more.
inline void quietenLibavcodec() {
    av_log_set_level(AV_LOG_QUIET);
}

inline std::string avErrorText(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

}  // namespace velmora
