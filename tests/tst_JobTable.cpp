#include "support/TestSettings.h"
#include "support/TestWindow.h"

#include <QApplication>
#include <QFile>
#include <QHeaderView>
#include <QItemSelectionModel>
#include <QTableWidget>
#include <QTest>

using namespace Qt::StringLiterals;

class TestJobTable : public QObject
{
    Q_OBJECT

public:
    explicit TestJobTable(const TestSettings &settings) : file(settings) {}

private slots:
    void init();

    void theTable();
    void cells_data();
    void cells();
    void enabledCell();
    void lastResultIsColoured();
    void aFailureIsStillRedAfterARestart();
    void cellsAreMadeOnce();
    void theFirstJobIsSelected();
    void theSelectionStays();
    void theCurrentRowCountsIfNoneIsSelected();
    void buttons_data();
    void buttons();
    void theCheckBoxIsSavedAndLogged();
    void writingTheCellIsNoClick();
    void otherCellsAreNoCheckBoxes();

private:
    bool isSaved() const { return QFile::exists(file.filePath()); }

    const TestSettings &file;
};

void TestJobTable::init() { file.clear(); }

void TestJobTable::theTable()
{
    const TestWindow window;
    const auto *table = window.part<QTableWidget>("table");
    QCOMPARE(table->rowCount(), 0);
    QCOMPARE(table->columnCount(), 7);
    QStringList headers;
    for (int column = 0; column < 7; ++column)
        headers += table->horizontalHeaderItem(column)->text();
    QCOMPARE(headers, QStringList({u""_s, u"Job"_s, u"Server"_s, u"Mode"_s, u"Schedule"_s, u"Next run"_s,
                                   u"Last result"_s}));
    QCOMPARE(table->selectionBehavior(), QAbstractItemView::SelectRows);
    QCOMPARE(table->selectionMode(), QAbstractItemView::SingleSelection);
    QCOMPARE(table->editTriggers(), QAbstractItemView::NoEditTriggers);
    QVERIFY(table->verticalHeader()->isHidden());
    QVERIFY(table->alternatingRowColors());
    QCOMPARE(table->minimumHeight(), 140);
    QCOMPARE(table->columnWidth(0), 28);
    for (const int column : {1, 2, 6})
        QCOMPARE(table->horizontalHeader()->sectionResizeMode(column), QHeaderView::Stretch);
    for (const int column : {0, 3, 4, 5})
        QCOMPARE(table->horizontalHeader()->sectionResizeMode(column), QHeaderView::Interactive);
}

void TestJobTable::cells_data()
{
    QTest::addColumn<SyncJob>("job");
    QTest::addColumn<QStringList>("texts"); // from "Job" on
    QTest::addColumn<QString>("toolTip");   // of "Server"
    const QDateTime lastRun(QDate(2024, 5, 1), QTime(8, 3, 7));
    QTest::newRow("fresh") << SyncJob{.name = u"alpha"_s,
                                      .config = {.host = u"ftp.example"_s, .localDir = u"/home/kim/a"_s}}
                           << QStringList{u"alpha"_s,           u"ftp.example"_s, u"NEW + CHANGED"_s,
                                          u"Every 1 hour(s)"_s, u"manual"_s,      u"never run"_s}
                           << u"/  ->  /home/kim/a"_s;
    QTest::newRow("everything set")
        << SyncJob{.name = u"beta"_s,
                   .enabled = false,
                   .config = {.host = u"ftp.example"_s,
                              .port = 2121,
                              .user = u"kim"_s,
                              .remoteDir = u"/pub/x y"_s,
                              .localDir = u"/home/kim/b"_s,
                              .syncMode = FullSync,
                              .deleteExtraneous = true},
                   .intervalMins = 90,
                   .lastRun = lastRun,
                   .lastSummary = u"1 NEW"_s}
        << QStringList{u"beta"_s,     u"kim@ftp.example:2121"_s, u"FULL SYNC + PRUNE"_s, u"Every 90 min"_s,
                       u"disabled"_s, u"08:03  1 NEW"_s}
        << u"/pub/x y  ->  /home/kim/b"_s;
    QTest::newRow("weekly rules") << SyncJob{.name = u"gamma"_s,
                                             .config = {.syncMode = NewOnly},
                                             .scheduleMode = Rules,
                                             .rules = {{.days = 31, .hours = 1U << 8, .minutes = {30}}}}
                                  << QStringList{u"gamma"_s,          u""_s,       u"NEW ONLY"_s,
                                                 u"Weekdays 08:30"_s, u"manual"_s, u"never run"_s}
                                  << u"/  ->  "_s;
    QTest::newRow("placeholders in the texts")
        << SyncJob{.name = u"%1 %2"_s,
                   .config = {.host = u"%1"_s, .remoteDir = u"/%2"_s, .localDir = u"/%1"_s},
                   .lastRun = lastRun,
                   .lastSummary = u"%1 %2"_s}
        << QStringList{u"%1 %2"_s,           u"%1"_s,     u"NEW + CHANGED"_s,
                       u"Every 1 hour(s)"_s, u"manual"_s, u"08:03  %1 %2"_s}
        << u"/%2  ->  /%1"_s;
}

