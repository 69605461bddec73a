// What the desktop shows of a batch outside the window: the count in the
// window's title, progress on the task bar's entry (the launcher-entry D-Bus
// signal that docks and KDE read), and a notification of an end that came
// while the user was elsewhere.
#pragma once

#include <QObject>
#include <QString>
#include <QVariantMap>

class QWidget;
class WindowController;
struct LogLine;

class DesktopProgress : public QObject {
public:
    // `desktopEntry` names the entry the task bar shows the program by.
    DesktopProgress(QWidget& window, WindowController& controller,
                    QString desktopEntry = QStringLiteral("zelkor"));

private:
    void progress(double done, long long total);
    void ended(const LogLine& summary);
    void launcherEntry(const QVariantMap& properties);

    QWidget& m_window;
    QString m_desktopEntry;
};
