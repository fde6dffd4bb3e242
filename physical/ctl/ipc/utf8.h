/// Tells whether bytes are UTF-8 text, which is what every string of a request must be.
#ifndef RV_IPC_UTF8_H
#define RV_IPC_UTF8_H

#include <string_view>

/// True when `bytes` are well-formed UTF-8 (RFC 3629: no overlong form, no surrogate, nothing above
/// U+10FFFF). Pure; any thread.
bool isUtf8(std::string_view bytes) noexcept;

#endif
