#include "support/RefusedPort.h"
#include "support/TestSettings.h"
#include "support/TestWindow.h"

#include <QApplication>
#include <QFile>
#include <QLabel>
#include <QProcess>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSettings>
#include <QSystemTrayIcon>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <csignal>

using namespace Qt::StringLiterals;

namespace {

constexpr int kPatienceMs = 30000; // only a test that fails waits for so long
constexpr int kLargestIcon = 64;   // what a tray shows is smaller than any other window

/** What a program that works the desktop prints; empty if it fails. */
QString ask(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(kPatienceMs))
        qFatal("%s does not answer", qPrintable(program));
    return process.exitCode() == 0 ? QString::fromLocal8Bit(process.readAllStandardOutput()) : QString();
}

QStringList linesOf(const QString &text) { return text.split(u'\n', Qt::SkipEmptyParts); }

/** A window as the display knows it. */
QRect frameOf(const QString &window)
{
    const auto number = [said = ask(u"xwininfo"_s, {u"-id"_s, window})](const QString &caption) {
        const QRegularExpression line(caption + u":\\s*(-?\\d+)"_s);
        return line.match(said).captured(1).toInt();
    };
    return {number(u"Absolute upper-left X"_s), number(u"Absolute upper-left Y"_s), number(u"Width"_s),
            number(u"Height"_s)};
}

/** The windows of a process that the window manager looks after; none while it is in the tray. */
QStringList managedWindows(qint64 pid)
{
    QStringList found;
    for (const QString &line : linesOf(ask(u"wmctrl"_s, {u"-lp"_s}))) {
        const QStringList words = line.simplified().split(u' ');
        if (words.value(2) == QString::number(pid))
            found += words.first();
    }
    return found;
}

/** Every other window of it that can be seen: its icon in the tray, a balloon, an open menu. */
QList<QRect> looseWindows(qint64 pid)
{
    QList<qulonglong> managed;
    for (const QString &window : managedWindows(pid))
        managed += window.toULongLong(nullptr, 16);
    QList<QRect> found;
    const QString all =
        ask(u"xdotool"_s, {u"search"_s, u"--onlyvisible"_s, u"--pid"_s, QString::number(pid)});
    for (const QString &window : linesOf(all)) {
        if (!managed.contains(window.toULongLong()))
            found += frameOf(window);
    }
    return found;
}

bool isIcon(const QRect &window)
{
    return window.width() > 1 && window.width() <= kLargestIcon && window.height() <= kLargestIcon;
}

QRect iconOf(qint64 pid)
{
    const QList<QRect> windows = looseWindows(pid);
    const auto icon = std::find_if(windows.cbegin(), windows.cend(), isIcon);
    return icon == windows.cend() ? QRect() : *icon;
}

/** A balloon or an open menu. */
QRect popUpOf(qint64 pid)
{
    for (const QRect &window : looseWindows(pid)) {
        if (window.width() > kLargestIcon && window.height() > 1)
            return window;
    }
    return {};
}

void clickAt(QPoint at, int button = 1)
{
    ask(u"xdotool"_s, {u"mousemove"_s, QString::number(at.x()), QString::number(at.y()), u"click"_s,
                       QString::number(button)});
}

WId activeWindow() { return ask(u"xdotool"_s, {u"getactivewindow"_s}).trimmed().toULongLong(); }

/** The cross in the title bar, as far as the program can tell. */
void closeByManager(const QString &window) { ask(u"wmctrl"_s, {u"-i"_s, u"-c"_s, window}); }

/** The program itself, on the screen of the test or on another. */
class Program
{
public:
    explicit Program(const QStringList &variables = {})
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        for (const QString &variable : variables)
            environment.insert(variable.section(u'=', 0, 0), variable.section(u'=', 1));
        process.setProcessEnvironment(environment);
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(QStringLiteral(KELPWHARF_PROGRAM), QStringList());
        if (!process.waitForStarted(kPatienceMs))
            qFatal("the program does not start");
    }

    ~Program()
    {
        process.kill();
        process.waitForFinished(kPatienceMs);
    }
    Q_DISABLE_COPY_MOVE(Program)

    qint64 pid() const { return process.processId(); }
    QString window() const { return managedWindows(pid()).value(0); }
    bool isShown() const { return !window().isEmpty(); }
    bool isRunning() const { return process.state() == QProcess::Running; }
    void send(int number) const { ::kill(static_cast<pid_t>(pid()), number); }

    /** Waits for the end. Empty if it was a clean one, or what was wrong with it. */
    QString end()
    {
        if (process.state() != QProcess::NotRunning && !process.waitForFinished(kPatienceMs))
            return u"it does not end"_s;
        if (process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0)
            return {};
        return u"it ended with %1: "_s.arg(process.exitCode()) +
               QString::fromLocal8Bit(process.readAllStandardOutput());
    }

