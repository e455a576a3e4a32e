// What users do to the recall service that a shell cannot:
// Users lease FILE: makes a file that looks half archived, and holds a lease on it; prints "leased".
// Users share FILE: holds a lease for reading on a file that is there; prints "leased".
// Users thread PROGRAM THREAD FILE: reads a byte of the file, by a thread of that name in a program of that
// name.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <thread>
#include <unistd.h>

namespace {

int lease(const char* path, int flags, int kind) {
    std::signal(SIGIO, SIG_IGN); // that somebody wants it back
    const int fd = ::open(path, flags);
    while (::fcntl(fd, F_SETLEASE, kind) < 0) // others may have it open for a moment
        if (errno != EAGAIN)
            return 1;
    std::puts("leased");
    std::fflush(stdout);
    return ::pause();
}

int leaseNew(const char* path) {
    if (::mknod(path, S_IFREG | 0644, 0) < 0 || ::setxattr(path, "user.TSTUB", "x", 1, 0) < 0)
        return 1;
    return lease(path, O_RDWR, F_WRLCK);
}

int readByThread(const char* program, const char* thread, const char* path) {
    int err = 0;
    ::prctl(PR_SET_NAME, program);
    std::thread([&] {
        ::prctl(PR_SET_NAME, thread);
        const int fd = ::open(path, O_RDONLY);
        char byte = 0;
        if (fd < 0 || ::read(fd, &byte, 1) < 0)
            err = errno;
    }).join();
    if (err != 0)
        std::fprintf(stderr, "%s: %s\n", path, std::strerror(err));
    return err != 0;
}

} // namespace

int main(int, char** argv) {
    const std::string what = argv[1];
    if (what == "lease")
        return leaseNew(argv[2]);
    if (what == "share")
        return lease(argv[2], O_RDONLY, F_RDLCK);
    return readByThread(argv[2], argv[3], argv[4]);
}
