// Frames as they arrive: split, joined, too long, not what they should be.
#include <gtest/gtest.h>

#include <algorithm>

#include "cli/cli_support.h"

namespace cli {
namespace {

constexpr std::uint32_t kLargestBody = 104'857'600;
constexpr char kInvalidProtocol[] = "invalid protocol\n";
constexpr char kCannotParse[] = "cannot parse protocol";
constexpr char kWrongTopLevel[] = "cannot parse JSON, got wrong top-level object";
constexpr char kEmptyList[] = R"({"devices":[]})";
constexpr char kHeading[] = "ID\tVID: PID: REV\tPort\tDevice name and status\n";

struct Malformed {
    const char* name;
    std::string bytes;  ///< what the daemon sends in answer to the request
    const char* message;
};

void PrintTo(const Malformed& row, std::ostream* out) {
    *out << row.name;
}

Malformed body(const char* name, std::string_view text, const char* message = kCannotParse) {
    return {name, fake::frame(kDevices, text), message};
}

class FramingRefusal : public ::testing::TestWithParam<Malformed> {};

TEST_P(FramingRefusal, MessageAndStatus) {
    const Exchange exchange = converse(tool({"dev"}), Script().receive().send(GetParam().bytes));
    expectResult(exchange.tool, kIo, "", GetParam().message);
    expectRequests(exchange, {{kDevices, ""}});
}

// What came before in the same buffer has been handled already; nothing behind it is.
TEST_P(FramingRefusal, EarlierFramesAreDelivered) {
    const std::string event = fake::frame(kRulesChanged, "{}");
    const Exchange exchange =
        converse(tool({"monitor"}), Script().send(event + event + GetParam().bytes + event));
    EXPECT_EQ(kIo, exchange.tool.status);
    EXPECT_EQ(GetParam().message, exchange.tool.err);
    const std::string& out = exchange.tool.out;
    const std::string line = "rule list changed\n";
    const std::size_t first = out.find(line);
    ASSERT_NE(std::string::npos, first) << out;
    EXPECT_EQ(out.size() - line.size(), out.find(line, first + 1)) << out;
    expectRequests(exchange, {});
}

// The verdict does not depend on how the bytes arrive.
TEST_P(FramingRefusal, BytesArriveOneByOne) {
    Script script;
    script.receive();
    for (const char byte : GetParam().bytes.substr(0, 64)) {
        script.send(std::string(1, byte)).drain();
    }
    script.send(GetParam().bytes.substr(std::min<std::size_t>(64, GetParam().bytes.size())));
    expectResult(converse(tool({"dev"}), script).tool, kIo, "", GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    Frames, FramingRefusal,
    ::testing::Values(Malformed{"LengthZero", fake::header(kDevices, 0), kInvalidProtocol},
                      // Refused at once: no byte of the body is waited for.
                      Malformed{"LengthOneTooLarge", fake::header(kDevices, kLargestBody + 1),
                                kInvalidProtocol},
                      Malformed{"LengthLargest", fake::header(kDevices, 0xFFFFFFFF), kInvalidProtocol},
                      Malformed{"LengthNegative", fake::header(kDevices, 0x80000000), kInvalidProtocol},
                      Malformed{"LengthZeroOfAnotherCode", fake::header(99, 0), kInvalidProtocol},
                      body("Word", "devices"),                                   //
                      body("Blank", " "),                                        //
                      body("NulByte", std::string_view("\0", 1)),                //
                      body("OpenObject", "{"),                                   //
                      body("OpenString", R"({"devices)"),                        //
                      body("TrailingComma", R"({"devices":[],})"),               //
                      body("TrailingCommaInArray", R"({"devices":[1,]})"),       //
                      body("MissingColon", R"({"devices"[]})"),                  //
                      body("UnquotedKey", R"({devices:[]})"),                    //
                      body("SingleQuotes", R"({'devices':[]})"),                 //
                      body("Comment", R"({"devices":[]/**/})"),                  //
                      body("TrailingWord", R"({"devices":[]}x)"),                //
                      body("TrailingObject", R"({"devices":[]}{})"),             //
                      body("TrailingNul", std::string_view("{\"a\":1}\0", 8)),   //
                      body("LeadingZero", R"({"devices":01})"),                  //
                      body("NotANumber", R"({"devices":NaN})"),                  //
                      body("ControlCharacterInString", "{\"devices\":\"\n\"}"),  //
                      body("UnknownEscape", R"({"devices":"\x"})"),              //
                      body("InvalidUtf8", "{\"devices\":\"\xff\"}"),             //
                      body("InvalidUtf8InKey", "{\"\x80\":1}"),                  //
                      body("TruncatedUtf8", "{\"devices\":\"\xc3\"}"),           //
                      body("OverlongUtf8", "{\"devices\":\"\xc0\xaf\"}"),        //
                      body("SurrogateInUtf8", "{\"devices\":\"\xed\xa0\x80\"}"),
                      // A fragment is no text of its own; an array is one, of the wrong kind.
                      body("TopLevelString", R"("devices")"),  //
                      body("TopLevelNumber", "12"),            //
                      body("TopLevelTrue", "true"),            //
                      body("TopLevelNull", "null"),            //
                      body("TopLevelArray", "[]", kWrongTopLevel),
                      body("TopLevelArrayOfObjects", R"([{"devices":[]}])", kWrongTopLevel),
                      body("NestedTooDeep", nestedReply(513))),
    [](const auto& row) { return std::string(row.param.name); });

struct Accepted {
    const char* name;
    std::string body;
};

void PrintTo(const Accepted& row, std::ostream* out) {
    *out << row.name;
}

class FramingAcceptance : public ::testing::TestWithParam<Accepted> {};

TEST_P(FramingAcceptance, ReplyIsTaken) {
    const Exchange exchange = converse(tool({"dev"}), Script().reply(kDevices, GetParam().body));
    expectResult(exchange.tool, kOk, kHeading, "");
}

INSTANTIATE_TEST_SUITE_P(
    Bodies, FramingAcceptance,
    ::testing::Values(Accepted{"Compact", kEmptyList},
                      Accepted{"WhiteSpace", " \t\r\n{ \"devices\" :\n[ ] }\r\n "},
                      Accepted{"EscapedKey", R"({"\u0064evices":[]})"},
                      Accepted{"EscapedSurrogates", R"({"name":"\ud83d\ude00","devices":[]})"},
                      Accepted{"OtherMembers", R"({"a":null,"b":[true,1e3,-0.5,"\u0000"],"devices":[]})"},
                      Accepted{"NestedAsDeepAsAllowed", nestedReply(512)}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(Framing, RequestWithoutParametersIsEightBytes) {
    FakeDaemon daemon(Script().reply(kDevices, kEmptyList));
    Process process(tool({"dev"}));
    const Exchange exchange = finish(process, daemon);
    expectResult(exchange.tool, kOk, kHeading, "");
    ASSERT_EQ(1U, exchange.requests.size());
    EXPECT_EQ(0U, exchange.requests[0].code);
    EXPECT_EQ("", exchange.requests[0].body);  // and finish() has checked that nothing is left over
}

TEST(Framing, ReplySplitAtEveryByte) {
    const std::string reply = fake::frame(kDevices, kEmptyList);
    for (std::size_t at = 1; at < reply.size(); ++at) {
        SCOPED_TRACE(at);
        Script script;
        script.receive().send(reply.substr(0, at)).drain().send(reply.substr(at));
        expectResult(converse(tool({"dev"}), script).tool, kOk, kHeading, "");
    }
}

TEST(Framing, ReplyByteByByte) {
    Script script;
    script.receive();
    for (const char byte : fake::frame(kDevices, kEmptyList)) {
        script.send(std::string(1, byte)).drain();
    }
    expectResult(converse(tool({"dev"}), script).tool, kOk, kHeading, "");
}

TEST(Framing, ReplyBeforeTheRequestIsTaken) {
    const Exchange exchange = converse(tool({"dev"}), Script().sendFrame(kDevices, kEmptyList));
    expectResult(exchange.tool, kOk, kHeading, "");
}

TEST(Framing, SeveralFramesInOneWrite) {
    const std::string other = fake::frame(kRulesChanged, "{}") + fake::frame(99, R"({"status":"auth"})");
    const Exchange exchange =
        converse(tool({"dev"}), Script().receive().send(other + fake::frame(kDevices, kEmptyList) + other));
    expectResult(exchange.tool, kOk, kHeading, "");
}

TEST(Framing, TwoFramesAndABitOfTheThird) {
    const std::string event = fake::frame(kConnectionEvent, R"({"state":"up","addr":"h","port":1})");
    Script script;
    script.send(event + event + event.substr(0, 5)).drain().hold().send(event.substr(5)).drain().hold();
    FakeDaemon daemon(script);
    Process process(tool({"monitor"}));
    EXPECT_TRUE(process.waitForOut("host h:1 is up\n", 2));
    ASSERT_TRUE(daemon.waitForHold(1));
    daemon.release();
    EXPECT_TRUE(process.waitForOut("host h:1 is up\n", 3));
    ASSERT_TRUE(daemon.waitForHold(2));
    daemon.finish();
    EXPECT_EQ(kTerminated, process.wait().err);
}

TEST(Framing, LongestBodyIsWaitedForUntilTheConnectionEnds) {
    Script script;
    script.receive().send(fake::header(kDevices, kLargestBody) + "{").drain().hold().close();
    FakeDaemon daemon(script);
    Process process(tool({"dev"}));
    ASSERT_TRUE(daemon.waitForHold(1));
    EXPECT_TRUE(process.isRunning());
    daemon.release();
    expectResult(finish(process, daemon).tool, kIo, "", kTerminated);
}

TEST(Framing, LongestBodyIsTaken) {
    std::string text = R"({"devices":[],"filler":")";
    text.resize(kLargestBody - 2, 'x');
    text += "\"}";
    const Exchange exchange = converse(tool({"dev"}), Script().reply(kDevices, text));
    expectResult(exchange.tool, kOk, kHeading, "");
}

// Of two members with one name the last one counts.
TEST(Framing, LastOfTwoMembersWithOneNameCounts) {
    const Exchange exchange = converse(tool({"conn", "drop", "h"}),
                                       Script().reply(kDrop, R"({"status":"notfound","status":"ok"})"));
    expectResult(exchange.tool, kOk, "", "");
}

}  // namespace
}  // namespace cli
