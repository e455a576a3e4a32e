#include "service/stores/DirectoryStore.h"

#include "service/Failure.h"
#include "service/FileIo.h"
#include "service/stores/Content.h"
#include "service/stores/DirectoryMarker.h"
#include "service/stores/StoreFiles.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <map>
#include <sys/stat.h>
#include <utility>

namespace {

constexpr std::string_view kRecord = ".json";

std::string objectFile(const ObjectId& object) {
    return std::string(object.text());
}

std::string recordFile(const ObjectId& object) {
    return objectFile(object).append(kRecord);
}

/// Where a file of an object lies below the store.
std::string placed(const std::string& file) {
    return file.substr(0, 2) + '/' + file;
}

class ObjectFile : public ContentSink {
public:
    ObjectFile(int directory, const ObjectId& object, std::string name)
        : m_file(directory, objectFile(object), std::move(name)) {}

    void data(std::uint64_t offset, const char* bytes, size_t size) override {
        m_file.write(offset, bytes, size);
        m_end = offset + size;
    }
    void hole(const Extent&) override {}

    void close(std::uint64_t size) {
        if (m_end < size)
            m_file.setSize(size);
        m_file.startWriting();
        m_file.close();
    }

private:
    NewFile m_file;
    std::uint64_t m_end = 0;
};

class FileReader : public ObjectReader {
public:
    FileReader(UniqueFd file, std::string name, const Extent& part)
        : m_file(std::move(file)), m_name(std::move(name)), m_at(part.offset), m_end(part.end()) {
        readAhead(m_at + kPieceSize);
    }

    void read(char* buffer, size_t size) override {
        if (m_at + size > m_ahead)
            readAhead(m_at + size + kPieceSize);
        const size_t got = readAt(m_file.get(), buffer, size, static_cast<off_t>(m_at), m_name);
        m_at += got;
        if (got < size)
            throw Failure(QZHSM_FAILURE, m_name + " ends at byte " + std::to_string(m_at));
    }
    void skip(std::uint64_t size) override { m_at += size; }
    void finish() override {}

private:
    /// Has the disk read a piece while the one before it is waited for and worked on. The first one is asked
    /// for alone, since somebody may wait for it. Each in parts: the disk reads one while the kernel finds
    /// memory for the next.
    void readAhead(std::uint64_t to) {
        constexpr std::uint64_t kPart = std::uint64_t{512} << 10;
        to = std::min(to, m_end);
        for (m_ahead = std::max(m_ahead, m_at); m_ahead < to; m_ahead += std::min(kPart, to - m_ahead))
            ::posix_fadvise(m_file.get(), static_cast<off_t>(m_ahead),
                            static_cast<off_t>(std::min(kPart, to - m_ahead)), POSIX_FADV_WILLNEED);
    }

    UniqueFd m_file;
    std::string m_name;
    std::uint64_t m_at;
    std::uint64_t m_end;
    std::uint64_t m_ahead = 0; ///< what is before is asked for
};

UniqueFd openStoreDirectory(const std::string& directory) {
    UniqueFd root(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root.isOpen())
        throw systemFailure("Failed to open store ", directory, errno);
    return root;
}

} // namespace

void DirectoryStore::create(const std::string& directory) {
    makeStore(directory);
}

DirectoryStore::DirectoryStore(const std::string& directory, std::string name)
    : DirectoryStore(openStoreDirectory(directory), std::move(name)) {}

DirectoryStore::DirectoryStore(UniqueFd directory, std::string name)
    : Store(name.empty() ? pathOfStore(directory.get()) : std::move(name),
            readMarker(directory.get(), pathOfStore(directory.get()))),
      m_root(std::move(directory)) {}

DirectoryStore::~DirectoryStore() = default;

int DirectoryStore::session() {
    const std::lock_guard lock(m_mutex);
    requireWhole();
    if (!m_session)
        m_session = std::make_unique<StoreSession>(m_root.get(), name());
    return m_session->directory();
}

ObjectRecord DirectoryStore::put(int fd, ObjectRecord facts, const OnBytes& onBytes) {
    const int directory = session();
    ObjectRecord record = std::move(facts);
    record.object = ObjectId::generate();
    record.stored = std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
    try {
        ObjectFile object(directory, record.object, about("object ", record.object));
        readContent(fd, record, object, onBytes);
        object.close(record.size);
        writeRecord(directory, record);
        const std::lock_guard lock(m_mutex);
        m_batch.push_back(record.object);
    } catch (...) {
        ::unlinkat(directory, recordFile(record.object).c_str(), 0);
        ::unlinkat(directory, objectFile(record.object).c_str(), 0);
        throw;
    }
    return record;
}

void DirectoryStore::writeRecord(int directory, const ObjectRecord& record) const {
    const std::string text = record.toText();
    NewFile file(directory, recordFile(record.object), about("the record of object ", record.object));
    file.write(0, text.data(), text.size());
    file.close();
}

UniqueFd DirectoryStore::lockRecords() {
    return lockMarker(m_root.get(), name());
}

void DirectoryStore::replaceRecord(const ObjectRecord& record) {
    const int directory = session();
    const std::string file = recordFile(record.object);
    const std::lock_guard flushing(m_flushing);
    try {
        writeRecord(directory, record);
        writeOut();
        if (::renameat(directory, file.c_str(), m_root.get(), placed(file).c_str()) < 0)
            throw systemFailure("Failed to rename ", about("the record of object ", record.object), errno);
        writeOut();
    } catch (...) {
        ::unlinkat(directory, file.c_str(), 0);
        throw;
    }
}

