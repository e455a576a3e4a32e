#include "tests/support/Strike.h"
#include "tests/support/TestFs.h"

#include <chrono>
#include <csignal>
#include <sys/prctl.h>

// Root works in a tree in which its owner swaps files, directories and symbolic links. Names lead wherever
// the owner wants, but nobody else's file is ever touched.

namespace {

constexpr uid_t kOwner = 65534;

class Users : public ::testing::TestWithParam<const char*> {
protected:
    /// The owner swaps two names as fast as can be, until the test ends.
    void swap(const std::string& one, const std::string& other) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::setgid(kOwner) < 0 || ::setuid(kOwner) < 0)
                ::_exit(1);
            while (::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0)
                ;
            ::_exit(2);
        }
        m_children.push_back(child);
    }
    void TearDown() override {
        for (const pid_t child : m_children) {
            int status = 0;
            EXPECT_EQ(::waitpid(child, &status, WNOHANG), 0) << "it had ceased to swap: " << status;
            ::kill(child, SIGKILL);
            ::waitpid(child, &status, 0);
        }
    }

    const NoService m_alone;
    TestFs m_fs{FsKind::Tmpfs};
    std::vector<pid_t> m_children;
};

/// And how many files are beside it.
std::string everything(const std::string& path) {
    const struct stat st = statOf(path);
    const std::filesystem::directory_iterator beside(std::filesystem::path(path).parent_path());
    std::ostringstream all;
    all << std::distance(beside, {}) << ' ' << st.st_uid << ' ' << st.st_mode << ' ' << st.st_mtime << ' '
        << attribute(path, "user.NkStubFile") << attribute(path, "user.TSTUB") << readFile(path);
    return all.str();
}

} // namespace

/// @ is a name that is swapped, $ the directory of all.
TEST_P(Users, NeverGetRootToTouchAnothersFile) {
    const TestFs& fs = m_fs;
    REQUIRE_FS(fs);
    std::filesystem::create_directories(fs.path("secret"));
    std::filesystem::create_directories(fs.path("tree/directory"));
    const std::string secret = fs.path("secret/file");
    const std::vector<std::string> own{fs.path("tree/directory/file"), fs.path("tree/file")};
    for (const std::string& file : {secret, own[0], own[1], fs.path("stub")})
        writeFile(file, noise(20000));
    std::filesystem::create_symlink(secret, fs.path("tree/link"));
    std::filesystem::create_symlink(fs.path("secret"), fs.path("tree/linked"));
    const auto run = [&](const std::string& line, const std::string& file) {
        std::vector<std::string> words{QZHSM_PROGRAM};
        std::istringstream stream(line);
        for (std::string word; stream >> word;)
            words.push_back(word == "@" ? file : word.starts_with('$') ? fs.path(word.substr(1)) : word);
        return runStruck(words, {}).status;
    };
    ASSERT_EQ(run("store create $store", ""), 0);
    ASSERT_EQ(run("stub $stub --meta saved", ""), 0);
    ASSERT_EQ(run("stub @ --meta saved", own[1]), 0);
    ASSERT_EQ(run("backup @ -o $saved", own[1]), 0);
    ASSERT_EQ(run("recall @ --from $secret/file", own[1]), 0);
    ASSERT_EQ(std::system(("chmod 755 " + fs.dir() + "; chmod 700 " + fs.path("secret") +
                           "; chown -hR 65534 " + fs.path("tree"))
                              .c_str()),
              0);
    const std::string before = everything(secret);

    swap(fs.path("tree/file"), fs.path("tree/link"));
    swap(fs.path("tree/directory"), fs.path("tree/linked"));
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
    for (size_t round = 0; std::chrono::steady_clock::now() < end; ++round) {
        run(GetParam(), own[round % 2]);
        ASSERT_EQ(everything(secret) == before, true)
            << "after " << round << " rounds: " << everything(secret).substr(0, 60);
        run("recall @ --from $secret/file", own[round % 2]);
    }
}

INSTANTIATE_TEST_SUITE_P(, Users,
                         ::testing::Values("archive --store $store @", "archive --store $store $tree",
                                           "recall $tree", "stub @ --meta meta", "backup $stub -o @",
                                           "restore-stub --force @ $saved", "repair $tree", "repair @"));
