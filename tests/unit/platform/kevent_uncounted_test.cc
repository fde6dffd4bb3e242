/// A queue that leaves bytes uncounted: for which events, and what keventCount makes of them.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>
#include <set>
#include <utility>
#include <vector>

#include "kevent_support.h"

namespace {

using namespace keventtest;

uint64_t ident(const Fd& fd) {
    return static_cast<uint64_t>(fd.get());
}

class KeventUncounted : public testing::TestWithParam<Pair (*)()> {
  protected:
    KeventUncounted() { keventLeaveUncounted(queue.fd()); }

    /// The first event of a connection is counted: that is how the queue learns that there is one.
    void becomeKnown(unsigned flags = 0, int mark = 1) {
        ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm | flags, 0, 0, mark)), 0);
        writeAll(pair.writer.get(), "first");
        EXPECT_EQ(queue.next().data, 5);
        EXPECT_EQ(readSome(pair.reader.get()), "first");
    }

    /// Has READ told by the last call, as to a caller that is about to answer.
    void hearOfInput() {
        writeAll(pair.writer.get(), "again");
        EXPECT_THAT(queue.next(), IsEvent(ident(pair.reader), EVFILT_READ));
    }

    std::vector<struct kevent> writesOf(const std::vector<struct kevent>& changes, int ms = kLimitMs) const {
        return only(queue.collect(ms, 64, changes), EVFILT_WRITE);
    }

    struct kevent arm(int mark = 1, unsigned flags = 0) const {
        return change(ident(pair.reader), EVFILT_WRITE, kArm | flags, 0, 0, mark);
    }

    /// Opens another file under the number, and adds WRITE to that one: nothing of the old one is left.
    void expectAFreshStart(int mark) {
        const Pair other = GetParam()();
        ASSERT_NE(dup2(other.reader.get(), pair.reader.get()), -1);
        EXPECT_THAT(writesOf({arm(mark)}), testing::SizeIs(1));
        EXPECT_THAT(writesOf({}), testing::SizeIs(1)) << "it stays writable";
        EXPECT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, EV_DELETE)), ENOENT);
    }

    Queue queue;
    const int closedQueue = queue.fd();  // once it is closed
    Pair pair = GetParam()();
};

INSTANTIATE_TEST_SUITE_P(Kinds, KeventUncounted, testing::Values(unixPair, tcpPair),
                         [](const auto& one) { return one.index == 0 ? "Unix" : "Tcp"; });

