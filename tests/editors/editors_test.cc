// The syntax files load without a word of complaint and tell the parts of a rule apart.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "cli/cli_support.h"
#include "demo_session/demo_session.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

// ---- vim

struct VimRow {
    std::string_view rule;
    std::string_view groups;
};

constexpr VimRow kVimRows[] = {
    {"# \"share\"", "# \"share\"=Comment"},
    {"share", "share=Action"},
    {"block !rdesk class 0e # end", "block=Action !=Not rdesk=Clause class=Clause 0e=Numbers # end=Comment"},
    {"share host \"192.0.2.17,lab pc\" \\",
     "share=Action host=Clause \"192.0.2.17,lab pc\"=Text \\=Continuation"},
    {"  override-name \"Front \\\"desk\\\" # 2\"", "override-name=Clause \"Front \\\"desk\\\" # 2\"=Text"},
    {"block name contains to\\ ken quick",
     "block=Action name=Clause contains=Match to\\ ken=Text quick=Clause"},
    {"share hwid 046d:c31c port 1-3.1 takeaway",
     "share=Action hwid=Clause 046d:c31c=Numbers port=Clause 1-3.1=Text takeaway=Clause"},
    {"block serial host built-in", "block=Action serial=Clause host=Text built-in=Clause"},
    {"Share hwid 12345 nmae", "Share=Error hwid=Clause 12345=Error nmae=Error"},
    {"block name is \"!x\"", "block=Action name=Clause is=Match \"!x\"=Error"},
};

/// What vim makes of a file: the file type in the first line, then what each line consists of.
std::string askVim(const std::string& path) {
    const cli::Result result = run(demo_session::shell(
        "vim -es -u NONE -i NONE -N --cmd 'set runtimepath^=" RV_EDITORS_DIR
        "/vim' --cmd 'filetype plugin on' --cmd 'syntax on' --cmd 'let g:answer = \"/tmp/answer\"'"
        " -c 'source " RV_EDITORS_TEST_DIR "/groups.vim' -c 'quitall!' " +
        demo_session::quoted(path)));
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("", result.out + result.err);
    return cli::readFile("/tmp/answer");
}

TEST(VimSyntax, TellsThePartsOfARuleApart) {
    std::string rules;
    std::string expected = "rvusbprules\n";
    for (const VimRow& row : kVimRows) {
        rules.append(row.rule).append("\n");
        expected.append(row.groups).append("\n");
    }
    cli::writeFile("/tmp/office.rvusbprules", rules);
    EXPECT_EQ(expected, askVim("/tmp/office.rvusbprules"));
}

TEST(VimFileType, KnowsRuleSetsByNameAndByTheirFirstRule) {
    cli::writeFile("/tmp/tmp.XXXXXXa1B2c3", "\n");  // as rule edit calls it
    EXPECT_EQ("rvusbprules\n\n", askVim("/tmp/tmp.XXXXXXa1B2c3"));
    cli::writeFile("/tmp/office.rules", "# For the office.\n\nblock rdesk\n");
    EXPECT_EQ("rvusbprules\n", askVim("/tmp/office.rules").substr(0, 12));
}

TEST(VimFileType, LeavesOtherRulesAlone) {
    cli::writeFile("/tmp/60-usb.rules", "# sharing\nACTION==\"add\", SUBSYSTEM==\"usb\"\n");
    EXPECT_THAT(askVim("/tmp/60-usb.rules"), Not(HasSubstr("rvusbprules")));
}

// ---- nano

/// What appears on the terminal while nano shows a file of rules, with this syntax file.
std::string showInNano(const std::string& syntaxFile) {
    cli::writeFile("/tmp/nanorc", "include \"" + syntaxFile + "\"\n");
    cli::writeFile("/tmp/office.rvusbprules", "# note\nshare quick serial \"a # b\" hwid 046d:c31c\n");
    cli::Process process(demo_session::terminalShell("nano --rcfile /tmp/nanorc office.rvusbprules 2>&1"));
    EXPECT_TRUE(process.waitForTerminal("046d"));
    process.type("\x18");
    const cli::Result result = process.wait();
    EXPECT_EQ(0, result.status);
    return result.terminal;
}

TEST(NanoSyntax, LoadsAndColoursARule) {
    const std::string shown = showInNano(RV_EDITORS_DIR "/nano/rvusbprules.nanorc");
    EXPECT_THAT(shown, Not(HasSubstr("Mistakes in")));
    EXPECT_THAT(shown, Not(HasSubstr("Error in")));
    EXPECT_THAT(shown, HasSubstr("\x1b[34m# note"));
    EXPECT_THAT(shown, HasSubstr("\x1b[36mshare"));
    EXPECT_THAT(shown, HasSubstr("\x1b[32mquick"));
    EXPECT_THAT(shown, HasSubstr("\x1b[32mserial"));
    EXPECT_THAT(shown, HasSubstr("\x1b[33m\"a # b\""));
    EXPECT_THAT(shown, HasSubstr("\x1b[35m046d:c31c"));
}

// Otherwise the test above could not fail.
TEST(NanoSyntax, ComplaintsAreSeen) {
    cli::writeFile("/tmp/broken.nanorc", "syntax broken \"\\.rvusbprules$\"\ncolour green \"share\"\n");
    const std::string shown = showInNano("/tmp/broken.nanorc");
    EXPECT_THAT(shown, HasSubstr("Mistakes in"));
    EXPECT_THAT(shown, HasSubstr("Error in"));
}

}  // namespace
