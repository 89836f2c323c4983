#include "Platform/Linux/Discovery/AvahiServiceDiscovery.h"

#include <avahi-common/alternative.h>
#include <avahi-common/malloc.h>
#include <fmt/format.h>
#include <net/if.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>

#include "Platform/Linux/Discovery/AvahiClientStack.h"
#include "Platform/Linux/Discovery/AvahiCoreStack.h"
#include "Platform/Linux/Discovery/AvahiLoop.h"
#include "VelmoraKit/Core/DebugLog.h"

namespace velmora {
namespace {

/// Brings news from the loop to the queue of a request, until the request has ended.
class Subscriber {
public:
    explicit Subscriber(Queue& queue) : queue_(queue) {}

    /// On the loop. Under the lock, so that a queue is never posted to once its request has ended.
    static void deliver(const std::shared_ptr<Subscriber>& self, Queue::Block news) {
        std::lock_guard lock(self->mutex_);
        if (self->hasEnded_) return;
        self->queue_.post([self, news = std::move(news)]() mutable {
            if (!self->hasEnded_) news();
        });
    }
    /// On the queue.
    void end() {
        std::lock_guard lock(mutex_);
        hasEnded_ = true;
    }

private:
    Queue& queue_;
    std::mutex mutex_;
    bool hasEnded_ = false;  // changes on the queue only, which therefore reads it without the lock
};

/// What a request wants, on the loop: told of the stack to use, and of its loss.
class Task {
public:
    virtual ~Task() = default;
    virtual void attach(AvahiStack& stack) = 0;
    virtual void detach() = 0;
};

std::string withoutDot(std::string domain) {
    if (domain.ends_with('.')) domain.pop_back();
    return domain;
}

/// A DNS label holds 63 bytes; a character is not cut in two.
std::string labelOf(std::string name) {
    constexpr std::size_t longest = 63;
    if (name.size() <= longest) return name;
    std::size_t end = longest;
    while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xc0) == 0x80) --end;
    name.resize(end);
    return name;
}

class PublishTask final : public Task {
public:
    PublishTask(AvahiLoop& loop, std::chrono::milliseconds retryInterval, ServiceDiscovery::Service service,
                std::shared_ptr<Subscriber> subscriber, std::function<void(const std::string&)> onPublished)
        : loop_(loop),
          retryInterval_(retryInterval),
          wanted_(std::move(service)),
          subscriber_(std::move(subscriber)),
          onPublished_(std::move(onPublished)) {
        wanted_.name = labelOf(std::move(wanted_.name));
    }

    void attach(AvahiStack& stack) override {
        stack_ = &stack;
        name_ = wanted_.name;
        add();
    }
    void detach() override {
        withdraw();
        stack_ = nullptr;
    }

private:
    void add() {
        auto service = wanted_;
        service.name = name_;
        entry_ = stack_->addService(service, [this, weak = liveness_.weak()](AvahiStack::EntryState state) {
            loop_.post([this, weak, state] {
                if (!weak.expired()) changed(state);
            });
        });
    }
    void withdraw() {
        liveness_.renew();
        retryTimer_.reset();
        entry_.reset();
    }
    void changed(AvahiStack::EntryState state) {
        switch (state) {
            case AvahiStack::EntryState::established:
                return Subscriber::deliver(subscriber_, [tell = onPublished_, name = name_] {
                    if (tell) tell(name);
                });
            case AvahiStack::EntryState::collision: {
                withdraw();
                char* alternative = avahi_alternative_service_name(name_.c_str());
                name_ = alternative;
                avahi_free(alternative);
                return add();
            }
            case AvahiStack::EntryState::failed:
                withdraw();
                if (!std::exchange(hasComplained_, true)) {
                    debugLog(fmt::format(
                        "⚠︎ Could not publish “{}” on the local network; trying again", name_));
                }
                retryTimer_.emplace(loop_, retryInterval_, [this] {
                    retryTimer_.reset();
                    add();
                });
        }
    }

    AvahiLoop& loop_;
    const std::chrono::milliseconds retryInterval_;
    ServiceDiscovery::Service wanted_;
    const std::shared_ptr<Subscriber> subscriber_;
    const std::function<void(const std::string&)> onPublished_;
    AvahiStack* stack_ = nullptr;
    std::string name_;  // in use
    bool hasComplained_ = false;
    std::unique_ptr<AvahiStack::Handle> entry_;
    std::optional<AvahiLoop::Timer> retryTimer_;
    Liveness liveness_;  // of the entry's news
};

