#include "Rendezvous/SocketBudget.h"

#include <utility>

namespace velmora {

bool SocketBudget::count(Entry& entry, const std::string& source) {
    if (source.empty()) return true;
    std::size_t& used = bySource_[source];
    if (used >= parameters_.mostOfSource) return false;
    ++used;
    entry.source = source;
    return true;
}

void SocketBudget::leaveHalfOpen(Entry& entry) {
    if (const auto place = std::exchange(entry.place, std::nullopt)) halfOpen_.erase(*place);
}

SocketBudget::Admission SocketBudget::open(SocketId socket, const std::string& source) {
    const std::lock_guard hold(lock_);
    Admission admission;
    const bool full = sockets_.size() >= parameters_.most;
    if (full && halfOpen_.empty()) return admission;
    Entry entry;
    if (!count(entry, source)) return admission;
    if (full || halfOpen_.size() >= parameters_.mostHalfOpen) {
        // It stays counted until it is closed, but is nobody's victim twice.
        admission.victim = halfOpen_.front();
        leaveHalfOpen(sockets_.at(*admission.victim));
    }
    entry.place = halfOpen_.insert(halfOpen_.end(), socket);
    sockets_.emplace(socket, std::move(entry));
    admission.admitted = true;
    return admission;
}

bool SocketBudget::attribute(SocketId socket, const std::string& source) {
    const std::lock_guard hold(lock_);
    const auto found = sockets_.find(socket);
    return found != sockets_.end() && count(found->second, source);
}

void SocketBudget::settle(SocketId socket) {
    const std::lock_guard hold(lock_);
    if (const auto found = sockets_.find(socket); found != sockets_.end()) leaveHalfOpen(found->second);
}

void SocketBudget::close(SocketId socket) {
    const std::lock_guard hold(lock_);
    auto gone = sockets_.extract(socket);
    if (gone.empty()) return;
    leaveHalfOpen(gone.mapped());
    const auto source = bySource_.find(gone.mapped().source);
    if (source != bySource_.end() && --source->second == 0) bySource_.erase(source);
}

std::size_t SocketBudget::open() const {
    const std::lock_guard hold(lock_);
    return sockets_.size();
}

std::size_t SocketBudget::halfOpen() const {
    const std::lock_guard hold(lock_);
    return halfOpen_.size();
}

}  // namespace velmora
