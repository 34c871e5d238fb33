#include "support/FileTree.h"
#include "support/FtpScriptServer.h"
#include "support/FtpTreeServer.h"
#include "support/LocalFolder.h"
#include "support/RefusedPort.h"
#include "support/SlowDownload.h"
#include "support/TestWindow.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QProcess>
#include <QRandomGenerator>
#include <QSettings>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <csignal>
#include <memory>

using namespace Qt::StringLiterals;

namespace {

constexpr int kPatienceMs = 60000; // only a test that fails waits for so long
constexpr int kSilentSecs = 60;    // a run that waits for this long holds up the end of the program

/** A home with a settings file. While it is in use(), TestJobs and QSettings refer to that file. */
class Home
{
public:
    Home() { use(); }

    QString path() const { return folder.path(); }
    QString settingsPath() const { return folder.filePath(u"Orrinvale/Kelpwharf.ini"_s); }

    void use() const
    {
        QDir(path()).mkpath(u"Orrinvale"_s);
        QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, path());
    }

    void write(const QByteArray &text) const
    {
        QFile target(settingsPath());
        if (!target.open(QIODevice::WriteOnly) || target.write(text) != text.size())
            qFatal("cannot write the settings");
    }

    QByteArray read() const
    {
        QFile source(settingsPath());
        return source.open(QIODevice::ReadOnly) ? source.readAll() : QByteArray();
    }

    bool hasGeometry() const
    {
        const QSettings store(settingsPath(), QSettings::IniFormat);
        return store.status() == QSettings::NoError && !store.value("geometry").toByteArray().isEmpty();
    }

    int jobCount() const
    {
        QSettings store(settingsPath(), QSettings::IniFormat);
        return store.beginReadArray(u"jobs"_s);
    }

private:
    QTemporaryDir folder;
};

/** The program itself, without a display. */
class Program
{
public:
    explicit Program(const Home &home, const QStringList &arguments = {})
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"HOME"_s, home.path());
        environment.insert(u"XDG_CONFIG_HOME"_s, home.path());
        environment.insert(u"XDG_RUNTIME_DIR"_s, home.path());
        environment.insert(u"QT_QPA_PLATFORM"_s, u"offscreen"_s);
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral(KELPWHARF_PROGRAM), arguments);
        if (!process.waitForStarted(kPatienceMs))
            qFatal("the program does not start");
    }

    ~Program()
    {
        process.kill();
        process.waitForFinished(kPatienceMs);
    }
    Q_DISABLE_COPY_MOVE(Program)

    bool isRunning() const { return process.state() == QProcess::Running; }

    /** Whether it has taken charge of signals, which it does once its window is shown. */
    bool isUp() const
    {
        QFile status(u"/proc/%1/status"_s.arg(process.processId()));
        if (!status.open(QIODevice::ReadOnly))
            return false;
        for (const QByteArray &line : status.readAll().split('\n')) {
            if (line.startsWith("SigCgt:")) {
                const quint64 caught = line.sliced(7).trimmed().toULongLong(nullptr, 16);
                return (caught & (1ULL << (SIGTERM - 1))) && (caught & (1ULL << (SIGINT - 1)));
            }
        }
        return false;
    }

    void send(int number) { ::kill(static_cast<pid_t>(process.processId()), number); }

    /** Waits for the end. Empty if it was a clean one, or what was wrong with it. */
    QString end()
    {
        if (process.state() != QProcess::NotRunning && !process.waitForFinished(kPatienceMs))
            return u"it does not end"_s;
        if (process.exitStatus() != QProcess::NormalExit)
            return u"it was ended by a signal: "_s + words();
        if (process.exitCode() != 0)
            return u"it ended with %1: %2"_s.arg(QString::number(process.exitCode()), words());
        const QString said = words();
        for (const QString &complaint : {u"QThread"_s, u"Sanitizer"_s, u"runtime error"_s, u"QObject"_s}) {
            if (said.contains(complaint))
                return u"it said: "_s + said;
        }
        return {};
    }

private:
    QString words()
    {
        return QString::fromLocal8Bit(process.readAllStandardError() + process.readAllStandardOutput());
    }

    QProcess process;
};

