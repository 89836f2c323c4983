// How a connection is driven, and what the library needs help with.
//
// The shape. ngtcp2 is a pure state machine already: it is given packets and the time, and asked for packets.
// This class keeps that shape and adds what the application needs: ordered byte streams whose data stays put
// until acknowledged, a queue of datagrams (the library never queues one), one description of the end. Who
// calls it owns sockets, threads and clocks. The rhythm is always the same: `receive` and `handleDeadline`
// change the state, then one `write` fills a batch, then the deadline is read again.
//
// A round of writing puts streams first (a key press must not wait behind a picture), then datagrams; while a
// stream has much to send they take turns, packet by packet (nor must the picture wait for a clipboard). If
// neither has anything, whatever the library itself wants to say: acknowledgements, probes, keep-alives. That
// last call also marks the connection as limited by the application, so it is left out while data waits: the
// bandwidth estimate would believe that we have no more to send. After a round the library is told once when
// it happened; its pacing counts from there, and a round ends at the burst size that it names.
//
// Four weaknesses of ngtcp2 0.12 shape this file.
//
// 1. A lost acknowledgement may stall a video stream for ever. Packets with only a DATAGRAM frame elicit an
//    acknowledgement but do not start the probe timer. When the congestion window is full of such packets and
//    the last acknowledgement is lost, no timer is left to run: nothing is declared lost, nothing may be
//    sent, the streams included, and the peer's keep-alives hold the idle time-out off. So every packet that
//    carries a datagram also carries three bytes that do start the timer: a NEW_TOKEN frame with a token of
//    one byte. It is retransmittable, any client may ignore it, and only a server can send it, which is where
//    the datagrams are. Per packet, not per burst: with one per burst the stall was still seen. At a host
//    such a token may come back in a later connection attempt; what is not one of our Retry tokens counts as
//    none (QuicAdmission). A viewer sends one datagram of one byte and cannot fill the window.
// 2. The library offers to "grease" the QUIC bit (RFC 9287) and then clears 0x40 in the first byte on half of
//    all connections. Nothing here or in the port's dispatch may look at that bit. We ourselves keep it set,
//    for the sake of boxes on the way: the bit's decision is the only draw of a single random byte, and the
//    random callback answers it with an even number.
// 3. BBR never leaves its start-up phase while the application limits the rate, which a video stream always
//    does. So congestion control does not protect a narrow path from video: the host's rate control does,
//    from the statistics given here. BBR is still the choice, since loss-based control collapses at 1 %
//    random loss.
// 4. A packet that a probe time-out has looked at is forgotten in silence when it is lost: of the datagrams
//    that an outage took nothing is told. Who waits for that word would leave an old picture on a screen that
//    rests. So we keep a list of our own, and what is still on it a good while later, when an acknowledgement
//    shows that the path is alive, is lost.
//
// Smaller traps, each met once: a datagram of no bytes is an assertion in the library. A datagram that has
// become too large for the path (paths shrink when a peer moves) is refused with the same 0 that means "not
// now", so sizes are checked against the path before each call; so is a stream write that the peer's window
// for the whole connection stops, so windows are asked for. A grant of no more than half the first window is
// kept back until more comes together. Vectors given to a stream write must not move until acknowledged,
// hence a deque of vectors that are never touched again. The TLS session is freed after the connection that
// points into it. An idle connection is closed without a packet; one that we closed keeps its CLOSE packet
// and repeats it to a peer that still sends, less and less often.
//
// Times are microseconds of the host clock; the library counts nanoseconds, so its deadlines are rounded up:
// rounded down they would wake us just too early, again and again.

#include "Platform/Linux/Network/QuicConnection.h"

#include <fmt/format.h>
#include <gnutls/crypto.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

