#include "service/Failure.h"
#include "service/stores/DirectoryMarker.h"
#include "service/stores/ObjectRecord.h"

#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace {

/// Data and holes are the whole content, each part once.
void checkParts(const ObjectRecord& record) {
    std::uint64_t bytes = 0;
    std::uint64_t end = 0;
    for (const Extent& part : record.dataWithin({0, record.size})) {
        if (part.offset < end || part.length == 0)
            std::abort();
        end = part.end();
        bytes += part.length;
    }
    for (const Extent& hole : record.holes)
        bytes += hole.length;
    if (bytes != record.size || end > record.size)
        std::abort();
}

/// For a store's marker; it goes with the process.
struct Scratch {
    ~Scratch() { std::filesystem::remove_all(path); }

    char name[32] = "/dev/shm/qzhsm-fuzz-XXXXXX";
    const char* path = ::mkdtemp(name);
    UniqueFd directory{::open(path, O_RDONLY | O_DIRECTORY)};
};

} // namespace

/// A record or marker that is accepted is written as it was understood, and then reads the same.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        const ObjectRecord record = ObjectRecord::fromText(text);
        const std::string written = record.toText();
        const ObjectRecord again = ObjectRecord::fromText(written);
        if (again.toText() != written || again.path != record.path || again.holes != record.holes ||
            !(again.checksums == record.checksums))
            std::abort();
        checkParts(record);
    } catch (const Failure&) { // it is damaged
    }
    static const Scratch scratch;
    const int directory = scratch.directory.get();
    const UniqueFd marker(::openat(directory, "qzhsm-store.json", O_WRONLY | O_CREAT | O_TRUNC, 0600));
    if (::write(marker.get(), data, size) != static_cast<ssize_t>(size))
        std::abort();
    try {
        if (!ObjectId::parse(readMarker(directory, "the store")))
            std::abort();
    } catch (const Failure&) { // it is none
    }
    return 0;
}
