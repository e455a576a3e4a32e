#include "service/DataSource.h"

#include "service/Failure.h"
#include "service/FileIo.h"
#include "service/StubData.h"

#include "platform/stub/StubText.h"

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>

namespace {

constexpr size_t kPiece = size_t{1} << 20;

} // namespace

FileSource::FileSource(std::string name, UniqueFd file, const struct stat& stub, bool force, StopRequest stop)
    : DataSource(std::move(name)), m_file(std::move(file)), m_force(force), m_stop(std::move(stop)) {
    struct stat st {};
    if (::fstat(m_file.get(), &st) < 0)
        throw systemFailure("Failed to stat ", this->name(), errno);
    if (S_ISDIR(st.st_mode))
        throw systemFailure("Failed to read from ", this->name(), EISDIR);
    if (isSameFile(st, stub))
        throw Failure(QZHSM_FAILURE, this->name() + " is the stub itself");
    if (!S_ISREG(st.st_mode) || ::lseek(m_file.get(), 0, SEEK_CUR) != 0)
        return;
    m_size = st.st_size;
    std::vector<char> head(kStubTextPrefix);
    head.resize(
        static_cast<size_t>(std::max<ssize_t>(::pread(m_file.get(), head.data(), head.size(), 0), 0)));
    refuseStubText(head);
}

std::span<const char> FileSource::next() {
    const auto stopIfAsked = [this] {
        if (m_stop())
            throw Failure(QZHSM_FAILURE, "Recall interrupted");
    };
    m_piece = readUpTo(m_file.get(), kPiece, name(), stopIfAsked);
    stopIfAsked();
    if (!std::exchange(m_begun, true))
        refuseStubText(m_piece);
    return m_piece;
}

void FileSource::refuseStubText(const std::vector<char>& head) const {
    if (!m_force && beginsWithStubText(head))
        throw Failure(QZHSM_FAILURE, name() + " is a stub or the copy of one: it holds no data",
                      "With --force it is recalled all the same.");
}
