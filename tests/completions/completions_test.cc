// What each shell offers behind a command line, with the demo daemon, without one, and with one that is
// silent.
#include <gtest/gtest.h>

#include <span>
#include <string>
#include <string_view>

#include "cli/cli_support.h"
#include "demo_session/demo_session.h"

namespace {

struct Row {
    std::string_view line;
    std::string_view offers;  ///< a line each, sorted; of bash without what it has cut off at a colon
};

// Need no daemon.
constexpr Row kWords[] = {
    {"rvusbpctl ", "conn\ndev\nmonitor\npref\nrule\n"},
    {"rvusbpctl -", "--help\n-h\n"},
    {"rvusbpctl m", "monitor\n"},
    {"rvusbpctl dev ", "block\nlist\nshare\nunplug\n"},
    {"rvusbpctl dev s", "share\n"},
    {"rvusbpctl conn ", "drop\nlist\n"},
    {"rvusbpctl rule ", "edit\nlist\nload\ntest\n"},
    {"rvusbpctl pref ", "add\nlist\nremove\n"},
    {"rvusbpctl conn drop -", "-p\n"},
    {"rvusbpctl rule list -", "-N\n"},
    {"rvusbpctl rule test -", "-f\n-h\n-r\n"},
    {"rvusbpctl rule load off", "office.rules\n"},
    {"rvusbpctl rule test -f off", "office.rules\n"},
    {"rvusbpctl pref add e001 ", "grab_on_plug\n"},
    {"rvusbpctl dev share 1 ", ""},
    {"rvusbpctl conn drop lab-pc ", ""},
    {"rvusbpctl rule test -r 1 ", ""},
    {"rvusbpctl pref remove e001 ", ""},
    {"rvusbpctl monitor ", ""},
    {"rvusbpctl dev list ", ""},
};

// The daemon's lists.
constexpr std::string_view kDevices = "1\n2\n3\n4\n5\n6\n";
constexpr std::string_view kHosts = "192.0.2.17\nlab-pc\n";
constexpr std::string_view kHardwareIds =
    "e000:0001:0100\ne001:0101:0110\ne002:0210:0003\ne003:0007:0200\ne004:1220:0101\ne005:0042:0100\n";
constexpr Row kLists[] = {
    {"rvusbpctl dev unplug ", kDevices},
    {"rvusbpctl dev share ", kDevices},
    {"rvusbpctl dev block ", kDevices},
    {"rvusbpctl dev block 3", "3\n"},
    {"rvusbpctl conn drop ", kHosts},
    {"rvusbpctl conn drop l", "lab-pc\n"},
    {"rvusbpctl conn drop -p ", "40022\n51204\n"},
    {"rvusbpctl conn drop -p 40022 ", kHosts},
    {"rvusbpctl rule test -h ", kHosts},
    {"rvusbpctl rule test -r ", kDevices},
    {"rvusbpctl rule test -h lab-pc ", kDevices},
    {"rvusbpctl rule test -f office.rules -r ", kDevices},
    {"rvusbpctl pref add ", kHardwareIds},
    {"rvusbpctl pref remove ", "e002:0210\n"},
};

// For a shell whose questions a daemon answers: with the real timeout a busy machine may be too late to ask.
constexpr std::string_view kPatiently = "PATH=" RV_PATIENT_DIR ":$PATH ";

std::string linesFor(std::span<const Row> rows, bool withOffers) {
    std::string text;
    for (const Row& row : rows) {
        text += "> " + std::string(row.line) + "\n";
        text += withOffers ? row.offers : "";
    }
    return text;
}

class Completions : public ::testing::TestWithParam<std::string_view> {
  protected:
    void SetUp() override { cli::writeFile("/tmp/office.rules", "share\n"); }

    void expectOffers(std::span<const Row> rows, bool withOffers = true, std::string_view setting = "") {
        std::string line(setting);
        line += GetParam();
        line += " " RV_ASK_DIR "/" + shell() + " " RV_COMPLETIONS_DIR;
        for (const Row& row : rows) {
            line += " " + demo_session::quoted(row.line);
        }
        cli::expectResult(run(demo_session::shell(line)), cli::kOk, linesFor(rows, withOffers), "");
    }

  private:
    static std::string shell() { return std::string(GetParam().substr(0, GetParam().find(' '))); }
};

TEST_P(Completions, OfferCommandsOptionsAndFiles) {
    expectOffers(kWords);
}

TEST_P(Completions, OfferWhatTheDaemonHas) {
    const demo_session::Daemon daemon;
    expectOffers(kLists, true, kPatiently);
}

TEST_P(Completions, OfferNothingOfADaemonThatIsNotThere) {
    expectOffers(kLists, false);
}

// Without a limit of their own they would wait until the test's ends.
TEST_P(Completions, DoNotWaitForADaemonThatIsSilent) {
    const fake::FakeDaemon daemon{fake::Script()};
    expectOffers({&kLists[0], 1}, false);
}

INSTANTIATE_TEST_SUITE_P(Shells, Completions, ::testing::Values("bash --norc", "fish --no-config", "zsh -f"),
                         [](const auto& instance) {
                             return std::string(instance.param.substr(0, instance.param.find(' ')));
                         });

TEST(BashCompletion, GoesOnBehindAColon) {
    const demo_session::Daemon daemon;
    cli::Process process(demo_session::terminalShell(std::string(kPatiently) +
                                                     "PS1='ask: ' exec bash --norc --noprofile -i 2>&1"));
    ASSERT_TRUE(process.waitForTerminal("ask: "));
    process.type(". " RV_COMPLETIONS_DIR
                 "/bash/rvusbpctl; bind 'set enable-bracketed-paste off'; echo is rea''dy\n");
    ASSERT_TRUE(process.waitForTerminal("is ready"));
    process.type(
        "rvusbpctl pref add e003:\t\x01"
        "echo \n");
    EXPECT_TRUE(process.waitForTerminal("\nrvusbpctl pref add e003:0007:0200"));
    process.type("exit\n");
    EXPECT_EQ(0, process.wait().status);
}

// A host may call itself what it likes; the shell must never run it.
TEST(BashCompletion, OffersNoWordsThatAShellWouldExpand) {
    const fake::FakeDaemon daemon{fake::Script().reply(
        cli::kConnections,
        R"json({"connections":[{"addr":"$(id)","port":1},{"addr":"lab-pc","port":2}]})json")};
    const cli::Command ask =
        demo_session::shell(std::string(kPatiently) + "bash --norc " RV_ASK_DIR "/bash " RV_COMPLETIONS_DIR
                                                      " 'rvusbpctl conn drop '");
    cli::expectResult(run(ask), cli::kOk, "> rvusbpctl conn drop \nlab-pc\n", "");
}

TEST(CheckerCompletion, OffersFilesInFish) {
    cli::writeFile("/tmp/office.rules", "share\n");
    const cli::Command ask =
        demo_session::shell("fish --no-config -c 'source " RV_COMPLETIONS_DIR
                            "/fish/rvusbprules-check.fish; complete -C \"rvusbprules-check off\"'");
    cli::expectResult(run(ask), cli::kOk, "office.rules\n", "");
}

}  // namespace
