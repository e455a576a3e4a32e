#pragma once

#include "platform/watch/PreContentGroup.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

/// What has to be there before an access may go on.
enum class Need {
    Nothing,  ///< it may go on
    Refused,  ///< it must not cause a recall, and fails
    Range,    ///< the pieces that it reads
    Data,     ///< all data, and the times: programs look at both
    Ended,    ///< the same on the disk: what they write must not be recalled over after a power cut
    Truncate, ///< nothing, unless the recall has begun: what is in the file is given up
    Unclear,  ///< the same as `Ended`, until more is known
};

struct FileKey {
    dev_t device;
    ino_t inode;
    bool operator==(const FileKey&) const = default;
    bool operator<(const FileKey& other) const {
        return std::pair(device, inode) < std::pair(other.device, other.inode);
    }
};

/// A stub, or what may be one, and the accesses that wait for it. Not locked by itself.
class ServedStub {
public:
    using Clock = std::chrono::steady_clock;

    /// `cause` tells who asked first.
    ServedStub(PreContentGroup& group, FileKey key, std::string name, std::string cause)
        : m_group(group), m_key(key), m_name(std::move(name)), m_cause(std::move(cause)) {}

    const FileKey& key() const { return m_key; }
    const std::string& name() const { return m_name; }
    const std::string& cause() const { return m_cause; }
    Clock::time_point since() const { return m_since; }
    std::uint64_t bytes() const { return m_bytes; }
    /// Of one of the accesses, or of one that was answered already.
    int fd() const { return m_fd.get(); }

    /// Takes the access over, or lets it go on at once.
    void add(const HeldAccess& access, Need need);

    using IsAlive = std::function<bool(pid_t)>;
    /// Whether somebody was let through to truncate the file, and may not have done so when this was asked
    /// last. Whether he may is for the kernel to say, so the service does it for nobody.
    bool isBeingTruncated(const IsAlive& isAlive, Clock::time_point now);
    /// From now on whoever wants to truncate it waits for the end of its recall.
    void close() { m_begun = true; }

    /// Asks for each access whose need is not clear what it is.
    void reconsider(const std::function<Need(const HeldAccess&)>& needOf);

    /// Somebody else holds the file, which has so many blocks now. When to look again; nothing if this has
    /// gone on for long, and the file has not grown.
    std::optional<Clock::time_point> heldUp(long long blocks, Clock::time_point now);

    /// The recall has begun; so many pieces are to come, of `pieceSize` bytes each.
    void begin(std::uint64_t pieces, std::uint64_t pieceSize);
    /// A piece that is missing: one that somebody waits for, else the first from `after` on, else the first.
    /// Nothing if all are there.
    std::optional<std::uint64_t> wanted(std::uint64_t after) const;
    /// A piece is there. Answers those who waited for nothing more.
    void fill(std::uint64_t piece);
    /// So many further bytes are there.
    void count(std::uint64_t bytes) { m_bytes += bytes; }

    /// The data and the times are there. Answers those who waited for nothing more.
    void settle();

    /// Answers all: the file is what they may see, or they get `err`.
    void allowAll();
    void denyAll(int err);
    /// Those whose thread is not known.
    void denyUnknown(int err);

    size_t waiting() const { return m_waiting.size(); }
    void forEachWaiting(const std::function<void(const HeldAccess&)>& act) const;
    /// Whether somebody waits still. Who was killed meanwhile counts no more.
    bool isAwaited(const IsAlive& isAlive);
    /// Whether somebody may be looking at a part of the data.
    bool isSeen() const { return m_seen; }
    /// Whether nobody has asked for the data: all accesses so far were refused, or to truncate it.
    bool isUnasked() const { return (m_refused || m_letTruncate) && m_waiting.empty() && !m_seen; }
    /// Unless somebody may, forgets all pieces that are there. False if somebody may.
    bool takeBack();
    /// Whether somebody waits of whom it is not known yet what he does.
    bool isUnclear() const;

private:
    struct Waiting {
        HeldAccess access;
        Need need;
    };
    struct Truncating {
        pid_t tid;
        Clock::time_point since;
    };

    bool take(const Waiting& waiting);
    void answerMet();
    bool isMet(const Waiting& waiting) const;
    bool isThere(const HeldAccess& access) const;
    void allow(const Waiting& waiting);

    PreContentGroup& m_group;
    FileKey m_key;
    std::string m_name;
    std::string m_cause;
    Clock::time_point m_since = Clock::now();
    std::uint64_t m_bytes = 0;
    UniqueFd m_fd;
    std::vector<Waiting> m_waiting;
    std::vector<Truncating> m_truncating;
    std::vector<bool> m_filled;
    std::uint64_t m_pieceSize = 1;
    Clock::time_point m_heldSince{};
    long long m_heldBlocks = -1;
    bool m_begun = false;
    bool m_settled = false;
    bool m_seen = false;
    bool m_refused = false;
    bool m_letTruncate = false;
};