TEST_P(KeventUncounted, OtherQueuesCount) {
    const Queue other;
    ASSERT_EQ(other.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    for (int i = 1; i <= 3; ++i) {
        writeAll(pair.writer.get(), "x");
        waitReadable(pair.reader.get(), i);
        EXPECT_EQ(other.next().data, i);
    }
}

TEST_P(KeventUncounted, ReadIsUncountedOnceTheConnectionIsKnown) {
    becomeKnown();
    writeAll(pair.writer.get(), "second");
    const auto event = queue.next();
    EXPECT_THAT(event, IsEvent(ident(pair.reader), EVFILT_READ));
    EXPECT_EQ(event.data, KEVENT_UNCOUNTED);
    EXPECT_EQ(event.flags, kArm);
    EXPECT_EQ(event.udata, markAddress(1));
}

TEST_P(KeventUncounted, CountGivesTheBytesThatWait) {
    becomeKnown();
    writeAll(pair.writer.get(), "second");
    auto event = queue.next();
    waitReadable(pair.reader.get(), 6);
    EXPECT_EQ(keventCount(&event), 1);
    EXPECT_EQ(event.data, 6);
}

TEST_P(KeventUncounted, CountOfBytesThatAreGoneIsNoEvent) {
    becomeKnown();
    writeAll(pair.writer.get(), "second");
    auto event = queue.next();
    EXPECT_EQ(readSome(pair.reader.get()), "second");
    EXPECT_EQ(keventCount(&event), 0);
}

TEST_P(KeventUncounted, CountLeavesACountedEventAlone) {
    becomeKnown();
    auto event = change(ident(pair.reader), EVFILT_READ, kArm, 77);
    EXPECT_EQ(keventCount(&event), 1);
    EXPECT_EQ(event.data, 77);
}

TEST_P(KeventUncounted, TheEndIsCounted) {
    becomeKnown();
    writeAll(pair.writer.get(), "rest");
    waitReadable(pair.reader.get(), 4);
    pair.writer.reset();
    auto event = queue.next();
    while ((event.flags & EV_EOF) == 0) event = queue.next();
    EXPECT_EQ(event.data, 4);
    EXPECT_EQ(readSome(pair.reader.get()), "rest");
    event = queue.next();
    EXPECT_EQ(event.data, 0);
    EXPECT_TRUE((event.flags & EV_EOF) != 0);
}

TEST_P(KeventUncounted, AnAnswerIsUncountedAndEndsWithoutAReceipt) {
    becomeKnown();
    for (int i = 0; i < 3; ++i) {
        const auto arm = change(ident(pair.reader), EVFILT_WRITE, kArm, 0, 0, 1);
        const auto armed = queue.collect(kLimitMs, 64, {arm});
        ASSERT_THAT(armed, testing::ElementsAre(IsEvent(ident(pair.reader), EVFILT_WRITE)));
        EXPECT_EQ(armed[0].data, KEVENT_UNCOUNTED);
        const auto disarm = change(ident(pair.reader), EVFILT_WRITE, EV_DELETE);
        EXPECT_THAT(queue.collect(0, 64, {disarm}), testing::IsEmpty());
        EXPECT_EQ(queue.apply(disarm), ENOENT);
    }
}

TEST_P(KeventUncounted, CountOfAWriteIsTheRoom) {
    becomeKnown();
    auto event = queue.collect(kLimitMs, 64, {change(ident(pair.reader), EVFILT_WRITE, kArm, 0, 0, 1)}).at(0);
    errno = EPIPE;  // of an earlier call: no end of this connection
    EXPECT_EQ(keventCount(&event), 1);
    EXPECT_GE(event.data, 4096);
    EXPECT_EQ(event.flags, kArm);
}

TEST_P(KeventUncounted, CountOfAWriteWithoutRoomIsNoEvent) {
    becomeKnown();
    fill(pair.reader.get());
    auto events = writesOf({arm()});
    ASSERT_THAT(events, testing::SizeIs(1));
    EXPECT_EQ(keventCount(&events[0]), 0);
}

TEST_P(KeventUncounted, AClosedQueueIsNoticedAfterAnAnswer) {
    becomeKnown();
    EXPECT_THAT(writesOf({arm()}), testing::SizeIs(1));
    queue.close();
    const timespec noTime{};
    EXPECT_EQ(kevent(closedQueue, nullptr, 0, nullptr, 0, &noTime), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_P(KeventUncounted, AWriteThatFoundNoRoomWaitsForIt) {
    becomeKnown();
    fill(pair.reader.get());
    const auto arm = change(ident(pair.reader), EVFILT_WRITE, kArm, 0, 0, 1);
    EXPECT_THAT(only(queue.collect(kLimitMs, 64, {arm}), EVFILT_WRITE), testing::SizeIs(1));
    EXPECT_THAT(queue.collect(kSilenceMs), testing::IsEmpty());
    while (only(queue.collect(), EVFILT_WRITE).empty()) (void)readSome(pair.writer.get());
}

TEST_P(KeventUncounted, AWriteThatIsNoAnswerOnAKnownConnectionWaitsForRoom) {
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm, 0, 0, 1)), 0);
    fill(pair.reader.get());
    EXPECT_THAT(writesOf({arm()}, kSilenceMs), testing::IsEmpty()) << "whether it is connected is not known";
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, EV_DELETE)), 0);
    becomeKnown();
    for (const unsigned flag : std::initializer_list<unsigned>{EV_CLEAR, EV_ONESHOT, EV_DISPATCH}) {
        EXPECT_THAT(writesOf({arm(1, flag)}, kSilenceMs), testing::IsEmpty()) << flag;
        ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, EV_DELETE)), 0);
    }
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, EV_DISABLE)), 0);
    EXPECT_THAT(writesOf({arm()}, kSilenceMs), testing::IsEmpty()) << "nobody watches for the end";
}

