#include "lowlevel/QZHSMLowLevelCtx.h"

#include "lowlevel/QZHSMLowLevelCtxHelper.h"
#include "lowlevel/driver/QZHSMLowLevelQZFSExtent.h"
#include "lowlevel/driverless/QZHSMLowLevelDriverless.h"
#include "lowlevel/glusterfs/QZHSMLowLevelGlusterFs.h"
#include "lowlevel/hadoop/QZHSMLowLevelHadoop.h"
#include "lowlevel/lustre/QZHSMLowLevelLustre.h"
#include "platform/errors/NkException.h"

#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <typeinfo>

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

namespace {

bool driverCanBeMade = true;
bool driverlessCanBeMade = true;
std::atomic<int> made{0};
std::atomic<int> alive{0};
bool fails = false;

class Counted : public QZHSMLowLevelHadoop {
public:
    Counted() { ++alive; }
    ~Counted() override { --alive; }
};

} // namespace

// These stand in front of the library's own factories.

QZHSMLowLevel* createQZHSMLowLevelHadoop() {
    ++made;
    if (fails)
        throw NkException("Hadoop::Hadoop", "cannot be made", "Hadoop.cpp", 1, -1);
    return std::make_unique<Counted>().release();
}

QZHSMLowLevel* createQZHSMLowLevelQZFS() {
    if (fails)
        throw NkException("QZFS::QZFS", "cannot be made either", "QZFS.cpp", 1, -1);
    return driverCanBeMade ? std::make_unique<QZHSMLowLevelQZFS>().release() : nullptr;
}

QZHSMLowLevel* createQZHSMLowLevelDriverless() {
    return driverlessCanBeMade ? std::make_unique<QZHSMLowLevelDriverless>().release() : nullptr;
}

TEST(Registry, HandsOutByKindAndByName) {
    constexpr int kNone = 99;
    const std::tuple<int, const char*, const char*, const std::type_info&> rows[] = {
        {-1, "archiver driver", "qzfs", typeid(QZHSMLowLevelQZFS)},
        {0, "archiver driver", "qzfs", typeid(QZHSMLowLevelQZFS)},
        {1, "archiver driver", "qzfs", typeid(QZHSMLowLevelQZFS)},
        {2, "driverless", "NK_ANYFS", typeid(QZHSMLowLevelDriverless)},
        {3, "Hadoop", "HADOOP_FS", typeid(Counted)},
        {4, "Lustre", "LUSTRE_FS", typeid(QZHSMLowLevelLustre)},
        {5, "GlusterFS", "GLUSTER_FS", typeid(QZHSMLowLevelGlusterFs)},
        {6, "ArhiveDelete", "NK_ARCHIVE_DELETE_FS", typeid(QZHSMLowLevelDriverless)},
        {7, "archiver driver", "qzfs", typeid(QZHSMLowLevelQZFS)},
        {kNone, "archiver driver", "qzfs_extent", typeid(QZHSMLowLevelQZFSExtent)},
        {kNone, "archiver driver", "QZFS_EXTENT", typeid(QZHSMLowLevelQZFS)},
        {kNone, "archiver driver", "nk_anyfs", typeid(QZHSMLowLevelQZFS)},
    };
    for (const auto& [kind, text, fsName, type] : rows) {
        QZHSMLowLevelCtx registry(kind);
        EXPECT_EQ(registry.AsString(), text);
        QZHSMLowLevel* object = registry.getByFSName(fsName);
        ASSERT_NE(object, nullptr) << fsName;
        EXPECT_EQ(typeid(*object), type) << fsName;
        EXPECT_EQ(registry.getByFileName("/any") == object, kind != kNone) << kind;
    }
    EXPECT_EQ(QZHSMLowLevelCtx(6).getByFileName("/any")->isDMRFS("/no/such/path"), 1);
}

TEST(Registry, MakesEachNameOnceAndDeletesAll) {
    made = 0;
    {
        QZHSMLowLevelCtx registry(3);
        QZHSMLowLevel* got[2] = {};
        std::thread other([&] { got[0] = registry.getByFSName("HADOOP_FS"); });
        got[1] = registry.getByFileName("/any");
        other.join();
        EXPECT_NE(got[0], nullptr);
        EXPECT_EQ(got[0], got[1]);
        EXPECT_EQ(made, 1);
        EXPECT_EQ(alive, 1);
    }
    EXPECT_EQ(alive, 0);
}

TEST(Registry, TriesAgainAfterAFailure) {
    QZHSMLowLevelCtx registry(3);
    fails = true;
    CaptureStderr();
    EXPECT_EQ(registry.getByFSName("HADOOP_FS"), nullptr);
    EXPECT_EQ(QZHSMLowLevel::create(), nullptr);
    fails = false;
    const std::string log = GetCapturedStderr();
    EXPECT_NE(log.find("[Hadoop::Hadoop] cannot be made\n"), std::string::npos);
    EXPECT_NE(log.find("[QZHSMLowLevel::create] cannot be made either\n"), std::string::npos);
    EXPECT_NE(registry.getByFSName("HADOOP_FS"), nullptr);
}

TEST(Registry, TwoArgumentFormKnowsTwoBackEnds) {
    QZHSMLowLevelCtx driverless(2);
    QZHSMLowLevel* any = driverless.getByFSName("HADOOP_FS", true);
    ASSERT_NE(any, nullptr);
    EXPECT_EQ(driverless.getByFSName("qzfs", false), any);
    EXPECT_EQ(driverless.getByFSName("NK_ANYFS"), any);

    for (int kind = 0; kind <= 7; ++kind) {
        if (kind == 2)
            continue;
        QZHSMLowLevelCtx registry(kind);
        QZHSMLowLevel* driver = registry.getByFSName("HADOOP_FS", true);
        ASSERT_NE(driver, nullptr);
        EXPECT_EQ(typeid(*driver), typeid(QZHSMLowLevelQZFS)) << kind;
        EXPECT_EQ(registry.getByFSName("HADOOP_FS", false), driver) << kind;
        EXPECT_EQ(registry.getByFSName("HADOOP_FS"), driver) << "cached under its own name";
        any = registry.getByFSName("NK_ANYFS", true);
        ASSERT_NE(any, nullptr);
        EXPECT_EQ(typeid(*any), typeid(QZHSMLowLevelDriverless)) << kind;
        EXPECT_EQ(registry.getByFSName("other", true) == any, kind == 0) << kind;
    }
}

TEST(Registry, TwoArgumentFormFallsBackWithKind0) {
    driverCanBeMade = false;
    QZHSMLowLevelCtx either(0);
    CaptureStderr();
    QZHSMLowLevel* fallback = either.getByFSName("nk_anyfs", true);
    EXPECT_NE(fallback, nullptr);
    EXPECT_EQ(either.getByFSName("NK_ANYFS"), fallback);
    driverlessCanBeMade = false;
    EXPECT_EQ(QZHSMLowLevelCtx(0).getByFSName("qzfs", true), nullptr) << "there is no third way";
    driverlessCanBeMade = true;
    EXPECT_EQ(GetCapturedStderr(), "") << "falling back is no failure";

    QZHSMLowLevelCtx driver(1);
    CaptureStderr();
    EXPECT_EQ(driver.getByFSName("qzfs", true), nullptr);
    EXPECT_EQ(driver.getByFileName("/any"), nullptr);
    driverCanBeMade = true;
    const std::string log = GetCapturedStderr();
    const std::string line = "[QZHSMLowLevelCtx::getByFSName] Creating  low level object failed\n";
    EXPECT_NE(log.find(line), log.rfind(line)) << log;
}
