#include "service/Failure.h"
#include "service/stores/CommandStore.h"
#include "service/stores/DirectoryStore.h"
#include "service/stores/StoreConfig.h"
#include "service/stores/VerifiedReader.h"
#include "tests/support/TestFs.h"

#include <fcntl.h>
#include <filesystem>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

class Stores : public ::testing::Test {
protected:
    void SetUp() override {
        REQUIRE_FS(m_fs);
        DirectoryStore::create(path("store"));
        std::filesystem::create_directory(path("objects"));
    }

    std::string path(const std::string& name) const { return m_fs.path(name); }
    std::string objectPath(const ObjectId& object) const {
        return path("store/").append(object.text(), 0, 2).append("/").append(object.text());
    }
    /// Data, a hole over two pieces, data, and a hole at the end.
    UniqueFd source(off_t size = 21'000'001) const {
        UniqueFd file(::open(path("source").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0640));
        const std::string data = noise(5'000'000);
        EXPECT_EQ(::pwrite(file.get(), data.data(), data.size(), 0), 5'000'000);
        EXPECT_EQ(::pwrite(file.get(), data.data(), 4096, 16 << 20), 4096);
        EXPECT_EQ(::ftruncate(file.get(), size), 0);
        return file;
    }
    static ObjectRecord put(Store& store, const UniqueFd& file, bool flush = true) {
        ObjectRecord record = store.put(file.get(), ObjectRecord::describe(file.get(), "source"));
        if (flush)
            store.flush();
        return record;
    }
    /// Keeps objects in files; `get` ends with what follows it.
    CommandStore files(const std::string& get = " | tail -c +$(({offset}+1)) | head -c {count}",
                       const std::string& put = "") const {
        const std::string object = path("objects/{object}");
        return {"files",
                {put.empty() ? "cat > " + object : put, "cat " + object + get, "rm " + object,
                 "ls " + path("objects"), std::chrono::seconds(1)}};
    }

    TestFs m_fs{FsKind::Tmpfs};
};

/// The text of the failure, or "" if all went well.
template <typename Action>
std::string failureOf(Action action) {
    try {
        action();
        return "";
    } catch (const Failure& failure) {
        return failure.what();
    }
}
#define EXPECT_FAILURE(action, text) EXPECT_PRED2(holds, failureOf([&] { action; }), text)
bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::pair<int, int> wholeAndOrphaned(Store& store) {
    std::pair<int, int> count;
    store.list([&](const ListedObject& object) { ++(object.leftSince ? count.second : count.first); });
    return count;
}

} // namespace

TEST_F(Stores, GiveBackWhatWasPut) {
    DirectoryStore directory(path("store"));
    CommandStore ranges = files();
    CommandStore whole = files("");
    const char* named = std::getenv("QZHSM_TEST_STORE"); // one of a configuration, to be tried as well
    const std::unique_ptr<Store> other =
        named ? openStore(named) : std::make_unique<DirectoryStore>(path("store"));
    const UniqueFd file = source();
    const std::string content = readFile(path("source"));
    for (Store* store : {static_cast<Store*>(&directory), static_cast<Store*>(&ranges),
                         static_cast<Store*>(&whole), other.get()}) {
        const ObjectRecord record = put(*store, file);
        EXPECT_EQ(store->look(record.object)->toText(), record.toText());
        std::string got(content.size(), '\0');
        VerifiedReader reader(*store, record);
        int holes = 0;
        while (const auto piece = reader.next()) {
            holes += piece->bytes.empty();
            std::copy(piece->bytes.begin(), piece->bytes.end(), got.data() + piece->part.offset);
        }
        EXPECT_TRUE(got == content && holes == 3) << store->name();
        VerifiedReader second(*store, record, 1, 1);
        EXPECT_TRUE(std::ranges::equal(second.next()->bytes, content.substr(kPieceSize, kPieceSize)));
        EXPECT_FALSE(second.next());
        verifyObject(*store, record);
        EXPECT_EQ(wholeAndOrphaned(*store), std::pair(1, 0));
        store->remove(record.object);
        EXPECT_EQ(wholeAndOrphaned(*store), std::pair(0, 0));
    }
}