private:
    QProcess process;
};

QByteArray storedGeometry(const TestSettings &settings)
{
    return QSettings(settings.filePath(), QSettings::IniFormat).value("geometry").toByteArray();
}

/** The texts of the tray's balloon in this process; none if there is no balloon. */
QStringList balloonTexts()
{
    QStringList texts;
    for (const QWidget *widget : QApplication::topLevelWidgets()) {
        if (!widget->inherits("QBalloonTip") || !widget->isVisible())
            continue;
        for (const auto *label : widget->findChildren<QLabel *>()) {
            if (!label->text().isEmpty())
                texts += label->text();
        }
    }
    return texts;
}

} // namespace

/** On a desktop with a window manager and a tray; its second screen has no tray. */
class TestTray : public QObject
{
    Q_OBJECT

public:
    explicit TestTray(const TestSettings &settings) : settingsFile(settings) {}

private slots:
    void initTestCase();
    void init();
    void closingGoesToTheTrayAndAClickBringsItBack();
    void aFailedRunIsToldOfWhileTheWindowIsHidden();
    void itStaysInTheTrayUntilItsMenuIsAskedToQuit();
    void theNextStartRestoresTheGeometry();
    void aSignalEndsItInTheTray();
    void theEndOfTheSessionEndsIt_data();
    void theEndOfTheSessionEndsIt();
    void withoutATrayClosingEndsIt();

private:
    const TestSettings &settingsFile;
};

void TestTray::initTestCase()
{
    QTRY_VERIFY_WITH_TIMEOUT(QSystemTrayIcon::isSystemTrayAvailable(), kPatienceMs);
}

void TestTray::init()
{
    settingsFile.clear();
    TestJobs::store({TestJobs::weekly(u"alpha"_s)}, {.minimiseToTray = true});
}

void TestTray::closingGoesToTheTrayAndAClickBringsItBack()
{
    TestWindow window;
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    const auto *tray = window.part<QSystemTrayIcon>("tray");
    const QString id = QString::number(window.winId());
    QTRY_VERIFY_WITH_TIMEOUT(isIcon(tray->geometry()), kPatienceMs);
    QVERIFY(balloonTexts().isEmpty());

    QTRY_COMPARE_WITH_TIMEOUT(managedWindows(QCoreApplication::applicationPid()).size(), 1, kPatienceMs);
    closeByManager(id);
    QTRY_VERIFY_WITH_TIMEOUT(!window.isVisible(), kPatienceMs);
    QTRY_COMPARE_WITH_TIMEOUT(
        balloonTexts(),
        QStringList(
            {u"Kelpwharf"_s, u"Still running in the background. Right-click the tray icon to quit."_s}),
        kPatienceMs);
    QTRY_VERIFY_WITH_TIMEOUT(managedWindows(QCoreApplication::applicationPid()).isEmpty(), kPatienceMs);

    clickAt(tray->geometry().center());
    QTRY_VERIFY_WITH_TIMEOUT(window.isVisible(), kPatienceMs);
    QTRY_COMPARE_WITH_TIMEOUT(activeWindow(), window.winId(), kPatienceMs);
    QVERIFY(!window.isMinimized());
    clickAt(tray->geometry().center());
    QTRY_VERIFY_WITH_TIMEOUT(!window.isVisible(), kPatienceMs);
    clickAt(tray->geometry().center(), 2); // no other button does anything
    clickAt(tray->geometry().center());
    QTRY_VERIFY_WITH_TIMEOUT(window.isVisible(), kPatienceMs);
    QTRY_COMPARE_WITH_TIMEOUT(activeWindow(), window.winId(), kPatienceMs);
    QCOMPARE(window.log(), QStringList{u"Ready. 1 job configured."_s}); // it was the same one all the time
}

