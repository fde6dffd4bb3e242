#include "rules/rule_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio_ext.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>

#include "captured_stderr.h"
#include "rule_text.h"

// The program runs with a /tmp of its own: rules2file has that path built in.

namespace {

namespace fs = std::filesystem;

constexpr char kPlace[] = "/tmp/rule-file-test";

class RuleFile : public testing::Test {
  protected:
    void SetUp() override { fs::create_directory(kPlace); }
    void TearDown() override { fs::remove_all(kPlace); }

    static std::string in(const std::string& name) { return std::string(kPlace) + "/" + name; }

    static std::string write(const std::string& name, const std::string& content) {
        std::ofstream(in(name), std::ios::binary) << content;
        return in(name);
    }

    static std::string read(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    /// How many files of rules2file there are.
    static std::size_t copies() {
        std::size_t count = 0;
        for (const auto& entry : fs::directory_iterator("/tmp")) {
            // not a directory: a source tree may lie in one of such a name
            count += entry.is_regular_file() && entry.path().filename().string().starts_with("tmp.") ? 1 : 0;
        }
        return count;
    }
};

using LoadAnyFile = RuleFile;
using LoadRuleFile = RuleFile;
using Rules2File = RuleFile;

/// Content of every length around the sizes of chunks and buffers, with every byte in it.
std::string sample(std::size_t size) {
    std::string content(size, '\0');
    for (std::size_t at = 0; at < size; ++at) {
        content[at] = static_cast<char>(at * 7 + at / 251);
    }
    return content;
}

constexpr std::size_t kSizes[] = {0, 1, 1023, 1024, 1025, 4095, 4096, 4097, 65536, 1000003};

TEST_F(LoadAnyFile, GivesTheWholeFile) {
    for (const std::size_t size : kSizes) {
        const std::string path = write("content", sample(size));
        EXPECT_EQ(load_any_file(path.c_str(), "rules"), sample(size)) << size;
    }
}

TEST_F(LoadAnyFile, ReadsAPipeToItsEnd) {
    for (const std::size_t size : kSizes) {
        ASSERT_EQ(::mkfifo(in("pipe").c_str(), 0600), 0);
        std::thread writer([size] { std::ofstream(in("pipe"), std::ios::binary) << sample(size); });
        EXPECT_EQ(load_any_file(in("pipe").c_str(), "rules"), sample(size)) << size;
        writer.join();
        fs::remove(in("pipe"));
    }
}

TEST_F(LoadAnyFile, ReadsFilesThatDoNotTellTheirSize) {
    const auto content = load_any_file("/proc/self/status", "rules");
    ASSERT_TRUE(content);
    EXPECT_EQ(content->substr(0, 5), "Name:");
    EXPECT_EQ(load_any_file("/dev/null", "rules"), "");
}

TEST_F(LoadAnyFile, LeavesNoDescriptorOpen) {
    const std::string path = write("content", "share\n");
    const int before = ::open("/dev/null", O_RDONLY);
    (void)::close(before);
    CapturedStderr messages;
    EXPECT_TRUE(load_any_file(path.c_str(), "rules"));
    EXPECT_FALSE(load_any_file("/tmp", "rules"));
    const int after = ::open("/dev/null", O_RDONLY);
    (void)::close(after);
    EXPECT_EQ(after, before + 2);  // CapturedStderr holds two
}

/// No standard input while this lives: the next file opened takes its number.
class NoStdin {
  public:
    NoStdin() : saved_(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)) { (void)::close(STDIN_FILENO); }
    ~NoStdin() {
        (void)::dup2(saved_, STDIN_FILENO);
        (void)::close(saved_);
    }
    NoStdin(const NoStdin&) = delete;
    NoStdin& operator=(const NoStdin&) = delete;