TEST_P(KeventUncounted, AWriteBesideAnEdgeWaitsForRoom) {
    becomeKnown(EV_CLEAR);
    fill(pair.reader.get());
    EXPECT_THAT(writesOf({arm()}, kSilenceMs), testing::IsEmpty());
}

TEST_P(KeventUncounted, AWriteBesideADispatchedReadWaitsForRoom) {
    becomeKnown(EV_DISPATCH);
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, EV_ENABLE)), 0);
    fill(pair.reader.get());
    EXPECT_THAT(writesOf({arm()}, kSilenceMs), testing::IsEmpty());
}

TEST_P(KeventUncounted, AnAnswerThatIsTakenBackAtOnceIsNotTold) {
    becomeKnown();
    const auto disarm = change(ident(pair.reader), EVFILT_WRITE, EV_DELETE);
    const auto disable = change(ident(pair.reader), EVFILT_WRITE, EV_DISABLE);
    EXPECT_THAT(writesOf({arm(), disarm}, 0), testing::IsEmpty());
    EXPECT_THAT(writesOf({arm(), disable}, 0), testing::IsEmpty());
    EXPECT_THAT(writesOf({arm()}), testing::SizeIs(1));
    EXPECT_THAT(writesOf({arm(), disarm}, 0), testing::IsEmpty()) << "the last call told of it";
    EXPECT_THAT(writesOf({}, kSilenceMs), testing::IsEmpty());
}

TEST_P(KeventUncounted, AnAnswerStaysWhenReadIsDeleted) {
    becomeKnown();
    writeAll(pair.writer.get(), "again");
    waitReadable(pair.reader.get(), 5);
    std::size_t told = 0;
    for (int calls = 0; told != 2 && calls < 4; ++calls) told = queue.collect(kLimitMs, 64, {arm()}).size();
    ASSERT_EQ(told, 2U) << "READ and WRITE";
    EXPECT_THAT(queue.collect(kLimitMs, 64, {change(ident(pair.reader), EVFILT_READ, EV_DELETE)}),
                testing::ElementsAre(IsEvent(ident(pair.reader), EVFILT_WRITE)));
}

TEST_P(KeventUncounted, AnotherFileIsNotTakenForTheOneThatIsAnswered) {
    becomeKnown();
    hearOfInput();
    expectAFreshStart(2);
}

TEST_P(KeventUncounted, ANullPointerDoesNotTellThatTheFileIsTheSame) {
    becomeKnown(0, 0);
    hearOfInput();
    expectAFreshStart(0);
}

TEST_P(KeventUncounted, AnAnswerComesInTheCallAfterItsQuestion) {
    for (int calls = 1; calls <= 2; ++calls) {
        pair = GetParam()();
        becomeKnown();
        hearOfInput();
        EXPECT_EQ(readSome(pair.reader.get()), "again");
        for (int i = 0; i < calls; ++i) EXPECT_THAT(queue.collect(0), testing::IsEmpty());
        expectAFreshStart(1);
    }
}

TEST_P(KeventUncounted, InputIsSeenBetweenAnswersWithoutEnd) {
    becomeKnown();
    Pair other = GetParam()();
    ASSERT_EQ(queue.apply(change(ident(other.reader), EVFILT_READ, kArm, 0, 0, 2)), 0);
    writeAll(other.writer.get(), "x");
    waitReadable(other.reader.get(), 1);
    int calls = 0;
    bool seen = false;
    while (!seen && ++calls < 4) {
        const auto arm = change(ident(pair.reader), EVFILT_WRITE, kArm, 0, 0, 1);
        for (const auto& event : queue.collect(kLimitMs, 64, {arm})) seen |= event.udata == markAddress(2);
    }
    EXPECT_TRUE(seen);
}

TEST_P(KeventUncounted, ANumberClosedWhileADuplicateLivesFallsSilent) {
    becomeKnown();
    const Fd duplicate(dup(pair.reader.get()));
    pair.reader.reset();
    writeAll(pair.writer.get(), "x");
    waitReadable(duplicate.get(), 1);
    int calls = 0;
    while (!queue.collect().empty()) ASSERT_LT(++calls, 100);
    EXPECT_THAT(queue.collect(kSilenceMs), testing::IsEmpty());
}

