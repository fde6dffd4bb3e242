#include "rules/rule_editor.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "cli/confirm.h"
#include "rules/editor_process.h"
#include "rules/rule_file.h"

namespace {

constexpr char kDefaultEditor[] = "vi";
constexpr char kRetryQuestion[] =
    "Something went wrong with editor. Press any key to try one more time [y/n]: ";
constexpr char kEditQuestion[] = "Edit again [y/n]? ";

// Deliberate: a variable that is set but empty is used as it is, as is one that holds a program with
// arguments; neither can be executed, and the user is told so and asked again. Held by
// RunEditor.EmptyVisualIsNotUnset and RunEditor.ValueIsNotSplitIntoWords.
const char* chooseEditor() noexcept {
    for (const char* const variable : {"VISUAL", "EDITOR"}) {
        if (const char* const editor = std::getenv(variable)) {
            return editor;
        }
    }
    return kDefaultEditor;
}

/// One character of standard input; EOF only where input has ended, not where a signal came.
int readCharacter() noexcept {
    for (;;) {
        errno = 0;
        const int character = std::getchar();
        if (character != EOF || std::ferror(stdin) == 0 || errno != EINTR) {
            return character;
        }
        std::clearerr(stdin);
    }
}

// Deliberate: anything but a lower-case "n" is a yes, the line feed that ends an earlier answer and the end
// of the input included, and only one character is read. Without a terminal an editor that fails for ever is
// therefore started for ever, as areYouSure asks for ever. Held by RunEditor.AnyKeyButNTriesAgain,
// RunEditor.OneCharacterPerQuestion and RunEditor.EndedInputTriesAgain.
bool wantsAnotherRun() noexcept {
    (void)std::fputs(kRetryQuestion, stdout);  // a user who cannot see the question can still answer it
    (void)std::fflush(stdout);
    const int character = readCharacter();
    if (character == EOF) {
        std::clearerr(stdin);  // Ctrl-D at a terminal is a key, and more may follow
    }
    return character != 'n';
}

}  // namespace

bool runEditor(const char* path) noexcept {
    const char* const editor = chooseEditor();
    for (;;) {
        (void)std::fflush(stdout);  // what has been said comes before what the editor shows
        switch (runEditorProcess(editor, path)) {
            case EditorRun::kDone:
                return true;
            case EditorRun::kFailed:
                break;
            case EditorRun::kNotForked:
                (void)std::fputs("Cannot create process.\n", stderr);
                return false;
            case EditorRun::kLost:
                (void)std::fputs("Cannot get status of editor process\n", stderr);
                return false;
        }
        if (!wantsAnotherRun()) {
            return false;
        }
    }
}

RuleSet loadRulesFromEditor(const char* path) noexcept {
    while (runEditor(path)) {
        const RuleSet rules = load_rule_file(path);
        if (rules || areYouSure(kEditQuestion) == 'n') {
            return rules;
        }
    }
    return {};
}