void DirectoryStore::flush() {
    const std::lock_guard flushing(m_flushing);
    std::vector<ObjectId> batch;
    {
        const std::lock_guard lock(m_mutex);
        requireWhole();
        if (m_batch.empty() && !m_removed)
            return;
        batch.swap(m_batch);
        m_removed = false;
    }
    try {
        if (!batch.empty()) {
            writeOut();
            giveNames(batch);
        }
        writeOut();
    } catch (...) { // the kernel tells of a lost write only once: the next flush would not know
        const std::lock_guard lock(m_mutex);
        m_broken = true;
        throw;
    }
}

void DirectoryStore::requireWhole() const {
    if (m_broken)
        throw Failure(QZHSM_FAILURE, "Store " + name() + " takes nothing more: flushing it failed");
}

void DirectoryStore::writeOut() {
    if (::syncfs(m_root.get()) < 0)
        throw systemFailure("Failed to flush store ", name(), errno);
}

void DirectoryStore::giveNames(const std::vector<ObjectId>& batch) {
    const UniqueFd lock = lockRecords(); // whoever clears the store must not see one without its record
    const int session = m_session->directory();
    for (const ObjectId& object : batch)
        for (const std::string& file : {objectFile(object), recordFile(object)})
            if (::renameat(session, file.c_str(), m_root.get(), placed(file).c_str()) < 0)
                throw systemFailure("Failed to rename ", about("object ", object), errno);
}

std::optional<ObjectRecord> DirectoryStore::look(const ObjectId& object) {
    const std::string recordName = about("the record of object ", object);
    const std::optional<std::string> text =
        readText(m_root.get(), placed(recordFile(object)).c_str(), recordName, ObjectRecord::kTextMax);
    if (!text)
        return std::nullopt;
    ObjectRecord record = readRecord(object, *text);
    struct stat st {};
    if (::fstatat(m_root.get(), placed(objectFile(object)).c_str(), &st, AT_SYMLINK_NOFOLLOW) < 0)
        throw systemFailure("Failed to stat ", about("object ", object), errno);
    if (!S_ISREG(st.st_mode) || static_cast<std::uint64_t>(st.st_size) != record.size)
        throw Failure(QZHSM_FAILURE, about("Object ", object) + " has " + std::to_string(st.st_size) +
                                         " bytes, not " + std::to_string(record.size));
    return record;
}

std::unique_ptr<ObjectReader> DirectoryStore::open(const ObjectRecord& record, const Extent& part) {
    std::string name = about("object ", record.object);
    UniqueFd file(
        ::openat(m_root.get(), placed(objectFile(record.object)).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!file.isOpen())
        throw systemFailure("Failed to open ", name, errno);
    return std::make_unique<FileReader>(std::move(file), std::move(name), part);
}

bool DirectoryStore::takeBack(const ObjectId& object) {
    const std::lock_guard lock(m_mutex);
    const auto found = std::find(m_batch.rbegin(), m_batch.rend(), object); // mostly one of the last
    if (found == m_batch.rend())
        return false;
    m_batch.erase(std::next(found).base());
    return true;
}

void DirectoryStore::remove(const ObjectId& object) {
    const bool wasBatched = takeBack(object);
    // One that is about to get its name is waited for.
    const auto flushing = wasBatched ? std::unique_lock<std::mutex>() : std::unique_lock(m_flushing);
    for (const std::string& file : {recordFile(object), objectFile(object)}) {
        const int result = wasBatched ? ::unlinkat(m_session->directory(), file.c_str(), 0)
                                      : ::unlinkat(m_root.get(), placed(file).c_str(), 0);
        if (result < 0 && errno != ENOENT)
            throw systemFailure("Failed to remove ", about("object ", object), errno);
    }
    const std::lock_guard lock(m_mutex);
    m_removed |= !wasBatched;
}

void DirectoryStore::list(const std::function<void(const ListedObject&)>& onObject) {
    for (const std::string& part : storeParts()) {
        const UniqueFd directory(
            ::openat(m_root.get(), part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!directory.isOpen())
            throw systemFailure("Failed to open directory " + part + " in store ", name(), errno);
        std::map<ObjectId, bool> hasRecord;
        forEachName(directory.get(), part + " in store " + name(), [&](std::string_view file) {
            const bool isRecord = file.ends_with(kRecord);
            if (isRecord)
                file.remove_suffix(kRecord.size());
            const std::optional<ObjectId> object = ObjectId::parse(file);
            if (object && object->text() == file)
                hasRecord[*object] |= isRecord;
        });
        for (const auto& [object, whole] : hasRecord) {
            ListedObject listed{object, {}};
            struct stat st {};
            if (!whole) {
                if (::fstatat(directory.get(), objectFile(object).c_str(), &st, AT_SYMLINK_NOFOLLOW) < 0)
                    continue; // taken away meanwhile
                listed.leftSince = st.st_mtim.tv_sec;
            }
            onObject(listed);
        }
    }
}

size_t DirectoryStore::leftovers(bool remove) {
    return StoreSession::leftovers(m_root.get(), name(), remove);
}
