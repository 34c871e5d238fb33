// Makes the pictures of the documentation: kelpwharf_pictures FOLDER. No test; tools/screenshots runs it.

#include "panel/VfdPanel.h"
#include "support/DialogVisit.h"
#include "support/FtpTreeServer.h"
#include "support/TestSettings.h"
#include "support/TestWindow.h"
#include "update/AboutDialog.h"
#include "update/UpdateChecker.h"
#include "update/UpdateDialog.h"

#include <QApplication>
#include <QDir>
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

} // namespace

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    QApplication::setCursorFlashTime(0);
    VfdPanel::nameFontStandIns();
    TestWindow::setIdentity();
    require(argc == 2 && QDir().mkpath(QString::fromLocal8Bit(argv[1])), "kelpwharf_pictures FOLDER");
    folder = QString::fromLocal8Bit(argv[1]);
    takeWindows();
    takeUpdates();
    return 0;
}
