#include "platform/files/NkACL.h"
#include "tests/platform/ChildProcess.h"
#include "tests/support/TestFs.h"

#include <cerrno>

TEST(NkACL, HandsOutAttributesWholeOrTheirBeginning) {
    const TestFs fs(FsKind::Tmpfs);
    REQUIRE_FS(fs);
    setAttribute(fs.dir(), "user.long", "0123456789");
    char buffer[11] = "";
    NkACL::Helper* shared = NkACL::Helper::getInstance();
    EXPECT_EQ(shared->getAttribute(fs.dir().c_str(), "user.long", buffer, 9), -1);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(shared->getAttribute(fs.dir().c_str(), "user.long", buffer, 10), 10);
    const auto forStubs = NkACL::Helper::getInstance(NkACL::Type::StubText);
    EXPECT_EQ(forStubs->getAttribute(fs.dir().c_str(), "user.long", buffer, 4), 4);
    EXPECT_EQ(forStubs->getAttribute(fs.dir().c_str(), "user.none", buffer, 4), -1);
    EXPECT_STREQ(buffer, "0123456789");
}

TEST(NkACL, TellsWhetherAttributesWork) {
    NkACL::Helper* helper = NkACL::Helper::getInstance();
    EXPECT_FALSE(helper->supportsXattr("/missing"));
    for (const auto& [err, supports] : {std::pair{ENOSYS, false}, {EOPNOTSUPP, false}, {EIO, true}})
        EXPECT_TRUE(inChild([&, err = err, supports = supports] {
            return refuse(SYS_getxattr, err) && helper->supportsXattr("/") == supports;
        })) << err;
}
