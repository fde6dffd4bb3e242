/// Runs a report on the JSON text of a reply and returns what it printed.
#ifndef RV_TESTS_REPORT_OUTPUT_H
#define RV_TESTS_REPORT_OUTPUT_H

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "ipc/reply_decoder.h"

/// print  called with the decoded dictionary and a stream in memory
template <class Print>
std::string printed(std::string_view json, Print print) {
    ReplyDecoder decoder;
    if (decoder.decode(json) != DecodeResult::kObject) {
        ADD_FAILURE() << "the test's JSON is no object: " << json;
        return {};
    }
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* stream = open_memstream(&text, &size);
    print(decoder.object(), stream);
    (void)std::fclose(stream);
    std::string result(text, size);
    std::free(text);
    return result;
}

#endif
