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
constexpr size_t kLineMax = 64; // longer than any name of ours

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
        static constexpr char zeros[kCopyBuffer] = {};
        for (std::uint64_t left = part.length; left > 0; left -= std::min(left, kCopyBuffer))
            m_mover.write(zeros, std::min(left, kCopyBuffer));
    }

private:
    Mover& m_mover;
};

class MoverReader : public ObjectReader {
public:
    /// `endsThere`: after the part the mover has nothing more to give.
    MoverReader(std::string phrase, const std::string& command, std::chrono::seconds timeout, bool endsThere)
        : m_mover(std::move(phrase), command, Mover::Data::Out, timeout), m_endsThere(endsThere) {}

    void read(char* buffer, size_t size) override { m_mover.readAll(buffer, size); }
    void skip(std::uint64_t size) override {
        const auto room = std::make_unique_for_overwrite<char[]>(std::min(size, kCopyBuffer));
        for (; size > 0; size -= std::min(size, kCopyBuffer))
            m_mover.readAll(room.get(), std::min(size, kCopyBuffer));
    }
    void finish() override {
        if (m_endsThere) // else it is in the middle of what nobody asked for, and is killed
            m_mover.finish();
    }

private:
    Mover m_mover;
    bool m_endsThere;
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

ObjectRecord CommandStore::put(int fd, ObjectRecord facts, const OnBytes& onBytes) {
    ObjectRecord record = std::move(facts);
    record.object = ObjectId::generate();
    record.stored = std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
    try {
        Mover data(about("Failed to put object ", record.object),
                   filledIn(m_commands.put, record.object.text()), Mover::Data::In, m_commands.timeout);
        MoverSink sink(data);
        readContent(fd, record, sink, onBytes);
        data.finish();
        replaceRecord(record);
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

void CommandStore::replaceRecord(const ObjectRecord& record) {
    const std::string text = record.toText();
    Mover mover(about("Failed to put the record of object ", record.object),
                filledIn(m_commands.put, recordName(record.object)), Mover::Data::In, m_commands.timeout);
    mover.write(text.data(), text.size());
    mover.finish();
}

std::optional<ObjectRecord> CommandStore::look(const ObjectId& object) {
    const std::string command = filledIn(m_commands.get, recordName(object), {0, ObjectRecord::kTextMax});
    Mover mover(about("Failed to get the record of object ", object), command, Mover::Data::Out,
                m_commands.timeout);
    std::string text;
    const auto buffer = std::make_unique_for_overwrite<char[]>(kCopyBuffer);
    for (size_t got = 0;
         text.size() <= ObjectRecord::kTextMax && (got = mover.read(buffer.get(), kCopyBuffer)) > 0;)
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
    const auto removeOne = [&](std::string_view phrase, std::string_view file) {
        Mover mover(about(phrase, object), filledIn(m_commands.remove, file), Mover::Data::None,
                    m_commands.timeout);
        mover.finish();
    };
    std::optional<Failure> recordStays;
    try {
        removeOne("Failed to remove the record of object ", recordName(object));
    } catch (const Failure& failure) {
        if (failure.code() == QZHSM_TIMEOUT)
            throw;
        recordStays = failure; // or was never there
    }
    removeOne("Failed to remove object ", object.text());
    if (recordStays && hasRecord(object))
        throw Failure(*recordStays);
}

bool CommandStore::hasRecord(const ObjectId& object) {
    try {
        return look(object).has_value();
    } catch (const Failure&) {
        return false;
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
    std::map<ObjectId, bool> found; // and whether there is a record
    std::string line;
    const auto endLine = [&] {
        const bool isRecord = line.ends_with(kRecord) && line.size() > ObjectId().text().size();
        if (isRecord)
            line.resize(line.size() - kRecord.size());
        if (const auto object = ObjectId::parse(line))
            found[*object] |= isRecord;
        line.clear();
    };
    const auto buffer = std::make_unique_for_overwrite<char[]>(kCopyBuffer);
    for (size_t got = 0; (got = mover.read(buffer.get(), kCopyBuffer)) > 0;) {
        for (const char byte : std::string_view(buffer.get(), got)) {
            if (byte == '\n')
                endLine();
            else if (line.size() < kLineMax)
                line += byte;
        }
    }
    endLine();
    mover.finish();
    for (const auto& [object, whole] : found)
        onObject({object, whole ? std::nullopt : std::optional(std::time(nullptr))});
}
