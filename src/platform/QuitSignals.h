// A desktop session ends programs with SIGTERM (and a terminal with SIGINT or
// SIGHUP); the program takes any of them as Quit, so its own shutdown runs.
#pragma once

class QObject;

// Quits the running QCoreApplication on SIGINT, SIGTERM or SIGHUP.
void quitOnTerminationSignals(QObject* parent);
