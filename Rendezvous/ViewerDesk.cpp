#include "Rendezvous/ViewerDesk.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "Rendezvous/Secrets.h"

namespace velmora {
namespace {

using Json = nlohmann::json;
constexpr std::size_t longestPassword = 64;

struct Question {
    std::string id, password;
};

std::optional<std::vector<Question>> questionsIn(std::string_view body, std::size_t most) {
    const Json object = Json::parse(body.begin(), body.end(), nullptr, /*allow_exceptions=*/false);
    const auto list = object.is_object() ? object.find("devices") : object.end();
    if (!object.is_object() || list == object.end() || !list->is_array() || list->size() > most) {
        return std::nullopt;
    }
    std::vector<Question> questions;
    for (const Json& device : *list) {
        const auto text = [&](const char* key) {
            const auto found = device.is_object() ? device.find(key) : device.end();
            return device.is_object() && found != device.end() && found->is_string()
                       ? found->get<std::string>()
                       : std::string();
        };
        questions.push_back({text("id"), text("password")});
    }
    return questions;
}

}  // namespace

/// A device list's question while its parts are being answered.
struct ViewerDesk::Poll {
    DevicesReply reply;
    HostClock::time_point asked;
    std::size_t open = 0;
    std::vector<Json> answers;  // as they were asked: another order would tell which came from another node
    TimerToken due;
};

ViewerDesk::ViewerDesk(Services services, Parameters parameters)
    : services_(std::move(services)),
      parameters_(parameters),
      connected_(services_.metrics.gauge("velmora_viewers", "Viewers at this node.")),
      joins_(services_.metrics.counter("velmora_joins_total", "Viewers that asked for a host.")),
      polls_(services_.metrics.counter("velmora_device_polls_total",
                                       "Device lists that asked who is online.")) {}

std::string_view ViewerDesk::codeOf(Outcome outcome) {
    switch (outcome) {
        case Outcome::here:
            return "here";
        case Outcome::offline:
            return "offline";
        case Outcome::busy:
            return "busy";
        case Outcome::wrongPassword:
            return "wrong_password";
        case Outcome::locked:
            return "locked";
        case Outcome::rateLimited:
            return "rate_limited";
    }
    return {};
}

HostClock::duration ViewerDesk::untilRefusal(HostClock::time_point asked) const {
    const auto late = (services_.queue.now() - asked) % parameters_.refusal;
    return parameters_.refusal - late;
}

// Checking

void ViewerDesk::check(std::string_view idText, const ClientAddress& from, nodes::Ask ask, Done done) {
    const auto id = hostNumberOf(idText);
    if (!id || ask.password.size() > longestPassword) return done({Outcome::wrongPassword, {}});
    const GuessLimiter::Try attempt{*id, from.network, services_.seen.markOf(*id)};
    switch (services_.limiter.admit(attempt, services_.queue.now())) {
        case GuessLimiter::Verdict::locked:
            return done({Outcome::locked, {}});
        case GuessLimiter::Verdict::rateLimited:
            return done({Outcome::rateLimited, {}});
        case GuessLimiter::Verdict::allowed:
            break;
    }
    const auto here = services_.hosts.ask(*id, ask);
    if (here.kind != nodes::Verdict::Kind::absent) {
        return judge(*id, from.network, ask.password, here, std::move(done));
    }
    services_.link.request(
        *id, nodes::encode(ask), parameters_.otherNodes,
        alive_.guard([this, id = *id, source = from.network, password = ask.password,
                      done = std::move(done)](std::optional<std::string> answer) mutable {
            const auto message = answer ? nodes::decode(*answer) : std::nullopt;
            const auto* verdict = message ? std::get_if<nodes::Verdict>(&*message) : nullptr;
            judge(id, source, password, verdict ? *verdict : nodes::Verdict{}, std::move(done));
        }));
}

void ViewerDesk::judge(HostNumber id, const std::string& source, const std::string& password,
                       const nodes::Verdict& verdict, Done done) {
    using Kind = nodes::Verdict::Kind;
    const auto now = services_.queue.now();
    const bool right = verdict.kind == Kind::absent ? services_.seen.matches(id, password, services_.clock())
                                                    : verdict.kind != Kind::wrongPassword;
    if (!right) {
        const auto mark = GuessLimiter::markOf(id, password);
        services_.link.sendToAll(nodes::encode(nodes::Guess{hostIdOf(id), source, mark}));
        if (services_.limiter.wrong(id, source, mark, now)) services_.hosts.warn(id);
        return done({Outcome::wrongPassword, {}});
    }
    services_.limiter.right({id, source, services_.seen.markOf(id)}, now);
    if (verdict.kind == Kind::here) return done({Outcome::here, verdict.hostname});
    done({verdict.kind == Kind::busy ? Outcome::busy : Outcome::offline, {}});
}

// Joining

void ViewerDesk::receive(const std::shared_ptr<ClientPort>& port, const rendezvous::Join& join) {
    const SocketId socket = port->id();
    if (knows(socket)) return port->close(CloseReason::policy, "joined already");
    joins_.add();
    connected_.add(1);
    const auto asked = services_.queue.now();
    const std::string clientId = randomHex(16);
    Viewer& viewer = viewers_[socket];
    viewer.port = port;
    viewer.clientId = clientId;
    viewer.host = hostNumberOf(join.id).value_or(HostNumber{});
    byClientId_[clientId] = socket;
    auto done = [this, socket, clientId, asked, host = viewer.host](const Checked& checked) {
        const auto found = viewers_.find(socket);
        if (found != viewers_.end() && found->second.clientId == clientId) {
            return settle(found->second, checked, asked);
        }
        // It left while another node was asking the host.
        if (checked.outcome == Outcome::here) {
            tellHostThatItLeft({.clientId = clientId, .host = host, .state = Viewer::State::introduced});
        }
    };
    if (!services_.limiter.admitAttempt(port->address().network, asked))
        return done({Outcome::rateLimited, {}});
    check(join.id, port->address(),
          {.password = join.password,
           .clientId = clientId,
           .node = services_.link.node(),
           .clientName = join.clientName,
           .clientAddress = port->address().text,
           .agent = join.agent},
          std::move(done));
}

void ViewerDesk::settle(Viewer& viewer, const Checked& checked, HostClock::time_point asked) {
    services_.metrics
        .counter("velmora_join_outcomes_total", "What viewers were told.",
                 fmt::format("outcome=\"{}\"", codeOf(checked.outcome)))
        .add();
    if (checked.outcome == Outcome::here) {
        viewer.state = Viewer::State::introduced;
        viewer.port->settle();
        viewer.port->send(rendezvous::encode(rendezvous::JoinPending{.hostname = checked.hostname}));
        return;
    }
    viewer.state = Viewer::State::refused;
    viewer.refusal = services_.queue.after(
        untilRefusal(asked), alive_.guard([this, clientId = viewer.clientId, outcome = checked.outcome] {
            deliver(clientId, rendezvous::Error{.message = "The connection was refused.",
                                                .code = std::string(codeOf(outcome))});
        }));
}

void ViewerDesk::deliver(const std::string& clientId, const rendezvous::ToClient& message) {
    const auto found = byClientId_.find(clientId);
    if (found == byClientId_.end()) return;
    const auto viewer = viewers_.find(found->second);
    viewer->second.port->send(rendezvous::encode(message));
    if (std::holds_alternative<rendezvous::Accepted>(message)) return;
    byClientId_.erase(found);
    viewers_.erase(viewer);
    connected_.add(-1);
}

void ViewerDesk::receive(SocketId socket, const rendezvous::ViewerCandidates& candidates) {
    const auto found = viewers_.find(socket);
    if (found == viewers_.end() || found->second.state != Viewer::State::introduced) return;
    if (!isSocketAddress(candidates.mapped)) return;
    const Viewer& viewer = found->second;
    services_.hosts.viewerIsAt(viewer.host, viewer.clientId, candidates.mapped);
    services_.link.sendToHost(viewer.host, nodes::encode(nodes::FromViewer{
                                               hostIdOf(viewer.host), viewer.clientId, candidates.mapped}));
}

void ViewerDesk::leave(SocketId socket) {
    const auto found = viewers_.find(socket);
    if (found == viewers_.end()) return;
    const Viewer viewer = std::move(found->second);
    viewers_.erase(found);
    byClientId_.erase(viewer.clientId);
    connected_.add(-1);
    tellHostThatItLeft(viewer);
}

void ViewerDesk::tellHostThatItLeft(const Viewer& viewer) {
    if (viewer.state != Viewer::State::introduced) return;
    services_.hosts.viewerLeft(viewer.host, viewer.clientId);
    services_.link.sendToHost(viewer.host,
                              nodes::encode(nodes::FromViewer{hostIdOf(viewer.host), viewer.clientId, {}}));
}

// Device lists

void ViewerDesk::devices(const ClientAddress& from, std::string_view body, DevicesReply reply) {
    const auto questions = questionsIn(body, parameters_.mostDevices);
    if (!questions) return reply(std::nullopt);
    polls_.add();
    auto poll = std::make_shared<Poll>();
    poll->reply = std::move(reply);
    poll->asked = services_.queue.now();
    poll->open = 1;
    const auto closeOne = [this, poll] {
        if (--poll->open > 0) return;
        poll->due = services_.queue.after(untilRefusal(poll->asked), alive_.guard([poll] {
            std::erase_if(poll->answers, [](const Json& one) { return one.is_null(); });
            const Json answer{{"devices", std::move(poll->answers)}};
            poll->reply(answer.dump(-1, ' ', false, Json::error_handler_t::replace));
        }));
    };
    if (services_.limiter.admitAttempt(from.network, poll->asked)) {
        for (const Question& question : *questions) {
            const std::size_t place = poll->answers.size();
            poll->answers.emplace_back();
            ++poll->open;
            check(question.id, from, {.password = question.password},
                  [poll, place, closeOne, id = question.id](const Checked& checked) {
                      const Outcome outcome = checked.outcome;
                      if (outcome != Outcome::rateLimited) {
                          poll->answers[place] = {{"id", id},
                                                  {"online", outcome == Outcome::here},
                                                  {"passwordChanged", outcome == Outcome::wrongPassword},
                                                  {"locked", outcome == Outcome::locked}};
                      }
                      closeOne();
                  });
        }
    }
    closeOne();
}

}  // namespace velmora
