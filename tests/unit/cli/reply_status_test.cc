#include "cli/reply_status.h"

#include <gtest/gtest.h>

namespace {

TEST(ReplyStatus, StrictAndLooseReading) {
    const struct {
        JsonObject reply;
        ReplyStatus strict;
        ReplyStatus loose;
    } rows[] = {
        {{{"status", "ok"}}, ReplyStatus::kOk, ReplyStatus::kOk},
        {{{"status", "notfound"}}, ReplyStatus::kNotFound, ReplyStatus::kNotFound},
        {{{"status", "auth"}}, ReplyStatus::kAuth, ReplyStatus::kAuth},
        {{{"status", "Ok"}}, ReplyStatus::kOther, ReplyStatus::kOther},
        {{{"status", "ok "}}, ReplyStatus::kOther, ReplyStatus::kOther},
        {{{"status", ""}}, ReplyStatus::kOther, ReplyStatus::kOther},
        {{{"status", boost::json::string_view("ok\0", 3)}}, ReplyStatus::kOther, ReplyStatus::kOther},
        {{{"status", "NotFound"}}, ReplyStatus::kOther, ReplyStatus::kOther},
        {{{"status", "NOTFOUND"}}, ReplyStatus::kOther, ReplyStatus::kOther},
        {{{"status", "not found"}}, ReplyStatus::kOther, ReplyStatus::kOther},
        {{{"status", "notfound."}}, ReplyStatus::kOther, ReplyStatus::kOther},
        {{{"status", boost::json::string_view("notfound\0", 9)}}, ReplyStatus::kOther, ReplyStatus::kOther},
        {{{"status", "Auth"}}, ReplyStatus::kOther, ReplyStatus::kOther},
        {{{"status", "AUTH"}}, ReplyStatus::kOther, ReplyStatus::kOther},
        {{{"status", "authorized"}}, ReplyStatus::kOther, ReplyStatus::kOther},
        {{{"status", boost::json::string_view("auth\0", 5)}}, ReplyStatus::kOther, ReplyStatus::kOther},
        {{{"status", 0}}, ReplyStatus::kMissing, ReplyStatus::kOther},
        {{{"status", true}}, ReplyStatus::kMissing, ReplyStatus::kOther},
        {{{"status", nullptr}}, ReplyStatus::kMissing, ReplyStatus::kOther},
        {{{"status", JsonArray{"ok"}}}, ReplyStatus::kMissing, ReplyStatus::kOther},
        {{{"status", JsonObject{{"ok", 1}}}}, ReplyStatus::kMissing, ReplyStatus::kOther},
        {{{"Status", "ok"}}, ReplyStatus::kMissing, ReplyStatus::kMissing},
        {{}, ReplyStatus::kMissing, ReplyStatus::kMissing},
    };
    int row = 0;
    for (const auto& [reply, strict, loose] : rows) {
        EXPECT_EQ(strictStatus(reply), strict) << "row " << row;
        EXPECT_EQ(looseStatus(reply), loose) << "row " << row;
        ++row;
    }
}

TEST(PrintStatusAndExitDeathTest, EveryStatus) {
    const struct {
        int status;
        const char* message;
    } rows[] = {
        {0, "^$"},
        {7, "^$"},
        {2, "^The thing has not been found\\.\n$"},
        {5, "^Internal error\\.\n$"},
        {80,
         "^Error: you don't have permissions The thing\\.\n"
         "Administrative user or root is allowed to do this operation\\.\n$"},
    };
    for (const auto& [status, message] : rows) {
        EXPECT_EXIT(printStatusAndExit(status, "The thing"), testing::ExitedWithCode(status), message);
    }
}

}  // namespace
