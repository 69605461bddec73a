// The track chooser's dialog, where files and folders are chosen together.
#pragma once

#include <QFileDialog>
#include <QStringList>

// A file dialog in which files and folders can be selected together: Qt's own
// modes offer one or the other.
class TrackDialog : public QFileDialog {
public:
    explicit TrackDialog(QWidget* parent = nullptr);
    // What was selected when the dialog was accepted, as absolute paths.
    const QStringList& chosen() const { return m_chosen; }
    void accept() override;

private:
    QStringList m_chosen;
};
