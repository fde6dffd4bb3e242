/// What closing a descriptor does to its knotes, with and without a duplicate, and what a reused number
/// inherits.
#include <fcntl.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ostream>

#include "kevent_support.h"

namespace {

using namespace keventtest;

uint64_t ident(const Fd& fd) {
    return static_cast<uint64_t>(fd.get());
}

/// Puts a new file under a number that is free.
Fd moveTo(int number, Fd fd) {
    EXPECT_EQ(dup3(fd.get(), number, O_CLOEXEC), number);
    return Fd(number);
}

TEST(KeventDescriptors, CloseEndsTheKnotesSilently) {
    const Queue queue;
    Pair pair = unixPair();
    const auto fd = ident(pair.reader);
    writeAll(pair.writer.get(), "x");
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm)), 0);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm)), 0);
    EXPECT_EQ(queue.collect().size(), 2U);
    pair.reader.reset();
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    EXPECT_EQ(queue.apply(change(fd, EVFILT_READ, EV_DELETE)), ENOENT);
    EXPECT_EQ(queue.apply(change(fd, EVFILT_WRITE, EV_DELETE)), ENOENT);
    EXPECT_EQ(queue.apply(change(fd, EVFILT_READ, EV_ENABLE)), ENOENT);
    EXPECT_EQ(queue.apply(change(fd, EVFILT_READ, kArm)), EBADF);
}

TEST(KeventDescriptors, DeleteRightAfterTheReportOfAClosedNumberFails) {
    const Queue queue;
    Pair pair = unixPair();
    const auto fd = ident(pair.reader);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm, 0, 0, 1)), 0);
    writeAll(pair.writer.get(), "x");
    EXPECT_THAT(queue.next(), IsEvent(fd, EVFILT_READ));
    ASSERT_EQ(queue.collect(0, 8, {change(fd, EVFILT_WRITE, kArm, 0, 0, 1)}).size(), 2U);
    pair.reader.reset();
    EXPECT_EQ(queue.apply(change(fd, EVFILT_WRITE, EV_DELETE, 0, 0, 1)), ENOENT);
}

TEST(KeventDescriptors, ReusedNumberStartsWithoutKnotes) {
    const Queue queue;
    Pair first = unixPair();
    const int number = first.reader.get();
    ASSERT_EQ(queue.apply(change(ident(first.reader), EVFILT_READ, kArm, 0, 0, 1)), 0);
    ASSERT_EQ(queue.apply(change(ident(first.reader), EVFILT_WRITE, kArm, 0, 0, 1)), 0);
    first.reader.reset();
    Pair second = unixPair();
    const Fd reused =
        second.reader.get() == number ? std::move(second.reader) : moveTo(number, std::move(second.reader));
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    writeAll(second.writer.get(), "new");
    ASSERT_EQ(queue.apply(change(ident(reused), EVFILT_READ, kArm, 0, 0, 2)), 0);
    const auto event = queue.next();
    EXPECT_THAT(event, IsEvent(ident(reused), EVFILT_READ));
    EXPECT_EQ(event.udata, markAddress(2));
    EXPECT_EQ(queue.apply(change(ident(reused), EVFILT_WRITE, EV_DELETE)), ENOENT);
}

TEST(KeventDescriptors, OldWriteKnoteDoesNotWakeUpOnANewSocket) {
    const Queue queue;
    Pair first = unixPair();
    const int number = first.reader.get();
    ASSERT_EQ(queue.apply(change(ident(first.reader), EVFILT_READ, kArm)), 0);
    writeAll(first.writer.get(), "x");
    ASSERT_EQ(queue.collect(kLimitMs, 4, {change(ident(first.reader), EVFILT_WRITE, kArm)}).size(), 2U);
    first.reader.reset();
    Pair second = unixPair();
    const Fd reused =
        second.reader.get() == number ? std::move(second.reader) : moveTo(number, std::move(second.reader));
    ASSERT_EQ(queue.apply(change(ident(reused), EVFILT_READ, kArm)), 0);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
}

