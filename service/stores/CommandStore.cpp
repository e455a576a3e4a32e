#include "service/stores/CommandStore.h"

#include "service/Failure.h"
#include "service/stores/Content.h"
#include "service/stores/Mover.h"

#include <algorithm>
#include <map>
#include <utility>

namespace {

constexpr const char* kObject = "{object}";
constexpr const char* kOffset = "{offset}";
constexpr const char* kCount = "{count}";
constexpr std::string_view kRecord = "-0";
constexpr size_t kBuffer = 256 * 1024;

bool holds(const std::string& command, const char* placeholder) {
    return command.find(placeholder) != std::string::npos;
}

std::string recordName(const ObjectId& object) {
    return std::string(object.text()).append(kRecord);
}

std::string filledIn(std::string command, std::string_view object, const Extent& part = {0, 0}) {
    const std::pair<std::string_view, std::string> values[] = {{kObject, std::string(object)},
                                                               {kOffset, std::to_string(part.offset)},
                                                               {kCount, std::to_string(part.length)}};
    for (const auto& [placeholder, value] : values)
        for (size_t at = 0; (at = command.find(placeholder, at)) != std::string::npos; at += value.size())
            command.replace(at, placeholder.size(), value);
    return command;
}

class MoverSink : public ContentSink {
public:
    explicit MoverSink(Mover& mover) : m_mover(mover) {}

    void data(std::uint64_t, const char* bytes, size_t size) override { m_mover.write(bytes, size); }
    void hole(const Extent& part) override {
        static constexpr char zeros[kBuffer] = {};
        for (std::uint64_t left = part.length; left > 0; left -= std::min<std::uint64_t>(left, kBuffer))
            m_mover.write(zeros, std::min<std::uint64_t>(left, kBuffer));
    }

private:
    Mover& m_mover;
};

class MoverReader : public ObjectReader {
public:
    /// `reachesEnd`: nothing may follow the part.
    MoverReader(std::string phrase, const std::string& command, std::chrono::seconds timeout, bool reachesEnd)
        : m_mover(std::move(phrase), command, Mover::Data::Out, timeout), m_reachesEnd(reachesEnd) {}

    void read(char* buffer, size_t size) override { m_mover.readAll(buffer, size); }
    void skip(std::uint64_t size) override {
        const auto room = std::make_unique_for_overwrite<char[]>(std::min<std::uint64_t>(size, kBuffer));
        for (; size > 0; size -= std::min<std::uint64_t>(size, kBuffer))
            m_mover.readAll(room.get(), std::min<std::uint64_t>(size, kBuffer));
    }
    void finish() override {
        if (m_reachesEnd) // else it is in the middle of what nobody asked for, and is killed
            m_mover.finish();
    }

private:
    Mover m_mover;
    bool m_reachesEnd;
};

} // namespace

CommandStore::CommandStore(std::string name, MoverCommands commands)
    : Store(std::move(name), {}), m_commands(std::move(commands)) {
    const auto refuse = [this](const std::string& what) {
        throw Failure(QZHSM_FAILURE, "Store " + this->name() + ": " + what);
    };
    const std::pair<const char*, const std::string&> all[] = {
        {"put", m_commands.put}, {"get", m_commands.get}, {"remove", m_commands.remove}};
    for (const auto& [key, command] : all)
        if (!holds(command, kObject))
            refuse(std::string("the command \"") + key + "\" must hold " + kObject);
    if (holds(m_commands.get, kCount) && !holds(m_commands.get, kOffset))
        refuse("the command \"get\" holds {count} without {offset}");
}

ObjectRecord CommandStore::put(int fd, ObjectRecord record, const OnBytes& onBytes) {
    record.object = ObjectId::generate();
    record.stored = std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
    try {
        Mover data(about("Failed to put object ", record.object),
                   filledIn(m_commands.put, record.object.text()), Mover::Data::In, m_commands.timeout);
        MoverSink sink(data);
        readContent(fd, record, sink, onBytes);
        data.finish();
        const std::string text = record.toText();
        Mover beside(about("Failed to put the record of object ", record.object),
                     filledIn(m_commands.put, recordName(record.object)), Mover::Data::In,
                     m_commands.timeout);
        beside.write(text.data(), text.size());
        beside.finish();
    } catch (const Failure& failure) {
        if (failure.code() != QZHSM_TIMEOUT) // which the next command would only meet again
            removeQuietly(record.object);
        throw;
    } catch (...) {
        removeQuietly(record.object);
        throw;
    }
    return record;
}

std::optional<ObjectRecord> CommandStore::look(const ObjectId& object) {
    const std::string command = filledIn(m_commands.get, recordName(object), {0, ObjectRecord::kTextMax});
    Mover mover(about("Failed to get the record of object ", object), command, Mover::Data::Out,
                m_commands.timeout);
    std::string text;
    const auto buffer = std::make_unique_for_overwrite<char[]>(kBuffer);
    for (size_t got = 0;
         text.size() <= ObjectRecord::kTextMax && (got = mover.read(buffer.get(), kBuffer)) > 0;)
        text.append(buffer.get(), got);
    mover.finish();
    return readRecord(object, text);
}

std::unique_ptr<ObjectReader> CommandStore::open(const ObjectRecord& record, const Extent& part) {
    const bool endsThere = holds(m_commands.get, kCount) || part.end() == record.size;
    auto reader = std::make_unique<MoverReader>(about("Failed to get object ", record.object),
                                                filledIn(m_commands.get, record.object.text(), part),
                                                m_commands.timeout, endsThere);
    if (!holds(m_commands.get, kOffset))
        reader->skip(part.offset);
    return reader;
}

void CommandStore::remove(const ObjectId& object) {
    for (const std::string& name : {recordName(object), std::string(object.text())}) {
        Mover mover(about("Failed to remove object ", object), filledIn(m_commands.remove, name),
                    Mover::Data::None, m_commands.timeout);
        mover.finish();
    }
}

void CommandStore::removeQuietly(const ObjectId& object) {
    try {
        remove(object);
    } catch (const Failure&) { // the failure before it is the one to tell
    }
}

void CommandStore::list(const std::function<void(const ListedObject&)>& onObject) {
    if (m_commands.list.empty())
        throw Failure(QZHSM_NOT_IMPLEMENTED, "Store " + name() + " has no command \"list\"");
    Mover mover("Failed to list store " + name(), m_commands.list, Mover::Data::Out, m_commands.timeout);
    std::map<ObjectId, bool> hasRecord;
    const auto buffer = std::make_unique_for_overwrite<char[]>(kBuffer);
    std::string line;
    for (size_t got = 0; (got = mover.read(buffer.get(), kBuffer)) > 0;) {
        for (const char byte : std::string_view(buffer.get(), got)) {
            if (byte != '\n') {
                line += byte;
                continue;
            }
            const bool isRecord = line.ends_with(kRecord) && line.size() > ObjectId().text().size();
            if (isRecord)
                line.resize(line.size() - kRecord.size());
            if (const auto object = ObjectId::parse(line))
                hasRecord[*object] |= isRecord;
            line.clear();
        }
    }
    mover.finish();
    for (const auto& [object, whole] : hasRecord)
        onObject({object, whole ? std::nullopt : std::optional(std::time(nullptr))});
}
