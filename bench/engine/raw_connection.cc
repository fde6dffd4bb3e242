#include "bench/engine/raw_connection.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "bench/engine/sockets.h"

namespace enginebench {

RawConnection::RawConnection(int descriptor, Job itsJob) : sock(descriptor), job(itsJob) {
    must(fcntl(sock, F_SETFL, must(fcntl(sock, F_GETFL)) | O_NONBLOCK));
}

RawConnection::~RawConnection() {
    (void)close(sock);  // nothing is left to undo
}

void RawConnection::begin() {
    if (job == Job::kPing) writeOrKeep(block.data(), block.size());
    if (job == Job::kSend) sendBlocks();
}

void RawConnection::onReadable() {
    static thread_local std::array<char, kBufferBytes> buffer;
    const ssize_t count = read(sock, buffer.data(), buffer.size());
    if (count < 1) return;
    const auto size = static_cast<std::size_t>(count);
    if (job == Job::kEcho) {
        writeOrKeep(buffer.data(), size);
    } else if (job == Job::kPing) {
        takePing(size);
    } else if (job == Job::kReceive && left > 0) {
        left -= std::min(left, size);
        if (left == 0) done();
    }
}

void RawConnection::onWritable() {
    if (job == Job::kSend) {
        sendBlocks();
        return;
    }
    const ssize_t count = write(sock, pending.data(), pending.size());
    if (count > 0) pending.erase(0, static_cast<std::size_t>(count));
}

void RawConnection::writeOrKeep(const char* bytes, std::size_t size) {
    const ssize_t count = pending.empty() ? write(sock, bytes, size) : 0;
    const std::size_t written = count > 0 ? static_cast<std::size_t>(count) : 0;
    if (written < size) pending.append(bytes + written, size - written);
}

void RawConnection::takePing(std::size_t size) {
    received += size;
    if (received < block.size() || left == 0) return;
    received = 0;
    if (--left == 0) {
        done();
    } else {
        writeOrKeep(block.data(), block.size());
    }
}

void RawConnection::sendBlocks() {
    while (left > 0) {
        const ssize_t count = write(sock, block.data() + offset, block.size() - offset);
        if (count < 1) return;
        offset = (offset + static_cast<std::size_t>(count)) % block.size();
        left -= std::min(left, static_cast<std::size_t>(count));
    }
}

}  // namespace enginebench