TEST(KeventDescriptors, NewSocketAnsweredWithTheOldNullPointerHasOnlyItsOwnKnote) {
    const Queue queue;
    Pair first = unixPair();
    const int number = first.reader.get();
    ASSERT_EQ(queue.apply(change(ident(first.reader), EVFILT_READ, kArm)), 0);
    writeAll(first.writer.get(), "x");
    EXPECT_THAT(queue.next(), IsEvent(ident(first.reader), EVFILT_READ));
    first.reader.reset();
    const Fd reused(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(reused.get(), number);
    EXPECT_TRUE(queue.collect(kSilenceMs, 4, {change(ident(reused), EVFILT_WRITE, kArm)}).empty())
        << "it was never connected";
    EXPECT_EQ(queue.apply(change(ident(reused), EVFILT_READ, EV_DELETE)), ENOENT);
}

/// Memory for a connection is given back and taken again as well: the new one has the old one's pointer.
TEST(KeventDescriptors, NewSocketAnsweredWithTheOldPointerHasItsOwnKnotes) {
    const Queue queue;
    Pair first = unixPair();
    const int number = first.reader.get();
    ASSERT_EQ(queue.apply(change(ident(first.reader), EVFILT_READ, kArm, 0, 0, 1)), 0);
    writeAll(first.writer.get(), "x");
    EXPECT_THAT(queue.next(), IsEvent(ident(first.reader), EVFILT_READ));  // seen connected from now on
    EXPECT_THAT(queue.next(), IsEvent(ident(first.reader), EVFILT_READ));
    first.reader.reset();
    Pair second = unixPair();
    const Fd reused =
        second.reader.get() == number ? std::move(second.reader) : moveTo(number, std::move(second.reader));
    const auto events = queue.collect(0, 8,
                                      {change(ident(reused), EVFILT_WRITE, kArm, 0, 0, 1),
                                       change(ident(reused), EVFILT_READ, kArm, 0, 0, 1)});
    ASSERT_EQ(events.size(), 1U) << describe(events);
    EXPECT_THAT(events[0], IsEvent(ident(reused), EVFILT_WRITE));
    EXPECT_THAT(queue.next(), IsEvent(ident(reused), EVFILT_WRITE));
    EXPECT_EQ(queue.apply(change(ident(reused), EVFILT_WRITE, EV_DELETE)), 0);
}

/// A file that epoll refuses, under the number of a socket that it watched.
class KeventFileAfterSocket : public testing::TestWithParam<unsigned> {
  protected:
    void SetUp() override {
        Pair pair = unixPair();
        const int number = pair.reader.get();
        writeAll(pair.writer.get(), "x");
        ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, GetParam())), 0);
        EXPECT_THAT(queue.next(), IsEvent(number, EVFILT_READ));
        pair.reader.reset();
        file = Fd(open("/dev/null", O_RDWR | O_CLOEXEC));
        ASSERT_EQ(file.get(), number);
    }

    const Queue queue;
    Fd file;
};

INSTANTIATE_TEST_SUITE_P(Flags, KeventFileAfterSocket, testing::Values(kArm, kArm | EV_CLEAR),
                         [](const auto& one) { return (one.param & EV_CLEAR) != 0 ? "Clear" : "Level"; });

TEST_P(KeventFileAfterSocket, OtherFilterIsAdded) {
    EXPECT_EQ(queue.apply(change(ident(file), EVFILT_WRITE, kArm)), 0);
    EXPECT_THAT(queue.next(), IsEvent(ident(file), EVFILT_WRITE));
    EXPECT_EQ(queue.collect().size(), 1U);
}

TEST_P(KeventFileAfterSocket, SameFilterIsAdded) {
    EXPECT_EQ(queue.apply(change(ident(file), EVFILT_READ, kArm, 0, 0, 1)), 0);
    EXPECT_EQ(queue.next().udata, markAddress(1));
}

TEST_P(KeventFileAfterSocket, OldFilterIsNotThereToBeDeleted) {
    EXPECT_EQ(queue.apply(change(ident(file), EVFILT_READ, EV_DELETE)), ENOENT);
}

enum class Holder { kDuplicate, kChild };

void PrintTo(Holder holder, std::ostream* out) {
    *out << (holder == Holder::kChild ? "Child" : "Duplicate");
}

/// Keeps the file of a descriptor open elsewhere.
class Held {
  public:
    Held(Holder holder, const Fd& fd) {
        if (holder == Holder::kDuplicate) {
            copy_ = Fd(fcntl(fd.get(), F_DUPFD_CLOEXEC, 500));
        } else {
            child_ = fork();
            if (child_ == 0) {
                for (;;) pause();
            }
        }
    }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    ~Held() {
        if (child_ <= 0) return;
        EXPECT_EQ(kill(child_, SIGKILL), 0);
        EXPECT_EQ(waitpid(child_, nullptr, 0), child_);
    }

