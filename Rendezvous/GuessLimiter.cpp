#include "Rendezvous/GuessLimiter.h"

#include <algorithm>
#include <cstring>

#include "Rendezvous/Secrets.h"

namespace velmora {

std::size_t GuessLimiter::PairHash::operator()(const Pair& pair) const {
    return std::hash<std::string>{}(pair.source) * 31 + static_cast<std::size_t>(pair.id);
}

void GuessLimiter::Allowance::recover(double perSecond, HostClock::time_point now) {
    used = std::max(0.0, used - std::chrono::duration<double>(now - at).count() * perSecond);
    at = now;
}

bool GuessLimiter::Allowance::take(double limit) {
    if (used + 1 > limit) return false;
    used += 1;
    return true;
}

GuessLimiter::GuessLimiter(Parameters parameters)
    : parameters_(parameters),
      pairs_({parameters.remembered, 2 * parameters.lock}),
      trusted_({parameters.remembered, parameters.trust}),
      ids_({parameters.remembered, 2 * parameters.lock}),
      sources_({parameters.remembered, 2 * parameters.lock}) {}

GuessLimiter::Source& GuessLimiter::source(const std::string& name, HostClock::time_point now) {
    Source& source = sources_.touch(name, now);
    source.guesses.recover(1.0 / std::chrono::duration<double>(parameters_.sourceRecovery).count(), now);
    source.attempts.recover(parameters_.attemptsOfSource / 60, now);
    source.registrations.recover(parameters_.registrationsOfSource / 3600, now);
    return source;
}

bool GuessLimiter::isTrusted(const Try& attempt, HostClock::time_point now) {
    const auto* proof = trusted_.find({attempt.id, attempt.source}, now);
    return proof && attempt.proof == *proof;
}

bool GuessLimiter::admitAttempt(const std::string& name, HostClock::time_point now) {
    return source(name, now).attempts.take(parameters_.attemptsOfSource);
}

GuessLimiter::Verdict GuessLimiter::admit(const Try& attempt, HostClock::time_point now) {
    const Count* own = pairs_.find({attempt.id, attempt.source}, now);
    if (own && now < own->lockedUntil) return Verdict::locked;
    if (isTrusted(attempt, now)) return Verdict::allowed;
    if (const Count* all = ids_.find(attempt.id, now); all && now < all->lockedUntil) return Verdict::locked;
    const bool left = source(attempt.source, now).guesses.take(parameters_.guessesOfSource);
    return left ? Verdict::allowed : Verdict::rateLimited;
}

bool GuessLimiter::admitRegistration(const Try& attempt, HostClock::time_point now) {
    if (isTrusted(attempt, now)) return true;
    return source(attempt.source, now).registrations.take(parameters_.registrationsOfSource);
}

bool GuessLimiter::addTo(Count& count, int limit, HostClock::time_point now) const {
    if (count.guesses == 0 || now - count.since >= parameters_.lock) {
        count.guesses = 0;
        count.since = now;
    }
    if (++count.guesses < limit) return false;
    count.guesses = 0;
    count.lockedUntil = now + parameters_.lock;
    return true;
}

bool GuessLimiter::wrong(HostNumber id, const std::string& name, std::uint64_t mark,
                         HostClock::time_point now) {
    Count& pair = pairs_.touch({id, name}, now);
    if (pair.lastMark == mark) {
        source(name, now).guesses.giveBack();
        return false;
    }
    pair.lastMark = mark;
    addTo(pair, parameters_.guessesOfPair, now);
    return addTo(ids_.touch(id, now), parameters_.guessesAtId, now);
}

bool GuessLimiter::wrongElsewhere(HostNumber id, const std::string& name, std::uint64_t mark,
                                  HostClock::time_point now) {
    source(name, now).guesses.used += 1;
    return wrong(id, name, mark, now);
}

void GuessLimiter::right(const Try& attempt, HostClock::time_point now) {
    if (!isTrusted(attempt, now)) source(attempt.source, now).guesses.giveBack();
    if (attempt.proof) trusted_.touch({attempt.id, attempt.source}, now) = *attempt.proof;
}

std::uint64_t GuessLimiter::markOf(HostNumber id, std::string_view password) {
    const Digest digest = sha256(viewOf(hostIdOf(id) + ":" + std::string(password)));
    std::uint64_t mark = 0;
    std::memcpy(&mark, digest.data(), sizeof mark);
    return mark;
}

}  // namespace velmora
