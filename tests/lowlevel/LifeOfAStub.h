#pragma once

#include "lowlevel/QZHSMLowLevel.h"
#include "tests/support/TestFs.h"

#include <memory>
#include <ostream>

/// A back-end on a file system, and where it differs from the others.
struct StubWorld {
    const char* name;
    FsKind fs;
    QZHSMLowLevel* (*create)();
    const char* mark = nullptr; ///< the attribute that a stub carries, or null where nothing marks it
    bool textInFile = false;    ///< the stub text lies at the beginning of the file, before a hole
    bool givesDataUp = true;    ///< stubbing does so, rather than the file system in its own time
    bool transparent = true;    ///< there is transparent I/O
    bool restoresMarks = true;  ///< a stub can be restored that lost its attributes
    bool anyName = true;        ///< names may hold what means something to a shell
    bool endsItself = true;     ///< `restoreDone` ends the stub, rather than the file system in its own time
    int done = 0;               ///< what `restoreDone` answers to a success
    const char* writeRefused{}; ///< the text where a descriptor that is open for reading only is written to
    /// What else has to happen to a stubbed file, outside the back-end.
    void (*settle)(const std::string& path) = [](const std::string&) {};

    friend std::ostream& operator<<(std::ostream& out, const StubWorld& world) { return out << world.name; }
};

/// What every back-end must do alike. A new one joins with a line in the list of worlds.
class LifeOfAStub : public ::testing::TestWithParam<StubWorld> {
protected:
    void SetUp() override;

    /// Stubs the file with its own modification time.
    int stub(const std::string& path);
    /// Writes all of `data` into the transparent session, from `offset` on.
    void put(std::string_view data, long long offset);
    bool isMarked(const std::string& path) const;

    const StubWorld& m_world = GetParam();
    TestFs m_fs{m_world.fs};
    std::unique_ptr<QZHSMLowLevel> m_backEnd{m_world.create()};
};

/// Back-ends whose transparent I/O allows one session, with the texts that they share.
class OneSession : public LifeOfAStub {};
