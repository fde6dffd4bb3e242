#include "libio-macOS/RvKQueueUnixServer.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "libio-macOS/AcceptedConnection.h"
#include "libio-macOS/RvKQueueStreamSocket.h"
#include "platform/kevent.h"
#include "unit/libio-macOS/support/engine_fixture.h"

namespace {

constexpr const char* kFailure = "cannot initialize unix server socket object";

int connectTo(const std::string& path) {
    const int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    EXPECT_EQ(0, connect(sock, reinterpret_cast<const struct sockaddr*>(&address), sizeof address));
    return sock;
}

AcceptedConnection acceptedIn(const RecordedEvent& event) {
    AcceptedConnection accepted = {};
    EXPECT_EQ(sizeof accepted, event.bytes.size());
    std::memcpy(&accepted, event.bytes.data(), std::min(event.bytes.size(), sizeof accepted));
    return accepted;
}

mode_t modeOf(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(0, stat(path.c_str(), &status));
    return status.st_mode;
}

class RvKQueueUnixServerListen : public EngineTest {
  protected:
    TemporaryDirectory directory;
    std::string path = directory.path("s");
    Recorder recorder;
};
using RvKQueueUnixServerAccept = RvKQueueUnixServerListen;

// Nobody has connected, and an accept would not return.
TEST_F(RvKQueueUnixServerAccept, AFilterThatCannotBeArmedIsAFailedAccept) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    const struct kevent record = {0, EVFILT_READ, EV_ADD | EV_ERROR, 0, ENOMEM, server.get()};
    server->kevent(&record);
    EXPECT_TRUE(
        isLogged(LogLevel::kError, "<" + pointerText(server.get()) + ">: cannot accept unix connection"));
}

TEST_F(RvKQueueUnixServerListen, IsLogged) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    ASSERT_TRUE(server);
    EXPECT_TRUE(
        isLogged(LogLevel::kDebug, "<" + pointerText(server.get()) + ">: unix server(" + path + ") created"));
}

TEST_F(RvKQueueUnixServerListen, TheFileHasExactlyTheModeWhateverTheUmask) {
    const mode_t before = umask(0077);
    EXPECT_TRUE(loop->createUnixServer(path.c_str(), 0666));
    umask(before);
    EXPECT_EQ(S_IFSOCK | 0666, modeOf(path));
}

TEST_F(RvKQueueUnixServerListen, AModeMayHaveMoreBitsThanThePermissions) {
    constexpr std::uint16_t kModes[] = {01700, 04600, 07777};
    for (const std::uint16_t mode : kModes) {
        EXPECT_TRUE(loop->createUnixServer(path.c_str(), mode));
        EXPECT_EQ(S_IFSOCK | mode, modeOf(path));
    }
}

TEST_F(RvKQueueUnixServerListen, ARegularFileIsReplaced) {
    EXPECT_EQ(0, close(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600)));
    EXPECT_TRUE(loop->createUnixServer(path.c_str(), 0640));
    EXPECT_EQ(S_IFSOCK | 0640, modeOf(path));
}

TEST_F(RvKQueueUnixServerListen, AStaleSocketFileIsReplaced) {
    const int stale = RvKQueueUnixServer::listenSocket(path.c_str(), 0644);
    ASSERT_NE(-1, stale);
    EXPECT_EQ(0, close(stale));
    EXPECT_EQ(S_IFSOCK | 0644, modeOf(path));
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    ASSERT_TRUE(server);
    EXPECT_EQ(S_IFSOCK | 0600, modeOf(path));
    loop->startObject(server, recorder.block([](const RecordedEvent&, std::uint64_t*) { return false; }));
    EXPECT_EQ(0, close(connectTo(path)));
    EXPECT_TRUE(recorder.waitFor(kEventData));
}

TEST_F(RvKQueueUnixServerListen, APathOf103BytesIsAccepted) {
    EXPECT_TRUE(loop->createUnixServer(directory.pathOfLength(103).c_str(), 0600));
}