void TestJobTable::cells()
{
    QFETCH(const SyncJob, job);
    TestJobs::store({job});
    const TestWindow window;
    QCOMPARE(window.part<QTableWidget>("table")->rowCount(), 1);
    QStringList texts;
    for (int column = JobColumn; column <= LastResultColumn; ++column)
        texts += window.cell(0, column);
    QTEST(texts, "texts");
    QTEST(window.item(0, ServerColumn)->toolTip(), "toolTip");
    QCOMPARE(window.isTicked(0), job.enabled);
}

void TestJobTable::enabledCell()
{
    SyncJob off = TestJobs::named(u"beta"_s);
    off.enabled = false;
    TestJobs::store({TestJobs::named(u"alpha"_s), off});
    const TestWindow window;
    for (const int row : {0, 1}) {
        const QTableWidgetItem *cell = window.item(row, EnabledColumn);
        QCOMPARE(cell->text(), QString());
        QCOMPARE(cell->flags(), Qt::ItemIsSelectable | Qt::ItemIsUserCheckable | Qt::ItemIsEnabled);
        QCOMPARE(cell->toolTip(), u"Include this job when AUTO is on"_s);
        QCOMPARE(cell->checkState(), row == 0 ? Qt::Checked : Qt::Unchecked);
        for (int column = JobColumn; column <= LastResultColumn; ++column) {
            QVERIFY(!window.item(row, column)->data(Qt::CheckStateRole).isValid());
            QCOMPARE(window.item(row, column)->toolTip().isEmpty(), column != ServerColumn);
        }
    }
}

void TestJobTable::lastResultIsColoured()
{
    TestJobs::store({TestJobs::named(u"alpha"_s)});
    TestWindow window;
    window.takeWorkerAway();
    const auto foreground = [&window] { return window.item(0, LastResultColumn)->data(Qt::ForegroundRole); };
    QCOMPARE(window.item(0, LastResultColumn)->foreground().color(), QColor(0x80, 0x80, 0x80));
    QVERIFY(foreground().isValid());
    window.press("syncButton");
    window.endRun({.failed = 1});
    QCOMPARE(window.item(0, LastResultColumn)->foreground().color(), QColor(0xC0, 0x30, 0x20));
    window.press("syncButton");
    window.endRun();
    QVERIFY(!foreground().isValid());
    for (int column = EnabledColumn; column < LastResultColumn; ++column)
        QVERIFY(!window.item(0, column)->data(Qt::ForegroundRole).isValid());
}

void TestJobTable::aFailureIsStillRedAfterARestart()
{
    TestJobs::store({TestJobs::named(u"alpha"_s), TestJobs::named(u"beta"_s)});
    QString text;
    {
        TestWindow window;
        window.takeWorkerAway();
        window.press("syncButton");
        window.endRun({.failed = 3, .message = u"broken"_s});
        text = window.cell(0, LastResultColumn);
        QVERIFY(text.endsWith(u"  0 NEW · 0 SAME · 0 DEL · 3 FAIL · 0 B"_s));
    }
    const TestWindow restarted;
    QCOMPARE(restarted.cell(0, LastResultColumn), text);
    QCOMPARE(restarted.item(0, LastResultColumn)->foreground().color(), QColor(0xC0, 0x30, 0x20));
    QCOMPARE(restarted.cell(1, LastResultColumn), u"never run"_s);
    QCOMPARE(restarted.item(1, LastResultColumn)->foreground().color(), QColor(0x80, 0x80, 0x80));
}

