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
    const char* mark;         ///< the attribute that a stub carries, or null where nothing marks it
    bool textInFile;          ///< the stub text lies at the beginning of the file, before a hole
    bool hasPosition;         ///< transparent I/O goes by a position, not by offsets
    const char* writeRefused; ///< the text where a descriptor that is open for reading only is written to

    friend std::ostream& operator<<(std::ostream& out, const StubWorld& world) { return out << world.name; }
};

/// What every back-end must do alike. A new one joins with a line in the list of worlds.
class LifeOfAStub : public ::testing::TestWithParam<StubWorld> {
protected:
    void SetUp() override;

    /// Stubs the file with its own modification time.
    int stub(const std::string& path, const char* meta = "versionGuid=0123;job=7");
    /// Writes all of `data` into the transparent session, from `offset` on.
    void put(std::string_view data, long long offset);
    void countsOpens();

    TestFs m_fs{GetParam().fs};
    std::unique_ptr<QZHSMLowLevel> m_backEnd{GetParam().create()};
};
