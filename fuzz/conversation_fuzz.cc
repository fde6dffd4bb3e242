// Whole conversations: a command and whatever a daemon answers.
//
// Input: a byte that chooses the command, then lines; each is a frame, its first byte the code, the rest its
// body. The ends of the process and of the editor are played: exit comes back here, the editor leaves the
// file alone.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <boost/json/parse.hpp>
#include <csetjmp>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "fuzz/offline_client.h"
#include "fuzz/require.h"
#include "ipc/command.h"
#include "rules/editor_process.h"
#include "rules/rule_parser.h"

// What an end by longjmp leaves behind is no leak of the tool's: its process would be gone. Its mappings are
// undone here, since a process may have only so many, and the files that it leaves to the user.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
    return "detect_leaks=0";
}

namespace {

constexpr CommandKind kCommands[] = {
    CommandKind::kDevList,    CommandKind::kDevUnplug, CommandKind::kDevShare, CommandKind::kDevBlock,
    CommandKind::kConnList,   CommandKind::kConnDrop,  CommandKind::kRuleList, CommandKind::kRuleLoad,
    CommandKind::kRuleEdit,   CommandKind::kRuleTest,  CommandKind::kPrefList, CommandKind::kPrefAdd,
    CommandKind::kPrefRemove, CommandKind::kMonitor,
};

bool playing = false;
int exitStatus = -1;
std::jmp_buf whereExitEnds;
std::map<void*, std::size_t> mappings;  ///< those made while playing, with their sizes
std::vector<std::string> editFiles;

/// Each request is one whole frame; a rule set is committed only after the daemon has taken what was sent.
void requireRequests(bool mayCommit) {
    for (const std::string& request : takeSent()) {
        std::uint32_t header[2];
        require(request.size() >= sizeof header, "a request without its header");
        std::memcpy(header, request.data(), sizeof header);
        require(request.size() == sizeof header + header[1], "a request that is not whole");
        boost::system::error_code error;
        const auto body =
            header[1] == 0 ? JsonValue(JsonObject()) : boost::json::parse(request.substr(8), error);
        require(!error && body.is_object(), "a request that is no JSON");
        require(header[0] != kCmdEndRuleTransaction || mayCommit,
                "a commit of what the daemon has not taken");
    }
}

bool isOk(std::uint32_t code, std::string_view body) {
    boost::system::error_code error;
    const JsonValue reply = boost::json::parse({body.data(), body.size()}, error);
    const bool taken = code == kCmdLoadRules || code == kCmdInsertRule;
    return taken && !error && reply.is_object() && asText(stringMember(reply.get_object(), "status")) == "ok";
}

Invocation invocationOf(unsigned char choice) {
    Invocation words;
    words.kind = kCommands[choice % std::size(kCommands)];
    words.deviceId = choice;
    words.host = "192.0.2.1";
    words.port = choice;
    words.portGiven = choice >= 128;
    words.remoteDesktop = choice >= 128;
    words.noIndex = choice >= 128;
    words.hardwareId = "0a5c:4500";
    return words;
}

void play(const Invocation& words, std::string_view lines, SharedSlots& slots) {
    require(installCommand(offlineClient(), words, slots), "the command is not installed");
    if (const auto connected = offlineClient()->onConnected()) {
        (*connected)();
    }
    requireRequests(false);
    Receiver receiver;
    while (!lines.empty()) {
        const std::string_view line = lines.substr(0, lines.find('\n'));
        lines.remove_prefix(std::min(lines.size(), line.size() + 1));
        if (line.empty()) {
            continue;
        }
        const std::uint32_t code = static_cast<unsigned char>(line[0]) % 32U;
        const std::string_view body = line.substr(1);
        const bool accepted = receiver.receive(frameOf(code, body));
        requireRequests(isOk(code, body));
        if (!accepted) {
            return;  // the client has called onError, which ends the process
        }
    }
}

}  // namespace

extern "C" {

[[noreturn]] void __real_exit(int status);
[[noreturn]] void __wrap_exit(int status);
void* __real_mmap(void* address, std::size_t size, int protection, int flags, int fd, off_t offset);
void* __wrap_mmap(void* address, std::size_t size, int protection, int flags, int fd, off_t offset);
int __real_munmap(void* address, std::size_t size);
int __wrap_munmap(void* address, std::size_t size);
int __real_mkostemp(char* path, int flags);
int __wrap_mkostemp(char* path, int flags);
EditorRun __wrap__Z16runEditorProcessPKcS0_(const char* editor, const char* path);
int __wrap__Z10areYouSurePKc(const char* prompt);

void __wrap_exit(int status) {
    if (!playing) {
        __real_exit(status);
    }
    exitStatus = status;
    std::longjmp(whereExitEnds, 1);
}

void* __wrap_mmap(void* address, std::size_t size, int protection, int flags, int fd, off_t offset) {
    void* const mapping = __real_mmap(address, size, protection, flags, fd, offset);
    if (playing && mapping != MAP_FAILED) {
        mappings[mapping] = size;
    }
    return mapping;
}

int __wrap_munmap(void* address, std::size_t size) {
    mappings.erase(address);
    return __real_munmap(address, size);
}

int __wrap_mkostemp(char* path, int flags) {
    const int fd = __real_mkostemp(path, flags);
    if (fd != -1) {
        editFiles.emplace_back(path);
    }
    return fd;
}

EditorRun __wrap__Z16runEditorProcessPKcS0_(const char*, const char*) {
    return EditorRun::kDone;
}

int __wrap__Z10areYouSurePKc(const char*) {
    return 'n';
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static SharedSlots slots;
    if (size == 0) {
        return 0;
    }
    slots = SharedSlots();
    const Invocation words = invocationOf(data[0]);
    if (words.kind == CommandKind::kRuleLoad || (words.kind == CommandKind::kRuleTest && data[0] < 64)) {
        slots.ruleSet = rule_parser_run("share\nblock host \"a,b\" name is \"n\"\n");
    }
    exitStatus = 0;
    playing = true;
    if (setjmp(whereExitEnds) == 0) {
        play(words, {reinterpret_cast<const char*>(data) + 1, size - 1}, slots);
    }
    playing = false;
    for (const auto& [address, bytes] : mappings) {
        (void)__real_munmap(address, bytes);  // ours
    }
    mappings.clear();
    require(exitStatus == 0 || exitStatus == 2 || exitStatus == 5 || exitStatus == 80,
            "an unknown exit status");
    for (const std::string& file : editFiles) {
        (void)unlink(file.c_str());  // it may be gone already
    }
    editFiles.clear();
    (void)takeSent();
    return 0;
}

}  // extern "C"
