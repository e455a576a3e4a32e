#include "bench/Harness.h"
#include "lowlevel/QZHSMLowLevelCtx.h"
#include "platform/files/UniqueFd.h"
#include "platform/stub/StubAttributes.h"
#include "platform/stub/StubText.h"

#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <utime.h>

namespace {

constexpr const char* kProbe = "user.NkProbe"; // the attribute that the library asks for too
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

/// Metadata of as many bytes as the benchmark was asked for.
std::string metaOf(const benchmark::State& state) {
    std::string meta = "location=";
    meta.resize(static_cast<size_t>(state.range(0)), '7');
    return meta;
}

void metaSizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgName("meta")->UseManualTime();
    for (const int size : {10, 100, 1000, 2000, 4000})
        benchmark->Arg(size);
}

std::string stubText(const std::string& meta) {
    std::string text(static_cast<size_t>(qzhsm_meta2stub(meta.c_str(), kSize, nullptr, 0)), '\0');
    qzhsm_meta2stub(meta.c_str(), kSize, text.data(), static_cast<int>(text.size()));
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
    if (!makeFile(file) || (stub && backEnd->stubFile(path, metaOf(state).c_str(), kLater, kSize) < 0))
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
    const std::string meta = metaOf(state);
    const std::string text = stubText(meta);

    measure(
        state, {.name = "stubFile", .batch = kBatch, .syscalls = 12}, [&] { files.make(); },
        [&](int i) { return backEnd->stubFile(files.ours(i), meta.c_str(), kLater, kSize) == 0; },
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
    const std::string meta = metaOf(state);
    if (!makeFile(file) || backEnd->stubFile(path, meta.c_str(), kLater, kSize) < 0)
        return giveUp(state, "backupStub: " + backEnd->m_errorText);

    // A text that is longer than the first look is looked for again.
    std::vector<size_t> looks{1024};
    if (const size_t whole = stubText(meta).size(); whole > looks.front())
        looks.push_back(whole);
    const int syscalls = 5 * static_cast<int>(looks.size());
    std::vector<char> stubData;
    measure(
        state, {.name = "backupStub", .batch = 64, .syscalls = syscalls}, [] {},
        [&](int) { return backEnd->backupStub(path, stubData) == 0; },
        [&](int) {
            char text[4096];
            for (const size_t size : looks) {
                if (::getxattr(path, kProbe, nullptr, 0) >= 0 ||
                    ::getxattr(path, "user.TSTUB", text, size) >= 0)
                    return false;
                const UniqueFd opened(::open(path, O_RDONLY));
                if (::read(opened.get(), text, size) <= 0)
                    return false;
            }
            return true;
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
    const std::string text = stubText(metaOf(state));
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

/// The data's way back: one piece into the hole of a stub of 64 MiB, which is made anew when it is full.
void recallPiece(benchmark::State& state) {
    if (!requireAttributes(state))
        return;
    QZHSMLowLevelCtx registry(2);
    QZHSMLowLevel* backEnd = registry.getByFileName("");
    constexpr off_t kStubSize = 64 << 20;
    const auto pieceSize = static_cast<int>(state.range(0));
    const std::string piece(static_cast<size_t>(pieceSize), 'x');
    const FilePairs files("recall", 1);
    files.make();
    if (backEnd->stubFile(files.ours(0), "copy=1", kLater, kSize) < 0 ||
        backEnd->stubFile(files.bare(0), "copy=1", kLater, kSize) < 0 ||
        backEnd->openFileTrans(files.ours(0), O_WRONLY, 0) < 0)
        return giveUp(state, "recallPiece: " + backEnd->m_errorText);
    const UniqueFd bareFile(::open(files.bare(0), O_WRONLY));

    measure(
        state, {.name = "recallPiece", .batch = 1, .syscalls = 1},
        [&, at = kStubSize]() mutable {
            if (at < kStubSize) {
                at += pieceSize;
                return;
            }
            at = pieceSize;
            files.resize(0);
            files.resize(kStubSize);
            backEnd->seekFileTrans(0, SEEK_SET);
            ::lseek(bareFile.get(), 0, SEEK_SET);
        },
        [&](int) { return backEnd->writeFileTransAll(piece.data(), pieceSize) == pieceSize; },
        [&](int) { return ::write(bareFile.get(), piece.data(), piece.size()) == pieceSize; });
    backEnd->closeFileTrans();
    state.SetBytesProcessed(state.iterations() * pieceSize);
}

BENCHMARK_CAPTURE(isStub, stub, true)->Apply(metaSizes);
BENCHMARK_CAPTURE(isStub, plain, false)->UseManualTime();
BENCHMARK(stubFile)->Apply(metaSizes);
BENCHMARK(backupStub)->Apply(metaSizes);
BENCHMARK(restoreStub)->ArgName("meta")->Arg(100)->UseManualTime();
BENCHMARK(recallPiece)->ArgName("bytes")->RangeMultiplier(4)->Range(4 << 10, 4 << 20)->UseManualTime();

} // namespace
