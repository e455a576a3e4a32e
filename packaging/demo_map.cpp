// demo_map FILE: writes a file to standard output by way of a mapping, without read(2).
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

int main(int argc, char** argv) {
    const int fd = argc == 2 ? ::open(argv[1], O_RDONLY | O_CLOEXEC) : -1;
    struct stat st {};
    if (::fstat(fd, &st) < 0)
        return 1;
    const auto size = static_cast<size_t>(st.st_size);
    void* const memory = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED)
        return 1;
    for (size_t done = 0; done < size;) {
        const ssize_t written = ::write(STDOUT_FILENO, static_cast<const char*>(memory) + done, size - done);
        if (written <= 0)
            return 1;
        done += static_cast<size_t>(written);
    }
    return 0;
}