SyncJob job(const QString &name, quint16 port, const QString &remoteDir, const QString &localDir)
{
    SyncJob made = TestJobs::named(name);
    made.config.port = port;
    made.config.user = u"kim"_s;
    made.config.password = u"secret"_s;
    made.config.remoteDir = remoteDir;
    made.config.localDir = localDir;
    made.config.timeout = kSilentSecs * 1000;
    return made;
}

QByteArray noise(qsizetype size)
{
    QRandomGenerator generator(4711); // the same at every run
    QByteArray bytes(size, Qt::Uninitialized);
    for (char &byte : bytes)
        byte = static_cast<char>(generator.bounded(256));
    return bytes;
}

/** A settings file as the program writes it. */
QByteArray soundSettings()
{
    const Home home;
    TestJobs::store({TestJobs::named(u"alpha"_s), TestJobs::weekly(u"beta"_s), TestJobs::named(u"gamma"_s)});
    return home.read();
}

/** Jobs of which nothing is known but their names. */
QByteArray bareSettings(int jobs)
{
    QByteArray text = "[General]\ncheckForUpdates=false\n\n[jobs]\nsize=" + QByteArray::number(jobs) + '\n';
    for (int i = 1; i <= jobs; ++i)
        text += QByteArray::number(i) + "\\name=job " + QByteArray::number(i) + '\n';
    return text;
}

} // namespace

class TestProcess : public QObject
{
    Q_OBJECT

private slots:
    void aSignalEndsIt_data();
    void aSignalEndsIt();
    void autoOnLaunchFiresADueJob();
    void closingDuringADownloadLeavesNoDamage_data();
    void closingDuringADownloadLeavesNoDamage();
    void silentServersDoNotHoldItForLong();
    void damagedSettings_data();
    void damagedSettings();
    void aFolderInPlaceOfTheSettings();
    void twoCopiesShareTheSettings();
};

void TestProcess::aSignalEndsIt_data()
{
    QTest::addColumn<int>("number");
    QTest::addColumn<QStringList>("arguments"); // none of them has a meaning
    QTest::newRow("SIGTERM") << SIGTERM << QStringList();
    QTest::newRow("SIGINT") << SIGINT << QStringList();
    QTest::newRow("SIGTERM, with arguments") << SIGTERM << QStringList{u"--help"_s, u"-v"_s, u"file"_s};
}

void TestProcess::aSignalEndsIt()
{
    QFETCH(const int, number);
    QFETCH(const QStringList, arguments);
    const Home home;
    TestJobs::store({TestJobs::named(u"alpha"_s)}, {.minimiseToTray = true, .verbose = true});
    Program program(home, arguments);
    QTRY_VERIFY_WITH_TIMEOUT(program.isUp(), kPatienceMs);
    QVERIFY(program.isRunning());
    QVERIFY(QFile::remove(home.settingsPath()));
    program.send(number);
    QCOMPARE(program.end(), QString());
    QVERIFY(home.hasGeometry());
    const AppSettings stored = TestJobs::stored();
    QCOMPARE(stored.jobs.size(), 1);
    QCOMPARE(stored.jobs.first().name, u"alpha"_s);
    QVERIFY(stored.verbose);
}

void TestProcess::autoOnLaunchFiresADueJob()
{
    FtpTreeServer server({{"/pub", {remoteFile("a.txt", "alpha", "20240131120000")}}});
    const LocalFolder local;
    const Home home;
    TestJobs::store({TestJobs::weekly(u"later"_s), job(u"due"_s, server.port(), u"/pub"_s, local.path())},
                    {.runOnStart = true});
    const QDateTime before = QDateTime::currentDateTime();
    Program program(home);
    QTRY_VERIFY_WITH_TIMEOUT(TestJobs::stored().jobs.at(1).lastRun.isValid(), kPatienceMs);
    // The file has it while the program runs on.
    const QList<SyncJob> jobs = TestJobs::stored().jobs;
    QVERIFY(program.isRunning());
    QVERIFY(jobs.at(1).lastRun >= before && jobs.at(1).lastRun <= QDateTime::currentDateTime());
    QVERIFY(jobs.at(1).lastOk);
    QCOMPARE(jobs.at(1).lastSummary, u"1 NEW · 0 SAME · 0 DEL · 0 FAIL · 5 B"_s);
    QVERIFY(!jobs.at(0).lastRun.isValid());
    QCOMPARE(local.read(), QStringList({u"a.txt: alpha"_s}));
    QCOMPARE(fileTime(local.filePath(u"a.txt"_s)), "20240131120000");

    program.send(SIGTERM);
    QCOMPARE(program.end(), QString());
    QCOMPARE(TestJobs::stored().jobs.at(1).lastRun, jobs.at(1).lastRun);
    QVERIFY(TestJobs::stored().runOnStart);
    QCOMPARE(server.sessions(), 1);
    server.finish();
}

