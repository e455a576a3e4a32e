#include "platform/process/ChildProcess.h"
#include "tests/platform/ChildProcess.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/resource.h>

TEST(ChildProcess, IsNotStartedWithoutItsDescriptors) {
    // A descriptor beyond the limit is refused before the command runs, which would write elsewhere.
    for (const auto& [limit, in, out, err] :
         {std::tuple{9U, 9, 1, 2}, {9U, 0, 9, 2}, {9U, 0, 1, 9}, {3U, 0, 1, 2}})
        EXPECT_TRUE(inChild([limit = limit, in = in, out = out, err = err] {
            const rlimit descriptors{limit, limit};
            return ::setrlimit(RLIMIT_NOFILE, &descriptors) == 0 &&
                   ChildProcess().start("exit", in, out, err) == EBADF;
        })) << in
            << out << err;
}