TEST_F(RvKQueueUnixServerListen, APathOfOneByteIsAccepted) {
    const int before = open(".", O_DIRECTORY | O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(0, chdir(directory.path(".").c_str()));
    EXPECT_TRUE(loop->createUnixServer("s", 0600));
    EXPECT_EQ(0, fchdir(before));
    EXPECT_EQ(0, close(before));
    EXPECT_EQ(S_IFSOCK | 0600, modeOf(path));
}

TEST_F(RvKQueueUnixServerListen, APathOf104BytesFailsBeforeASocketIsMade) {
    const std::string longPath = directory.pathOfLength(104);
    EXPECT_EQ(0, close(open(longPath.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600)));
    EXPECT_FALSE(loop->createUnixServer(longPath.c_str(), 0600));
    EXPECT_EQ(1, countLogged(LogLevel::kError, kFailure));
    EXPECT_EQ(S_IFREG | 0600, modeOf(longPath));  // what was there has not been unlinked
}

TEST_F(RvKQueueUnixServerListen, AHundredAndTwentyEightConnectionsMayWait) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    ASSERT_TRUE(server);  // and not started: nobody accepts
    std::vector<int> clients;
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    for (int i = 0; i < 128; ++i) {
        clients.push_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        EXPECT_EQ(0,
                  connect(clients.back(), reinterpret_cast<const struct sockaddr*>(&address), sizeof address))
            << i;
    }
    for (const int client : clients) EXPECT_EQ(0, close(client));
}

TEST_F(RvKQueueUnixServerListen, AnEmptyPathFails) {
    EXPECT_FALSE(loop->createUnixServer("", 0600));
    EXPECT_EQ(1, countLogged(LogLevel::kError, kFailure));
}

TEST_F(RvKQueueUnixServerListen, APathThatCannotBeBoundFailsAndClosesItsSocket) {
    const int before = openDescriptorCount();
    EXPECT_FALSE(loop->createUnixServer(directory.path("no/such/place").c_str(), 0600));
    EXPECT_EQ(1, countLogged(LogLevel::kError, kFailure));
    EXPECT_EQ(before, openDescriptorCount());
}

TEST_F(RvKQueueUnixServerListen, StopClosesTheSocketAndLeavesTheFile) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    struct kevent record;
    server->initReadEvent(&record, EV_ADD);
    EXPECT_EQ(EVFILT_READ, record.filter);
    EXPECT_EQ(FD_CLOEXEC, fcntl(static_cast<int>(record.ident), F_GETFD));
    loop->startObject(server, recorder.block());
    loop->stopObject(server);
    EXPECT_TRUE(waitUntil([&] { return !isOpen(static_cast<int>(record.ident)); }));
    EXPECT_EQ(static_cast<mode_t>(S_IFSOCK), modeOf(path) & S_IFMT);
    EXPECT_TRUE(isLogged(LogLevel::kDebug, "<" + pointerText(server.get()) + ">: stop"));
}

TEST_F(RvKQueueUnixServerAccept, NothingComesInsideStartObject) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    loop->startObject(server, recorder.block());
    EXPECT_EQ(0u, recorder.events().size());
}

TEST_F(RvKQueueUnixServerAccept, OtherFiltersAreIgnored) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    const int client = connectTo(path);
    struct kevent record;
    server->initReadEvent(&record, EV_ADD);
    expectOtherFiltersAreIgnored(server.get(), record);
    EXPECT_EQ(0, close(client));
}

TEST_F(RvKQueueUnixServerAccept, TheBlockSeesThePeer) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    loop->startObject(server, recorder.block());
    const int client = connectTo(path);
    ASSERT_TRUE(recorder.waitFor(kEventData));
    const auto event = recorder.events()[0];
    EXPECT_EQ(136u, event.size);
    EXPECT_EQ(server.get(), event.object);
    EXPECT_FALSE(event.hasDropSize);
    const AcceptedConnection accepted = acceptedIn(event);
    EXPECT_EQ(getuid(), accepted.peer.credentials.userId);
    EXPECT_EQ(getgid(), accepted.peer.credentials.groupId);
    EXPECT_EQ(getpid(), accepted.peer.credentials.processId);
    EXPECT_EQ(FD_CLOEXEC, fcntl(accepted.descriptor, F_GETFD));
    writeAll(client, "x");
    EXPECT_EQ("x", readExactly(accepted.descriptor, 1));
    EXPECT_EQ(0, close(accepted.descriptor));
    EXPECT_EQ(0, close(client));
}

