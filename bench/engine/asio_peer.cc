/// asio without Boost: streams with a read and a write under way at a time.
#include <array>
#include <asio.hpp>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/engine/loop.h"
#include "bench/engine/sockets.h"

namespace {

using namespace enginebench;
using Socket = asio::generic::stream_protocol::socket;

asio::generic::stream_protocol protocolOf(int fd) {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    must(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size));
    return {address.ss_family, 0};
}

/// A connection and its job.
class Connection {
  public:
    Connection(asio::io_context& context, int fd) : socket(context, protocolOf(fd), fd) {}

    void echo() {
        socket.async_read_some(asio::buffer(buffer), [this](const asio::error_code& error, std::size_t size) {
            if (error) return;
            asio::async_write(socket, asio::buffer(buffer.data(), size),
                              [this](const asio::error_code& failed, std::size_t) {
                                  if (!failed) echo();
                              });
        });
    }

    void sendPing() {
        asio::async_write(socket, asio::buffer(block), [this](const asio::error_code& error, std::size_t) {
            if (!error) awaitPing();
        });
    }

    void sendBlocks() {
        asio::async_write(socket, asio::buffer(block),
                          [this](const asio::error_code& error, std::size_t size) {
                              left -= std::min(left, size);
                              if (!error && left > 0) sendBlocks();
                          });
    }

    void receive() {
        socket.async_read_some(asio::buffer(buffer), [this](const asio::error_code& error, std::size_t size) {
            if (error) return;
            left -= std::min(left, size);
            if (left == 0) {
                done();
            } else {
                receive();
            }
        });
    }

    void request(std::size_t bytes) {
        block.assign(bytes, 'x');
        asio::async_write(socket, asio::buffer(block), [](const asio::error_code&, std::size_t) {});
    }

    std::string block;
    std::size_t left = 0;
    Loop::Done done;

  private:
    void awaitPing() {
        socket.async_read_some(asio::buffer(buffer), [this](const asio::error_code& error, std::size_t size) {
            if (error) return;
            received += size;
            if (received < block.size()) {
                awaitPing();
                return;
            }
            received = 0;
            if (--left == 0) {
                done();
            } else {
                sendPing();
            }
        });
    }

    Socket socket;
    std::size_t received = 0;
    std::array<char, kBufferBytes> buffer;
};

class AsioLoop : public Loop {
  public:
    ~AsioLoop() override {
        context.stop();
        if (thread.joinable()) thread.join();
    }
    AsioLoop() = default;
    AsioLoop(const AsioLoop&) = delete;
    AsioLoop& operator=(const AsioLoop&) = delete;

    void echo(int fd) override { connect(fd).echo(); }
    void ping(int fd, std::size_t bytes, std::size_t rounds, Done done) override {
        Connection& it = connect(fd);
        it.block.assign(bytes, 'x');
        it.left = rounds;
        it.done = std::move(done);
        asio::post(context, [&it] { it.sendPing(); });
    }
    void send(int fd, std::size_t writeBytes, std::size_t totalBytes) override {
        Connection& it = connect(fd);
        it.block.assign(writeBytes, 'x');
        it.left = totalBytes;
        asio::post(context, [&it] { it.sendBlocks(); });
    }
    void receive(int fd, std::size_t totalBytes, Done done) override {
        Connection& it = connect(fd);
        it.left = totalBytes;
        it.done = std::move(done);
        it.receive();
    }
    void serve(int fd) override { served = &connect(fd); }
    void post(std::size_t bytes) override {
        asio::post(context, [this, bytes] { served->request(bytes); });
    }
    void run() override {
        thread = std::thread([this] { context.run(); });
    }

  private:
    Connection& connect(int fd) {
        connections.push_back(std::make_unique<Connection>(context, fd));
        return *connections.back();
    }

    asio::io_context context{1};  // one thread runs it
    asio::executor_work_guard<asio::io_context::executor_type> work = asio::make_work_guard(context);
    std::vector<std::unique_ptr<Connection>> connections;
    Connection* served = nullptr;
    std::thread thread;
};

std::unique_ptr<Loop> make() {
    return std::make_unique<AsioLoop>();
}

double timers(std::size_t count) {
    asio::io_context context(1);
    std::vector<asio::steady_timer> armed;
    armed.reserve(count);
    const double start = wallSeconds();
    for (std::size_t i = 0; i < count; ++i) {
        armed.emplace_back(context, std::chrono::minutes(1));
        armed.back().async_wait([](const asio::error_code&) {});
    }
    for (asio::steady_timer& timer : armed) timer.cancel();
    context.run();
    armed.clear();
    return wallSeconds() - start;
}

}  // namespace

const Peer enginebench::kAsioPeer = {"asio", make, timers};
