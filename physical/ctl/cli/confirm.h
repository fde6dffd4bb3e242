/// Asks the user a yes-or-no question.
#ifndef RV_CLI_CONFIRM_H
#define RV_CLI_CONFIRM_H

/// Writes the prompt to standard output and reads standard input until a lower-case "y" or "n" comes. Line
/// feeds are skipped; any other character, a blank or a capital letter included, writes the prompt once more.
/// The rest of the line is left unread.
///
/// prompt  written as it is; not a format
/// Returns 'y' or 'n'. Does not return before one of them has been read: at the end of input it asks for
/// ever. Thread: any that owns standard input for the time.
int areYouSure(const char* prompt) noexcept;

#endif
