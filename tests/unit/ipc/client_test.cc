#include "IPCClient.h"

#include <gtest/gtest.h>

#include <atomic>
#include <boost/json/parse.hpp>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "fake_daemon/fake_daemon.h"
#include "fake_daemon/wire.h"
#include "libio-macOS/RvKQueue.h"

namespace {

constexpr char kSubsystem[] = "test.usb.phys.ctl";

/// What the callbacks of a client have seen; filled on the I/O thread, waited for by the test.
class Log {
  public:
    void add(const std::string& entry) {
        const std::lock_guard<std::mutex> guard(lock_);
        entries_.push_back(entry);
        changed_.notify_all();
    }

    bool waitFor(const std::string& entry) {
        std::unique_lock<std::mutex> guard(lock_);
        return changed_.wait_for(guard, std::chrono::seconds(30), [&] {
            return std::find(entries_.begin(), entries_.end(), entry) != entries_.end();
        });
    }

    std::vector<std::string> entries() {
        const std::lock_guard<std::mutex> guard(lock_);
        return entries_;
    }

  private:
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::string> entries_;
};

void observe(RvTetherIPCClient& client, Log& log) {
    EXPECT_TRUE(client.setOnConnected([&log] { log.add("connected"); }));
    EXPECT_TRUE(client.setOnError([&log] { log.add("error"); }));
    EXPECT_TRUE(client.setOnData([&log](std::int32_t command, const JsonObject& reply) {
        log.add(std::to_string(command) + (reply.empty() ? "" : ":" + std::string(reply.begin()->key())));
    }));
}

// ---- Cutting frames: a client that is not started.

class ParseProtocolBuffer : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(loop_);
        client_ = RvTetherIPCClient::initWithKQueue(loop_);
        ASSERT_TRUE(client_);
        observe(*client_, log_);
    }

    /// Whether the client took `bytes`; `drop` is then the drop size, preset as the endpoint does.
    bool parse(const std::string& bytes) {
        drop_ = bytes.size();
        testing::internal::CaptureStderr();
        const bool usable = client_->parseProtocolBuffer(bytes.data(), bytes.size(), &drop_);
        errors_ = testing::internal::GetCapturedStderr();
        return usable;
    }

    std::shared_ptr<RvKQueue> loop_ = RvKQueue::initWithSubsystem(kSubsystem);
    std::shared_ptr<RvTetherIPCClient> client_;
    Log log_;
    std::uint64_t drop_ = 0;
    std::string errors_;
};

TEST_F(ParseProtocolBuffer, FewerThan8BytesAreKeptWhole) {
    EXPECT_TRUE(parse(fake::frame(0, "{}").substr(0, 7)));
    EXPECT_EQ(drop_, 0U);
    EXPECT_EQ(errors_, "");
}

TEST_F(ParseProtocolBuffer, LengthZeroIsAProtocolError) {
    const std::string bytes = fake::header(0, 0);
    EXPECT_FALSE(parse(bytes));
    EXPECT_EQ(drop_, bytes.size()) << "the drop size is left alone";
    EXPECT_EQ(errors_, "invalid protocol\n");
}

TEST_F(ParseProtocolBuffer, LargestLengthIsKeptAndALargerOneFailsAtOnce) {
    EXPECT_TRUE(parse(fake::frame(3, "{}") + fake::header(0, 104857600) + "{"));
    EXPECT_EQ(drop_, 10U);
    EXPECT_FALSE(parse(fake::frame(3, "{}") + fake::header(0, 104857601)));
    EXPECT_EQ(drop_, 18U);
    EXPECT_EQ(errors_, "invalid protocol\n");
    EXPECT_EQ(log_.entries(), (std::vector<std::string>{"3", "3"}));
}

TEST_F(ParseProtocolBuffer, TwoFramesAndFiveBytesOfAThird) {
    EXPECT_TRUE(parse(fake::frame(6, R"({"a":1})") + fake::frame(7, R"({"b":1})") + "12345"));
    EXPECT_EQ(drop_, 30U);
    EXPECT_EQ(log_.entries(), (std::vector<std::string>{"6:a", "7:b"}));
}

TEST_F(ParseProtocolBuffer, IncompleteBodyKeepsThePartialFrame) {
    EXPECT_TRUE(parse(fake::frame(6, "{}") + fake::frame(7, "{}").substr(0, 9)));
    EXPECT_EQ(drop_, 10U);
    EXPECT_EQ(log_.entries(), (std::vector<std::string>{"6"}));
}

TEST_F(ParseProtocolBuffer, BodyThatIsNotJson) {
    EXPECT_FALSE(parse(fake::frame(0, "nonsense")));
    EXPECT_EQ(drop_, 16U);
    EXPECT_EQ(errors_, "cannot parse protocol");
}

