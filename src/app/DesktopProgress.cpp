// Both D-Bus messages are sent without waiting for an answer: a desktop with
// no dock or no notification daemon costs nothing, and one that hangs cannot
// hold the window up.
#include "app/DesktopProgress.h"

#include "app/WindowController.h"
#include "platform/AppName.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QWidget>

DesktopProgress::DesktopProgress(QWidget& window, WindowController& controller,
                                 QString desktopEntry)
    : QObject(&window)
    , m_window(window)
    , m_desktopEntry(std::move(desktopEntry)) {
    connect(
        &controller, &WindowController::progressChanged, this,
        [this](long long done, long long total) { progress(static_cast<double>(done), total); });
    connect(&controller, &WindowController::fractionChanged, this, &DesktopProgress::progress);
    connect(&controller, &WindowController::busyChanged, this, [this](bool busy) {
        if (busy)
            return;
        m_window.setWindowTitle(appName);
        launcherEntry({{QStringLiteral("progress-visible"), false},
                       {QStringLiteral("count-visible"), false}});
    });
    connect(&controller, &WindowController::batchEnded, this, &DesktopProgress::ended);
}

// The count as the drop zone shows it, first, where a narrow task bar still shows it.
void DesktopProgress::progress(double done, long long total) {
    if (total <= 0)
        return;
    const auto whole = static_cast<long long>(done);
    m_window.setWindowTitle(QString::asprintf("%02lld/%02lld \u2014 ", whole, total) + appName);
    launcherEntry({{QStringLiteral("progress"), done / static_cast<double>(total)},
                   {QStringLiteral("progress-visible"), true},
                   {QStringLiteral("count"), total - whole},
                   {QStringLiteral("count-visible"), true}});
}

void DesktopProgress::ended(const LogLine& summary) {
    if (m_window.isActiveWindow())
        return;
    QDBusMessage notify = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.Notifications"),
        QStringLiteral("/org/freedesktop/Notifications"),
        QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("Notify"));
    notify << QString(appName) << 0U << m_desktopEntry << summary.text << summary.status
           << QStringList() << QVariantMap{{QStringLiteral("desktop-entry"), m_desktopEntry}} << -1;
    QDBusConnection::sessionBus().send(notify);
}

void DesktopProgress::launcherEntry(const QVariantMap& properties) {
    QDBusMessage update = QDBusMessage::createSignal(
        QStringLiteral("/com/canonical/unity/launcherentry/") + m_desktopEntry,
        QStringLiteral("com.canonical.Unity.LauncherEntry"), QStringLiteral("Update"));
    update << QStringLiteral("application://%1.desktop").arg(m_desktopEntry) << properties;
    QDBusConnection::sessionBus().send(update);
}
