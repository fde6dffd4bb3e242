/// What the programs made by hand share: one request, one reply read in one piece, output by the block.
#ifndef RV_BENCH_TUNED_H
#define RV_BENCH_TUNED_H

#include <simdjson.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

inline void readAll(int sock, char* out, std::size_t count) {
    while (count > 0) {
        const ssize_t got = read(sock, out, count);
        if (got < 1) {
            std::exit(1);
        }
        out += got;
        count -= static_cast<std::size_t>(got);
    }
}

inline void writeAll(int sock, const char* bytes, std::size_t count) {
    while (count > 0) {
        const ssize_t done = write(sock, bytes, count);
        if (done < 1) {
            std::exit(1);
        }
        bytes += done;
        count -= static_cast<std::size_t>(done);
    }
}

/// The reply's body, in memory with the padding that the parser wants; never freed.
struct Reply {
    char* bytes;
    std::size_t size;
};

inline int connectToDaemon() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/var/run/rvusbpctl.sock");
    const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
    if (sock == -1 || connect(sock, reinterpret_cast<sockaddr*>(&address), sizeof address) == -1) {
        std::exit(1);
    }
    return sock;
}

/// frame  the request with its body; its first 8 bytes are room for the header, which is all that an empty
/// request has
inline Reply request(int sock, std::uint32_t code, char* frame, std::size_t frameBytes) {
    std::uint32_t header[2] = {code, static_cast<std::uint32_t>(frameBytes - 8)};
    std::memcpy(frame, header, sizeof header);
    writeAll(sock, frame, frameBytes);
    readAll(sock, reinterpret_cast<char*>(header), sizeof header);
    const std::size_t size = header[1];
    auto* bytes = static_cast<char*>(std::malloc(size + simdjson::SIMDJSON_PADDING));
    readAll(sock, bytes, size);
    return {bytes, size};
}

inline Reply request(int sock, std::uint32_t code) {
    char frame[8];
    return request(sock, code, frame, sizeof frame);
}

inline Reply request(std::uint32_t code) {
    return request(connectToDaemon(), code);
}

class Output {
  public:
    ~Output() { flush(); }
    void text(std::string_view bytes) {
        if (sizeof buffer_ - used_ < bytes.size()) {
            flush();
        }
        std::memcpy(buffer_ + used_, bytes.data(), bytes.size());
        used_ += bytes.size();
    }
    void number(std::uint64_t value) {
        char digits[20];
        text({digits,
              static_cast<std::size_t>(std::to_chars(digits, digits + sizeof digits, value).ptr - digits)});
    }
    void hex4(std::uint64_t value) {
        char digits[4];
        for (int i = 3; i >= 0; --i, value >>= 4) {
            digits[i] = "0123456789abcdef"[value & 0xf];
        }
        text({digits, sizeof digits});
    }

  private:
    void flush() {
        std::size_t done = 0;
        while (done < used_) {
            const ssize_t count = write(STDOUT_FILENO, buffer_ + done, used_ - done);
            if (count < 1) {
                std::exit(1);
            }
            done += static_cast<std::size_t>(count);
        }
        used_ = 0;
    }
    std::size_t used_ = 0;
    char buffer_[65536];
};

#endif
