#include "platform/files/UniqueFd.h"
#include "platform/stub/StubAttributes.h"
#include "tests/support/Strike.h"
#include "tests/support/TestFs.h"

#include <algorithm>

// Whatever befalls the tool at one of its system calls, the next call leads out, and a success is one.

namespace {

using Kind = Strike::Kind;

enum class End { Stub, Saved, Whole, Never };

/// In what is called, @f is the file, @d its data, @s the store, @o what backup writes.
struct Verb {
    const char* name;
    std::vector<std::string> before; ///< with "kill " in front one that is killed in the middle
    std::string called;
    End end;                        ///< what a success means
    std::vector<std::string> after; ///< leads to the whole file
    bool damaged = false;           ///< meanwhile the object in the store is

    bool fromStore() const { return after.back() == "recall @f"; }
};

const std::string kArchive = "archive --store @s @f";
const std::string kStub = "stub @f --meta meta --ref-time 1000000000";
const std::vector<std::string> kOut{"repair @f", "recall @f"};
const std::vector<std::string> kOutFrom{"repair @f", "recall @f --from @d"};

const std::string kRestore = "restore-stub @f @o";
const std::string kAdopt = "adopt @f";

const Verb kVerbs[] = {
    {"archive", {}, kArchive, End::Stub, kOut},
    {"recall", {kArchive}, "recall @f", End::Whole, kOut},
    {"repair", {kArchive, "kill recall @f"}, "repair @f", End::Stub, kOut},
    {"verifyDamaged", {kArchive}, "verify @f", End::Never, kOut, true},
    {"recallDamaged", {kArchive}, "recall @f", End::Never, kOut, true},
    {"stub", {}, kStub, End::Stub, kOutFrom},
    {"backup", {kStub}, "backup @f -o @o", End::Saved, kOutFrom},
    {"restoreStub",
     {kStub, "backup @f -o @o", "remove"},
     kRestore,
     End::Stub,
     {"repair @f", kRestore, "recall @f --from @d"}},
    {"recallFrom", {kStub}, "recall @f --from @d", End::Whole, kOutFrom},
    {"adopt", {kArchive, "copy"}, kAdopt, End::Stub, {"repair @f", kAdopt, "recall @f"}},
};

/// Ext4, Tmpfs, Ramfs, which has neither attributes nor file handles, or Plain: ext4, attributes denied.
struct Case {
    Verb verb;
    std::string on;
    std::string name() const { return verb.name + on; }
};
void PrintTo(const Case& one, std::ostream* stream) {
    *stream << one.name();
}

std::vector<Case> cases(const std::vector<std::string>& fileSystems) {
    std::vector<Case> all;
    for (const Verb& verb : kVerbs)
        for (const std::string& on : fileSystems)
            // Damage is the same everywhere, and so is what adopts. On ramfs nothing is archived, and without
            // attributes a file that was half recalled is recalled, not repaired.
            if ((!verb.damaged || on == "Tmpfs") && (verb.called != kAdopt || on == "Ext4") &&
                (on != "Ramfs" || !verb.fromStore()) && (on != "Plain" || verb.before.size() < 2))
                all.push_back({verb, on});
    return all;
}

const std::string& content() {
    static const std::string whole = noise(30000) + std::string(4200000, '\0') + noise(30000);
    return whole;
}

class Strikes : public ::testing::TestWithParam<Case> {
protected:
    void SetUp() override {
        REQUIRE_FS(m_memory);
        const std::string& on = GetParam().on;
        m_fs = std::make_unique<TestFs>(on == "Tmpfs"   ? FsKind::Tmpfs
                                        : on == "Ramfs" ? FsKind::Ramfs
                                                        : FsKind::Ext4,
                                        on == "Ext4" || on == "Plain" ? "12M" : "");
        m_archive = std::make_unique<TestFs>(FsKind::Ext4, "12M");
        m_attributes = on == "Ext4" || on == "Tmpfs";
        m_file = m_fs->path("file");
        m_store = m_archive->path("store");
        m_data = m_archive->path("data");
        writeFile(m_data, content());
        ASSERT_EQ(run("store create @s").status, 0);
    }

    const Verb& verb() const { return GetParam().verb; }
    std::string saved() const { return m_fs->path("saved"); }

    Ended run(const std::string& line, Strike strike = {}) const {
        std::vector<std::string> words{QZHSM_PROGRAM};
        std::istringstream stream(line);
        for (std::string word; stream >> word;)
            words.push_back(word == "@f"   ? m_file
                            : word == "@d" ? m_data
                            : word == "@s" ? m_store
                            : word == "@o" ? saved()
                                           : word);
        strike.attributes = m_attributes;
        return runStruck(words, strike);
    }

