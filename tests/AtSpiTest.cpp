// What a screen reader gets of the window: the real program on an X server and
// a session bus of the test's own, its tree walked over AT-SPI as Orca walks it.
#include "support/FreshHome.h"

#include <QtDBus>
#include <csignal>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kWaitMs = 30'000, kCallMs = 5000;
constexpr int kStartMs = 120'000; // the program joining; seen beyond 30 s on a loaded machine
const QString kAccessible = u"org.a11y.atspi.Accessible"_s,
              kProperties = u"org.freedesktop.DBus.Properties"_s;
// AtspiStateType bits (a reader says "not checked" for a radio button without one); X keysyms.
constexpr int kChecked = 4, kShowing = 25, kTab = 0xff09, kF10 = 0xffc7;

// One object of the tree, asked for what Orca asks.
struct Node {
    QDBusConnection bus{QString()};
    QString service, path;

    QVariant call(const QString& interface, const QString& method, const QVariantList& args = {},
                  const QString& object = {}) const {
        QDBusMessage message = QDBusMessage::createMethodCall(
            service, object.isEmpty() ? path : object, interface, method);
        message.setArguments(args);
        const QDBusMessage reply = bus.call(message, QDBus::Block, kCallMs);
        return reply.type() == QDBusMessage::ReplyMessage ? reply.arguments().value(0) : QVariant();
    }
    QVariant get(const QString& interface, const QString& name) const {
        return call(kProperties, u"Get"_s, {interface, name}).value<QDBusVariant>().variant();
    }
    bool has(int state) const {
        const auto set = qdbus_cast<QList<uint>>(call(kAccessible, u"GetState"_s));
        return set.size() == 2 && (set[state / 32] >> (state % 32) & 1);
    }
    QList<Node> children() const {
        QList<Node> found; // none when gone, or never there
        for (const auto& [owner, object] : qdbus_cast<QList<std::pair<QString, QDBusObjectPath>>>(
                 call(kAccessible, u"GetChildren"_s)))
            found.push_back({bus, owner, object.path()});
        return found;
    }
    // "role: name (description) current/maximum <first action> checked hidden"
    QString line() const {
        QString seen = call(kAccessible, u"GetRoleName"_s).toString() + u": "_s +
                       get(kAccessible, u"Name"_s).toString();
        if (const QString about = get(kAccessible, u"Description"_s).toString(); !about.isEmpty())
            seen += u" ("_s + about + u')';
        const QStringList interfaces = call(kAccessible, u"GetInterfaces"_s).toStringList();
        const QString value = u"org.a11y.atspi.Value"_s;
        if (interfaces.contains(value))
            seen += u" %1/%2"_s.arg(get(value, u"CurrentValue"_s).toDouble())
                        .arg(get(value, u"MaximumValue"_s).toDouble());
        if (const QString action = call(u"org.a11y.atspi.Action"_s, u"GetName"_s, {0}).toString();
            !action.isEmpty())
            seen += u" <"_s + action + u'>';
        return seen + (has(kChecked) ? u" checked"_s : u""_s) +
               (has(kShowing) ? u""_s : u" hidden"_s);
    }
    // This and all below, indented by depth; the menus are Qt's own, left out.
    QStringList tree(int depth = 0) const {
        QStringList lines{QString(depth * 2, u' ') + line()};
        if (!lines.front().contains(u"menu bar:"_s))
            for (const Node& child : children())
                lines << child.tree(depth + 1);
        return lines;
    }
};

// This process's children: its own, and the orphans of theirs it adopted.
std::vector<pid_t> children() {
    std::vector<pid_t> found;
    for (const QString& entry : QDir(u"/proc"_s).entryList(QDir::Dirs)) {
        const QByteArray stat = ::Test::readAll(u"/proc/"_s + entry + u"/stat"_s);
        // "pid (name) state ppid ...", where the name may hold anything.
        const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
        if (fields.size() > 1 && fields[1].toInt() == getpid())
            found.push_back(entry.toInt());
    }
    return found;
}

