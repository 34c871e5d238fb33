#include "support/MessageBoxAnswer.h"
#include "support/TestSettings.h"
#include "support/TestWindow.h"

#include <QApplication>
#include <QCheckBox>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QPushButton>
#include <QSignalSpy>
#include <QTableWidget>
#include <QTest>
#include <QTimer>

#include <optional>

using namespace Qt::StringLiterals;

namespace {

constexpr int kPatienceMs = 10000; // only a test that fails waits for so long
const QString kInformation = u"#56f0e2"_s;
const QString kWarning = u"#cc9235"_s;
const QString kError = u"#e54838"_s;

/** A window without a worker, and with an empty log: the test itself ends the runs that it begins. */
class QueueWindow : public TestWindow
{
public:
    QueueWindow()
    {
        takeWorkerAway(); // and every other listener
        spy.emplace(this, &MainWindow::startSyncRequested);
        clearLog();
    }

    /** The jobs that were handed to the worker, in order. */
    QStringList started() const
    {
        QStringList names;
        for (const QList<QVariant> &arguments : *spy)
            names += QFileInfo(arguments.first().value<MirrorConfig>().localDir).fileName();
        return names;
    }

    MirrorConfig lastConfig() const
    {
        return spy->isEmpty() ? MirrorConfig() : spy->last().first().value<MirrorConfig>();
    }

    void syncByHand(int row) const
    {
        selectJob(row);
        choose(u"&Jobs"_s, u"Sync &Selected Now"_s);
    }

    void syncAll() const { choose(u"Kelpwharf"_s, u"Sync &All Jobs Now"_s); }
    void stop() const { choose(u"Kelpwharf"_s, u"&Stop"_s); }
    void switchAuto(bool on) const { part<QCheckBox>("autoCheck")->setChecked(on); }
    void passOneTick() { invoke("onTick"); }

    QStringList nextRuns() const { return column(NextRunColumn); }
    QString lastColour() const { return logLines().last().colour; }

private:
    std::optional<QSignalSpy> spy;
};

QString instantText(const QDateTime &instant) { return instant.toString(u"ddd HH:mm:ss"_s); }

/** Notes the status each time that a button comes or goes. */
class StatusAtButton : public QObject
{
public:
    StatusAtButton(const TestWindow *observed, const char *button) : window(observed)
    {
        window->part<QPushButton>(button)->installEventFilter(this);
    }

    QStringList seen;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() == QEvent::EnabledChange)
            seen += window->status();
        return QObject::eventFilter(watched, event);
    }

private:
    const TestWindow *window;
};

} // namespace

class TestJobQueue : public QObject
{
    Q_OBJECT

public:
    explicit TestJobQueue(const TestSettings &settings) : file(settings) {}

private slots:
    void init();

    void aJobThatIsAskedForStarts();
    void theWorkerGetsTheWholeConfiguration();
    void namesMayHoldPlaceholders();
    void theStatusNamesTheFile();
    void jobsWaitInTheOrderOfAsking();
    void aJobIsPendingOnlyOnce();
    void aDisabledJobRunsByHand();
    void aJobThatCannotRunSaysWhy_data();
    void aJobThatCannotRunSaysWhy();
    void withoutAJobNothingIsAskedFor();
    void aJobDisabledWhileItWaitsStillRuns();
    void aRunIsLeftAloneByItsCheckBox();

    void outcomes_data();
    void outcomes();
    void aFailureDoesNotHoldUpTheQueue();
    void theStatusCountsTheQueueBetweenRuns();
    void aResultWithoutARunIsNobodys();
    void eachEndIsSaved();

    void syncAllTakesEveryEnabledJob();
    void syncAllCounts_data();
    void syncAllCounts();

    void stopWithNothingToDoSaysNothing();
    void stopEmptiesTheQueueAndAsksTheRunToEnd();
    void stopBetweenTwoRunsClearsTheQueue();

    void autoWantsAJob();
    void autoSchedulesWhatCanRun();
    void autoComputesEachNextRun();
    void autoOffForgetsNextRunsAndStopsNothing();
    void aTickWithoutAutoDoesNothing();
    void autoSavesNothing();
    void dueJobsStartInTableOrder();
    void aJobIsDueAtItsVeryInstant();
    void missedInstantsAreNotReplayed();
    void aJobThatFallsDueDuringARunWaits();
    void aRunningJobIsNotDue();
    void aDisabledJobIsNotDue();
    void aJobThatCannotRunIsRefusedOnce();
    void theEndOfARunSetsTheNext();
    void theEndOfARunOfADisabledJobSetsNothing();
    void theCheckBoxSetsTheNextRun();
    void stopTakesFiredJobsOutOfTheSchedule();
    void withAutoANewJobFiresAfterASecond();

private:
    bool isSaved() const { return QFile::exists(file.filePath()); }

    const TestSettings &file;
};

void TestJobQueue::init() { file.clear(); }

// The queue

void TestJobQueue::aJobThatIsAskedForStarts()
{
    TestJobs::store({TestJobs::named(u"alpha"_s), TestJobs::named(u"beta"_s)});
    QueueWindow window;
    file.clear();
    window.selectJob(1);
    window.press("syncButton");
    QCOMPARE(window.started(), QStringList({u"beta"_s}));
    QCOMPARE(window.nextRuns(), QStringList({u"manual"_s, u"running..."_s}));
    QCOMPARE(window.status(), u"Mirroring 'beta'..."_s);
    QCOMPARE(window.log(), QStringList({u"[beta] Starting sync."_s}));
    QCOMPARE(window.lastColour(), kInformation);
    QVERIFY(!isSaved());
}