void TestTray::aFailedRunIsToldOfWhileTheWindowIsHidden()
{
    const RefusedPort refused;
    const QTemporaryDir local;
    SyncJob job = TestJobs::named(u"<i>alpha</i>"_s);
    job.config.port = refused.number();
    job.config.localDir = local.path();
    TestJobs::store({job}, {.minimiseToTray = true});
    TestWindow window;
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    const auto *tray = window.part<QSystemTrayIcon>("tray");
    QTRY_VERIFY_WITH_TIMEOUT(isIcon(tray->geometry()), kPatienceMs);

    window.press("syncButton");
    QTRY_VERIFY_WITH_TIMEOUT(window.isPressable("syncButton"), kPatienceMs);
    QVERIFY(balloonTexts().isEmpty()); // who looks at the window needs none

    clickAt(tray->geometry().center());
    QTRY_VERIFY_WITH_TIMEOUT(!window.isVisible(), kPatienceMs);
    window.invoke("onSyncAll");
    QTRY_COMPARE_WITH_TIMEOUT(
        balloonTexts(), QStringList({u"Kelpwharf"_s, u"'<i>alpha</i>' reported errors."_s}), kPatienceMs);
    clickAt(tray->geometry().center());
    QTRY_VERIFY_WITH_TIMEOUT(window.isVisible(), kPatienceMs);
    QVERIFY(window.log().last().startsWith(u"[<i>alpha</i>] Finished with problems: "_s));
}

void TestTray::itStaysInTheTrayUntilItsMenuIsAskedToQuit()
{
    Program program;
    QTRY_VERIFY_WITH_TIMEOUT(program.isShown(), kPatienceMs);
    QTRY_VERIFY_WITH_TIMEOUT(!iconOf(program.pid()).isEmpty(), kPatienceMs);
    const QRect icon = iconOf(program.pid());
    QVERIFY(popUpOf(program.pid()).isEmpty());

    closeByManager(program.window());
    QTRY_VERIFY_WITH_TIMEOUT(!program.isShown(), kPatienceMs);
    QTRY_VERIFY_WITH_TIMEOUT(!popUpOf(program.pid()).isEmpty(), kPatienceMs); // the balloon
    QVERIFY(program.isRunning());
    QVERIFY(storedGeometry(settingsFile).isEmpty()); // nothing is saved on this way

    clickAt(icon.center());
    QTRY_VERIFY_WITH_TIMEOUT(program.isShown(), kPatienceMs);
    closeByManager(program.window());
    QTRY_VERIFY_WITH_TIMEOUT(!program.isShown(), kPatienceMs);
    QTRY_VERIFY_WITH_TIMEOUT(!popUpOf(program.pid()).isEmpty(), kPatienceMs);
    clickAt(popUpOf(program.pid()).center()); // the balloon is put away by a click
    QTRY_VERIFY_WITH_TIMEOUT(popUpOf(program.pid()).isEmpty(), kPatienceMs);

    clickAt(icon.center(), 3);
    QTRY_VERIFY_WITH_TIMEOUT(!popUpOf(program.pid()).isEmpty(), kPatienceMs);
    QVERIFY(program.isRunning());
    const QRect menu = popUpOf(program.pid());
    clickAt(QPoint(menu.center().x(), menu.bottom() - 12)); // "Quit" is the last entry
    QCOMPARE(program.end(), QString());
    QVERIFY(!storedGeometry(settingsFile).isEmpty());
    QCOMPARE(TestJobs::stored().jobs.size(), 1);
}

void TestTray::theNextStartRestoresTheGeometry()
{
    QRect before;
    {
        Program program;
        QTRY_VERIFY_WITH_TIMEOUT(program.isShown(), kPatienceMs);
        const QString window = program.window();
        const QRect first = frameOf(window);
        ask(u"wmctrl"_s, {u"-i"_s, u"-r"_s, window, u"-e"_s, u"0,137,71,963,811"_s});
        QTRY_COMPARE_WITH_TIMEOUT(frameOf(window).size(), QSize(963, 811), kPatienceMs);
        QTRY_VERIFY_WITH_TIMEOUT(frameOf(window).topLeft() != first.topLeft(), kPatienceMs);
        before = frameOf(window);
        program.send(SIGTERM);
        QCOMPARE(program.end(), QString());
    }
    Program program;
    QTRY_VERIFY_WITH_TIMEOUT(program.isShown(), kPatienceMs);
    QTRY_COMPARE_WITH_TIMEOUT(frameOf(program.window()), before, kPatienceMs);
    program.send(SIGTERM);
    QCOMPARE(program.end(), QString());
}