TEST_F(Stores, KeepHolesAndSumThemUpAsZeros) {
    DirectoryStore store(path("store"));
    const ObjectRecord record = put(store, source(1 << 30));
    const struct stat object = statOf(objectPath(record.object));
    EXPECT_TRUE(object.st_size == 1 << 30 && object.st_blocks < 10'000 && record.holes.size() == 2);
    EXPECT_EQ(object.st_mode & 07777, 0600U);
    verifyObject(store, record); // sums up the zeros that it reads
}

TEST_F(Stores, HaveNothingBeforeItIsFlushed) {
    DirectoryStore store(path("store"));
    const UniqueFd file = source();
    const pid_t child = ::fork();
    if (child == 0) {
        DirectoryStore own(path("store"));
        put(own, file, false);
        ::_exit(0); // as in a crash
    }
    ::waitpid(child, nullptr, 0);
    const ObjectRecord record = put(store, file, false);
    EXPECT_EQ(wholeAndOrphaned(store), std::pair(0, 0));
    EXPECT_EQ(store.leftovers(true), 2U) << "those of the dead alone";
    EXPECT_EQ(store.leftovers(false), 0U);
    store.flush();
    EXPECT_TRUE(store.look(record.object));
    std::filesystem::remove(objectPath(record.object) + ".json");
    EXPECT_EQ(wholeAndOrphaned(store), std::pair(0, 1));

    const auto tooLong = ObjectRecord::describe(file.get(), "source");
    ASSERT_EQ(::ftruncate(file.get(), 1000), 0);
    EXPECT_FAILURE(store.put(file.get(), tooLong, {}), "shorter");
    for (const auto& session : std::filesystem::directory_iterator(path("store/tmp")))
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(session), {}), 1) << "the lock alone";
}