void TestProcess::closingDuringADownloadLeavesNoDamage_data()
{
    QTest::addColumn<QStringList>("files");
    QTest::newRow("a new file") << QStringList{u"other.txt: mine"_s};
    QTest::newRow("a changed file") << QStringList{u"new.txt: old"_s, u"other.txt: mine"_s};
}

void TestProcess::closingDuringADownloadLeavesNoDamage()
{
    QFETCH(const QStringList, files);
    const SlowDownload server;
    const LocalFolder local(files);
    const Home home;
    TestJobs::store({job(u"alpha"_s, server.port(), u"/texts"_s, local.path())}, {.runOnStart = true});
    Program program(home);
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(local.filePath(u"new.txt.part"_s)).size() > 0, kPatienceMs);
    program.send(SIGTERM);
    QCOMPARE(program.end(), QString());
    QCOMPARE(local.read(), files); // the run had the time to clear up
    QCOMPARE(local.harm(), QString());
    QVERIFY(home.hasGeometry());
    QVERIFY(!TestJobs::stored().jobs.first().lastRun.isValid());
}

/** Each of them holds the worker in a wait that outlasts the program's patience. */
void TestProcess::silentServersDoNotHoldItForLong()
{
    QTcpServer mute; // takes the connection, and that was it
    QVERIFY(mute.listen(QHostAddress::LocalHost));
    std::atomic<bool> isShakingHands = false;
    FtpScriptServer handshake(FtpScript()
                                  .reply(220)
                                  .expect("AUTH TLS")
                                  .reply(234)
                                  .call([&isShakingHands] { isShakingHands = true; })
                                  .hold());
    FtpTreeServer stalling({{"/pub", {remoteFile("new.txt", QByteArray(320000, 'n'))}}},
                           {.faults = {Fault::inData("RETR /pub/new.txt").silence()}});
    const LocalFolder local({u"new.txt: old"_s});

    const Home homes[3];
    const quint16 ports[] = {mute.serverPort(), handshake.port(), stalling.port()};
    std::unique_ptr<Program> programs[3];
    SyncJob stored[3];
    for (int i = 0; i < 3; ++i) {
        homes[i].use();
        stored[i] = job(u"alpha"_s, ports[i], u"/pub"_s, local.path());
        stored[i].config.useTls = i == 1;
        stored[i].lastRun = QDateTime(QDate(2024, 5, 1), QTime(8, 3, 7));
        stored[i].lastSummary = u"earlier"_s;
        TestJobs::store({stored[i]}, {.runOnStart = true});
        programs[i] = std::make_unique<Program>(homes[i]);
    }
    QTRY_VERIFY_WITH_TIMEOUT(mute.hasPendingConnections(), kPatienceMs);
    QTRY_VERIFY_WITH_TIMEOUT(isShakingHands, kPatienceMs);
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(local.filePath(u"new.txt.part"_s)).size() > 0, kPatienceMs);

    QElapsedTimer closing;
    closing.start();
    for (const auto &program : programs)
        program->send(SIGTERM);
    programs[0]->send(SIGTERM); // impatience is no harm
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(programs[i]->end(), QString());
        QVERIFY2(closing.elapsed() < kSilentSecs * 1000 / 2, qPrintable(QString::number(closing.elapsed())));
        QVERIFY(homes[i].hasGeometry());
        homes[i].use();
        QCOMPARE(TestJobs::stored().jobs.size(), 1);
        QCOMPARE(TestJobs::stored().jobs.first().lastRun, stored[i].lastRun);
        QCOMPARE(TestJobs::stored().jobs.first().lastSummary, u"earlier"_s);
    }
    QVERIFY(mute.hasPendingConnections());
    QFile kept(local.filePath(u"new.txt"_s));
    QVERIFY(kept.open(QIODevice::ReadOnly));
    QCOMPARE(kept.readAll(), "old");
    QCOMPARE(local.harm(), QString());
    stalling.finish();
}

