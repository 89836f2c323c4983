#include "Rendezvous/NatsLink.h"

#include <fmt/format.h>
#include <nats/nats.h>

#include <charconv>
#include <list>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "Rendezvous/Secrets.h"
#include "Rendezvous/ServiceLog.h"

namespace velmora {
namespace {

constexpr std::string_view hostSubject = "velmora.host.";
constexpr std::string_view nodeSubject = "velmora.node.";
constexpr std::string_view answerSubject = "velmora.answer.";
constexpr const char* allSubject = "velmora.all";
constexpr int reconnectWait = 500;  // ms

std::string subjectOf(HostNumber host) {
    return fmt::format("{}{}", hostSubject, hostIdOf(host));
}

std::vector<std::string> splitAtCommas(const std::string& text) {
    std::vector<std::string> parts;
    for (std::size_t at = 0; at <= text.size();) {
        const auto end = std::min(text.find(',', at), text.size());
        if (end > at) parts.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return parts;
}

}  // namespace

/// The library's side: its connection and subscriptions. It calls on threads of its own, which may still be
/// at it when a subscription has been given up; so what it is given to call with is kept for ever.
class NatsLink::Connection {
public:
    Connection(NatsLink& link, Queue& logic) : ears_(newEars(link, logic)) {}
    ~Connection() {
        {
            const std::lock_guard hold(ears_.lock);
            ears_.link = nullptr;
        }
        for (const auto& [host, subscription] : hosts_) natsSubscription_Destroy(subscription);
        for (auto* subscription : own_) natsSubscription_Destroy(subscription);
        natsConnection_Destroy(connection_);
    }

    natsStatus open(const std::string& url) {
        // One thread for all that comes in, so that it comes in the order in which it was sent.
        nats_SetMessageDeliveryPoolSize(1);
        natsOptions* options = nullptr;
        natsOptions_Create(&options);
        const auto urls = splitAtCommas(url);
        std::vector<const char*> servers;
        for (const auto& one : urls) servers.push_back(one.c_str());
        natsOptions_UseGlobalMessageDelivery(options, true);
        natsOptions_SetNoEcho(options, true);
        natsOptions_SetMaxReconnect(options, -1);
        natsOptions_SetReconnectWait(options, reconnectWait);
        natsOptions_SetName(options, "velmora-rendezvous");
        natsOptions_SetDisconnectedCB(options, downChanged, &ears_);
        natsOptions_SetReconnectedCB(options, upChanged, &ears_);
        natsOptions_SetRetryOnFailedConnect(options, true, upChanged, &ears_);
        natsOptions_SetErrorHandler(options, failed, nullptr);
        natsStatus status = natsOptions_SetServers(options, servers.data(), static_cast<int>(servers.size()));
        if (status == NATS_OK) status = natsConnection_Connect(&connection_, options);
        natsOptions_Destroy(options);
        if (status == NATS_OK) upChanged(connection_, &ears_);
        return status == NATS_NOT_YET_CONNECTED ? NATS_OK : status;
    }
    natsStatus listenAt(const std::string& subject) {
        natsSubscription* subscription = nullptr;
        const natsStatus status =
            natsConnection_Subscribe(&subscription, connection_, subject.c_str(), arrived, &ears_);
        if (status == NATS_OK) own_.push_back(subscription);
        return status;
    }
    void listenAt(HostNumber host) {
        if (hosts_.contains(host)) return;
        natsSubscription* subscription = nullptr;
        if (natsConnection_Subscribe(&subscription, connection_, subjectOf(host).c_str(), arrived, &ears_) !=
            NATS_OK) {
            return serviceLog("NATS: a host can't be subscribed to; viewers at other nodes won't find it");
        }
        hosts_.emplace(host, subscription);
    }
    void leave(HostNumber host) {
        const auto found = hosts_.find(host);
        if (found == hosts_.end()) return;
        natsSubscription_Unsubscribe(found->second);
        natsSubscription_Destroy(found->second);
        hosts_.erase(found);
    }
    bool publish(const std::string& subject, const std::string& data, const char* replyTo = nullptr) {
        return natsConnection_PublishRequest(connection_, subject.c_str(), replyTo, data.data(),
                                             static_cast<int>(data.size())) == NATS_OK;
    }
    bool publishPlainly(const std::string& subject, const std::string& data) {
        return natsConnection_Publish(connection_, subject.c_str(), data.data(),
                                      static_cast<int>(data.size())) == NATS_OK;
    }

private:
    struct Ears {
        std::mutex lock;
        NatsLink* link;  // null once it is gone; guarded by the lock, as is what is posted with it
        Queue* logic;
        std::weak_ptr<char> alive;
    };
    static Ears& newEars(NatsLink& link, Queue& logic) {
        static std::mutex lock;
        static std::list<Ears> all;
        const std::lock_guard hold(lock);
        Ears& ears = all.emplace_back();
        ears.link = &link;
        ears.logic = &logic;
        ears.alive = link.alive_.weak();
        return ears;
    }
    template <class F>
    static void tell(void* closure, F action) {
        auto& ears = *static_cast<Ears*>(closure);
        const std::lock_guard hold(ears.lock);
        if (!ears.link) return;
        ears.logic->post([link = ears.link, alive = ears.alive, action = std::move(action)]() mutable {
            if (!alive.expired()) action(*link);
        });
    }
    static void arrived(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
        const char* replyTo = natsMsg_GetReply(message);
        tell(closure, [subject = std::string(natsMsg_GetSubject(message)),
                       data = std::string(natsMsg_GetData(message),
                                          static_cast<std::size_t>(natsMsg_GetDataLength(message))),
                       replyTo = std::string(replyTo ? replyTo : ""),
                       isNobody = natsMsg_IsNoResponders(message)](NatsLink& link) mutable {
            link.arrived(subject, std::move(data), std::move(replyTo), isNobody);
        });
        natsMsg_Destroy(message);
    }
    static void upChanged(natsConnection*, void* closure) {
        tell(closure, [](NatsLink& link) { link.changed(true); });
    }
    static void downChanged(natsConnection*, void* closure) {
        tell(closure, [](NatsLink& link) { link.changed(false); });
    }
    static void failed(natsConnection*, natsSubscription*, natsStatus status, void*) {
        serviceLog(fmt::format("NATS: {}", natsStatus_GetText(status)));
    }