void TestJobTable::cellsAreMadeOnce()
{
    TestJobs::store({TestJobs::weekly(u"alpha"_s), TestJobs::weekly(u"beta"_s)});
    TestWindow window;
    window.takeWorkerAway();
    QList<QTableWidgetItem *> before;
    for (const int row : {0, 1}) {
        for (int column = EnabledColumn; column <= LastResultColumn; ++column) {
            before += window.item(row, column);
            QCOMPARE(before.last()->type(), int(QTableWidgetItem::Type));
        }
    }
    window.press("autoCheck"); // writes the whole table
    window.press("syncButton");
    window.endRun();
    QList<QTableWidgetItem *> after;
    for (const int row : {0, 1}) {
        for (int column = EnabledColumn; column <= LastResultColumn; ++column)
            after += window.item(row, column);
    }
    QCOMPARE(after, before);
}

void TestJobTable::theFirstJobIsSelected()
{
    TestJobs::store({TestJobs::named(u"alpha"_s), TestJobs::named(u"beta"_s)});
    TestWindow window;
    window.takeWorkerAway();
    const auto *table = window.part<QTableWidget>("table");
    QCOMPARE(table->selectionModel()->selectedRows().size(), 1);
    QCOMPARE(table->selectionModel()->selectedRows().first().row(), 0);
    window.press("syncButton");
    QCOMPARE(window.column(NextRunColumn), QStringList({u"running..."_s, u"manual"_s}));
}

void TestJobTable::theSelectionStays()
{
    TestJobs::store(
        {TestJobs::weekly(u"alpha"_s), TestJobs::weekly(u"beta"_s), TestJobs::weekly(u"gamma"_s)});
    TestWindow window;
    window.takeWorkerAway();
    window.selectJob(1);
    window.press("autoCheck"); // writes the whole table
    QCOMPARE(window.part<QTableWidget>("table")->selectionModel()->selectedRows().first().row(), 1);
    window.press("syncButton");
    QCOMPARE(window.cell(1, NextRunColumn), u"running..."_s);
}

void TestJobTable::theCurrentRowCountsIfNoneIsSelected()
{
    TestJobs::store({TestJobs::named(u"alpha"_s), TestJobs::named(u"beta"_s)});
    TestWindow window;
    window.takeWorkerAway();
    auto *table = window.part<QTableWidget>("table");
    window.selectJob(1);
    table->clearSelection();
    QVERIFY(table->selectionModel()->selectedRows().isEmpty());
    QVERIFY(window.isPressable("syncButton"));
    window.press("syncButton");
    QCOMPARE(window.column(NextRunColumn), QStringList({u"manual"_s, u"running..."_s}));
}

void TestJobTable::buttons_data()
{
    QTest::addColumn<int>("jobs");
    QTest::addColumn<bool>("selected");
    QTest::addColumn<int>("runs"); // asked for, one after the other
    QTest::addColumn<int>("ended");
    QTest::addColumn<QByteArrayList>("pressable");
    const QByteArrayList ofAJob{"editButton", "removeButton", "testButton", "syncButton"};
    const auto row = [](const char *what, int jobs, bool selected, int runs, int ended,
                        const QByteArrayList &pressable) {
        QTest::newRow(what) << jobs << selected << runs << ended << pressable;
    };
    row("no jobs", 0, false, 0, 0, {"addButton"});
    row("a job is selected", 2, true, 0, 0, QByteArrayList{"addButton"} + ofAJob);
    row("no job is selected", 2, false, 0, 0, {"addButton"});
    row("a job is running", 2, true, 1, 0, {"stopButton"});
    row("a job is running and none is selected", 2, false, 1, 0, {"stopButton"});
    row("a job is running and one is queued", 2, true, 2, 0, {"stopButton"});
    row("the run has ended", 2, true, 1, 1, QByteArrayList{"addButton"} + ofAJob);
    row("the run has ended and another began", 2, true, 2, 1, {"stopButton"});
    row("both runs have ended", 2, true, 2, 2, QByteArrayList{"addButton"} + ofAJob);
}

