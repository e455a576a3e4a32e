#include "service/serve/RecallService.h"
#include "platform/stub/StubAttributes.h"
#include "service/serve/ControlSocket.h"
#include "service/serve/SocketMessage.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/xattr.h>

namespace {

/// The file of that name, which no directory has.
int fileOf(const std::string& name, bool marked = true) {
    static std::map<std::string, UniqueFd> files;
    UniqueFd& file = files[name];
    if (!file.isOpen())
        file = UniqueFd(::open(testing::TempDir().c_str(), O_RDWR | O_TMPFILE | O_CLOEXEC, 0600));
    if (marked)
        ::fsetxattr(file.get(), kStubMark, "1", 1, 0);
    return ::fcntl(file.get(), F_DUPFD_CLOEXEC, 0);
}

TEST(RecallServiceTest, GoesOnFirstWithWhatIsAwaited) {
    PreContentGroup group; // that no kernel listens to
    RecallService service(group, {});
    service.takeOver({fileOf("plain", false)});
    EXPECT_EQ(service.status().queued, 0U) << "an ordinary file waits for nobody";
    service.takeOver({fileOf("a")});
    ASSERT_EQ(service.status().queued, 1U) << "user attributes do not work here";
    RecallService::Work first = service.next();
    ASSERT_TRUE(first.stub);
    EXPECT_FALSE(first.recall);
    service.takeOver({fileOf("b")});
    EXPECT_FALSE(service.isLessUrgent(*first.stub)) << "somebody waits for it";
    first.stub->denyUnknown(EIO);
    EXPECT_TRUE(service.isLessUrgent(*first.stub));
    first.recall = std::make_unique<SuspendedRecall>();
    const RecallService::Stub suspended = first.stub;
    service.suspend(std::move(first));
    const RecallService::Work second = service.next();
    EXPECT_NE(second.stub, suspended) << "a new stub, for which somebody waits, comes first";
    second.stub->denyUnknown(EIO);
    EXPECT_FALSE(service.isLessUrgent(*second.stub)) << "nobody waits for either";
    service.takeOver({fileOf("a"), fileOf("c")});
    EXPECT_TRUE(service.isLessUrgent(*second.stub));
    const RecallService::Work third = service.next();
    EXPECT_EQ(third.stub, suspended) << "somebody waits for it again";
    EXPECT_TRUE(third.recall);
    EXPECT_NE(service.next().stub, suspended);
    service.stop();
    EXPECT_FALSE(service.next().stub);
}

TEST(ControlSocketTest, TellsOfFilesThatItCannotHeed) {
    PreContentGroup group; // that no kernel listens to
    RecallService service(group, {});
    ControlSocket socket(service, {});
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const UniqueFd tool(ends[1]);
    socket.takeOver(UniqueFd(ends[0]));
    const UniqueFd file(fileOf("heeded", false));
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const auto answerWith = [&](rlim_t descriptors) {
        sendMessage(tool.get(), "heed", {file.get()});
        const rlimit lower{descriptors, limit.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &lower);
        socket.serve(ends[0]);
        ::setrlimit(RLIMIT_NOFILE, &limit);
        std::string answer;
        std::vector<UniqueFd> none;
        receiveMessage(tool.get(), answer, none);
        return answer;
    };
    EXPECT_EQ(answerWith(limit.rlim_cur), "Bad file descriptor");
    EXPECT_EQ(answerWith(1), "Too many open files") << "the file did not come with the message";
}

} // namespace