    void prepare() const {
        ::unlink(m_file.c_str());
        ::unlink(saved().c_str());
        for (const auto& path : stored()) // else it would be full in the end
            ::unlink(path.c_str());
        {
            const int fd = ::open(m_file.c_str(), O_WRONLY | O_CREAT, 0644);
            ::pwrite(fd, content().data(), 30000, 0);
            ::pwrite(fd, content().data(), 30000, 4230000);
            const timespec times[] = {{1000000000, 0}, modified()};
            ::futimens(fd, times);
            ::fsync(fd);
            ::close(fd);
        }
        for (const std::string& line : verb().before)
            if (line.starts_with("kill "))
                ASSERT_TRUE(run(line.substr(5), {.kind = Kind::Kill, .number = 9}).struck);
            else if (line == "remove")
                ASSERT_EQ(::unlink(m_file.c_str()), 0);
            else if (line == "copy")
                ASSERT_EQ(std::system(("cd " + m_fs->dir() + " && cp -a file copy && mv copy file").c_str()),
                          0);
            else if (const Ended ended = run(line); ended.status != 0)
                FAIL() << line << ": " << ended.said;
        if (verb().damaged)
            damage();
    }
    timespec modified() const { return {1000000000, verb().fromStore() ? 500000000 : 0}; }

    /// What the store holds: objects, their records, and what was cut off.
    std::vector<std::filesystem::path> stored() const {
        std::vector<std::filesystem::path> files;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(m_store))
            if (entry.is_regular_file() && entry.path().parent_path() != m_store)
                files.push_back(entry.path());
        return files;
    }

    /// Changes a byte of each object; done again, it puts it right.
    void damage() const {
        for (const auto& path : stored()) {
            if (std::filesystem::file_size(path) < content().size())
                continue;
            std::fstream object(path, std::ios::in | std::ios::out | std::ios::binary);
            const int byte = object.seekg(100).get();
            object.seekp(100).put(static_cast<char>(~byte));
        }
    }

    bool isZeros() const { return readFile(m_file).find_first_not_of('\0') == std::string::npos; }
    bool isStub() const {
        return readFile(m_file).starts_with("QZHSMSTUB ") &&
               (!m_attributes || // where to read a hole may be to fill it
                (statOf(m_file).st_blocks <= 16 && attribute(m_file, kStubMark) == "1")) &&
               (m_cuts > 0 || attribute(m_file, "user.TSTUB") == "-"); // taking that off may wait
    }
    std::string whyNotWhole() const {
        const struct stat st = statOf(m_file);
        if (readFile(m_file) != content())
            return "wrong data, " + std::to_string(st.st_size) + " bytes";
        // Without attributes a look puts whole seconds back, and nothing tells the time after a kill.
        if ((st.st_mtim.tv_sec != modified().tv_sec || st.st_mtim.tv_nsec != modified().tv_nsec) &&
            m_attributes && verb().called != kRestore)
            return "wrong time " + std::to_string(st.st_mtim.tv_sec) + "." +
                   std::to_string(st.st_mtim.tv_nsec);
        if (attribute(m_file, kStubMark) != "-" || attribute(m_file, "user.TSTUB") != "-")
            return "attributes left";
        return {};
    }

    /// After the verb ended, or was ended, here or on the copy of a disk.
    std::string whyLost(const Ended& ended, int number) const {
        std::string said = verb().called + ": " + ended.said;
        if (ended.status == 0 && verb().end == End::Never)
            return "a success over damaged data: " + said;
        if (ended.status == 0 && verb().end == End::Stub && !isStub())
            return "a success, and no good stub: " + said;
        const std::string text = readFile(saved());
        if (ended.status == 0 && verb().end == End::Saved && (text.empty() || !isStub()))
            return "a success, and nothing saved: " + said;
        if (!text.empty() && !text.ends_with("meta"))
            return "a part was saved: " + said;
        if (ended.status == 0 && verb().end == End::Whole && !whyNotWhole().empty())
            return "a success, but " + whyNotWhole() + ": " + said;
        if (verb().damaged)
            damage();
        if (!m_attributes && ended.status < 0 && verb().end == End::Stub && isZeros())
            return {}; // what docs/safety.md tells of
        const auto tell = [&](const std::string& line) { said += line + ": " + run(line).said; };
        if (number % 2 == 0) // the same again, without a repair
            tell(verb().called);
        for (const std::string& line : verb().after)
            tell(line);
        const std::string why = whyNotWhole();
        return why.empty() ? "" : why + ": " + said;
    }

