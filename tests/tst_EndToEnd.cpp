#include "support/FileTree.h"
#include "support/FtpTreeServer.h"
#include "support/LocalFolder.h"
#include "support/RefusedPort.h"
#include "support/SlowDownload.h"
#include "support/TestSettings.h"
#include "support/TestWindow.h"

#include <QAction>
#include <QApplication>
#include <QFileInfo>
#include <QHostAddress>
#include <QRegularExpression>
#include <QSemaphore>
#include <QTableWidget>
#include <QTcpServer>
#include <QTest>
#include <QThread>
#include <QTimer>

using namespace Qt::StringLiterals;

namespace {

constexpr int kPatienceMs = 20000; // only a test that fails waits for so long

const QByteArray kTime = "20240131120000";
const QByteArray kBig =
    QByteArray("0123456789abcdef").repeated(20000); // more than what a file keeps in memory

QDateTime utc(const QByteArray &digits)
{
    return QDateTime::fromString(QLatin1StringView(digits) + u'Z', u"yyyyMMddHHmmsst"_s);
}

TreeFile file(const QByteArray &content, const QByteArray &time = kTime) { return {content, utc(time)}; }

RemoteTree twoFolders()
{
    return {
        {"/music",
         {remoteFile("a.txt", "alpha", kTime), remoteFolder("live set"), remoteFile("b.txt", "", kTime)}},
        {"/music/live set", {remoteFile("Zürich %1.mp3", "a song", "20200202020202")}},
        {"/texts", {remoteFile("one.txt", "one", kTime), remoteFile("new.txt", kBig, kTime)}},
    };
}

SyncJob job(const QString &name, quint16 port, const QString &remoteDir, const LocalFolder &local)
{
    SyncJob made = TestJobs::named(name);
    made.config.port = port;
    made.config.user = u"kim"_s;
    made.config.password = u"secret"_s;
    made.config.remoteDir = remoteDir;
    made.config.localDir = local.path();
    return made;
}

/** The window at work with its own worker. */
class BusyWindow : public TestWindow
{
public:
    bool isIdle() const { return status() == u"Idle"_s; }

    /** The log with what no test can foretell replaced: the seconds of a run. */
    QStringList steadyLog() const
    {
        static const QRegularExpression seconds(u"^Finished in \\d+\\.\\d s"_s);
        QStringList lines = log();
        for (QString &line : lines)
            line.replace(seconds, u"Finished in S s"_s);
        return lines;
    }
};

} // namespace

class TestEndToEnd : public QObject
{
    Q_OBJECT

public:
    explicit TestEndToEnd(const TestSettings &settings) : settingsFile(settings) {}

private slots:
    void init();

    void autoMirrorsBothJobs();
    void aServerThatIsNotThereIsAProblem();
    void moreLinesThanTheLogHoldsKeepTheirOrder();
    void stopInTheMiddleOfADownload();
    void closingInTheMiddleOfADownload();

private:
    const TestSettings &settingsFile;
};

void TestEndToEnd::init() { settingsFile.clear(); }