void TestJobQueue::theWorkerGetsTheWholeConfiguration()
{
    SyncJob job = TestJobs::named(u"alpha"_s);
    job.config.port = 2121;
    job.config.user = u"kim"_s;
    job.config.password = u"päss %1"_s;
    job.config.useTls = true;
    job.config.timeout = 7000;
    job.config.remoteDir = u"/pub"_s;
    job.config.syncMode = FullSync;
    job.config.compareBy = TimestampOnly;
    job.config.deleteExtraneous = true;
    job.config.recursive = false;
    job.config.excludes = QStringList{u"*.tmp"_s, u"x y"_s};
    TestJobs::store({job});
    QueueWindow window;
    window.press("syncButton");
    const MirrorConfig config = window.lastConfig();
    QCOMPARE(config.host, job.config.host);
    QCOMPARE(config.port, job.config.port);
    QCOMPARE(config.user, job.config.user);
    QCOMPARE(config.password, job.config.password);
    QCOMPARE(config.useTls, job.config.useTls);
    QVERIFY(config.acceptAnyCertificate);
    QCOMPARE(config.timeout, job.config.timeout);
    QCOMPARE(config.remoteDir, job.config.remoteDir);
    QCOMPARE(config.localDir, job.config.localDir);
    QCOMPARE(config.syncMode, job.config.syncMode);
    QCOMPARE(config.compareBy, job.config.compareBy);
    QCOMPARE(config.deleteExtraneous, job.config.deleteExtraneous);
    QCOMPARE(config.recursive, job.config.recursive);
    QCOMPARE(config.excludes, job.config.excludes);
}

void TestJobQueue::namesMayHoldPlaceholders()
{
    TestJobs::store({TestJobs::named(u"%2 %1"_s)});
    QueueWindow window;
    window.press("syncButton");
    QCOMPARE(window.status(), u"Mirroring '%2 %1'..."_s);
    window.stop();
    window.endRun();
    window.press("syncButton");
    window.endRun({.cancelled = true});
    window.press("syncButton");
    window.endRun({.message = u"%1 is bad"_s});
    QCOMPARE(window.log(),
             QStringList({u"[%2 %1] Starting sync."_s, u"Stopping '%2 %1'..."_s,
                          u"[%2 %1] Complete - 0 downloaded, 0 unchanged, 0 deleted."_s,
                          u"[%2 %1] Starting sync."_s, u"[%2 %1] Stopped."_s, u"[%2 %1] Starting sync."_s,
                          u"[%2 %1] Finished with problems: %1 is bad"_s}));
}

void TestJobQueue::theStatusNamesTheFile()
{
    TestJobs::store({TestJobs::named(u"alpha"_s)});
    QueueWindow window;
    window.press("syncButton");
    window.announceProgress(QString(), 1, 2); // only the numbers moved
    QCOMPARE(window.status(), u"Mirroring 'alpha'..."_s);
    window.announceProgress(u"a %1.txt"_s);
    QCOMPARE(window.status(), u"Downloading a %1.txt"_s);
    window.announceProgress(QString(), 2, 2);
    QCOMPARE(window.status(), u"Downloading a %1.txt"_s);
    window.announceProgress(u"b.txt"_s, 0, 0);
    QCOMPARE(window.status(), u"Downloading b.txt"_s);
    window.endRun();
    QCOMPARE(window.status(), u"Idle"_s);
}

void TestJobQueue::jobsWaitInTheOrderOfAsking()
{
    TestJobs::store({TestJobs::named(u"alpha"_s), TestJobs::named(u"beta"_s), TestJobs::named(u"gamma"_s)});
    QueueWindow window;
    window.syncByHand(2);
    window.syncByHand(1);
    window.syncByHand(0);
    QCOMPARE(window.nextRuns(), QStringList({u"queued"_s, u"queued"_s, u"running..."_s}));
    QCOMPARE(window.status(), u"Mirroring 'gamma'..."_s);
    QCOMPARE(window.log(), QStringList({u"[gamma] Starting sync."_s}));
    window.endRun();
    QCOMPARE(window.nextRuns(), QStringList({u"queued"_s, u"running..."_s, u"manual"_s}));
    QCOMPARE(window.status(), u"Mirroring 'beta'..."_s);
    window.endRun();
    QCOMPARE(window.nextRuns(), QStringList({u"running..."_s, u"manual"_s, u"manual"_s}));
    window.endRun();
    QCOMPARE(window.nextRuns(), QStringList({u"manual"_s, u"manual"_s, u"manual"_s}));
    QCOMPARE(window.started(), QStringList({u"gamma"_s, u"beta"_s, u"alpha"_s}));
    QCOMPARE(window.status(), u"Idle"_s);
}

void TestJobQueue::aJobIsPendingOnlyOnce()
{
    TestJobs::store({TestJobs::named(u"alpha"_s), TestJobs::named(u"beta"_s)});
    QueueWindow window;
    window.syncByHand(0);
    window.syncByHand(1);
    const QStringList log = window.log();
    window.syncByHand(0);
    window.syncByHand(1);
    QCOMPARE(window.log(), log);
    QCOMPARE(window.nextRuns(), QStringList({u"running..."_s, u"queued"_s}));
    window.endRun();
    window.endRun();
    QCOMPARE(window.started(), QStringList({u"alpha"_s, u"beta"_s}));
}

