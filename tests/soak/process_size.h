/// What a process holds: the numbers that must stay the same however long it runs.
#ifndef RV_SOAK_PROCESS_SIZE_H
#define RV_SOAK_PROCESS_SIZE_H

#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

struct ProcessSize {
    std::size_t residentBytes = 0;
    std::size_t descriptors = 0;
};

inline ProcessSize sizeOf(pid_t pid) {
    namespace fs = std::filesystem;
    const std::string place = "/proc/" + std::to_string(pid);
    ProcessSize size;
    std::ifstream status(place + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmRSS:")) {
            size.residentBytes = std::stoul(line.substr(6)) * 1024;
        }
    }
    const fs::directory_iterator open(place + "/fd");
    size.descriptors = static_cast<std::size_t>(std::distance(begin(open), end(open)));
    return size;
}

#endif
