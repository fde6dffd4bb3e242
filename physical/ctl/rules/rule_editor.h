/// Takes a rule file through the user's editor until it can be parsed or the user gives up.
#ifndef RV_RULES_RULE_EDITOR_H
#define RV_RULES_RULE_EDITOR_H

#include "rules/rule_parser.h"

/// Runs the editor on a file and waits for its end.
///
/// The editor is the value of VISUAL, else of EDITOR, else "vi"; the value is one program name, looked up in
/// PATH, and never split into words. While it runs the terminal is the editor's: the tool does not hear
/// Ctrl-C and Ctrl-\, and when the editor suspends itself the tool is suspended with it.
///
/// After a failed run the user is asked whether to try again; only "n" means no, and the end of the input
/// does not.
///
/// path  the file; handed to the editor as its only argument
/// Returns true once a run has ended with status 0; false when the user gave up, or after a message on
/// standard error.
/// Thread: any, but only one at a time; the calling thread waits. Signal dispositions of the process are
/// changed while an editor runs.
bool runEditor(const char* path) noexcept;

/// Edits a file until it parses.
///
/// path  the file; it is kept, as the user left it
/// Returns the records (see rule_parser_run), or null when the user gave up or no editor could be run; all
/// messages have been written.
/// Thread: as for runEditor.
RuleSet loadRulesFromEditor(const char* path) noexcept;

#endif