  private:
    Fd copy_;
    pid_t child_ = -1;
};

class KeventHeldFile : public testing::TestWithParam<Holder> {};

INSTANTIATE_TEST_SUITE_P(Holders, KeventHeldFile, testing::Values(Holder::kDuplicate, Holder::kChild),
                         [](const auto& one) { return one.param == Holder::kChild ? "Child" : "Duplicate"; });

TEST_P(KeventHeldFile, CloseEndsTheKnotesAllTheSame) {
    const Queue queue;
    Pair pair = unixPair();
    const Pair other = unixPair();
    const auto fd = ident(pair.reader);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm, 0, 0, 1)), 0);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm, 0, 0, 1)), 0);
    ASSERT_EQ(queue.apply(change(ident(other.reader), EVFILT_READ, kArm, 0, 0, 2)), 0);
    const Held held(GetParam(), pair.reader);
    pair.reader.reset();
    writeAll(pair.writer.get(), "to the holder");
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    writeAll(other.writer.get(), "ours");
    const auto event = queue.next();
    EXPECT_THAT(event, IsEvent(ident(other.reader), EVFILT_READ));
    EXPECT_EQ(event.udata, markAddress(2));
    EXPECT_EQ(queue.apply(change(fd, EVFILT_READ, EV_DELETE)), ENOENT);
}

TEST_P(KeventHeldFile, ReusedNumberHearsOfItsOwnFileOnly) {
    const Queue queue;
    Pair pair = unixPair();
    const int number = pair.reader.get();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm, 0, 0, 1)), 0);
    const Held held(GetParam(), pair.reader);
    pair.reader.reset();
    Pair second = unixPair();
    const Fd reused =
        second.reader.get() == number ? std::move(second.reader) : moveTo(number, std::move(second.reader));
    writeAll(second.writer.get(), "new file, no knote");
    writeAll(pair.writer.get(), "old file");
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    ASSERT_EQ(queue.apply(change(ident(reused), EVFILT_READ, kArm, 0, 0, 2)), 0);
    for (int i = 0; i < 3; ++i) {
        const auto event = queue.next();
        EXPECT_EQ(event.udata, markAddress(2));
        EXPECT_EQ(event.data, 18);
    }
    EXPECT_EQ(queue.apply(change(ident(reused), EVFILT_READ, EV_DELETE)), 0);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
}

TEST_P(KeventHeldFile, NumberRegisteredAgainAtOnceHearsOfItsOwnFileOnly) {
    const Queue queue;
    Pair pair = unixPair();
    const int number = pair.reader.get();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm, 0, 0, 1)), 0);
    const Held held(GetParam(), pair.reader);
    pair.reader.reset();
    Pair second = unixPair();
    const Fd reused =
        second.reader.get() == number ? std::move(second.reader) : moveTo(number, std::move(second.reader));
    ASSERT_EQ(queue.apply(change(ident(reused), EVFILT_READ, kArm, 0, 0, 2)), 0);
    writeAll(pair.writer.get(), "old file");
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    writeAll(second.writer.get(), "new");
    EXPECT_EQ(queue.next().data, 3);
    EXPECT_EQ(readSome(reused.get()), "new");
    pair.writer.reset();
    EXPECT_TRUE(queue.collect(kSilenceMs).empty()) << "the end of the old file is not that of the new one";
}

TEST_P(KeventHeldFile, CloseEndsTheKnotesOfAKnownConnection) {
    const Queue queue;
    Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    writeAll(pair.writer.get(), "x");
    EXPECT_EQ(queue.next().data, 1);
    EXPECT_EQ(queue.next().data, 1);
    const Held held(GetParam(), pair.reader);
    const Pair other = unixPair();
    writeAll(other.writer.get(), "of another file");
    ASSERT_EQ(dup2(other.reader.get(), pair.reader.get()), pair.reader.get());
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
}

TEST_P(KeventHeldFile, CloseEndsAKnoteTakenByEdge) {
    const Queue queue;
    Pair pair = unixPair();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm | EV_CLEAR)), 0);
    const Held held(GetParam(), pair.reader);
    pair.reader.reset();
    writeAll(pair.writer.get(), "to the holder");
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
}

