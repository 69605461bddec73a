// The program's one error type, thrown by the engine, the model and the
// platform code alike, and the messages the user sees for it.
#pragma once

#include <QByteArray>
#include <QString>
#include <exception>

class TagError : public std::exception {
public:
    enum class Kind {
        ffmpegFailed, // the render failed; carries ffmpeg's own cause
        noFFmpeg,
        noTag,
        unreadable,
        stopped, // the program is quitting: runs are ended and refused
        badInterval,
        badLevel,
        tooManyTags,
        systemFailed, // the system refused, in its own words, maybe naming what was tried
        notFound,     // a path given to tag names nothing
        notATrack,    // a path given to tag names a file that is no track
        changed,      // the track or the clip changed while it was tagged: nothing committed
        stalled,      // ffmpeg made no progress for too long and was ended
        badOutput,    // ffmpeg's output is not the whole track; carries what is wrong
    };

    static TagError ffmpegFailed(QString message) {
        return {Kind::ffmpegFailed, {}, std::move(message), 0};
    }
    // ffmpeg ended by `signal`: "FFMPEG CRASHED (SEGMENTATION FAULT)", and the like.
    static TagError ffmpegCrashed(int signal);
    static TagError noFFmpeg() { return TagError(Kind::noFFmpeg); }
    static TagError noTag() { return TagError(Kind::noTag); }
    static TagError unreadable() { return TagError(Kind::unreadable); }
    // "CAN'T READ FILE: " and why, in ffmpeg's or the system's words.
    static TagError unreadable(QString reason) {
        return {Kind::unreadable, unreadable().reason(), std::move(reason), 0};
    }
    static TagError stopped() { return TagError(Kind::stopped); }
    static TagError badInterval() { return TagError(Kind::badInterval); }
    static TagError badLevel() { return TagError(Kind::badLevel); }
    static TagError tooManyTags() { return TagError(Kind::tooManyTags); }
    static TagError notFound() { return TagError(Kind::notFound); }
    static TagError notATrack() { return TagError(Kind::notATrack); }
    static TagError changed() { return TagError(Kind::changed); }
    static TagError stalled() { return TagError(Kind::stalled); }
    static TagError badOutput(QString reason) {
        return {Kind::badOutput, {}, std::move(reason), 0};
    }
    // The system's text for the errno value `code` as the reason: "NO SPACE LEFT ON
    // DEVICE", or with `action`, "CAN'T COPY VOICE.WAV: NO SPACE LEFT ON DEVICE".
    static TagError systemFailed(int code, QString action = {});
    // With a reason in other words than errno's, already upper-cased; `code` may be 0.
    static TagError systemFailed(int code, QString action, QString reason) {
        return {Kind::systemFailed, std::move(action), std::move(reason), code};
    }

    Kind kind() const { return m_kind; }
    // What could not be done ("CAN'T SAVE PREFERENCES.JSON"); empty for most kinds.
    const QString& action() const { return m_action; }
    // Why: the whole message when there is no action.
    const QString& reason() const { return m_reason; }
    // The errno value behind a system failure, 0 when there is none.
    int code() const { return m_code; }
    // "ACTION: REASON", or the reason alone.
    QString errorDescription() const;
    const char* what() const noexcept override { return m_what.constData(); }

private:
    explicit TagError(Kind kind);
    TagError(Kind kind, QString action, QString reason, int code);

    Kind m_kind;
    QString m_action;
    QString m_reason;
    int m_code;
    QByteArray m_what;
};

// The text a front shows for any failure of a track.
QString describeError(const std::exception& error);