namespace velmora {

namespace {

constexpr std::size_t maxPacketBytes = 1452;  // what Ethernet carries under IPv6; the path may allow less
constexpr std::size_t anchorBytes = 3;        // NEW_TOKEN: type, length 1, one byte
constexpr std::size_t datagramHeader = 3;     // DATAGRAM: type, two bytes of length
constexpr std::size_t shortHeaderRest = 1 + 4 + 16;  // first byte, longest packet number, AEAD tag
constexpr std::size_t maxVectors = 16;
constexpr std::uint64_t noTime = std::numeric_limits<std::uint64_t>::max();

ngtcp2_tstamp stampOf(HostClock::time_point t) {
    return HostClock::micros(t) * 1000;
}

HostClock::time_point timeOf(ngtcp2_tstamp stamp) {
    if (stamp == noTime) return HostClock::time_point::max();
    return HostClock::time_point(HostClock::duration(static_cast<std::int64_t>((stamp + 999) / 1000)));
}

ngtcp2_duration spanOf(std::chrono::milliseconds span) {
    return static_cast<ngtcp2_duration>(span.count()) * NGTCP2_MILLISECONDS;
}

std::chrono::microseconds microsOf(ngtcp2_duration span) {
    return std::chrono::microseconds(static_cast<std::int64_t>(span / 1000));
}

std::string_view viewOf(const ngtcp2_cid& id) {
    return {reinterpret_cast<const char*>(id.data), id.datalen};
}

ngtcp2_cid randomId(std::size_t length) {
    ngtcp2_cid id{};
    id.datalen = length;
    gnutls_rnd(GNUTLS_RND_NONCE, id.data, length);
    return id;
}

/// Stateless resets are never sent (a stranger could fish for them); the tokens only fill their field.
const std::array<std::uint8_t, 32>& resetSecret() {
    static const auto secret = [] {
        std::array<std::uint8_t, 32> bytes{};
        gnutls_rnd(GNUTLS_RND_KEY, bytes.data(), bytes.size());
        return bytes;
    }();
    return secret;
}

std::string describe(const ngtcp2_connection_close_error& error) {
    const bool application = error.type == NGTCP2_CONNECTION_CLOSE_ERROR_CODE_TYPE_APPLICATION;
    const std::string_view reason(reinterpret_cast<const char*>(error.reason),
                                  error.reason ? error.reasonlen : 0);
    if (!application && error.error_code >= 0x100 && error.error_code < 0x200) {
        return fmt::format("the other side refused the handshake (TLS alert {}){}{}",
                           error.error_code - 0x100, reason.empty() ? "" : ": ", reason);
    }
    return fmt::format("closed by the other side with {} code {}{}{}", application ? "application" : "QUIC",
                       error.error_code, reason.empty() ? "" : ": ", reason);
}

}  // namespace

struct QuicConnection::Callbacks {
    static QuicConnection& self(void* user) { return *static_cast<QuicConnection*>(user); }

    static void random(std::uint8_t* out, std::size_t count, const ngtcp2_rand_ctx*) {
        gnutls_rnd(GNUTLS_RND_NONCE, out, count);
        if (count == 1) out[0] &= 0xfe;  // keeps our QUIC bit set
    }
    static int newConnectionId(ngtcp2_conn*, ngtcp2_cid* id, std::uint8_t* token, std::size_t length,
                               void* user) {
        *id = randomId(length);
        const auto& secret = resetSecret();
        if (ngtcp2_crypto_generate_stateless_reset_token(token, secret.data(), secret.size(), id) != 0)
            return NGTCP2_ERR_CALLBACK_FAILURE;
        self(user).observer_.onConnectionId(viewOf(*id));
        return 0;
    }
    static int retireConnectionId(ngtcp2_conn*, const ngtcp2_cid* id, void* user) {
        self(user).observer_.onConnectionIdRetired(viewOf(*id));
        return 0;
    }
    static int handshakeCompleted(ngtcp2_conn*, void* user) {
        return self(user).becomeReady() ? 0 : NGTCP2_ERR_CALLBACK_FAILURE;
    }
    static int streamData(ngtcp2_conn*, std::uint32_t flags, std::int64_t stream, std::uint64_t,
                          const std::uint8_t* data, std::size_t size, void* user, void*) {
        self(user).observer_.onStreamData(stream, {data, size}, (flags & NGTCP2_STREAM_DATA_FLAG_FIN) != 0);
        return 0;
    }
    static OutgoingStream* outgoing(void* user, std::int64_t id) {
        const auto found = self(user).streams_.find(id);
        return found == self(user).streams_.end() ? nullptr : &found->second;
    }
    static int streamAcknowledged(ngtcp2_conn*, std::int64_t id, std::uint64_t offset, std::uint64_t size,
                                  void* user, void*) {
        if (auto* const stream = outgoing(user, id)) {
            stream->acknowledgeUpTo(offset + size);
            self(user).pathIsAlive_ = true;
            if (self(user).isLong(*stream)) self(user).widenBackground(*stream, size);
        }
        return 0;
    }
    static int streamReset(ngtcp2_conn*, std::int64_t stream, std::uint64_t, std::uint64_t code, void* user,
                           void*) {
        self(user).observer_.onStreamReset(stream, code);
        return 0;
    }
    static int stopSending(ngtcp2_conn*, std::int64_t id, std::uint64_t, void* user, void*) {
        if (auto* const stream = outgoing(user, id)) stream->refuse();
        return 0;
    }
    static int streamClosed(ngtcp2_conn*, std::uint32_t, std::int64_t id, std::uint64_t, void* user, void*) {
        if (auto* const stream = outgoing(user, id)) stream->close();
        return 0;
    }
    static int datagram(ngtcp2_conn*, std::uint32_t, const std::uint8_t* data, std::size_t size, void* user) {
        self(user).observer_.onDatagram({data, size});
        return 0;
    }
    static int datagramAcknowledged(ngtcp2_conn*, std::uint64_t id, void* user) {
        if (self(user).sentDatagrams_.settle(id)) ++self(user).counts_.datagramsAcked;
        self(user).pathIsAlive_ = true;
        return 0;
    }
    static int datagramLost(ngtcp2_conn*, std::uint64_t id, void* user) {
        if (const auto tag = self(user).sentDatagrams_.settle(id)) self(user).tellLost(*tag);
        return 0;
    }

