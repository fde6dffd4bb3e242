/* The header as a C program sees it: every name is used, and a queue works without a C++ runtime. */
#include <unistd.h>

#include "platform/kevent.h"

int keventHeaderInC(void);

static int timerFires(int kq) {
    struct kevent event;
    EV_SET(&event, 7, EVFILT_TIMER, EV_ADD | EV_ENABLE | EV_ONESHOT, NOTE_BACKGROUND, 1, &event);
    if (kevent(kq, &event, 1, &event, 1, NULL) != 1) return 0;
    return event.ident == 7 && event.filter == EVFILT_TIMER && event.udata == (void*)&event;
}

static int deleteFails(int kq) {
    struct kevent event;
    EV_SET(&event, 0, EVFILT_WRITE, EV_DELETE, 0, 0, NULL);
    if (kevent(kq, &event, 1, &event, 1, NULL) != 1) return 0;
    return event.flags == (EV_DELETE | EV_ERROR);
}

int keventHeaderInC(void) {
    const int kq = kqueue();
    if (kq == -1) return 1;
    const int good = timerFires(kq) && deleteFails(kq);
    return close(kq) == 0 && good ? 0 : 2;
}

#ifdef RV_KEVENT_PROBE_MAIN
int main(void) {
    return keventHeaderInC();
}
#endif
