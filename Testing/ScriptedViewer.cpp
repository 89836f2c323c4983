#include "Testing/ScriptedViewer.h"

#include <algorithm>
#include <utility>

namespace velmora {

ScriptedViewer::ScriptedViewer(TransportStack& stack, Queue& queue, Options options)
    : queue_(queue), options_(options) {
    QUICSetup::Parameters parameters;
    parameters.verification = QUICSetup::TrustOnFirstUse{[](const std::string&) { return true; }};
    group_ = stack.connectTo(Endpoint::hostPort("127.0.0.1", options_.port), parameters);
    group_->onState = [this](TransportState state, const std::optional<TransportError>& why) {
        if (state == TransportState::ready) begin();
        if (state != TransportState::failed && state != TransportState::cancelled) return;
        if (!ended) ended = state;
        if (!error) error = why;
    };
    group_->start(queue_);
}

ScriptedViewer::~ScriptedViewer() {
    close();
}

void ScriptedViewer::close() {
    if (flow_) {
        flow_->onDatagram = nullptr;
        flow_->cancel();
    }
    if (connection_) {
        connection_->onMessage = nullptr;
        connection_->onStateChange = nullptr;
        connection_->cancel();
    }
    if (group_) group_->onState = nullptr;
    if (!connection_) group_->cancel();
}

void ScriptedViewer::begin() {
    isConnected = true;
    connection_ = std::make_shared<MessageConnection>(group_->openStream(), queue_);
    connection_->onMessage = [this](MessageType type, Bytes payload) {
        if (type == MessageType::videoFrame) {
            if (auto frame = VideoFrame::decode(payload)) frames.push_back(*std::move(frame));
        }
        received.push_back({type, std::move(payload)});
    };
    connection_->onStateChange = [this](TransportState state, const std::optional<TransportError>& why) {
        if (state != TransportState::failed && state != TransportState::cancelled) return;
        ended = state;
        error = why;
    };
    connection_->start();
    if (options_.takesDatagrams) flow_ = group_->openDatagramFlow();
    if (flow_) {
        flow_->onDatagram = [this](Bytes datagram) {
            ++datagrams;
            if (dropsDatagram && dropsDatagram(datagram)) return;
            take(reassembler_.add(std::move(datagram), secondsOf(queue_.now())));
        };
        flow_->start(queue_);
        flow_->send({std::make_shared<const Bytes>(1, std::uint8_t{0})}, 0);
    }
    for (const Message& message : std::exchange(waiting_, {})) send(message.type, message.payload);
}

void ScriptedViewer::take(VideoReassembler::Output output) {
    for (const Bytes& record : output.frames) {
        if (auto frame = VideoFrame::decode(record)) frames.push_back(*std::move(frame));
    }
}

void ScriptedViewer::send(MessageType type, ByteView payload) {
    if (connection_) {
        connection_->send(type, payload);
    } else {
        waiting_.push_back({type, Bytes(payload.begin(), payload.end())});
    }
}

int ScriptedViewer::countOf(MessageType type) const {
    return static_cast<int>(std::ranges::count(received, type, &Message::type));
}

std::vector<std::string> ScriptedViewer::logLines() const {
    std::vector<std::string> lines;
    for (const Message& message : received) {
        if (message.type == MessageType::log) lines.push_back(textOf(message.payload));
    }
    return lines;
}

bool ScriptedViewer::hasLogLine(std::string_view line) const {
    const auto lines = logLines();
    return std::ranges::find(lines, line) != lines.end();
}

namespace {

template <class Record>
std::optional<Record> lastIn(const std::vector<ScriptedViewer::Message>& messages, MessageType type) {
    for (auto message = messages.rbegin(); message != messages.rend(); ++message) {
        if (message->type != type) continue;
        if (auto record = Record::decode(message->payload)) return *std::move(record);
    }
    return std::nullopt;
}

}  // namespace

std::optional<Denied> ScriptedViewer::denied() const {
    return lastIn<Denied>(received, MessageType::denied);
}

std::optional<StreamConfig> ScriptedViewer::lastConfig() const {
    return lastIn<StreamConfig>(received, MessageType::streamConfig);
}

std::optional<DisplayList> ScriptedViewer::lastDisplayList() const {
    return lastIn<DisplayList>(received, MessageType::displayList);
}

}  // namespace velmora