void TestEndToEnd::autoMirrorsBothJobs()
{
    FtpTreeServer server(twoFolders());
    const LocalFolder music;
    const LocalFolder texts({u"one.txt: one"_s, u"old.txt: to be pruned"_s});
    setFileTime(texts.filePath(u"one.txt"_s), kTime);
    SyncJob pruned = job(u"Texts"_s, server.port(), u"/texts"_s, texts);
    pruned.config.deleteExtraneous = true;
    TestJobs::store({job(u"Music"_s, server.port(), u"/music"_s, music), pruned});

    BusyWindow window;
    window.show();
    window.press("autoCheck");
    QTRY_VERIFY_WITH_TIMEOUT(TestJobs::stored().jobs.at(1).lastRun.isValid(), kPatienceMs);
    QVERIFY(window.isIdle());

    QCOMPARE(treeDifference({{u"a.txt"_s, file("alpha")},
                             {u"b.txt"_s, file("")},
                             {u"live set/Zürich %1.mp3"_s, file("a song", "20200202020202")}},
                            readTree(music.path())),
             QString());
    QCOMPARE(
        treeDifference({{u"one.txt"_s, file("one")}, {u"new.txt"_s, file(kBig)}}, readTree(texts.path())),
        QString());
    QCOMPARE(music.harm() + texts.harm(), QString());

    QCOMPARE(window.steadyLog(),
             QStringList({
                 u"Ready. 2 jobs configured."_s,
                 u"AUTO on: 2 jobs scheduled."_s,
                 u"[Music] Starting sync."_s,
                 u"Mirroring ftp://127.0.0.1/music -> "_s + music.path(),
                 u"Downloading /music/a.txt (new)"_s,
                 u"Downloading /music/live set/Zürich %1.mp3 (new)"_s,
                 u"Downloading /music/b.txt (new)"_s,
                 u"Finished in S s - 3 downloaded, 0 up to date, 0 deleted, 0 failed (0 KB)."_s,
                 u"[Music] Complete - 3 downloaded, 0 unchanged, 0 deleted."_s,
                 u"[Texts] Starting sync."_s,
                 u"Mirroring ftp://127.0.0.1/texts -> "_s + texts.path(),
                 u"Downloading /texts/new.txt (new)"_s,
                 u"Deleted "_s + texts.filePath(u"old.txt"_s),
                 u"Finished in S s - 1 downloaded, 1 up to date, 1 deleted, 0 failed (312 KB)."_s,
                 u"[Texts] Complete - 1 downloaded, 1 unchanged, 1 deleted."_s,
             }));
    const QList<SyncJob> jobs = TestJobs::stored().jobs;
    QCOMPARE(jobs.at(0).lastSummary, u"3 NEW · 0 SAME · 0 DEL · 0 FAIL · 11 B"_s);
    QCOMPARE(jobs.at(1).lastSummary, u"1 NEW · 1 SAME · 1 DEL · 0 FAIL · 312.5 KB"_s);
    QVERIFY(jobs.at(0).lastRun <= jobs.at(1).lastRun);
    for (const int row : {0, 1}) {
        const SyncJob &stored = jobs.at(row);
        QVERIFY(stored.lastOk);
        QCOMPARE(window.cell(row, LastResultColumn),
                 stored.lastRun.toString(u"HH:mm"_s) + u"  "_s + stored.lastSummary);
        QVERIFY(!window.item(row, LastResultColumn)->data(Qt::ForegroundRole).isValid());
        QCOMPARE(window.cell(row, NextRunColumn), stored.lastRun.addSecs(3600).toString(u"ddd HH:mm:ss"_s));
    }

    // There is nothing to do a second time.
    const auto downloads = [&server] {
        qsizetype count = 0;
        for (const QByteArray &command : server.commands())
            count += command.startsWith("RETR") ? 1 : 0;
        return count;
    };
    QCOMPARE(downloads(), 4);
    window.choose(u"Kelpwharf"_s, u"Sync &All Jobs Now"_s);
    QTRY_VERIFY_WITH_TIMEOUT(window.isIdle(), kPatienceMs);
    QCOMPARE(downloads(), 4);
    QCOMPARE(server.sessions(), 4);
    QCOMPARE(TestJobs::stored().jobs.at(0).lastSummary, u"0 NEW · 3 SAME · 0 DEL · 0 FAIL · 0 B"_s);
    QCOMPARE(TestJobs::stored().jobs.at(1).lastSummary, u"0 NEW · 2 SAME · 0 DEL · 0 FAIL · 0 B"_s);
    server.finish();
}

