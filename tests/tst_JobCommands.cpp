#include "support/DialogVisit.h"
#include "support/FtpTreeServer.h"
#include "support/MarkingTranslator.h"
#include "support/MessageBoxAnswer.h"
#include "support/TestSettings.h"
#include "support/TestWindow.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QDir>
#include <QLineEdit>
#include <QPushButton>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTableWidget>
#include <QTest>

#include <optional>

using namespace Qt::StringLiterals;

namespace {

constexpr int kPatienceMs = 10000; // only a test that fails waits for so long
const QString kEditor = u"Synchronisation job"_s;
const QString kInformation = u"#56f0e2"_s;
const QString kError = u"#e54838"_s;

/** A window without a worker, and with an empty log. */
class CommandWindow : public TestWindow
{
public:
    CommandWindow()
    {
        takeWorkerAway();
        disconnect(this, &MainWindow::testConnectionRequested, nullptr, nullptr);
        tests.emplace(this, &MainWindow::testConnectionRequested);
        clearLog();
        show();
    }

    void command(const QString &entry) const { choose(u"&Jobs"_s, entry); }
    void add() const { command(u"&Add..."_s); }
    void edit() const { command(u"&Edit..."_s); }
    void duplicate() const { command(u"D&uplicate"_s); }
    void remove() const { command(u"&Remove"_s); }
    void test() const { command(u"&Test Connection"_s); }

    void removeForGood() const
    {
        const MessageBoxAnswer yes(u"Yes"_s);
        remove();
    }

    void syncByHand(int row) const
    {
        selectJob(row);
        command(u"Sync &Selected Now"_s);
    }

    void switchAuto(bool on) const { part<QCheckBox>("autoCheck")->setChecked(on); }
    QStringList names() const { return column(JobColumn); }
    int selected() const { return part<QTableWidget>("table")->currentRow(); }
    void endTest(bool ok, const QString &message)
    {
        if (!QMetaObject::invokeMethod(this, "onTestFinished", Qt::DirectConnection, Q_ARG(bool, ok),
                                       Q_ARG(QString, message)))
            qFatal("the window does not take the end of a test");
    }

    std::optional<QSignalSpy> tests;
};

/** Types a name into the job editor, fills in what a job cannot do without, and presses OK. */
void fillIn(QDialog *editor, const QString &name)
{
    partOf<QLineEdit>(editor, "nameEdit")->setText(name);
    partOf<QLineEdit>(editor, "hostEdit")->setText(u"127.0.0.1"_s);
    partOf<QLineEdit>(editor, "localEdit")->setText(u"/mirror"_s);
    clickButton(editor, u"OK"_s);
}

QStringList storedNames()
{
    QStringList names;
    for (const SyncJob &job : TestJobs::stored().jobs)
        names += job.name;
    return names;
}

} // namespace

class TestJobCommands : public QObject
{
    Q_OBJECT

public:
    explicit TestJobCommands(const TestSettings &settings) : settingsFile(settings) {}

private slots:
    void init() const { settingsFile.clear(); }

    void aNewJobIsProposed();
    void aNewJobIsSavedShownAndSelected();
    void aTypedNameThatClashesIsChanged();
    void aNewJobJoinsTheSchedule();
    void cancellingChangesNothing();

    void withoutAJobCommandsDoNothing();
    void editingShowsTheSelectedJob();
    void anEditedJobKeepsItsNameOrGetsAnother();
    void anEditedJobIsScheduledAnew();
    void editingOverwritesWhatARunRecordedMeanwhile();
    void editingBringsBackAllOfTheOpeningMoment();
    void aDoubleClickEditsAlsoDuringARun_data();
    void aDoubleClickEditsAlsoDuringARun();

    void aDuplicateForgetsItsRuns();
    void aDuplicateHasNoNextRunUntilItIsToldTo();
    void aDuplicateOfARunningJobReadsRunning();

    void aDuplicateOfAWaitingJobReadsQueued();

    void textsAreTranslated();
    void removingAsks();
    void closingTheQuestionRemovesNothing();
    void removingMovesTheSelection();
    void removingRenumbersTheQueue();
    void removingDuringARunMisplacesItsResult();
    void aNameIsNoMarkupInTheQuestion();

