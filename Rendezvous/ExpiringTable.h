#pragma once

#include <cstddef>
#include <functional>
#include <list>
#include <unordered_map>
#include <utility>

#include "VelmoraKit/Core/HostClock.h"

namespace velmora {

/// What is known of each key, forgotten when it was not touched for a while. Never holds more than its
/// capacity, whoever fills it: then the one untouched for longest goes.
template <class Key, class Value, class Hash = std::hash<Key>>
class ExpiringTable {
public:
    struct Parameters {
        std::size_t capacity;
        HostClock::duration lifetime;
    };
    explicit ExpiringTable(Parameters parameters) : parameters_(parameters) {}

    /// Null if there is none, or it is too old. Does not touch it.
    Value* find(const Key& key, HostClock::time_point now) {
        const auto found = places_.find(key);
        if (found == places_.end() || isOver(*found->second, now)) return nullptr;
        return &found->second->value;
    }
    /// Made new if there is none. Good until the next call.
    Value& touch(const Key& key, HostClock::time_point now) {
        while (!entries_.empty() && isOver(entries_.front(), now)) dropOldest();
        if (const auto found = places_.find(key); found != places_.end()) {
            entries_.splice(entries_.end(), entries_, found->second);
        } else {
            if (entries_.size() >= parameters_.capacity) dropOldest();
            entries_.push_back({key, Value{}, now});
            places_.emplace(key, std::prev(entries_.end()));
        }
        entries_.back().touched = now;
        return entries_.back().value;
    }
    std::size_t size() const { return entries_.size(); }

private:
    struct Entry {
        Key key;
        Value value;
        HostClock::time_point touched;
    };
    bool isOver(const Entry& entry, HostClock::time_point now) const {
        return now - entry.touched >= parameters_.lifetime;
    }
    void dropOldest() {
        places_.erase(entries_.front().key);
        entries_.pop_front();
    }

    const Parameters parameters_;
    std::list<Entry> entries_;  // the one touched last stands last
    std::unordered_map<Key, typename std::list<Entry>::iterator, Hash> places_;
};

}  // namespace velmora