TEST_P(KeventHeldFile, CloseEndsTheKnoteOfAFileThatCountsNothing) {
    const Queue queue;
    Fd counter(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK));
    ASSERT_EQ(queue.apply(change(ident(counter), EVFILT_READ, kArm)), 0);
    EXPECT_THAT(queue.next(), IsEvent(ident(counter), EVFILT_READ));
    const Held held(GetParam(), counter);
    counter.reset();
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
}

TEST(KeventDescriptors, CloseEndsTheEdgeOfAFileThatCountsNothing) {
    const Queue queue;
    Fd counter(eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK));
    ASSERT_EQ(queue.apply(change(ident(counter), EVFILT_READ, kArm | EV_CLEAR)), 0);
    EXPECT_THAT(queue.next(), IsEvent(ident(counter), EVFILT_READ));
    const Fd copy(dup(counter.get()));
    counter.reset();
    writeAll(copy.get(), std::string("\1\0\0\0\0\0\0\0", 8));
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
}

TEST_P(KeventHeldFile, CloseEndsTheKnotesOfAPipeInAQueueThatLeavesSocketsUncounted) {
    const Queue queue;
    keventLeaveUncounted(queue.fd());
    Pair pair = pipePair();
    writeAll(pair.writer.get(), "x");
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    EXPECT_EQ(queue.next().data, 1);
    const Held held(GetParam(), pair.reader);
    const Pair other = pipePair();
    writeAll(other.writer.get(), "of another file");
    ASSERT_EQ(dup2(other.reader.get(), pair.reader.get()), pair.reader.get());
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
}

TEST_P(KeventHeldFile, TimersAndFilesLiveOnInTheNewInstance) {
    const Queue queue;
    Pair pair = unixPair();
    const Fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    const Fd fresh(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const Pair edge = unixPair();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm)), 0);
    ASSERT_EQ(queue.apply(change(ident(fresh), EVFILT_WRITE, kArm)), 0);
    ASSERT_EQ(queue.apply(change(ident(edge.reader), EVFILT_READ, kArm | EV_CLEAR)), 0);
    const Held held(GetParam(), pair.reader);
    pair.reader.reset();
    writeAll(pair.writer.get(), "old file");
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    EXPECT_EQ(fcntl(queue.fd(), F_GETFD), FD_CLOEXEC);
    ASSERT_EQ(queue.apply(change(1, EVFILT_TIMER, kArm, 1)), 0);
    EXPECT_THAT(queue.nextOf(EVFILT_TIMER), IsEvent(1, EVFILT_TIMER));
    ASSERT_EQ(queue.apply(change(1, EVFILT_TIMER, EV_DELETE)), 0);
    ASSERT_EQ(queue.apply(change(ident(null), EVFILT_READ, kArm)), 0);
    EXPECT_THAT(queue.next(), IsEvent(ident(null), EVFILT_READ));
    ASSERT_EQ(queue.apply(change(ident(null), EVFILT_READ, EV_DELETE)), 0);
    writeAll(edge.writer.get(), "x");
    EXPECT_THAT(queue.next(), IsEvent(ident(edge.reader), EVFILT_READ));
    EXPECT_TRUE(queue.collect().empty());
}

TEST(KeventDescriptors, FileThatComesBackToItsNumberIsRegisteredAfresh) {
    const Queue queue;
    Pair pair = unixPair();
    const int number = pair.reader.get();
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm, 0, 0, 1)), 0);
    const Fd copy(fcntl(number, F_DUPFD_CLOEXEC, 500));
    pair.reader.reset();
    EXPECT_EQ(queue.apply(change(static_cast<uint64_t>(number), EVFILT_READ, EV_DELETE)), ENOENT);
    ASSERT_EQ(dup2(copy.get(), number), number);
    const Fd again(number);
    ASSERT_EQ(queue.apply(change(ident(again), EVFILT_READ, kArm, 0, 0, 2)), 0);
    writeAll(pair.writer.get(), "x");
    EXPECT_EQ(queue.next().udata, markAddress(2));
}

TEST(KeventDescriptors, OneFileUnderTwoNumbersHasTwoEntries) {
    const Queue queue;
    const Pair pair = unixPair();
    const Fd copy(dup(pair.reader.get()));
    ASSERT_EQ(queue.apply(change(ident(pair.reader), EVFILT_READ, kArm, 0, 0, 1)), 0);
    ASSERT_EQ(queue.apply(change(ident(copy), EVFILT_READ, kArm, 0, 0, 2)), 0);
    writeAll(pair.writer.get(), "x");
    EXPECT_EQ(queue.collect().size(), 2U);
    ASSERT_EQ(queue.apply(change(ident(copy), EVFILT_READ, EV_DELETE)), 0);
    EXPECT_EQ(queue.next().udata, markAddress(1));
}

