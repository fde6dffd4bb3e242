/// The last component of a path, as lists and events show an application.
#ifndef RV_REPORTS_PATH_COMPONENT_H
#define RV_REPORTS_PATH_COMPONENT_H

#include <string_view>

/// "/a/b" and "/a/b/" give "b", "/" gives "/", an empty path gives an empty text. Trailing slashes are
/// dropped. The result borrows from `path`. Pure; any thread.
std::string_view lastPathComponent(std::string_view path) noexcept;

#endif
