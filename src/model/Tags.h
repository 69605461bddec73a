// The user's library of tag clips: a folder of audio files, the selection
// (by file name, in the preferences) and the once-per-installation seeding.
#pragma once

#include <QSet>
#include <QString>
#include <QStringList>
#include <optional>

class Preferences;
class Trash;

class Tags {
public:
    // The selection and the seeding flag live in `preferences`; removed clips go
    // to `trash`. Both must outlive this.
    Tags(Preferences& preferences, Trash& trash)
        : m_preferences(preferences)
        , m_trash(trash) {}

    // The one test of what counts as a clip, by name: the listing, drops, choosers
    // and zelkor-tag all ask it. "VOICE.WAV" is one; ".wav" is a hidden name, not one.
    static bool isClip(const QString& path);

    static const QSet<QString>& exts();

    // $XDG_DATA_HOME/ODRAVEX Zelkor/Tags, created on every read (failure ignored).
    static QString dir();
    // The library's clips, in the file browser's order.
    static QStringList all();

    // The library as seeding would leave it, without writing anything: the clips
    // there and, until seeded, the defaults that would be copied in.
    QStringList allAsSeeded() const;

    std::optional<QString> selected() const;
    // Of `clips`, the one selected, else the first.
    std::optional<QString> selectedAmong(const QStringList& clips) const;
    // Throws TagError when the preferences cannot be written.
    void setSelected(const std::optional<QString>& path);

    // "my tag.wav" -> "MY TAG"
    static QString name(const QString& path);
    // The clip as the window names it, in its own case: "my tag", or "my
    // tag.wav" where another of `clips` shares its name in any case.
    static QString label(const QString& path, const QStringList& clips);

    // Copies the file into the library under a free name and selects the copy;
    // throws TagError, with the library and the selection as they were, when
    // either cannot be written.
    QString add(const QString& path);
    void seedDefaults();
    // Moves the clip to the trash; failures are ignored.
    void remove(const QString& path);

private:
    Preferences& m_preferences;
    Trash& m_trash;
};
