// Launching: fonts, the tag library, the window with its view, pending files
// and the snapshot mode.
#include "app/AppDelegate.h"

#include "app/FrameAutosave.h"
#include "app/MenuBar.h"

#include "engine/Batch.h"
#include "engine/TagError.h"
#include "model/Tags.h"
#include "platform/AppName.h"
#include "platform/FileViewer.h"
#include "platform/Menus.h"
#include "platform/OpenPanels.h"
#include "platform/Preferences.h"
#include "platform/Sounds.h"
#include "platform/Trash.h"
#include "style/Fonts.h"
#include "style/Palette.h"
#include "view/HUDView.h"

#include <QApplication>
#include <QBuffer>
#include <QFile>
#include <QFileInfo>
#include <QLayout>
#include <QMainWindow>
#include <QPalette>
#include <QPointer>
#include <QScreen>
#include <QStyleFactory>

LaunchOptions parseArguments(const QStringList& arguments) {
    LaunchOptions options;
    const QString flag = QStringLiteral("--snapshot");
    const qsizetype at = arguments.indexOf(flag);
    if (at >= 0 && at + 1 < arguments.size())
        options.snapshot = arguments[at + 1];
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        if (i == at) {
            ++i; // the snapshot's path is not a file to process
            continue;
        }
        options.files << QFileInfo(arguments[i]).absoluteFilePath();
    }
    return options;
}

void applyDarkAppearance() {
    using Style::black;
    using Style::dim;
    using Style::purple;
    using Style::white;
    QApplication::setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
    const QColor raised = Style::rgb(0x1A1A1A);
    const QColor base = Style::rgb(0x101010);
    QPalette palette;
    palette.setColor(QPalette::Window, black);
    palette.setColor(QPalette::WindowText, white);
    palette.setColor(QPalette::Base, base);
    palette.setColor(QPalette::AlternateBase, raised);
    palette.setColor(QPalette::Text, white);
    palette.setColor(QPalette::Button, raised);
    palette.setColor(QPalette::ButtonText, white);
    palette.setColor(QPalette::ToolTipBase, raised);
    palette.setColor(QPalette::ToolTipText, white);
    palette.setColor(QPalette::PlaceholderText, dim);
    palette.setColor(QPalette::Highlight, purple);
    palette.setColor(QPalette::HighlightedText, white);
    palette.setColor(QPalette::Link, purple);
    palette.setColor(QPalette::BrightText, Style::errColor);
    for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        palette.setColor(QPalette::Disabled, role, dim);
    QApplication::setPalette(palette);
}

AppDelegate::AppDelegate(Services services, std::optional<QString> snapshot)
    : m_services(std::move(services))
    , m_snapshot(std::move(snapshot)) {}

AppDelegate::~AppDelegate() = default;

void AppDelegate::open(const QStringList& paths) {
    if (m_hud)
        m_hud->start(paths);
    else
        m_pending << paths;
}

void AppDelegate::didFinishLaunching() {
    Style::registerFonts();
    Tags(*m_services.preferences, *m_services.trash).seedDefaults();
    buildWindow();
    installMenuBar(*m_window);
    activate();
    if (!m_pending.isEmpty())
        m_hud->start(std::exchange(m_pending, {}));
    if (m_snapshot)
        writeSnapshot(*m_snapshot);
}

void AppDelegate::buildWindow() {
    m_window = std::make_unique<QMainWindow>();
    // Titled, closable and minimisable; no maximise, no resizing.
    m_window->setWindowFlags(Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint |
                             Qt::WindowSystemMenuHint | Qt::WindowMinimizeButtonHint |
                             Qt::WindowCloseButtonHint);
    m_hud = new HUDView({*m_services.sounds, *m_services.fileViewer, *m_services.preferences,
                         *m_services.trash, m_batch, *m_services.menus, *m_services.panels});
    m_hud->setFixedSize(HUDView::kSize);
    m_window->setWindowTitle(appName);
    QPalette palette = m_window->palette();
    palette.setColor(QPalette::Window, Style::black);
    m_window->setPalette(palette);
    m_window->setAutoFillBackground(true);
    m_window->setCentralWidget(m_hud);
    m_window->layout()->setSizeConstraint(QLayout::SetFixedSize);
    m_window->adjustSize();
    if (const QScreen* screen = m_window->screen())
        m_window->move(screen->availableGeometry().center() - m_window->rect().center());
    (new FrameAutosave(*m_window, QStringLiteral("ZelkorMain"), *m_services.preferences,
                       [hud = QPointer<HUDView>(m_hud)](const TagError& error) {
                           if (hud)
                               hud->logFailure(error);
                       }))
        ->restore();
    m_window->show();
}

void AppDelegate::activate() {
    if (!m_window)
        return;
    if (m_window->isMinimized())
        m_window->showNormal();
    m_window->raise();
    m_window->activateWindow();
}

void AppDelegate::writeSnapshot(const QString& path) {
    const QImage image = m_hud->snapshot(m_hud->devicePixelRatioF());
    QByteArray png;
    QBuffer buffer(&png);
    if (buffer.open(QIODevice::WriteOnly) && image.save(&buffer, "PNG")) {
        QFile file(QFileInfo(path).absoluteFilePath());
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            file.write(png);
    }
    QCoreApplication::quit();
}