  private:
    int saved_;
};

TEST_F(LoadAnyFile, DescriptorZeroIsADescriptor) {
    const std::string path = write("content", "share\n");
    std::optional<std::string> content;
    int after = -1;
    {
        const NoStdin none;
        errno = EINTR;  // of an earlier call; opening has not failed
        content = load_any_file(path.c_str(), "rules");
        after = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        (void)::close(after);
    }
    EXPECT_EQ(content, "share\n");
    EXPECT_EQ(after, 0) << "it has been closed again, and no other has been opened";
}

TEST_F(LoadAnyFile, EndIsNoInterruption) {
    const std::string path = write("content", "");
    errno = EINTR;  // of an earlier call
    EXPECT_EQ(load_any_file(path.c_str(), "rules"), "");
}

TEST_F(LoadAnyFile, FailuresNameThePath) {
    CapturedStderr messages;
    EXPECT_FALSE(load_any_file("/tmp/rule-file-test/missing", "rules"));
    EXPECT_EQ(messages.take(), "Error loading rules from /tmp/rule-file-test/missing.\n");
    EXPECT_FALSE(load_any_file("/tmp", "rules"));
    EXPECT_EQ(messages.take(), "Error loading rules from /tmp.\n");
    EXPECT_FALSE(load_any_file("", "other things"));
    EXPECT_EQ(messages.take(), "Error loading other things from .\n");
    ASSERT_EQ(::symlink("loop", in("loop").c_str()), 0);
    EXPECT_FALSE(load_any_file("/tmp/rule-file-test/loop", "rules"));
    EXPECT_EQ(messages.take(), "Error loading rules from /tmp/rule-file-test/loop.\n");
    EXPECT_FALSE(load_any_file("/tmp/%s%n", "%d"));
    EXPECT_EQ(messages.take(), "Error loading %d from /tmp/%s%n.\n");
    const std::string longPath(5000, 'p');
    EXPECT_FALSE(load_any_file(longPath.c_str(), "rules"));
    EXPECT_EQ(messages.take(), "Error loading rules from " + longPath + ".\n");
}

/// Standard input is another file while this lives; the stream starts afresh.
class Stdin {
  public:
    explicit Stdin(const std::string& path) : Stdin(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
    /// Takes the descriptor over.
    explicit Stdin(int fd) : saved_(::dup(STDIN_FILENO)) {
        EXPECT_EQ(::dup2(fd, STDIN_FILENO), STDIN_FILENO);
        (void)::close(fd);
        ::__fpurge(stdin);
        std::clearerr(stdin);
    }
    ~Stdin() {
        (void)::dup2(saved_, STDIN_FILENO);
        (void)::close(saved_);
        ::__fpurge(stdin);
        std::clearerr(stdin);
    }
    Stdin(const Stdin&) = delete;
    Stdin& operator=(const Stdin&) = delete;

  private:
    int saved_;
};

TEST_F(LoadAnyFile, ReadsStandardInputToItsEnd) {
    for (const std::size_t size : kSizes) {
        const Stdin input(write("input", sample(size)));
        EXPECT_EQ(load_any_file(nullptr, "rules"), sample(size)) << size;
        EXPECT_EQ(load_any_file(nullptr, "rules"), "") << "the end stays the end";
    }
}

TEST_F(LoadAnyFile, StandardInputThatCannotBeRead) {
    const Stdin input("/tmp");
    CapturedStderr messages;
    EXPECT_FALSE(load_any_file(nullptr, "rules"));
    EXPECT_EQ(messages.take(), "Error loading rules from stdin.\n");
}

void ignoreSignal(int) {}

/// SIGUSR1 interrupts what the thread waits for: its handler is without SA_RESTART.
void letSignalsInterrupt() {
    struct sigaction action = {};
    action.sa_handler = ignoreSignal;
    ASSERT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);
}

/// Whether the thread waits in the system call `number`; true as well where the system does not tell.
bool waitsIn(pid_t thread, long number) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/syscall");
    long call = -1;
    return !file || ((file >> call) && call == number);
}

TEST_F(LoadAnyFile, SignalsDoNotCutStandardInputShort) {
    ASSERT_NO_FATAL_FAILURE(letSignalsInterrupt());
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const pthread_t reader = ::pthread_self();
    std::thread writer([reader, readerId = ::gettid(), pipe = ends[1]] {
        for (int piece = 0; piece < 200; ++piece) {
            while (!waitsIn(readerId, SYS_read)) {
                std::this_thread::yield();
            }
            (void)::pthread_kill(reader, SIGUSR1);
            EXPECT_EQ(::write(pipe, "0123456789", 10), 10);
        }
        (void)::close(pipe);
    });
    std::optional<std::string> content;
    {
        const Stdin input(ends[0]);
        content = load_any_file(nullptr, "rules");
    }
    writer.join();
    ASSERT_TRUE(content);
    EXPECT_EQ(content->size(), 2000U);
}

