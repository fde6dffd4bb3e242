/// Changes that fail, and the records that say so.
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "kevent_support.h"

namespace {

using namespace keventtest;

uint64_t closedNumber() {
    const Fd fd(dup(0));
    return static_cast<uint64_t>(fd.get());
}

TEST(KeventReceipts, FailedDeleteKeepsItsFlagsAndTellsTheErrno) {
    const Queue queue;
    const Pair pair = unixPair();
    auto wanted = change(static_cast<uint64_t>(pair.reader.get()), EVFILT_WRITE, EV_DELETE, 77, 9, 3);
    const auto events = queue.collect(0, 4, {wanted});
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].ident, wanted.ident);
    EXPECT_EQ(events[0].filter, EVFILT_WRITE);
    EXPECT_EQ(events[0].flags, EV_DELETE | EV_ERROR);
    EXPECT_EQ(events[0].fflags, 9U);
    EXPECT_EQ(events[0].data, ENOENT);
    EXPECT_EQ(events[0].udata, markAddress(3));
}

TEST(KeventReceipts, FailedAddIsAnOrdinaryRecordWithTheErrno) {
    const Queue queue;
    const auto events = queue.collect(0, 4, {change(closedNumber(), EVFILT_READ, kArm, 0, 0, 1)});
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].flags, kArm | EV_ERROR);
    EXPECT_EQ(events[0].data, EBADF);
    EXPECT_EQ(events[0].udata, markAddress(1));
}

TEST(KeventReceipts, NumbersBeyondDescriptorsAreBad) {
    const Queue queue;
    EXPECT_EQ(queue.apply(change(uint64_t{INT_MAX} + 1, EVFILT_READ, kArm)), EBADF);
    EXPECT_EQ(queue.apply(change(UINT64_MAX, EVFILT_WRITE, kArm)), EBADF);
    EXPECT_EQ(queue.apply(change(UINT64_MAX, EVFILT_WRITE, EV_DELETE)), ENOENT);
}

TEST(KeventReceipts, UnknownFilterIsInvalid) {
    const Queue queue;
    EXPECT_EQ(queue.apply(change(0, -3, kArm)), EINVAL);
    EXPECT_EQ(queue.apply(change(0, 5, kArm)), EINVAL);
}

TEST(KeventReceipts, DeleteAndEnableOfWhatIsNotThere) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    EXPECT_EQ(queue.apply(change(fd, EVFILT_READ, EV_DELETE)), ENOENT);
    EXPECT_EQ(queue.apply(change(fd, EVFILT_READ, EV_ENABLE)), ENOENT);
    EXPECT_EQ(queue.apply(change(fd, EVFILT_READ, EV_DISABLE)), ENOENT);
    EXPECT_EQ(queue.apply(change(9, EVFILT_TIMER, EV_DELETE)), ENOENT);
    EXPECT_EQ(queue.apply(change(9, EVFILT_TIMER, EV_ENABLE)), ENOENT);
}

TEST(KeventReceipts, RestOfTheListIsAppliedAfterAFailure) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    const auto events =
        queue.collect(0, 4, {change(fd, EVFILT_WRITE, EV_DELETE), change(fd, EVFILT_WRITE, kArm)});
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].flags, EV_DELETE | EV_ERROR);
    EXPECT_THAT(queue.next(), IsEvent(fd, EVFILT_WRITE));
}

TEST(KeventReceipts, RecordsReturnAtOnceAndWithoutEvents) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    writeAll(pair.writer.get(), "ready");
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm)), 0);
    const auto lost = change(fd, EVFILT_WRITE, EV_DELETE);
    std::vector<struct kevent> events(4);
    ASSERT_EQ(kevent(queue.fd(), &lost, 1, events.data(), 4, nullptr), 1);
    EXPECT_EQ(events[0].flags, EV_DELETE | EV_ERROR);
    EXPECT_THAT(queue.next(), IsEvent(fd, EVFILT_READ));
}