void TestJobQueue::aDisabledJobRunsByHand()
{
    SyncJob job = TestJobs::named(u"alpha"_s);
    job.enabled = false;
    TestJobs::store({job});
    QueueWindow window;
    QCOMPARE(window.nextRuns(), QStringList({u"disabled"_s}));
    window.press("syncButton");
    QCOMPARE(window.started(), QStringList({u"alpha"_s}));
    QCOMPARE(window.nextRuns(), QStringList({u"running..."_s}));
    window.endRun();
    QCOMPARE(window.nextRuns(), QStringList({u"disabled"_s}));
}

void TestJobQueue::aJobThatCannotRunSaysWhy_data()
{
    QTest::addColumn<QString>("host");
    QTest::addColumn<QString>("localDir");
    QTest::addColumn<QString>("line");
    QTest::newRow("no host") << u""_s << u"/x"_s << u"'al%1pha' has no FTP host set."_s;
    QTest::newRow("a host of blanks") << u"   "_s << u"/x"_s << u"'al%1pha' has no FTP host set."_s;
    QTest::newRow("no local folder") << u"h"_s << u""_s << u"'al%1pha' has no local folder set."_s;
    QTest::newRow("neither") << u""_s << u""_s << u"'al%1pha' has no FTP host set."_s;
}

void TestJobQueue::aJobThatCannotRunSaysWhy()
{
    QFETCH(const QString, host);
    QFETCH(const QString, localDir);
    QFETCH(const QString, line);
    SyncJob job = TestJobs::named(u"al%1pha"_s);
    job.config.host = host;
    job.config.localDir = localDir;
    TestJobs::store({job});
    QueueWindow window;
    file.clear();
    window.press("syncButton");
    QCOMPARE(window.log(), QStringList({line}));
    QCOMPARE(window.lastColour(), kWarning);
    QCOMPARE(window.started(), QStringList());
    QCOMPARE(window.nextRuns(), QStringList({u"manual"_s}));
    QCOMPARE(window.status(), u"Idle"_s);
    QVERIFY(!window.isPressable("stopButton"));
    QVERIFY(!isSaved());
}

void TestJobQueue::withoutAJobNothingIsAskedFor()
{
    QueueWindow window;
    window.choose(u"&Jobs"_s, u"Sync &Selected Now"_s);
    QCOMPARE(window.log(), QStringList());
    QCOMPARE(window.started(), QStringList());
}

void TestJobQueue::aJobDisabledWhileItWaitsStillRuns()
{
    TestJobs::store({TestJobs::named(u"alpha"_s), TestJobs::named(u"beta"_s)});
    QueueWindow window;
    window.syncByHand(0);
    window.syncByHand(1);
    window.tick(1, false);
    QCOMPARE(window.nextRuns(), QStringList({u"running..."_s, u"queued"_s}));
    window.endRun();
    QCOMPARE(window.started(), QStringList({u"alpha"_s, u"beta"_s}));
    QCOMPARE(window.nextRuns(), QStringList({u"manual"_s, u"running..."_s}));
}

void TestJobQueue::aRunIsLeftAloneByItsCheckBox()
{
    TestJobs::store({TestJobs::named(u"alpha"_s)});
    QueueWindow window;
    window.press("syncButton");
    window.tick(0, false);
    QVERIFY(!TestJobs::stored().jobs.first().enabled);
    QCOMPARE(window.nextRuns(), QStringList({u"running..."_s}));
    QVERIFY(window.isPressable("stopButton"));
    window.endRun();
    QCOMPARE(window.nextRuns(), QStringList({u"disabled"_s}));
    QVERIFY(TestJobs::stored().jobs.first().lastRun.isValid());
}

// The end of a run

void TestJobQueue::outcomes_data()
{
    QTest::addColumn<MirrorResult>("result");
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("colour");
    QTest::addColumn<QString>("summary");
    QTest::newRow("complete")
        << MirrorResult{.success = true, .downloaded = 1, .upToDate = 22, .deleted = 333, .bytes = 1536}
        << u"[alpha] Complete - 1 downloaded, 22 unchanged, 333 deleted."_s << kInformation
        << u"1 NEW · 22 SAME · 333 DEL · 0 FAIL · 1.5 KB"_s;
    QTest::newRow("nothing to do") << MirrorResult{.success = true, .upToDate = 5}
                                   << u"[alpha] Complete - 0 downloaded, 5 unchanged, 0 deleted."_s
                                   << kInformation << u"0 NEW · 5 SAME · 0 DEL · 0 FAIL · 0 B"_s;
    QTest::newRow("stopped") << MirrorResult{.cancelled = true,
                                             .downloaded = 2,
                                             .message = u"Stopped at your request."_s}
                             << u"[alpha] Stopped."_s << kWarning
                             << u"2 NEW · 0 SAME · 0 DEL · 0 FAIL · 0 B"_s;
    QTest::newRow("with problems") << MirrorResult{.failed = 4, .message = u"Cannot <list> '/'"_s}
                                   << u"[alpha] Finished with problems: Cannot <list> '/'"_s << kError
                                   << u"0 NEW · 0 SAME · 0 DEL · 4 FAIL · 0 B"_s;
    QTest::newRow("with problems, and nothing to say")
        << MirrorResult{} << u"[alpha] Finished with problems: "_s << kError
        << u"0 NEW · 0 SAME · 0 DEL · 0 FAIL · 0 B"_s;
    QTest::newRow("success counts before the stop")
        << MirrorResult{.success = true, .cancelled = true}
        << u"[alpha] Complete - 0 downloaded, 0 unchanged, 0 deleted."_s << kInformation
        << u"0 NEW · 0 SAME · 0 DEL · 0 FAIL · 0 B"_s;
}

