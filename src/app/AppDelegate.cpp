// Launching: fonts, the tag library, the window with its view, pending files
// and the snapshot mode.
#include "app/AppDelegate.h"

#include "app/DesktopProgress.h"
#include "app/FrameAutosave.h"
#include "app/MenuBar.h"
#include "app/WindowController.h"

#include "base/CommandLine.h"
#include "base/Names.h"
#include "base/TagError.h"
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
#include <QLayout>
#include <QMainWindow>
#include <QPainter>
#include <QPalette>
#include <QPointer>
#include <QProxyStyle>
#include <QSaveFile>
#include <QScreen>
#include <QStyleFactory>
#include <QStyleOptionMenuItem>
#include <QWindow>
#include <cmath>
#include <cstdio>

LaunchOptions parseArguments(const QStringList& arguments) {
    using Kind = CommandLine::Refusal::Kind;
    LaunchOptions options;
    const QString noSnapshot = QStringLiteral("--snapshot needs the PATH of a PNG file");
    const auto take = [&](const CommandLine::Option& option,
                          const QString& value) -> std::optional<QString> {
        if (option.letter == 'h')
            options.help = true;
        else if (option.name == QLatin1String("version"))
            options.version = true;
        else if (value.isEmpty())
            return noSnapshot;
        else if (!options.snapshot) // the first counts
            options.snapshot = value;
        return std::nullopt;
    };
    const std::optional<CommandLine::Refusal> refusal = CommandLine::read(
        arguments.mid(1),
        {{'h', QLatin1String("help"), false},
         {0, QLatin1String("version"), false},
         {0, QLatin1String("snapshot"), true}},
        false, take, [&options](const QString& file) { options.files << Names::absolute(file); });
    if (refusal)
        options.error = refusal->kind == Kind::needsValue || refusal->kind == Kind::refused
                            ? noSnapshot
                            : QStringLiteral("unknown option '%1'").arg(refusal->argument);
    return options;
}

QString launchUsage() {
    return QStringLiteral(
        "Usage: zelkor [--snapshot PATH] [--] [FILE|FOLDER]...\n"
        "\n"
        "Opens the window, which lays the selected voice tag over every MP3 and WAV\n"
        "track given (files and folders) and writes \"NAME (Tagged).EXT\" next to each.\n"
        "When the window is already open, the files go to it.\n"
        "\n"
        "  --snapshot PATH  draw the window into a PNG file at PATH and quit\n"
        "  --help           show this help\n"
        "  --version        show the version\n"
        "\n"
        "Exit status: 0 when the window closed normally, 1 when it could not open or\n"
        "the snapshot could not be written, 2 for a usage error.\n");
}

namespace {

// Fusion with menus that read on a dark desktop: Fusion draws a menu's
// separators and border darker than the menu, which on near-black is no line
// at all, and its background barely lighter than the window.
class DarkStyle final : public QProxyStyle {
public:
    DarkStyle()
        : QProxyStyle(QStyleFactory::create(QStringLiteral("Fusion"))) {}

    void drawPrimitive(PrimitiveElement element, const QStyleOption* option, QPainter* painter,
                       const QWidget* widget) const override {
        if (element != PE_PanelMenu) {
            QProxyStyle::drawPrimitive(element, option, painter, widget);
            return;
        }
        painter->save();
        painter->setPen(kMenuBorder);
        painter->setBrush(kMenuBackground);
        painter->drawRect(option->rect.adjusted(0, 0, -1, -1));
        painter->restore();
    }

    void drawControl(ControlElement element, const QStyleOption* option, QPainter* painter,
                     const QWidget* widget) const override {
        const auto* item = qstyleoption_cast<const QStyleOptionMenuItem*>(option);
        if (element != CE_MenuItem || !item ||
            item->menuItemType != QStyleOptionMenuItem::Separator) {
            QProxyStyle::drawControl(element, option, painter, widget);
            return;
        }
        const QRectF r = item->rect;
        const double y = std::floor(r.center().y()) + 0.5;
        painter->save();
        painter->setPen(kMenuSeparator);
        painter->drawLine(QPointF(r.left() + kSeparatorMargin, y),
                          QPointF(r.right() - kSeparatorMargin, y));
        painter->restore();
    }

private:
    static constexpr int kSeparatorMargin = 5;
    inline static const QColor kMenuBackground = Style::rgb(0x1E1E1E);
    inline static const QColor kMenuBorder = Style::rgb(0x505050);
    inline static const QColor kMenuSeparator = Style::rgb(0x3C3C3C);
};

} // namespace

