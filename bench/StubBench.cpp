#include "bench/Harness.h"
#include "lowlevel/QZHSMLowLevelCtx.h"
#include "platform/files/UniqueFd.h"
#include "platform/stub/StubMark.h"
#include "platform/stub/StubText.h"

#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <utime.h>

namespace {

constexpr const char* kProbe = "user.NkProbe"; // the attribute that the library asks for too
constexpr const char* kMeta = "versionGuid=2f1c8a4e-6f0b-4d0e-9d0a-3b8f5f7f9b11;location=pool7/000042";
constexpr int kSize = 64 * 1024;
constexpr time_t kLater = std::numeric_limits<time_t>::max(); // no file counts as modified since

/// A new file of `kSize` bytes of data, in place of one that may be there.
bool makeFile(const std::string& path) {
    static const std::string data(kSize, 'x');
    ::unlink(path.c_str());
    const UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600));
    return ::write(file.get(), data.data(), data.size()) == kSize;
}

/// The hole of a stub with `text` at its beginning.
bool writeStub(int fd, long long size, const std::string& text) {
    return ::lseek(fd, size - 1, SEEK_SET) >= 0 && ::write(fd, "", 1) == 1 && ::lseek(fd, 0, SEEK_SET) == 0 &&
           ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

std::string stubText() {
    std::string text(static_cast<size_t>(qzhsm_meta2stub(kMeta, kSize, nullptr, 0)), '\0');
    qzhsm_meta2stub(kMeta, kSize, text.data(), static_cast<int>(text.size()));
    return text;
}

/// The files of one batch: as many for the library's calls as for the bare ones.
class FilePairs {
public:
    FilePairs(const std::string& name, int batch) {
        for (int i = 0; i < batch; ++i) {
            m_ours.push_back(scratchPath(name + ".ours" + std::to_string(i)));
            m_bare.push_back(scratchPath(name + ".bare" + std::to_string(i)));
        }
    }

    const char* ours(int i) const { return m_ours[static_cast<size_t>(i)].c_str(); }
    const char* bare(int i) const { return m_bare[static_cast<size_t>(i)].c_str(); }

    void make() const {
        for (size_t i = 0; i < m_ours.size(); ++i) {
            makeFile(m_ours[i]);
            makeFile(m_bare[i]);
        }
    }
    void resize(off_t size) const {
        for (size_t i = 0; i < m_ours.size(); ++i)
            for (const std::string& path : {m_ours[i], m_bare[i]})
                static_cast<void>(::truncate(path.c_str(), size));
    }

private:
    std::vector<std::string> m_ours;
    std::vector<std::string> m_bare;
};

void isStub(benchmark::State& state, bool stub) {
    if (!requireAttributes(state))
        return;
    QZHSMLowLevelCtx registry(2);
    QZHSMLowLevel* backEnd = registry.getByFileName("");
    const std::string file = scratchPath("isStub");
    const char* path = file.c_str();
    if (!makeFile(file) || (stub && backEnd->stubFile(path, kMeta, kLater, kSize) < 0))
        return giveUp(state, "isStub: " + backEnd->m_errorText);

    measure(
        state, {stub ? "isStub/stub" : "isStub/plain", 64, 3, 0}, [] {},
        [&](int) { return (backEnd->isStub(path) == 1) == stub; },
        [&](int) {
            struct stat st {};
            char value = 0;
            return ::stat(path, &st) == 0 && ::getxattr(path, kProbe, nullptr, 0) < 0 &&
                   (::getxattr(path, kStubMark, &value, 1) == 1) == stub;
        });
}

void stubFile(benchmark::State& state) {
    if (!requireAttributes(state))
        return;
    QZHSMLowLevelCtx registry(2);
    QZHSMLowLevel* backEnd = registry.getByFileName("");
    constexpr int kBatch = 16;
    const FilePairs files("stubFile", kBatch);
    const std::string text = stubText();

    measure(
        state, {.name = "stubFile", .batch = kBatch, .syscalls = 12}, [&] { files.make(); },
        [&](int i) { return backEnd->stubFile(files.ours(i), kMeta, kLater, kSize) == 0; },
        [&](int i) {
            const char* path = files.bare(i);
            struct stat st {};
            if (::stat(path, &st) < 0 || ::getxattr(path, kProbe, nullptr, 0) >= 0 ||
                ::setxattr(path, kStubMark, &kStubMarkValue, 1, XATTR_CREATE) < 0)
                return false;
            {
                const UniqueFd file(::open(path, O_WRONLY));
                struct flock lock {};
                lock.l_type = F_WRLCK;
                lock.l_whence = SEEK_CUR;
                if (::fcntl(file.get(), F_GETLK, &lock) < 0 || ::ftruncate(file.get(), 0) < 0 ||
                    !writeStub(file.get(), st.st_size, text))
                    return false;
            }
            const utimbuf times{st.st_atime, st.st_mtime};
            return ::utime(path, &times) == 0;
        });
}

void backupStub(benchmark::State& state) {
    if (!requireAttributes(state))
        return;
    QZHSMLowLevelCtx registry(2);
    QZHSMLowLevel* backEnd = registry.getByFileName("");
    const std::string file = scratchPath("backupStub");
    const char* path = file.c_str();
    if (!makeFile(file) || backEnd->stubFile(path, kMeta, kLater, kSize) < 0)
        return giveUp(state, "backupStub: " + backEnd->m_errorText);

    std::vector<char> stubData;
    measure(
        state, {.name = "backupStub", .batch = 64, .syscalls = 5}, [] {},
        [&](int) { return backEnd->backupStub(path, stubData) == 0; },
        [&](int) {
            char text[1024];
            if (::getxattr(path, kProbe, nullptr, 0) >= 0 ||
                ::getxattr(path, "user.TSTUB", text, sizeof text) >= 0)
                return false;
            const UniqueFd opened(::open(path, O_RDONLY));
            return ::read(opened.get(), text, sizeof text) > 0;
        });
}

/// `restoreStub` onto an empty file, then `restoreDone`.
void restoreStub(benchmark::State& state) {
    if (!requireAttributes(state))
        return;
    QZHSMLowLevelCtx registry(2);
    QZHSMLowLevel* backEnd = registry.getByFileName("");
    constexpr int kBatch = 16;
    const FilePairs files("restoreStub", kBatch);
    files.make();
    const std::string text = stubText();
    const std::vector<char> stubData(text.begin(), text.end());

    measure(
        state, {.name = "restoreStub", .batch = kBatch, .syscalls = 9}, [&] { files.resize(0); },
        [&](int i) {
            return backEnd->restoreStub(files.ours(i), stubData) == 0 &&
                   backEnd->restoreDone(files.ours(i), true, {}) == 0;
        },
        [&](int i) {
            const char* path = files.bare(i);
            if (::getxattr(path, kProbe, nullptr, 0) >= 0 ||
                ::setxattr(path, kStubMark, &kStubMarkValue, 1, XATTR_CREATE) < 0)
                return false;
            {
                const UniqueFd opened(::open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600));
                if (!writeStub(opened.get(), kSize, text))
                    return false;
            }
            return ::removexattr(path, kStubMark) == 0;
        });
}

