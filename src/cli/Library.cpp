// The library commands, on the same Tags, preferences and trash as the window.
#include "cli/Library.h"

#include "base/Files.h"
#include "base/Names.h"
#include "cli/Console.h"
#include "model/Settings.h"
#include "model/StatusTexts.h"
#include "model/Tags.h"
#include "platform/Preferences.h"
#include "platform/Trash.h"

#include <algorithm>

namespace Cli {

namespace {

// By the name's own bytes: a clip's name need not be UTF-8.
bool isFile(const QString& path) {
    const std::optional<Files::Identity> file = Files::identity(path);
    return file && file->regular;
}

} // namespace

int manageLibrary(const Options& options) {
    PreferencesFile preferences(PreferencesFile::userPath());
    HomeTrash trash(HomeTrash::userFolder());
    Tags tags(preferences, trash);
    // A listing alone writes nothing: completion asks for one at every Tab.
    const bool changing = options.addTag || options.selectTag;
    if (changing)
        tags.seedDefaults();
    int status = kExitOk;
    if (options.addTag) {
        const QString& file = *options.addTag;
        bool added = false;
        if (Tags::isClip(file) && isFile(file)) {
            try {
                const QString stored = tags.add(file);
                write(stdout,
                      QStringLiteral("%1  %2\n")
                          .arg(StatusTexts::tagAdded(Tags::name(stored)), StatusTexts::kArmed));
                added = true;
            } catch (const std::exception& error) {
                write(stderr, QStringLiteral("zelkor-tag: %1\n").arg(describeError(error)));
            }
        }
        if (!added) {
            write(stdout,
                  QStringLiteral("%1  %2\n").arg(Names::fileName(file), StatusTexts::kCantAddTag));
            status = kExitFailed;
        }
    }
    if (options.selectTag) {
        const QStringList clips = Tags::all();
        const auto found = std::find_if(clips.begin(), clips.end(), [&](const QString& clip) {
            return Names::fileName(clip) == *options.selectTag;
        });
        if (found == clips.end()) {
            write(stderr, QStringLiteral("zelkor-tag: no tag named '%1' in the library\n")
                              .arg(*options.selectTag));
            status = kExitFailed;
        } else {
            try {
                tags.setSelected(*found);
                write(stdout, StatusTexts::tagSelected(Tags::name(*found)) + QLatin1Char('\n'));
            } catch (const TagError& error) {
                write(stderr, QStringLiteral("zelkor-tag: %1\n").arg(error.errorDescription()));
                status = kExitFailed;
            }
        }
    }
    if (options.listTags) {
        const QStringList clips = changing ? Tags::all() : tags.allAsSeeded();
        const std::optional<QString> selected = tags.selectedAmong(clips);
        for (const QString& clip : clips)
            write(stdout, QStringLiteral("%1 %2\n")
                              .arg(clip == selected ? QLatin1Char('*') : QLatin1Char(' '))
                              .arg(Names::fileName(clip)));
    }
    return status;
}

bool chooseClip(const Options& options, Engine::Job& job) {
    PreferencesFile preferences(PreferencesFile::userPath());
    std::optional<QString> chosen = options.tag;
    if (!chosen) {
        HomeTrash trash(HomeTrash::userFolder());
        Tags tags(preferences, trash);
        tags.seedDefaults();
        chosen = tags.selected();
    }
    if (!chosen) {
        write(options.json ? stderr : stdout,
              QStringLiteral("%1  %2\n").arg(StatusTexts::kAddTagFirst, StatusTexts::kNoTag));
        return false;
    }
    if (!isFile(*chosen)) {
        write(stderr, QStringLiteral("zelkor-tag: no tag clip at '%1'\n").arg(*chosen));
        return false;
    }
    const Settings settings(preferences);
    job.clip = *chosen;
    job.interval = options.interval.value_or(settings.interval());
    job.levelDB = options.levelDB.value_or(settings.levelDB());
    return true;
}

} // namespace Cli
