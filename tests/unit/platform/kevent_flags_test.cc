/// The actions and flags of descriptor knotes: replacing, enabling, one-shot, dispatch, clear, and short
/// lists.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <initializer_list>
#include <map>

#include "kevent_support.h"

namespace {

using namespace keventtest;

uint64_t ident(const Fd& fd) {
    return static_cast<uint64_t>(fd.get());
}

TEST(KeventFlags, AddOfAnExistingKnoteReplacesItsPointerOnly) {
    const Queue queue;
    const Pair pair = unixPair();
    writeAll(pair.writer.get(), "x");
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm | EV_ONESHOT, 0, 0, 1)), 0);
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, EV_ADD, 0, 0, 2)), 0);
    const auto event = queue.next();
    EXPECT_EQ(event.udata, markAddress(2));
    EXPECT_EQ(event.flags, kArm | EV_ONESHOT);
    EXPECT_TRUE(queue.collect().empty());
}

TEST(KeventFlags, AddAgainDoesNotMakeASecondKnote) {
    const Queue queue;
    const Pair pair = unixPair();
    for (int i = 0; i < 5; ++i) ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, kArm)), 0);
    EXPECT_EQ(queue.collect().size(), 1U);
    EXPECT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, EV_DELETE)), 0);
    EXPECT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, EV_DELETE)), ENOENT);
}

TEST(KeventFlags, FlagsOfTheFirstAddAreReturned) {
    const Queue queue;
    const Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, EV_ADD)), 0);
    EXPECT_EQ(queue.next().flags, EV_ADD);
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, kArm)), 0);
    EXPECT_EQ(queue.next().flags, EV_ADD);
}

TEST(KeventFlags, OneShotIsDeletedOnDelivery) {
    const Queue queue;
    const Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, kArm | EV_ONESHOT)), 0);
    EXPECT_EQ(queue.next().flags, kArm | EV_ONESHOT);
    EXPECT_TRUE(queue.collect().empty());
    EXPECT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, EV_DELETE)), ENOENT);
}

TEST(KeventFlags, OneShotLeavesTheOtherFilter) {
    const Queue queue;
    const Pair pair = unixPair();
    writeAll(pair.writer.get(), "x");
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, kArm | EV_ONESHOT)), 0);
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    EXPECT_EQ(queue.collect().size(), 2U);
    EXPECT_THAT(queue.next(), IsEvent(ident(pair.reader), EVFILT_READ));
}

TEST(KeventFlags, DispatchIsDisabledOnDelivery) {
    const Queue queue;
    const Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, kArm | EV_DISPATCH)), 0);
    EXPECT_EQ(queue.next().flags, kArm | EV_DISPATCH);
    EXPECT_TRUE(queue.collect().empty());
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, EV_ENABLE)), 0);
    EXPECT_EQ(queue.next().flags, kArm | EV_DISPATCH);
    EXPECT_TRUE(queue.collect().empty());
    EXPECT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, EV_DELETE)), 0);
}

TEST(KeventFlags, DisabledIsSilentUntilEnabled) {
    const Queue queue;
    const Pair pair = unixPair();
    writeAll(pair.writer.get(), "x");
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, EV_ADD | EV_DISABLE)), 0);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, EV_ADD)), 0);
    EXPECT_TRUE(queue.collect().empty()) << "EV_ADD alone does not enable it";
    EXPECT_EQ(queue.collect(kLimitMs, 4, {change(ident(pair.reader), EVFILT_READ, EV_ENABLE)}).size(), 1U);
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, EV_DISABLE)), 0);
    EXPECT_TRUE(queue.collect().empty());
}

TEST(KeventFlags, DisabledKnoteOfADeadSocketDoesNotSpin) {
    const Queue queue;
    Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, EV_ADD | EV_DISABLE)), 0);
    pair.writer.reset();
    timespec before{};
    timespec after{};
    ASSERT_EQ(clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before), 0);
    EXPECT_TRUE(queue.collect(300).empty());
    ASSERT_EQ(clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after), 0);
    EXPECT_LT((after.tv_sec - before.tv_sec) * 1000 + (after.tv_nsec - before.tv_nsec) / 1'000'000, 150);
    EXPECT_EQ(queue.collect(kLimitMs, 4, {change(ident(pair.reader), EVFILT_READ, EV_ENABLE)}).size(), 1U);
}