    void aJobThatCannotRunIsNotTested();
    void aTestIsHandedToTheWorker();
    void theEndOfATestIsTold_data();
    void theEndOfATestIsTold();
    void aTestDuringARunLeavesTheStatusToIt();
    void aTestReachesTheServer();

private:
    const TestSettings &settingsFile;
};

void TestJobCommands::aNewJobIsProposed()
{
    TestJobs::store({TestJobs::named(u"new JOB"_s)});
    const CommandWindow window;
    QString name;
    QString remote;
    int port = 0;
    const DialogVisit visit(kEditor, [&](QDialog *editor) {
        QVERIFY(editor->isModal());
        QCOMPARE(editor->parentWidget(), &window);
        name = partOf<QLineEdit>(editor, "nameEdit")->text();
        remote = partOf<QLineEdit>(editor, "remoteEdit")->text();
        port = partOf<QSpinBox>(editor, "portSpin")->value();
        clickButton(editor, u"Cancel"_s);
    });
    window.press("addButton");
    QCOMPARE(name, u"New job (2)"_s);
    QCOMPARE(remote, u"/"_s);
    QCOMPARE(port, 21);
}

void TestJobCommands::aNewJobIsSavedShownAndSelected()
{
    TestJobs::store({TestJobs::named(u"a"_s), TestJobs::named(u"b"_s)});
    const CommandWindow window;
    const DialogVisit visit(kEditor, [](QDialog *editor) { fillIn(editor, u" third "_s); });
    window.add();
    QCOMPARE(window.names(), QStringList({u"a"_s, u"b"_s, u"third"_s}));
    QCOMPARE(window.selected(), 2);
    QCOMPARE(storedNames(), window.names());
    QCOMPARE(TestJobs::stored().jobs.last().config.localDir, u"/mirror"_s);
    QCOMPARE(window.log(), QStringList{u"Added job 'third'."_s});
    QCOMPARE(window.logLines().last().colour, kInformation);
    QCOMPARE(window.cell(2, NextRunColumn), u"manual"_s);
}

void TestJobCommands::aTypedNameThatClashesIsChanged()
{
    TestJobs::store({TestJobs::named(u"Archive"_s)});
    const CommandWindow window;
    const DialogVisit visit(kEditor, [](QDialog *editor) { fillIn(editor, u"archive"_s); });
    window.add();
    QCOMPARE(window.names(), QStringList({u"Archive"_s, u"archive (2)"_s}));
    QCOMPARE(window.log(), QStringList{u"Added job 'archive (2)'."_s});
}

void TestJobCommands::aNewJobJoinsTheSchedule()
{
    TestJobs::store({TestJobs::weekly(u"weekly"_s)});
    CommandWindow window;
    window.switchAuto(true);
    QSignalSpy runs(&window, &MainWindow::startSyncRequested);
    for (const bool isEnabled : {false, true}) {
        const DialogVisit visit(kEditor, [&](QDialog *editor) {
            partOf<QCheckBox>(editor, "enabledBox")->setChecked(isEnabled);
            fillIn(editor, u"fresh"_s);
        });
        window.add();
    }
    QCOMPARE(window.cell(1, NextRunColumn), u"disabled"_s);
    QVERIFY(window.cell(2, NextRunColumn) != u"manual"_s);
    window.invoke("onTick");
    QCOMPARE(runs.size(), 1);
    QCOMPARE(window.column(NextRunColumn).sliced(1), QStringList({u"disabled"_s, u"running..."_s}));
}

void TestJobCommands::cancellingChangesNothing()
{
    TestJobs::store({TestJobs::named(u"a"_s), TestJobs::named(u"b"_s)});
    const CommandWindow window;
    window.selectJob(1);
    const QByteArray before = settingsFile.read();
    for (const QString &entry : {u"&Add..."_s, u"&Edit..."_s}) {
        const DialogVisit visit(kEditor, [](QDialog *editor) {
            partOf<QLineEdit>(editor, "nameEdit")->setText(u"changed"_s);
            QTest::keyClick(editor, Qt::Key_Escape);
        });
        window.command(entry);
        QCOMPARE(window.names(), QStringList({u"a"_s, u"b"_s}));
        QCOMPARE(window.selected(), 1);
    }
    QCOMPARE(window.log(), QStringList());
    QCOMPARE(settingsFile.read(), before);
}

