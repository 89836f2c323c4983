#include "Platform/Linux/Network/OutgoingStream.h"

#include <algorithm>
#include <utility>

namespace velmora {

void OutgoingStream::add(Bytes data) {
    if (data.empty() || finishing_ || refused_) return;
    end_ += data.size();
    chunks_.push_back(std::move(data));
}

OutgoingStream::Next OutgoingStream::next(std::span<ByteView> pieces) {
    Next next;
    std::uint64_t given = accepted_;
    auto skip = static_cast<std::size_t>(accepted_ - nextBase_);
    for (std::size_t i = nextChunk_; i < chunks_.size() && next.count < pieces.size(); ++i) {
        pieces[next.count] = ByteView(chunks_[i]).subspan(skip);
        given += pieces[next.count++].size();
        skip = 0;
    }
    next.isLast = finishing_ && given == end_;
    return next;
}

void OutgoingStream::accept(std::size_t bytes, bool isLast) {
    accepted_ += bytes;
    while (nextChunk_ < chunks_.size() && nextBase_ + chunks_[nextChunk_].size() <= accepted_)
        nextBase_ += chunks_[nextChunk_++].size();
    if (isLast && accepted_ == end_) finished_ = true;
}

void OutgoingStream::acknowledgeUpTo(std::uint64_t offset) {
    acknowledged_ = std::max(acknowledged_, offset);
    while (nextChunk_ > 0 && base_ + chunks_.front().size() <= acknowledged_) {
        base_ += chunks_.front().size();
        chunks_.pop_front();
        --nextChunk_;
    }
}

void OutgoingStream::close() {
    if (finished_) acknowledged_ = end_;
    if (!finished_) refused_ = true;
    chunks_.clear();
    nextChunk_ = 0;
}

}  // namespace velmora