class AtSpi : public testing::Test {
protected:
    void SetUp() override {
        static int argc = 1;
        static char name[] = "zelkor-test";
        static char* argv[] = {name, nullptr};
        static QCoreApplication app(argc, argv); // for D-Bus
        // Orphans of the buses' own children come here, to be checked they end.
        ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        home.useOwnRuntime();
        environment = QProcessEnvironment::systemEnvironment();
        ::Test::makeAudio(home.tagsDir() + u"/voice.wav"_s, u"sine=frequency=1000"_s, 0.5, 8000, 1);
        ASSERT_EQ(::Test::zelkorTag({u"--select-tag"_s, u"voice.wav"_s}).status, 0);
        ::Test::writeFile(track, "not audio");

        // Without -noreset the server starts afresh when its last client leaves, such as the
        // accessibility bus's launcher reading the display, and refuses the program meanwhile.
        const QString display =
            start(x, u"Xvfb"_s, {u"-displayfd"_s, u"1"_s, u"-nolisten"_s, u"tcp"_s, u"-noreset"_s});
        environment.insert(u"DISPLAY"_s, u':' + display);
        // Its socket, or why there is none.
        EXPECT_TRUE(::Test::waitUntil(
            [&] { return QFileInfo::exists(u"/tmp/.X11-unix/X"_s + display); }, kWaitMs))
            << x.readAllStandardError().constData();
        const QString session =
            start(bus, u"dbus-daemon"_s, {u"--session"_s, u"--nofork"_s, u"--print-address=1"_s});
        environment.insert(u"DBUS_SESSION_BUS_ADDRESS"_s, session);
        environment.insert(u"QT_QPA_PLATFORM"_s, u"xcb"_s);
        const Node launcher{QDBusConnection::connectToBus(session, u"session"_s), u"org.a11y.Bus"_s,
                            u"/org/a11y/bus"_s};
        // What a screen reader does as it starts: the program then joins.
        launcher.call(
            kProperties, u"Set"_s,
            {u"org.a11y.Status"_s, u"IsEnabled"_s, QVariant::fromValue(QDBusVariant(true))});
        accessibility = launcher.call(u"org.a11y.Bus"_s, u"GetAddress"_s).toString();
        zelkor.setProcessEnvironment(environment);
        zelkor.start(::Test::binary(u"zelkor"_s), {track});
        ASSERT_TRUE(zelkor.waitForStarted(kWaitMs));
        registry = {QDBusConnection::connectToBus(accessibility, u"a11y"_s),
                    u"org.a11y.atspi.Registry"_s, u"/org/a11y/atspi/accessible/root"_s};
    }

    void TearDown() override {
        for (QProcess* process : {&monitor, &zelkor, &bus, &x}) {
            process->terminate();
            if (!process->waitForFinished(kWaitMs))
                process->kill();
        }
        QDBusConnection::disconnectFromBus(u"a11y"_s);
        QDBusConnection::disconnectFromBus(u"session"_s);
        const auto reaped = [](int signal) {
            for (const pid_t child : children())
                (void)(signal && kill(child, signal)), waitpid(child, nullptr, WNOHANG);
            return children().empty();
        };
        EXPECT_TRUE(::Test::waitUntil([&] { return reaped(0); }, kWaitMs)) << "processes left over";
        ::Test::waitUntil([&] { return reaped(SIGKILL); }, kWaitMs); // the rest, and theirs
    }

    // Starts `program` and returns the first line it prints.
    QString start(QProcess& process, const QString& program, const QStringList& args) {
        process.setProcessEnvironment(environment);
        process.start(program, args);
        EXPECT_TRUE(::Test::waitUntil(
            [&] { return process.waitForReadyRead(100), process.canReadLine(); }, kWaitMs))
            << program.toStdString() << " did not start";
        return QString::fromUtf8(process.readLine()).trimmed();
    }