void TestJobCommands::withoutAJobCommandsDoNothing()
{
    CommandWindow window;
    window.edit();
    window.duplicate();
    window.remove();
    window.test();
    QCOMPARE(window.log(), QStringList());
    QCOMPARE(window.tests->size(), 0);
    QCOMPARE(window.names(), QStringList());
}

void TestJobCommands::editingShowsTheSelectedJob()
{
    TestJobs::store({TestJobs::named(u"a"_s), TestJobs::named(u"b"_s)});
    const CommandWindow window;
    window.selectJob(1);
    QString shown;
    const DialogVisit visit(kEditor, [&](QDialog *editor) {
        shown = partOf<QLineEdit>(editor, "nameEdit")->text();
        clickButton(editor, u"Cancel"_s);
    });
    window.press("editButton");
    QCOMPARE(shown, u"b"_s);
}

void TestJobCommands::anEditedJobKeepsItsNameOrGetsAnother()
{
    TestJobs::store({TestJobs::named(u"a"_s), TestJobs::named(u"b"_s)});
    const CommandWindow window;
    window.selectJob(1);
    for (const QString &typed : {u"b"_s, u"A"_s, u"c"_s}) {
        const DialogVisit visit(kEditor, [&](QDialog *editor) { fillIn(editor, typed); });
        window.edit();
    }
    QCOMPARE(window.log(),
             QStringList({u"Updated job 'b'."_s, u"Updated job 'A (2)'."_s, u"Updated job 'c'."_s}));
    QCOMPARE(window.logLines().last().colour, kInformation);
    QCOMPARE(window.names(), QStringList({u"a"_s, u"c"_s}));
    QCOMPARE(window.selected(), 1);
    QCOMPARE(storedNames(), window.names());
}

void TestJobCommands::anEditedJobIsScheduledAnew()
{
    TestJobs::store({TestJobs::weekly(u"weekly"_s)});
    CommandWindow window;
    window.switchAuto(true);
    const DialogVisit untick(kEditor, [](QDialog *editor) {
        partOf<QCheckBox>(editor, "enabledBox")->setChecked(false);
        clickButton(editor, u"OK"_s);
    });
    window.edit();
    QCOMPARE(window.cell(0, NextRunColumn), u"disabled"_s);
    QVERIFY(!TestJobs::stored().jobs.first().enabled);

    const DialogVisit everyMinute(kEditor, [](QDialog *editor) {
        partOf<QCheckBox>(editor, "enabledBox")->setChecked(true);
        partOf<QAbstractButton>(editor, "intervalRadio")->setChecked(true);
        clickButton(editor, u"OK"_s);
    });
    window.edit();
    window.invoke("onTick"); // due at once, since it has never run
    QCOMPARE(window.cell(0, NextRunColumn), u"running..."_s);
}

void TestJobCommands::editingOverwritesWhatARunRecordedMeanwhile()
{
    TestJobs::store({TestJobs::named(u"a"_s)});
    CommandWindow window;
    window.syncByHand(0);
    const DialogVisit visit(kEditor, [&](QDialog *editor) {
        window.endRun(); // while the editor is open
        QVERIFY(window.cell(0, LastResultColumn) != u"running..."_s);
        clickButton(editor, u"OK"_s);
    });
    window.edit();
    QVERIFY(!TestJobs::stored().jobs.first().lastRun.isValid());
    QCOMPARE(window.cell(0, LastResultColumn), u"never run"_s);
    QCOMPARE(window.cell(0, NextRunColumn), u"running..."_s); // and stays so
    window.clearLog();
    window.syncByHand(0);
    QCOMPARE(window.log(), QStringList());
}