    Ears& ears_;
    natsConnection* connection_ = nullptr;
    std::vector<natsSubscription*> own_;
    std::unordered_map<HostNumber, natsSubscription*> hosts_;
};

NatsLink::NatsLink(Queue& logic, Metrics& metrics)
    : logic_(logic),
      node_(randomHex(8)),
      sent_(metrics.counter("velmora_node_messages_total", "Messages between nodes.", "way=\"out\"")),
      received_(metrics.counter("velmora_node_messages_total", "Messages between nodes.", "way=\"in\"")),
      connected_(metrics.gauge("velmora_nats_up", "Whether the node hears the others.")) {}

NatsLink::~NatsLink() = default;

Result<std::unique_ptr<NatsLink>> NatsLink::open(const std::string& url, Queue& logic, Metrics& metrics) {
    std::unique_ptr<NatsLink> link(new NatsLink(logic, metrics));
    link->connection_ = std::make_unique<Connection>(*link, logic);
    Connection& connection = *link->connection_;
    natsStatus status = connection.open(url);
    for (const auto& subject : {fmt::format("{}{}", nodeSubject, link->node_), std::string(allSubject),
                                fmt::format("{}{}.*", answerSubject, link->node_)}) {
        if (status == NATS_OK) status = connection.listenAt(subject);
    }
    if (status != NATS_OK)
        return Failure{fmt::format("NATS at {}: {}", url, natsStatus_GetText(status)), status};
    return link;
}

void NatsLink::listenAt(HostNumber host) {
    connection_->listenAt(host);
}

void NatsLink::leave(HostNumber host) {
    connection_->leave(host);
}

void NatsLink::request(HostNumber host, std::string message, std::chrono::milliseconds limit, Answer answer) {
    assertOn(logic_);
    const std::uint64_t serial = ++requests_;
    const std::string replyTo = fmt::format("{}{}.{}", answerSubject, node_, serial);
    if (!up_ || !connection_->publish(subjectOf(host), message, replyTo.c_str())) return answer(std::nullopt);
    sent_.add();
    waiting_[serial] = {
        std::move(answer),
        logic_.after(limit, alive_.guard([this, serial] { answered(serial, std::nullopt); }))};
}

void NatsLink::answered(std::uint64_t serial, std::optional<std::string> answer) {
    auto waiting = waiting_.extract(serial);
    if (!waiting.empty()) waiting.mapped().answer(std::move(answer));
}

void NatsLink::sendToHost(HostNumber host, std::string message) {
    if (up_ && connection_->publishPlainly(subjectOf(host), message)) sent_.add();
}

void NatsLink::sendTo(const std::string& node, std::string message) {
    if (up_ && connection_->publishPlainly(fmt::format("{}{}", nodeSubject, node), message)) sent_.add();
}

void NatsLink::sendToAll(std::string message) {
    if (up_ && connection_->publishPlainly(allSubject, message)) sent_.add();
}

void NatsLink::arrived(const std::string& subject, std::string data, std::string replyTo, bool isNobody) {
    received_.add();
    const std::string_view name(subject);
    if (name.starts_with(answerSubject)) {
        const auto tail = name.substr(name.rfind('.') + 1);
        std::uint64_t serial = 0;
        std::from_chars(tail.data(), tail.data() + tail.size(), serial);
        return answered(serial, isNobody ? std::nullopt : std::optional(std::move(data)));
    }
    if (!name.starts_with(hostSubject)) {
        if (onMessage) onMessage(std::move(data));
        return;
    }
    const auto host = hostNumberOf(name.substr(hostSubject.size()));
    if (!host || !onRequest) return;
    onRequest(*host, std::move(data),
              alive_.guard([this, replyTo = std::move(replyTo)](const std::string& answer) {
                  if (!replyTo.empty() && connection_->publishPlainly(replyTo, answer)) sent_.add();
              }));
}

void NatsLink::changed(bool up) {
    if (up_.exchange(up) == up) return;
    connected_.set(up ? 1 : 0);
    serviceLog(up ? "NATS: connected to the other nodes" : "NATS: connection lost; going on alone");
    if (up) return;
    // Nobody will answer these any more.
    auto waiting = std::exchange(waiting_, {});
    for (auto& [serial, one] : waiting) one.answer(std::nullopt);
}

}  // namespace velmora