void TestEndToEnd::aServerThatIsNotThereIsAProblem()
{
    const RefusedPort refused;
    const quint16 port = refused.number();
    FtpTreeServer server(twoFolders());
    const LocalFolder music;
    const LocalFolder texts;
    TestJobs::store(
        {job(u"Music"_s, port, u"/music"_s, music), job(u"Texts"_s, server.port(), u"/texts"_s, texts)},
        {.verbose = true});

    BusyWindow window;
    window.choose(u"Kelpwharf"_s, u"Sync &All Jobs Now"_s);
    QTRY_VERIFY_WITH_TIMEOUT(window.isIdle(), kPatienceMs);
    const QString problem =
        u"Cannot connect to 127.0.0.1:%1 (Connection refused)"_s.arg(QString::number(port));
    const QStringList log = window.steadyLog();
    const QStringList beginning{u"Ready. 2 jobs configured."_s,
                                u"[Music] Starting sync."_s,
                                u"Queued 2 jobs."_s,
                                u"Mirroring ftp://127.0.0.1/music -> "_s + music.path(),
                                u"Connecting to 127.0.0.1:%1 ..."_s.arg(QString::number(port)),
                                u"ERROR: "_s + problem,
                                u"[Music] Finished with problems: "_s + problem,
                                u"[Texts] Starting sync."_s};
    QCOMPARE(log.first(beginning.size()), beginning);
    QCOMPARE(log.last(), u"[Texts] Complete - 2 downloaded, 0 unchanged, 0 deleted."_s);
    QVERIFY(log.contains(u"> USER kim"_s)); // the chatter was asked for
    QVERIFY(log.contains(u"> PASS ********"_s));
    QVERIFY(!log.join(u'\n').contains(u"secret"_s));
    for (const LogLine &line : window.logLines()) {
        if (line.text.startsWith(u"[Music] Finished"_s))
            QCOMPARE(line.colour, u"#e54838"_s);
        if (line.text.startsWith(u"> "_s) || line.text.startsWith(u"ERROR: "_s))
            QCOMPARE(line.colour, u"#2e8f86"_s);
    }

    const QList<SyncJob> jobs = TestJobs::stored().jobs;
    QVERIFY(!jobs.at(0).lastOk);
    QVERIFY(jobs.at(1).lastOk);
    const TestWindow restarted;
    for (const TestWindow *shown : {static_cast<const TestWindow *>(&window), &restarted}) {
        QCOMPARE(shown->item(0, LastResultColumn)->foreground().color(), QColor(0xC0, 0x30, 0x20));
        QVERIFY(shown->cell(0, LastResultColumn).endsWith(u"  0 NEW · 0 SAME · 0 DEL · 0 FAIL · 0 B"_s));
        QVERIFY(!shown->item(1, LastResultColumn)->data(Qt::ForegroundRole).isValid());
    }
    server.finish();
}

void TestEndToEnd::moreLinesThanTheLogHoldsKeepTheirOrder()
{
    constexpr int files = 1000;
    const auto name = [](int number) { return u"f%1"_s.arg(number, 4, 10, QChar(u'0')); };
    RemoteTree tree;
    for (int i = 0; i < files; ++i)
        tree["/"] += remoteFile(name(i).toLatin1(), "", kTime);
    QSemaphore nearlyDone;
    FtpTreeServer server(tree, {.onCommand = [&nearlyDone](const QByteArray &command) {
                             if (command == "RETR /f0999")
                                 nearlyDone.release();
                         }});
    const LocalFolder local;
    TestJobs::store({job(u"Many"_s, server.port(), u"/"_s, local)}, {.verbose = true});
    BusyWindow window;
    window.show();
    window.press("syncButton");
    QCoreApplication::processEvents();              // which starts the run
    QVERIFY(nearlyDone.tryAcquire(1, kPatienceMs)); // of which the window has heard next to nothing
    const QString end = u"[Many] Complete - 1000 downloaded, 0 unchanged, 0 deleted."_s;
    QTRY_COMPARE_WITH_TIMEOUT(window.log().last(), end, kPatienceMs); // behind all of the worker's lines

    const QStringList log = window.log();
    QCOMPARE(log.size(), 5000);
    const QStringList downloads = log.filter(u"Downloading"_s);
    QVERIFY(downloads.size() > 500 && downloads.size() < files);
    for (qsizetype i = 0; i < downloads.size(); ++i) {
        const int number = files - static_cast<int>(downloads.size() - i);
        QCOMPARE(downloads.at(i), u"Downloading /"_s + name(number) + u" (new)"_s);
    }
    QCOMPARE(log.filter(u"> RETR"_s).last(), u"> RETR /"_s + name(files - 1));
    // Each file has the same lines, in the same order.
    const qsizetype last = log.lastIndexOf(downloads.last());
    const qsizetype before = log.lastIndexOf(downloads.at(downloads.size() - 2));
    const qsizetype first = log.indexOf(downloads.first());
    QCOMPARE(last - first, (downloads.size() - 1) * (last - before));
}

