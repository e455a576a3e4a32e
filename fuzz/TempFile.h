#pragma once

#include <cstdlib>
#include <string>
#include <unistd.h>

/// An empty file that is there as long as the object.
struct TempFile {
    TempFile() {
        const int fd = ::mkstemp(path.data());
        if (fd < 0)
            std::abort();
        ::close(fd);
    }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    ~TempFile() { ::unlink(path.c_str()); }

    std::string path = "/tmp/qzhsm-fuzz-released-XXXXXX"; ///< with a word that Lustre's states have
};
