#pragma once

#include "emulator/DriverEmulator.h"
#include "lowlevel/driver/QZHSMLowLevelQZFS.h"
#include "platform/stub/StubText.h"
#include "tests/support/TestFs.h"

inline constexpr const char* kMeta = "versionGuid=0123;job=7";

inline std::vector<char> stubDataOf(const std::string& meta, long long size) {
    std::vector<char> data(static_cast<size_t>(qzhsm_meta2stub(meta.c_str(), size, nullptr, 0)));
    qzhsm_meta2stub(meta.c_str(), size, data.data(), static_cast<int>(data.size()));
    return data;
}

/// A file system that the emulated driver watches.
template <class BackEnd>
class DriverWorld : public ::testing::Test {
protected:
    void SetUp() override {
        REQUIRE_FS(m_fs);
        emulator::driver() = {};
        ASSERT_EQ(m_driver.startWatchingDirTree(m_fs.dir().c_str()), 0) << m_driver.m_errorText;
    }

    int stub(const std::string& path) {
        const struct stat st = statOf(path);
        return m_driver.stubFile(path.c_str(), kMeta, st.st_mtime, st.st_size);
    }

    TestFs m_fs{FsKind::Tmpfs};
    BackEnd m_driver;
};
using DriverFixture = DriverWorld<QZHSMLowLevelQZFS>;