void TestEndToEnd::stopInTheMiddleOfADownload()
{
    const SlowDownload slow;
    FtpTreeServer server(twoFolders());
    const LocalFolder texts({u"one.txt: mine"_s, u"new.txt: old"_s});
    const LocalFolder music;
    TestJobs::store({job(u"Texts"_s, slow.port(), u"/texts"_s, texts),
                     job(u"Music"_s, server.port(), u"/music"_s, music)});
    BusyWindow window;
    window.choose(u"Kelpwharf"_s, u"Sync &All Jobs Now"_s);
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(texts.filePath(u"new.txt.part"_s)).size() > 0, kPatienceMs);
    QTRY_COMPARE_WITH_TIMEOUT(window.status(), u"Downloading new.txt"_s, kPatienceMs);
    QCOMPARE(window.column(NextRunColumn), QStringList({u"running..."_s, u"queued"_s}));

    window.press("stopButton");
    QCOMPARE(window.log().last(), u"Stopping 'Texts'..."_s);
    QCOMPARE(window.column(NextRunColumn), QStringList({u"running..."_s, u"manual"_s}));
    QTRY_VERIFY_WITH_TIMEOUT(window.isIdle(), kPatienceMs);
    QCOMPARE(window.steadyLog().last(3),
             QStringList({u"Stopping 'Texts'..."_s,
                          u"Finished in S s - 0 downloaded, 0 up to date, 0 deleted, 0 failed (0 KB)."_s,
                          u"[Texts] Stopped."_s}));
    QCOMPARE(texts.read(), QStringList({u"new.txt: old"_s, u"one.txt: mine"_s}));
    const SyncJob stored = TestJobs::stored().jobs.at(0);
    QVERIFY(stored.lastRun.isValid());
    QVERIFY(!stored.lastOk);
    QCOMPARE(stored.lastSummary, u"0 NEW · 0 SAME · 0 DEL · 0 FAIL · 0 B"_s);
    QCOMPARE(window.item(0, LastResultColumn)->foreground().color(), QColor(0xC0, 0x30, 0x20));
    QCOMPARE(server.sessions(), 0);

    // The request is forgotten with the run.
    window.selectJob(1);
    window.press("syncButton");
    QTRY_VERIFY_WITH_TIMEOUT(window.isIdle(), kPatienceMs);
    QCOMPARE(window.log().last(), u"[Music] Complete - 3 downloaded, 0 unchanged, 0 deleted."_s);
    server.finish();
}

void TestEndToEnd::closingInTheMiddleOfADownload()
{
    const SlowDownload slow;
    FtpTreeServer server(twoFolders());
    const LocalFolder texts({u"one.txt: mine"_s, u"new.txt: old"_s});
    const LocalFolder music;
    SyncJob before = job(u"Texts"_s, slow.port(), u"/texts"_s, texts);
    before.lastRun = QDateTime(QDate(2024, 5, 1), QTime(8, 3, 7));
    before.lastSummary = u"earlier"_s;
    TestJobs::store({before, job(u"Music"_s, server.port(), u"/music"_s, music)}, {.minimiseToTray = false});
    BusyWindow window;
    window.show();
    window.choose(u"Kelpwharf"_s, u"Sync &All Jobs Now"_s);
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(texts.filePath(u"new.txt.part"_s)).size() > 0, kPatienceMs);
    settingsFile.clear();

    QTimer::singleShot(0, &window, &QWidget::close);
    QTimer::singleShot(kPatienceMs, &window, [] { QCoreApplication::exit(-1); });
    QCOMPARE(QCoreApplication::exec(), 0);
    QVERIFY(!window.isVisible());
    QVERIFY(!window.part<QThread>("workerThread")->isRunning());
    QCOMPARE(texts.read(), QStringList({u"new.txt: old"_s, u"one.txt: mine"_s}));
    // The run's end is nobody's any more.
    const QString log = window.log().join(u'\n');
    QVERIFY2(!log.contains(u"Stop"_s) && !log.contains(u"[Texts] Finished"_s), qPrintable(log));
    const QList<SyncJob> stored = TestJobs::stored().jobs;
    QCOMPARE(stored.size(), 2);
    QCOMPARE(stored.at(0).lastRun, before.lastRun);
    QCOMPARE(stored.at(0).lastSummary, before.lastSummary);
    QVERIFY(stored.at(0).lastOk);
    QVERIFY(!stored.at(1).lastRun.isValid());
    QCOMPARE(server.sessions(), 0);

    // And a restart begins with nothing to do.
    const TestWindow restarted;
    QCOMPARE(restarted.column(NextRunColumn), QStringList({u"manual"_s, u"manual"_s}));
    QVERIFY(!restarted.isPressable("stopButton"));
    server.finish();
}

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    TestWindow::setIdentity();
    TestEndToEnd test(settings);
    return QTest::qExec(&test, argc, argv);
}

#include "tst_EndToEnd.moc"