void TestProcess::damagedSettings_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<int>("jobs"); // afterwards; -1: whatever could be made of it
    const QByteArray sound = soundSettings();
    const auto row = [](const char *what, const QByteArray &text, int jobs = -1) {
        QTest::newRow(what) << text << jobs;
    };
    row("sound", sound, 3);
    row("empty", "", 0);
    row("truncated in a job", sound.first(sound.indexOf("2\\host")));
    row("truncated in a value", sound.first(sound.indexOf("127.0.0.1") + 4));
    row("a byte in the middle is gone", QByteArray(sound).remove(sound.size() / 2, 1));
    row("binary", noise(4096));
    row("binary behind what is sound", sound + noise(4096));
    row("NUL characters", QByteArray(4096, '\0'), 0);
    row("huge", noise(1024 * 1024));
    row("one huge line", "name=" + QByteArray(1024 * 1024, 'x'), 0);
    row("more jobs than there are", "[jobs]\nsize=2147483647\n1\\name=alpha\n");
    row("fewer jobs than none", "[jobs]\nsize=-5\n1\\name=alpha\n", 0);
    row("no number of jobs", "[jobs]\nsize=many\n1\\name=alpha\n", 0);
    row("wrong kinds of values", "[General]\nrunOnStart=@ByteArray(x)\nverbose=7, 8, 9\n"
                                 "geometry=@DateTime(\\0)\nlastUpdateCheck=@Rect(1 2 3 4)\n"
                                 "[jobs]\nsize=1\n1\\port=@Size(1 2)\n1\\rules=;;;\n1\\timeout=soon\n"
                                 "1\\lastRun=yesterday\n1\\enabled=perhaps\n1\\scheduleMode=-9\n");
    row("ten thousand jobs", bareSettings(10000), 10000);
}

void TestProcess::damagedSettings()
{
    QFETCH(const QByteArray, text);
    QFETCH(const int, jobs);
    const Home home;
    home.write(text);
    Program program(home);
    QTRY_VERIFY_WITH_TIMEOUT(program.isUp() || !program.isRunning(), kPatienceMs);
    program.send(SIGTERM);
    QCOMPARE(program.end(), QString());
    QVERIFY(home.hasGeometry()); // so the file is sound again
    if (jobs >= 0)
        QCOMPARE(home.jobCount(), jobs);
}

void TestProcess::aFolderInPlaceOfTheSettings()
{
    const Home home;
    QVERIFY(QDir(home.path()).mkpath(u"Orrinvale/Kelpwharf.ini/inner"_s));
    Program program(home);
    QTRY_VERIFY_WITH_TIMEOUT(program.isUp() || !program.isRunning(), kPatienceMs);
    program.send(SIGTERM);
    QCOMPARE(program.end(), QString());
    QVERIFY(QFileInfo(home.settingsPath()).isDir());
}

void TestProcess::twoCopiesShareTheSettings()
{
    const RefusedPort refused;
    SyncJob restless = job(u"restless"_s, refused.number(), u"/pub"_s, QString());
    const LocalFolder local;
    restless.config.localDir = local.path();
    restless.intervalMins = 0; // runs, fails and is saved at each tick, in both copies
    const Home home;
    TestJobs::store({restless, TestJobs::weekly(u"other"_s)}, {.runOnStart = true});

    Program first(home);
    Program second(home);
    QSet<QDateTime> runs;
    const auto look = [&runs] {
        const AppSettings seen = TestJobs::stored();
        const bool isWhole = seen.jobs.size() == 2 && seen.runOnStart &&
                             seen.jobs.at(0).config.password == u"secret" && seen.jobs.at(1).name == u"other";
        if (!isWhole)
            qFatal("the settings file is damaged");
        if (seen.jobs.at(0).lastRun.isValid())
            runs += seen.jobs.at(0).lastRun;
        return runs.size();
    };
    QTRY_VERIFY_WITH_TIMEOUT(look() >= 4, kPatienceMs);
    QVERIFY(first.isRunning() && second.isRunning());
    first.send(SIGTERM);
    second.send(SIGTERM);
    QCOMPARE(first.end(), QString());
    QCOMPARE(second.end(), QString());
    look();
    QVERIFY(home.hasGeometry());
    QVERIFY(!TestJobs::stored().jobs.at(0).lastOk);
}

int main(int argc, char *argv[])
{
    const Home elsewhere; // nothing here ever refers to the user's settings
    const QCoreApplication application(argc, argv);
    TestProcess test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_Process.moc"
