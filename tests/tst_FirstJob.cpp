#include "support/DialogVisit.h"
#include "support/FtpTreeServer.h"
#include "support/LocalFolder.h"
#include "support/TestSettings.h"
#include "support/TestWindow.h"

#include <QApplication>
#include <QLineEdit>
#include <QListWidget>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QPushButton>
#include <QRadioButton>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTabBar>
#include <QTabWidget>
#include <QTableWidget>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

constexpr int kPatienceMs = 20000; // only a test that fails waits for so long
const QString kEditor = u"Synchronisation job"_s;

// Nothing below reaches into a widget to change it: all goes by the mouse and the keyboard.

void click(QWidget *widget, QPoint at = {})
{
    QVERIFY2(widget->isVisible() && widget->isEnabled(), qPrintable(widget->objectName()));
    QTest::mouseClick(widget, Qt::LeftButton, {}, at);
}

/** Clicks into a field and types over what stands there. */
void type(const QWidget *dialog, const char *field, const QString &text)
{
    auto *widget = partOf<QWidget>(dialog, field);
    click(widget);
    QTest::keyClick(widget, Qt::Key_A, Qt::ControlModifier);
    QTest::keyClicks(widget, text);
}

void tick(const QWidget *dialog, const char *box)
{
    auto *widget = partOf<QWidget>(dialog, box);
    click(widget, QPoint(8, widget->height() / 2)); // on the mark, as the label may be short
}

void turnTo(const QWidget *dialog, const QString &page)
{
    auto *tabs = dialog->findChild<QTabWidget *>()->tabBar();
    for (int i = 0; i < tabs->count(); ++i) {
        if (tabs->tabText(i) == page)
            click(tabs, tabs->tabRect(i).center());
    }
}

void chooseByMouse(const QMainWindow *window, const QString &menuText, const QString &entryText)
{
    for (QAction *title : window->menuBar()->actions()) {
        if (title->text() != menuText)
            continue;
        click(window->menuBar(), window->menuBar()->actionGeometry(title).center());
        QMenu *menu = title->menu();
        QTRY_VERIFY(menu->isVisible());
        for (QAction *entry : menu->actions()) {
            if (entry->text() == entryText) {
                QTest::mouseClick(menu, Qt::LeftButton, {}, menu->actionGeometry(entry).center());
                return;
            }
        }
    }
    QFAIL(qPrintable(u"there is no entry "_s + entryText));
}

} // namespace

class TestFirstJob : public QObject
{
    Q_OBJECT

public:
    explicit TestFirstJob(const TestSettings &settings) : settingsFile(settings) {}

private slots:
    void aNewcomerMakesAJob();

private:
    const TestSettings &settingsFile;
};