TEST_F(Stores, ServeSeveralThreads) {
    DirectoryStore store(path("store"));
    writeFile(path("small"), "small");
    std::thread threads[4];
    for (std::thread& thread : threads)
        thread = std::thread([&] {
            const UniqueFd file(::open(path("small").c_str(), O_RDONLY));
            for (int round = 0; round < 25; ++round) {
                const ObjectRecord record = put(store, file);
                EXPECT_TRUE(store.look(record.object));
                if (round % 2 == 0)
                    store.remove(record.object);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wholeAndOrphaned(store), std::pair(4 * 12, 0));
}

TEST_F(Stores, TellDamage) {
    DirectoryStore store(path("store"));
    const struct {
        const char* damage; ///< to the object $O and its record $O.json
        const char* text;
    } rows[] = {
        {"rm $O", "No such file or directory"},
        {"truncate -s -1 $O", "has 21000000 bytes, not 21000001"},
        {"printf x | dd of=$O bs=1 seek=4999999 conv=notrunc status=none", "piece at byte 4194304"},
        {"truncate -s 300 $O.json", "no JSON object"},
        {R"(sed -i 's/"mtime":./"mtime":9/' $O.json)", "its own checksum is wrong"},
        {"sed -i s/check/chuck/ $O.json", "its own checksum is wrong"},
        {"sed -i -e $BY_HAND -e s/mode/mood/ $O.json", "no good \"mode\""},
        {R"(sed -i -e $BY_HAND -e 's/"object":"..../"object":"0000/' $O.json)", "another object's"},
        {R"(sed -i -e $BY_HAND -e 's/"xxh128":"..../"xxh128":"0000/' $O.json)", "checksum of the whole"},
        {R"(sed -i -e $BY_HAND -e 's/"size":/"size":1/' $O.json)", "checksums of other pieces"},
    };
    ::setenv("BY_HAND", R"(s/,"check.*"//)", 1);
    const UniqueFd file = source();
    for (const auto& row : rows) {
        const ObjectRecord record = put(store, file);
        ::setenv("O", objectPath(record.object).c_str(), 1);
        ASSERT_EQ(std::system(row.damage), 0);
        EXPECT_FAILURE(verifyObject(store, *store.look(record.object)), row.text) << row.damage;
    }
}

TEST_F(Stores, AreToldFromOtherDirectories) {
    std::filesystem::create_directories(path("new/tmp")); // left by a run that was cut short
    std::filesystem::create_directories(path("new/lost+found"));
    EXPECT_FAILURE(DirectoryStore(path("none")), "No such file");
    EXPECT_FAILURE(DirectoryStore(path("new")), "is not a store");
    EXPECT_FAILURE(DirectoryStore::create(m_fs.dir()), "there is something in it");
    EXPECT_FAILURE(DirectoryStore::create(path("store")), "is a store already");
    DirectoryStore::create(path("new"));
    EXPECT_EQ(statOf(path("new")).st_mode & 07777, 0700U);
    writeFile(path("new/qzhsm-store.json"), R"({"format":2})");
    EXPECT_FAILURE(DirectoryStore(path("new")), "format that is not known");
}

TEST(ObjectRecord, RefusesWhatItCannotHold) {
    const UniqueFd huge(::memfd_create("huge", MFD_CLOEXEC));
    ASSERT_EQ(::ftruncate(huge.get(), 1L << 46), 0);
    EXPECT_FAILURE(ObjectRecord::describe(huge.get(), "huge"), "Failed to describe huge: File too large");
    ObjectRecord record;
    record.checksums.whole = std::string(32, 'a');
    const std::string checked = record.toText();
    const std::string text =
        checked.substr(0, checked.find(",\"check")) + "}"; // as who mends it by hand leaves it
    EXPECT_EQ(ObjectRecord::fromText(text).toText(), checked);
    for (const auto& [key, number] : {std::pair{"format", "4294967297"},
                                      {"handleType", "4294967297"},
                                      {"mtime", "9223372036854775808"},
                                      {"mode", "-1"},
                                      {"uid", "4294967296"},
                                      {"size", "1.0"}}) {
        std::string damaged = text;
        const size_t at = damaged.find(std::string("\"") + key) + std::strlen(key) + 3;
        damaged.replace(at, damaged.find_first_of(",}", at) - at, number);
        EXPECT_FAILURE(ObjectRecord::fromText(damaged), std::string("no good \"") + key) << damaged;
    }
}

TEST_F(Stores, TakeNoMoversWordForItsDeed) {
    const UniqueFd file = source();
    const struct {
        const char* put;
        const char* text;
    } puts[] = {
        {"head -c 6000000 >/dev/null; sleep 100 & wait; : {object}", "nothing moved for 1 s"},
        {"cat >/dev/null; echo out; echo full >&2; exit 3 {object}", "ended with status 3: out full"},
        {"head -c 20990000 >/dev/null; : {object}", "before it had taken all data"},
        {"head -c 6000000 >/dev/null; kill -9 $$; : {object}", "killed by signal 9"},
        {"yes | head -c 3000000; yes no | head -c 3000000 >&2; cat >/dev/null; exit 1 {object}", "status 1"},
    };
    for (const auto& row : puts) {
        CommandStore store = files("", row.put);
        EXPECT_FAILURE(put(store, file), row.text) << row.put;
    }
    CommandStore late = files("", "cat >" + path("objects/{object}; exit 1"));
    EXPECT_FAILURE(put(late, file), "status 1");
    EXPECT_EQ(wholeAndOrphaned(late), std::pair(0, 0)) << "what failed is taken away";
    const struct {
        const char* get;
        const char* text;
    } gets[] = {
        {" | tail -c +$(({offset}+1)) | head -c {count} | head -c 5000000", "less data"},
        {"; printf x", "more data"},
        {"; echo late >&2; exit 4", "ended with status 4: late"},
        {" | head -c 6000000; sleep 100", "nothing moved for 1 s"},
    };
    CommandStore good = files();
    const ObjectRecord record = put(good, file);
    for (const auto& row : gets) {
        CommandStore store = files(row.get);
        EXPECT_FAILURE(verifyObject(store, record), row.text) << row.get;
    }
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a mover is left";
    EXPECT_FAILURE(files("", "cat"), "must hold {object}");
}
