#include "service/TransparentFile.h"

#include <string_view>
#include <unistd.h>
#include <utility>

TransparentFile::TransparentFile(QZHSMLowLevel& backEnd, std::string path, int flags)
    : m_backEnd(backEnd), m_path(std::move(path)) {
    checked(backEnd, backEnd.openFileTrans(m_path.c_str(), flags, 0));
}

TransparentFile::~TransparentFile() {
    if (m_open)
        m_backEnd.closeFileTrans();
}

// Where the bytes go is said in both ways: the extent variant goes by the offset, the others by the position.
void TransparentFile::write(std::span<const char> bytes, long long offset) {
    if (m_backEnd.seekFileTrans(offset, SEEK_SET) < 0)
        throw Failure(m_backEnd);
    for (size_t done = 0; done < bytes.size();) {
        const auto rest = static_cast<int>(bytes.size() - done);
        const int written =
            m_backEnd.writeFileTrans(bytes.data() + done, rest, offset + static_cast<long long>(done));
        if (written < 0)
            throw failedWrite();
        if (written == 0)
            throw Failure(QZHSM_FAILURE, "Failed to write all data into " + m_path);
        done += static_cast<size_t>(written);
    }
}

/// The library says "read" of a write too, which would hide a full disk.
Failure TransparentFile::failedWrite() const {
    constexpr std::string_view kRead = "Transparent read() failed";
    std::string text = m_backEnd.m_errorText;
    if (text.starts_with(kRead))
        text.replace(0, kRead.size(), "Failed to write");
    return {m_backEnd.m_errorCode, text};
}

void TransparentFile::close() {
    m_open = false;
    checked(m_backEnd, m_backEnd.closeFileTrans());
}