void TestJobQueue::outcomes()
{
    QFETCH(const MirrorResult, result);
    QFETCH(const QString, line);
    QFETCH(const QString, colour);
    QFETCH(const QString, summary);
    TestJobs::store({TestJobs::named(u"other"_s), TestJobs::named(u"alpha"_s)});
    QueueWindow window;
    window.syncByHand(1);
    window.clearLog();
    file.clear();
    const QDateTime before = QDateTime::currentDateTime();
    window.endRun(result);
    const QDateTime after = QDateTime::currentDateTime();

    QCOMPARE(window.log(), QStringList({line}));
    QCOMPARE(window.lastColour(), colour);
    QVERIFY(isSaved());
    const SyncJob job = TestJobs::stored().jobs.at(1);
    QVERIFY(job.lastRun >= before && job.lastRun <= after);
    QCOMPARE(job.lastSummary, summary);
    QCOMPARE(job.lastOk, result.success);
    QVERIFY(!TestJobs::stored().jobs.at(0).lastRun.isValid());
    QCOMPARE(window.cell(1, LastResultColumn), job.lastRun.toString(u"HH:mm"_s) + u"  "_s + summary);
    QCOMPARE(window.item(1, LastResultColumn)->data(Qt::ForegroundRole).isValid(), !result.success);
    QCOMPARE(window.cell(0, LastResultColumn), u"never run"_s);
    QCOMPARE(window.nextRuns(), QStringList({u"manual"_s, u"manual"_s}));
    QCOMPARE(window.status(), u"Idle"_s);
}

void TestJobQueue::aFailureDoesNotHoldUpTheQueue()
{
    TestJobs::store({TestJobs::named(u"alpha"_s), TestJobs::named(u"beta"_s)});
    QueueWindow window;
    window.syncAll();
    window.clearLog();
    window.endRun({.message = u"broken"_s});
    QCOMPARE(window.started(), QStringList({u"alpha"_s, u"beta"_s}));
    QCOMPARE(window.log(),
             QStringList({u"[alpha] Finished with problems: broken"_s, u"[beta] Starting sync."_s}));
}

void TestJobQueue::theStatusCountsTheQueueBetweenRuns()
{
    TestJobs::store({TestJobs::named(u"alpha"_s), TestJobs::named(u"beta"_s), TestJobs::named(u"gamma"_s)});
    QueueWindow window;
    window.syncAll();
    const StatusAtButton observer(&window, "addButton");
    window.endRun();
    // The button comes with the end of the run, and goes with the start of the next.
    QCOMPARE(observer.seen, QStringList({u"Queued: 2"_s, u"Mirroring 'beta'..."_s}));
    window.endRun();
    window.endRun();
    QCOMPARE(observer.seen, QStringList({u"Queued: 2"_s, u"Mirroring 'beta'..."_s, u"Queued: 1"_s,
                                         u"Mirroring 'gamma'..."_s, u"Idle"_s}));
}

void TestJobQueue::aResultWithoutARunIsNobodys()
{
    TestJobs::store({TestJobs::named(u"alpha"_s)});
    QueueWindow window;
    file.clear();
    window.endRun();
    QCOMPARE(window.log(), QStringList());
    QCOMPARE(window.cell(0, LastResultColumn), u"never run"_s);
    QCOMPARE(window.status(), u"Idle"_s);
    QVERIFY(isSaved()); // all the same
    QVERIFY(!TestJobs::stored().jobs.first().lastRun.isValid());
}

void TestJobQueue::eachEndIsSaved()
{
    TestJobs::store({TestJobs::named(u"alpha"_s), TestJobs::named(u"beta"_s)});
    QueueWindow window;
    window.syncAll();
    window.endRun();
    QVERIFY(TestJobs::stored().jobs.at(0).lastRun.isValid());
    QVERIFY(!TestJobs::stored().jobs.at(1).lastRun.isValid());
    file.clear();
    window.endRun();
    QVERIFY(TestJobs::stored().jobs.at(0).lastRun.isValid());
    QVERIFY(TestJobs::stored().jobs.at(1).lastRun.isValid());
}

// All jobs

void TestJobQueue::syncAllTakesEveryEnabledJob()
{
    SyncJob off = TestJobs::named(u"off"_s);
    off.enabled = false;
    SyncJob hostless = TestJobs::named(u"hostless"_s);
    hostless.config.host.clear();
    TestJobs::store({TestJobs::named(u"a"_s), off, TestJobs::named(u"b"_s), hostless, TestJobs::named(u"c"_s),
                     TestJobs::named(u"d"_s)});
    QueueWindow window;
    window.syncAll();
    // The first starts within the call, so its line stands before the count.
    QCOMPARE(window.log(), QStringList({u"[a] Starting sync."_s, u"'hostless' has no FTP host set."_s,
                                        u"Queued 4 jobs."_s}));
    QCOMPARE(window.lastColour(), kInformation);
    QCOMPARE(window.logLines().at(1).colour, kWarning);
    QCOMPARE(window.nextRuns(), QStringList({u"running..."_s, u"disabled"_s, u"queued"_s, u"manual"_s,
                                             u"queued"_s, u"queued"_s}));
    for (int i = 0; i < 4; ++i)
        window.endRun();
    QCOMPARE(window.started(), QStringList({u"a"_s, u"b"_s, u"c"_s, u"d"_s}));
}