TEST(KeventFlags, ClearFiresOncePerChange) {
    const Queue queue;
    const Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm | EV_CLEAR)), 0);
    writeAll(pair.writer.get(), "abc");
    auto event = queue.next();
    EXPECT_EQ(event.flags, kArm | EV_CLEAR);
    EXPECT_EQ(event.data, 3);
    EXPECT_TRUE(queue.collect().empty());
    writeAll(pair.writer.get(), "de");
    EXPECT_EQ(queue.next().data, 5);
    EXPECT_TRUE(queue.collect().empty());
}

TEST(KeventFlags, ClearFiresForWhatIsThereAlready) {
    const Queue queue;
    const Pair pair = unixPair();
    writeAll(pair.writer.get(), "abc");
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm | EV_CLEAR)), 0);
    EXPECT_EQ(queue.next().data, 3);
    EXPECT_TRUE(queue.collect().empty());
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, EV_ENABLE)), 0);
    EXPECT_EQ(queue.next().data, 3) << "enabling looks again";
}

/// With a list of one READ comes first, and WRITE was nothing to tell of then.
TEST(KeventFlags, ClearThatWasNotActiveWhenTheListWasFullFiresOnce) {
    const Queue queue;
    const Pair pair = unixPair();
    fill(pair.reader.get());
    writeAll(pair.writer.get(), "x");
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, kArm | EV_CLEAR)), 0);
    EXPECT_THAT(queue.collect(0, 1), testing::ElementsAre(IsEvent(ident(pair.reader), EVFILT_READ)));
    ASSERT_EQ(fcntl(pair.writer.get(), F_SETFL, O_NONBLOCK), 0);
    while (!readSome(pair.writer.get()).empty()) continue;
    EXPECT_THAT(only(queue.collect(0, 2), EVFILT_WRITE), testing::SizeIs(1));
    for (int i = 0; i < 3; ++i) EXPECT_THAT(only(queue.collect(), EVFILT_WRITE), testing::IsEmpty());
}

TEST(KeventFlags, ClearOnARegularFileFiresOncePerChange) {
    const Queue queue;
    const Fd fd = temporaryFile();
    ASSERT_EQ(queue.apply(change(ident(fd), EVFILT_WRITE, kArm | EV_CLEAR)), 0);
    EXPECT_THAT(queue.next(), IsEvent(ident(fd), EVFILT_WRITE));
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    ASSERT_EQ(queue.apply(change(ident(fd), EVFILT_READ, kArm | EV_CLEAR)), 0);
    ASSERT_EQ(pwrite(fd.get(), "abc", 3, 0), 3);
    EXPECT_EQ(queue.next().data, 3);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    ASSERT_EQ(pwrite(fd.get(), "de", 2, 3), 2);
    EXPECT_EQ(queue.next().data, 5);
}

/// What was appended has the length of what was there before: the count alone does not tell.
TEST(KeventFlags, ClearOnARegularFileFiresForAnAppendOfTheSameLength) {
    const Queue queue;
    const Fd fd = temporaryFile();
    ASSERT_EQ(queue.apply(change(ident(fd), EVFILT_READ, kArm | EV_CLEAR)), 0);
    ASSERT_EQ(pwrite(fd.get(), "abc", 3, 0), 3);
    EXPECT_EQ(queue.next().data, 3);
    EXPECT_EQ(readSome(fd.get(), 3), "abc");
    ASSERT_EQ(pwrite(fd.get(), "def", 3, 3), 3);
    EXPECT_EQ(queue.next().data, 3);
    EXPECT_TRUE(queue.collect().empty());
}

TEST(KeventFlags, ClearOnARegularFileFiresForTheSameLengthAfterItsEndWasSeen) {
    const Queue queue;
    const Fd fd = temporaryFile();
    ASSERT_EQ(queue.apply(change(ident(fd), EVFILT_READ, kArm | EV_CLEAR)), 0);
    ASSERT_EQ(pwrite(fd.get(), "abc", 3, 0), 3);
    EXPECT_EQ(queue.next().data, 3);
    ASSERT_EQ(ftruncate(fd.get(), 0), 0);
    EXPECT_TRUE(queue.collect().empty());
    ASSERT_EQ(pwrite(fd.get(), "def", 3, 0), 3);
    EXPECT_EQ(queue.next().data, 3);
}