TEST(KeventDescriptors, DeletingOneFilterLeavesTheOther) {
    const Queue queue;
    const Pair pair = unixPair();
    const auto fd = ident(pair.reader);
    writeAll(pair.writer.get(), "x");
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm)), 0);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_WRITE, kArm)), 0);
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, EV_DELETE)), 0);
    EXPECT_THAT(queue.next(), IsEvent(fd, EVFILT_WRITE));
    ASSERT_EQ(queue.apply(change(fd, EVFILT_READ, kArm)), 0);
    EXPECT_EQ(queue.collect().size(), 2U);
}

TEST(KeventDescriptors, RegularFileThatWasReplacedHasNoKnotes) {
    const Queue queue;
    FILE* first = tmpfile();
    FILE* second = tmpfile();
    ASSERT_TRUE(first != nullptr && second != nullptr);
    const int number = fileno(first);
    writeAll(fileno(second), "something");
    ASSERT_EQ(lseek(fileno(second), 0, SEEK_SET), 0);
    ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(number), EVFILT_WRITE, kArm)), 0);
    EXPECT_EQ(queue.collect().size(), 1U);
    ASSERT_EQ(dup2(fileno(second), number), number);
    EXPECT_TRUE(queue.collect(kSilenceMs).empty());
    EXPECT_EQ(queue.apply(change(static_cast<uint64_t>(number), EVFILT_WRITE, EV_DELETE)), ENOENT);
    (void)fclose(first);
    (void)fclose(second);
}

/// The table of registrations grows with the numbers, by doubling.
TEST(KeventDescriptors, NumbersFarApartAreAllHeard) {
    raiseDescriptorLimit();
    const Queue queue;
    const Pair pair = unixPair();
    std::vector<Fd> copies;
    for (const int number : {1024, 1023, 100, 2047, 2048, 4096}) {
        copies.emplace_back(fcntl(pair.reader.get(), F_DUPFD_CLOEXEC, number));
        ASSERT_EQ(queue.apply(change(ident(copies.back()), EVFILT_READ, kArm, 0, 0, number)), 0);
    }
    writeAll(pair.writer.get(), "x");
    const auto events = queue.collect();
    EXPECT_EQ(events.size(), copies.size());
    for (const auto& event : events) EXPECT_EQ(event.udata, markAddress(static_cast<int>(event.ident)));
}

TEST(KeventDescriptors, FilesComeAndGoBesideEachOther) {
    const Queue queue;
    std::vector<Fd> files;
    for (int i = 0; i < 4; ++i) {
        files.emplace_back(open("/dev/null", O_RDWR | O_CLOEXEC));
        ASSERT_EQ(queue.apply(change(ident(files.back()), EVFILT_READ, kArm)), 0);
    }
    size_t left = files.size();
    for (const size_t i : {0U, 2U, 3U, 1U}) {
        EXPECT_EQ(queue.collect().size(), left);
        ASSERT_EQ(queue.apply(change(ident(files[i]), EVFILT_READ, EV_DELETE)), 0);
        --left;
    }
    EXPECT_TRUE(queue.collect().empty());
    for (const Fd& file : files) ASSERT_EQ(queue.apply(change(ident(file), EVFILT_READ, kArm)), 0);
    EXPECT_EQ(queue.collect().size(), files.size());
}

TEST(KeventDescriptors, ManyNumbersOpenAndClose) {
    const Queue queue;
    for (int round = 0; round < 50; ++round) {
        std::vector<Pair> pairs;
        for (int i = 0; i < 10; ++i) {
            pairs.push_back(unixPair());
            ASSERT_EQ(
                queue.apply(change(ident(pairs.back().reader), EVFILT_READ, kArm, 0, 0, round * 10 + i + 1)),
                0);
            ASSERT_EQ(
                queue.apply(change(ident(pairs.back().reader), EVFILT_WRITE, kArm, 0, 0, round * 10 + i + 1)),
                0);
        }
        const auto events = queue.collect();
        ASSERT_EQ(events.size(), 10U);
        for (const auto& event : events) EXPECT_GE(event.udata, markAddress(round * 10 + 1));
    }
}

}  // namespace
