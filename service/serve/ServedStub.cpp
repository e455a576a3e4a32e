#include "service/serve/ServedStub.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>

void ServedStub::add(const HeldAccess& access, Need need) {
    if (!m_fd.isOpen())
        m_fd = UniqueFd(::fcntl(access.fd, F_DUPFD_CLOEXEC, 0));
    const Waiting waiting{access, need};
    if (!take(waiting))
        m_waiting.push_back(waiting);
}

/// Lets it go on, if it may.
bool ServedStub::take(const Waiting& waiting) {
    if (waiting.need == Need::Truncate && !m_begun) {
        m_letTruncate = true;
        m_truncating.push_back({waiting.access.tid, Clock::now()});
        m_group.allow(waiting.access.fd);
        return true;
    }
    if (!isMet(waiting))
        return false;
    allow(waiting);
    return true;
}

bool ServedStub::isBeingTruncated(const IsAlive& isAlive, Clock::time_point now) {
    constexpr auto kLongest = std::chrono::seconds(1); // the kernel may not let him
    const bool wasTruncated = !m_truncating.empty();
    std::erase_if(m_truncating, [&](const Truncating& truncating) {
        return now - truncating.since >= kLongest || !isAlive(truncating.tid);
    });
    return wasTruncated;
}

std::optional<ServedStub::Clock::time_point> ServedStub::heldUp(long long blocks, Clock::time_point now) {
    using namespace std::chrono_literals;
    if (std::exchange(m_heldBlocks, blocks) != blocks)
        m_heldSince = now;
    const Clock::duration waited = now - m_heldSince;
    if (waited >= 60s)
        return {};
    if (waited >= 1s) // whoever holds it may wait here himself, for a process that died had heard of him
        denyUnknown(EIO);
    return now + std::clamp<Clock::duration>(waited / 4, 1ms, 1s);
}

void ServedStub::begin(std::uint64_t pieces, std::uint64_t pieceSize) {
    m_filled.assign(pieces, false);
    m_begun = true;
    m_pieceSize = pieceSize;
}

bool ServedStub::isThere(const HeldAccess& access) const {
    if (m_filled.empty())
        return false;
    const std::uint64_t first = access.offset / m_pieceSize;
    const std::uint64_t end = access.offset + std::max<std::uint64_t>(access.count, 1);
    for (std::uint64_t piece = first; piece < m_filled.size() && piece * m_pieceSize < end; ++piece)
        if (!m_filled[piece])
            return false;
    return true;
}

bool ServedStub::isMet(const Waiting& waiting) const {
    switch (waiting.need) {
    case Need::Range:
        return m_settled || isThere(waiting.access);
    case Need::Data:
        return m_settled;
    case Need::Ended:
    case Need::Truncate:
    case Need::Unclear:
    case Need::Refused:
        break;
    case Need::Nothing:
        return true;
    }
    return false;
}

void ServedStub::reconsider(const std::function<Need(const HeldAccess&)>& needOf) {
    std::erase_if(m_waiting, [&](Waiting& waiting) {
        if (waiting.need != Need::Unclear)
            return false;
        waiting.need = needOf(waiting.access);
        if (waiting.need != Need::Refused)
            return take(waiting);
        m_group.deny(waiting.access.fd, EIO);
        m_refused = true;
        return true;
    });
}

void ServedStub::allow(const Waiting& waiting) {
    m_seen = true;
    m_group.allow(waiting.access.fd);
}

std::optional<std::uint64_t> ServedStub::wanted(std::uint64_t after) const {
    const std::uint64_t none = m_filled.size();
    for (const Waiting& waiting : m_waiting) {
        if (waiting.need != Need::Range)
            continue;
        const std::uint64_t first = waiting.access.offset / m_pieceSize;
        for (std::uint64_t piece = first; piece < none; ++piece)
            if (!m_filled[piece])
                return piece;
    }
    const auto begin = m_filled.begin() + static_cast<std::ptrdiff_t>(std::min(after, none));
    auto found = std::find(begin, m_filled.end(), false);
    if (found == m_filled.end())
        found = std::find(m_filled.begin(), m_filled.end(), false);
    if (found == m_filled.end())
        return {};
    return static_cast<std::uint64_t>(found - m_filled.begin());
}

void ServedStub::fill(std::uint64_t piece) {
    m_filled[piece] = true;
    answerMet();
}

void ServedStub::settle() {
    m_settled = true;
    answerMet();
}

bool ServedStub::takeBack() {
    if (m_seen)
        return false;
    begin(m_filled.size(), m_pieceSize);
    m_settled = false;
    return true;
}

void ServedStub::answerMet() {
    std::erase_if(m_waiting, [&](const Waiting& waiting) {
        const bool met = isMet(waiting);
        if (met)
            allow(waiting);
        return met;
    });
}

void ServedStub::forEachWaiting(const std::function<void(const HeldAccess&)>& act) const {
    for (const Waiting& waiting : m_waiting)
        act(waiting.access);
}

void ServedStub::allowAll() {
    for (const Waiting& waiting : m_waiting)
        allow(waiting);
    m_waiting.clear();
}

void ServedStub::denyAll(int err) {
    for (const Waiting& waiting : m_waiting)
        m_group.deny(waiting.access.fd, err);
    m_waiting.clear();
}

bool ServedStub::isAwaited(const IsAlive& isAlive) {
    const auto alive = std::ranges::find_if(m_waiting, [&](const Waiting& waiting) {
        return waiting.access.tid == 0 || isAlive(waiting.access.tid);
    });
    for (auto dead = m_waiting.begin(); dead != alive; ++dead)
        m_group.deny(dead->access.fd, EIO);
    m_waiting.erase(m_waiting.begin(), alive);
    return !m_waiting.empty();
}

void ServedStub::denyUnknown(int err) {
    std::erase_if(m_waiting, [&](const Waiting& waiting) {
        if (waiting.access.tid == 0)
            m_group.deny(waiting.access.fd, err);
        return waiting.access.tid == 0;
    });
}

bool ServedStub::isUnclear() const {
    return std::ranges::any_of(m_waiting,
                               [](const Waiting& waiting) { return waiting.need == Need::Unclear; });
}