TEST(KeventFlags, ClearOnBothFilters) {
    const Queue queue;
    const Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm | EV_CLEAR)), 0);
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, kArm | EV_CLEAR)), 0);
    writeAll(pair.writer.get(), "x");
    EXPECT_EQ(queue.collect().size(), 2U);
    EXPECT_TRUE(queue.collect().empty());
}

TEST(KeventFlags, LevelBesideClearComesWithEveryCall) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = ident(pair.reader);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm | EV_CLEAR)), 0);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm)), 0);
    for (int round = 0; round < 3; ++round) {
        writeAll(pair.writer.get(), "x");
        const auto events = queue.collect();
        EXPECT_EQ(only(events, EVFILT_READ).size(), 1U) << describe(events);
        EXPECT_EQ(only(events, EVFILT_WRITE).size(), 1U) << describe(events);
        for (int i = 0; i < 3; ++i) EXPECT_THAT(queue.next(), IsEvent(fd, EVFILT_WRITE));
    }
    fill(pair.reader.get());
    EXPECT_TRUE(only(queue.collect(kSilenceMs), EVFILT_WRITE).empty());
    ASSERT_EQ(fcntl(pair.writer.get(), F_SETFL, O_NONBLOCK), 0);
    while (!readSome(pair.writer.get()).empty()) continue;
    EXPECT_THAT(queue.nextOf(EVFILT_WRITE), IsEvent(fd, EVFILT_WRITE));
    EXPECT_THAT(queue.nextOf(EVFILT_WRITE), IsEvent(fd, EVFILT_WRITE));
}

TEST(KeventFlags, LevelReadBesideClearWrite) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = ident(pair.reader);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm | EV_CLEAR)), 0);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm)), 0);
    EXPECT_THAT(queue.next(), IsEvent(fd, EVFILT_WRITE));
    EXPECT_TRUE(queue.collect().empty());
    writeAll(pair.writer.get(), "abc");
    EXPECT_EQ(queue.nextOf(EVFILT_READ).data, 3);
    EXPECT_EQ(queue.nextOf(EVFILT_READ).data, 3);
    readSome(pair.reader.get());
    EXPECT_TRUE(only(queue.collect(), EVFILT_READ).empty());
    writeAll(pair.writer.get(), "de");
    EXPECT_EQ(queue.nextOf(EVFILT_READ).data, 2);
}

TEST(KeventFlags, ClearOnARegularFileFiresAgainWhenItIsAddedAgain) {
    const Queue queue;
    FILE* file = tmpfile();
    ASSERT_NE(file, nullptr);
    const auto fd = static_cast<uint64_t>(fileno(file));
    const auto write = change(fd, EVFILT_WRITE, kArm | EV_CLEAR);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(queue.apply(write), 0);
        EXPECT_EQ(queue.collect().size(), 1U);
        EXPECT_TRUE(queue.collect().empty());
    }
    (void)fclose(file);
}

TEST(KeventFlags, OneShotBesideADisabledFilterComesAlone) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = ident(pair.reader);
    writeAll(pair.writer.get(), "x");
    ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, EV_ADD | EV_DISABLE)), 0);
    for (int i = 0; i < 3; ++i) {
        const auto read = change(fd, EVFILT_READ, kArm | EV_ONESHOT);
        const auto timer = change(1, EVFILT_TIMER, kArm | EV_ONESHOT, 0);
        EXPECT_THAT(queue.collect(0, 8, {read, timer}),
                    testing::UnorderedElementsAre(IsEvent(fd, EVFILT_READ), IsEvent(1, EVFILT_TIMER)));
        EXPECT_TRUE(queue.collect().empty());
    }
}

TEST(KeventFlags, EdgeBesideALevelIsToldOnce) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = ident(pair.reader);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm | EV_CLEAR)), 0);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm)), 0);
    writeAll(pair.writer.get(), "x");
    EXPECT_EQ(queue.collect().size(), 2U);
    for (int i = 0; i < 3; ++i) EXPECT_THAT(queue.collect(), testing::ElementsAre(IsEvent(fd, EVFILT_WRITE)));
    ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, EV_DISABLE)), 0);
    EXPECT_LE(queue.collect().size(), 1U) << "a change may tell the edge once more";
    EXPECT_TRUE(queue.collect().empty());
}

