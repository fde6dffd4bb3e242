/// The rule texts under tests/golden/rules.
///
/// NAME.in is accepted: NAME.json holds its records as a rule-list reply, NAME.ok its printed form. NAME.bad
/// is refused with the message in NAME.msg.
#ifndef RV_TEST_RULES_GOLDEN_FILES_H
#define RV_TEST_RULES_GOLDEN_FILES_H

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

inline std::string readGolden(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The files with an extension (".in"), sorted by name.
inline std::vector<std::filesystem::path> goldenFiles(const std::string& extension) {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(RV_GOLDEN_RULES)) {
        if (entry.path().extension() == extension) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

#endif
