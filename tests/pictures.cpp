// Makes pictures of the program: kelpwharf_pictures FOLDER for those of the documentation,
// kelpwharf_pictures FOLDER all for every window in its states. No test; tools/screenshots runs it.

#include "panel/VfdPanel.h"
#include "support/DialogVisit.h"
#include "support/FtpTreeServer.h"
#include "support/TestSettings.h"
#include "support/TestWindow.h"
#include "update/AboutDialog.h"
#include "update/UpdateChecker.h"
#include "update/UpdateDialog.h"

#include <QApplication>
#include <QCheckBox>
#include <QDir>
#include <QLineEdit>
#include <QMenu>
#include <QMenuBar>
#include <QScreen>
#include <QTabBar>
#include <QTabWidget>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <atomic>
#include <functional>

using namespace Qt::StringLiterals;

namespace {

constexpr int kPatienceMs = 20000;
const QString kEditor = u"Synchronisation job"_s;

QString folder; // where the pictures go

/** Takes the window as the screen shows it. */
void take(QWidget *window, const QString &name)
{
    QTest::qWait(300); // painted
    const QString path = QDir(folder).filePath(name + u".png"_s);
    const QPixmap picture = window->screen()->grabWindow(window->winId());
    if (picture.isNull() || !picture.save(path))
        qFatal("cannot make %s", qPrintable(path));
}

void require(bool condition, const char *what)
{
    if (!condition)
        qFatal("%s", what);
}

RemoteTree archive()
{
    const QByteArray talk(1400000, 't');
    const QByteArray photograph(300000, 'p');
    return {{"/", {remoteFolder("recordings"), remoteFolder("photographs"), remoteFolder("minutes")}},
            {"/recordings",
             {remoteFile("evening talk 61.mp3", talk, "20260209200512"),
              remoteFile("evening talk 62.mp3", talk, "20260216200437"),
              remoteFile("evening talk 63.mp3", talk, "20260223200501")}},
            {"/photographs",
             {remoteFile("Küste bei Föhr.jpg", photograph, "20260117131502"),
              remoteFile("ebb-01.jpg", photograph, "20260220172140"),
              remoteFile("ebb-02.jpg", photograph, "20260220172240")}},
            {"/minutes", {remoteFile("2026-02-10.txt", "read and agreed", "20260210195500")}}};
}

SyncJob job(const QString &name, const QString &remoteFolderPath, quint16 port, const QTemporaryDir &copies)
{
    SyncJob made;
    made.name = name;
    made.config.host = u"127.0.0.1"_s;
    made.config.port = port;
    made.config.user = u"kim"_s;
    made.config.password = u"secret"_s;
    made.config.remoteDir = remoteFolderPath;
    made.config.localDir = copies.filePath(name);
    return made;
}

void takeEditors(const TestWindow &window)
{
    const DialogVisit rule(u"Schedule"_s, [](QDialog *editor) {
        take(editor, u"schedule-rule"_s);
        clickButton(editor, u"Cancel"_s);
    });
    const DialogVisit visit(kEditor, [](QDialog *editor) {
        auto *tabs = editor->findChild<QTabWidget *>();
        for (int i = 0; i < tabs->count(); ++i) {
            tabs->setCurrentIndex(i);
            take(editor, u"job-"_s + tabs->tabText(i).toLower());
        }
        clickButton(editor, u"Edit..."_s);
        clickButton(editor, u"Cancel"_s);
    });
    window.selectJob(0);
    window.press("editButton");
}

void takeWindows()
{
    const QTemporaryDir copies(QDir::tempPath() + u"/copies-XXXXXX"_s);
    require(copies.isValid() && QDir(copies.path()).mkpath(u"Photographs/withdrawn"_s),
            "no place for copies");
    // As from a server somewhere, which stops in the middle of the second file.
    std::atomic<bool> holdBack = true;
    const auto takeTime = [] { QThread::msleep(60); };
    const auto wait = [&holdBack] {
        while (holdBack)
            QThread::msleep(20);
    };
    QList<Fault> faults;
    for (int chunk = 1; chunk <= 12; ++chunk) {
        for (const char *file : {"61", "62"})
            faults +=
                Fault::inData(QByteArray("RETR /recordings/evening talk ") + file + ".mp3", chunk * 100000)
                    .call(chunk == 9 && file == QByteArray("62") ? std::function<void()>(wait) : takeTime);
    }
    FtpTreeServer server(archive(), {.faults = faults});
    SyncJob recordings = job(u"Recordings"_s, u"/recordings"_s, server.port(), copies);
    recordings.scheduleMode = Rules;
    ScheduleRule weekdays;
    weekdays.days = 31;
    weekdays.hours = 1U << 6 | 1U << 22;
    weekdays.minutes = {0, 30};
    ScheduleRule weekends;
    weekends.days = 96;
    weekends.hours = 1U << 8;
    recordings.rules = {weekdays, weekends};
    recordings.config.excludes = {u"*.tmp"_s, u"drafts"_s};
    SyncJob photographs = job(u"Photographs"_s, u"/photographs"_s, server.port(), copies);
    photographs.config.deleteExtraneous = true;
    photographs.intervalMins = 360;
    SyncJob minutes = job(u"Minutes"_s, u"/minutes"_s, server.port(), copies);
    minutes.config.syncMode = NewOnly;
    minutes.enabled = false;
    TestJobs::store({recordings, photographs, minutes});

    TestWindow window;
    window.resize(1080, 780); // so that a last result can be read
    window.show();
    window.press("autoCheck");
    const auto isIdle = [&] { return window.status() == u"Idle"_s; };
    require(QTest::qWaitFor([&] { return isIdle() && window.cell(1, LastResultColumn).contains(u"NEW"); },
                            kPatienceMs),
            "the photographs were not mirrored");
    take(&window, u"window"_s);
    takeEditors(window);

    window.selectJob(0);
    window.press("syncButton");
    require(QTest::qWaitFor([&] { return window.status().contains(u"62"); }, kPatienceMs),
            "the recordings did not begin");
    QTest::qWait(900); // up to where the server stops
    take(&window, u"window-running"_s);
    holdBack = false;
    require(QTest::qWaitFor(isIdle, kPatienceMs), "the recordings were not mirrored");
}

void takeUpdates()
{
    UpdateInfo info;
    info.latestVersion = u"1.1.0"_s;
    info.releaseDate = u"1 March 2026"_s;
    info.downloadUrl = u"https://www.orrinvale.example/kelpwharf/download"_s;
    info.notesUrl = u"https://www.orrinvale.example/kelpwharf/notes/1.1.0"_s;
    info.notes = u"- Servers that list no times are asked for them less often.\n"
                 "- The display shows the half hours of yesterday's runs, too.\n"_s;
    UpdateDialog update(info, QCoreApplication::applicationVersion());
    update.show();
    take(&update, u"update"_s);
    AboutDialog about;
    about.show();
    take(&about, u"about"_s);
}

void takeMenus(const TestWindow &window)
{
    for (const QAction *entry : window.menuBar()->actions()) {
        QMenu *menu = entry->menu();
        menu->popup(window.mapToGlobal(QPoint(0, 30)));
        take(menu, u"menu-"_s + entry->text().remove(u'&').toLower());
        menu->close();
    }
}

void takeQuestion(const TestWindow &window)
{
    const DialogVisit question(QCoreApplication::applicationName(), [](QDialog *box) {
        take(box, u"question"_s);
        clickButton(box, u"No"_s);
    });
    window.press("removeButton");
}

void takeRefusals(const TestWindow &window)
{
    const DialogVisit rule(u"Schedule"_s, [](QDialog *editor) {
        for (auto *box : editor->findChildren<QCheckBox *>())
            box->setChecked(false);
        editor->findChild<QLineEdit *>()->clear();
        take(editor, u"schedule-rule-empty"_s);
        clickButton(editor, u"Cancel"_s);
    });
    const DialogVisit visit(kEditor, [](QDialog *editor) {
        auto *tabs = editor->findChild<QTabWidget *>();
        tabs->setCurrentIndex(tabs->count() - 1);
        take(editor, u"job-schedule-unusable"_s);
        clickButton(editor, u"Edit..."_s);
        clickButton(editor, u"Cancel"_s);
    });
    window.press("editButton");
}

/** A window with every kind of row and line, and what it opens. */
void takeStates()
{
    SyncJob good = TestJobs::lastRunAgo(u"Recordings"_s, 3600);
    good.lastSummary = u"12 NEW · 3 SAME · 0 DEL · 0 FAIL · 4.1 MB"_s;
    SyncJob bad = good;
    bad.name = u"Photographs"_s;
    bad.lastOk = false;
    bad.config.syncMode = FullSync;
    SyncJob other = TestJobs::weekly(u"Minutes"_s);
    other.enabled = false;
    other.rules += ScheduleRule();
    other.rules.first().days = 0;
    other.config.deleteExtraneous = true;
    TestJobs::store({good, bad, other});
    TestWindow window;
    window.show();
    window.selectJob(2);
    for (const int level : {0, 1, 2, 3})
        window.sayFromWorker(u"A line of level %1."_s.arg(level), level);
    window.choose(window.menuTitles().first(), u"Show FTP protocol chatter"_s);
    window.sayFromWorker(u"> LIST -a"_s, 3);
    take(&window, u"window-states"_s);
    takeMenus(window);
    takeQuestion(window);
    takeRefusals(window);

    UpdateInfo info;
    info.latestVersion = u"1.1.0"_s;
    info.critical = true;
    UpdateDialog update(info, QCoreApplication::applicationVersion(), &window);
    update.show();
    take(&update, u"update-critical"_s);
}

} // namespace

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    QApplication::setCursorFlashTime(0);
    VfdPanel::nameFontStandIns();
    TestWindow::setIdentity();
    const bool all = argc == 3 && QByteArrayView(argv[2]) == "all";
    require((argc == 2 || all) && QDir().mkpath(QString::fromLocal8Bit(argv[1])),
            "kelpwharf_pictures FOLDER [all]");
    folder = QString::fromLocal8Bit(argv[1]);
    takeWindows();
    takeUpdates();
    if (all)
        takeStates();
    return 0;
}
