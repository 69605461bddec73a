// The open panels: choosing a tag clip, and choosing tracks to process. Behind
// an interface, since a real dialog's modal loop never ends offscreen.
#pragma once

#include <QStringList>
#include <memory>
#include <optional>

class QWidget;

class OpenPanels {
public:
    virtual ~OpenPanels() = default;
    // One tag clip file; none when cancelled.
    virtual std::optional<QString> chooseTag(QWidget& parent) = 0;
    // MP3 and WAV files and folders, several at once; none when cancelled.
    virtual std::optional<QStringList> chooseTracks(QWidget& parent) = 0;
};

// Panels that are cancelled without showing.
OpenPanels& noPanels();
// Qt's own (non-native) file dialogs, so they follow the application's palette.
std::unique_ptr<OpenPanels> makeFileDialogPanels();

// The tag chooser's one filter: the clip types the library lists.
QString tagNameFilter();