void TestJobQueue::syncAllCounts_data()
{
    QTest::addColumn<QStringList>("jobs"); // a name, with "!" in front if disabled, with "?" if it cannot run
    QTest::addColumn<int>("already");      // runs that were asked for before
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("colour");
    const QString none = u"No enabled jobs to run."_s;
    QTest::newRow("no jobs") << QStringList{} << 0 << none << kWarning;
    QTest::newRow("only disabled jobs") << QStringList{u"!a"_s, u"!b"_s} << 0 << none << kWarning;
    QTest::newRow("only one that cannot run") << QStringList{u"?a"_s} << 0 << none << kWarning;
    QTest::newRow("one") << QStringList{u"a"_s} << 0 << u"Queued 1 job."_s << kInformation;
    QTest::newRow("two") << QStringList{u"a"_s, u"b"_s} << 0 << u"Queued 2 jobs."_s << kInformation;
    QTest::newRow("the other one runs")
        << QStringList{u"a"_s, u"b"_s} << 1 << u"Queued 1 job."_s << kInformation;
    QTest::newRow("the others run and wait")
        << QStringList{u"a"_s, u"b"_s, u"c"_s, u"d"_s} << 2 << u"Queued 2 jobs."_s << kInformation;
    QTest::newRow("all run or wait") << QStringList{u"a"_s, u"b"_s} << 2 << none << kWarning;
}

void TestJobQueue::syncAllCounts()
{
    QFETCH(const QStringList, jobs);
    QFETCH(const int, already);
    QList<SyncJob> list;
    for (const QString &name : jobs) {
        SyncJob job = TestJobs::named(name);
        job.enabled = !name.startsWith(u'!');
        if (name.startsWith(u'?'))
            job.config.localDir.clear();
        list += job;
    }
    TestJobs::store(list);
    QueueWindow window;
    for (int row = 0; row < already; ++row)
        window.syncByHand(row);
    window.syncAll();
    QTEST(window.log().last(), "line");
    QTEST(window.lastColour(), "colour");
}

// Stop

void TestJobQueue::stopWithNothingToDoSaysNothing()
{
    TestJobs::store({TestJobs::named(u"alpha"_s)});
    QueueWindow window;
    window.stop();
    QCOMPARE(window.log(), QStringList());
    QCOMPARE(window.status(), u"Idle"_s);
}

void TestJobQueue::stopEmptiesTheQueueAndAsksTheRunToEnd()
{
    TestJobs::store(
        {TestJobs::named(u"a"_s), TestJobs::named(u"b"_s), TestJobs::named(u"c"_s), TestJobs::named(u"d"_s)});
    QueueWindow window;
    window.syncAll();
    window.clearLog();
    file.clear();
    window.press("stopButton");
    QCOMPARE(window.log(), QStringList({u"Stopping 'a'..."_s}));
    QCOMPARE(window.lastColour(), kWarning);
    QCOMPARE(window.nextRuns(), QStringList({u"running..."_s, u"manual"_s, u"manual"_s, u"manual"_s}));
    QVERIFY(window.isPressable("stopButton")); // the run goes on until it notices
    QVERIFY(!isSaved());
    window.endRun({.cancelled = true});
    QCOMPARE(window.log(), QStringList({u"Stopping 'a'..."_s, u"[a] Stopped."_s}));
    QCOMPARE(window.started(), QStringList({u"a"_s}));
    QCOMPARE(window.status(), u"Idle"_s);
    QVERIFY(!window.isPressable("stopButton"));
    QVERIFY(isSaved());

    window.syncByHand(1); // what was stopped can be asked for again
    QCOMPARE(window.started(), QStringList({u"a"_s, u"b"_s}));
}

void TestJobQueue::stopBetweenTwoRunsClearsTheQueue()
{
    TestJobs::store({TestJobs::named(u"alpha"_s), TestJobs::named(u"beta"_s)});
    QueueWindow window;
    window.syncAll();
    window.clearLog();
    // The result is written to its cell when the one run is over and the next has not begun.
    bool stopIsPressable = false;
    const auto connection =
        connect(window.part<QTableWidget>("table"), &QTableWidget::cellChanged, &window,
                [&window, &stopIsPressable](int row, int column) {
                    if (row != 0 || column != LastResultColumn || window.cell(1, NextRunColumn) != u"queued")
                        return;
                    window.invoke("onSelectionChanged");
                    stopIsPressable = window.isPressable("stopButton");
                    window.stop();
                });
    window.endRun();
    disconnect(connection);
    QVERIFY(stopIsPressable);
    QCOMPARE(window.log(), QStringList({u"[alpha] Complete - 0 downloaded, 0 unchanged, 0 deleted."_s,
                                        u"Queue cleared."_s}));
    QCOMPARE(window.lastColour(), kWarning);
    QCOMPARE(window.started(), QStringList({u"alpha"_s}));
    QCOMPARE(window.nextRuns(), QStringList({u"manual"_s, u"manual"_s}));
    QCOMPARE(window.status(), u"Idle"_s);
    QVERIFY(!window.isPressable("stopButton"));
}