void TestJobCommands::editingBringsBackAllOfTheOpeningMoment()
{
    SyncJob job = TestJobs::lastRunAgo(u"b"_s, 60);
    TestJobs::store({TestJobs::named(u"a"_s), job});
    CommandWindow window;
    window.syncByHand(0);
    window.syncByHand(1); // waits
    window.selectJob(1);
    const DialogVisit visit(kEditor, [&](QDialog *editor) {
        window.endRun(); // and b begins
        window.endRun({.failed = 1, .message = u"no"_s});
        QVERIFY(!TestJobs::stored().jobs.at(1).lastOk);
        clickButton(editor, u"OK"_s);
    });
    window.edit();
    const SyncJob stored = TestJobs::stored().jobs.at(1);
    QCOMPARE(stored.lastSummary, u"earlier"_s);
    QVERIFY(stored.lastOk);
    QCOMPARE(stored.lastRun.toSecsSinceEpoch(), job.lastRun.toSecsSinceEpoch());
    QCOMPARE(window.cell(1, NextRunColumn), u"queued"_s); // though it waits for nothing
}

void TestJobCommands::aDoubleClickEditsAlsoDuringARun_data()
{
    QTest::addColumn<int>("column");
    for (int column = EnabledColumn; column <= LastResultColumn; ++column)
        QTest::addRow("column %d", column) << column;
}

void TestJobCommands::aDoubleClickEditsAlsoDuringARun()
{
    TestJobs::store({TestJobs::named(u"a"_s), TestJobs::named(u"b"_s)});
    const CommandWindow window;
    window.syncByHand(0);
    QVERIFY(!window.isPressable("editButton"));
    QString shown;
    const DialogVisit visit(kEditor, [&](QDialog *editor) {
        shown = partOf<QLineEdit>(editor, "nameEdit")->text();
        fillIn(editor, u"renamed"_s);
    });
    auto *table = window.part<QTableWidget>("table");
    QFETCH(const int, column);
    const QPoint cell = table->visualItemRect(window.item(1, column)).center();
    QTest::mouseClick(table->viewport(), Qt::LeftButton, {}, cell);
    QTest::mouseDClick(table->viewport(), Qt::LeftButton, {}, cell);
    QCOMPARE(shown, u"b"_s);
    QCOMPARE(window.names(), QStringList({u"a"_s, u"renamed"_s}));
}

void TestJobCommands::aDuplicateForgetsItsRuns()
{
    SyncJob job = TestJobs::lastRunAgo(u"Archive"_s, 60);
    job.lastOk = false;
    job.enabled = false;
    job.config.excludes = {u"*.tmp"_s};
    TestJobs::store({job, TestJobs::named(u"b"_s)});
    const CommandWindow window;
    window.selectJob(0);
    window.duplicate();
    QCOMPARE(window.names(), QStringList({u"Archive"_s, u"b"_s, u"Archive (2)"_s}));
    QCOMPARE(window.selected(), 2);
    QCOMPARE(window.log(), QStringList{u"Duplicated as 'Archive (2)'."_s});
    QCOMPARE(window.logLines().last().colour, kInformation);
    const SyncJob copy = TestJobs::stored().jobs.last();
    QCOMPARE(copy.name, u"Archive (2)"_s);
    QCOMPARE(copy.config.excludes, job.config.excludes);
    QCOMPARE(copy.config.localDir, job.config.localDir);
    QVERIFY(!copy.enabled);
    QVERIFY(!copy.lastRun.isValid());
    QCOMPARE(copy.lastSummary, QString());
    QVERIFY(!copy.lastOk);
    QVERIFY(TestJobs::stored().jobs.first().lastRun.isValid());
}

void TestJobCommands::aDuplicateHasNoNextRunUntilItIsToldTo()
{
    TestJobs::store({TestJobs::weekly(u"a"_s)});
    CommandWindow window;
    window.switchAuto(true);
    window.duplicate();
    QCOMPARE(window.cell(1, NextRunColumn), u"manual"_s);
    window.invoke("onTick");
    QCOMPARE(window.cell(1, NextRunColumn), u"manual"_s);
    window.tick(1, false);
    window.tick(1, true);
    QCOMPARE(window.cell(1, NextRunColumn), window.cell(0, NextRunColumn));
}

