// The requests of the client without memory: each has its message, and what is sent is whole.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fuzz/offline_client.h"
#include "libio-macOS/RvKQueue.h"
#include "unit/rules/captured_stderr.h"
#include "unit/rules/failing_new.h"

namespace {

constexpr char kNoFrame[] = "cannot convert dictionary to JSON";
constexpr char kNoDictionary[] = "cannot allocate dictionary for request";
constexpr char kNoObject[] = "cannot allocate object for request";
constexpr char kNoObjects[] = "cannot allocate objects for request";
constexpr char kNoNumber[] = "cannot allocate number for request";
constexpr char kNoString[] = "cannot allocate string for request";
constexpr char kNoDictionaryLine[] = "cannot allocate dictionary for request\n";
constexpr char kNoPreferencesLine[] = "cannot allocate dictionary for preferences\n";

const std::string kHost(100, 'h');
const std::string kRules = "[" + std::string(1000, ' ') + "]";

struct Row {
    const char* name;
    std::function<void(RvTetherIPCClient&)> request;
    std::set<std::string> messages;  ///< of all refusals together
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

class ClientFault : public ::testing::TestWithParam<Row> {};

TEST_P(ClientFault, EachRefusedAllocationHasItsMessage) {
    RvTetherIPCClient& client = *offlineClient();
    GetParam().request(client);
    const std::vector<std::string> whole = takeSent();
    ASSERT_EQ(1U, whole.size());
    std::set<std::string> messages;
    CapturedStderr said;
    for (long successes = 0;; ++successes) {
        ASSERT_LT(successes, 1000);
        allocationsLeft = successes;
        GetParam().request(client);
        const bool refused = allocationsLeft == 0;
        allocationsLeft = -1;
        const std::string message = said.take();
        const std::vector<std::string> sent = takeSent();
        if (!sent.empty()) {
            EXPECT_EQ("", message);
            EXPECT_EQ(whole, sent);
            break;
        }
        EXPECT_TRUE(refused);
        messages.insert(message);
    }
    EXPECT_EQ(GetParam().messages, messages);
}

const std::uint16_t kPort = 80;

INSTANTIATE_TEST_SUITE_P(
    Requests, ClientFault,
    ::testing::Values(
        // A frame without a body fits in a string that needs no memory.
        Row{"GetDeviceList", [](RvTetherIPCClient& client) { client.getDeviceList(); }, {}},
        Row{"KillConnection",
            [](RvTetherIPCClient& client) { client.requestKillConnection(kHost.c_str(), &kPort); },
            {kNoDictionary, kNoObject, kNoObjects, kNoFrame}},
        Row{"DisconnectDevice",
            [](RvTetherIPCClient& client) { client.requestDisconnectDevice(7); },
            {kNoDictionary, kNoObjects, kNoFrame}},
        Row{"LoadRules",
            [](RvTetherIPCClient& client) { (void)client.loadRuleList(kRules); },
            {kNoDictionary}},
        Row{"InsertRule",
            [](RvTetherIPCClient& client) { (void)client.insertRuleForDevice(7, kHost); },
            {kNoDictionary, kNoObjects, kNoFrame}},
        Row{"TestRule",
            [](RvTetherIPCClient& client) { (void)client.testRuleForDevice(7, "net", kHost.c_str()); },
            {kNoDictionary, kNoNumber, kNoString, kNoFrame}},
        Row{"EndTransaction",
            [](RvTetherIPCClient& client) { client.endRuleTransaction(true); },
            {kNoDictionary, kNoObjects, kNoFrame}},
        Row{"AddPreferences",
            [](RvTetherIPCClient& client) { (void)client.addPreferencesWithDevice(kHost); },
            {kNoDictionaryLine, kNoPreferencesLine, kNoFrame}},
        Row{"RemovePreferences",
            [](RvTetherIPCClient& client) { (void)client.removePreferencesWithDevice(kHost); },
            {kNoDictionaryLine, kNoFrame}}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(ClientFaultTexts, TextThatIsNotUtf8HasTheSameMessages) {
    RvTetherIPCClient& client = *offlineClient();
    const std::string bad = "\xff";
    CapturedStderr said;
    client.requestKillConnection(bad.c_str(), nullptr);
    EXPECT_EQ(kNoObject, said.take());
    EXPECT_FALSE(client.insertRuleForDevice(1, bad));
    EXPECT_EQ(kNoObjects, said.take());
    EXPECT_FALSE(client.testRuleForDevice(1, "net", bad.c_str()));
    EXPECT_EQ(kNoString, said.take());
    EXPECT_TRUE(takeSent().empty());
}

TEST(ClientFaultRules, RulesThatFindNoMemoryAreNotSent) {
    const auto client = offlineClient();
    CapturedStderr said;
    allocationsLeft = 0;
    const bool sent = client->loadRuleList(kRules);
    allocationsLeft = -1;
    EXPECT_FALSE(sent);
    EXPECT_EQ(kNoDictionary, said.take());
    EXPECT_TRUE(takeSent().empty());
}

// The length has 32 bits. Nothing of such rules is read, so that addresses without memory will do.
TEST(ClientFaultRules, RulesThatNoFrameCanHoldAreNotSent) {
    constexpr std::size_t kBytes = std::size_t{1} << 32;
    void* const place = mmap(nullptr, kBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(MAP_FAILED, place);
    CapturedStderr said;
    EXPECT_FALSE(offlineClient()->loadRuleList({static_cast<const char*>(place), kBytes}));
    EXPECT_EQ(kNoDictionary, said.take());
    EXPECT_TRUE(takeSent().empty());
    (void)munmap(place, kBytes);
}

TEST(ClientFaultReceiving, ABodyThatFindsNoMemoryCannotBeParsed) {
    int frames = 0;
    ASSERT_TRUE(offlineClient()->setOnData([&](std::int32_t, const JsonObject&) { ++frames; }));
    // More values than the parser has room for without another allocation.
    std::string body = R"({"a":[1)";
    for (int i = 0; i < 10000; ++i) {
        body += ",1";
    }
    const std::string frame = frameOf(1, body + "]}");
    CapturedStderr said;
    int refusals = 0;
    for (long successes = 0; frames == 0; ++successes) {
        ASSERT_LT(successes, 1000);
        std::uint64_t dropSize = 1;
        allocationsLeft = successes;
        const bool accepted = offlineClient()->parseProtocolBuffer(frame.data(), frame.size(), &dropSize);
        allocationsLeft = -1;
        const std::string message = said.take();
        EXPECT_EQ(accepted ? "" : "cannot parse protocol", message);
        EXPECT_EQ(accepted ? frame.size() : 1U, dropSize);
        refusals += accepted ? 0 : 1;
    }
    EXPECT_GT(refusals, 0);
    ASSERT_TRUE(offlineClient()->setOnData(nullptr));
}

TEST(ClientFaultCallbacks, ASetterWithoutMemoryChangesNothing) {
    int calls = 0;
    ASSERT_TRUE(offlineClient()->setOnError([&] { ++calls; }));
    RvTetherIPCClient::OnError other = [] {};
    allocationsLeft = 0;
    const bool set = offlineClient()->setOnError(std::move(other));
    allocationsLeft = -1;
    EXPECT_FALSE(set);
    (*offlineClient()->onError())();
    EXPECT_EQ(1, calls);
}

TEST(ClientFaultStart, WithoutMemoryThereIsNoConnection) {
    const std::shared_ptr<RvKQueue> engine = RvKQueue::initWithSubsystem("fault");
    const std::shared_ptr<RvTetherIPCClient> client = RvTetherIPCClient::initWithKQueue(engine);
    int errors = 0;
    ASSERT_TRUE(client->setOnError([&] { ++errors; }));
    CapturedStderr said;
    allocationsLeft = 0;
    client->start();
    allocationsLeft = -1;
    EXPECT_EQ("cannot connect\n", said.take());
    EXPECT_EQ(1, errors);
}

std::ptrdiff_t openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// The loop that is to close the sockets runs only after the refusals: they are for this thread alone.
TEST(ClientFaultStart, NoSocketIsLeftOfAClientThatFindsNoMemory) {
    const std::shared_ptr<RvKQueue> engine = RvKQueue::initWithSubsystem("fault");
    const std::ptrdiff_t before = openDescriptors();
    std::shared_ptr<RvTetherIPCClient> client;
    int refusals = 0;
    for (long successes = 0; !client; ++successes) {
        ASSERT_LT(successes, 1000);
        allocationsLeft = successes;
        client = RvTetherIPCClient::initWithKQueue(engine);
        allocationsLeft = -1;
        refusals += client ? 0 : 1;
    }
    EXPECT_GT(refusals, 1);
    client->stop();
    client.reset();
    engine->start();
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (openDescriptors() > before && std::chrono::steady_clock::now() < limit) {
        std::this_thread::yield();
    }
    EXPECT_EQ(before, openDescriptors());
    engine->stop();
}

}  // namespace