class BrowseTask final : public Task {
public:
    using Found = std::vector<ServiceDiscovery::FoundService>;

    BrowseTask(AvahiLoop& loop, std::string type, std::shared_ptr<Subscriber> subscriber,
               std::function<void(Found)> onChange)
        : loop_(loop),
          type_(std::move(type)),
          subscriber_(std::move(subscriber)),
          onChange_(std::move(onChange)) {
        tell();
    }

    void attach(AvahiStack& stack) override {
        stack_ = &stack;
        browser_ = stack.browse(type_, [this, weak = liveness_.weak()](AvahiStack::BrowseEvent event,
                                                                       const AvahiStack::Sighting& seen) {
            loop_.post([this, weak, event, seen] {
                if (!weak.expired()) happened(event, seen);
            });
        });
    }
    void detach() override {
        liveness_.renew();
        browser_.reset();
        sightings_.clear();
    }

private:
    struct Sighted {
        std::unique_ptr<AvahiStack::Handle> resolver;
        std::optional<ServiceDiscovery::TxtRecord> txt;  // once resolved
    };
    // A network that invents services must not fill the memory.
    static constexpr std::size_t maxSightings = 1000;

    void happened(AvahiStack::BrowseEvent event, const AvahiStack::Sighting& seen) {
        if (event == AvahiStack::BrowseEvent::disappeared) {
            sightings_.erase(seen);
            return tell();
        }
        if (sightings_.size() >= maxSightings) return;
        Sighted& sighted = sightings_[seen];
        sighted.resolver =
            stack_->resolve(seen, AVAHI_PROTO_UNSPEC,
                            [this, &sighted](const std::optional<AvahiStack::Resolution>& resolution) {
                                if (!resolution) return;
                                sighted.txt = resolution->txt;
                                tell();
                            });
    }
    void tell() {
        std::map<ServiceDiscovery::ServiceName, ServiceDiscovery::TxtRecord> services;
        for (const auto& [seen, sighted] : sightings_) {
            if (sighted.txt) services.emplace(seen.service, *sighted.txt);
        }
        Found found;
        for (auto& [service, txt] : services) found.push_back({service, std::move(txt)});
        if (told_ == found) return;
        told_ = found;
        Subscriber::deliver(subscriber_, [tell = onChange_, found = std::move(found)] { tell(found); });
    }

    AvahiLoop& loop_;
    const std::string type_;
    const std::shared_ptr<Subscriber> subscriber_;
    const std::function<void(Found)> onChange_;
    AvahiStack* stack_ = nullptr;
    std::unique_ptr<AvahiStack::Handle> browser_;
    std::map<AvahiStack::Sighting, Sighted> sightings_;
    std::optional<Found> told_;
    Liveness liveness_;  // of the browser's news
};

class ResolveTask final : public Task {
public:
    using Outcome = Result<ServiceDiscovery::ResolvedService>;

    ResolveTask(AvahiLoop& loop, std::chrono::milliseconds betterAddressWait, std::chrono::milliseconds limit,
                ServiceDiscovery::ServiceName service, std::shared_ptr<Subscriber> subscriber,
                std::function<void(Outcome)> onResolved)
        : loop_(loop),
          betterAddressWait_(betterAddressWait),
          sighting_{AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, std::move(service)},
          subscriber_(std::move(subscriber)),
          onResolved_(std::move(onResolved)),
          limitTimer_(loop, limit, [this] { finish(); }) {}