void TestJobCommands::aDuplicateOfARunningJobReadsRunning()
{
    TestJobs::store({TestJobs::named(u"a"_s)});
    CommandWindow window;
    window.syncByHand(0);
    window.duplicate();
    window.endRun();
    QCOMPARE(window.column(NextRunColumn), QStringList({u"manual"_s, u"running..."_s}));
}

void TestJobCommands::aDuplicateOfAWaitingJobReadsQueued()
{
    TestJobs::store({TestJobs::named(u"a"_s), TestJobs::lastRunAgo(u"b"_s, 60)});
    CommandWindow window;
    window.syncByHand(0);
    window.syncByHand(1);
    window.selectJob(1);
    window.duplicate();
    QCOMPARE(window.cell(2, NextRunColumn), u"queued"_s);
    QVERIFY(TestJobs::stored().jobs.last().lastOk);
}

void TestJobCommands::closingTheQuestionRemovesNothing()
{
    TestJobs::store({TestJobs::named(u"a"_s)});
    const CommandWindow window;
    const DialogVisit visit(u"Kelpwharf"_s, [](QDialog *box) { QTest::keyClick(box, Qt::Key_Escape); });
    window.remove();
    QCOMPARE(window.names(), QStringList{u"a"_s});
}

void TestJobCommands::textsAreTranslated()
{
    MarkingTranslator translator("MainWindow");
    QCoreApplication::installTranslator(&translator);
    const auto putBack = qScopeGuard([&translator] { QCoreApplication::removeTranslator(&translator); });
    CommandWindow window;
    QString proposed;
    const DialogVisit visit(kEditor, [&](QDialog *editor) {
        proposed = partOf<QLineEdit>(editor, "nameEdit")->text();
        fillIn(editor, u"a"_s);
    });
    window.invoke("onAddJob");
    QCOMPARE(proposed, u"[New job]"_s);
    const DialogVisit again(kEditor, [&](QDialog *editor) { clickButton(editor, u"OK"_s); });
    window.invoke("onEditJob");
    window.invoke("onDuplicateJob");
    QString question;
    {
        const MessageBoxAnswer yes(u"Yes"_s);
        window.invoke("onRemoveJob");
        question = yes.text();
    }
    QCOMPARE(question, u"[Remove the job 'a (2)'?\n\nLocal files already downloaded are left alone.]"_s);
    window.invoke("onTestConnection");
    QCOMPARE(window.status(), u"[Testing connection...]"_s);
    const MessageBoxAnswer ok(u"OK"_s);
    window.endTest(false, u"why"_s);
    QCOMPARE(ok.text(), u"[Connection failed:\n\nwhy]"_s);
    QCOMPARE(window.status(), u"[Idle]"_s);
    QCOMPARE(window.log(), QStringList({u"[Added job 'a'.]"_s, u"[Updated job 'a'.]"_s,
                                        u"[Duplicated as 'a (2)'.]"_s, u"[Removed job 'a (2)'.]"_s,
                                        u"[[a] Testing connection to 127.0.0.1...]"_s, u"why"_s}));
}

void TestJobCommands::removingAsks()
{
    TestJobs::store({TestJobs::named(u"a"_s), TestJobs::named(u"b"_s)});
    const CommandWindow window;
    window.selectJob(1);
    {
        const MessageBoxAnswer no(u"No"_s);
        window.press("removeButton");
        QCOMPARE(no.title(), u"Kelpwharf"_s);
        QCOMPARE(no.text(), u"Remove the job 'b'?\n\nLocal files already downloaded are left alone."_s);
        QCOMPARE(no.icon(), QMessageBox::Question);
        QCOMPARE(no.buttons(), QStringList({u"Yes"_s, u"No"_s}));
    }
    QCOMPARE(window.names(), QStringList({u"a"_s, u"b"_s}));
    QCOMPARE(window.log(), QStringList());
    window.removeForGood();
    QCOMPARE(window.names(), QStringList{u"a"_s});
    QCOMPARE(storedNames(), window.names());
    QCOMPARE(window.log(), QStringList{u"Removed job 'b'."_s});
    QCOMPARE(window.logLines().last().colour, kInformation);
    window.removeForGood();
    QVERIFY(!window.isPressable("removeButton"));
    QVERIFY(window.isPressable("addButton"));
}

