/// Runs one program on the user's terminal and waits for it, as a shell without job control would.
#ifndef RV_RULES_EDITOR_PROCESS_H
#define RV_RULES_EDITOR_PROCESS_H

enum class EditorRun {
    kDone,       ///< ended with status 0
    kFailed,     ///< ended otherwise: another status, a signal, or the program could not be executed
    kNotForked,  ///< there is no process
    kLost,       ///< it cannot be waited for
};

/// Runs `editor`, looked up in PATH, with `path` as its only argument.
///
/// While it runs, SIGINT, SIGQUIT and SIGTSTP are ignored in this process: what is typed at the terminal is
/// for the editor, which gets these signals with the effect that this process was given by its parent,
/// SIGPIPE with its default effect, and no signal blocked. When the editor is suspended this process suspends
/// itself, so that the shell takes over, and both go on together. After a failed run the terminal is as it
/// was before it.
///
/// A program that cannot be executed says "Cannot launch editor (%d)." with the error number on standard
/// error and counts as failed; the other failures are silent here. Thread: any, but only one at a time, as
/// dispositions belong to the process.
EditorRun runEditorProcess(const char* editor, const char* path) noexcept;

#endif
