#include "service/Repair.h"

#include "service/FileRights.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

void flush(int fd, const OpenFile& file) {
    if (::fsync(fd) < 0)
        throw systemFailure("Failed to flush ", file.name(), errno);
}

/// The file is whole: what makes it look like a stub goes.
void makePlain(StubKind& kind, const OpenFile& file, const FileLook& look, int fd) {
    if (look.marked)
        checked(kind.backEnd(), kind.backEnd().restoreDone(kind.pathOf(file).c_str(), true, {}));
    dropKeptText(file);
    flush(fd, file);
}

void putTimeBack(const OpenFile& file, const FileLook& look) {
    constexpr long long kSecond = 1'000'000'000;
    const size_t at = look.meta.find(kModified);
    if (at == std::string::npos)
        return;
    const long long modified = std::atoll(look.meta.c_str() + at + std::strlen(kModified));
    putTimesBack(file, look.st.st_atim, {modified / kSecond, modified % kSecond});
}

/// The text that is kept comes back into the file, which is a stub then.
void makeStub(StubKind& kind, const OpenFile& file, const FileLook& look, int fd) {
    kind.putBack(file.path(), {look.text.begin(), look.text.end()}, look.recordedSize);
    putTimeBack(file, look);
    flush(fd, file);
    dropKeptText(file);
    flush(fd, file);
}

} // namespace

void repair(StubKind& kind, const OpenFile& file, bool dryRun, Observer& observer) {
    const UniqueFd fd = kind.hold(file);
    const FileLook look = kind.look(file, true);
    const std::string& name = file.name();
    void (*wayOut)(StubKind&, const OpenFile&, const FileLook&, int) = nullptr;
    std::string outcome;
    switch (look.state) {
    case FileState::Plain:
        return observer.skipped(name, "there is nothing to mend");
    case FileState::Stub:
        if (!look.kept)
            return observer.skipped(name, "there is nothing to mend");
        wayOut = [](StubKind&, const OpenFile& stub, const FileLook&, int flushable) {
            dropKeptText(stub);
            flush(flushable, stub);
        };
        outcome = "a stub, whose text was kept twice";
        break;
    case FileState::MarkedWhole:
    case FileState::Leftover:
        wayOut = makePlain;
        outcome = "an ordinary file, whole";
        break;
    case FileState::Emptied:
    case FileState::HalfRecalled:
        wayOut = makeStub;
        outcome = "a stub again, to be recalled";
        break;
    case FileState::ChangedStub:
        throw Failure(QZHSM_FAILURE, name + " was changed since it was stubbed: " + look.why,
                      "\"qzhsm recall --force\" gives the change up.");
    case FileState::Copy:
        throw Failure(QZHSM_FAILURE, name + " is a copy of a stub, and holds no data");
    case FileState::Lost:
        throw Failure(QZHSM_FAILURE, name + " is marked and empty, and nothing on it tells where its data is",
                      "The records of the store, files named *.json, have the path that each object had.");
    }
    if (!dryRun)
        wayOut(kind, file, look, fd.get());
    observer.done(name,
                  std::string(nameOf(look.state)) + (dryRun ? ", would be made " : ", is now ") + outcome);
}
