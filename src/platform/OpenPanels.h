// The open panels: choosing a tag clip, and choosing tracks to process. Behind
// an interface, since a real dialog's modal loop never ends offscreen.
#pragma once

#include <QSet>
#include <QStringList>
#include <memory>
#include <optional>

class QWidget;

class OpenPanels {
public:
    virtual ~OpenPanels() = default;
    // One tag clip file, offered by `nameFilter` (see tagNameFilter); none when cancelled.
    virtual std::optional<QString> chooseTag(QWidget& parent, const QString& nameFilter) = 0;
    // MP3 and WAV files and folders, several at once; none when cancelled.
    virtual std::optional<QStringList> chooseTracks(QWidget& parent) = 0;
};

// Panels that are cancelled without showing.
OpenPanels& noPanels();
// Qt's own (non-native) file dialogs, so they follow the application's palette.
std::unique_ptr<OpenPanels> makeFileDialogPanels();

// The tag chooser's one filter, from the clip extensions the library lists.
QString tagNameFilter(const QSet<QString>& extensions);
