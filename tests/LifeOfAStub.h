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
    bool hasAttributes; ///< stubs are marked with "user.NkStubFile"

    friend std::ostream& operator<<(std::ostream& out, const StubWorld& world) { return out << world.name; }
};

/// What every back-end must do alike. A new one joins with a line in the list of worlds.
class LifeOfAStub : public ::testing::TestWithParam<StubWorld> {
protected:
    void SetUp() override { REQUIRE_FS(m_fs); }

    /// Stubs the file with its own modification time.
    int stub(const std::string& path, const char* meta = "versionGuid=0123;job=7");

    TestFs m_fs{GetParam().fs};
    std::unique_ptr<QZHSMLowLevel> m_backEnd{GetParam().create()};
};
