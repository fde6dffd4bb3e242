#include "reports/connection_report.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "unit/reports/report_output.h"

namespace {

constexpr std::string_view kHeader = "Type\tIP/Name\t\tPort/PID\n";

std::string report(std::string_view json) {
    return printed(json, outputConnectionList);
}

std::string rows(std::string_view elements) {
    const std::string text = report("{\"connections\":[" + std::string(elements) + "]}");
    EXPECT_TRUE(text.starts_with(kHeader)) << text;
    return text.substr(kHeader.size());
}

TEST(ConnectionReport, AbsentOrOtherConnectionsPrintNothing) {
    for (const char* reply : {"{}", R"({"connections":null})", R"({"connections":{}})",
                              R"({"connections":1})", R"({"status":"ok"})"}) {
        EXPECT_EQ(report(reply), "") << reply;
    }
}

TEST(ConnectionReport, EmptyListPrintsTheHeaderAlone) {
    EXPECT_EQ(rows(""), "");
}

TEST(ConnectionReport, NetworkConnection) {
    EXPECT_EQ(rows(R"({"addr":"10.0.0.15","port":33000})"), "net\t10.0.0.15\t33000\n");
}

TEST(ConnectionReport, AddressOf7BytesGetsAnExtraTabAndOneOf8DoesNot) {
    EXPECT_EQ(rows(R"({"addr":"1234567","port":1},{"addr":"12345678","port":2},{"addr":"","port":3})"),
              "net\t1234567\t\t1\nnet\t12345678\t2\nnet\t\t\t3\n");
}

TEST(ConnectionReport, RemoteDesktopSessionShowsTheLastComponent) {
    EXPECT_EQ(rows(R"({"app":"/Applications/Desk.app","appPID":4294967295})"),
              "rdesk\tDesk.app\t4294967295\n");
}

TEST(ConnectionReport, PaddingMeasuresTheWholePath) {
    EXPECT_EQ(rows(R"({"app":"/a/b/c/D","appPID":1},{"app":"/a/b/cD","appPID":1},{"app":"Desk","appPID":2})"),
              "rdesk\tD\t1\nrdesk\tcD\t\t1\nrdesk\tDesk\t\t2\n");
}

TEST(ConnectionReport, ApplicationWithoutProcessIdIsANetworkRow) {
    EXPECT_EQ(rows(R"({"app":"/Apps/Desk","addr":"pc1","port":7})"), "net\tpc1\t\t7\n");
}

TEST(ConnectionReport, BothKindsAtOnceIsARemoteDesktopRow) {
    EXPECT_EQ(rows(R"({"app":"/Apps/Desk","appPID":9,"addr":"pc1","port":7})"), "rdesk\tDesk\t9\n");
}

TEST(ConnectionReport, PortReadsAsItsLow16Bits) {
    EXPECT_EQ(rows(R"({"addr":"12345678","port":65537},{"addr":"12345678","port":-1},)"
                   R"({"addr":"12345678","port":true},{"addr":"12345678","port":80.9})"),
              "net\t12345678\t1\nnet\t12345678\t65535\nnet\t12345678\t1\nnet\t12345678\t80\n");
}

TEST(ConnectionReport, MemberThatNobodyKnowsIsNoPort) {
    EXPECT_EQ(rows(R"({"addr":"pc1","weight":7},{"addr":"pc2","port":9,"weight":7})"), "net\tpc2\t\t9\n");
}

TEST(ConnectionReport, EmptyApplicationAndProcessIdZeroAreASession) {
    EXPECT_EQ(rows(R"({"app":"","appPID":0},{"app":"Desk","appPID":true})"),
              "rdesk\t\t\t0\nrdesk\tDesk\t\t1\n");
}

TEST(ConnectionReport, TextIsPrintedVerbatimUpToItsFirstNul) {
    EXPECT_EQ(rows(R"({"app":"/x/a\tb\u00e4\\c","appPID":1},{"addr":"a\u001bb\u00e4\\\t","port":2},)"
                   R"({"app":"/a/b\u0000/cdefgh","appPID":3},{"addr":"ab\u0000cdefgh","port":4})"),
              "rdesk\ta\tb\xc3\xa4\\c\t1\nnet\ta\x1b"
              "b\xc3\xa4\\\t\t\t2\n"
              "rdesk\tb\t\t3\nnet\tab\t\t4\n");
}

TEST(ConnectionReport, SessionOfAnotherTypeIsNoNetworkRowEither) {
    for (const char* session :
         {R"("app":null,"appPID":null)", R"("app":1,"appPID":1)", R"("app":"a","appPID":"1")"}) {
        EXPECT_EQ(rows("{" + std::string(session) + R"(,"addr":"pc1","port":1})"), "") << session;
    }
}

TEST(ConnectionReport, OtherElementsAreSkipped) {
    for (const char* element :
         {"7", "null", "[]", "\"x\"", "{}", R"({"addr":"pc1"})", R"({"port":1})", R"({"app":"a"})",
          R"({"appPID":1})", R"({"addr":1,"port":1})", R"({"addr":"pc1","port":"1"})",
          R"({"app":1,"appPID":1})", R"({"app":"a","appPID":"1"})", R"({"addr":null,"port":1})"}) {
        EXPECT_EQ(rows(std::string(element) + R"(,{"addr":"12345678","port":2})"), "net\t12345678\t2\n")
            << element;
    }
}

}  // namespace
