/// libuv: streams that write at once where they can.
#include <sys/socket.h>
#include <uv.h>

#include <algorithm>
#include <array>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/engine/loop.h"
#include "bench/engine/sockets.h"

namespace {

using namespace enginebench;

/// One end of a connection.
class Connection {
  public:
    Connection(uv_loop_t* loop, int fd) {
        sockaddr_storage address{};
        socklen_t size = sizeof address;
        must(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size));
        if (address.ss_family == AF_UNIX) {
            uv_pipe_init(loop, &handle.pipe, 0);
            uv_pipe_open(&handle.pipe, fd);
        } else {
            uv_tcp_init(loop, &handle.tcp);
            uv_tcp_open(&handle.tcp, fd);
        }
        handle.base.data = this;
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void listen(uv_read_cb take) {
        uv_read_start(
            &handle.stream,
            [](uv_handle_t* any, std::size_t, uv_buf_t* out) {
                auto* const self = static_cast<Connection*>(any->data);
                *out = uv_buf_init(self->input.data(), static_cast<unsigned>(self->input.size()));
            },
            take);
    }

    void write(const char* bytes, std::size_t size) {
        uv_buf_t buffer = uv_buf_init(const_cast<char*>(bytes), static_cast<unsigned>(size));
        const int count = uv_try_write(&handle.stream, &buffer, 1);
        const std::size_t written = count > 0 ? static_cast<std::size_t>(count) : 0;
        if (written < size) writeLater(bytes + written, size - written);
    }

    void sendBlock() {
        uv_buf_t buffer = uv_buf_init(block.data(), static_cast<unsigned>(block.size()));
        uv_write(&request, &handle.stream, &buffer, 1, [](uv_write_t* written, int) {
            auto* const self = static_cast<Connection*>(written->handle->data);
            self->left -= std::min(self->left, self->block.size());
            if (self->left > 0) self->sendBlock();
        });
    }

    void takeEcho(const char* bytes, std::size_t size) { write(bytes, size); }
    void takePing(const char*, std::size_t size) {
        received += size;
        if (received < block.size() || left == 0) return;
        received = 0;
        if (--left == 0) {
            done();
        } else {
            write(block.data(), block.size());
        }
    }
    void takeBytes(const char*, std::size_t size) {
        if (left == 0) return;
        left -= std::min(left, size);
        if (left == 0) done();
    }

    template <void (Connection::*take)(const char*, std::size_t)>
    static void onRead(uv_stream_t* stream, ssize_t count, const uv_buf_t* buffer) {
        auto* const self = static_cast<Connection*>(stream->data);
        if (count > 0) (self->*take)(buffer->base, static_cast<std::size_t>(count));
        if (count < 0) uv_read_stop(stream);
    }

    std::string block;
    std::size_t left = 0;
    Loop::Done done;

  private:
    struct Later {
        uv_write_t request;
        std::string bytes;
    };

    void writeLater(const char* bytes, std::size_t size) {
        auto* const later = new Later{{}, std::string(bytes, size)};
        later->request.data = later;
        uv_buf_t buffer = uv_buf_init(later->bytes.data(), static_cast<unsigned>(size));
        uv_write(&later->request, &handle.stream, &buffer, 1,
                 [](uv_write_t* written, int) { delete static_cast<Later*>(written->data); });
    }

    union {
        uv_handle_t base;
        uv_stream_t stream;
        uv_pipe_t pipe;
        uv_tcp_t tcp;
    } handle{};
    uv_write_t request{};
    std::size_t received = 0;
    std::array<char, kBufferBytes> input;
};

class UvLoop : public Loop {
  public:
    UvLoop() {
        uv_loop_init(&loop);
        uv_async_init(&loop, &requested,
                      [](uv_async_t* async) { static_cast<UvLoop*>(async->data)->takeRequests(); });
        uv_async_init(&loop, &ended, [](uv_async_t* async) { uv_stop(async->loop); });
        requested.data = this;
    }
    ~UvLoop() override {
        uv_async_send(&ended);
        if (thread.joinable()) thread.join();
        uv_walk(
            &loop, [](uv_handle_t* handle, void*) { uv_close(handle, nullptr); }, nullptr);
        uv_run(&loop, UV_RUN_DEFAULT);
        uv_loop_close(&loop);
    }
    UvLoop(const UvLoop&) = delete;
    UvLoop& operator=(const UvLoop&) = delete;

    void echo(int fd) override { connect(fd).listen(Connection::onRead<&Connection::takeEcho>); }
    void ping(int fd, std::size_t bytes, std::size_t rounds, Done done) override {
        Connection& it = connect(fd);
        it.block.assign(bytes, 'x');
        it.left = rounds;
        it.done = std::move(done);
        it.listen(Connection::onRead<&Connection::takePing>);
        atStart.push_back([&it] { it.write(it.block.data(), it.block.size()); });
    }
    void send(int fd, std::size_t writeBytes, std::size_t totalBytes) override {
        Connection& it = connect(fd);
        it.block.assign(writeBytes, 'x');
        it.left = totalBytes;
        atStart.push_back([&it] { it.sendBlock(); });
    }
    void receive(int fd, std::size_t totalBytes, Done done) override {
        Connection& it = connect(fd);
        it.left = totalBytes;
        it.done = std::move(done);
        it.listen(Connection::onRead<&Connection::takeBytes>);
    }
    void serve(int fd) override { served = &connect(fd); }
    void post(std::size_t bytes) override {
        {
            const std::lock_guard guard(lock);
            requests.emplace_back(bytes, 'x');
        }
        uv_async_send(&requested);
    }
    void run() override {
        thread = std::thread([this] {
            for (const auto& begin : atStart) begin();
            uv_run(&loop, UV_RUN_DEFAULT);
        });
    }

  private:
    Connection& connect(int fd) {
        connections.push_back(std::make_unique<Connection>(&loop, fd));
        return *connections.back();
    }

    void takeRequests() {
        std::vector<std::string> taken;
        {
            const std::lock_guard guard(lock);
            taken.swap(requests);
        }
        for (const std::string& request : taken) served->write(request.data(), request.size());
    }

    uv_loop_t loop{};
    uv_async_t requested{};
    uv_async_t ended{};
    std::vector<std::unique_ptr<Connection>> connections;
    std::vector<std::function<void()>> atStart;
    Connection* served = nullptr;
    std::mutex lock;
    std::vector<std::string> requests;
    std::thread thread;
};

std::unique_ptr<Loop> make() {
    return std::make_unique<UvLoop>();
}

double timers(std::size_t count) {
    uv_loop_t loop;
    uv_loop_init(&loop);
    std::vector<std::unique_ptr<uv_timer_t>> armed;
    armed.reserve(count);
    const double start = wallSeconds();
    for (std::size_t i = 0; i < count; ++i) {
        armed.push_back(std::make_unique<uv_timer_t>());
        uv_timer_init(&loop, armed.back().get());
        uv_timer_start(
            armed.back().get(), [](uv_timer_t*) {}, 60000, 0);
    }
    for (const auto& timer : armed) uv_close(reinterpret_cast<uv_handle_t*>(timer.get()), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    armed.clear();
    const double seconds = wallSeconds() - start;
    uv_loop_close(&loop);
    return seconds;
}

}  // namespace

const Peer enginebench::kUvPeer = {"uv", make, timers};
