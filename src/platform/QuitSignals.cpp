// Signals reach the event loop through a pipe: the handler itself may do almost nothing.
#include "platform/QuitSignals.h"

#include <QCoreApplication>
#include <QSocketNotifier>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

int g_pipe[2] = {-1, -1};

// Only async-signal-safe work here: the signal's number down the pipe.
void onSignal(int signal) {
    const auto byte = static_cast<unsigned char>(signal);
    [[maybe_unused]] const ssize_t written = ::write(g_pipe[1], &byte, 1);
}

} // namespace

void onSignals(QObject* parent, std::initializer_list<int> numbers,
               std::function<void(int)> handler) {
    if (g_pipe[0] < 0 && ::pipe2(g_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    auto* notifier = new QSocketNotifier(g_pipe[0], QSocketNotifier::Read, parent);
    QObject::connect(notifier, &QSocketNotifier::activated, notifier,
                     [handler = std::move(handler)] {
                         unsigned char bytes[16];
                         ssize_t count = 0;
                         while ((count = ::read(g_pipe[0], bytes, sizeof bytes)) > 0)
                             for (ssize_t i = 0; i < count; ++i)
                                 handler(bytes[i]);
                     });
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int number : numbers)
        sigaction(number, &action, nullptr);
}

void quitOnTerminationSignals(QObject* parent) {
    onSignals(parent, {SIGINT, SIGTERM, SIGHUP}, [](int) { QCoreApplication::quit(); });
}