    void attach(AvahiStack& stack) override {
        if (!onResolved_) return;
        const auto wanted = [this](const std::optional<AvahiStack::Resolution>& resolution) {
            if (resolution) found(*resolution);
        };
        four_ = stack.resolve(sighting_, AVAHI_PROTO_INET, wanted);
        six_ = stack.resolve(sighting_, AVAHI_PROTO_INET6, wanted);
    }
    void detach() override {
        four_.reset();
        six_.reset();
    }

private:
    void found(const AvahiStack::Resolution& resolution) {
        best_ = resolvedOf(resolution);
        if (resolution.address.proto == AVAHI_PROTO_INET) return finish();
        if (!betterTimer_) betterTimer_.emplace(loop_, betterAddressWait_, [this] { finish(); });
    }
    void finish() {
        if (!onResolved_) return;
        auto tell = std::exchange(onResolved_, nullptr);
        auto outcome = best_ ? Outcome(*std::move(best_)) : Outcome(Failure{"the service was not found"});
        Subscriber::deliver(subscriber_,
                            [tell = std::move(tell), outcome = std::move(outcome)] { tell(outcome); });
    }
    static ServiceDiscovery::ResolvedService resolvedOf(const AvahiStack::Resolution& resolution) {
        std::array<char, AVAHI_ADDRESS_STR_MAX> text{};
        avahi_address_snprint(text.data(), text.size(), &resolution.address);
        std::string address(text.data());
        const bool isLinkLocal = resolution.address.proto == AVAHI_PROTO_INET6 && address.starts_with("fe80");
        std::array<char, IF_NAMESIZE> interface {};
        if (isLinkLocal && ::if_indextoname(static_cast<unsigned>(resolution.interface), interface.data())) {
            address += '%' + std::string(interface.data());
        }
        return {std::move(address), resolution.port, resolution.txt};
    }

    AvahiLoop& loop_;
    const std::chrono::milliseconds betterAddressWait_;
    const AvahiStack::Sighting sighting_;
    const std::shared_ptr<Subscriber> subscriber_;
    std::function<void(Outcome)> onResolved_;  // none once told
    std::optional<ServiceDiscovery::ResolvedService> best_;
    std::unique_ptr<AvahiStack::Handle> four_, six_;
    AvahiLoop::Timer limitTimer_;
    std::optional<AvahiLoop::Timer> betterTimer_;
};

}  // namespace

/// Chooses the stack and keeps the tasks; all but construction and destruction on the loop.
class AvahiServiceDiscovery::Engine {
public:
    explicit Engine(const Parameters& parameters) : parameters_(parameters) {
        loop_.post([this] { startClient(); });
    }
    ~Engine() {
        loop_.post([this] {
            use(nullptr);
            clientLife_.renew();  // a state that is told already would start a timer again
            coreLife_.renew();
            tasks_.clear();
            retryTimer_.reset();
            graceTimer_.reset();
            client_.reset();
            core_.reset();
        });
    }

    class Token;
    using TaskMaker = UniqueFunction<std::unique_ptr<Task>(std::shared_ptr<Subscriber>)>;
    /// From any thread; `make` runs on the loop.
    std::unique_ptr<Request> add(Queue& queue, TaskMaker make);

    const Parameters& parameters() const { return parameters_; }
    AvahiLoop& loop() { return loop_; }

private:
    void startClient() {
        client_ = std::make_unique<AvahiClientStack>(loop_);
        client_->onState = [this](AvahiStack::State state) {
            postState(state, clientLife_, &Engine::clientIs);
        };
        client_->start();
    }
    void startCore() {
        if (core_) return;
        core_ = std::make_unique<AvahiCoreStack>(loop_);
        core_->onState = [this](AvahiStack::State state) { postState(state, coreLife_, &Engine::coreIs); };
        core_->start();
    }
    /// States are dealt with outside Avahi's callbacks, in which nothing may be freed.
    void postState(AvahiStack::State state, const Liveness& life, void (Engine::*handle)(AvahiStack::State)) {
        loop_.post([this, state, weak = life.weak(), handle] {
            if (!weak.expired()) (this->*handle)(state);
        });
    }

    void clientIs(AvahiStack::State state) {
        switch (state) {
            case AvahiStack::State::running:
                graceTimer_.reset();
                use(client_.get());
                dropCore();
                return;
            case AvahiStack::State::waiting:
                if (current_ == client_.get()) use(nullptr);
                if (!graceTimer_)
                    graceTimer_.emplace(loop_, parameters_.daemonGrace, [this] { startCore(); });
                return;
            case AvahiStack::State::gone:
                if (current_ == client_.get()) use(nullptr);
                clientLife_.renew();
                client_.reset();
                graceTimer_.reset();
                startCore();
                retryLater();
        }
    }
    void coreIs(AvahiStack::State state) {
        switch (state) {
            case AvahiStack::State::running:
                return use(core_.get());
            case AvahiStack::State::waiting:
                return use(nullptr);
            case AvahiStack::State::gone:
                use(nullptr);
                dropCore();
                retryLater();
        }
    }
    void dropCore() {
        coreLife_.renew();
        core_.reset();
    }
    void retryLater() {
        if (retryTimer_) return;
        retryTimer_.emplace(loop_, parameters_.retryInterval, [this] {
            retryTimer_.reset();
            if (!client_) startClient();
            if (!current_ && !client_) startCore();
        });
    }
    void use(AvahiStack* stack) {
        if (current_ == stack) return;
        if (current_) {
            for (auto& [id, task] : tasks_) task->detach();
        }
        current_ = stack;
        if (!stack) return;
        debugLog(stack == client_.get() ? "Local network discovery through the Avahi daemon"
                                        : "Local network discovery by a responder of its own");
        for (auto& [id, task] : tasks_) task->attach(*stack);
    }

