#include "service/ArchivedCopy.h"

#include "service/FileIo.h"

#include <fcntl.h>
#include <vector>

namespace {

constexpr size_t kPiece = size_t{1} << 20;

/// The piece at this offset, shorter only at the end of the file.
void readPiece(int fd, const std::string& name, off_t offset, std::vector<char>& piece) {
    piece.resize(kPiece);
    piece.resize(readAt(fd, piece.data(), kPiece, offset, name));
}

} // namespace

UniqueFd requireSameCopy(int data, const OpenFile& file, const FileLook& look, const OpenFile& copy) {
    const auto differs = [&](const char* what) {
        return Failure(QZHSM_FAILURE,
                       copy.name() + " is no copy of " + file.name() + ": its " + what + " differs");
    };
    const struct stat st = copy.stat();
    if (isSameFile(st, look.st))
        throw Failure(QZHSM_FAILURE, copy.name() + " is " + file.name() + " itself, and no copy");
    if (!S_ISREG(st.st_mode))
        throw Failure(QZHSM_FAILURE, copy.name() + " is no regular file");
    if (st.st_size != look.st.st_size)
        throw differs("size");
    const bool hasFraction = st.st_mtim.tv_nsec != 0; // tapes and archives often keep whole seconds
    if (st.st_mtim.tv_sec != look.st.st_mtim.tv_sec ||
        (hasFraction && st.st_mtim.tv_nsec != look.st.st_mtim.tv_nsec))
        throw differs("modification time");
    UniqueFd fd = copy.open(O_RDONLY | O_NONBLOCK);
    std::vector<char> ours;
    std::vector<char> theirs;
    off_t offset = 0;
    do {
        readPiece(data, file.name(), offset, ours);
        readPiece(fd.get(), copy.name(), offset, theirs);
        if (ours != theirs)
            throw differs("content");
        offset += static_cast<off_t>(ours.size());
    } while (!ours.empty());
    return fd;
}
