/// Reads manual pages as a user sees them: rendered by mandoc(1).
#ifndef RV_MANUAL_PAGE_H
#define RV_MANUAL_PAGE_H

#include <string>
#include <string_view>
#include <vector>

namespace manual {

/// The paths of all pages, sorted.
std::vector<std::string> pages();

/// How wide a page is: as on a usual terminal, or with one long line for each paragraph.
inline constexpr int kTerminalColumns = 78;
inline constexpr int kNoColumns = 1000;

/// The page as plain text. `name` is a file's, such as "rvusbpctl.1".
std::string text(std::string_view name, int columns = kNoColumns);

/// The lines of one section, indentation kept; empty when the page has no such section.
std::vector<std::string> section(std::string_view name, std::string_view heading, int columns = kNoColumns);

/// The command lines of the section EXAMPLES as a usual terminal shows them: what stands behind "$ ", with
/// the lines below that are indented further.
std::vector<std::string> exampleCommands(std::string_view name);

}  // namespace manual

#endif