TEST_P(KeventUncounted, ANewFileUnderTheNumberStartsWithoutKnotes) {
    becomeKnown();
    Pair other = GetParam()();
    ASSERT_NE(dup2(other.reader.get(), pair.reader.get()), -1);
    writeAll(other.writer.get(), "x");
    EXPECT_THAT(queue.collect(kSilenceMs), testing::IsEmpty());
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm, 0, 0, 2)), 0);
    const auto event = queue.next();
    EXPECT_EQ(event.udata, markAddress(2));
    EXPECT_EQ(event.data, 1);
}

/// Connections on which more comes at once than one call tells of.
class KeventManyInputs : public testing::Test {
  protected:
    static constexpr int kConnections = 50;

    KeventManyInputs() {
        keventLeaveUncounted(queue.fd());
        for (int i = 0; i < kConnections; ++i) {
            pairs.push_back(unixPair());
            arm(i);
            write(i);
        }
        // The first events are counted.
        std::set<uint64_t> known;
        while (known.size() < pairs.size()) {
            for (const auto& event : queue.collect()) {
                known.insert(event.ident);
                (void)readSome(static_cast<int>(event.ident));
            }
        }
        for (int i = 0; i < kConnections; ++i) write(i);
    }

    void arm(int i) { ASSERT_EQ(queue.apply(change(number(i), EVFILT_READ, kArm, 0, 0, 1)), 0); }
    void write(int i) {
        writeAll(pairs[static_cast<size_t>(i)].writer.get(), "x");
        waitReadable(reader(i), 1);
    }
    int reader(int i) const { return pairs[static_cast<size_t>(i)].reader.get(); }
    uint64_t number(int i) const { return static_cast<uint64_t>(reader(i)); }

    /// The numbers of all events until there are no more, each one's byte being read.
    std::multiset<uint64_t> drain() {
        std::multiset<uint64_t> seen;
        for (auto events = queue.collect(0); !events.empty(); events = queue.collect(0)) {
            for (const auto& event : events) {
                EXPECT_EQ(readSome(static_cast<int>(event.ident)), "x");
                seen.insert(event.ident);
            }
        }
        return seen;
    }

    Queue queue;
    std::vector<Pair> pairs;
};

TEST_F(KeventManyInputs, ComeInPartsAndOnce) {
    const auto first = queue.collect();
    EXPECT_LT(first.size(), pairs.size());
    std::set<uint64_t> told;
    for (const auto& event : first) {
        EXPECT_EQ(readSome(static_cast<int>(event.ident)), "x");
        told.insert(event.ident);
    }
    const auto rest = drain();
    EXPECT_EQ(told.size() + rest.size(), pairs.size());
    for (const uint64_t one : rest) told.insert(one);
    EXPECT_EQ(told.size(), pairs.size());
}

TEST_F(KeventManyInputs, AreNotToldOnceTheFilterIsDeleted) {
    std::set<uint64_t> told;
    for (const auto& event : queue.collect()) told.insert(event.ident);
    for (int i = 0; i < kConnections; ++i) {
        if (told.count(number(i)) == 1) continue;
        ASSERT_EQ(queue.apply(change(number(i), EVFILT_READ, EV_DELETE)), 0);
    }
    for (const uint64_t one : drain()) EXPECT_EQ(told.count(one), 1U);
}

TEST_F(KeventManyInputs, AreNotToldOnceTheNumberIsClosed) {
    std::set<uint64_t> told;
    for (const auto& event : queue.collect()) told.insert(event.ident);
    for (Pair& pair : pairs) {
        if (told.count(ident(pair.reader)) == 0) pair.reader.reset();
    }
    for (const uint64_t one : drain()) EXPECT_EQ(told.count(one), 1U);
}

TEST_F(KeventManyInputs, AreNotToldOfTheNextFileUnderTheNumber) {
    std::set<uint64_t> told;
    for (const auto& event : queue.collect()) told.insert(event.ident);
    std::vector<Fd> kept;
    for (int i = 0; i < kConnections; ++i) {
        if (told.count(number(i)) == 1) continue;
        Pair fresh = unixPair();
        ASSERT_NE(dup2(fresh.reader.get(), reader(i)), -1);
        kept.push_back(std::move(fresh.writer));
        arm(i);
    }
    ASSERT_FALSE(kept.empty());
    for (const uint64_t one : drain()) EXPECT_EQ(told.count(one), 1U);
}

