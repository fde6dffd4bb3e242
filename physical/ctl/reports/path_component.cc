#include "reports/path_component.h"

std::string_view lastPathComponent(std::string_view path) noexcept {
    const std::size_t last = path.find_last_not_of('/');
    if (last == std::string_view::npos) {
        return path.substr(0, path.empty() ? 0 : 1);
    }
    const std::string_view trimmed = path.substr(0, last + 1);
    return trimmed.substr(trimmed.rfind('/') + 1);
}