void TestFirstJob::aNewcomerMakesAJob()
{
    settingsFile.write("[General]\ncheckForUpdates=false\n");
    const LocalFolder local;
    FtpTreeServer server(
        {{"/talks", {remoteFile("one.mp3", "one", "20240131120000"), remoteFolder("Zürich")}},
         {"/talks/Zürich", {remoteFile("two.mp3", "two", "20240131120000")}}});
    TestWindow window;
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    const auto *table = window.part<QTableWidget>("table");
    const auto clickOn = [&window](const char *button) { click(window.part<QPushButton>(button)); };
    const auto clickOnJob = [&](int row) {
        click(table->viewport(), table->visualItemRect(window.item(row, JobColumn)).center());
    };

    {
        const DialogVisit visit(kEditor, [&](QDialog *editor) {
            type(editor, "nameEdit", u"Evening talks"_s);
            type(editor, "hostEdit", u"127.0.0.1"_s);
            type(editor, "portSpin", QString::number(server.port()));
            type(editor, "userEdit", u"kim"_s);
            type(editor, "passwordEdit", u"secret"_s);
            turnTo(editor, u"Folders"_s);
            type(editor, "remoteEdit", u"/talks"_s);
            type(editor, "localEdit", local.path());
            type(editor, "excludeEdit", u"*.tmp; cache*"_s);
            turnTo(editor, u"Sync"_s);
            tick(editor, "deleteBox");
            clickButton(editor, u"OK"_s);
        });
        clickOn("addButton");
    }
    QCOMPARE(window.column(JobColumn), QStringList{u"Evening talks"_s});
    QCOMPARE(window.cell(0, ModeColumn), u"NEW + CHANGED + PRUNE"_s);

    QString answer;
    {
        const DialogVisit visit(u"Kelpwharf"_s, [&](QDialog *box) {
            answer = qobject_cast<QMessageBox *>(box)->text();
            QTest::keyClick(box, Qt::Key_Return);
        });
        clickOn("testButton");
        QTRY_VERIFY_WITH_TIMEOUT(!answer.isEmpty() && window.isPressable("syncButton"), kPatienceMs);
    }
    QCOMPARE(answer, u"Connected. '/talks' contains 2 item(s). Listing mode: LIST."_s);
    QCOMPARE(local.read(), QStringList());

    clickOn("syncButton");
    QTRY_VERIFY_WITH_TIMEOUT(
        window.cell(0, LastResultColumn).endsWith(u"2 NEW · 0 SAME · 0 DEL · 0 FAIL · 6 B"_s), kPatienceMs);
    QCOMPARE(local.read(), QStringList({u"Zürich/two.mp3: two"_s, u"one.mp3: one"_s}));

    clickOnJob(0);
    {
        const DialogVisit rule(u"Schedule"_s, [](QDialog *editor) {
            clickButton(editor, u"Mon-Fri"_s);
            clickButton(editor, u"None"_s);
            tick(editor, "hourBoxes6");
            tick(editor, "hourBoxes18");
            type(editor, "minutesEdit", u"30, 0"_s);
            clickButton(editor, u"OK"_s);
        });
        const DialogVisit visit(kEditor, [](QDialog *editor) {
            turnTo(editor, u"Schedule"_s);
            tick(editor, "rulesRadio");
            clickButton(editor, u"Edit..."_s);
            clickButton(editor, u"OK"_s);
        });
        clickOn("editButton");
    }
    QCOMPARE(window.log().last(), u"Updated job 'Evening talks'."_s);

    chooseByMouse(&window, u"&Jobs"_s, u"D&uplicate"_s);
    QCOMPARE(window.column(JobColumn), QStringList({u"Evening talks"_s, u"Evening talks (2)"_s}));
    clickOnJob(0);
    {
        const DialogVisit visit(u"Kelpwharf"_s, [](QDialog *box) { clickButton(box, u"Yes"_s); });
        clickOn("removeButton");
    }
    QCOMPARE(window.column(JobColumn), QStringList{u"Evening talks (2)"_s});

    const AppSettings kept = TestJobs::stored();
    QCOMPARE(kept.jobs.size(), 1);
    const SyncJob job = kept.jobs.first();
    QCOMPARE(job.name, u"Evening talks (2)"_s);
    QVERIFY(job.enabled);
    QCOMPARE(job.config.host, u"127.0.0.1"_s);
    QCOMPARE(job.config.port, server.port());
    QCOMPARE(job.config.user, u"kim"_s);
    QCOMPARE(job.config.password, u"secret"_s);
    QVERIFY(!job.config.useTls);
    QCOMPARE(job.config.timeout, 30000);
    QCOMPARE(job.config.remoteDir, u"/talks"_s);
    QCOMPARE(job.config.localDir, local.path());
    QCOMPARE(job.config.excludes, QStringList({u"*.tmp"_s, u"cache*"_s}));
    QVERIFY(job.config.recursive);
    QCOMPARE(job.config.syncMode, int(NewAndChanged));
    QCOMPARE(job.config.compareBy, int(SizeAndTimestamp));
    QVERIFY(job.config.deleteExtraneous);
    QCOMPARE(job.scheduleMode, int(Rules));
    QCOMPARE(job.intervalMins, 60);
    QCOMPARE(job.rules.size(), 1);
    QCOMPARE(job.rules.first().toStorage(), u"31:262208:0+30"_s);
    QVERIFY(!job.lastRun.isValid());
    QCOMPARE(local.read().size(), 2); // files stay when a job goes
}

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    TestWindow::setIdentity();
    TestFirstJob test(settings);
    return QTest::qExec(&test, argc, argv);
}

#include "tst_FirstJob.moc"
