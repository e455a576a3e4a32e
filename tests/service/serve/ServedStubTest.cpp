#include "service/serve/ServedStub.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>

namespace {

constexpr std::uint64_t kPiece = 100;

/// An access that waits is one whose descriptor is open: whoever answers closes it.
class ServedStubTest : public testing::Test {
protected:
    HeldAccess access(std::uint64_t offset = 0, std::uint64_t count = 1) {
        return {::open("/dev/null", O_RDONLY), 1, false, offset, count};
    }
    static bool waits(const HeldAccess& access) { return ::fcntl(access.fd, F_GETFD) >= 0; }

    PreContentGroup group; // that no kernel listens to
    ServedStub stub{group, {1, 2}, "name", "cause"};
};

TEST_F(ServedStubTest, AnswersEachWhenWhatItNeedsIsThere) {
    const HeldAccess first = access(0, 50);
    const HeldAccess across = access(150, 100);
    const HeldAccess beyond = access(1000, 10);
    const HeldAccess data = access();
    const HeldAccess ended = access();
    for (const HeldAccess& range : {first, across, beyond})
        stub.add(range, Need::Range);
    stub.add(data, Need::Data);
    stub.add(ended, Need::Ended);
    stub.begin(4, kPiece);
    EXPECT_EQ(stub.wanted(3), 0U) << "those who wait longest come first";
    stub.fill(0);
    EXPECT_FALSE(waits(first));
    EXPECT_FALSE(waits(beyond)) << "what lies behind the end is nothing to wait for";
    EXPECT_EQ(stub.wanted(3), 1U);
    stub.fill(1);
    EXPECT_TRUE(waits(across));
    EXPECT_EQ(stub.wanted(3), 2U);
    stub.fill(2);
    EXPECT_FALSE(waits(across));
    EXPECT_EQ(stub.wanted(0), 3U) << "with nobody waiting for a range it goes on from there";
    stub.fill(3);
    EXPECT_EQ(stub.wanted(0), std::nullopt);
    EXPECT_TRUE(waits(data)) << "the times are not there";
    stub.settle();
    EXPECT_FALSE(waits(data));
    EXPECT_TRUE(waits(ended));
    const HeldAccess late = access(300, 50);
    stub.add(late, Need::Range);
    EXPECT_FALSE(waits(late));
    EXPECT_EQ(stub.waiting(), 1U);
    EXPECT_TRUE(stub.isSeen());
    stub.allowAll();
    EXPECT_FALSE(waits(ended));
}

TEST_F(ServedStubTest, LetsThroughWhoeverTruncatesItBeforeItsRecall) {
    using namespace std::chrono_literals;
    const auto living = [](pid_t tid) { return tid == 1; };
    const auto now = ServedStub::Clock::now();
    EXPECT_FALSE(stub.isUnasked()) << "nobody has come";
    HeldAccess killed = access();
    killed.tid = 2;
    stub.add(killed, Need::Truncate);
    EXPECT_FALSE(waits(killed));
    EXPECT_TRUE(stub.isBeingTruncated(living, now)) << "he may have, before he was killed";
    EXPECT_FALSE(stub.isBeingTruncated(living, now));
    stub.add(access(), Need::Unclear);
    EXPECT_TRUE(stub.isUnclear());
    stub.reconsider([](const HeldAccess&) { return Need::Truncate; });
    EXPECT_TRUE(stub.isBeingTruncated(living, now));
    EXPECT_TRUE(stub.isBeingTruncated(living, now + 2s)) << "since it was looked at last";
    EXPECT_FALSE(stub.isBeingTruncated(living, now + 2s)) << "the kernel may not let him";
    const HeldAccess unclear = access();
    stub.add(unclear, Need::Unclear);
    EXPECT_FALSE(stub.isUnasked());
    stub.reconsider([](const HeldAccess&) { return Need::Refused; });
    EXPECT_FALSE(waits(unclear));
    EXPECT_TRUE(stub.isUnasked()) << "nobody has asked for the data";
    stub.close();
    const HeldAccess late = access();
    stub.add(late, Need::Truncate);
    EXPECT_TRUE(waits(late)) << "it is being recalled";
    stub.allowAll();
    EXPECT_FALSE(stub.isUnasked()) << "somebody went on";
}

TEST_F(ServedStubTest, ShowsNothingThatIsTakenOutAgain) {
    stub.begin(2, kPiece);
    stub.fill(0);
    EXPECT_TRUE(stub.takeBack());
    const HeldAccess late = access();
    stub.add(late, Need::Range);
    EXPECT_TRUE(waits(late));
    stub.fill(0);
    EXPECT_FALSE(waits(late));
    EXPECT_FALSE(stub.takeBack()) << "somebody has seen it";
}

TEST_F(ServedStubTest, WaitsForWhoeverHoldsTheFileButNotForEver) {
    using namespace std::chrono_literals;
    HeldAccess unknown = access();
    unknown.tid = 0;
    const HeldAccess known = access();
    for (const HeldAccess& data : {unknown, known})
        stub.add(data, Need::Data);
    const ServedStub::Clock::time_point start{1h};
    EXPECT_EQ(stub.heldUp(8, start), start + 1ms);
    EXPECT_EQ(stub.heldUp(16, start + 900ms), start + 901ms) << "it grows, as by a recall";
    EXPECT_EQ(stub.heldUp(16, start + 1700ms), start + 1900ms);
    EXPECT_TRUE(waits(unknown));
    EXPECT_EQ(stub.heldUp(16, start + 10s), start + 11s);
    EXPECT_FALSE(waits(unknown)) << "it may be whoever holds the file";
    EXPECT_TRUE(waits(known));
    EXPECT_EQ(stub.heldUp(16, start + 61s), std::nullopt);
}

TEST_F(ServedStubTest, IsNotAwaitedByThoseWhoWereKilled) {
    const HeldAccess killed = access();
    HeldAccess living = access();
    living.tid = 2;
    for (const HeldAccess& data : {killed, living})
        stub.add(data, Need::Data);
    EXPECT_TRUE(stub.isAwaited([](pid_t tid) { return tid == 2; }));
    EXPECT_FALSE(waits(killed));
    EXPECT_TRUE(waits(living));
    EXPECT_FALSE(stub.isAwaited([](pid_t) { return false; }));
    EXPECT_FALSE(waits(living));
}

TEST_F(ServedStubTest, HasAnEmptyFileWaitForItsEnd) {
    const HeldAccess range = access();
    stub.add(range, Need::Range);
    stub.begin(0, kPiece);
    EXPECT_TRUE(waits(range)) << "its stub text is still there";
    stub.settle();
    EXPECT_FALSE(waits(range));
}

} // namespace