TEST_F(LoadAnyFile, SignalsDoNotCutAPipeShort) {
    ASSERT_NO_FATAL_FAILURE(letSignalsInterrupt());
    ASSERT_EQ(::mkfifo(in("pipe").c_str(), 0600), 0);
    const pthread_t reader = ::pthread_self();
    const pid_t readerId = ::gettid();
    const auto interruptIn = [reader, readerId](long call) {
        for (int times = 0; times < 20; ++times) {
            while (!waitsIn(readerId, call)) {
                std::this_thread::yield();
            }
            (void)::pthread_kill(reader, SIGUSR1);
        }
    };
    std::thread writer([&interruptIn] {
        interruptIn(SYS_openat);
        const int pipe = ::open(in("pipe").c_str(), O_WRONLY | O_CLOEXEC);
        for (int piece = 0; piece < 10; ++piece) {
            interruptIn(SYS_read);
            EXPECT_EQ(::write(pipe, "0123456789", 10), 10);
        }
        (void)::close(pipe);
    });
    const auto content = load_any_file(in("pipe").c_str(), "rules");
    writer.join();
    ASSERT_TRUE(content);
    EXPECT_EQ(content->size(), 100U);
}

TEST_F(LoadRuleFile, GivesTheRecords) {
    const RuleSet rules = load_rule_file(write("rules", "share # x\nblock quick\n").c_str());
    ASSERT_NE(rules, nullptr);
    EXPECT_EQ(*rules, R"([{"action":"share"},{"action":"block","quick":true}])");
}

TEST_F(LoadRuleFile, EmptyFileIsAnEmptySet) {
    const RuleSet rules = load_rule_file(write("rules", "").c_str());
    ASSERT_NE(rules, nullptr);
    EXPECT_EQ(*rules, "[]");
}

TEST_F(LoadRuleFile, LinksAreFollowed) {
    (void)write("rules", "block\n");
    ASSERT_EQ(::symlink("rules", in("link").c_str()), 0);
    const RuleSet rules = load_rule_file(in("link").c_str());
    ASSERT_NE(rules, nullptr);
    EXPECT_EQ(*rules, R"([{"action":"block"}])");
}

TEST_F(LoadRuleFile, EveryByteCounts) {
    CapturedStderr messages;
    EXPECT_EQ(load_rule_file(write("rules", bytes("share\0bad\n")).c_str()), nullptr);
    EXPECT_EQ(messages.take(), "Parsing error at rule #2\n") << "a NUL is no end";
    EXPECT_EQ(load_rule_file(write("rules", "\xef\xbb\xbfshare\n").c_str()), nullptr);
    EXPECT_EQ(messages.take(), "Parsing error at rule #1\n") << "a byte order mark is no space";
}

TEST_F(LoadRuleFile, OneMessagePerFailure) {
    CapturedStderr messages;
    EXPECT_EQ(load_rule_file(write("rules", "share\nbad\n").c_str()), nullptr);
    EXPECT_EQ(messages.take(), "Parsing error at rule #2\n");
    EXPECT_EQ(load_rule_file("/tmp/missing"), nullptr);
    EXPECT_EQ(messages.take(), "Error loading rules from /tmp/missing.\n");
}

TEST_F(LoadRuleFile, ReadsStandardInput) {
    const Stdin input(write("input", "share\n"));
    const RuleSet rules = load_rule_file(nullptr);
    ASSERT_NE(rules, nullptr);
    EXPECT_EQ(*rules, R"([{"action":"share"}])");
}

JsonObject reply(const char* json) {
    return boost::json::parse(json).as_object();
}

TEST_F(Rules2File, WritesTheRulesWithoutNumbers) {
    testing::internal::CaptureStdout();
    const auto path =
        rules2file(reply(R"({"rules":[{"action":"share"},1,{"action":"block","quick":true}]})"));
    const std::string said = testing::internal::GetCapturedStdout();
    ASSERT_TRUE(path);
    EXPECT_EQ(said, "In case of error the copy of rules is put into \"" + *path + "\".\n");
    EXPECT_EQ(read(*path), "share\nblock quick\n");
    fs::remove(*path);
}

TEST_F(Rules2File, DescriptorZeroIsADescriptor) {
    testing::internal::CaptureStdout();
    std::optional<std::string> path;
    {
        const NoStdin none;
        path = rules2file(reply(R"({"rules":[{"action":"share"}]})"));
    }
    (void)testing::internal::GetCapturedStdout();
    ASSERT_TRUE(path);
    EXPECT_EQ(read(*path), "share\n");
    fs::remove(*path);
}