void applyDarkAppearance() {
    using Style::black;
    using Style::dim;
    using Style::purple;
    using Style::white;
    QApplication::setStyle(new DarkStyle);
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
    if (m_controller)
        m_controller->start(paths);
    else
        m_pending << paths;
}

void AppDelegate::didFinishLaunching() {
    Style::registerFonts();
    Tags(*m_services.preferences, *m_services.trash).seedDefaults();
    buildWindow();
    activate();
    if (!m_pending.isEmpty())
        m_controller->start(std::exchange(m_pending, {}));
    if (m_snapshot)
        writeSnapshot(*m_snapshot);
}

void AppDelegate::buildWindow() {
    m_window = std::make_unique<QMainWindow>();
    // Titled, closable and minimisable; no maximise, no resizing.
    m_window->setWindowFlags(Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint |
                             Qt::WindowSystemMenuHint | Qt::WindowMinimizeButtonHint |
                             Qt::WindowCloseButtonHint);
    m_hud = new HUDView;
    m_controller = std::make_unique<WindowController>(
        *m_hud, WindowController::Services{*m_services.sounds, *m_services.fileViewer,
                                           *m_services.preferences, *m_services.trash,
                                           *m_services.menus, *m_services.panels});
    m_hud->setFixedSize(HUDView::kSize);
    m_window->setWindowTitle(appName);
    QPalette palette = m_window->palette();
    palette.setColor(QPalette::Window, Style::black);
    m_window->setPalette(palette);
    m_window->setAutoFillBackground(true);
    m_window->setCentralWidget(m_hud);
    // Before the size is fixed and the window centred: the bar adds to its height.
    installMenuBar(*m_window, *m_controller);
    new DesktopProgress(*m_window, *m_controller);
    m_window->layout()->setSizeConstraint(QLayout::SetFixedSize);
    m_window->adjustSize();
    // The frame is centred, where the platform can tell its margins before showing.
    m_window->winId();
    const QMargins margins = m_window->windowHandle()->frameMargins();
    if (const QScreen* screen = m_window->screen()) {
        // On a small screen the view is drawn smaller rather than cut off.
        const double scale = HUDLayout::fitScale(HUDView::kSize, m_window->size().grownBy(margins),
                                                 screen->availableGeometry().size());
        if (scale < 1) {
            m_hud->setScale(scale);
            m_window->adjustSize();
        }
        m_window->move(screen->availableGeometry().center() -
                       QRect(QPoint(), m_window->size().grownBy(margins)).center());
    }
    (new FrameAutosave(
         *m_window, QStringLiteral("ZelkorMain"), *m_services.preferences,
         [controller = QPointer<WindowController>(m_controller.get())](const TagError& error) {
             if (controller)
                 controller->logFailure(error);
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
    const QString target = Names::absolute(path);
    const QImage image = m_hud->snapshot(m_hud->devicePixelRatioF());
    QByteArray png;
    QBuffer buffer(&png);
    QString failure;
    if (!buffer.open(QIODevice::WriteOnly) || !image.save(&buffer, "PNG")) {
        failure = QStringLiteral("the image could not be encoded");
    } else {
        // Whole or not at all, and unbuffered so that a failed write is seen here
        // rather than lost in a flush: a failure leaves what was there before.
        QSaveFile file(target);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Unbuffered) ||
            file.write(png) != png.size() || !file.commit())
            failure = file.errorString();
    }
    if (failure.isEmpty()) {
        QCoreApplication::quit();
        return;
    }
    std::fputs(
        qUtf8Printable(
            QStringLiteral("zelkor: can't write the snapshot %1: %2\n").arg(target, failure)),
        stderr);
    QCoreApplication::exit(1);
}
