#include "panel/VfdPanel.h"
#include "support/DialogVisit.h"
#include "support/FtpTreeServer.h"
#include "support/LocalFolder.h"
#include "support/MessageBoxAnswer.h"
#include "support/PanelPicture.h"
#include "support/StillClock.h"
#include "support/TestSettings.h"
#include "support/TestWindow.h"

#include <QApplication>
#include <QCheckBox>
#include <QElapsedTimer>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QMainWindow>
#include <QPointer>
#include <QScopeGuard>
#include <QTableWidget>
#include <QTest>
#include <QThread>
#include <QTimer>
#include <QVBoxLayout>

#include <atomic>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr int kPatienceMs = 20000; // only a test that fails waits for so long

constexpr int kPacedMs = 400; ///< that a server takes for a file

const QDateTime kNow(QDate(2026, 3, 18), QTime(14, 40, 0)); // a Wednesday

/**
 * A panel that is told what the window's panel should have been told. Two panels that look the same
 * have been told the same: both clocks stand still, and neither blinks.
 */
class Twin : public VfdPanel
{
public:
    Twin() { findChild<QTimer *>()->stop(); }

    /** What a job at rest has it told. */
    void showJob(const SyncJob &job, const QDateTime &next = QDateTime())
    {
        setJobName(job.name);
        setHost(job.config.host);
        setSyncModeLabel(job.syncModeLabel());
        setNextRun(next);
        if (job.lastRun.isValid())
            setLastRun(job.lastRun, job.lastSummary);
    }
};

/** The threads of the windows so far; null once they are gone. */
QList<QPointer<QThread>> threads;

/** A window without a worker, whose panel does not blink. */
class FedWindow : public TestWindow
{
public:
    FedWindow()
    {
        takeWorkerAway();
        panel()->findChild<QTimer *>()->stop();
        threads += part<QThread>("workerThread");
        show();
    }

    VfdPanel *panel() const { return part<VfdPanel>("panel"); }
    bool looksLike(VfdPanel &twin) const
    {
        const int width = panel()->width();
        return pictureOf(*panel(), width) == pictureOf(twin, width);
    }
    void switchAuto(bool on) const { part<QCheckBox>("autoCheck")->setChecked(on); }
    void syncByHand(int row) const
    {
        selectJob(row);
        choose(u"&Jobs"_s, u"Sync &Selected Now"_s);
    }
    void say(int status, const QString &detail)
    {
        if (!QMetaObject::invokeMethod(this, "onWorkerStatus", Qt::DirectConnection, Q_ARG(int, status),
                                       Q_ARG(QString, detail)))
            qFatal("the window takes no status");
    }
};

/** A job every so many minutes, whose last run was so many minutes ago. */
SyncJob everySoOften(const QString &name, int minutes, int ago)
{
    SyncJob job = TestJobs::named(name);
    job.config.host = name + u".example.org"_s;
    job.intervalMins = minutes;
    job.lastRun = kNow.addSecs(-60LL * ago);
    job.lastSummary = u"summary of "_s + name;
    return job;
}

SyncJob neverRun(const QString &name)
{
    SyncJob job = TestJobs::named(name);
    job.config.host = name + u".example.org"_s;
    job.config.syncMode = NewOnly;
    return job;
}

SyncJob unscheduled(SyncJob job)
{
    job.enabled = false;
    return job;
}

} // namespace

class TestPanelFeed : public QObject
{
    Q_OBJECT

public:
    explicit TestPanelFeed(const TestSettings &settings) : settingsFile(settings) {}

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void itStandsAtTheTop();
    void withoutJobsItIsEmpty();
    void atRestItShowsTheSelectedJob();
    void aJobThatNeverRanLeavesTheLastRun();
    void withAutoItShowsTheJobThatIsNext();
    void withAutoTiesGoToTheFirst();
    void withAutoAndNothingPendingItShowsTheSelectedJob();
    void withAutoAndNoJobItIsEmpty();
    void switchingAutoOffTakesTheNextRunAway();
    void tickingAJobChangesTheNextOne();
    void editingShowsTheNewName();
    void removingShowsTheOneSelectedThen();