void TestJobTable::buttons()
{
    QFETCH(const int, jobs);
    QFETCH(const bool, selected);
    QFETCH(const int, runs);
    QFETCH(const int, ended);
    QFETCH(const QByteArrayList, pressable);
    QList<SyncJob> list;
    for (int i = 0; i < jobs; ++i)
        list += TestJobs::named(u"job %1"_s.arg(i));
    TestJobs::store(list);
    TestWindow window;
    window.takeWorkerAway();
    for (int row = 0; row < runs; ++row) {
        window.selectJob(row);
        window.choose(u"&Jobs"_s, u"Sync &Selected Now"_s);
    }
    for (int i = 0; i < ended; ++i)
        window.endRun();
    if (!selected)
        window.part<QTableWidget>("table")->setCurrentItem(nullptr);

    QByteArrayList found;
    for (const char *name :
         {"addButton", "editButton", "removeButton", "testButton", "syncButton", "stopButton"}) {
        if (window.isPressable(name))
            found += name;
    }
    QCOMPARE(found, pressable);
    QVERIFY(window.isPressable("autoCheck"));
}

void TestJobTable::theCheckBoxIsSavedAndLogged()
{
    TestJobs::store({TestJobs::named(u"alpha"_s), TestJobs::named(u"be'ta %1 <i>"_s)});
    TestWindow window;
    window.clearLog();
    file.clear();

    window.tick(1, false);
    QVERIFY(isSaved());
    QVERIFY(TestJobs::stored().jobs.at(0).enabled);
    QVERIFY(!TestJobs::stored().jobs.at(1).enabled);
    QCOMPARE(window.cell(1, NextRunColumn), u"disabled"_s);
    QCOMPARE(window.log(), QStringList({u"'be'ta %1 <i>' disabled."_s}));

    file.clear();
    window.tick(1, true);
    QVERIFY(TestJobs::stored().jobs.at(1).enabled);
    QCOMPARE(window.cell(1, NextRunColumn), u"manual"_s);
    QCOMPARE(window.log(), QStringList({u"'be'ta %1 <i>' disabled."_s, u"'be'ta %1 <i>' enabled."_s}));
    for (const LogLine &line : window.logLines())
        QCOMPARE(line.colour, u"#56f0e2"_s);
}

void TestJobTable::writingTheCellIsNoClick()
{
    SyncJob off = TestJobs::weekly(u"beta"_s);
    off.enabled = false;
    TestJobs::store({TestJobs::weekly(u"alpha"_s), off});
    TestWindow window;
    window.takeWorkerAway();
    window.clearLog();
    file.clear();
    window.press("autoCheck"); // writes the whole table
    window.press("autoCheck");
    window.selectJob(1);
    window.press("syncButton"); // writes a row
    QCOMPARE(window.log(),
             QStringList({u"AUTO on: 1 job scheduled."_s, u"AUTO off."_s, u"[beta] Starting sync."_s}));
    QVERIFY(!isSaved());
    window.tick(0, false); // and clicks count again afterwards
    QCOMPARE(window.log().last(), u"'alpha' disabled."_s);
}

void TestJobTable::otherCellsAreNoCheckBoxes()
{
    TestJobs::store({TestJobs::named(u"alpha"_s)});
    TestWindow window;
    window.clearLog();
    file.clear();
    for (int column = JobColumn; column <= LastResultColumn; ++column)
        window.item(0, column)->setText(u"scribbled"_s);
    QVERIFY(QMetaObject::invokeMethod(&window, "onJobItemChanged", Q_ARG(int, 1), Q_ARG(int, 0)));
    QVERIFY(QMetaObject::invokeMethod(&window, "onJobItemChanged", Q_ARG(int, -1), Q_ARG(int, 0)));
    QCOMPARE(window.log(), QStringList());
    QVERIFY(!isSaved());
}

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    TestWindow::setIdentity();
    TestJobTable test(settings);
    return QTest::qExec(&test, argc, argv);
}

#include "tst_JobTable.moc"
