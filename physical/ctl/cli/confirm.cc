#include "cli/confirm.h"

#include <cstdio>

namespace {

// Deliberate: the end of input is an answer that is neither yes nor no, so the question is repeated, without
// end when standard input is closed. At a terminal, where alone the question makes sense, Ctrl-D thus asks
// once more instead of answering. Held by AreYouSure.EndOfInputAsksAgain.
int readAnswer() noexcept {
    int character = '\n';
    while (character == '\n') {
        character = std::getchar();
    }
    if (character == EOF) {
        std::clearerr(stdin);  // a terminal has more to say after its Ctrl-D
    }
    return character;
}

}  // namespace

int areYouSure(const char* prompt) noexcept {
    for (;;) {
        (void)std::fputs(prompt, stdout);  // a user who cannot see the question can still answer it
        (void)std::fflush(stdout);
        const int answer = readAnswer();
        if (answer == 'y' || answer == 'n') {
            return answer;
        }
    }
}