// AUTO

void TestJobQueue::autoWantsAJob()
{
    QueueWindow window;
    const MessageBoxAnswer answer(u"OK"_s);
    window.press("autoCheck");
    QVERIFY(answer.hasCome());
    QCOMPARE(answer.title(), u"Kelpwharf"_s);
    QCOMPARE(answer.text(), u"Add a job before switching on AUTO."_s);
    QCOMPARE(answer.icon(), QMessageBox::Warning);
    QCOMPARE(answer.buttons(), QStringList({u"OK"_s}));
    QVERIFY(!window.part<QCheckBox>("autoCheck")->isChecked());
    QVERIFY(!window.part<QTimer>("tickTimer")->isActive());
    QCOMPARE(window.log(), QStringList({u"AUTO off."_s}));
    QCOMPARE(window.lastColour(), kInformation);
}

void TestJobQueue::autoSchedulesWhatCanRun()
{
    SyncJob off = TestJobs::weekly(u"off"_s);
    off.enabled = false;
    SyncJob hostless = TestJobs::weekly(u"hostless"_s);
    hostless.config.host.clear();
    SyncJob never = TestJobs::weekly(u"never"_s); // counts as scheduled all the same
    never.rules.first().hours = 0;
    TestJobs::store({TestJobs::weekly(u"a"_s), off, hostless, never});
    QueueWindow window;
    window.switchAuto(true);
    QCOMPARE(window.log(), QStringList({u"AUTO on: 2 jobs scheduled."_s}));
    QCOMPARE(window.lastColour(), kInformation);
    QCOMPARE(window.nextRuns().mid(1), QStringList({u"disabled"_s, u"manual"_s, u"manual"_s}));
    QVERIFY(window.part<QTimer>("tickTimer")->isActive());
    QCOMPARE(window.status(), u"Idle"_s);

    window.switchAuto(false);
    window.tick(3, false);
    window.clearLog();
    window.switchAuto(true);
    QCOMPARE(window.log(), QStringList({u"AUTO on: 1 job scheduled."_s}));
    window.switchAuto(false);
    window.tick(0, false);
    window.clearLog();
    window.switchAuto(true);
    QCOMPARE(window.log(), QStringList({u"AUTO on: 0 jobs scheduled."_s}));
}

void TestJobQueue::autoComputesEachNextRun()
{
    const SyncJob weekly = TestJobs::weekly(u"weekly"_s);
    const SyncJob pending = TestJobs::lastRunAgo(u"pending"_s, 600); // of 60 minutes
    const SyncJob fresh = TestJobs::named(u"fresh"_s);
    TestJobs::store({weekly, pending, fresh});
    QueueWindow window;
    QCOMPARE(window.nextRuns(), QStringList({u"manual"_s, u"manual"_s, u"manual"_s}));
    const QDateTime before = QDateTime::currentDateTime();
    window.switchAuto(true);
    const QDateTime after = QDateTime::currentDateTime();
    QCOMPARE(window.cell(0, NextRunColumn), instantText(weekly.computeNextRun(before)));
    QCOMPARE(window.cell(1, NextRunColumn), instantText(pending.lastRun.addSecs(3600)));
    // Never run means due at once.
    const QString now = window.cell(2, NextRunColumn);
    QVERIFY2(now == instantText(before) || now == instantText(after), qPrintable(now));
    window.passOneTick();
    QCOMPARE(window.started(), QStringList({u"fresh"_s}));
}

void TestJobQueue::autoOffForgetsNextRunsAndStopsNothing()
{
    TestJobs::store({TestJobs::named(u"a"_s), TestJobs::named(u"b"_s), TestJobs::weekly(u"c"_s)});
    QueueWindow window;
    window.switchAuto(true);
    window.passOneTick();
    window.clearLog();
    window.switchAuto(false);
    QCOMPARE(window.log(), QStringList({u"AUTO off."_s}));
    QCOMPARE(window.lastColour(), kInformation);
    QVERIFY(!window.part<QTimer>("tickTimer")->isActive());
    QCOMPARE(window.nextRuns(), QStringList({u"running..."_s, u"queued"_s, u"manual"_s}));
    window.endRun();
    QCOMPARE(window.nextRuns(), QStringList({u"manual"_s, u"running..."_s, u"manual"_s}));
    window.endRun();
    QCOMPARE(window.started(), QStringList({u"a"_s, u"b"_s}));
    QCOMPARE(window.nextRuns(), QStringList({u"manual"_s, u"manual"_s, u"manual"_s}));
}

void TestJobQueue::aTickWithoutAutoDoesNothing()
{
    TestJobs::store({TestJobs::named(u"alpha"_s)});
    QueueWindow window;
    window.passOneTick();
    window.switchAuto(true);
    window.switchAuto(false);
    window.passOneTick(); // as one that was in the event queue
    QCOMPARE(window.started(), QStringList());
    QCOMPARE(window.log(), QStringList({u"AUTO on: 1 job scheduled."_s, u"AUTO off."_s}));
}

void TestJobQueue::autoSavesNothing()
{
    TestJobs::store({TestJobs::named(u"alpha"_s), TestJobs::named(u"beta"_s)});
    QueueWindow window;
    file.clear();
    window.switchAuto(true);
    window.passOneTick();
    QCOMPARE(window.nextRuns(), QStringList({u"running..."_s, u"queued"_s}));
    window.stop();
    window.switchAuto(false);
    QVERIFY(!isSaved());
}