    static ngtcp2_callbacks table(QuicTls::Role role) {
        ngtcp2_callbacks table{};
        if (role == QuicTls::Role::server) {
            table.recv_client_initial = ngtcp2_crypto_recv_client_initial_cb;
        } else {
            table.client_initial = ngtcp2_crypto_client_initial_cb;
            table.recv_retry = ngtcp2_crypto_recv_retry_cb;
        }
        table.recv_crypto_data = ngtcp2_crypto_recv_crypto_data_cb;
        table.encrypt = ngtcp2_crypto_encrypt_cb;
        table.decrypt = ngtcp2_crypto_decrypt_cb;
        table.hp_mask = ngtcp2_crypto_hp_mask_cb;
        table.update_key = ngtcp2_crypto_update_key_cb;
        table.delete_crypto_aead_ctx = ngtcp2_crypto_delete_crypto_aead_ctx_cb;
        table.delete_crypto_cipher_ctx = ngtcp2_crypto_delete_crypto_cipher_ctx_cb;
        table.get_path_challenge_data = ngtcp2_crypto_get_path_challenge_data_cb;
        table.version_negotiation = ngtcp2_crypto_version_negotiation_cb;
        table.rand = random;
        table.get_new_connection_id = newConnectionId;
        table.remove_connection_id = retireConnectionId;
        table.handshake_completed = handshakeCompleted;
        table.recv_stream_data = streamData;
        table.acked_stream_data_offset = streamAcknowledged;
        table.stream_reset = streamReset;
        table.stream_stop_sending = stopSending;
        table.stream_close = streamClosed;
        table.recv_datagram = datagram;
        table.ack_datagram = datagramAcknowledged;
        table.lost_datagram = datagramLost;
        return table;
    }