TEST_F(RvKQueueUnixServerAccept, TheBlockSeesAnotherProcess) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    loop->startObject(server, recorder.block());
    const pid_t child = fork();
    if (child == 0) {
        const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.c_str(), path.size());
        _exit(connect(sock, reinterpret_cast<const struct sockaddr*>(&address), sizeof address));
    }
    ASSERT_TRUE(recorder.waitFor(kEventData));
    const AcceptedConnection accepted = acceptedIn(recorder.events()[0]);
    EXPECT_EQ(child, accepted.peer.credentials.processId);
    EXPECT_EQ(0, close(accepted.descriptor));
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
}

TEST_F(RvKQueueUnixServerAccept, ARefusedConnectionIsShutDownAndClosed) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    std::atomic<int> duplicate{-1};
    loop->startObject(server, recorder.block([&](const RecordedEvent& event, std::uint64_t*) {
        duplicate = dup(acceptedIn(event).descriptor);
        return false;
    }));
    const int client = connectTo(path);
    EXPECT_EQ("", readExactly(client, 1));
    const int descriptor = acceptedIn(recorder.events()[0]).descriptor;
    EXPECT_TRUE(waitUntil([&] { return !isOpen(descriptor); }));
    EXPECT_EQ(0, close(duplicate));
    EXPECT_EQ(0, close(client));
}

TEST_F(RvKQueueUnixServerAccept, ABacklogIsDrainedOneConnectionAnEvent) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    std::vector<int> clients;
    clients.reserve(40);
    for (int i = 0; i < 40; ++i) clients.push_back(connectTo(path));
    loop->startObject(server, recorder.block());
    ASSERT_TRUE(recorder.waitFor(kEventData, 40));
    for (const RecordedEvent& event : recorder.events()) EXPECT_EQ(0, close(acceptedIn(event).descriptor));
    for (const int client : clients) EXPECT_EQ(0, close(client));
    EXPECT_EQ(40u, recorder.events().size());
}

TEST_F(RvKQueueUnixServerAccept, TheBlockMayWrapTheConnectionAtOnce) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    loop->startObject(server, recorder.block([this](const RecordedEvent& event, std::uint64_t*) {
        const auto connection = loop->createStreamSocket(acceptedIn(event).descriptor, true);
        loop->startObject(connection, [this](RvKQueueEventProtocol* object, const char* buffer,
                                             std::uint64_t size, std::uint64_t*, std::int32_t code) {
            if (code == kEventData) loop->write(object, buffer, size);
            return true;
        });
        return true;
    }));
    const int client = connectTo(path);
    writeAll(client, "echo");
    EXPECT_EQ("echo", readExactly(client, 4));
    EXPECT_EQ(0, close(client));
}

TEST_F(RvKQueueUnixServerAccept, AConnectionThatIsGoneAgainIsStillOffered) {
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    EXPECT_EQ(0, close(connectTo(path)));
    loop->startObject(server, recorder.block([](const RecordedEvent&, std::uint64_t*) { return false; }));
    EXPECT_TRUE(recorder.waitFor(kEventData));
}

TEST_F(RvKQueueUnixServerAccept, APeerWithoutCredentialsIsNotOffered) {
    // A TCP listener in the place of the server's own socket: its connections have no credentials.
    const auto server = loop->createUnixServer(path.c_str(), 0600);
    struct kevent record;
    server->initReadEvent(&record, EV_ADD);
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    ASSERT_EQ(0, bind(listener, asSockaddr(address), length));
    ASSERT_EQ(0, listen(listener, 5));
    ASSERT_EQ(0, getsockname(listener, reinterpret_cast<struct sockaddr*>(&address), &length));
    ASSERT_NE(-1, dup2(listener, static_cast<int>(record.ident)));
    EXPECT_EQ(0, close(listener));
    loop->startObject(server, recorder.block());
    waitForTurn();
    const std::size_t linesBefore = capturedLog().size();
    const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(0, connect(client, asSockaddr(address), length));
    EXPECT_EQ("", readExactly(client, 1));  // turned away
    EXPECT_EQ(0u, recorder.events().size());
    EXPECT_EQ(linesBefore, capturedLog().size());
    EXPECT_EQ(0, close(client));
}

}  // namespace
