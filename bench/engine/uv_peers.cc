#include <sys/socket.h>
#include <uv.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "bench/engine/peers.h"

namespace {

using Clock = std::chrono::steady_clock;

/// One loop with one end of a connection.
struct End {
    explicit End(int fd) {
        uv_loop_init(&loop);
        uv_pipe_init(&loop, &pipe, 0);
        uv_pipe_open(&pipe, fd);
        pipe.data = this;
    }
    End(const End&) = delete;
    End& operator=(const End&) = delete;
    ~End() { uv_loop_close(&loop); }

    void close() { uv_close(reinterpret_cast<uv_handle_t*>(&pipe), nullptr); }
    void send(const char* bytes, std::size_t size, uv_write_cb done) {
        uv_buf_t buffer = uv_buf_init(const_cast<char*>(bytes), static_cast<unsigned>(size));
        uv_write(&request, reinterpret_cast<uv_stream_t*>(&pipe), &buffer, 1, done);
    }
    void listen(uv_read_cb onRead) {
        uv_read_start(
            reinterpret_cast<uv_stream_t*>(&pipe),
            [](uv_handle_t* handle, std::size_t, uv_buf_t* out) {
                auto* self = static_cast<End*>(handle->data);
                *out = uv_buf_init(self->input, sizeof self->input);
            },
            onRead);
    }

    uv_loop_t loop{};
    uv_pipe_t pipe{};
    uv_write_t request{};
    std::string block;
    std::size_t left = 0;      ///< rounds, or bytes to send or receive
    std::size_t received = 0;  ///< of the current message
    char input[65536]{};
};

void makePair(int* fds) {
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == -1) {
        std::abort();
    }
}

void echo(uv_stream_t* stream, ssize_t count, const uv_buf_t* buffer) {
    auto* self = static_cast<End*>(stream->data);
    if (count < 0) {
        self->close();
    } else if (count > 0) {
        self->send(buffer->base, static_cast<std::size_t>(count), nullptr);
    }
}

void nextRound(uv_stream_t* stream, ssize_t count, const uv_buf_t*) {
    auto* self = static_cast<End*>(stream->data);
    if (count > 0 && (self->received += static_cast<std::size_t>(count)) >= self->block.size()) {
        self->received = 0;
        if (--self->left == 0) {
            self->close();
        } else {
            self->send(self->block.data(), self->block.size(), nullptr);
        }
    }
}

void nextBlock(uv_write_t* request, int) {
    auto* self = static_cast<End*>(request->handle->data);
    if (self->left < self->block.size()) {
        return;
    }
    self->left -= self->block.size();
    self->send(self->block.data(), self->block.size(), nextBlock);
}

void countBytes(uv_stream_t* stream, ssize_t count, const uv_buf_t*) {
    auto* self = static_cast<End*>(stream->data);
    if (count > 0) {
        self->left -= std::min(self->left, static_cast<std::size_t>(count));
        if (self->left == 0) {
            self->close();
        }
    }
}

/// Runs both loops to their end, the second on a thread of its own.
double runBoth(End& here, End& there, void (*afterHere)(End&)) {
    const Clock::time_point start = Clock::now();
    std::thread other([&] { uv_run(&there.loop, UV_RUN_DEFAULT); });
    uv_run(&here.loop, UV_RUN_DEFAULT);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (afterHere != nullptr) {
        afterHere(here);
    }
    other.join();
    return seconds;
}

}  // namespace

double uvPingPong(std::size_t messageBytes, std::size_t rounds) {
    int fds[2];
    makePair(fds);
    End here(fds[0]);
    End there(fds[1]);
    there.listen(echo);
    here.block.assign(messageBytes, 'x');
    here.left = rounds;
    here.listen(nextRound);
    here.send(here.block.data(), here.block.size(), nullptr);
    return runBoth(here, there, nullptr);
}

double uvBulk(std::size_t writeBytes, std::size_t totalBytes) {
    int fds[2];
    makePair(fds);
    End receiver(fds[0]);
    End sender(fds[1]);
    receiver.left = totalBytes;
    receiver.listen(countBytes);
    sender.block.assign(writeBytes, 'x');
    sender.left = totalBytes - writeBytes;
    sender.send(sender.block.data(), sender.block.size(), nextBlock);
    const double seconds = runBoth(receiver, sender, nullptr);
    sender.close();
    uv_run(&sender.loop, UV_RUN_DEFAULT);
    return seconds;
}
