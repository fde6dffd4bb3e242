#include "demo/rule_evaluation.h"

#include <gtest/gtest.h>

#include "unit/demo/demo_support.h"

namespace demo {
namespace {

constexpr Asker kLab{Asker::Kind::kHost, "lab-pc"};
constexpr Asker kRdesk{Asker::Kind::kRemoteDesktop};
constexpr Asker kAnybody{Asker::Kind::kAnybody};

/// A single sharing rule with the clauses given matches the printer for an asker, or does not.
struct ClauseRow {
    const char* name;
    const char* clauses;
    Asker asker;
    bool matches;
};

class RuleClause : public testing::TestWithParam<ClauseRow> {};

TEST_P(RuleClause, Matches) {
    const std::string rules = R"([{"action":"share")" + std::string(GetParam().clauses) + "}]";
    EXPECT_EQ(evaluateRules(array(rules), printer(), GetParam().asker).share, GetParam().matches) << rules;
}

constexpr ClauseRow kClauses[] = {
    {"NoClause", "", kLab, true},
    {"Host", R"(,"host":["desk","lab-pc"])", kLab, true},
    {"HostInAnotherCase", R"(,"host":["LAB-PC"])", kLab, true},
    {"OtherHost", R"(,"host":["lab-pc2","lab"])", kLab, false},
    {"HostThatIsNoText", R"(,"host":[1])", kLab, false},
    {"NoHostAtAll", R"(,"host":[])", kLab, false},
    {"NotHost", R"(,"host":["lab-pc"],"notHost":true)", kLab, false},
    {"NotOtherHost", R"(,"host":["desk"],"notHost":true)", kLab, true},
    {"NotHostFalse", R"(,"host":["lab-pc"],"notHost":false)", kLab, true},
    {"HostForRemoteDesktop", R"(,"host":["lab-pc"])", kRdesk, false},
    {"NotHostForRemoteDesktop", R"(,"host":["desk"],"notHost":true)", kRdesk, false},
    {"HostOfAnotherTypeIsAbsent", R"(,"host":"desk")", kLab, true},
    {"RdeskForRemoteDesktop", R"(,"rdesk":true)", kRdesk, true},
    {"RdeskForHost", R"(,"rdesk":true)", kLab, false},
    {"NotRdeskForRemoteDesktop", R"(,"rdesk":false)", kRdesk, false},
    {"NotRdeskForHost", R"(,"rdesk":false)", kLab, true},
    {"NameIs", R"(,"name":"Front desk printer","nameMatch":"is")", kLab, true},
    {"NameIsOnlyAPart", R"(,"name":"printer","nameMatch":"is")", kLab, false},
    {"NameContains", R"(,"name":"desk","nameMatch":"contains")", kLab, true},
    {"NameContainsNot", R"(,"name":"Desk","nameMatch":"contains")", kLab, false},
    {"NotName", R"(,"name":"desk","nameMatch":"contains","notName":true)", kLab, false},
    {"NameWithoutMatchIsAbsent", R"(,"name":"other")", kLab, true},
    {"NameWithUnknownMatchIsAbsent", R"(,"name":"other","nameMatch":"like")", kLab, true},
    {"BuiltIn", R"(,"built-in":true)", kLab, true},
    {"NotBuiltIn", R"(,"built-in":false)", kLab, false},
    {"Vendor", R"(,"vid":57348)", kLab, true},
    {"OtherVendor", R"(,"vid":57349)", kLab, false},
    {"Product", R"(,"vid":57348,"pid":4640)", kLab, true},
    {"OtherProduct", R"(,"vid":57348,"pid":4641)", kLab, false},
    {"Revision", R"(,"vid":57348,"pid":4640,"rev":257)", kLab, true},
    {"OtherRevision", R"(,"vid":57348,"pid":4640,"rev":256)", kLab, false},
    {"ProductWithoutVendorIsAbsent", R"(,"pid":1)", kLab, true},
    {"RevisionWithoutProductIsAbsent", R"(,"vid":57348,"rev":1)", kLab, true},
    {"NotHardwareId", R"(,"vid":57348,"notHWID":true)", kLab, false},
    {"NotOtherHardwareId", R"(,"vid":57348,"pid":1,"notHWID":true)", kLab, true},
    {"Serial", R"(,"serial":"P-2043")", kLab, true},
    {"OtherSerial", R"(,"serial":"P-204")", kLab, false},
    {"NotSerial", R"(,"serial":"P-2043","notSerial":true)", kLab, false},
    {"Port", R"(,"port":"2-1")", kLab, true},
    {"OtherPort", R"(,"port":"2-1.1")", kLab, false},
    {"NotPort", R"(,"port":"2-1.1","notPort":true)", kLab, true},
    {"Class", R"(,"class":7)", kLab, true},
    {"Subclass", R"(,"class":7,"subclass":1)", kLab, true},
    {"Protocol", R"(,"class":7,"subclass":1,"protocol":2)", kLab, true},
    {"OtherProtocol", R"(,"class":7,"subclass":1,"protocol":1)", kLab, false},
    {"OtherClass", R"(,"class":8)", kLab, false},
    {"NotClass", R"(,"class":8,"notClass":true)", kLab, true},
    {"AllClausesMustMatch", R"(,"class":7,"port":"9")", kLab, false},
    {"OverridesAreNoClauses", R"(,"override-name":"x","override-serial":"y","takeaway":true)", kLab, true},
};

INSTANTIATE_TEST_SUITE_P(Table, RuleClause, testing::ValuesIn(kClauses),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(RuleEvaluation, NoRuleMeansBlock) {
    const Verdict verdict = evaluateRules(array("[]"), printer(), kLab);
    EXPECT_FALSE(verdict.share);
    EXPECT_EQ(verdict.rule, nullptr);
}

TEST(RuleEvaluation, ALaterRuleWins) {
    const JsonArray rules = array(R"([{"action":"share"},{"action":"block"},{"action":"share","port":"9"}])");
    const Verdict verdict = evaluateRules(rules, printer(), kLab);
    EXPECT_FALSE(verdict.share);
    EXPECT_EQ(verdict.rule, &rules.at(1).get_object());
}

TEST(RuleEvaluation, AMatchingQuickRuleEndsTheSearch) {
    const JsonArray rules = array(R"([{"action":"share","quick":true},{"action":"block"}])");
    EXPECT_TRUE(evaluateRules(rules, printer(), kLab).share);
}

TEST(RuleEvaluation, AQuickRuleThatDoesNotMatchEndsNothing) {
    const JsonArray rules = array(R"([{"action":"share","quick":true,"port":"9"},{"action":"block"}])");
    EXPECT_FALSE(evaluateRules(rules, printer(), kLab).share);
}

TEST(RuleEvaluation, QuickFalseEndsNothing) {
    const JsonArray rules = array(R"([{"action":"share","quick":false},{"action":"block"}])");
    EXPECT_FALSE(evaluateRules(rules, printer(), kLab).share);
}

TEST(RuleEvaluation, WhatIsNoRuleIsSkipped) {
    const JsonArray rules = array(R"([{"action":"share"},7,null,{"port":"2-1"},{"action":"deny"}])");
    EXPECT_TRUE(evaluateRules(rules, printer(), kLab).share);
}

TEST(RuleEvaluation, ForAnybodyALimitedShareCounts) {
    EXPECT_TRUE(evaluateRules(array(R"([{"action":"share","host":["x"]}])"), printer(), kAnybody).share);
    EXPECT_TRUE(evaluateRules(array(R"([{"action":"share","rdesk":true}])"), printer(), kAnybody).share);
}

TEST(RuleEvaluation, ForAnybodyALimitedBlockDoesNotCount) {
    const JsonArray rules =
        array(R"([{"action":"share"},{"action":"block","host":["x"]},{"action":"block","rdesk":false}])");
    EXPECT_TRUE(evaluateRules(rules, printer(), kAnybody).share);
}

TEST(ExactRule, MatchesItsDeviceAlone) {
    const JsonArray rules = withExactRule(array("[]"), printer(), "share");
    EXPECT_TRUE(evaluateRules(rules, printer(), kLab).share);
    Device twin = printer();
    twin.port = "2-2";
    EXPECT_FALSE(evaluateRules(rules, twin, kLab).share);
    EXPECT_FALSE(evaluateRules(rules, keyboard(), kLab).share);
}

TEST(ExactRule, NamesHardwareIdSerialAndPort) {
    EXPECT_EQ(makeExactRule(printer(), "block"),
              object(R"({"action":"block","quick":true,"vid":57348,"pid":4640,"rev":257,
                         "serial":"P-2043","port":"2-1"})"));
}

TEST(ExactRule, LeavesOutASerialThatTheDeviceDoesNotHave) {
    EXPECT_FALSE(makeExactRule(keyboard(), "block").contains("serial"));
}

TEST(ExactRule, DecidesWhateverOtherRulesSay) {
    const JsonArray others = array(R"([{"action":"block","quick":true},{"action":"block"}])");
    EXPECT_TRUE(evaluateRules(withExactRule(others, printer(), "share"), printer(), kLab).share);
}

TEST(ExactRule, ReplacesTheOneBeforeIt) {
    const JsonArray others = array(R"([{"action":"share"},7])");
    const JsonArray first = withExactRule(others, printer(), "share");
    EXPECT_EQ(first.size(), 3U);
    const JsonArray second = withExactRule(first, printer(), "block");
    ASSERT_EQ(second.size(), 3U);
    EXPECT_EQ(second.at(0), JsonValue(makeExactRule(printer(), "block")));
    EXPECT_EQ(second.at(1), others.at(0));
    EXPECT_EQ(second.at(2), others.at(1));
}

}  // namespace
}  // namespace demo
