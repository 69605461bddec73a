// Event sounds from the freedesktop sound theme, played through libcanberra.
#include "platform/Sounds.h"

#include "platform/AppName.h"

#include <QDir>
#include <QFileInfo>

#ifdef ZELKOR_HAVE_CANBERRA
#include <canberra.h>
#include <dlfcn.h>
#endif

QString themeEvent(const QString& name) {
    if (name == QLatin1String("Glass"))
        return QStringLiteral("complete");
    if (name == QLatin1String("Basso"))
        return QStringLiteral("dialog-error");
    return {};
}

namespace {

#ifdef ZELKOR_HAVE_CANBERRA

// Without a server or a device, ALSA prints its failures to standard error.
bool soundOutputExists() {
    if (!qEnvironmentVariableIsEmpty("PULSE_SERVER"))
        return true;
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!runtime.isEmpty() && (QFileInfo::exists(runtime + QStringLiteral("/pulse/native")) ||
                               QFileInfo::exists(runtime + QStringLiteral("/pipewire-0"))))
        return true;
    return !QDir(QStringLiteral("/dev/snd"))
                .entryList({QStringLiteral("pcmC*p")}, QDir::System)
                .isEmpty();
}

void ignoreAlsaError(const char*, int, const char*, int, const char*, ...) {}

// A device that exists but fails still makes ALSA print; its error handler is
// process-wide, and libasound is the library libcanberra's ALSA driver loads.
void silenceAlsa() {
    using Handler = void (*)(const char*, int, const char*, int, const char*, ...);
    void* alsa = dlopen("libasound.so.2", RTLD_NOW | RTLD_GLOBAL);
    if (!alsa)
        return;
    if (auto set = reinterpret_cast<int (*)(Handler)>(dlsym(alsa, "snd_lib_error_set_handler")))
        set(&ignoreAlsaError);
}

class ThemeSounds final : public Sounds {
public:
    ~ThemeSounds() override {
        if (m_context)
            ca_context_destroy(m_context);
    }

    void play(const QString& name) override {
        const QString event = themeEvent(name);
        if (event.isEmpty() || !soundOutputExists() || !context())
            return;
        ca_context_play(m_context, 0, CA_PROP_EVENT_ID, event.toUtf8().constData(), nullptr);
    }

private:
    ca_context* context() {
        if (!m_context && !m_failed) {
            silenceAlsa();
            m_failed = ca_context_create(&m_context) != CA_SUCCESS;
            if (!m_failed)
                ca_context_change_props(m_context, CA_PROP_APPLICATION_NAME,
                                        QString(appName).toUtf8().constData(), nullptr);
        }
        return m_context;
    }

    ca_context* m_context = nullptr;
    bool m_failed = false;
};

#else

class ThemeSounds final : public Sounds {
public:
    void play(const QString&) override {}
};

#endif

} // namespace

std::unique_ptr<Sounds> makeThemeSounds() {
    return std::make_unique<ThemeSounds>();
}