    /// Strikes call after call, every `step`th, until there is none.
    void strikeAll(Kind kind, const std::vector<int>& errs, int step) const {
        int number =
            1 + static_cast<int>(GetParam().name().size()) % step; // another part on each file system
        for (bool struck = true; struck; number += step) {
            prepare();
            const int err = errs[static_cast<size_t>(number) % errs.size()];
            const Ended ended = run(verb().called, {.kind = kind, .number = number, .err = err});
            struck = ended.struck;
            const std::string why = whyLost(ended, number);
            EXPECT_EQ(why, "") << "struck at call " << number << ", system call " << ended.call
                               << ", with error " << err;
        }
        EXPECT_GT(number, verb().end == End::Never ? 1 : 5) << "it was hardly struck";
    }

    TestFs m_memory{FsKind::Tmpfs}; // so that flushes are quick
    TestEnvironment m_temporary{"TEST_TMPDIR", m_memory.dir()};
    const NoService m_alone;
    std::unique_ptr<TestFs> m_fs;
    std::unique_ptr<TestFs> m_archive;
    std::string m_file, m_store, m_data;
    bool m_attributes = true;
    int m_cuts = 0; ///< power cuts
};

/// The disks' copies under the file systems, in which the kernel's memory is not.
class PowerCuts : public Strikes {
protected:
    /// What has reached the disks leads to the whole file; after a success it holds what that says.
    void cut(int status, const std::string& where) {
        std::string same = "true";
        std::string copy = "true";
        for (const std::string& dir : {m_fs->dir(), m_archive->dir()}) {
            const auto filledIn = [&dir](std::string command) {
                for (size_t at = 0; (at = command.find('@')) != std::string::npos;)
                    command.replace(at, 1, dir);
                return command;
            };
            same += filledIn(" && cmp -s @.img @.cut");
            copy += filledIn(" && cp --sparse=always @.img @.cut && cp --sparse=always @.cut @.now && "
                             "mount -o loop @.now @");
        }
        if (status != 0 && std::system(same.c_str()) == 0)
            return;
        ++m_cuts;
        const pid_t child = ::fork();
        if (child == 0) { // with mounts of its own
            if (::unshare(CLONE_NEWNS) < 0 || std::system(copy.c_str()) != 0)
                ::_exit(2);
            const std::string why = whyLost({.status = status}, m_cuts);
            std::cerr << (why.empty() ? "" : why + "\n");
            ::_exit(why.empty() ? 0 : 1);
        }
        int result = -1;
        ::waitpid(child, &result, 0);
        EXPECT_EQ(result, 0) << verb().called << " cut off " << where;
    }

    /// Before each look the kernel may have written the data, or all but the data.
    void cutAll(bool data, bool names) {
        prepare();
        writeFile(m_fs->path("other"), "");
        const UniqueFd other(::open(m_fs->path("other").c_str(), O_RDWR));
        const UniqueFd store(::open(m_store.c_str(), O_RDONLY));
        ::syncfs(other.get());
        ::syncfs(store.get());
        int number = 0;
        const Ended ended =
            run(verb().called, {.kind = Kind::Look, .look = [&] {
                                    const UniqueFd file(data ? ::open(m_file.c_str(), O_RDONLY) : -1);
                                    if (data)
                                        ::sync_file_range(file.get(), 0, 0,
                                                          SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER);
                                    if (names) {
                                        ::fchmod(other.get(), 0600 + (number & 1));
                                        ::fsync(other.get());
                                    }
                                    cut(-1, "before change " + std::to_string(++number));
                                }});
        EXPECT_EQ(ended.status, 0) << ended.said;
        cut(ended.status, "after it");
    }
};

bool all() {
    return std::getenv("QZHSM_ALL_STRIKES") != nullptr;
}

} // namespace

TEST_P(Strikes, Kill) {
    strikeAll(Kind::Kill, {0}, 1);
}

TEST_P(Strikes, Fail) {
    if (!all())
        return strikeAll(Kind::Fail, {EIO, ENOSPC, EMFILE, EINTR}, 7);
    for (const int err : {EIO, ENOSPC, EMFILE, EINTR})
        strikeAll(Kind::Fail, {err}, 1);
}

TEST_P(Strikes, Shorten) {
    strikeAll(Kind::Shorten, {0}, 1);
}

TEST_P(PowerCuts, LoseNothing) {
    cutAll(false, false);
    cutAll(true, false);
    cutAll(false, true);
    EXPECT_GT(m_cuts, 10) << "the disks hardly changed";
}

INSTANTIATE_TEST_SUITE_P(, PowerCuts, ::testing::ValuesIn(cases({"Ext4"})),
                         [](const auto& row) { return row.param.name(); });
INSTANTIATE_TEST_SUITE_P(, Strikes, ::testing::ValuesIn(cases({"Ext4", "Tmpfs", "Plain", "Ramfs"})),
                         [](const auto& row) { return row.param.name(); });
