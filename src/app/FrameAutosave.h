// Remembers where the window was: its frame is saved in the preferences under
// a name whenever it moves, and restored from there at launch.
#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>
#include <functional>

class Preferences;
class QWidget;
class TagError;

class FrameAutosave : public QObject {
public:
    // Told of every save that fails; `preferences` must outlive this.
    using Failed = std::function<void(const TagError&)>;

    FrameAutosave(QWidget& window, QString name, Preferences& preferences, Failed failed = {});

    // Moves the window to the saved place, when one is saved and still on a screen.
    void restore();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void save();

    QPointer<QWidget> m_window;
    QString m_name;
    Preferences& m_preferences;
    Failed m_failed;
    // A drag moves the window hundreds of times; the file is written once it rests.
    QTimer m_settle;
};
