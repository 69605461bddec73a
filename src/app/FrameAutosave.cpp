// The window frame in the preferences, as {x, y, width, height}.
#include "app/FrameAutosave.h"

#include "base/TagError.h"
#include "platform/Preferences.h"

#include <QEvent>
#include <QGuiApplication>
#include <QJsonObject>
#include <QScreen>
#include <QWidget>

namespace {

constexpr int kSettleMs = 400;

} // namespace

FrameAutosave::FrameAutosave(QWidget& window, QString name, Preferences& preferences, Failed failed)
    : QObject(&window)
    , m_window(&window)
    , m_name(std::move(name))
    , m_preferences(preferences)
    , m_failed(std::move(failed)) {
    m_settle.setSingleShot(true);
    m_settle.setInterval(kSettleMs);
    connect(&m_settle, &QTimer::timeout, this, &FrameAutosave::save);
    window.installEventFilter(this);
}

void FrameAutosave::restore() {
    const std::optional<QJsonObject> frame = m_preferences.object(m_name);
    if (!frame || !(*frame)[QStringLiteral("x")].isDouble() ||
        !(*frame)[QStringLiteral("y")].isDouble())
        return;
    const QPoint topLeft((*frame)[QStringLiteral("x")].toInt(),
                         (*frame)[QStringLiteral("y")].toInt());
    // A screen unplugged since would leave the window where nobody can reach it.
    if (QGuiApplication::screenAt(topLeft + QPoint(40, 20)))
        m_window->move(topLeft);
}

bool FrameAutosave::eventFilter(QObject* watched, QEvent* event) {
    if (watched == m_window) {
        if (event->type() == QEvent::Move && m_window->isVisible())
            m_settle.start();
        else if (event->type() == QEvent::Close && m_settle.isActive())
            save();
    }
    return false;
}

void FrameAutosave::save() {
    m_settle.stop();
    if (!m_window)
        return;
    const QRect frame = m_window->frameGeometry();
    try {
        m_preferences.setObject(m_name, QJsonObject{{QStringLiteral("x"), frame.x()},
                                                    {QStringLiteral("y"), frame.y()},
                                                    {QStringLiteral("width"), frame.width()},
                                                    {QStringLiteral("height"), frame.height()}});
    } catch (const TagError& error) {
        if (m_failed)
            m_failed(error);
    }
}
