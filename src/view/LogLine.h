// One line of the view's log: a subject, a short status, and the status's colour.
#pragma once

#include <QColor>
#include <QString>

struct LogLine {
    QString text;
    QString status;
    QColor color;
};