/// The data's way back: one piece of 1 MiB into the hole of a stub, which is made anew every 64 pieces.
void recallPiece(benchmark::State& state) {
    if (!requireAttributes(state))
        return;
    QZHSMLowLevelCtx registry(2);
    QZHSMLowLevel* backEnd = registry.getByFileName("");
    constexpr int kPieces = 64;
    constexpr int kPieceSize = 1 << 20;
    const std::string piece(kPieceSize, 'x');
    const FilePairs files("recall", 1);
    files.make();
    if (backEnd->stubFile(files.ours(0), kMeta, kLater, kSize) < 0 ||
        backEnd->stubFile(files.bare(0), kMeta, kLater, kSize) < 0 ||
        backEnd->openFileTrans(files.ours(0), O_WRONLY, 0) < 0)
        return giveUp(state, "recallPiece: " + backEnd->m_errorText);
    const UniqueFd bareFile(::open(files.bare(0), O_WRONLY));

    measure(
        state, {.name = "recallPiece", .batch = 1, .syscalls = 1},
        [&, made = 0]() mutable {
            if (made++ % kPieces != 0)
                return;
            files.resize(0);
            files.resize(off_t{kPieces} * kPieceSize);
            backEnd->seekFileTrans(0, SEEK_SET);
            ::lseek(bareFile.get(), 0, SEEK_SET);
        },
        [&](int) { return backEnd->writeFileTransAll(piece.data(), kPieceSize) == kPieceSize; },
        [&](int) { return ::write(bareFile.get(), piece.data(), piece.size()) == kPieceSize; });
    backEnd->closeFileTrans();
    state.SetBytesProcessed(state.iterations() * kPieceSize);
    state.counters["throughput_ratio"] = 1 / state.counters["ratio"];
}

BENCHMARK_CAPTURE(isStub, stub, true)->UseManualTime();
BENCHMARK_CAPTURE(isStub, plain, false)->UseManualTime();
BENCHMARK(stubFile)->UseManualTime();
BENCHMARK(backupStub)->UseManualTime();
BENCHMARK(restoreStub)->UseManualTime();
BENCHMARK(recallPiece)->UseManualTime();

} // namespace
