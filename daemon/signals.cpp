#include "daemon/signals.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include "platform/log.h"

std::atomic<int> g_loopFlag{kLoopNotBegun};
std::atomic<int> g_formatFlag{0};

namespace {

constexpr int kAccepted[] = {SIGINT, SIGTERM, SIGQUIT, SIGSEGV, SIGPIPE, SIGUSR1, SIGUSR2};

struct Caught {
    int signal;
    std::atomic<int> unlogged{0}; ///< how often it was caught and its message not yet written
} g_caught[] = {{SIGINT}, {SIGTERM}, {SIGQUIT}, {SIGUSR1}, {SIGUSR2}};

/// Set behind the counter and the event, and taken back before they are: none of them is ever left over.
std::atomic<bool> g_isDue{false};
/// Made by setSignal and kept as long as the process: the handler may write to it at any moment.
std::atomic<int> g_event{-1};

std::atomic<int> g_stopSocket{-1};
std::atomic<int> g_readingFrom{-1};

void note(int signal) {
    for (Caught& caught : g_caught)
        if (caught.signal == signal) ++caught.unlogged;
    eventfd_write(g_event, 1);
    g_isDue = true;
}

void logCaught(int signal) {
    if (signal == SIGUSR1)
        logNamed(LOG_INFO, "sigcatch", "catch SIGUSR1 (%d)", signal);
    else if (signal == SIGUSR2)
        logNamed(LOG_INFO, "sigcatch", "catch SIGUSR2 (%d)", signal);
    else
        logNamed(LOG_INFO, "sigcatch", "catch SIGINT|SIGTERM|SIGQUIT (%d)", signal);
}

/// Without flags: a call that the signal interrupts is not restarted, and the loop looks at its flag.
int install(int signal, void (*disposition)(int)) {
    struct sigaction action {};
    action.sa_handler = disposition;
    sigemptyset(&action.sa_mask);
    return sigaction(signal, &action, nullptr);
}

} // namespace

int setSignal() {
    if (g_event < 0) g_event = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC); // without it, a message may be late
    sigset_t set;
    if (sigfillset(&set) < 0) {
        logAt(LOG_ERR, "qorbd - sigfillset error(%m)");
        return -1;
    }
    if (sigprocmask(SIG_UNBLOCK, &set, nullptr) < 0) { // what the parent had blocked
        logAt(LOG_ERR, "qorbd - : sigprocmask error(%s)", strerror(errno));
        return -1;
    }
    for (const int signal : kAccepted) {
        if (sigdelset(&set, signal) < 0) {
            logAt(LOG_ERR, "qorbd - : sigdelset error(%m)");
            return -1;
        }
    }
    if (sigprocmask(SIG_BLOCK, &set, nullptr) < 0) {
        logAt(LOG_ERR, "qorbd - : sigprocmask error(%m)");
        return -1;
    }
    if (install(SIGPIPE, SIG_IGN) < 0) {
        logAt(LOG_ERR, "qorbd - : sigaction error(%m)");
        return -1;
    }
    for (const Caught& caught : g_caught) {
        if (install(caught.signal, sigcatch) < 0) {
            logAt(LOG_ERR, "qorbd - : sigaction error(%m)");
            return -1;
        }
    }
    return 0;
}

void sigcatch(int signal) {
    const int interrupted = errno;
    note(signal); // first, so that whoever sees the flag finds the message due
    switch (signal) {
    case SIGINT:
    case SIGQUIT:
    case SIGTERM:
        g_loopFlag = kLoopStop;
        if (const int socket = g_stopSocket; socket >= 0) shutdown(socket, SHUT_RDWR);
        if (const int socket = g_readingFrom; socket >= 0) shutdown(socket, SHUT_RD);
        break;
    case SIGUSR1:
        g_formatFlag = 1;
        break;
    case SIGUSR2:
        g_formatFlag = 0;
        break;
    default:
        break;
    }
    errno = interrupted;
}

void setStopSocket(int listeningSocket) {
    g_stopSocket = listeningSocket;
}

// The handler writes the flag and then looks for a connection, this the other way round: a stop that comes in
// between is noticed by one of them.
void setReadingFrom(int connection) {
    g_readingFrom = connection;
    if (connection >= 0 && g_loopFlag == kLoopStop) shutdown(connection, SHUT_RD);
}

int caughtSignalEvent() {
    return g_event;
}

void logCaughtSignals() {
    if (!g_isDue.exchange(false)) return;
    eventfd_t rings = 0;
    eventfd_read(g_event, &rings);
    for (Caught& caught : g_caught)
        for (int left = caught.unlogged.exchange(0); left > 0; --left) logCaught(caught.signal);
}
