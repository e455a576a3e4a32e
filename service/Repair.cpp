#include "service/Repair.h"

#include "service/FileIo.h"
#include "service/FileRights.h"
#include "service/Flush.h"
#include "service/stores/Content.h"
#include "service/stores/StubMetadata.h"

#include <fcntl.h>

namespace {

void endPlain(StubKind& kind, const OpenFile& file, const FileLook& look, int fd) {
    makePlain(kind, file, look);
    flushOne(fd, file.name());
}

/// The file is a stub: what was kept is not needed any more.
void endStub(StubKind&, const OpenFile& file, const FileLook& look, int fd) {
    putTimesBack(file, look.st.st_atim, look.kept->modified);
    dropKeptText(file);
    flushOne(fd, file.name());
}

/// The text that is kept comes back into the file, which is a stub then.
void makeStub(StubKind& kind, const OpenFile& file, const FileLook& look, int fd) {
    kind.putBack(file.path(), {look.text.begin(), look.text.end()}, look.recordedSize);
    flushOne(fd, file.name());
    endStub(kind, file, look, fd);
}

/// Whether a recall that was cut off had written all. Then this may be the last copy.
bool isWholeData(const OpenFile& file, const FileLook& look) {
    const std::optional<StubMetadata> known = StubMetadata::fromText(look.meta);
    if (!known || look.st.st_size != look.recordedSize)
        return false;
    const auto size = static_cast<std::uint64_t>(look.st.st_size);
    return checksumsOf(file.open(O_RDONLY).get(), file.name(), size).whole == known->xxh128;
}

void endRecall(StubKind& kind, const OpenFile& file, const FileLook& look, int fd) {
    flushOne(fd, file.name()); // before the mark goes
    putTimesBack(file, look.st.st_atim, look.kept->modified);
    endPlain(kind, file, look, fd);
}

} // namespace

void makePlain(StubKind& kind, const OpenFile& file, const FileLook& look) {
    if (look.marked)
        checked(kind.backEnd(), kind.backEnd().restoreDone(kind.pathOf(file).c_str(), true, {}));
    dropKeptText(file);
}

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
        wayOut = endStub;
        outcome = "a stub, whose text was kept twice";
        break;
    case FileState::MarkedWhole:
    case FileState::Leftover:
        wayOut = endPlain;
        outcome = "an ordinary file, whole";
        break;
    case FileState::HalfRecalled:
        if (isWholeData(file, look)) {
            wayOut = endRecall;
            outcome = "an ordinary file, whole";
            break;
        }
        [[fallthrough]];
    case FileState::Emptied:
        wayOut = makeStub;
        outcome = "a stub again, to be recalled";
        break;
    case FileState::HalfMarked:
        if (!look.text.empty() && allocatedBytes(look.st) < look.st.st_size)
            throw Failure(QZHSM_FAILURE, name + " is half marked as a stub, and its data is not all here",
                          "\"qzhsm restore-stub\" completes it. Its metadata is " + look.meta);
        wayOut = [](StubKind& marking, const OpenFile& marked, const FileLook&, int flushable) {
            marking.clearMarks(marking.pathOf(marked));
            flushOne(flushable, marked.name());
        };
        outcome = "an ordinary file, whole";
        break;
    case FileState::ChangedStub:
        throw Failure(QZHSM_FAILURE, name + " was changed since it was stubbed: " + look.why,
                      "\"qzhsm recall --force\" gives the change up.");
    case FileState::Copy:
        throw Failure(QZHSM_FAILURE, name + " is a copy of a stub, and holds no data", kCopyAdvice);
    case FileState::Lost:
        if (look.holdsData)
            throw Failure(QZHSM_FAILURE,
                          name +
                              " is marked as a stub and has holes, and nothing on it tells whether its data "
                              "is its own or was written into a stub",
                          "If it is its own, \"setfattr -x user.NkStubFile\" makes it an ordinary file.");
        throw Failure(QZHSM_FAILURE, name + " is marked and empty, and nothing on it tells where its data is",
                      "The records of the store, files named *.json, have the path that each object had.");
    }
    if (!dryRun) {
        requireUntouched(file, look); // a comparison may have taken long
        wayOut(kind, file, look, fd.get());
    }
    observer.done(name,
                  std::string(nameOf(look.state)) + (dryRun ? ", would be made " : ", is now ") + outcome);
}
