#include "service/stores/Content.h"

#include "service/Failure.h"
#include "service/FileIo.h"

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::uint64_t kHoleStep = 1UL << 30; // between two reports

class NoSink : public ContentSink {
    void data(std::uint64_t, const char*, size_t) override {}
    void hole(const Extent&) override {}
};

[[noreturn]] void becameShorter(const ObjectRecord& record) {
    throw Failure(QZHSM_BUSY, record.path + " became shorter while it was read");
}

/// Where the data that begins at `at` ends. A file system that knows no holes has data only.
std::uint64_t endOfData(int fd, std::uint64_t at, const ObjectRecord& record) {
    if (record.holes.size() >= ObjectRecord::kHolesMax)
        return record.size;
    const off_t end = ::lseek(fd, static_cast<off_t>(at), SEEK_HOLE);
    return end < 0 ? record.size : std::min(static_cast<std::uint64_t>(end), record.size);
}

std::uint64_t endOfHole(int fd, std::uint64_t at, const ObjectRecord& record) {
    const off_t end = ::lseek(fd, static_cast<off_t>(at), SEEK_DATA);
    if (end >= 0)
        return std::min(static_cast<std::uint64_t>(end), record.size);
    struct stat st {};
    if (errno != ENXIO || ::fstat(fd, &st) < 0) // which is the answer if no data follows
        throw systemFailure("Failed to look for holes in ", record.path, errno);
    if (static_cast<std::uint64_t>(st.st_size) < record.size)
        becameShorter(record);
    return record.size;
}

} // namespace

ContentSink::~ContentSink() = default;

void readContent(int fd, ObjectRecord& record, ContentSink& sink, const OnBytes& onBytes) {
    const std::uint64_t room = std::min(record.size, kCopyBuffer);
    const auto buffer = std::make_unique_for_overwrite<char[]>(room);
    ChecksumStream sums;
    record.holes.clear();
    std::uint64_t at = 0;
    const auto advance = [&](std::uint64_t size) {
        at += size;
        if (onBytes)
            onBytes(at);
    };
    while (at < record.size) {
        const std::uint64_t dataEnd = endOfData(fd, at, record);
        while (at < dataEnd) {
            const size_t got =
                readAt(fd, buffer.get(), std::min(room, dataEnd - at), static_cast<off_t>(at), record.path);
            if (got == 0)
                becameShorter(record);
            sums.add(buffer.get(), got);
            sink.data(at, buffer.get(), got);
            advance(got);
        }
        if (at == record.size)
            break;
        const std::uint64_t holeEnd = endOfHole(fd, at, record);
        if (holeEnd > at)
            record.holes.push_back({at, holeEnd - at});
        while (at < holeEnd) {
            const Extent step{at, std::min(holeEnd - at, kHoleStep)};
            sums.addZeros(step.length);
            sink.hole(step);
            advance(step.length);
        }
    }
    record.checksums = sums.finish();
}

Checksums checksumsOf(int fd, const std::string& name, std::uint64_t size) {
    ObjectRecord record;
    record.path = name;
    record.size = size;
    NoSink sink;
    readContent(fd, record, sink, {});
    return record.checksums;
}
