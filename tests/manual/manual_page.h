/// Reads manual pages as a user sees them: rendered by mandoc(1), one long line for each paragraph.
#ifndef RV_MANUAL_PAGE_H
#define RV_MANUAL_PAGE_H

#include <string>
#include <string_view>
#include <vector>

namespace manual {

/// The paths of all pages, sorted.
std::vector<std::string> pages();

/// The page as plain text. `name` is a file's, such as "rvusbpctl.1".
std::string text(std::string_view name);

/// The lines of one section, indentation kept; empty when the page has no such section.
std::vector<std::string> section(std::string_view name, std::string_view heading);

/// The command lines of the section EXAMPLES: what stands behind "$ ".
std::vector<std::string> exampleCommands(std::string_view name);

}  // namespace manual

#endif
