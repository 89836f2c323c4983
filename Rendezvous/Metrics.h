#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace velmora {

/// A number that any thread may change. A counter only grows; a gauge goes both ways.
class Counter {
public:
    void add(std::uint64_t count = 1) { value_.fetch_add(count, std::memory_order_relaxed); }
    std::uint64_t value() const { return value_.load(std::memory_order_relaxed); }

private:
    std::atomic<std::uint64_t> value_{0};
};

class Gauge {
public:
    void add(std::int64_t change) { value_.fetch_add(change, std::memory_order_relaxed); }
    void set(std::int64_t value) { value_.store(value, std::memory_order_relaxed); }
    std::int64_t value() const { return value_.load(std::memory_order_relaxed); }

private:
    std::atomic<std::int64_t> value_{0};
};

/// All numbers of the process, and the page that shows them. Built first, outlives all that count.
class Metrics {
public:
    /// The number of this name and these labels (`reason="rate"`, or nothing), made at the first call. The
    /// reference stays good as long as the Metrics; look it up once. `help` is one line without a backslash.
    Counter& counter(std::string_view name, std::string_view help, std::string_view labels = {});
    Gauge& gauge(std::string_view name, std::string_view help, std::string_view labels = {});

    /// The page in the text format of Prometheus, names sorted.
    std::string text() const;

private:
    template <class Number>
    struct Family {
        std::string help;
        std::map<std::string, Number, std::less<>> byLabels;  // a map, so that numbers stay where they are
    };
    template <class Number>
    using Families = std::map<std::string, Family<Number>, std::less<>>;

    mutable std::mutex lock_;  // guards the maps, not the numbers in them
    Families<Counter> counters_;
    Families<Gauge> gauges_;
};

}  // namespace velmora