TEST(KeventReceipts, FailureWithoutRoomFailsTheCallAndEndsTheList) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    const std::vector<struct kevent> changes{
        change(fd, EVFILT_WRITE, kArm), change(fd, EVFILT_READ, EV_DELETE), change(1, EVFILT_TIMER, kArm, 0)};
    EXPECT_EQ(kevent(queue.fd(), changes.data(), 3, nullptr, 0, nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_THAT(queue.next(), IsEvent(fd, EVFILT_WRITE));
    EXPECT_EQ(queue.apply(change(1, EVFILT_TIMER, EV_DELETE)), ENOENT);
}

TEST(KeventReceipts, FullListFailsTheCallAndKeepsTheRecords) {
    const Queue queue;
    const uint64_t bad = closedNumber();
    std::vector<struct kevent> changes{change(bad, EVFILT_READ, EV_DELETE), change(bad, EVFILT_READ, kArm),
                                       change(1, EVFILT_TIMER, kArm, 0)};
    struct kevent record {};
    EXPECT_EQ(kevent(queue.fd(), changes.data(), 3, &record, 1, nullptr), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(record.flags, EV_DELETE | EV_ERROR);
    EXPECT_EQ(queue.apply(change(1, EVFILT_TIMER, EV_DELETE)), ENOENT);
}

TEST(KeventReceipts, ReceiptFlagAnswersSuccessToo) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    const auto events = queue.collect(kLimitMs, 4, {change(fd, EVFILT_WRITE, kArm | EV_RECEIPT, 55, 0, 2)});
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].flags, kArm | EV_RECEIPT | EV_ERROR);
    EXPECT_EQ(events[0].data, 0);
    EXPECT_EQ(events[0].udata, markAddress(2));
    EXPECT_THAT(queue.next(), IsEvent(fd, EVFILT_WRITE));
}

TEST(KeventReceipts, ReceiptOfSuccessWithoutRoomIsDropped) {
    const Queue queue;
    const auto timer = change(1, EVFILT_TIMER, kArm | EV_RECEIPT, 1000);
    EXPECT_EQ(kevent(queue.fd(), &timer, 1, nullptr, 0, nullptr), 0);
}

TEST(KeventReceipts, OneArrayServesAsBothLists) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    std::vector<struct kevent> list{change(fd, EVFILT_WRITE, kArm, 0, 0, 1),
                                    change(fd, EVFILT_READ, EV_DELETE, 0, 0, 2),
                                    change(3, EVFILT_TIMER, EV_DELETE, 0, 0, 3)};
    ASSERT_EQ(kevent(queue.fd(), list.data(), 3, list.data(), 3, nullptr), 2);
    EXPECT_EQ(list[0].udata, markAddress(2));
    EXPECT_EQ(list[1].udata, markAddress(3));
    EXPECT_THAT(queue.next(), IsEvent(fd, EVFILT_WRITE));
}

TEST(KeventReceipts, SystemBitsOfAChangeAreIgnored) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm | 0xF000)), 0);
    EXPECT_EQ(queue.next().flags, kArm);
    const auto events = queue.collect(0, 4, {change(fd, EVFILT_READ, EV_DELETE | 0xF000)});
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].flags, EV_DELETE | EV_ERROR);
}

TEST(KeventReceipts, DeleteOverrulesAdd) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    EXPECT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm | EV_DELETE)), ENOENT);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm)), 0);
    EXPECT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm | EV_DELETE)), 0);
    EXPECT_TRUE(queue.collect().empty());
    ASSERT_EQ(queue.apply(change(1, EVFILT_TIMER, kArm, 0)), 0);
    EXPECT_EQ(queue.apply(change(1, EVFILT_TIMER, kArm | EV_DELETE)), 0);
    EXPECT_TRUE(queue.collect().empty());
}

TEST(KeventReceipts, DisableOverrulesEnable) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm | EV_DISABLE)), 0);
    EXPECT_TRUE(queue.collect().empty());
}

TEST(KeventReceipts, SameChangeTwiceInOneListIsNoFailure) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    writeAll(pair.writer.get(), "x");
    const auto first = change(fd, EVFILT_READ, kArm, 0, 0, 1);
    const auto second = change(fd, EVFILT_READ, kArm, 0, 0, 2);
    const auto events = queue.collect(kLimitMs, 8, {first, second, second});
    ASSERT_THAT(events, testing::ElementsAre(IsEvent(fd, EVFILT_READ)));
    EXPECT_EQ(events[0].udata, markAddress(2));
}

TEST(KeventReceipts, ChangesOfOneCallApplyInOrder) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = static_cast<uint64_t>(pair.reader.get());
    const auto add = change(fd, EVFILT_WRITE, kArm);
    const auto gone = change(fd, EVFILT_WRITE, EV_DELETE);
    EXPECT_TRUE(queue.collect(0, 4, {add, gone}).empty());
    EXPECT_EQ(queue.collect(0, 4, {add, gone, add}).size(), 1U);
}

TEST(KeventReceipts, QueueCannotWaitForItself) {
    const Queue queue;
    EXPECT_EQ(queue.apply(change(static_cast<uint64_t>(queue.fd()), EVFILT_READ, kArm)), EINVAL);
}

}  // namespace
