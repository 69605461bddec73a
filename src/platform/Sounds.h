// The end-of-batch sounds, by the names the program uses for them ("Glass",
// "Basso"). Behind an interface so tests can record what would have played.
#pragma once

#include <QString>
#include <memory>

class Sounds {
public:
    virtual ~Sounds() = default;
    // Unknown names, and a desktop without sound, play nothing.
    virtual void play(const QString& name) = 0;
};

// The freedesktop sound theme: "Glass" is the event "complete", "Basso" is
// "dialog-error". Never prints anything, even without a sound device.
std::unique_ptr<Sounds> makeThemeSounds();

// The theme event for a sound name, or empty for an unknown name.
QString themeEvent(const QString& name);