void TestJobQueue::dueJobsStartInTableOrder()
{
    // The lower in the table, the longer due.
    TestJobs::store({TestJobs::lastRunAgo(u"a"_s, 3601), TestJobs::lastRunAgo(u"b"_s, 60),
                     TestJobs::lastRunAgo(u"c"_s, 7200), TestJobs::named(u"d"_s)});
    QueueWindow window;
    window.switchAuto(true);
    window.clearLog();
    window.passOneTick();
    QCOMPARE(window.log(), QStringList({u"[a] Starting sync."_s}));
    QCOMPARE(window.cell(0, NextRunColumn), u"running..."_s);
    QCOMPARE(window.cell(2, NextRunColumn), u"queued"_s);
    QCOMPARE(window.cell(3, NextRunColumn), u"queued"_s);
    window.endRun();
    window.endRun();
    window.endRun();
    QCOMPARE(window.started(), QStringList({u"a"_s, u"c"_s, u"d"_s}));
}

void TestJobQueue::aJobIsDueAtItsVeryInstant()
{
    SyncJob job = TestJobs::named(u"alpha"_s);
    job.intervalMins = 1;
    const QDateTime due = QDateTime::currentDateTime().addMSecs(250);
    job.lastRun = due.addSecs(-60);
    TestJobs::store({job});
    QueueWindow window;
    window.switchAuto(true);
    window.part<QTimer>("tickTimer")->stop();
    int ticksBefore = 0;
    for (;;) {
        const QDateTime before = QDateTime::currentDateTime();
        window.passOneTick();
        const QDateTime after = QDateTime::currentDateTime();
        const bool fired = !window.started().isEmpty();
        if (after < due) {
            QVERIFY(!fired);
            ++ticksBefore;
        } else if (before >= due) {
            // A tick takes far less than a millisecond, so this one is mostly within that of `due`.
            QVERIFY(fired);
            break;
        }
    }
    QVERIFY(ticksBefore > 0);
}

void TestJobQueue::missedInstantsAreNotReplayed()
{
    TestJobs::store({TestJobs::lastRunAgo(u"alpha"_s, qint64(10) * 3600)}); // ten hours, every hour
    QueueWindow window;
    window.switchAuto(true);
    window.passOneTick();
    QCOMPARE(window.started(), QStringList({u"alpha"_s}));
    window.endRun();
    const QDateTime end = TestJobs::stored().jobs.first().lastRun;
    QCOMPARE(window.cell(0, NextRunColumn), instantText(end.addSecs(3600)));
    window.passOneTick();
    window.passOneTick();
    QCOMPARE(window.started(), QStringList({u"alpha"_s}));
}

void TestJobQueue::aJobThatFallsDueDuringARunWaits()
{
    TestJobs::store({TestJobs::weekly(u"alpha"_s), TestJobs::named(u"beta"_s)});
    QueueWindow window;
    window.syncByHand(0);
    window.switchAuto(true);
    window.passOneTick();
    QCOMPARE(window.nextRuns(), QStringList({u"running..."_s, u"queued"_s}));
    window.passOneTick(); // once is enough
    window.endRun();
    window.endRun();
    QCOMPARE(window.started(), QStringList({u"alpha"_s, u"beta"_s}));
}

void TestJobQueue::aRunningJobIsNotDue()
{
    TestJobs::store({TestJobs::named(u"alpha"_s), TestJobs::named(u"beta"_s)});
    QueueWindow window;
    window.switchAuto(true);
    window.syncByHand(0); // both keep the instants at which they are due
    window.syncByHand(1);
    const QStringList log = window.log();
    window.passOneTick();
    QCOMPARE(window.log(), log);
    QCOMPARE(window.nextRuns(), QStringList({u"running..."_s, u"queued"_s}));
    window.endRun();
    const QDateTime end = TestJobs::stored().jobs.first().lastRun;
    QCOMPARE(window.cell(0, NextRunColumn), instantText(end.addSecs(3600)));
    window.passOneTick();
    window.endRun();
    QCOMPARE(window.started(), QStringList({u"alpha"_s, u"beta"_s}));
}

void TestJobQueue::aDisabledJobIsNotDue()
{
    SyncJob off = TestJobs::named(u"off"_s);
    off.enabled = false;
    TestJobs::store({off, TestJobs::named(u"on"_s)});
    QueueWindow window;
    window.switchAuto(true);
    window.passOneTick();
    QCOMPARE(window.started(), QStringList({u"on"_s}));
    window.endRun();
    QCOMPARE(window.started(), QStringList({u"on"_s}));
}

void TestJobQueue::aJobThatCannotRunIsRefusedOnce()
{
    SyncJob hostless = TestJobs::named(u"hostless"_s);
    hostless.config.host.clear();
    TestJobs::store({hostless});
    QueueWindow window;
    window.switchAuto(true);
    window.clearLog();
    window.passOneTick();
    QCOMPARE(window.log(), QStringList()); // it was not scheduled
    window.tick(0, false);
    window.tick(0, true); // this schedules it, whether it can run or not
    QVERIFY(window.cell(0, NextRunColumn) != u"manual"_s);
    window.clearLog();
    window.passOneTick();
    QCOMPARE(window.log(), QStringList({u"'hostless' has no FTP host set."_s}));
    QCOMPARE(window.lastColour(), kWarning);
    QCOMPARE(window.cell(0, NextRunColumn), u"manual"_s);
    window.passOneTick();
    window.passOneTick();
    QCOMPARE(window.log(), QStringList({u"'hostless' has no FTP host set."_s}));
    QCOMPARE(window.started(), QStringList());
}