void TestJobCommands::removingMovesTheSelection()
{
    TestJobs::store({TestJobs::named(u"a"_s), TestJobs::named(u"b"_s), TestJobs::named(u"c"_s)});
    const CommandWindow window;
    window.selectJob(1);
    window.removeForGood();
    QCOMPARE(window.selected(), 1);
    window.removeForGood();
    QCOMPARE(window.selected(), 0);
    QCOMPARE(window.names(), QStringList{u"a"_s});

    TestJobs::store({TestJobs::named(u"a"_s), TestJobs::named(u"b"_s), TestJobs::named(u"c"_s)});
    const CommandWindow other;
    other.selectJob(2);
    other.removeForGood();
    QCOMPARE(other.selected(), 0); // the first, not the new last
}

void TestJobCommands::removingRenumbersTheQueue()
{
    TestJobs::store({TestJobs::named(u"a"_s), TestJobs::named(u"b"_s), TestJobs::named(u"c"_s),
                     TestJobs::named(u"d"_s), TestJobs::named(u"e"_s)});
    CommandWindow window;
    QSignalSpy runs(&window, &MainWindow::startSyncRequested);
    for (const int row : {0, 4, 1, 2})
        window.syncByHand(row);
    window.selectJob(2);
    window.removeForGood(); // c, which waits; d and e move up, b stays
    for (int i = 0; i < 4; ++i)
        window.endRun();
    QStringList started;
    for (const QList<QVariant> &run : runs)
        started += run.first().value<MirrorConfig>().localDir.section(u'/', -1);
    QCOMPARE(started, QStringList({u"a"_s, u"e"_s, u"b"_s}));
    QCOMPARE(window.status(), u"Idle"_s);
}

void TestJobCommands::removingDuringARunMisplacesItsResult()
{
    TestJobs::store({TestJobs::named(u"a"_s), TestJobs::named(u"b"_s), TestJobs::named(u"c"_s)});
    CommandWindow window;
    window.syncByHand(1);
    window.selectJob(0);
    window.removeForGood();
    window.endRun();
    QCOMPARE(window.cell(0, NextRunColumn), u"running..."_s); // b, which has finished
    QVERIFY(TestJobs::stored().jobs.at(1).lastRun.isValid()); // c, which has not run

    window.syncByHand(1);
    window.selectJob(1);
    window.removeForGood();
    window.endRun(); // nobody is left to record it
    QCOMPARE(storedNames(), QStringList{u"b"_s});
    QVERIFY(window.isPressable("syncButton"));
}

void TestJobCommands::aNameIsNoMarkupInTheQuestion()
{
    TestJobs::store({TestJobs::named(u"<b>x</b><img src=y>"_s)});
    const CommandWindow window;
    Qt::TextFormat format = Qt::AutoText;
    const DialogVisit visit(u"Kelpwharf"_s, [&](QDialog *box) {
        format = qobject_cast<QMessageBox *>(box)->textFormat();
        clickButton(box, u"No"_s);
    });
    window.remove();
    QCOMPARE(format, Qt::PlainText);
}

void TestJobCommands::aJobThatCannotRunIsNotTested()
{
    SyncJob job = TestJobs::named(u"a"_s);
    job.config.host.clear();
    QString reason;
    QVERIFY(!job.isRunnable(&reason));
    TestJobs::store({job});
    CommandWindow window;
    const QString status = window.status();
    const MessageBoxAnswer ok(u"OK"_s);
    window.press("testButton");
    QCOMPARE(ok.title(), u"Kelpwharf"_s);
    QCOMPARE(ok.text(), reason);
    QCOMPARE(ok.icon(), QMessageBox::Warning);
    QCOMPARE(window.tests->size(), 0);
    QCOMPARE(window.status(), status);
    QCOMPARE(window.log(), QStringList());
    QVERIFY(window.isPressable("testButton"));
}