    const Parameters parameters_;
    std::atomic<std::uint64_t> lastId_ = 0;

    std::map<std::uint64_t, std::unique_ptr<Task>> tasks_;
    std::unique_ptr<AvahiClientStack> client_;
    std::unique_ptr<AvahiCoreStack> core_;
    Liveness clientLife_, coreLife_;
    AvahiStack* current_ = nullptr;
    std::optional<AvahiLoop::Timer> graceTimer_, retryTimer_;

    AvahiLoop loop_;  // last: ends before what it touches
};

class AvahiServiceDiscovery::Engine::Token final : public Request {
public:
    Token(Engine& engine, std::uint64_t id, std::shared_ptr<Subscriber> subscriber)
        : engine_(engine), id_(id), subscriber_(std::move(subscriber)) {}
    ~Token() override {
        subscriber_->end();
        engine_.loop_.post([&engine = engine_, id = id_] { engine.tasks_.erase(id); });
    }

private:
    Engine& engine_;
    const std::uint64_t id_;
    const std::shared_ptr<Subscriber> subscriber_;
};

std::unique_ptr<ServiceDiscovery::Request> AvahiServiceDiscovery::Engine::add(Queue& queue, TaskMaker make) {
    auto subscriber = std::make_shared<Subscriber>(queue);
    const std::uint64_t id = ++lastId_;
    loop_.post([this, id, subscriber, make = std::move(make)]() mutable {
        Task& task = *tasks_.emplace(id, make(std::move(subscriber))).first->second;
        if (current_) task.attach(*current_);
    });
    return std::make_unique<Token>(*this, id, std::move(subscriber));
}

AvahiServiceDiscovery::AvahiServiceDiscovery(const Parameters& parameters)
    : engine_(std::make_unique<Engine>(parameters)) {}

AvahiServiceDiscovery::~AvahiServiceDiscovery() = default;

std::unique_ptr<ServiceDiscovery::Request> AvahiServiceDiscovery::publish(
    const Service& service, Queue& queue, std::function<void(const std::string& name)> onPublished) {
    return engine_->add(queue, [engine = engine_.get(), service, onPublished = std::move(onPublished)](
                                   std::shared_ptr<Subscriber> subscriber) {
        return std::make_unique<PublishTask>(engine->loop(), engine->parameters().retryInterval, service,
                                             std::move(subscriber), onPublished);
    });
}

std::unique_ptr<ServiceDiscovery::Request> AvahiServiceDiscovery::browse(
    const std::string& type, Queue& queue, std::function<void(std::vector<FoundService>)> onChange) {
    return engine_->add(queue, [engine = engine_.get(), type,
                                onChange = std::move(onChange)](std::shared_ptr<Subscriber> subscriber) {
        return std::make_unique<BrowseTask>(engine->loop(), type, std::move(subscriber), onChange);
    });
}

std::unique_ptr<ServiceDiscovery::Request> AvahiServiceDiscovery::resolve(
    const ServiceName& service, std::chrono::milliseconds limit, Queue& queue,
    std::function<void(Result<ResolvedService>)> onResolved) {
    auto wanted = service;
    wanted.domain = withoutDot(std::move(wanted.domain));
    return engine_->add(queue, [engine = engine_.get(), wanted, limit,
                                onResolved = std::move(onResolved)](std::shared_ptr<Subscriber> subscriber) {
        return std::make_unique<ResolveTask>(engine->loop(), engine->parameters().betterAddressWait, limit,
                                             wanted, std::move(subscriber), onResolved);
    });
}

}  // namespace velmora