TEST_F(ParseProtocolBuffer, ArrayAfterAFrameThatStaysDelivered) {
    EXPECT_FALSE(parse(fake::frame(1, "{}") + fake::frame(2, "[]") + fake::frame(3, "{}")));
    EXPECT_EQ(drop_, 30U);
    EXPECT_EQ(errors_, "cannot parse JSON, got wrong top-level object");
    EXPECT_EQ(log_.entries(), (std::vector<std::string>{"1"}));
}

TEST_F(ParseProtocolBuffer, FramesWithoutADataCallbackAreConsumedSilently) {
    EXPECT_TRUE(client_->setOnData(nullptr));
    EXPECT_EQ(client_->onData(), nullptr);
    EXPECT_TRUE(parse(fake::frame(1, "{}")));
    EXPECT_EQ(drop_, 10U);
    EXPECT_EQ(errors_, "");
}

TEST_F(ParseProtocolBuffer, EachFrameGoesToTheCallbackOfItsMoment) {
    EXPECT_TRUE(client_->setOnData([this](std::int32_t, const JsonObject&) {
        log_.add("first");
        EXPECT_TRUE(client_->setOnData([this](std::int32_t, const JsonObject&) {
            log_.add("second");
            client_->stop();
        }));
    }));
    EXPECT_TRUE(parse(fake::frame(1, "{}") + fake::frame(1, "{}") + fake::frame(1, "{}")));
    EXPECT_EQ(drop_, 30U);
    EXPECT_EQ(log_.entries(), (std::vector<std::string>{"first", "second"}));
}

// ---- Requests and connection events: a client on a running loop, against a daemon.

