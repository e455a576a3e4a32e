// What bench/serve.sh times, in nanoseconds on standard output:
//
//     first FILE COPY OFFSET   to open the file and read 4 KiB there (from its end, if negative)
//     read FILE [COPY]         to open, read and close it
//     copy FROM TO             to copy a file, and to open, read and close the copy
//     piece FILE               to open it and read 4 MiB
//     forget FILE              to have it leave the page cache
//     many THREADS DIR [TO]    to open, read and close all files of DIR; with TO to copy them there first
//     create DIR COUNT         to create as many files of 100 bytes
//     churn DIR COUNT          to create a file, write into it and remove it as many times
//
// What is read must be what is in COPY.

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t kBuffer = size_t{128} * 1024;
constexpr size_t kPage = 4096;
constexpr size_t kPiece = size_t{4} * 1024 * 1024;

using Arguments = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

class File {
public:
    File(const std::string& path, int flags) : m_fd(::open(path.c_str(), flags | O_CLOEXEC, 0644)) {
        if (m_fd < 0)
            throw std::runtime_error(path + ": " + std::strerror(errno));
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File() { ::close(m_fd); }

    /// Up to a count that the file may not have.
    size_t read(char* to, size_t count, off_t offset) const {
        const ssize_t got = ::pread(m_fd, to, count, offset);
        if (got < 0)
            throw std::runtime_error(std::string("read: ") + std::strerror(errno));
        return static_cast<size_t>(got);
    }
    void write(const char* from, size_t count, off_t offset) const {
        if (::pwrite(m_fd, from, count, offset) != static_cast<ssize_t>(count))
            throw std::runtime_error(std::string("write: ") + std::strerror(errno));
    }
    void forget() const {
        ::fsync(m_fd);
        ::posix_fadvise(m_fd, 0, 0, POSIX_FADV_DONTNEED);
    }
    off_t size() const { return ::lseek(m_fd, 0, SEEK_END); }

private:
    int m_fd;
};

long long timed(const std::function<void()>& work) {
    const auto began = Clock::now();
    work();
    return std::chrono::nanoseconds(Clock::now() - began).count();
}

void readAll(const std::string& path) {
    static thread_local std::array<char, kBuffer> buffer;
    const File file(path, O_RDONLY);
    off_t at = 0;
    for (size_t got = 1; got > 0; at += static_cast<off_t>(got))
        got = file.read(buffer.data(), buffer.size(), at);
}

void copyAndRead(const std::string& from, const std::string& to) {
    std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
    readAll(to);
}

[[noreturn]] void different(const std::string& file, const std::string& copy) {
    std::string text = file;
    throw std::runtime_error(text.append(" is not what ").append(copy).append(" is"));
}

void requireSame(const std::string& a, const std::string& b) {
    const File files[] = {{a, O_RDONLY}, {b, O_RDONLY}};
    std::vector<char> pieces[] = {std::vector<char>(kPiece), std::vector<char>(kPiece)};
    for (off_t at = 0;; at += static_cast<off_t>(kPiece)) {
        const size_t got = files[0].read(pieces[0].data(), kPiece, at);
        if (got != files[1].read(pieces[1].data(), kPiece, at) || pieces[0] != pieces[1])
            different(a, b);
        if (got == 0)
            return;
    }
}

long long first(const Arguments& arguments) {
    const File copy(arguments.at(1), O_RDONLY);
    const long long offset = std::stoll(arguments.at(2));
    const off_t at = offset < 0 ? copy.size() + offset : offset;
    std::array<char, kPage> wanted{};
    copy.read(wanted.data(), wanted.size(), at);
    std::array<char, kPage> found{};
    const long long time =
        timed([&] { File(arguments.at(0), O_RDONLY).read(found.data(), found.size(), at); });
    if (found != wanted)
        different(arguments.at(0), arguments.at(1));
    return time;
}

long long readFile(const Arguments& arguments) {
    const long long time = timed([&] { readAll(arguments.at(0)); });
    if (arguments.size() > 1)
        requireSame(arguments.at(0), arguments.at(1));
    return time;
}

long long copy(const Arguments& arguments) {
    return timed([&] { copyAndRead(arguments.at(0), arguments.at(1)); });
}

long long piece(const Arguments& arguments) {
    std::vector<char> buffer(kPiece, 1);
    return timed([&] { File(arguments.at(0), O_RDONLY).read(buffer.data(), buffer.size(), 0); });
}

long long forget(const Arguments& arguments) {
    return timed([&] { File(arguments.at(0), O_RDONLY).forget(); });
}

long long many(const Arguments& arguments) {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(arguments.at(1)))
        files.push_back(entry.path());
    std::atomic<size_t> next = 0;
    std::atomic<bool> failed = false;
    const auto work = [&] {
        try {
            for (size_t i = next++; i < files.size(); i = next++) {
                if (arguments.size() > 2)
                    copyAndRead(files[i], arguments.at(2) + '/' + std::to_string(i));
                else
                    readAll(files[i]);
            }
        } catch (const std::exception& error) {
            std::cerr << error.what() << '\n';
            failed = true;
        }
    };
    const long long time = timed([&] {
        std::vector<std::jthread> threads(std::stoul(arguments.at(0)));
        for (std::jthread& thread : threads)
            thread = std::jthread(work);
    });
    if (failed)
        throw std::runtime_error("a reader failed");
    return time;
}

long long create(const Arguments& arguments, bool removes) {
    constexpr std::array<char, 100> kText{};
    const long count = std::stol(arguments.at(1));
    return timed([&] {
        for (long i = 0; i < count; ++i) {
            const std::string path = arguments.at(0) + '/' + std::to_string(i);
            File(path, O_WRONLY | O_CREAT | O_EXCL).write(kText.data(), kText.size(), 0);
            if (removes)
                ::unlink(path.c_str());
        }
    });
}

const std::map<std::string, std::function<long long(const Arguments&)>> kVerbs{
    {"first", first},
    {"read", readFile},
    {"copy", copy},
    {"piece", piece},
    {"forget", forget},
    {"many", many},
    {"create", [](const Arguments& arguments) { return create(arguments, false); }},
    {"churn", [](const Arguments& arguments) { return create(arguments, true); }},
};

} // namespace

int main(int argc, char** argv) {
    Arguments arguments(argv + 1, argv + argc);
    try {
        const auto verb = arguments.empty() ? kVerbs.end() : kVerbs.find(arguments.at(0));
        if (verb == kVerbs.end())
            throw std::runtime_error("no such verb");
        arguments.erase(arguments.begin());
        std::cout << verb->second(arguments) << '\n';
    } catch (const std::exception& error) {
        std::cerr << "serve_bench: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
