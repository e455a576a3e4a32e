// What users do to the recall service that a shell cannot:
// Users lease FILE: makes a file that looks half archived, and holds a lease on it; prints "leased".
// Users share FILE: holds a lease for reading on a file that is there; prints "leased".
// Users hold FILE: writes to it, and so holds it for as long as what is to be written cannot be read; prints
// "held". Users truncate FILE: opens it to truncate it, which the kernel refuses when whoever waits for that
// has let it. Users thread PROGRAM THREAD FILE: reads a byte of the file, by a thread of that name in a
// program of that name.

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/userfaultfd.h>
#include <sched.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
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

/// What is to be written is a page that nobody brings, as one of a user's own FUSE file may be.
int hold(const char* path) {
    constexpr size_t kPage = 4096;
    const std::string data(2 * kPage, 'x');
    const int fd = ::open(path, O_WRONLY);
    const int faults = static_cast<int>(::syscall(SYS_userfaultfd, O_CLOEXEC));
    void* page = ::mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    uffdio_api api{UFFD_API, 0, 0};
    uffdio_register missing{{reinterpret_cast<std::uintptr_t>(page), kPage}, UFFDIO_REGISTER_MODE_MISSING, 0};
    if (::write(fd, data.data(), data.size()) < 0 || ::ioctl(faults, UFFDIO_API, &api) < 0 ||
        ::ioctl(faults, UFFDIO_REGISTER, &missing) < 0)
        return 1;
    std::puts("held");
    std::fflush(stdout);
    return ::write(fd, page, kPage) < 0;
}

int truncate(const char* path) {
    const std::uint64_t handled = 1U << 14; // LANDLOCK_ACCESS_FS_TRUNCATE, which older headers lack
    const int rules = static_cast<int>(::syscall(SYS_landlock_create_ruleset, &handled, sizeof handled, 0));
    if (rules < 0 || ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) < 0 ||
        ::syscall(SYS_landlock_restrict_self, rules, 0) < 0)
        return 77;
    return ::open(path, O_WRONLY | O_TRUNC) >= 0 || errno != EACCES;
}

/// Runs only when nobody else wants the first processor.
int cutIdly(const char* size, char** paths) {
    cpu_set_t first;
    CPU_ZERO(&first);
    CPU_SET(0, &first);
    const sched_param none{};
    if (::sched_setaffinity(0, sizeof first, &first) < 0 || ::sched_setscheduler(0, SCHED_IDLE, &none) < 0)
        return 1;
    for (; *paths; ++paths)
        if (::truncate(*paths, std::atoi(size)) < 0)
            return 1;
    return 0;
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
    if (what == "hold")
        return hold(argv[2]);
    if (what == "truncate")
        return truncate(argv[2]);
    if (what == "cut")
        return cutIdly(argv[2], argv + 3);
    return readByThread(argv[2], argv[3], argv[4]);
}