/// Standard output is a file while this lives, and what is written waits in the stream's buffer.
class StdoutFile {
  public:
    explicit StdoutFile(const std::string& path) : saved_(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)) {
        (void)std::fflush(stdout);
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        EXPECT_EQ(::dup2(fd, STDOUT_FILENO), STDOUT_FILENO);
        (void)::close(fd);
    }
    ~StdoutFile() {
        ::__fpurge(stdout);
        (void)::dup2(saved_, STDOUT_FILENO);
        (void)::close(saved_);
    }
    StdoutFile(const StdoutFile&) = delete;
    StdoutFile& operator=(const StdoutFile&) = delete;

  private:
    int saved_;
};

TEST_F(Rules2File, NoteLeavesAtOnce) {
    std::optional<std::string> path;
    std::string shown;
    {
        const StdoutFile output(in("output"));
        path = rules2file(reply(R"({"rules":[]})"));
        shown = read(in("output"));
    }
    ASSERT_TRUE(path);
    EXPECT_EQ(shown, "In case of error the copy of rules is put into \"" + *path + "\".\n");
    fs::remove(*path);
}

TEST_F(Rules2File, FileIsNewAndTheOwnersAlone) {
    testing::internal::CaptureStdout();
    const auto first = rules2file(reply(R"({"rules":[]})"));
    const auto second = rules2file(reply(R"({"rules":[]})"));
    (void)testing::internal::GetCapturedStdout();
    ASSERT_TRUE(first && second);
    EXPECT_NE(*first, *second);
    EXPECT_EQ(first->size(), std::string("/tmp/tmp.XXXXXXXXXXXX").size());
    EXPECT_EQ(first->substr(0, 9), "/tmp/tmp.");
    struct stat status;
    ASSERT_EQ(::stat(first->c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_EQ(status.st_size, 0);
    fs::remove(*first);
    fs::remove(*second);
}

TEST_F(Rules2File, RefusedReplyLeavesNoFile) {
    testing::internal::CaptureStdout();
    CapturedStderr messages;
    EXPECT_FALSE(rules2file(reply(R"({"status":"auth"})")));
    EXPECT_EQ(messages.take(), "Internal error.\nCannot create reopen file.\n");
    EXPECT_FALSE(rules2file(reply(R"({})")));
    EXPECT_EQ(messages.take(), "Rule list format error.\nCannot create reopen file.\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(copies(), 0U);
}

/// A limit on the size of files stands for a full disk. SIGXFSZ is ignored, so writing fails with EFBIG.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes) {
        (void)std::signal(SIGXFSZ, SIG_IGN);
        EXPECT_EQ(::getrlimit(RLIMIT_FSIZE, &saved_), 0);
        struct rlimit limit = saved_;
        limit.rlim_cur = bytes;
        EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    ~FileSizeLimit() { (void)::setrlimit(RLIMIT_FSIZE, &saved_); }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

  private:
    struct rlimit saved_;
};

TEST_F(Rules2File, FileThatCannotBeWrittenWholeIsNone) {
    JsonObject list;
    JsonArray& rules = list["rules"].emplace_array();
    for (int rule = 0; rule < 20000; ++rule) {
        rules.emplace_back(JsonObject{{"action", "share"}});
    }
    constexpr rlim_t kNeeded = 20000 * 6;
    for (const rlim_t limit : {rlim_t{200}, rlim_t{100000}, kNeeded - 1, kNeeded}) {
        testing::internal::CaptureStdout();
        CapturedStderr messages;
        std::optional<std::string> path;
        {
            const FileSizeLimit disk(limit);
            path = rules2file(list);
        }
        const std::string said = testing::internal::GetCapturedStdout();
        if (limit == kNeeded) {
            ASSERT_TRUE(path);
            EXPECT_EQ(read(*path).size(), kNeeded);
            fs::remove(*path);
        } else {
            EXPECT_FALSE(path) << limit;
            EXPECT_EQ(messages.take(), "Cannot create reopen file.\n") << limit;
            EXPECT_EQ(said, "") << limit;
            EXPECT_EQ(copies(), 0U) << limit;
        }
    }
}

TEST_F(Rules2File, DirectoryThatTakesNoFile) {
    struct rlimit saved;
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    CapturedStderr messages;
    struct rlimit none = saved;
    none.rlim_cur = 0;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const auto path = rules2file(reply(R"({"rules":[]})"));
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);
    EXPECT_FALSE(path);
    EXPECT_EQ(messages.take(), "Cannot create temporary file.\n");
    EXPECT_EQ(copies(), 0U);
}

}  // namespace
