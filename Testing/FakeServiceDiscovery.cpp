#include "Testing/FakeServiceDiscovery.h"

#include <optional>
#include <utility>

namespace velmora {

class FakeServiceDiscovery::Published final : public Request {
public:
    Published(FakeServiceDiscovery& network, Service service, Queue& queue,
              std::function<void(const std::string&)> onPublished)
        : network_(network), name_{service.name, service.type, "local"} {
        for (int n = 2; network_.published_.contains(name_); ++n) {
            name_.name = service.name + " #" + std::to_string(n);
        }
        network_.published_.emplace(name_, std::move(service));
        queue.post(liveness_.guard([onPublished = std::move(onPublished), name = name_.name] {
            if (onPublished) onPublished(name);
        }));
    }
    ~Published() override {
        network_.published_.erase(name_);
        network_.changed();
    }

private:
    FakeServiceDiscovery& network_;
    ServiceName name_;
    Liveness liveness_;
};

class FakeServiceDiscovery::Browsing final : public Request {
public:
    Browsing(FakeServiceDiscovery& network, std::string type, Queue& queue,
             std::function<void(std::vector<FoundService>)> onChange)
        : network_(network), type_(std::move(type)), queue_(queue), onChange_(std::move(onChange)) {
        network_.browsing_.push_back(this);
        tell();
    }
    ~Browsing() override { std::erase(network_.browsing_, this); }

    void tell() {
        std::vector<FoundService> found;
        for (const auto& [name, service] : network_.published_) {
            if (service.type == type_) found.push_back({name, service.txt});
        }
        if (told_ == found) return;
        told_ = found;
        queue_.post(liveness_.guard([this, found = std::move(found)] { onChange_(found); }));
    }

private:
    FakeServiceDiscovery& network_;
    const std::string type_;
    Queue& queue_;
    const std::function<void(std::vector<FoundService>)> onChange_;
    std::optional<std::vector<FoundService>> told_;
    Liveness liveness_;
};

class FakeServiceDiscovery::Resolving final : public Request {
public:
    Resolving(FakeServiceDiscovery& network, ServiceName service, std::chrono::milliseconds limit,
              Queue& queue, std::function<void(Result<ResolvedService>)> onResolved)
        : network_(network), wanted_(std::move(service)), queue_(queue), onResolved_(std::move(onResolved)) {
        if (wanted_.domain.empty() || wanted_.domain == "local.") wanted_.domain = "local";
        network_.resolving_.push_back(this);
        queue_.post(liveness_.guard([this, limit] {
            limit_ = queue_.after(limit, [this] { finish(Failure{"the service was not found"}); });
        }));
        look();
    }
    ~Resolving() override { std::erase(network_.resolving_, this); }

    void look() {
        const auto found = network_.published_.find(wanted_);
        if (found == network_.published_.end()) return;
        const ResolvedService place{network_.address, found->second.port, found->second.txt};
        queue_.post(liveness_.guard([this, place] { finish(place); }));
    }

private:
    void finish(Result<ResolvedService> outcome) {
        limit_.reset();
        if (auto tell = std::exchange(onResolved_, nullptr)) tell(std::move(outcome));
    }

    FakeServiceDiscovery& network_;
    ServiceName wanted_;
    Queue& queue_;
    std::function<void(Result<ResolvedService>)> onResolved_;
    TimerToken limit_;
    Liveness liveness_;
};

std::unique_ptr<ServiceDiscovery::Request> FakeServiceDiscovery::publish(
    const Service& service, Queue& queue, std::function<void(const std::string& name)> onPublished) {
    auto published = std::make_unique<Published>(*this, service, queue, std::move(onPublished));
    changed();
    return published;
}

std::unique_ptr<ServiceDiscovery::Request> FakeServiceDiscovery::browse(
    const std::string& type, Queue& queue, std::function<void(std::vector<FoundService>)> onChange) {
    return std::make_unique<Browsing>(*this, type, queue, std::move(onChange));
}

std::unique_ptr<ServiceDiscovery::Request> FakeServiceDiscovery::resolve(
    const ServiceName& service, std::chrono::milliseconds limit, Queue& queue,
    std::function<void(Result<ResolvedService>)> onResolved) {
    return std::make_unique<Resolving>(*this, service, limit, queue, std::move(onResolved));
}

void FakeServiceDiscovery::changed() {
    for (Browsing* browsing : browsing_) browsing->tell();
    for (Resolving* resolving : resolving_) resolving->look();
}

}  // namespace velmora
