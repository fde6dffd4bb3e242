#include "ipc/utf8.h"

#include <utf8/core.h>

bool isUtf8(std::string_view bytes) noexcept {
    return utf8::find_invalid(bytes.begin(), bytes.end()) == bytes.end();
}
