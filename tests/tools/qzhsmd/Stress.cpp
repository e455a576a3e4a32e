// Stress DIR COPY SECONDS: readers, writers and truncaters at work on the files f0, f1... of DIR, whose
// content when they were archived is in COPY. Prints how many reads there were and how many got EIO, and ends
// with 1 if one byte was wrong. f0 to f29 are only read; the first page of f30 to f39 is written over; f40 to
// f49 are truncated.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kFiles = 50;
constexpr int kFirstWritten = 30;
constexpr int kFirstTruncated = 40;
constexpr size_t kPage = 4096;
const std::string kNew = "a user's own\n";

std::string dir;
std::vector<std::string> originals;
std::atomic<long> reads = 0;
std::atomic<long> refused = 0;
std::atomic<long> wrong = 0;
std::atomic<bool> ended = false;

std::string readAll(int fd, bool mapped) {
    struct stat st {};
    ::fstat(fd, &st);
    std::string text(static_cast<size_t>(st.st_size), '\0');
    if (mapped && st.st_size > 0) {
        void* const memory = ::mmap(nullptr, text.size(), PROT_READ, MAP_SHARED, fd, 0);
        if (memory == MAP_FAILED)
            return {};
        std::memcpy(text.data(), memory, text.size());
        ::munmap(memory, text.size());
        return text;
    }
    size_t total = 0;
    for (ssize_t got = 1; total < text.size() && got > 0; total += static_cast<size_t>(got)) {
        got = ::pread(fd, text.data() + total, text.size() - total, static_cast<off_t>(total));
        if (got < 0)
            return {};
    }
    text.resize(total);
    return text;
}

bool isRight(int file, const std::string& found) {
    const std::string& original = originals[static_cast<size_t>(file)];
    if (file >= kFirstTruncated)
        return found == original || kNew.starts_with(found);
    if (file < kFirstWritten)
        return found == original;
    if (found.size() != original.size() || found.compare(kPage, std::string::npos, original, kPage) != 0)
        return false;
    // A reader may meet the write in the middle of the page.
    return std::equal(found.begin(), found.begin() + kPage, original.begin(),
                      [](char byte, char before) { return byte == before || byte == 'w'; });
}

void work(unsigned seed) {
    std::mt19937 random(seed);
    while (!ended) {
        const int file = static_cast<int>(random() % kFiles);
        const std::string path = dir + "/f" + std::to_string(file);
        const bool writes = file >= kFirstWritten && random() % 4 == 0;
        const int flags = !writes ? O_RDONLY : file >= kFirstTruncated ? O_WRONLY | O_TRUNC : O_WRONLY;
        const int fd = ::open(path.c_str(), flags);
        if (fd < 0) {
            (errno == EIO ? refused : wrong)++;
            continue;
        }
        if (writes && file >= kFirstTruncated) {
            static_cast<void>(::pwrite(fd, kNew.data(), kNew.size(), 0));
        } else if (writes) {
            static_cast<void>(::pwrite(fd, std::string(kPage, 'w').data(), kPage, 0));
        } else {
            errno = 0;
            struct stat before {};
            ::fstat(fd, &before);
            const std::string found = readAll(fd, file < kFirstTruncated && random() % 2 == 0);
            const int err = errno;
            struct stat after {};
            ::fstat(fd, &after);
            ++reads;
            if (err == EIO)
                ++refused;
            else if (before.st_size == after.st_size && !isRight(file, found)) {
                ++wrong;
                if (wrong < 10)
                    std::fprintf(stderr, "f%d: wrong, %zu bytes, '%.20s'\n", file, found.size(),
                                 found.c_str());
            }
        }
        ::close(fd);
    }
}

} // namespace

int main(int, char** argv) {
    dir = argv[1];
    for (int i = 0; i < kFiles; ++i) {
        const int fd = ::open((argv[2] + ("/f" + std::to_string(i))).c_str(), O_RDONLY);
        originals.push_back(readAll(fd, false));
        ::close(fd);
    }
    std::vector<std::jthread> threads;
    for (unsigned i = 0; i < 10; ++i)
        threads.emplace_back(work, i);
    std::this_thread::sleep_for(std::chrono::seconds(std::atoi(argv[3])));
    ended = true;
    threads.clear();
    std::printf("%ld reads, %ld refused, %ld wrong\n", reads.load(), refused.load(), wrong.load());
    return wrong == 0 ? 0 : 1;
}
