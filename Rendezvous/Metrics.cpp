#include "Rendezvous/Metrics.h"

#include <fmt/format.h>

#include <iterator>

namespace velmora {
namespace {

template <class Families>
auto& numberIn(Families& families, std::string_view name, std::string_view help, std::string_view labels) {
    auto& family = families[std::string(name)];
    if (family.help.empty()) family.help = help;
    return family.byLabels[std::string(labels)];
}

template <class Families>
void write(const Families& families, std::string_view kind, std::string& page) {
    for (const auto& [name, family] : families) {
        fmt::format_to(std::back_inserter(page), "# HELP {0} {1}\n# TYPE {0} {2}\n", name, family.help, kind);
        for (const auto& [labels, number] : family.byLabels) {
            const std::string braced = labels.empty() ? "" : "{" + labels + "}";
            fmt::format_to(std::back_inserter(page), "{}{} {}\n", name, braced, number.value());
        }
    }
}

}  // namespace

Counter& Metrics::counter(std::string_view name, std::string_view help, std::string_view labels) {
    const std::lock_guard hold(lock_);
    return numberIn(counters_, name, help, labels);
}

Gauge& Metrics::gauge(std::string_view name, std::string_view help, std::string_view labels) {
    const std::lock_guard hold(lock_);
    return numberIn(gauges_, name, help, labels);
}

std::string Metrics::text() const {
    const std::lock_guard hold(lock_);
    std::string page;
    write(counters_, "counter", page);
    write(gauges_, "gauge", page);
    return page;
}

}  // namespace velmora