void TestJobCommands::aTestIsHandedToTheWorker()
{
    TestJobs::store({TestJobs::named(u"a"_s), TestJobs::named(u"b %1"_s)});
    CommandWindow window;
    window.selectJob(1);
    window.press("testButton");
    QCOMPARE(window.tests->size(), 1);
    QCOMPARE(window.tests->first().first().value<MirrorConfig>().localDir,
             TestJobs::named(u"b %1"_s).config.localDir);
    QVERIFY(!window.isPressable("testButton"));
    QVERIFY(!window.isPressable("stopButton"));
    QCOMPARE(window.status(), u"Testing connection..."_s);
    QCOMPARE(window.log(), QStringList{u"[b %1] Testing connection to 127.0.0.1..."_s});
    QCOMPARE(window.logLines().last().colour, kInformation);
    QCOMPARE(window.cell(1, NextRunColumn), u"manual"_s);
}

void TestJobCommands::theEndOfATestIsTold_data()
{
    QTest::addColumn<bool>("isGood");
    QTest::addColumn<QString>("boxText");
    QTest::addColumn<QString>("colour");
    QTest::newRow("good") << true << u"<b>%1</b>"_s << kInformation;
    QTest::newRow("bad") << false << u"Connection failed:\n\n<b>%1</b>"_s << kError;
}

void TestJobCommands::theEndOfATestIsTold()
{
    QFETCH(const bool, isGood);
    QFETCH(const QString, boxText);
    QFETCH(const QString, colour);
    TestJobs::store({TestJobs::named(u"a"_s)});
    CommandWindow window;
    window.press("testButton");
    window.clearLog();
    Qt::TextFormat format = Qt::AutoText;
    const DialogVisit visit(u"Kelpwharf"_s, [&](QDialog *shown) {
        const auto *box = qobject_cast<QMessageBox *>(shown);
        QCOMPARE(box->text(), boxText);
        QCOMPARE(box->icon(), isGood ? QMessageBox::Information : QMessageBox::Critical);
        format = box->textFormat();
        QVERIFY(window.part<QPushButton>("testButton")->isEnabled());
        QCOMPARE(window.status(), u"Idle"_s);
        QCOMPARE(window.log(), QStringList{u"<b>%1</b>"_s});
        clickButton(shown, u"OK"_s);
    });
    window.endTest(isGood, u"<b>%1</b>"_s);
    QCOMPARE(format, Qt::PlainText); // a server's words are no markup
    QCOMPARE(window.logLines().last().colour, colour);
}

void TestJobCommands::aTestDuringARunLeavesTheStatusToIt()
{
    TestJobs::store({TestJobs::named(u"a"_s), TestJobs::named(u"b"_s)});
    CommandWindow window;
    window.syncByHand(0);
    window.selectJob(1);
    window.test();
    QCOMPARE(window.tests->size(), 1);
    QCOMPARE(window.status(), u"Testing connection..."_s);
    const MessageBoxAnswer ok(u"OK"_s);
    window.endTest(true, u"fine"_s);
    QCOMPARE(window.status(), u"Testing connection..."_s);
    QVERIFY(!window.isPressable("testButton"));
}

void TestJobCommands::aTestReachesTheServer()
{
    FtpTreeServer server({{"/", {remoteFile("a", "1", "20240131120000"), remoteFolder("b")}}});
    SyncJob job = TestJobs::named(u"a"_s);
    job.config.port = server.port();
    job.config.user = u"kim"_s;
    job.config.password = u"secret"_s;
    TestJobs::store({job});
    TestWindow window; // with its worker
    window.show();
    const MessageBoxAnswer ok(u"OK"_s);
    window.press("testButton");
    QTRY_VERIFY_WITH_TIMEOUT(ok.hasCome() && window.isPressable("testButton"), kPatienceMs);
    QCOMPARE(ok.text(), u"Connected. '/' contains 2 item(s). Listing mode: LIST."_s);
    QCOMPARE(ok.icon(), QMessageBox::Information);
    QVERIFY(!QDir(job.config.localDir).exists());
}

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    TestWindow::setIdentity();
    TestJobCommands test(settings);
    return QTest::qExec(&test, argc, argv);
}

#include "tst_JobCommands.moc"