    static ngtcp2_settings settings(const Parameters& parameters, TimePoint now) {
        ngtcp2_settings settings;
        ngtcp2_settings_default(&settings);
        settings.initial_ts = stampOf(now);
        settings.cc_algo = NGTCP2_CC_ALGO_BBR;
        settings.initial_rtt = 100 * NGTCP2_MILLISECONDS;  // a lost first packet costs 0.3 s, not a second
        settings.handshake_timeout = spanOf(parameters.handshakeTimeout);
        settings.max_tx_udp_payload_size = maxPacketBytes;
        return settings;
    }
    static ngtcp2_transport_params transport(const Parameters& parameters, QuicTls::Role role) {
        ngtcp2_transport_params transport;
        ngtcp2_transport_params_default(&transport);
        transport.max_idle_timeout = spanOf(parameters.idleTimeout);
        transport.max_datagram_frame_size = parameters.maxDatagramFrame;
        transport.initial_max_data = parameters.streamWindow;
        transport.initial_max_stream_data_bidi_local = parameters.streamWindow;
        transport.initial_max_stream_data_bidi_remote = parameters.streamWindow;
        transport.initial_max_streams_bidi = role == QuicTls::Role::server ? parameters.maxStreams : 0;
        transport.active_connection_id_limit = 7;
        return transport;
    }
};

QuicConnection::QuicConnection(std::shared_ptr<const QuicTls> tls, Observer& observer,
                               const Parameters& parameters, const SocketAddress& local,
                               const SocketAddress& remote)
    : tls_(std::move(tls)), observer_(observer), parameters_(parameters), local_(local), remote_(remote) {
    reference_.user_data = this;
    reference_.get_conn = [](ngtcp2_crypto_conn_ref* reference) {
        return static_cast<QuicConnection*>(reference->user_data)->connection_;
    };
}

QuicConnection::~QuicConnection() {
    if (connection_) ngtcp2_conn_del(connection_);
}

ngtcp2_path QuicConnection::pathTo(const SocketAddress& remote) {
    const auto address = [](const SocketAddress& a) {
        return ngtcp2_addr{const_cast<sockaddr*>(a.raw()), a.rawSize()};
    };
    return {address(local_), address(remote), nullptr};
}

Result<std::unique_ptr<QuicConnection>> QuicConnection::connectTo(
    const SocketAddress& remote, const SocketAddress& local, std::shared_ptr<const QuicTls> tls,
    Observer& observer, const Parameters& parameters, TimePoint now) {
    std::unique_ptr<QuicConnection> made(
        new QuicConnection(std::move(tls), observer, parameters, local, remote));
    const ngtcp2_cid theirs = randomId(18);
    const ngtcp2_cid ours = randomId(idLength);
    const ngtcp2_path path = made->pathTo(remote);
    const auto callbacks = Callbacks::table(QuicTls::Role::client);
    auto settings = Callbacks::settings(parameters, now);
    settings.token = {const_cast<std::uint8_t*>(parameters.firstToken.data()), parameters.firstToken.size()};
    const auto transport = Callbacks::transport(parameters, QuicTls::Role::client);
    if (const int status =
            ngtcp2_conn_client_new(&made->connection_, &theirs, &ours, &path, NGTCP2_PROTO_VER_V1, &callbacks,
                                   &settings, &transport, nullptr, made.get());
        status != 0)
        return Failure{ngtcp2_strerror(status)};
    if (const Status attached = made->attachTls(); !attached) return attached.error();
    observer.onConnectionId(viewOf(ours));
    return made;
}

Result<std::unique_ptr<QuicConnection>> QuicConnection::accept(
    const Initial& initial, const SocketAddress& remote, const SocketAddress& local,
    std::shared_ptr<const QuicTls> tls, Observer& observer, const Parameters& parameters, TimePoint now) {
    std::unique_ptr<QuicConnection> made(
        new QuicConnection(std::move(tls), observer, parameters, local, remote));
    const ngtcp2_cid ours = randomId(idLength);
    const ngtcp2_path path = made->pathTo(remote);
    const auto callbacks = Callbacks::table(QuicTls::Role::server);
    auto settings = Callbacks::settings(parameters, now);
    auto transport = Callbacks::transport(parameters, QuicTls::Role::server);
    transport.original_dcid = initial.originalId.value_or(initial.header.dcid);
    if (initial.originalId) {
        transport.retry_scid = initial.header.dcid;
        transport.retry_scid_present = 1;
        settings.token = initial.header.token;  // proves the address: the library may answer at full length
    }
    if (const int status = ngtcp2_conn_server_new(&made->connection_, &initial.header.scid, &ours, &path,
                                                  initial.header.version, &callbacks, &settings, &transport,
                                                  nullptr, made.get());
        status != 0)
        return Failure{ngtcp2_strerror(status)};
    if (const Status attached = made->attachTls(); !attached) return attached.error();
    observer.onConnectionId(viewOf(initial.header.dcid));
    observer.onConnectionId(viewOf(ours));
    return made;
}

Status QuicConnection::attachTls() {
    session_ = tls_->makeSession(reference_);
    if (!session_) return Failure{"no TLS session could be made"};
    ngtcp2_conn_set_tls_native_handle(connection_, session_.get());
    ngtcp2_conn_set_keep_alive_timeout(connection_, spanOf(parameters_.keepAlive));
    return Done{};
}

bool QuicConnection::becomeReady() {
    if (!tls_->agreedOnProtocol(session_.get())) {
        wrongProtocol_ = true;
        return false;
    }
    ready_ = true;
    observer_.onReady();
    return true;
}

void QuicConnection::receive(ByteView packet, const SocketAddress& from, TimePoint now) {
    if (phase_ == Phase::closing) {
        ++packetsWhileClosing_;
        // The 1st, 2nd, 4th, 8th ... packet is answered: enough against loss, no echo of a flood.
        repeatClose_ = repeatClose_ || (packetsWhileClosing_ & (packetsWhileClosing_ - 1)) == 0;
        return;
    }
    if (phase_ != Phase::open) return;
    const ngtcp2_path path = pathTo(from);
    const ngtcp2_pkt_info info{};
    const int status =
        ngtcp2_conn_read_pkt(connection_, &path, &info, packet.data(), packet.size(), stampOf(now));
    if (status != 0) return fail(status, "reading", now);
    if (std::exchange(pathIsAlive_, false)) settleOverdueDatagrams(now);
}

void QuicConnection::settleOverdueDatagrams(TimePoint now) {
    ngtcp2_conn_stat stat{};
    ngtcp2_conn_get_conn_stat(connection_, &stat);
    const auto limit = now - parameters_.lossIsCertain - 2 * std::chrono::nanoseconds(stat.smoothed_rtt);
    while (const auto tag =
               sentDatagrams_.settleOldestBefore(std::chrono::time_point_cast<TimePoint::duration>(limit)))
        tellLost(*tag);
}

void QuicConnection::tellLost(std::uint64_t tag) {
    ++counts_.datagramsLost;
    observer_.onDatagramLost(tag);
}

QuicConnection::TimePoint QuicConnection::deadline() const {
    if (phase_ == Phase::gone) return TimePoint::min();
    if (phase_ != Phase::open) return closeToSend_ || repeatClose_ ? TimePoint::min() : lingerUntil_;
    return timeOf(ngtcp2_conn_get_expiry(connection_));
}

void QuicConnection::handleDeadline(TimePoint now) {
    if (phase_ == Phase::gone) return;
    if (phase_ != Phase::open) {
        if (now >= lingerUntil_ && !closeToSend_) phase_ = Phase::gone;
        return;
    }
    if (timeOf(ngtcp2_conn_get_expiry(connection_)) > now) return;
    if (const int status = ngtcp2_conn_handle_expiry(connection_, stampOf(now)); status != 0)
        fail(status, "waiting", now);
}

void QuicConnection::close(std::uint64_t code) {
    if (phase_ != Phase::open) return;
    ngtcp2_connection_close_error error;
    ngtcp2_connection_close_error_default(&error);
    ngtcp2_connection_close_error_set_application_error(&error, code, nullptr, 0);
    closeToSend_ = error;
    phase_ = Phase::closing;
    observer_.onEnd({.clean = code == 0, .error = {0, fmt::format("closed here with code {}", code)}});
}

/// The connection cannot go on after `status`, which a library call gave.
void QuicConnection::fail(int status, std::string_view what, TimePoint now) {
    if (phase_ != Phase::open) return;
    ngtcp2_connection_close_error error;
    ngtcp2_connection_close_error_default(&error);
    switch (status) {
        case NGTCP2_ERR_DRAINING: {
            ngtcp2_conn_get_connection_close_error(connection_, &error);
            end(Phase::draining, {.clean = error.error_code == 0, .error = {0, describe(error)}}, now);
            return;
        }
        case NGTCP2_ERR_IDLE_CLOSE:
            end(Phase::gone, {.error = {ETIMEDOUT, "nothing heard from the other side for too long"}}, now);
            return;
        case NGTCP2_ERR_HANDSHAKE_TIMEOUT:
            end(Phase::gone, {.error = {ETIMEDOUT, "the other side didn't answer in time"}}, now);
            return;
        case NGTCP2_ERR_RECV_VERSION_NEGOTIATION:
            end(Phase::gone, {.error = {EPROTO, "the other side speaks another version of QUIC"}}, now);
            return;
        case NGTCP2_ERR_DROP_CONN:
        case NGTCP2_ERR_RETRY:
            end(Phase::gone, {.error = {EPROTO, fmt::format("{}: {}", what, ngtcp2_strerror(status))}}, now);
            return;
        default:
            break;
    }
    std::string text = fmt::format("{}: {}", what, ngtcp2_strerror(status));
    if (wrongProtocol_) {
        constexpr std::uint8_t noApplicationProtocol = 120;  // RFC 7301
        ngtcp2_connection_close_error_set_transport_error_tls_alert(&error, noApplicationProtocol, nullptr,
                                                                    0);
        text = fmt::format("the other side doesn't speak {}", QUICSetup::alpn);
    } else if (status == NGTCP2_ERR_CRYPTO) {
        const std::uint8_t alert = ngtcp2_conn_get_tls_alert(connection_);
        ngtcp2_connection_close_error_set_transport_error_tls_alert(&error, alert, nullptr, 0);
        text = fmt::format("TLS handshake failed (alert {})", alert);
    } else {
        ngtcp2_connection_close_error_set_transport_error_liberr(&error, status, nullptr, 0);
    }
    closeToSend_ = error;
    end(Phase::closing, {.error = {EPROTO, std::move(text)}}, now);
}

void QuicConnection::end(Phase next, End end, TimePoint now) {
    phase_ = next;
    lingerFrom(now);
    observer_.onEnd(end);
}

void QuicConnection::lingerFrom(TimePoint now) {
    const auto wait = 3 * microsOf(ngtcp2_conn_get_pto(connection_));
    lingerUntil_ = now + std::min<HostClock::duration>(wait, parameters_.maxLinger);
}

void QuicConnection::writeClose(PacketBatch& out, TimePoint now) {
    if (closeToSend_) {
        ngtcp2_path_storage path;
        ngtcp2_path_storage_zero(&path);
        ngtcp2_pkt_info info;
        const auto room = out.room(maxPacketBytes);
        const auto size = ngtcp2_conn_write_connection_close(connection_, &path.path, &info, room.data(),
                                                             room.size(), &*closeToSend_, stampOf(now));
        closeToSend_.reset();
        lingerFrom(now);
        if (size <= 0) {  // before any key exists there is nothing to say and nobody to say it to
            phase_ = Phase::gone;
            return;
        }
        closePacket_.assign(room.begin(), room.begin() + size);
        remote_ = SocketAddress::from(path.path.remote.addr, path.path.remote.addrlen).value_or(remote_);
        out.add(static_cast<std::size_t>(size), remote_);
        return;
    }
    if (std::exchange(repeatClose_, false) && !closePacket_.empty()) out.add(ByteView(closePacket_), remote_);
}

void QuicConnection::write(PacketBatch& out, TimePoint now) {
    if (phase_ == Phase::closing) return writeClose(out, now);
    if (phase_ != Phase::open) return;
    const ngtcp2_tstamp time = stampOf(now);
    const std::size_t quantum = ngtcp2_conn_get_send_quantum(connection_);
    ngtcp2_path_storage path;
    ngtcp2_path_storage_zero(&path);
    for (std::size_t written = 0; written == 0 || written + maxPacketBytes <= quantum;) {
        const ngtcp2_ssize size = writePacket(out.room(maxPacketBytes), path.path, time);
        if (size < 0) {
            fail(static_cast<int>(size), "writing", now);
            return writeClose(out, now);
        }
        if (size == 0) break;
        anchorPending_ = false;
        written += static_cast<std::size_t>(size);
        // The peer's address is the same for all but a few packets of a connection's life.
        if (path.path.remote.addrlen != remote_.rawSize() ||
            std::memcmp(path.path.remote.addr, remote_.raw(), remote_.rawSize()) != 0) {
            out.add(static_cast<std::size_t>(size),
                    SocketAddress::from(path.path.remote.addr, path.path.remote.addrlen).value_or(remote_));
            continue;
        }
        out.add(static_cast<std::size_t>(size), remote_);
    }
    ngtcp2_conn_update_pkt_tx_time(connection_, time);
    remote_ = remote();
}

/// The size of the packet written; 0: nothing may be sent now; below 0: the connection has failed.
ngtcp2_ssize QuicConnection::writePacket(std::span<std::uint8_t> room, ngtcp2_path& path,
                                         ngtcp2_tstamp time) {
    if (datagramsAreDue_ &&
        std::ranges::any_of(streams_, [&](const auto& entry) { return isLong(entry.second); })) {
        if (const auto size = writeDatagrams(room, path, time)) {
            datagramsAreDue_ = *size <= 0;
            return *size;
        }
    }
    const bool areDatagramsFlowing = timeOf(time) - lastDatagram_ < parameters_.datagramsRest;
    for (auto& [id, stream] : streams_) {
        if (!stream.wantsToWrite()) continue;
        if (areDatagramsFlowing && isLong(stream) && stream.underWay() >= background_.bytes()) continue;
        bool again = false;
        const auto size = writeStream(id, stream, room, path, time, again);
        if (again) continue;
        datagramsAreDue_ = datagramsAreDue_ || size > 0;
        return size;
    }
    if (const auto size = writeDatagrams(room, path, time)) return *size;
    return ngtcp2_conn_writev_stream(connection_, &path, nullptr, room.data(), room.size(), nullptr,
                                     NGTCP2_WRITE_STREAM_FLAG_NONE, -1, nullptr, 0, time);
}

void QuicConnection::widenBackground(const OutgoingStream& stream, std::uint64_t arrived) {
    ngtcp2_conn_stat stat;
    ngtcp2_conn_get_conn_stat(connection_, &stat);
    const auto queue = stat.latest_rtt - std::min(stat.latest_rtt, stat.min_rtt);
    background_.acknowledged(arrived, stream.underWay(), microsOf(queue));
}

/// `again`: this stream cannot go on, others may.
ngtcp2_ssize QuicConnection::writeStream(std::int64_t id, OutgoingStream& stream,
                                         std::span<std::uint8_t> room, ngtcp2_path& path, ngtcp2_tstamp time,
                                         bool& again) {
    // The peer's window for all streams is asked for by hand: a write that it stops returns 0, as one that
    // congestion control stops, and the datagrams behind would wait for the peer to read.
    const bool windowClosed = ngtcp2_conn_get_max_data_left(connection_) == 0 ||
                              ngtcp2_conn_get_max_stream_data_left(connection_, id) == 0;
    if (stream.hasBytes() && windowClosed) {
        again = true;
        return 0;
    }
    std::array<ByteView, maxVectors> pieces;
    const auto next = stream.next(pieces);
    std::array<ngtcp2_vec, maxVectors> vectors;
    std::ranges::transform(std::span(pieces).first(next.count), vectors.begin(), [](ByteView piece) {
        return ngtcp2_vec{const_cast<std::uint8_t*>(piece.data()), piece.size()};
    });
    ngtcp2_ssize taken = -1;
    const auto size =
        ngtcp2_conn_writev_stream(connection_, &path, nullptr, room.data(), room.size(), &taken,
                                  next.isLast ? NGTCP2_WRITE_STREAM_FLAG_FIN : NGTCP2_WRITE_STREAM_FLAG_NONE,
                                  id, vectors.data(), next.count, time);
    if (taken >= 0) stream.accept(static_cast<std::size_t>(taken), next.isLast);
    switch (size) {
        case NGTCP2_ERR_STREAM_DATA_BLOCKED:
            again = true;
            return 0;
        case NGTCP2_ERR_STREAM_SHUT_WR:
        case NGTCP2_ERR_STREAM_NOT_FOUND:
            stream.refuse();
            again = true;
            return 0;
        default:
            return size;
    }
}

std::optional<ngtcp2_ssize> QuicConnection::writeDatagrams(std::span<std::uint8_t> room, ngtcp2_path& path,
                                                           ngtcp2_tstamp time) {
    while (ready_ && !datagrams_.isEmpty()) {
        bool again = false;
        const auto size = writeDatagram(room, path, time, again);
        if (!again) return size;
    }
    return std::nullopt;
}

/// `again`: the first datagram is gone, the next may be tried.
ngtcp2_ssize QuicConnection::writeDatagram(std::span<std::uint8_t> room, ngtcp2_path& path,
                                           ngtcp2_tstamp time, bool& again) {
    const DatagramQueue::Entry& first = datagrams_.front();
    const auto usable = usableDatagramSize();
    if (!usable || first.bytes->size() > *usable) {
        ++counts_.datagramsDropped;
        datagrams_.dropFront();
        again = true;
        return 0;
    }
    const bool canAnchor = parameters_.anchorDatagrams && tls_->role() == QuicTls::Role::server;
    if (canAnchor && !anchorPending_ && ngtcp2_conn_get_cwnd_left(connection_) > 0) {
        constexpr std::uint8_t token = 0;
        anchorPending_ = ngtcp2_conn_submit_new_token(connection_, &token, 1) == 0;
    }
    const ngtcp2_vec bytes{const_cast<std::uint8_t*>(first.bytes->data()), first.bytes->size()};
    int accepted = 0;
    const auto size = ngtcp2_conn_writev_datagram(connection_, &path, nullptr, room.data(), room.size(),
                                                  &accepted, NGTCP2_WRITE_DATAGRAM_FLAG_NONE,
                                                  sentDatagrams_.nextId(), &bytes, 1, time);
    if (size == NGTCP2_ERR_INVALID_ARGUMENT || size == NGTCP2_ERR_INVALID_STATE) {
        ++counts_.datagramsDropped;
        datagrams_.dropFront();
        again = true;
        return 0;
    }
    if (accepted != 0) {
        ++counts_.datagramsSent;
        counts_.bytesSent += first.bytes->size();
        lastDatagram_ = timeOf(time);
        sentDatagrams_.add(first.tag, lastDatagram_);
        datagrams_.dropFront();
    }
    return size;
}

SocketAddress QuicConnection::remote() const {
    const ngtcp2_path* path = ngtcp2_conn_get_path(connection_);
    return SocketAddress::from(path->remote.addr, path->remote.addrlen).value_or(remote_);
}

std::optional<std::int64_t> QuicConnection::openStream() {
    std::int64_t id = -1;
    if (!ready_ || phase_ != Phase::open || ngtcp2_conn_open_bidi_stream(connection_, &id, nullptr) != 0)
        return std::nullopt;
    streams_.try_emplace(id);
    return id;
}

void QuicConnection::sendOnStream(std::int64_t id, Bytes data) {
    streams_[id].add(std::move(data));
}

void QuicConnection::finishStream(std::int64_t id) {
    streams_[id].finish();
}

void QuicConnection::grantStream(std::int64_t id, std::uint64_t bytes) {
    if (phase_ != Phase::open) return;
    ngtcp2_conn_extend_max_stream_offset(connection_, id, bytes);
    ngtcp2_conn_extend_max_offset(connection_, bytes);
}

std::uint64_t QuicConnection::acceptedOnStream(std::int64_t id) const {
    const auto found = streams_.find(id);
    return found == streams_.end() ? 0 : found->second.accepted();
}

bool QuicConnection::isStreamDelivered(std::int64_t id) const {
    const auto found = streams_.find(id);
    return found != streams_.end() && found->second.isDelivered();
}

bool QuicConnection::isStreamRefused(std::int64_t id) const {
    const auto found = streams_.find(id);
    return found != streams_.end() && found->second.isRefused();
}

std::optional<std::size_t> QuicConnection::usableDatagramSize() const {
    if (!ready_ || phase_ != Phase::open) return std::nullopt;
    const auto* peer = ngtcp2_conn_get_remote_transport_params(connection_);
    if (!peer || peer->max_datagram_frame_size <= datagramHeader) return std::nullopt;
    const std::size_t packet = ngtcp2_conn_get_path_max_tx_udp_payload_size(connection_);
    const std::size_t around = shortHeaderRest + ngtcp2_conn_get_dcid(connection_)->datalen + datagramHeader +
                               (tls_->role() == QuicTls::Role::server ? anchorBytes : 0);
    if (packet <= around) return std::nullopt;
    return std::min<std::size_t>(packet - around, peer->max_datagram_frame_size - datagramHeader);
}

PathStatistics QuicConnection::statistics() const {
    PathStatistics statistics = counts_;
    ngtcp2_conn_stat now;
    ngtcp2_conn_get_conn_stat(connection_, &now);
    statistics.smoothedRtt = microsOf(now.smoothed_rtt);
    if (now.min_rtt != noTime) statistics.minRtt = microsOf(now.min_rtt);
    statistics.latestRtt = microsOf(now.latest_rtt);
    statistics.congestionWindow = now.cwnd;
    statistics.bytesInFlight = now.bytes_in_flight;
    return statistics;
}

}  // namespace velmora