/// A started client, of which the case may let go; the loop is stopped at the end, which takes a second.
class Running {
  public:
    explicit Running(Log& log, bool observeConnection = true) {
        client = RvTetherIPCClient::initWithKQueue(loop);
        observe(*client, log);
        if (!observeConnection) {
            EXPECT_TRUE(client->setOnConnected(nullptr));
        }
        loop->start();
        client->start();
    }
    ~Running() {
        if (client) {
            client->stop();
        }
        loop->stop();
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

    std::shared_ptr<RvKQueue> loop = RvKQueue::initWithSubsystem(kSubsystem);
    std::shared_ptr<RvTetherIPCClient> client;
};

struct RequestRow {
    const char* name;
    std::function<bool(RvTetherIPCClient&)> ask;
    std::uint32_t code;
    const char* body;  ///< null: a header alone
};

template <class Ask>
std::function<bool(RvTetherIPCClient&)> sent(Ask ask) {
    return [ask](RvTetherIPCClient& client) {
        ask(client);
        return true;
    };
}

std::vector<RequestRow> catalogue() {
    using Client = RvTetherIPCClient;
    static constexpr std::uint16_t kPort = 65535;
    return {
        {"getDeviceList", sent([](Client& c) { c.getDeviceList(); }), 0, nullptr},
        {"getConnectionList", sent([](Client& c) { c.getConnectionList(); }), 1, nullptr},
        {"kill without port", sent([](Client& c) { c.requestKillConnection("pc1", nullptr); }), 2,
         R"({"host":"pc1"})"},
        {"kill with port", sent([](Client& c) { c.requestKillConnection("pc1", &kPort); }), 2,
         R"({"host":"pc1","port":65535})"},
        {"disconnect", sent([](Client& c) { c.requestDisconnectDevice(4294967295U); }), 3,
         R"({"id":4294967295})"},
        {"start transaction", sent([](Client& c) { c.startRuleTransaction(); }), 6, nullptr},
        {"get rules", sent([](Client& c) { c.getRuleList(); }), 7, nullptr},
        {"load rules", [](Client& c) { return c.loadRuleList(R"([{"action":"share"}])"); }, 8,
         R"({"rules":[{"action":"share"}]})"},
        {"load no rules", [](Client& c) { return c.loadRuleList("[]"); }, 8, R"({"rules":[]})"},
        {"insert", [](Client& c) { return c.insertRuleForDevice(7, "block"); }, 9,
         R"({"id":7,"action":"block"})"},
        {"test net", [](Client& c) { return c.testRuleForDevice(7, "net", "pc1"); }, 10,
         R"({"id":7,"type":"net","addr":"pc1"})"},
        {"test rdesk", [](Client& c) { return c.testRuleForDevice(7, "rdesk", nullptr); }, 10,
         R"({"id":7,"type":"rdesk"})"},
        {"test of another type ignores the host",
         [](Client& c) { return c.testRuleForDevice(7, "other", "pc1"); }, 10, R"({"id":7,"type":"other"})"},
        {"commit", sent([](Client& c) { c.endRuleTransaction(true); }), 11, R"({"action":"commit"})"},
        {"rollback", sent([](Client& c) { c.endRuleTransaction(false); }), 11, R"({"action":"rollback"})"},
        {"test of a type that begins like net",
         [](Client& c) { return c.testRuleForDevice(7, "network", "pc1"); }, 10,
         R"({"id":7,"type":"network"})"},
        {"empty dictionary", sent([](Client& c) {
             const JsonObject empty;
             c.sendJSON(&empty, -1);
         }),
         0xffffffff, "{}"},
        {"get preferences", sent([](Client& c) { c.getPreferences(); }), 19, nullptr},
        {"add preferences", [](Client& c) { return c.addPreferencesWithDevice("0a5c:4500"); }, 20,
         R"({"preferences":{"grab_on_plug":true},"hwid":"0a5c:4500"})"},
        {"remove preferences", [](Client& c) { return c.removePreferencesWithDevice("0a5c"); }, 21,
         R"({"hwid":"0a5c"})"},
    };
}

TEST(Requests, MayMeetStopOnAnotherThread) {
    fake::FakeDaemon daemon{fake::Script()};
    Log log;
    {
        Running running(log);
        ASSERT_TRUE(log.waitFor("connected"));
        std::atomic<bool> enough = false;
        std::thread asking([&] {
            while (!enough) {
                running.client->getDeviceList();
            }
        });
        EXPECT_TRUE(daemon.waitForRequests(1));
        running.client->stop();
        enough = true;
        asking.join();
    }
    daemon.finish();
    for (const fake::Frame& request : daemon.requests()) {
        EXPECT_EQ(0U, request.code);
        EXPECT_EQ("", request.body);
    }
}

TEST(Requests, EveryRequestOfTheCatalogue) {
    const std::vector<RequestRow> rows = catalogue();
    fake::FakeDaemon daemon{fake::Script()};
    Log log;
    {
        Running running(log);
        ASSERT_TRUE(log.waitFor("connected"));
        for (const RequestRow& row : rows) {
            EXPECT_TRUE(row.ask(*running.client)) << row.name;
        }
        ASSERT_TRUE(daemon.waitForRequests(rows.size()));
    }
    daemon.finish();
    const std::vector<fake::Frame> requests = daemon.requests();
    ASSERT_EQ(requests.size(), rows.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(requests[i].code, rows[i].code) << rows[i].name;
        if (rows[i].body == nullptr) {
            EXPECT_EQ(requests[i].body, "") << rows[i].name;
        } else {
            EXPECT_EQ(boost::json::parse(requests[i].body), boost::json::parse(rows[i].body)) << rows[i].name;
        }
    }
    EXPECT_EQ(daemon.leftovers(), "");
}

TEST(Requests, TextThatIsNotUtf8IsToldAndNothingIsSent) {
    fake::FakeDaemon daemon{fake::Script()};
    Log log;
    std::string errors;
    {
        Running running(log);
        ASSERT_TRUE(log.waitFor("connected"));
        testing::internal::CaptureStderr();
        running.client->requestKillConnection("\xff", nullptr);
        EXPECT_FALSE(running.client->testRuleForDevice(1, "net", "\xff"));
        EXPECT_FALSE(running.client->insertRuleForDevice(1, "\xff"));
        errors = testing::internal::GetCapturedStderr();
        running.client->getDeviceList();
        ASSERT_TRUE(daemon.waitForRequests(1));
    }
    daemon.finish();
    EXPECT_EQ(errors,
              "cannot allocate object for request"
              "cannot allocate string for request"
              "cannot allocate objects for request");
    ASSERT_EQ(daemon.requests().size(), 1U);
    EXPECT_EQ(daemon.requests()[0].code, 0U);
    EXPECT_EQ(daemon.requests()[0].body, "");
}

TEST(ConnectionEvents, RefusedConnectionIsOneError) {
    Log log;
    testing::internal::CaptureStderr();
    {
        Running running(log);
        EXPECT_TRUE(log.waitFor("error"));
        running.client->stop();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr().substr(0, 15), "cannot connect\n");
    EXPECT_EQ(log.entries().front(), "error");
}

TEST(ConnectionEvents, ClosedConnectionIsAnErrorAndItsLastBytesAreNotParsed) {
    fake::FakeDaemon daemon{fake::Script().receive().send(fake::frame(1, "{}").substr(0, 9)).close()};
    Log log;
    testing::internal::CaptureStderr();
    {
        Running running(log);
        ASSERT_TRUE(log.waitFor("connected"));
        running.client->getDeviceList();
        ASSERT_TRUE(log.waitFor("error"));
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr().substr(0, 22), "connection terminated\n");
    EXPECT_EQ(log.entries()[1], "error");
}

/// What a client says whose owner stops it at the first error.
std::string messagesUntilStopped() {
    Log log;
    const std::shared_ptr<RvKQueue> loop = RvKQueue::initWithSubsystem(kSubsystem);
    const std::shared_ptr<RvTetherIPCClient> client = RvTetherIPCClient::initWithKQueue(loop);
    EXPECT_TRUE(client->setOnError([&log, &client] {
        client->stop();
        log.add("error");
    }));
    testing::internal::CaptureStderr();
    loop->start();
    client->start();
    EXPECT_TRUE(log.waitFor("error"));
    loop->stop();
    EXPECT_EQ(log.entries(), std::vector<std::string>{"error"});
    return testing::internal::GetCapturedStderr();
}

TEST(ConnectionEvents, OwnerThatStopsAtAnErrorIsToldOnce) {
    EXPECT_EQ(messagesUntilStopped(), "cannot connect\n");
    const fake::FakeDaemon daemon{fake::Script().close()};
    EXPECT_EQ(messagesUntilStopped(), "connection terminated\n");
}

TEST(ConnectionEvents, ConnectionWithoutACallbackIsSilent) {
    fake::FakeDaemon daemon{fake::Script().receive().sendFrame(12, "{}").hold()};
    Log log;
    testing::internal::CaptureStderr();
    {
        Running running(log, false);
        running.client->getDeviceList();
        ASSERT_TRUE(log.waitFor("12"));
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(log.entries(), (std::vector<std::string>{"12"}));
}

TEST(ConnectionEvents, ProtocolErrorCallsOnError) {
    fake::FakeDaemon daemon{fake::Script().receive().send(fake::header(1, 0)).hold()};
    Log log;
    testing::internal::CaptureStderr();
    {
        Running running(log);
        ASSERT_TRUE(log.waitFor("connected"));
        running.client->getDeviceList();
        ASSERT_TRUE(log.waitFor("error"));
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "invalid protocol\n");
    EXPECT_EQ(log.entries(), (std::vector<std::string>{"connected", "error"}));
}

TEST(Client, StopDropsTheCallbacks) {
    const std::shared_ptr<RvKQueue> loop = RvKQueue::initWithSubsystem(kSubsystem);
    const std::shared_ptr<RvTetherIPCClient> client = RvTetherIPCClient::initWithKQueue(loop);
    Log log;
    observe(*client, log);
    EXPECT_NE(client->onConnected(), nullptr);
    client->stop();
    EXPECT_EQ(client->onConnected(), nullptr);
    EXPECT_EQ(client->onData(), nullptr);
    EXPECT_EQ(client->onError(), nullptr);
}

TEST(Client, StopLetsGoOfTheConnectionAndTheClient) {
    fake::FakeDaemon daemon{fake::Script()};
    Log log;
    {
        Running running(log);
        ASSERT_TRUE(log.waitFor("connected"));
        running.client->stop();
        running.client->getDeviceList();
        const std::weak_ptr<RvTetherIPCClient> kept = std::exchange(running.client, nullptr);
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!kept.expired() && std::chrono::steady_clock::now() < limit) {
            std::this_thread::yield();
        }
        EXPECT_TRUE(kept.expired());
    }
    daemon.finish();
    EXPECT_TRUE(daemon.requests().empty());
    EXPECT_EQ(log.entries(), (std::vector<std::string>{"connected"}));
}

TEST(Client, IsKeptByItsConnection) {
    fake::FakeDaemon daemon{fake::Script().hold().sendFrame(12, "{}").hold()};
    Log log;
    Running running(log);
    ASSERT_TRUE(log.waitFor("connected"));
    const std::weak_ptr<RvTetherIPCClient> kept = std::exchange(running.client, nullptr);
    ASSERT_TRUE(daemon.waitForHold(1));
    daemon.release();
    EXPECT_TRUE(log.waitFor("12"));
    running.client = kept.lock();
    EXPECT_TRUE(running.client);
}

TEST(Client, MayOutliveItsLoop) {
    std::shared_ptr<RvKQueue> loop = RvKQueue::initWithSubsystem(kSubsystem);
    const std::shared_ptr<RvTetherIPCClient> client = RvTetherIPCClient::initWithKQueue(loop);
    Log log;
    observe(*client, log);
    const std::weak_ptr<RvKQueue> gone = std::exchange(loop, nullptr);
    EXPECT_TRUE(gone.expired());
    client->start();
    client->getDeviceList();
    client->stop();
    client->stop();
    EXPECT_EQ(client->onConnected(), nullptr);
    EXPECT_EQ(log.entries(), std::vector<std::string>{});
}

}  // namespace
