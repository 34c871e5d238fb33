#include "support/EveryWindow.h"

#include "dialogs/JobDialog.h"
#include "dialogs/ScheduleRuleDialog.h"
#include "support/TestWindow.h"
#include "update/AboutDialog.h"
#include "update/UpdateChecker.h"
#include "update/UpdateDialog.h"

#include <QTabWidget>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

using Visit = std::function<void(QWidget *window, const QString &name)>;

void show(QWidget *window, const QString &name, const Visit &visit)
{
    window->show();
    window->activateWindow();
    if (!QTest::qWaitForWindowActive(window))
        qFatal("%s does not come up", qPrintable(name));
    visit(window, name);
}

/** A job that has run well, one that has not, and one that never ran and has a rule without a day. */
QList<SyncJob> jobs()
{
    SyncJob good = TestJobs::lastRunAgo(u"Recordings"_s, 3600);
    SyncJob bad = TestJobs::lastRunAgo(u"Photographs"_s, 3600);
    bad.lastOk = false;
    SyncJob fresh = TestJobs::weekly(u"Minutes"_s);
    fresh.rules += ScheduleRule();
    fresh.rules.first().days = 0;
    fresh.config.user = u"kim"_s;
    fresh.config.password = u"secret"_s;
    fresh.config.excludes = {u"*.tmp"_s};
    return {good, bad, fresh};
}

void showMainWindow(const Visit &visit)
{
    TestJobs::store(jobs());
    TestWindow window;
    window.takeWorkerAway();
    for (const int level : {0, 1, 2})
        window.sayFromWorker(u"A line of level %1"_s.arg(level), level);
    window.choose(window.menuTitles().first(), u"Show FTP protocol chatter"_s);
    window.sayFromWorker(u"A line of level 3"_s, 3);
    window.selectJob(0);
    show(&window, u"the window"_s, visit);
    window.press("syncButton"); // now Stop can be pressed, and the other buttons cannot
    show(&window, u"the window during a run"_s, visit);
    window.endRun();
}

void showJobDialog(const Visit &visit)
{
    JobDialog dialog(jobs().last(), nullptr);
    auto *tabs = dialog.findChild<QTabWidget *>();
    for (int i = 0; i < tabs->count(); ++i) {
        tabs->setCurrentIndex(i);
        show(&dialog, u"the job's "_s + tabs->tabText(i), visit);
    }
    JobDialog simple(jobs().first(), nullptr);
    simple.findChild<QTabWidget *>()->setCurrentIndex(tabs->count() - 1);
    show(&simple, u"the job's Schedule by minutes"_s, visit);
}

void showRuleDialog(const Visit &visit)
{
    const QList<ScheduleRule> rules = jobs().last().rules;
    ScheduleRuleDialog unusable(rules.first(), nullptr);
    show(&unusable, u"an unusable rule"_s, visit);
    ScheduleRuleDialog usable(rules.last(), nullptr);
    show(&usable, u"a rule"_s, visit);
}

void showUpdates(const Visit &visit)
{
    UpdateInfo info;
    info.latestVersion = u"9.0.0"_s;
    info.releaseDate = u"1 March 2026"_s;
    info.downloadUrl = u"https://127.0.0.1/"_s;
    info.notesUrl = u"https://127.0.0.1/notes"_s;
    info.notes = u"What is new in it"_s;
    UpdateDialog update(info, u"1.0.0"_s);
    show(&update, u"the update"_s, visit);
    info.critical = true;
    info.notes.clear();
    UpdateDialog critical(info, u"1.0.0"_s);
    show(&critical, u"the critical update"_s, visit);
}

} // namespace

void visitEveryWindow(const Visit &visit)
{
    showMainWindow(visit);
    showJobDialog(visit);
    showRuleDialog(visit);
    showUpdates(visit);
    AboutDialog about;
    show(&about, u"the about box"_s, visit);
}
