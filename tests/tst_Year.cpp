#include "support/LocalZone.h"
#include "support/TestSettings.h"
#include "support/TestWindow.h"

#include <QApplication>
#include <QCheckBox>
#include <QFileInfo>
#include <QMap>
#include <QPointer>
#include <QTest>
#include <QThread>
#include <QTimeZone>
#include <QTimer>

#include <atomic>
#include <sys/syscall.h>
#include <sys/time.h>
#include <ctime>
#include <unistd.h>
#include <utility>

using namespace Qt::StringLiterals;

// The wall clock of this process: the one of the system until the test sets it. Not by libfaketime, for
// which there is no second hour when the clock goes back.

namespace {

std::atomic<qint64> heldSecs = -1;

} // namespace

extern "C" int clock_gettime(clockid_t clock, timespec *when) noexcept
{
    if (clock != CLOCK_REALTIME || heldSecs < 0)
        return static_cast<int>(::syscall(SYS_clock_gettime, clock, when));
    *when = {static_cast<time_t>(heldSecs), 0};
    return 0;
}

extern "C" int gettimeofday(timeval *when, void *) noexcept
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    *when = {now.tv_sec, static_cast<suseconds_t>(now.tv_nsec / 1000)};
    return 0;
}

namespace {

void setClock(const QDateTime &when) { heldSecs = when.toSecsSinceEpoch(); }

constexpr int kStepSecs = 600; // all times of the rules are multiples of it
constexpr int kIntervalMins = 90;
constexpr int kYearIntervalMins = 500;

/** A moment in UTC and the jobs that began at it, in their order: "2026-03-29T01:00 night". */
using Firings = QStringList;

QString firing(const QDateTime &utc, const QString &job)
{
    return utc.toString(u"yyyy-MM-ddTHH:mm "_s) + job;
}

struct Plan
{
    QString name;
    QList<int> days; ///< 1 is Monday
    QList<int> hours;
    QList<int> minutes;
};

const QList<Plan> kPlans = {
    {u"night"_s, {1, 2, 3, 4, 5, 6, 7}, {2}, {30}},
    {u"changes"_s, {6, 7}, {0, 1, 2, 3}, {0, 20, 40}},
    {u"week"_s, {1, 2, 3, 4, 5}, {8, 18}, {0}},
    {u"sunday"_s, {7}, {1}, {50}},
};

SyncJob jobOf(const Plan &plan)
{
    SyncJob job = TestJobs::named(plan.name);
    job.scheduleMode = Rules;
    ScheduleRule rule;
    rule.days = 0;
    rule.hours = 0;
    for (const int day : plan.days)
        rule.days = static_cast<quint8>(rule.days | 1U << (day - 1));
    for (const int hour : plan.hours)
        rule.hours |= 1U << hour;
    rule.minutes = plan.minutes;
    job.rules = {rule};
    return job;
}

bool matches(const Plan &plan, const QDateTime &wall)
{
    return plan.days.contains(wall.date().dayOfWeek()) && plan.hours.contains(wall.time().hour()) &&
           plan.minutes.contains(wall.time().minute());
}

/**
 * The moments of a plan, found by looking at every wall-clock time once: one that comes twice counts
 * the first time, and one that is left out counts as late as the clock is put forward.
 */
QList<QDateTime> moments(const Plan &plan, const QDateTime &from, const QDateTime &to, const QTimeZone &zone)
{
    QMap<QDateTime, QDateTime> byWall; // both as if in UTC
    for (QDateTime utc = from.addDays(-2); utc <= to; utc = utc.addSecs(kStepSecs)) {
        const int offset = zone.offsetFromUtc(utc);
        const QDateTime wall = utc.addSecs(offset);
        if (!byWall.contains(wall))
            byWall.insert(wall, utc);
        const int later = zone.offsetFromUtc(utc.addSecs(kStepSecs));
        for (int skipped = kStepSecs; skipped <= later - offset; skipped += kStepSecs)
            byWall.insert(wall.addSecs(skipped), utc.addSecs(skipped));
    }
    QList<QDateTime> found;
    for (auto it = byWall.cbegin(); it != byWall.cend(); ++it) {
        const bool isNew = !found.contains(it.value()); // one that is moved on may meet another
        if (isNew && matches(plan, it.key()) && it.value() > from && it.value() <= to)
            found += it.value();
    }
    return found;
}

/** A window whose runs take no time, on a clock that the test sets. */
class YearWindow : public TestWindow
{
public:
    YearWindow()
    {
        takeWorkerAway();
        connect(this, &MainWindow::startSyncRequested, this, [this](const MirrorConfig &config) {
            firings += firing(now, QFileInfo(config.localDir).fileName());
            isRunning = true;
        });
    }

    void tickAt(const QDateTime &utc)
    {
        now = utc;
        setClock(utc);
        invoke("onTick");
        while (std::exchange(isRunning, false))
            endRun();
    }

    QDateTime now;
    Firings firings;

private:
    bool isRunning = false;
};

QDateTime utc(const QString &text)
{
    QDateTime time = QDateTime::fromString(text, Qt::ISODate);
    time.setTimeSpec(Qt::UTC);
    return time;
}

} // namespace