    // Types the key `keysym` into the display, as a reader's own keys would.
    void press(int keysym) {
        registry.call(u"org.a11y.atspi.DeviceEventController"_s, u"GenerateKeyboardEvent"_s,
                      {keysym, QString(), uint(3)}, // KEY_SYM: type it
                      u"/org/a11y/atspi/registry/deviceeventcontroller"_s);
    }

    // The window's frame, once the program (the bus's only one) has joined the registry.
    Node frame() {
        EXPECT_TRUE(::Test::waitUntil([&] { return registry.children().size() == 1; }, kStartMs))
            << zelkor.readAllStandardError().constData() << x.readAllStandardError().constData();
        return registry.children().value(0).children().value(0);
    }

    ::Test::FreshHome home;
    const QString track = home.root() + u"/b.wav"_s;
    QProcessEnvironment environment;
    QProcess x, bus, zelkor, monitor;
    QString accessibility; // the accessibility bus's address
    Node registry;
};

} // namespace

// A batch at launch with a track that fails: every control, the counter and the
// log reach the reader; its press acts, Tab is heard, F10 opens the first menu.
TEST_F(AtSpi, aScreenReaderReadsEveryControlAndActsThroughIt) {
    const Node window = frame();
    QStringList expected{
        u"frame: ODRAVEX Zelkor"_s,
        u"  filler: ODRAVEX Zelkor <SetFocus>"_s,
        u"    button menu: TAG (VOICE) <ShowMenu>"_s,
        u"    push button: + ADD TAG <Press>"_s,
        u"    push button: DROP (MP3 / WAV \u2014 ONE FILE OR MANY. OR CLICK TO CHOOSE) <Press>"_s,
        u"    progress bar: PROCESSING (01/01) 1/1 <Increase> hidden"_s,
        u"    panel: INTERVAL"_s,
        u"      radio button: 20S <Press>"_s,
        u"      radio button: 30S <Press> checked"_s,
        u"      radio button: 45S <Press>"_s,
        u"      radio button: 60S <Press>"_s,
        u"    panel: LEVEL"_s,
        u"      radio button: LOW <Press>"_s,
        u"      radio button: MID <Press> checked"_s,
        u"      radio button: HIGH <Press>"_s,
        u"    list: LOG"_s,
        u"      list item: b.wav, CAN'T READ FILE: INVALID DATA FOUND WHEN PROCESSING INPUT"_s,
        u"      list item: BATCH 1: 0 OF 1 TAGGED, 1 FAILED"_s,
        u"  menu bar: "_s,
    };
    QStringList seen;
    ::Test::waitUntil([&] { return (seen = window.tree()) == expected; }, kWaitMs);
    EXPECT_EQ(seen, expected);

    EXPECT_TRUE(window.children()
                    .value(0)
                    .children()
                    .value(5)
                    .children()
                    .value(2)
                    .call(u"org.a11y.atspi.Action"_s, u"DoAction"_s, {0})
                    .toBool()); // HIGH
    expected[13].chop(u" checked"_s.size());
    expected[14] += u" checked"_s;
    EXPECT_EQ(window.tree(), expected);

    // The reader follows the keyboard by the focus events it asked for.
    start(monitor, u"dbus-monitor"_s,
          {u"--address"_s, accessibility, u"interface='org.a11y.atspi.Event.Focus'"_s});
    registry.call(u"org.a11y.atspi.Registry"_s, u"RegisterEvent"_s,
                  {u"focus:"_s, QStringList(), QString()}, u"/org/a11y/atspi/registry"_s);
    press(kTab);
    const QByteArray tagField = window.children().value(0).children().value(0).path.toUtf8();
    QByteArray heard;
    EXPECT_TRUE(::Test::waitUntil(
        [&] { return (heard += monitor.readAll()).contains(tagField + "; interface"); }, kWaitMs))
        << heard.constData();

    const Node firstMenu = window.children().value(1).children().value(0).children().value(0);
    EXPECT_FALSE(firstMenu.has(kShowing));
    press(kF10);
    EXPECT_TRUE(::Test::waitUntil([&] { return firstMenu.has(kShowing); }, kWaitMs));
}
