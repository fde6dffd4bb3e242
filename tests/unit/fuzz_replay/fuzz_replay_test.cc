// Runs a fuzz target over its corpus, and over each file of it cut off at every byte.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

void replay(const std::string& input) {
    EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size()), 0);
}

TEST(FuzzReplay, CorpusWholeAndCut) {
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(RV_CORPUS)) {
        SCOPED_TRACE(entry.path().string());
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string content{std::istreambuf_iterator<char>(file), {}};
        for (std::size_t size = 0; size <= content.size(); ++size) {
            replay(content.substr(0, size));
        }
        ++files;
    }
    EXPECT_GE(files, 5U);
}

}  // namespace
