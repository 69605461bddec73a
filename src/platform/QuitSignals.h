// A desktop session ends programs with SIGTERM (and a terminal with SIGINT,
// SIGHUP or SIGQUIT); the programs take them as a request to stop, so their own
// shutdown runs.
#pragma once

#include <functional>
#include <initializer_list>

class QObject;

// Once per process: calls `handler` with the signal's number, in the event loop of `parent`'s
// thread, for each of `numbers` that arrives while `parent` lives.
void onSignals(QObject* parent, std::initializer_list<int> numbers,
               std::function<void(int)> handler);
// Quits the running QCoreApplication on SIGINT, SIGTERM or SIGHUP.
void quitOnTerminationSignals(QObject* parent);