TEST_F(KeventManyInputs, AreForgottenWithTheQueue) {
    EXPECT_FALSE(queue.collect().empty());
    const int queueNumber = queue.fd();
    queue.close();
    const Queue next;
    ASSERT_EQ(next.fd(), queueNumber);
    keventLeaveUncounted(next.fd());
    EXPECT_THAT(next.collect(kSilenceMs), testing::IsEmpty());
}

TEST_F(KeventManyInputs, DoNotKeepATimerWaiting) {
    ASSERT_EQ(queue.apply(change(7, EVFILT_TIMER, kArm | EV_ONESHOT, 0)), 0);
    bool fired = false;
    for (int calls = 0; !fired && calls < 3; ++calls) {
        fired = !only(queue.collect(0), EVFILT_TIMER).empty();
    }
    EXPECT_TRUE(fired);
}

TEST(KeventUncountedQueue, MessagesAreCountedAndWaitForRoom) {
    const Queue queue;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const Pair pair = {Fd(ends[0]), Fd(ends[1])};
    keventLeaveUncounted(queue.fd());
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm, 0, 0, 1)), 0);
    for (int i = 0; i < 2; ++i) {
        writeAll(pair.writer.get(), "abc");
        EXPECT_EQ(queue.next().data, 3);
        EXPECT_EQ(readSome(pair.reader.get()), "abc");
    }
    ASSERT_EQ(fcntl(pair.reader.get(), F_SETFL, O_NONBLOCK), 0);
    while (write(pair.reader.get(), "message", 7) == 7) continue;
    const auto arm = change(ident(pair.reader), EVFILT_WRITE, kArm, 0, 0, 1);
    EXPECT_THAT(queue.collect(kSilenceMs, 64, {arm}), testing::IsEmpty());
}

/// connect(2) to no address leaves a socket as if it had never been connected: there is no end to tell of
/// either.
TEST(KeventUncountedQueue, AConnectionThatIsTakenBackIsNotWritable) {
    const Queue queue;
    const Pair pair = tcpPair();
    keventLeaveUncounted(queue.fd());
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm, 0, 0, 1)), 0);
    writeAll(pair.writer.get(), "first");
    EXPECT_EQ(queue.next().data, 5);
    sockaddr nobody{};
    nobody.sa_family = AF_UNSPEC;
    ASSERT_EQ(connect(pair.reader.get(), &nobody, sizeof nobody), 0);
    EXPECT_THAT(queue.collect(kSilenceMs), testing::IsEmpty());
    const auto arm = change(ident(pair.reader), EVFILT_WRITE, kArm, 0, 0, 1);
    EXPECT_THAT(queue.collect(kSilenceMs, 64, {arm}), testing::IsEmpty());
}

TEST(KeventUncountedQueue, PipesAreCounted) {
    const Queue queue;
    const Pair pair = pipePair();
    keventLeaveUncounted(queue.fd());
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    for (int i = 1; i <= 3; ++i) {
        writeAll(pair.writer.get(), "x");
        EXPECT_EQ(queue.next().data, i);
    }
}

TEST(KeventUncountedQueue, ANumberThatIsNoQueueIsIgnored) {
    errno = 0;
    keventLeaveUncounted(-1);
    keventLeaveUncounted(0);
    EXPECT_EQ(errno, 0);
}

TEST(KeventUncountedQueue, TheNextQueueUnderTheNumberCounts) {
    Queue queue;
    keventLeaveUncounted(queue.fd());
    const int number = queue.fd();
    queue.close();
    const Queue next;
    ASSERT_EQ(next.fd(), number);
    const Pair pair = unixPair();
    ASSERT_EQ(next.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    for (int i = 1; i <= 2; ++i) {
        writeAll(pair.writer.get(), "x");
        EXPECT_EQ(next.next().data, i);
    }
}

}  // namespace
