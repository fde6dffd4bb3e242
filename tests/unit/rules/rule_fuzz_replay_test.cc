// Runs a fuzz target over the golden files, which are its corpus.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "golden_files.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

TEST(RuleFuzzReplay, GoldenFiles) {
    std::size_t files = 0;
    for (const char* const extension : {".in", ".bad", ".ok", ".json", ".msg"}) {
        for (const auto& path : goldenFiles(extension)) {
            SCOPED_TRACE(path.string());
            const std::string content = readGolden(path);
            EXPECT_EQ(
                LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(content.data()), content.size()),
                0);
            ++files;
        }
    }
    EXPECT_GE(files, 250U);
}

}  // namespace