    void aRunByHandIsManual();
    void aBatchIsManualForItsFirstJobOnly();
    void aRunBeginsWithoutProgress();
    void aRunByHandDuringAutoIsAuto();
    void aJobThatIsNotTickedIsNotNext();
    void aTickMovesOnToTheNextJob();
    void aRunByAutoIsAuto();
    void duringARunTheSelectionDoesNotCount();
    void theWorkersStatusIsTheLink_data();
    void theWorkersStatusIsTheLink();
    void progressIsAFraction_data();
    void progressIsAFraction();
    void aFileWithoutANameIsTheOneBefore();

    void theEndOfARunIsShown_data();
    void theEndOfARunIsShown();
    void aRunWhoseJobIsGoneLeavesNoMark();
    void aConnectionTestNamesItsJob();
    void aRealRunIsShownStepByStep();

private:
    const TestSettings &settingsFile;
};

void TestPanelFeed::initTestCase() { QVERIFY2(StillClock::isHeld(), "needs libfaketime, as CTest sets it"); }

void TestPanelFeed::init()
{
    settingsFile.clear();
    StillClock::set(kNow);
}

/** A wait with a time limit may end at once while the clock stands still, and leave a thread behind. */
void TestPanelFeed::cleanup()
{
    for (const QPointer<QThread> &thread : std::as_const(threads)) {
        if (thread)
            thread->wait();
        delete thread;
    }
    threads.clear();
}

void TestPanelFeed::itStandsAtTheTop()
{
    const FedWindow window;
    const auto *layout = qobject_cast<QVBoxLayout *>(window.centralWidget()->layout());
    QVERIFY(layout);
    QCOMPARE(layout->itemAt(0)->widget(), window.panel());
    QCOMPARE(layout->stretch(0), 0);
    QCOMPARE(layout->itemAt(1)->widget(), window.part<QTableWidget>("table"));
}

void TestPanelFeed::withoutJobsItIsEmpty()
{
    const FedWindow window;
    Twin twin;
    QVERIFY(window.looksLike(twin));
    twin.setMode(VfdPanel::Manual);
    QVERIFY(!window.looksLike(twin)); // the comparison sees a difference
}