TEST(KeventFlags, DeletedKnoteHasNoEventLeft) {
    const Queue queue;
    const Pair pair = unixPair();
    writeAll(pair.writer.get(), "x");
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, kArm)), 0);
    EXPECT_EQ(queue.collect(0, 1).size(), 1U);  // the other filter waits for its turn
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, EV_DELETE)), 0);
    EXPECT_THAT(queue.next(), IsEvent(ident(pair.reader), EVFILT_READ));
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, EV_DELETE)), 0);
    EXPECT_TRUE(queue.collect().empty());
}

TEST(KeventFlags, ShortListRotatesThroughTheDescriptors) {
    const Queue queue;
    std::vector<Pair> pairs;
    for (int i = 0; i < 5; ++i) {
        pairs.push_back(pipePair());
        writeAll(pairs.back().writer.get(), "x");
        ASSERT_EQ(queue.apply(change(ident(pairs.back().reader), EVFILT_READ, kArm)), 0);
    }
    std::vector<uint64_t> order;
    for (int i = 0; i < 5; ++i) {
        const auto events = queue.collect(0, 2);
        ASSERT_EQ(events.size(), 2U);
        for (const auto& event : events) order.push_back(event.ident);
    }
    for (size_t i = 0; i < order.size(); ++i) EXPECT_EQ(order[i], ident(pairs[i % 5].reader)) << i;
}

/// Both filters of several sockets by edge, and lists of every length: each event comes once.
TEST(KeventFlags, ShortListsTellEachEdgeOnce) {
    for (size_t sockets = 1; sockets <= 5; ++sockets) {
        for (int room = 1; room <= 5; ++room) {
            const Queue queue;
            std::vector<Pair> pairs;
            for (size_t i = 0; i < sockets; ++i) {
                pairs.push_back(unixPair());
                const auto fd = ident(pairs.back().reader);
                writeAll(pairs.back().writer.get(), "x");
                ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm | EV_CLEAR)), 0);
                ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm | EV_CLEAR)), 0);
            }
            std::map<std::pair<uint64_t, int>, int> told;
            size_t calls = 0;
            for (;; ++calls) {
                const auto events = queue.collect(0, room);
                if (events.empty() || calls > 4 * sockets) break;
                for (const auto& event : events) ++told[{event.ident, event.filter}];
            }
            EXPECT_LE(calls, 2 * sockets) << sockets << " sockets, list of " << room;
            EXPECT_EQ(told.size(), 2 * sockets) << sockets << " sockets, list of " << room;
            for (const auto& [knote, times] : told) EXPECT_EQ(times, 1);
        }
    }
}

/// One that ends or is disabled by its event changes the entry that both share: the other is not told for
/// ever.
TEST(KeventFlags, EdgesBesideAnEventThatComesOnceEnd) {
    for (const unsigned once : std::initializer_list<unsigned>{EV_ONESHOT, EV_DISPATCH}) {
        for (int room = 1; room <= 3; ++room) {
            const Queue queue;
            const Pair pair = unixPair();
            const auto fd = ident(pair.reader);
            writeAll(pair.writer.get(), "x");
            ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm | EV_CLEAR | once)), 0);
            ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm | EV_CLEAR)), 0);
            size_t reads = 0;
            size_t writes = 0;
            for (int calls = 0; calls < 10; ++calls) {
                const auto events = queue.collect(0, room);
                reads += only(events, EVFILT_READ).size();
                writes += only(events, EVFILT_WRITE).size();
            }
            EXPECT_EQ(reads, 1U) << once << ", list of " << room;
            EXPECT_GE(writes, 1U) << once << ", list of " << room;
            EXPECT_LE(writes, 2U) << once << ", list of " << room;
        }
    }
}

/// What did not fit is not told when it is over by the time there is room.
TEST(KeventFlags, EdgeThatHadNoRoomAndPassedIsNotTold) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = ident(pair.reader);
    writeAll(pair.writer.get(), "x");
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm | EV_CLEAR)), 0);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm | EV_CLEAR)), 0);
    const auto first = queue.collect(0, 1);
    ASSERT_EQ(first.size(), 1U);
    if (first[0].filter == EVFILT_READ) {
        fill(pair.reader.get());
    } else {
        readSome(pair.reader.get());
    }
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
}

