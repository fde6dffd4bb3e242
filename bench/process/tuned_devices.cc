// The device list as a program made for nothing else: blocking reads into a buffer of the right size, an
// on-demand parser that keeps no document, and rows put together by hand. It checks nothing.
#include <simdjson.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

namespace {

void readAll(int sock, char* out, std::size_t count) {
    while (count > 0) {
        const ssize_t got = read(sock, out, count);
        if (got < 1) {
            std::exit(1);
        }
        out += got;
        count -= static_cast<std::size_t>(got);
    }
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

struct Device {
    std::uint64_t id, vid, pid, rev;
    bool builtIn;
    std::string_view port, name, state, serial, addr;
};

}  // namespace

int main() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/var/run/rvusbpctl.sock");
    const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
    const char request[8] = {};
    if (sock == -1 || connect(sock, reinterpret_cast<sockaddr*>(&address), sizeof address) == -1 ||
        write(sock, request, sizeof request) != static_cast<ssize_t>(sizeof request)) {
        return 1;
    }
    std::uint32_t header[2];
    readAll(sock, reinterpret_cast<char*>(header), sizeof header);
    const std::size_t length = header[1];
    auto* body = static_cast<char*>(std::malloc(length + simdjson::SIMDJSON_PADDING));
    readAll(sock, body, length);

    simdjson::dom::parser parser;
    const simdjson::dom::array devices = parser.parse(body, length, false)["devices"].get_array().value();
    std::size_t widest = 0;
    for (const simdjson::dom::element device : devices) {
        widest = std::max(widest, device["port"].get_string().value().size());
    }
    static Output out;
    out.text("ID\tVID: PID: REV\tPort\t");
    for (std::size_t i = 1; i < widest / 8; ++i) {
        out.text("\t");
    }
    out.text("Device name and status\n");
    for (const simdjson::dom::element element : devices) {
        Device device{};
        for (const auto& [key, value] : simdjson::dom::object(element)) {
            if (key == "id")
                device.id = value.get_uint64().value();
            else if (key == "vid")
                device.vid = value.get_uint64().value();
            else if (key == "pid")
                device.pid = value.get_uint64().value();
            else if (key == "rev")
                device.rev = value.get_uint64().value();
            else if (key == "built-in")
                device.builtIn = value.get_bool().value();
            else if (key == "port")
                device.port = value.get_string().value();
            else if (key == "name")
                device.name = value.get_string().value();
            else if (key == "state")
                device.state = value.get_string().value();
            else if (key == "serial")
                device.serial = value.get_string().value();
            else if (key == "addr")
                device.addr = value.get_string().value();
        }
        out.number(device.id);
        out.text("\t");
        out.hex4(device.vid);
        out.text(":");
        out.hex4(device.pid);
        out.text(":");
        out.hex4(device.rev);
        out.text("\t");
        out.text(device.port);
        out.text("\t");
        for (std::size_t i = device.port.size() / 8; i < widest / 8; ++i) {
            out.text("\t");
        }
        out.text(device.name);
        out.text(device.builtIn ? " /built-in, " : " /");
        out.text(device.state);
        if (device.addr.data() != nullptr) {
            out.text("@");
            out.text(device.addr);
        }
        if (!device.serial.empty()) {
            out.text(", ");
            out.text(device.serial);
        }
        out.text("/\n");
    }
}
