#include "reports/path_component.h"

#include <gtest/gtest.h>

namespace {

TEST(LastPathComponent, Table) {
    const struct {
        const char* path;
        const char* last;
    } rows[] = {
        {"", ""},      {"/", "/"},        {"//", "/"},     {"a", "a"},    {"/a", "a"},         {"a/", "a"},
        {"/a/b", "b"}, {"/a/b/", "b"},    {"/a/b//", "b"}, {"a//b", "b"}, {"/a.b/c d", "c d"}, {"..", ".."},
        {"/.", "."},   {"/a\\b", "a\\b"}, {"a\\", "a\\"},
    };
    for (const auto& [path, last] : rows) {
        EXPECT_EQ(lastPathComponent(path), last) << path;
    }
}

}  // namespace