void TestPanelFeed::atRestItShowsTheSelectedJob()
{
    SyncJob a = everySoOften(u"a"_s, 60, 10);
    SyncJob b = everySoOften(u"b"_s, 60, 20);
    b.config.syncMode = FullSync;
    b.config.deleteExtraneous = true;
    TestJobs::store({a, b});
    const FedWindow window;
    Twin twin;
    twin.showJob(a);
    QVERIFY(window.looksLike(twin));
    window.selectJob(1);
    twin.showJob(b);
    QVERIFY(window.looksLike(twin));
    window.selectJob(0);
    twin.showJob(a);
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::aJobThatNeverRanLeavesTheLastRun()
{
    const SyncJob a = everySoOften(u"a"_s, 60, 10);
    const SyncJob fresh = neverRun(u"fresh"_s);
    TestJobs::store({a, fresh});
    const FedWindow window;
    window.selectJob(1);
    Twin twin;
    twin.showJob(a);
    twin.showJob(fresh); // with a's last run still
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::withAutoItShowsTheJobThatIsNext()
{
    const QList<SyncJob> jobs = {everySoOften(u"later"_s, 60, 10), everySoOften(u"soon"_s, 60, 50),
                                 unscheduled(everySoOften(u"never"_s, 60, 59))};
    TestJobs::store(jobs);
    const FedWindow window;
    window.selectJob(2);
    window.switchAuto(true);
    Twin twin;
    twin.setMode(VfdPanel::Auto);
    twin.showJob(jobs.at(2)); // the one selected before
    twin.showJob(jobs.at(1), kNow.addSecs(600));
    QVERIFY(window.looksLike(twin));
    window.selectJob(0); // does not matter now
    QVERIFY(window.looksLike(twin));
    StillClock::set(kNow.addSecs(30));
    QVERIFY(window.looksLike(twin)); // counts down by itself
}

void TestPanelFeed::withAutoTiesGoToTheFirst()
{
    const QList<SyncJob> jobs = {everySoOften(u"later"_s, 60, 10), everySoOften(u"one"_s, 60, 50),
                                 everySoOften(u"two"_s, 60, 50)};
    TestJobs::store(jobs);
    const FedWindow window;
    window.switchAuto(true);
    Twin twin;
    twin.setMode(VfdPanel::Auto);
    twin.showJob(jobs.at(1), kNow.addSecs(600));
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::withAutoAndNothingPendingItShowsTheSelectedJob()
{
    const SyncJob a = unscheduled(everySoOften(u"a"_s, 60, 10));
    const SyncJob b = unscheduled(everySoOften(u"b"_s, 60, 10));
    TestJobs::store({a, b});
    const FedWindow window;
    window.switchAuto(true);
    window.selectJob(1);
    Twin twin;
    twin.setMode(VfdPanel::Auto);
    twin.showJob(b);
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::withAutoAndNoJobItIsEmpty()
{
    const SyncJob a = everySoOften(u"a"_s, 60, 10);
    TestJobs::store({a});
    const FedWindow window;
    window.switchAuto(true);
    {
        const MessageBoxAnswer yes(u"Yes"_s);
        window.choose(u"&Jobs"_s, u"&Remove"_s);
    }
    Twin twin;
    twin.showJob(a);
    twin.setMode(VfdPanel::Auto);
    twin.setJobName(QString());
    twin.setHost(QString());
    twin.setNextRun(QDateTime());
    QVERIFY(window.looksLike(twin)); // mode text and last run stay
}

void TestPanelFeed::switchingAutoOffTakesTheNextRunAway()
{
    const SyncJob a = everySoOften(u"a"_s, 60, 10);
    TestJobs::store({a});
    const FedWindow window;
    window.switchAuto(true);
    window.switchAuto(false);
    Twin twin;
    twin.showJob(a);
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::tickingAJobChangesTheNextOne()
{
    const SyncJob soon = everySoOften(u"soon"_s, 60, 50);
    const SyncJob later = everySoOften(u"later"_s, 60, 10);
    TestJobs::store({soon, later});
    const FedWindow window;
    window.switchAuto(true);
    window.tick(0, false);
    Twin twin;
    twin.setMode(VfdPanel::Auto);
    twin.showJob(later, kNow.addSecs(3000));
    QVERIFY(window.looksLike(twin));
    window.tick(0, true);
    twin.showJob(soon, kNow.addSecs(600));
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::editingShowsTheNewName()
{
    SyncJob a = everySoOften(u"a"_s, 60, 10);
    TestJobs::store({a});
    const FedWindow window;
    const auto nameIt = [](const QString &name) {
        return [name](QDialog *editor) {
            partOf<QLineEdit>(editor, "nameEdit")->setText(name);
            partOf<QLineEdit>(editor, "hostEdit")->setText(u"host"_s);
            partOf<QLineEdit>(editor, "localEdit")->setText(u"/mirror"_s);
            clickButton(editor, u"OK"_s);
        };
    };
    {
        const DialogVisit visit(u"Synchronisation job"_s, nameIt(u"renamed"_s));
        window.choose(u"&Jobs"_s, u"&Edit..."_s);
    }
    Twin twin;
    a.name = u"renamed"_s;
    a.config.host = u"host"_s;
    twin.showJob(a);
    QVERIFY(window.looksLike(twin));

    {
        const DialogVisit visit(u"Synchronisation job"_s, nameIt(u"added"_s));
        window.choose(u"&Jobs"_s, u"&Add..."_s);
    }
    twin.setJobName(u"added"_s);
    QVERIFY(window.looksLike(twin));
    window.choose(u"&Jobs"_s, u"D&uplicate"_s);
    twin.setJobName(u"added (2)"_s);
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::removingShowsTheOneSelectedThen()
{
    const SyncJob a = everySoOften(u"a"_s, 60, 10);
    const SyncJob b = everySoOften(u"b"_s, 60, 20);
    TestJobs::store({a, b});
    const FedWindow window;
    {
        const MessageBoxAnswer yes(u"Yes"_s);
        window.choose(u"&Jobs"_s, u"&Remove"_s);
    }
    Twin twin;
    twin.showJob(b);
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::aRunByHandIsManual()
{
    const SyncJob a = everySoOften(u"a"_s, 60, 10);
    const SyncJob fresh = neverRun(u"fresh"_s);
    TestJobs::store({a, fresh});
    FedWindow window;
    window.syncByHand(1);
    Twin twin;
    twin.showJob(a);
    twin.setJobName(u"fresh"_s);
    twin.setHost(fresh.config.host);
    twin.setSyncModeLabel(fresh.syncModeLabel());
    twin.setRunning(true);
    twin.setMode(VfdPanel::Manual);
    QVERIFY(window.looksLike(twin));
    StillClock::set(kNow.addSecs(75));
    QVERIFY(window.looksLike(twin));
    window.endRun();
    twin.setRunning(false);
    twin.setMode(VfdPanel::Off);
    twin.setLastRun(kNow.addSecs(75), TestJobs::stored().jobs.at(1).lastSummary);
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::aBatchIsManualForItsFirstJobOnly()
{
    const SyncJob a = everySoOften(u"a"_s, 60, 10);
    SyncJob b = everySoOften(u"b"_s, 60, 20);
    b.config.syncMode = NewOnly;
    TestJobs::store({a, b});
    FedWindow window;
    window.choose(u"Kelpwharf"_s, u"Sync &All Jobs Now"_s);
    Twin twin;
    twin.showJob(a);
    twin.setRunning(true);
    twin.setMode(VfdPanel::Manual);
    QVERIFY(window.looksLike(twin));
    window.endRun();
    twin.setLastRun(kNow, TestJobs::stored().jobs.first().lastSummary);
    twin.setJobName(b.name);
    twin.setHost(b.config.host);
    twin.setSyncModeLabel(b.syncModeLabel());
    twin.setMode(VfdPanel::Off);
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::aRunBeginsWithoutProgress()
{
    const SyncJob a = everySoOften(u"a"_s, 60, 10);
    TestJobs::store({a});
    FedWindow window;
    window.announceProgress(u"of another time"_s, 50, 100);
    window.syncByHand(0);
    Twin twin;
    twin.showJob(a);
    twin.setCurrentFile(u"of another time"_s);
    twin.setRunning(true);
    twin.setMode(VfdPanel::Manual);
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::aRunByHandDuringAutoIsAuto()
{
    const SyncJob a = everySoOften(u"a"_s, 60, 10);
    TestJobs::store({a});
    const FedWindow window;
    window.switchAuto(true);
    window.syncByHand(0);
    Twin twin;
    twin.setMode(VfdPanel::Auto);
    twin.showJob(a, kNow.addSecs(3000));
    twin.setRunning(true);
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::aJobThatIsNotTickedIsNotNext()
{
    const SyncJob soon = everySoOften(u"soon"_s, 60, 50);
    const SyncJob later = everySoOften(u"later"_s, 60, 10);
    TestJobs::store({soon, later});
    const FedWindow window;
    window.switchAuto(true);
    const DialogVisit visit(u"Synchronisation job"_s, [](QDialog *editor) {
        partOf<QCheckBox>(editor, "enabledBox")->setChecked(false);
        clickButton(editor, u"OK"_s);
    });
    window.choose(u"&Jobs"_s, u"&Edit..."_s); // which leaves it its time
    Twin twin;
    twin.setMode(VfdPanel::Auto);
    twin.showJob(later, kNow.addSecs(3000));
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::aTickMovesOnToTheNextJob()
{
    SyncJob soon = unscheduled(everySoOften(u"soon"_s, 60, 50));
    soon.config.host.clear(); // so it is refused when it falls due
    const SyncJob later = everySoOften(u"later"_s, 60, 10);
    TestJobs::store({soon, later});
    FedWindow window;
    window.switchAuto(true);
    window.tick(0, true);
    Twin twin;
    twin.setMode(VfdPanel::Auto);
    twin.showJob(soon, kNow.addSecs(600));
    QVERIFY(window.looksLike(twin));
    StillClock::set(kNow.addSecs(601));
    window.invoke("onTick");
    twin.showJob(later, kNow.addSecs(3000));
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::aRunByAutoIsAuto()
{
    const SyncJob due = everySoOften(u"due"_s, 60, 70);
    TestJobs::store({due});
    FedWindow window;
    window.switchAuto(true);
    window.invoke("onTick");
    Twin twin;
    twin.setMode(VfdPanel::Auto);
    twin.showJob(due, kNow); // the next run was the one that has begun
    twin.setRunning(true);
    QVERIFY(window.looksLike(twin));
    window.endRun();
    twin.setRunning(false);
    SyncJob done = due;
    done.lastRun = kNow;
    done.lastSummary = TestJobs::stored().jobs.first().lastSummary;
    twin.showJob(done, kNow.addSecs(3600));
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::duringARunTheSelectionDoesNotCount()
{
    const SyncJob a = everySoOften(u"a"_s, 60, 10);
    TestJobs::store({a, everySoOften(u"b"_s, 60, 20)});
    const FedWindow window;
    window.syncByHand(0);
    window.selectJob(1);
    Twin twin;
    twin.showJob(a);
    twin.setRunning(true);
    twin.setMode(VfdPanel::Manual);
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::theWorkersStatusIsTheLink_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<int>("link");
    QTest::newRow("-1") << -1 << int(VfdPanel::Offline);
    QTest::newRow("0") << 0 << int(VfdPanel::Offline);
    QTest::newRow("1") << 1 << int(VfdPanel::Connecting);
    QTest::newRow("2") << 2 << int(VfdPanel::Connected);
    QTest::newRow("3") << 3 << int(VfdPanel::Transferring);
    QTest::newRow("4") << 4 << int(VfdPanel::Error);
    QTest::newRow("5") << 5 << int(VfdPanel::Offline);
}

void TestPanelFeed::theWorkersStatusIsTheLink()
{
    QFETCH(const int, status);
    QFETCH(const int, link);
    FedWindow window;
    Twin twin;
    window.say(status, u"a detail"_s);
    twin.setLink(static_cast<VfdPanel::Link>(link), u"a detail"_s);
    QVERIFY(window.looksLike(twin));
    QCOMPARE(window.panel()->linkText(), twin.linkText());
    window.say(status, QString());
    twin.setLink(static_cast<VfdPanel::Link>(link), QString());
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::progressIsAFraction_data()
{
    QTest::addColumn<qint64>("done");
    QTest::addColumn<qint64>("total");
    QTest::addColumn<double>("fraction");
    QTest::newRow("nothing yet") << qint64(0) << qint64(100) << 0.0;
    QTest::newRow("half") << qint64(50) << qint64(100) << 0.5;
    QTest::newRow("all") << qint64(100) << qint64(100) << 1.0;
    QTest::newRow("more than all") << qint64(300) << qint64(100) << 3.0;
    QTest::newRow("an empty file") << qint64(0) << qint64(0) << -1.0;
    QTest::newRow("no size") << qint64(50) << qint64(-1) << -1.0;
    QTest::newRow("large") << (qint64(1) << 40) << (qint64(1) << 41) << 0.5;
}

void TestPanelFeed::progressIsAFraction()
{
    QFETCH(const qint64, done);
    QFETCH(const qint64, total);
    QFETCH(const double, fraction);
    TestJobs::store({everySoOften(u"a"_s, 60, 10)});
    FedWindow window;
    window.syncByHand(0);
    Twin twin;
    twin.showJob(everySoOften(u"a"_s, 60, 10));
    twin.setMode(VfdPanel::Manual);
    twin.setRunning(true);
    window.announceProgress(u"talk.mp3"_s, done, total);
    twin.setCurrentFile(u"talk.mp3"_s);
    twin.setFileProgress(fraction);
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::aFileWithoutANameIsTheOneBefore()
{
    TestJobs::store({everySoOften(u"a"_s, 60, 10)});
    FedWindow window;
    window.syncByHand(0);
    window.announceProgress(u"talk.mp3"_s, 0, 100);
    window.announceProgress(QString(), 80, 100);
    Twin twin;
    twin.showJob(everySoOften(u"a"_s, 60, 10));
    twin.setMode(VfdPanel::Manual);
    twin.setRunning(true);
    twin.setCurrentFile(u"talk.mp3"_s);
    twin.setFileProgress(0.8);
    QVERIFY(window.looksLike(twin));
    QCOMPARE(window.status(), u"Downloading talk.mp3"_s);
}

void TestPanelFeed::theEndOfARunIsShown_data()
{
    QTest::addColumn<MirrorResult>("result");
    QTest::addColumn<bool>("leavesAMark");
    QTest::newRow("nothing to do") << MirrorResult{.success = true, .upToDate = 5} << false;
    QTest::newRow("a file") << MirrorResult{.success = true, .downloaded = 1} << true;
    QTest::newRow("deleted") << MirrorResult{.success = true, .deleted = 1} << true;
    QTest::newRow("failed") << MirrorResult{.failed = 3, .message = u"no"_s} << false;
    QTest::newRow("failed in part") << MirrorResult{.downloaded = 2, .failed = 3, .message = u"no"_s} << true;
    QTest::newRow("stopped") << MirrorResult{.cancelled = true, .downloaded = 2} << true;
}

void TestPanelFeed::theEndOfARunIsShown()
{
    QFETCH(const MirrorResult, result);
    QFETCH(const bool, leavesAMark);
    const SyncJob a = everySoOften(u"a"_s, 60, 10);
    TestJobs::store({a});
    FedWindow window;
    window.syncByHand(0);
    window.say(4, u"why"_s);
    window.announceProgress(u"talk.mp3"_s, 50, 100);
    StillClock::set(kNow.addSecs(90));
    window.endRun(result);
    Twin twin;
    twin.showJob(a);
    twin.setLink(VfdPanel::Error, u"why"_s);
    twin.setLastRun(kNow.addSecs(90), TestJobs::stored().jobs.first().lastSummary);
    if (leavesAMark)
        twin.addActivityMark(kNow.addSecs(90));
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::aRunWhoseJobIsGoneLeavesNoMark()
{
    const SyncJob a = everySoOften(u"a"_s, 60, 10);
    TestJobs::store({a});
    FedWindow window;
    window.syncByHand(0);
    {
        const MessageBoxAnswer yes(u"Yes"_s);
        window.choose(u"&Jobs"_s, u"&Remove"_s);
    }
    window.endRun({.success = true, .downloaded = 1});
    Twin twin;
    twin.showJob(a);
    twin.setJobName(QString());
    twin.setHost(QString());
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::aConnectionTestNamesItsJob()
{
    const SyncJob a = everySoOften(u"a"_s, 60, 10);
    const SyncJob soon = everySoOften(u"soon"_s, 60, 50);
    TestJobs::store({a, soon});
    FedWindow window;
    disconnect(&window, &MainWindow::testConnectionRequested, nullptr, nullptr);
    window.switchAuto(true);
    window.selectJob(0);
    window.choose(u"&Jobs"_s, u"&Test Connection"_s);
    Twin twin;
    twin.setMode(VfdPanel::Auto);
    twin.showJob(soon, kNow.addSecs(600));
    twin.setJobName(a.name); // and nothing else
    QVERIFY(window.looksLike(twin));
}

void TestPanelFeed::aRealRunIsShownStepByStep()
{
    const QByteArray talk(200000, 't');
    std::atomic<bool> holdBack = true;
    FtpTreeServer server(
        {{"/", {remoteFile("one.mp3", talk, "20260101120000"), remoteFile("two.mp3", talk)}}},
        {.faults = {Fault::inData("RETR /one.mp3").call([] { QTest::qSleep(kPacedMs); })},
         .onCommand = [&holdBack](const QByteArray &command) {
             while (holdBack && command == "RETR /two.mp3")
                 QTest::qSleep(5);
         }});
    const LocalFolder local;
    SyncJob job = TestJobs::named(u"talks"_s);
    job.config.port = server.port();
    job.config.user = u"kim"_s;
    job.config.password = u"secret"_s;
    job.config.localDir = local.path();
    TestJobs::store({job});

    const auto letGo = qScopeGuard([&holdBack] { holdBack = false; });
    TestWindow window; // with its worker
    window.show();
    auto *panel = window.part<VfdPanel>("panel");
    panel->findChild<QTimer *>()->stop();
    threads += window.part<QThread>("workerThread");
    const int width = panel->width();
    const auto picture = [panel, width] { return pictureOf(*panel, width); };
    QElapsedTimer timer;
    timer.start();
    window.press("syncButton");
    Twin twin;
    twin.setJobName(job.name);
    twin.setHost(job.config.host);
    twin.setSyncModeLabel(job.syncModeLabel());
    twin.setRunning(true);
    twin.setMode(VfdPanel::Manual);
    QCOMPARE(picture(), pictureOf(twin, width)); // before the worker's first word

    QTRY_COMPARE_WITH_TIMEOUT(window.status(), u"Downloading two.mp3"_s, kPatienceMs);
    QTRY_COMPARE_WITH_TIMEOUT(panel->linkText(), u"TRANSFERRING"_s, kPatienceMs);
    QTRY_VERIFY_WITH_TIMEOUT(window.log().last().contains(u"two.mp3"_s), kPatienceMs);
    twin.setLink(VfdPanel::Transferring, u"two.mp3"_s);
    twin.setCurrentFile(u"two.mp3"_s);
    twin.setFileProgress(0.0);
    // The rate is the first file's: its bytes in so many milliseconds, of which only the bounds are known.
    const auto sinceTheStart = static_cast<int>(timer.elapsed());
    const QImage shown = picture();
    bool isRate = false;
    for (int elapsed = kPacedMs; elapsed <= sinceTheStart && !isRate; ++elapsed) {
        twin.setRate(static_cast<double>(talk.size()) * 1000.0 / elapsed);
        isRate = shown == pictureOf(twin, width);
    }
    QVERIFY2(isRate, qPrintable(QString::number(sinceTheStart)));

    holdBack = false;
    QTRY_COMPARE_WITH_TIMEOUT(window.status(), u"Idle"_s, kPatienceMs);
    twin.setLink(VfdPanel::Offline, QString());
    twin.setRunning(false);
    twin.setMode(VfdPanel::Off);
    twin.setLastRun(kNow, TestJobs::stored().jobs.first().lastSummary);
    twin.addActivityMark(kNow);
    QCOMPARE(picture(), pictureOf(twin, width));
}

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    TestWindow::setIdentity();
    TestPanelFeed test(settings);
    return QTest::qExec(&test, argc, argv);
}

#include "tst_PanelFeed.moc"