void TestJobQueue::theEndOfARunSetsTheNext()
{
    SyncJob often = TestJobs::named(u"often"_s);
    often.intervalMins = 5;
    const SyncJob weekly = TestJobs::weekly(u"weekly"_s);
    TestJobs::store({often, weekly});
    QueueWindow window;
    window.switchAuto(true);
    window.syncAll();
    window.endRun({.message = u"broken"_s}); // no less than after a good one
    window.endRun({.cancelled = true});
    const QList<SyncJob> jobs = TestJobs::stored().jobs;
    QCOMPARE(window.cell(0, NextRunColumn), instantText(jobs.at(0).lastRun.addSecs(300)));
    QCOMPARE(window.cell(1, NextRunColumn), instantText(weekly.computeNextRun(jobs.at(1).lastRun)));
}

void TestJobQueue::theEndOfARunOfADisabledJobSetsNothing()
{
    TestJobs::store({TestJobs::named(u"alpha"_s), TestJobs::named(u"beta"_s)});
    QueueWindow window;
    window.switchAuto(true);
    window.passOneTick();
    window.tick(0, false);
    window.endRun();
    QCOMPARE(window.cell(0, NextRunColumn), u"disabled"_s);
    window.endRun();
    window.passOneTick();
    QCOMPARE(window.started(), QStringList({u"alpha"_s, u"beta"_s}));
    window.tick(0, true);
    const QDateTime end = TestJobs::stored().jobs.first().lastRun;
    QCOMPARE(window.cell(0, NextRunColumn), instantText(end.addSecs(3600)));
}

void TestJobQueue::theCheckBoxSetsTheNextRun()
{
    const SyncJob weekly = TestJobs::weekly(u"weekly"_s);
    TestJobs::store({weekly, TestJobs::named(u"fresh"_s)});
    QueueWindow window;
    window.tick(1, false);
    window.tick(1, true); // without AUTO nothing is computed
    QCOMPARE(window.cell(1, NextRunColumn), u"manual"_s);
    window.tick(0, false);
    window.tick(1, false);

    window.switchAuto(true);
    QCOMPARE(window.nextRuns(), QStringList({u"disabled"_s, u"disabled"_s}));
    window.tick(0, true);
    QCOMPARE(window.cell(0, NextRunColumn), instantText(weekly.computeNextRun(QDateTime::currentDateTime())));
    window.tick(1, true);
    window.tick(1, false);
    window.passOneTick();
    QCOMPARE(window.started(), QStringList());
    window.tick(1, true);
    window.passOneTick();
    QCOMPARE(window.started(), QStringList({u"fresh"_s}));
}

void TestJobQueue::stopTakesFiredJobsOutOfTheSchedule()
{
    const SyncJob weekly = TestJobs::weekly(u"weekly"_s);
    TestJobs::store({TestJobs::named(u"a"_s), TestJobs::named(u"b"_s), TestJobs::named(u"c"_s), weekly});
    QueueWindow window;
    window.switchAuto(true);
    window.passOneTick();
    window.syncByHand(3); // this one was not fired
    QCOMPARE(window.nextRuns(), QStringList({u"running..."_s, u"queued"_s, u"queued"_s, u"queued"_s}));
    window.clearLog();
    window.stop();
    const QString pending = instantText(weekly.computeNextRun(QDateTime::currentDateTime()));
    QCOMPARE(window.nextRuns(), QStringList({u"running..."_s, u"manual"_s, u"manual"_s, pending}));
    QVERIFY(window.part<QTimer>("tickTimer")->isActive());
    window.endRun({.cancelled = true});
    QCOMPARE(window.log(), QStringList({u"Stopping 'a'..."_s, u"[a] Stopped."_s}));
    const QDateTime end = TestJobs::stored().jobs.first().lastRun;
    QCOMPARE(window.nextRuns(),
             QStringList({instantText(end.addSecs(3600)), u"manual"_s, u"manual"_s, pending}));
    window.passOneTick();
    QCOMPARE(window.started(), QStringList({u"a"_s}));
    window.switchAuto(false); // and what brings them back
    window.switchAuto(true);
    window.passOneTick();
    QCOMPARE(window.started(), QStringList({u"a"_s, u"b"_s}));
}

void TestJobQueue::withAutoANewJobFiresAfterASecond()
{
    TestJobs::store({TestJobs::weekly(u"weekly"_s), TestJobs::named(u"fresh"_s)});
    QueueWindow window;
    QElapsedTimer timer;
    timer.start();
    window.switchAuto(true);
    QCOMPARE(window.started(), QStringList());
    QTRY_COMPARE_WITH_TIMEOUT(window.started(), QStringList({u"fresh"_s}), kPatienceMs);
    QVERIFY2(timer.elapsed() >= 900, qPrintable(QString::number(timer.elapsed())));
}

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    TestWindow::setIdentity();
    TestJobQueue test(settings);
    return QTest::qExec(&test, argc, argv);
}

#include "tst_JobQueue.moc"
