#include "platform/files/NkACL.h"
#include "tests/platform/ChildProcess.h"

#include <cerrno>
#include <gtest/gtest.h>

TEST(NkACL, TellsWhetherAttributesWork) {
    NkACL::Helper* helper = NkACL::Helper::getInstance();
    EXPECT_FALSE(helper->supportsXattr("/missing"));
    for (const auto& [err, supports] : {std::pair{ENOSYS, false}, {EOPNOTSUPP, false}, {EIO, true}})
        EXPECT_TRUE(inChild([&, err = err, supports = supports] {
            return refuse(SYS_getxattr, static_cast<unsigned>(err)) && helper->supportsXattr("/") == supports;
        })) << err;
}