TEST(KeventFlags, EdgeBesideALevelThatAlwaysHoldsGetsItsTurn) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = ident(pair.reader);
    writeAll(pair.writer.get(), "x");
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm)), 0);
    for (int i = 0; i < 5; ++i) EXPECT_THAT(queue.next(), IsEvent(fd, EVFILT_READ));
    ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm | EV_CLEAR)), 0);
    size_t reads = 0;
    size_t writes = 0;
    for (int i = 0; i < 10; ++i) {
        const auto events = queue.collect(0, 1);
        reads += only(events, EVFILT_READ).size();
        writes += only(events, EVFILT_WRITE).size();
    }
    EXPECT_EQ(writes, 1U);
    EXPECT_EQ(reads, 9U);
}

/// Both filters of several sockets, and lists of every length: each knote gets its turn.
TEST(KeventFlags, ShortListsStarveNoFilter) {
    for (int room = 1; room <= 7; ++room) {
        const Queue queue;
        std::vector<Pair> pairs;
        for (int i = 0; i < 3; ++i) {
            pairs.push_back(unixPair());
            writeAll(pairs.back().writer.get(), "x");
            ASSERT_EQ(queue.apply(change(ident(pairs.back().reader), EVFILT_READ, kArm)), 0);
            ASSERT_EQ(queue.apply(change(ident(pairs.back().reader), EVFILT_WRITE, kArm)), 0);
        }
        std::map<std::pair<uint64_t, int>, int> seen;
        for (int i = 0; i < 24; ++i) {
            const auto events = queue.collect(0, room);
            ASSERT_EQ(events.size(), static_cast<size_t>(std::min(room, 6)));
            for (const auto& event : events) ++seen[{event.ident, event.filter}];
        }
        EXPECT_EQ(seen.size(), 6U) << "room " << room;
        for (const auto& [knote, times] : seen)
            EXPECT_GE(times, 24 * std::min(room, 6) / 6 / 3) << "room " << room;
    }
}

TEST(KeventFlags, OneSlotServesBothFiltersOfOneEntryInTurn) {
    const Queue queue;
    const Pair pair = unixPair();
    writeAll(pair.writer.get(), "x");
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, kArm)), 0);
    std::map<int, int> seen;
    for (int i = 0; i < 6; ++i) {
        const auto events = queue.collect(0, 1);
        ASSERT_EQ(events.size(), 1U);
        ++seen[events[0].filter];
    }
    EXPECT_EQ(seen[EVFILT_READ], 3);
    EXPECT_EQ(seen[EVFILT_WRITE], 3);
}

TEST(KeventFlags, ReadComesBeforeWriteUnlessWriteWasLeftOut) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = ident(pair.reader);
    writeAll(pair.writer.get(), "x");
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm)), 0);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm)), 0);
    const auto read = IsEvent(fd, EVFILT_READ);
    const auto write = IsEvent(fd, EVFILT_WRITE);
    EXPECT_THAT(queue.collect(), testing::ElementsAre(read, write));
    EXPECT_THAT(queue.collect(), testing::ElementsAre(read, write));
    EXPECT_THAT(queue.collect(0, 1), testing::ElementsAre(read));
    EXPECT_THAT(queue.collect(), testing::ElementsAre(write, read));
    EXPECT_THAT(queue.collect(), testing::ElementsAre(read, write));
}

TEST(KeventFlags, OneSlotLosesNoEdge) {
    const Queue queue;
    const Pair pair = unixPair();
    writeAll(pair.writer.get(), "x");
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm | EV_CLEAR)), 0);
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, kArm | EV_CLEAR)), 0);
    std::map<int, int> seen;
    for (int i = 0; i < 3; ++i) {
        for (const auto& event : queue.collect(0, 1)) ++seen[event.filter];
    }
    EXPECT_GE(seen[EVFILT_READ], 1);
    EXPECT_GE(seen[EVFILT_WRITE], 1);
}

TEST(KeventFlags, NeitherFilesNorSocketsStarveEachOtherInAListOfOne) {
    const Queue queue;
    const Pair pair = unixPair();
    const Fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    const Fd zero(open("/dev/zero", O_RDWR | O_CLOEXEC));
    ASSERT_EQ(queue.apply(change(ident(null), EVFILT_READ, kArm)), 0);
    ASSERT_EQ(queue.apply(change(ident(zero), EVFILT_WRITE, kArm)), 0);
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_WRITE, kArm)), 0);
    std::map<uint64_t, int> seen;
    for (int i = 0; i < 30; ++i) {
        for (const auto& event : queue.collect(0, 1)) ++seen[event.ident];
    }
    EXPECT_EQ(seen.size(), 3U);
}

}  // namespace