class TestYear : public QObject
{
    Q_OBJECT

public:
    explicit TestYear(const TestSettings &settings) : settingsFile(settings) {}

private slots:
    void initTestCase();

    void everyFiringOfAYear_data();
    void everyFiringOfAYear();
    void aSleepOfThreeDaysIsMadeUpForOnce();
    void aClockThatIsSetBackRepeatsNothing();

private:
    const TestSettings &settingsFile;
};

void TestYear::initTestCase()
{
    settingsFile.clear();
    setClock(utc(u"2001-02-03T04:05:06"_s));
    QCOMPARE(QDateTime::currentDateTimeUtc(), utc(u"2001-02-03T04:05:06"_s));
}

void TestYear::everyFiringOfAYear_data()
{
    QTest::addColumn<QByteArray>("zone");
    for (const char *zone : {"Europe/Berlin", "America/New_York", "Australia/Lord_Howe"})
        QTest::newRow(zone) << QByteArray(zone);
}

void TestYear::everyFiringOfAYear()
{
    QFETCH(const QByteArray, zone);
    const LocalZone here(zone);
    const QTimeZone rules(zone);
    QVERIFY(rules.isValid());
    const QDateTime begin = utc(u"2026-01-01T00:00:00"_s);
    const QDateTime end = begin.addYears(1);

    QList<SyncJob> jobs;
    SyncJob often = TestJobs::named(u"often"_s);
    often.intervalMins = kYearIntervalMins;
    jobs += often;
    for (const Plan &plan : kPlans)
        jobs += jobOf(plan);
    setClock(begin);
    TestJobs::store(jobs);
    YearWindow window;
    window.part<QCheckBox>("autoCheck")->setChecked(true);
    window.part<QTimer>("tickTimer")->stop(); // the test ticks
    for (QDateTime now = begin; now <= end; now = now.addSecs(kStepSecs))
        window.tickAt(now);

    Firings expected;
    for (QDateTime due = begin; due <= end; due = due.addSecs(kYearIntervalMins * 60))
        expected += firing(due, often.name);
    for (const Plan &plan : kPlans) {
        for (const QDateTime &moment : moments(plan, begin, end, rules))
            expected += firing(moment, plan.name);
    }
    expected.sort();
    window.firings.sort(); // of those at one moment, the first in the list begins
    QCOMPARE(window.firings, expected);
    QVERIFY(expected.size() > 3000);
}

void TestYear::aSleepOfThreeDaysIsMadeUpForOnce()
{
    const LocalZone here("Europe/Berlin");
    const QDateTime evening = utc(u"2026-03-27T20:00:00"_s); // two days before the clock goes forward
    SyncJob often = TestJobs::named(u"often"_s);
    often.intervalMins = kIntervalMins;
    setClock(evening);
    TestJobs::store({often, jobOf(kPlans.first())});
    YearWindow window;
    window.part<QCheckBox>("autoCheck")->setChecked(true);
    window.part<QTimer>("tickTimer")->stop();
    window.tickAt(evening);
    const QDateTime awake = evening.addDays(3).addSecs(kStepSecs);
    for (int step = 0; step < 60; ++step)
        window.tickAt(awake.addSecs(step * kStepSecs));
    QCOMPARE(window.firings, QStringList({u"2026-03-27T20:00 often"_s, u"2026-03-30T20:10 often"_s,
                                          u"2026-03-30T20:10 night"_s, u"2026-03-30T21:40 often"_s,
                                          u"2026-03-30T23:10 often"_s, u"2026-03-31T00:30 night"_s,
                                          u"2026-03-31T00:40 often"_s, u"2026-03-31T02:10 often"_s,
                                          u"2026-03-31T03:40 often"_s, u"2026-03-31T05:10 often"_s}));
}

void TestYear::aClockThatIsSetBackRepeatsNothing()
{
    const LocalZone here("Europe/Berlin");
    const QDateTime begin = utc(u"2026-06-01T00:20:00"_s); // 02:20 here
    SyncJob often = TestJobs::named(u"often"_s);
    often.intervalMins = kIntervalMins;
    setClock(begin);
    TestJobs::store({often, jobOf(kPlans.first())});
    YearWindow window;
    window.part<QCheckBox>("autoCheck")->setChecked(true);
    window.part<QTimer>("tickTimer")->stop();
    window.tickAt(begin);
    window.tickAt(begin.addSecs(kStepSecs)); // 02:30
    for (QDateTime now = begin.addSecs(kStepSecs - 7200); now < begin.addDays(1);
         now = now.addSecs(kStepSecs))
        window.tickAt(now);
    Firings expected{u"2026-06-01T00:20 often"_s, u"2026-06-01T00:30 night"_s};
    for (QDateTime due = utc(u"2026-06-01T01:50:00"_s); due < begin.addDays(1);
         due = due.addSecs(kIntervalMins * 60))
        expected += firing(due, often.name);
    QCOMPARE(window.firings, expected);
}

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    TestWindow::setIdentity();
    TestYear test(settings);
    return QTest::qExec(&test, argc, argv);
}

#include "tst_Year.moc"