void TestTray::aSignalEndsItInTheTray()
{
    Program program;
    QTRY_VERIFY_WITH_TIMEOUT(program.isShown() && !iconOf(program.pid()).isEmpty(), kPatienceMs);
    closeByManager(program.window());
    QTRY_VERIFY_WITH_TIMEOUT(!program.isShown(), kPatienceMs);
    QVERIFY(program.isRunning());
    program.send(SIGTERM);
    QCOMPARE(program.end(), QString());
    QVERIFY(!storedGeometry(settingsFile).isEmpty());
}

void TestTray::theEndOfTheSessionEndsIt_data()
{
    QTest::addColumn<bool>("isHidden");
    QTest::newRow("window open") << false;
    QTest::newRow("in the tray") << true;
}

/** With a session manager that tells it so. */
void TestTray::theEndOfTheSessionEndsIt()
{
    QFETCH(const bool, isHidden);
    const QTemporaryDir session;
    const QString authority = session.filePath(u"authority"_s);
    const QString addressFile = session.filePath(u"address"_s);
    QFile startUp(session.filePath(u".xsmstartup"_s));
    QVERIFY(startUp.open(QIODevice::WriteOnly));
    startUp.write("sh -c 'echo $SESSION_MANAGER > " + QFile::encodeName(addressFile) + "'\n");
    startUp.close();

    QProcess manager;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"HOME"_s, session.path());
    environment.insert(u"SM_SAVE_DIR"_s, session.path());
    environment.insert(u"ICEAUTHORITY"_s, authority);
    manager.setProcessEnvironment(environment);
    manager.start(u"xsm"_s, {u"-session"_s, u"test"_s});
    const auto endManager = qScopeGuard([&manager] {
        manager.kill();
        manager.waitForFinished(kPatienceMs);
    });
    QString address;
    const auto hasAddress = [&] {
        QFile file(addressFile);
        address = file.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(file.readAll()) : QString();
        return address.endsWith(u'\n');
    };
    QTRY_VERIFY_WITH_TIMEOUT(hasAddress(), kPatienceMs);

    Program program({u"SESSION_MANAGER="_s + address.trimmed(), u"ICEAUTHORITY="_s + authority});
    QTRY_VERIFY_WITH_TIMEOUT(program.isShown() && !iconOf(program.pid()).isEmpty(), kPatienceMs);
    if (isHidden) {
        closeByManager(program.window());
        QTRY_VERIFY_WITH_TIMEOUT(!program.isShown(), kPatienceMs);
    }
    QVERIFY(program.isRunning());
    manager.terminate(); // upon which it ends the session
    QCOMPARE(program.end(), QString());
    QVERIFY(!storedGeometry(settingsFile).isEmpty());
    QCOMPARE(TestJobs::stored().jobs.size(), 1);
}

void TestTray::withoutATrayClosingEndsIt()
{
    const QByteArray display = qgetenv("DISPLAY");
    const QByteArray other = display.first(display.lastIndexOf('.')) + ".1";
    Program program({u"DISPLAY="_s + QString::fromLatin1(other)});
    qputenv("DISPLAY", other); // for those whom the test asks
    const auto restore = qScopeGuard([&display] { qputenv("DISPLAY", display); });
    QTRY_VERIFY_WITH_TIMEOUT(program.isShown(), kPatienceMs);
    QVERIFY(iconOf(program.pid()).isEmpty());
    closeByManager(program.window());
    QCOMPARE(program.end(), QString());
    QVERIFY(!storedGeometry(settingsFile).isEmpty());
}

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    QGuiApplication::setQuitOnLastWindowClosed(false);
    TestWindow::setIdentity();
    TestTray test(settings);
    return QTest::qExec(&test, argc, argv);
}

#include "tst_Tray.moc"
