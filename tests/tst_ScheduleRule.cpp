#include "model/SyncJob.h"
#include "support/LocalZone.h"
#include "support/MarkingTranslator.h"

#include <QCoreApplication>
#include <QRandomGenerator>
#include <QScopeGuard>
#include <QTest>
#include <QTimeZone>

#include <algorithm>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

constexpr quint8 kEveryDay = 127;
constexpr quint8 kWeekdays = 31;
constexpr quint8 kWeekend = 96;
constexpr quint32 kEveryHour = 16777215;

constexpr quint32 hourMask(std::initializer_list<int> hours)
{
    quint32 mask = 0;
    for (const int hour : hours)
        mask |= 1u << hour;
    return mask;
}

ScheduleRule makeRule(quint8 days, quint32 hours, const QList<int> &minutes)
{
    ScheduleRule rule;
    rule.days = days;
    rule.hours = hours;
    rule.minutes = minutes;
    return rule;
}

/** An instant from its UTC form, held in local time as the program's clock reads it. */
QDateTime instant(const QString &utc)
{
    return QDateTime::fromString(utc + u'Z', Qt::ISODateWithMs).toLocalTime();
}

QString utcText(const QDateTime &when)
{
    return when.isValid() ? when.toUTC().toString(u"yyyy-MM-ddTHH:mm:ss.zzz"_s) : u"invalid"_s;
}

/** A clock change by its plain figures, so that no zone arithmetic of Qt's is needed to judge a result. */
struct ClockChange
{
    const char *what;
    const char *zone;
    const char *utc;
    int minutesBefore; ///< offset from UTC until then
    int minutesAfter;
};

constexpr ClockChange kChanges[] = {
    {"no change at all", "UTC", "2024-03-31T01:00:00", 0, 0},
    {"Berlin forward", "Europe/Berlin", "2024-03-31T01:00:00", 60, 120},
    {"Berlin back", "Europe/Berlin", "2024-10-27T01:00:00", 120, 60},
    {"New York forward", "America/New_York", "2024-03-10T07:00:00", -300, -240},
    {"New York back", "America/New_York", "2024-11-03T06:00:00", -240, -300},
    {"Lord Howe forward", "Australia/Lord_Howe", "2024-10-05T15:30:00", 630, 660},
    {"Lord Howe back", "Australia/Lord_Howe", "2024-04-06T15:00:00", 660, 630},
    {"Santiago forward at midnight", "America/Santiago", "2024-09-08T04:00:00", -240, -180},
    {"Santiago back at midnight", "America/Santiago", "2024-04-07T03:00:00", -180, -240},
};

/** One minute of the wall clock and the real minute that it stands for. */
struct ClockMinute
{
    qint64 real; ///< minutes since the epoch
    int dayBit;
    int hour;
    int minute;
};

/**
 * Every wall-clock minute around a change, in the order of real time.
 *
 * The real minutes are walked one by one: a wall-clock minute counts when it is first met, and those
 * that a step forward leaves out stand where they would be without the step.
 */
std::vector<ClockMinute> clockMinutes(const ClockChange &change)
{
    constexpr qint64 kMinutesPerDay = 1440;
    const qint64 changeAt =
        QDateTime::fromString(QString::fromLatin1(change.utc) + u'Z', Qt::ISODate).toSecsSinceEpoch() / 60;
    std::vector<ClockMinute> minutes;
    const auto add = [&minutes](qint64 wall, qint64 real) {
        // 1970-01-01 was a Thursday.
        minutes.push_back({real, int((wall / kMinutesPerDay + 3) % 7), int(wall / 60 % 24), int(wall % 60)});
    };
    const qint64 first = changeAt - 4 * kMinutesPerDay;
    qint64 latestWall = first + change.minutesBefore - 1;
    for (qint64 real = first; real < changeAt + 18 * kMinutesPerDay; ++real) {
        const qint64 wall = real + (real < changeAt ? change.minutesBefore : change.minutesAfter);
        for (qint64 missing = latestWall + 1; missing < wall; ++missing)
            add(missing, missing - change.minutesBefore);
        if (wall > latestWall)
            add(wall, real);
        latestWall = std::max(latestWall, wall);
    }
    std::stable_sort(minutes.begin(), minutes.end(),
                     [](const ClockMinute &a, const ClockMinute &b) { return a.real < b.real; });
    return minutes;
}

qint64 earliestByHand(const std::vector<ClockMinute> &minutes, const ScheduleRule &rule, qint64 fromMs)
{
    const auto later = std::upper_bound(minutes.begin(), minutes.end(), fromMs + 30000,
                                        [](qint64 ms, const ClockMinute &m) { return ms < m.real * 60000; });
    const auto hit = std::find_if(later, minutes.end(), [&rule](const ClockMinute &m) {
        return (rule.days >> m.dayBit & 1) && (rule.hours >> m.hour & 1) && rule.minutes.contains(m.minute);
    });
    return hit == minutes.end() ? -1 : hit->real * 60000;
}

ScheduleRule randomRule(QRandomGenerator *random)
{
    ScheduleRule rule;
    rule.days = quint8(random->bounded(1, 128));
    // Few and small hours, because the clock is changed at night.
    rule.hours = 0;
    while (rule.hours == 0)
        rule.hours = (random->bounded(4) ? random->generate() & 0x80001fu : random->generate()) & kEveryHour;
    rule.minutes.clear();
    for (int left = random->bounded(1, 5); left > 0; --left) {
        const int roundMinute = random->bounded(12) * 5;
        rule.minutes << (random->bounded(2) ? random->bounded(60) : roundMinute);
    }
    return rule;
}

} // namespace

class tst_ScheduleRule : public QObject
{
    Q_OBJECT

private slots:
    void theDefaultIsEveryHourOnTheHour();
    void aRuleNeedsDaysHoursAndMinutes_data();
    void aRuleNeedsDaysHoursAndMinutes();
    void runsPerWeekIsTheProduct_data();
    void runsPerWeekIsTheProduct();

    void theNextInstantIsFound_data();
    void theNextInstantIsFound();
    void everyMinuteIsFoundInOrder();
    void theRuleItselfStaysUnsorted();
    void clockChangesMoveInstants_data();
    void clockChangesMoveInstants();
    void theZonesChangeTheirClocksAsListed_data();
    void theZonesChangeTheirClocksAsListed();
    void theAnswerIsAlwaysTheEarliest_data();
    void theAnswerIsAlwaysTheEarliest();
    void aWeeklyRuleAlwaysHasAnAnswer_data();
    void aWeeklyRuleAlwaysHasAnAnswer();
    void previewsWalkOverAClockChange_data();
    void previewsWalkOverAClockChange();
    void anIntervalIsRealTime_data();
    void anIntervalIsRealTime();

    void storageTextKeepsTheOrder_data();
    void storageTextKeepsTheOrder();
    void storageTextIsReadTolerantly_data();
    void storageTextIsReadTolerantly();
    void cleanRulesSurviveStorage();

    void labels_data();
    void labels();
    void labelsAreTranslatedButNotTheirPatterns_data();
    void labelsAreTranslatedButNotTheirPatterns();
};

void tst_ScheduleRule::theDefaultIsEveryHourOnTheHour()
{
    const auto [days, hours, minutes] = ScheduleRule();
    static_assert(std::is_same_v<decltype(ScheduleRule::days), quint8>);
    static_assert(std::is_same_v<decltype(ScheduleRule::hours), quint32>);
    QCOMPARE(int(days), 127);
    QCOMPARE(hours, 16777215u);
    QCOMPARE(minutes, QList<int>{0});
    QVERIFY(ScheduleRule().isUsable());
}

void tst_ScheduleRule::aRuleNeedsDaysHoursAndMinutes_data()
{
    QTest::addColumn<int>("days");
    QTest::addColumn<uint>("hours");
    QTest::addColumn<QList<int>>("minutes");

    QTest::newRow("no day") << 0 << kEveryHour << QList<int>{0};
    QTest::newRow("no hour") << 127 << 0u << QList<int>{0};
    QTest::newRow("no minute") << 127 << kEveryHour << QList<int>{};
    QTest::newRow("nothing") << 0 << 0u << QList<int>{};
}

void tst_ScheduleRule::aRuleNeedsDaysHoursAndMinutes()
{
    QFETCH(int, days);
    QFETCH(uint, hours);
    QFETCH(QList<int>, minutes);
    const ScheduleRule rule = makeRule(quint8(days), hours, minutes);

    QVERIFY(!rule.isUsable());
    QCOMPARE(rule.runsPerWeek(), 0);
    QVERIFY(!rule.nextAfter(instant(u"2024-01-01T12:00:00"_s)).isValid());
    QCOMPARE(rule.label(), u"Never (nothing selected)"_s);
}

void tst_ScheduleRule::runsPerWeekIsTheProduct_data()
{
    QTest::addColumn<int>("days");
    QTest::addColumn<uint>("hours");
    QTest::addColumn<QList<int>>("minutes");
    QTest::addColumn<int>("runs");

    QList<int> allMinutes;
    for (int minute = 0; minute < 60; ++minute)
        allMinutes << minute;
    QTest::newRow("default") << 127 << kEveryHour << QList<int>{0} << 168;
    QTest::newRow("everything") << 127 << kEveryHour << allMinutes << 10080;
    QTest::newRow("once") << 64 << hourMask({23}) << QList<int>{59} << 1;
    QTest::newRow("office hours") << 31 << 524224u << QList<int>{0, 30} << 130;
    QTest::newRow("three days, two hours, four minutes")
        << 0b0010101 << hourMask({0, 23}) << QList<int>{1, 2, 3, 4} << 24;
    QTest::newRow("the list's length counts, doubled or not") << 1 << hourMask({5}) << QList<int>{7, 7} << 2;
}

void tst_ScheduleRule::runsPerWeekIsTheProduct()
{
    QFETCH(int, days);
    QFETCH(uint, hours);
    QFETCH(QList<int>, minutes);
    QTEST(makeRule(quint8(days), hours, minutes).runsPerWeek(), "runs");
}

void tst_ScheduleRule::theNextInstantIsFound_data()
{
    QTest::addColumn<ScheduleRule>("rule");
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("next");

    const auto row = [](const char *what, const ScheduleRule &rule, const char *from, const char *next) {
        QTest::newRow(what) << rule << QString::fromLatin1(from) << QString::fromLatin1(next);
    };
    // 2024-01-01 is a Monday, 2024-01-05 a Friday.
    const ScheduleRule daily8 = makeRule(kEveryDay, hourMask({8}), {0});
    row("31 seconds ahead", daily8, "2024-01-01T07:59:29", "2024-01-01T08:00:00");
    row("a millisecond more than 30 seconds", daily8, "2024-01-01T07:59:29.999", "2024-01-01T08:00:00");
    row("30 seconds ahead is too near", daily8, "2024-01-01T07:59:30", "2024-01-02T08:00:00");
    row("20 seconds ahead is too near", daily8, "2024-01-01T07:59:40", "2024-01-02T08:00:00");
    row("at the instant itself", daily8, "2024-01-01T08:00:00", "2024-01-02T08:00:00");
    row("just past it", daily8, "2024-01-01T08:00:01", "2024-01-02T08:00:00");
    row("long before it", daily8, "2024-01-01T00:00:00", "2024-01-01T08:00:00");

    const ScheduleRule hourly = ScheduleRule();
    row("asked at the hour", hourly, "2024-01-01T08:00:00", "2024-01-01T09:00:00");
    row("asked 20 seconds before the hour", hourly, "2024-01-01T07:59:40", "2024-01-01T09:00:00");
    row("the seconds are not rounded away", hourly, "2024-01-01T08:59:29", "2024-01-01T09:00:00");
    row("last hour of the day", hourly, "2024-01-01T22:10:00", "2024-01-01T23:00:00");
    row("over midnight", hourly, "2024-01-01T23:10:00", "2024-01-02T00:00:00");
    row("over the month's end in a leap year", hourly, "2024-02-28T23:10:00", "2024-02-29T00:00:00");
    row("over the year's end", hourly, "2024-12-31T23:59:00", "2025-01-01T00:00:00");

    const ScheduleRule midnight = makeRule(kEveryDay, hourMask({0}), {0});
    row("the threshold lies in the next day", midnight, "2024-01-05T23:59:50", "2024-01-07T00:00:00");
    row("the threshold is midnight itself", midnight, "2024-01-05T23:59:30", "2024-01-07T00:00:00");
    row("the threshold is just short of midnight", midnight, "2024-01-05T23:59:29", "2024-01-06T00:00:00");
    row("late, but a slot early in the next day", makeRule(kEveryDay, hourMask({0}), {0, 1}),
        "2024-01-05T23:59:50", "2024-01-06T00:01:00");

    row("Monday only, after Monday's last slot", makeRule(1, hourMask({8, 9}), {0, 30}),
        "2024-01-01T09:30:00", "2024-01-08T08:00:00");
    row("Saturday 00:00 alone, too near", makeRule(32, hourMask({0}), {0}), "2024-01-05T23:59:50",
        "2024-01-13T00:00:00");
    row("Saturday 00:00 alone, near enough", makeRule(32, hourMask({0}), {0}), "2024-01-05T23:59:29",
        "2024-01-06T00:00:00");

    const char *const days[] = {"Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday", "Sunday"};
    for (int day = 0; day < 7; ++day) {
        QTest::addRow("bit %d is %s", day, days[day])
            << makeRule(quint8(1 << day), hourMask({12}), {0}) << u"2024-01-01T00:00:00"_s
            << u"2024-01-0%1T12:00:00"_s.arg(day + 1);
    }
    for (int hour = 0; hour < 24; ++hour) {
        QTest::addRow("bit %d is hour %d", hour, hour)
            << makeRule(kEveryDay, hourMask({hour}), {17}) << u"2024-01-01T00:00:00"_s
            << QTime(hour, 17).toString(u"'2024-01-01T'HH:mm:ss"_s);
    }
    row("weekend from a Friday", makeRule(kWeekend, hourMask({23}), {5}), "2024-01-05T23:30:00",
        "2024-01-06T23:05:00");
    row("weekdays from a Friday evening", makeRule(kWeekdays, hourMask({8}), {30}), "2024-01-05T20:00:00",
        "2024-01-08T08:30:00");

    const ScheduleRule unsorted = makeRule(kEveryDay, hourMask({8}), {30, 0});
    row("unsorted minutes, the smaller first", unsorted, "2024-01-01T07:00:00", "2024-01-01T08:00:00");
    row("unsorted minutes, then the larger", unsorted, "2024-01-01T08:00:00", "2024-01-01T08:30:00");
    row("doubled minutes are one instant", makeRule(kEveryDay, hourMask({8}), {0, 0, 30}),
        "2024-01-01T08:00:00", "2024-01-01T08:30:00");
    row("last minute of the day", makeRule(kEveryDay, hourMask({23}), {59}), "2024-01-01T23:58:00",
        "2024-01-01T23:59:00");
}

void tst_ScheduleRule::theNextInstantIsFound()
{
    QFETCH(ScheduleRule, rule);
    QFETCH(QString, from);
    QFETCH(QString, next);
    const LocalZone zone("UTC");

    const QDateTime found = rule.nextAfter(instant(from));
    QCOMPARE(utcText(found), next + u".000"_s);
    QCOMPARE(found.timeSpec(), Qt::LocalTime);
}

void tst_ScheduleRule::everyMinuteIsFoundInOrder()
{
    const LocalZone zone("UTC");
    ScheduleRule rule;
    rule.minutes.clear();
    for (int minute = 59; minute >= 0; --minute)
        rule.minutes << minute;

    // Three hours on either side of the week's end.
    QDateTime cursor = instant(u"2024-01-07T21:00:00"_s);
    for (int run = 0; run < 360; ++run) {
        const QDateTime next = rule.nextAfter(cursor);
        QCOMPARE(cursor.secsTo(next), 60);
        cursor = next;
    }
    QCOMPARE(utcText(cursor), u"2024-01-08T03:00:00.000"_s);
}

void tst_ScheduleRule::theRuleItselfStaysUnsorted()
{
    const LocalZone zone("UTC");
    const ScheduleRule rule = makeRule(kEveryDay, hourMask({8}), {30, 0});
    const QDateTime from = instant(u"2024-01-01T07:00:00"_s);

    QCOMPARE(utcText(rule.nextAfter(from)), u"2024-01-01T08:00:00.000"_s);
    QCOMPARE(rule.minutes, (QList<int>{30, 0}));
    QCOMPARE(utcText(from), u"2024-01-01T07:00:00.000"_s);
}

void tst_ScheduleRule::clockChangesMoveInstants_data()
{
    QTest::addColumn<QString>("zone");
    QTest::addColumn<QString>("rule");
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("next");

    QString zone;
    const auto row = [&zone](const char *what, const char *rule, const char *from, const char *next) {
        QTest::addRow("%s: %s", qPrintable(zone.section(u'/', -1)), what)
            << zone << QString::fromLatin1(rule) << QString::fromLatin1(from) << QString::fromLatin1(next);
    };

    zone = u"Europe/Berlin"_s; // 02:00 becomes 03:00 at 01:00 UTC
    row("first minute of the gap", "127:4:0", "2024-03-31T00:30:00", "2024-03-31T01:00:00");
    row("middle of the gap", "127:4:30", "2024-03-31T00:30:00", "2024-03-31T01:30:00");
    row("last minute of the gap", "127:4:59", "2024-03-31T00:30:00", "2024-03-31T01:59:00");
    row("last minute before the gap", "127:2:59", "2024-03-31T00:30:00", "2024-03-31T00:59:00");
    row("first minute after the gap", "127:8:0", "2024-03-31T00:30:00", "2024-03-31T01:00:00");
    row("only instant of the week, a week ahead", "64:4:30", "2024-03-24T01:30:00", "2024-03-31T01:30:00");
    row("only instant of the week, the day before", "64:4:30", "2024-03-30T12:00:00", "2024-03-31T01:30:00");
    row("only instant of the week, after the step", "64:4:30", "2024-03-31T01:00:00", "2024-03-31T01:30:00");
    row("moved instant, 31 seconds ahead", "64:4:30", "2024-03-31T01:29:29", "2024-03-31T01:30:00");
    row("moved instant, 30 seconds ahead", "64:4:30", "2024-03-31T01:29:30", "2024-04-07T00:30:00");
    row("threshold steps over the gap", "127:4:0+1", "2024-03-31T00:59:30", "2024-03-31T01:01:00");
    row("moved and unmoved are one instant", "127:12:0", "2024-03-31T00:30:00", "2024-03-31T01:00:00");
    row("no second firing of it", "127:12:0", "2024-03-31T01:00:00", "2024-04-01T00:00:00");
    row("hourly before the gap", "127:16777215:0", "2024-03-31T00:00:00", "2024-03-31T01:00:00");
    row("hourly after the gap", "127:16777215:0", "2024-03-31T01:00:00", "2024-03-31T02:00:00");
    row("day after the gap", "127:4:30", "2024-03-31T01:30:00", "2024-04-01T00:30:00");
    // 03:00 becomes 02:00 at 01:00 UTC
    row("repeated time is the first one", "64:4:30", "2024-10-26T12:00:00", "2024-10-27T00:30:00");
    row("repeated time, 30 seconds ahead", "64:4:30", "2024-10-27T00:29:30", "2024-11-03T01:30:00");
    row("repeated time does not come twice", "64:4:30", "2024-10-27T00:30:00", "2024-11-03T01:30:00");
    row("asked between the two", "64:4:30", "2024-10-27T00:45:00", "2024-11-03T01:30:00");
    row("asked just before the second one", "64:4:30", "2024-10-27T01:29:00", "2024-11-03T01:30:00");
    row("first minute that is repeated", "127:4:0", "2024-10-26T23:30:00", "2024-10-27T00:00:00");
    row("last minute that is repeated", "127:4:59", "2024-10-26T23:30:00", "2024-10-27T00:59:00");
    row("first minute that is not", "127:8:0", "2024-10-26T23:30:00", "2024-10-27T02:00:00");
    row("hourly leaves the repeated hour out", "127:16777215:0", "2024-10-27T00:00:00",
        "2024-10-27T02:00:00");
    row("asked in the repeated hour", "127:16777215:0", "2024-10-27T01:10:00", "2024-10-27T02:00:00");

    zone = u"America/New_York"_s; // 02:00 becomes 03:00 at 07:00 UTC, 02:00 becomes 01:00 at 06:00 UTC
    row("first minute of the gap", "127:4:0", "2024-03-10T06:30:00", "2024-03-10T07:00:00");
    row("last minute of the gap", "127:4:59", "2024-03-10T06:30:00", "2024-03-10T07:59:00");
    row("only instant of the week", "64:4:30", "2024-03-09T12:00:00", "2024-03-10T07:30:00");
    row("only instant of the week, gone by", "64:4:30", "2024-03-10T07:30:00", "2024-03-17T06:30:00");
    row("repeated time is the first one", "64:2:30", "2024-11-02T12:00:00", "2024-11-03T05:30:00");
    row("repeated time does not come twice", "64:2:30", "2024-11-03T05:30:00", "2024-11-10T06:30:00");
    row("first minute that is not repeated", "127:4:0", "2024-11-03T05:30:00", "2024-11-03T07:00:00");

    zone = u"Australia/Lord_Howe"_s; // 02:00 becomes 02:30 at 15:30 UTC, 02:00 becomes 01:30 at 15:00 UTC
    row("first minute of the gap", "64:4:0", "2024-10-05T15:00:00", "2024-10-05T15:30:00");
    row("middle of the gap", "64:4:15", "2024-10-05T15:00:00", "2024-10-05T15:45:00");
    row("last minute of the gap", "64:4:29", "2024-10-05T15:00:00", "2024-10-05T15:59:00");
    row("first minute after the gap", "64:4:30", "2024-10-05T15:00:00", "2024-10-05T15:30:00");
    row("only instant of the week, gone by", "64:4:15", "2024-10-05T15:45:00", "2024-10-12T15:15:00");
    row("unmoved comes before moved", "64:4:15+40", "2024-10-05T15:00:00", "2024-10-05T15:40:00");
    row("moved comes behind unmoved", "64:4:15+40", "2024-10-05T15:40:00", "2024-10-05T15:45:00");
    row("both are done", "64:4:15+40", "2024-10-05T15:45:00", "2024-10-12T15:15:00");
    row("moved and unmoved are one instant", "64:4:15+45", "2024-10-05T15:45:00", "2024-10-12T15:15:00");
    row("repeated time is the first one", "64:2:45", "2024-04-06T12:00:00", "2024-04-06T14:45:00");
    row("repeated time does not come twice", "64:2:45", "2024-04-06T14:45:00", "2024-04-13T15:15:00");
    row("first minute that is not repeated", "64:4:0", "2024-04-06T14:45:00", "2024-04-06T15:30:00");

    zone = u"America/Santiago"_s; // 00:00 becomes 01:00 at 04:00 UTC, 24:00 becomes 23:00 at 03:00 UTC
    row("gap at midnight", "64:1:0", "2024-09-08T03:59:29", "2024-09-08T04:00:00");
    row("gap at midnight, too near", "64:1:0", "2024-09-08T03:59:50", "2024-09-15T03:00:00");
    row("day before is repeated", "127:8388608:30", "2024-04-07T01:00:00", "2024-04-07T02:30:00");
    row("asked in the repeated hour", "127:8388608:30", "2024-04-07T03:10:00", "2024-04-08T03:30:00");
    row("midnight after the repeated hour", "127:1:0", "2024-04-07T03:30:00", "2024-04-07T04:00:00");
    row("midnight after it, too near", "127:1:0", "2024-04-07T03:59:50", "2024-04-08T04:00:00");

    zone = u"UTC"_s;
    row("no gap", "64:4:30", "2024-03-30T12:00:00", "2024-03-31T02:30:00");
}

void tst_ScheduleRule::clockChangesMoveInstants()
{
    QFETCH(QString, zone);
    QFETCH(QString, rule);
    QFETCH(QString, from);
    QFETCH(QString, next);
    const LocalZone local(zone.toLatin1());

    const QDateTime found = ScheduleRule::fromStorage(rule).nextAfter(instant(from));
    QCOMPARE(utcText(found), next + u".000"_s);
    QCOMPARE(found.timeSpec(), Qt::LocalTime);
    // What the user reads must be the same instant, too.
    const QTimeZone reference(zone.toLatin1());
    QCOMPARE(found.toString(u"yyyy-MM-dd HH:mm:ss"_s),
             found.toUTC().toTimeZone(reference).toString(u"yyyy-MM-dd HH:mm:ss"_s));
}

void tst_ScheduleRule::theZonesChangeTheirClocksAsListed_data()
{
    QTest::addColumn<int>("index");
    int index = 0;
    for (const ClockChange &change : kChanges)
        QTest::newRow(change.what) << index++;
}

void tst_ScheduleRule::theZonesChangeTheirClocksAsListed()
{
    QFETCH(int, index);
    const ClockChange &change = kChanges[index];
    const LocalZone local(change.zone);
    const QDateTime changeAt = QDateTime::fromString(QString::fromLatin1(change.utc) + u'Z', Qt::ISODate);

    QCOMPARE(changeAt.addSecs(-1).toLocalTime().offsetFromUtc(), change.minutesBefore * 60);
    QCOMPARE(changeAt.toLocalTime().offsetFromUtc(), change.minutesAfter * 60);
    QCOMPARE(changeAt.addDays(-4).toLocalTime().offsetFromUtc(), change.minutesBefore * 60);
    QCOMPARE(changeAt.addDays(18).toLocalTime().offsetFromUtc(), change.minutesAfter * 60);
}

void tst_ScheduleRule::theAnswerIsAlwaysTheEarliest_data() { theZonesChangeTheirClocksAsListed_data(); }

void tst_ScheduleRule::theAnswerIsAlwaysTheEarliest()
{
    QFETCH(int, index);
    const ClockChange &change = kChanges[index];
    const LocalZone local(change.zone);
    const std::vector<ClockMinute> minutes = clockMinutes(change);
    const qint64 changeMs =
        QDateTime::fromString(QString::fromLatin1(change.utc) + u'Z', Qt::ISODate).toMSecsSinceEpoch();
    constexpr qint64 kHourMs = 3600000;

    QRandomGenerator random(quint32(20240331 + index));
    for (int round = 0; round < 1500; ++round) {
        const ScheduleRule rule = randomRule(&random);
        const qint64 reach = round % 3 == 0 ? 36 * kHourMs : 2 * kHourMs;
        qint64 fromMs = changeMs + random.bounded(2 * reach) - reach;
        // Every other question is asked at the sharp edge of the 30 seconds before an instant.
        if (round % 2)
            fromMs = earliestByHand(minutes, rule, fromMs) - 30000 + random.bounded(-1, 2);
        const qint64 expected = earliestByHand(minutes, rule, fromMs);
        QVERIFY(expected > 0);

        const QDateTime from = QDateTime::fromMSecsSinceEpoch(fromMs);
        const QDateTime found = rule.nextAfter(from);
        const auto question = [&] { return rule.toStorage() + u" asked at "_s + utcText(from); };
        QVERIFY2(found.isValid(), qPrintable(question()));
        QVERIFY2(
            found.toMSecsSinceEpoch() == expected,
            qPrintable(u"%1: %2 instead of %3"_s.arg(
                question(), utcText(found), utcText(QDateTime::fromMSecsSinceEpoch(expected, Qt::UTC)))));
    }
}

void tst_ScheduleRule::aWeeklyRuleAlwaysHasAnAnswer_data() { theZonesChangeTheirClocksAsListed_data(); }

void tst_ScheduleRule::aWeeklyRuleAlwaysHasAnAnswer()
{
    QFETCH(int, index);
    const ClockChange &change = kChanges[index];
    const LocalZone local(change.zone);
    const std::vector<ClockMinute> minutes = clockMinutes(change);
    const QDateTime changeAt = QDateTime::fromString(QString::fromLatin1(change.utc) + u'Z', Qt::ISODate);

    // Every quarter of an hour of the day around the change, as the one instant of its week.
    constexpr qint64 halfDay = 720;
    for (qint64 wall = -halfDay; wall < halfDay; wall += 15) {
        const QDateTime slot = changeAt.addSecs((wall + change.minutesBefore) * 60);
        const ScheduleRule rule = makeRule(quint8(1 << (slot.date().dayOfWeek() - 1)),
                                           1u << slot.time().hour(), {slot.time().minute()});
        for (const qint64 secondsBefore : {259200, 86400, 3600, 1800, 40, 31, 30, 29, 0, -60}) {
            const QDateTime from = changeAt.addSecs(wall * 60 - secondsBefore).toLocalTime();
            const QDateTime found = rule.nextAfter(from);
            QVERIFY2(found.isValid(), qPrintable(rule.label() + u" asked at "_s + utcText(from)));
            QCOMPARE(found.toMSecsSinceEpoch(), earliestByHand(minutes, rule, from.toMSecsSinceEpoch()));
        }
    }
}

void tst_ScheduleRule::previewsWalkOverAClockChange_data()
{
    QTest::addColumn<QString>("zone");
    QTest::addColumn<QString>("rule");
    QTest::addColumn<QString>("from");
    QTest::addColumn<QStringList>("runs");

    QTest::newRow("through the gap") << u"Europe/Berlin"_s << u"127:30:0+30"_s << u"2024-03-31T00:10:00"_s
                                     << QStringList{
                                            u"2024-03-31T00:30:00.000"_s, u"2024-03-31T01:00:00.000"_s,
                                            u"2024-03-31T01:30:00.000"_s, u"2024-03-31T02:00:00.000"_s};
    QTest::newRow("through the repeated hour")
        << u"Europe/Berlin"_s << u"127:30:0+30"_s << u"2024-10-26T23:40:00"_s
        << QStringList{u"2024-10-27T00:00:00.000"_s, u"2024-10-27T00:30:00.000"_s,
                       u"2024-10-27T02:00:00.000"_s, u"2024-10-27T02:30:00.000"_s};
    QTest::newRow("moved behind unmoved")
        << u"Australia/Lord_Howe"_s << u"64:4:15+40"_s << u"2024-10-05T00:00:00"_s
        << QStringList{u"2024-10-05T15:40:00.000"_s, u"2024-10-05T15:45:00.000"_s,
                       u"2024-10-12T15:15:00.000"_s, u"2024-10-12T15:40:00.000"_s};
}

void tst_ScheduleRule::previewsWalkOverAClockChange()
{
    QFETCH(QString, zone);
    QFETCH(QString, rule);
    QFETCH(QString, from);
    const LocalZone local(zone.toLatin1());
    SyncJob job;
    job.scheduleMode = Rules;
    job.rules = {ScheduleRule::fromStorage(rule)};

    QStringList found;
    for (const QDateTime &run : job.upcomingRuns(instant(from), 4))
        found << utcText(run);
    QTEST(found, "runs");
}

void tst_ScheduleRule::anIntervalIsRealTime_data()
{
    QTest::addColumn<QString>("zone");
    QTest::addColumn<QString>("lastRun");

    QTest::newRow("over a gap") << u"Europe/Berlin"_s << u"2024-03-31T00:30:00"_s;
    QTest::newRow("over a repeated hour") << u"Europe/Berlin"_s << u"2024-10-27T00:30:00"_s;
    QTest::newRow("from the second of two") << u"Europe/Berlin"_s << u"2024-10-27T01:30:00"_s;
    QTest::newRow("half an hour's gap") << u"Australia/Lord_Howe"_s << u"2024-10-05T15:10:00"_s;
}

void tst_ScheduleRule::anIntervalIsRealTime()
{
    QFETCH(QString, zone);
    QFETCH(QString, lastRun);
    const LocalZone local(zone.toLatin1());
    SyncJob job;
    job.intervalMins = 60;
    job.lastRun = instant(lastRun);

    const QDateTime next = job.computeNextRun(job.lastRun.addSecs(5));
    QCOMPARE(next.toMSecsSinceEpoch() - job.lastRun.toMSecsSinceEpoch(), 3600000);
}

void tst_ScheduleRule::storageTextKeepsTheOrder_data()
{
    QTest::addColumn<ScheduleRule>("rule");
    QTest::addColumn<QString>("text");

    QTest::newRow("default") << ScheduleRule() << u"127:16777215:0"_s;
    QTest::newRow("office hours") << makeRule(31, 524224, {0, 30}) << u"31:524224:0+30"_s;
    QTest::newRow("list order") << makeRule(1, 2, {30, 0, 7}) << u"1:2:30+0+7"_s;
    QTest::newRow("no masks") << makeRule(0, 0, {59}) << u"0:0:59"_s;
    QTest::newRow("no minutes") << makeRule(127, 1, {}) << u"127:1:"_s;
    QTest::newRow("last day and hour") << makeRule(64, 8388608, {59}) << u"64:8388608:59"_s;
}

void tst_ScheduleRule::storageTextKeepsTheOrder()
{
    QFETCH(ScheduleRule, rule);
    QTEST(rule.toStorage(), "text");
}

void tst_ScheduleRule::storageTextIsReadTolerantly_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("days");
    QTest::addColumn<uint>("hours");
    QTest::addColumn<QList<int>>("minutes");

    const auto row = [](const char *what, const char *text, int days, uint hours, const QList<int> &minutes) {
        QTest::newRow(what) << QString::fromUtf8(text) << days << hours << minutes;
    };
    row("clean", "31:524224:0+30", 31, 524224, {0, 30});
    row("empty", "", 127, 16777215, {0});
    row("two parts", "31:524224", 127, 16777215, {0});
    row("one part", "31", 127, 16777215, {0});
    row("plain words", "every now and then", 127, 16777215, {0});
    row("three empty parts", "::", 0, 0, {0});
    row("four empty parts", ":::", 0, 0, {0});
    row("days are no number", "abc:1:0", 0, 1, {0});
    row("hours are no number", "127:abc:0", 127, 0, {0});
    row("empty days", ":1:0", 0, 1, {0});
    row("empty hours", "1::0", 1, 0, {0});
    row("negative days", "-1:1:0", 0, 1, {0});
    row("negative hours", "1:-1:0", 1, 0, {0});
    row("largest 32 bits", "4294967295:4294967295:0", 127, 16777215, {0});
    row("days over 32 bits", "4294967296:1:0", 0, 1, {0});
    row("hours over 32 bits", "1:4294967296:0", 1, 0, {0});
    row("bits beyond the masks, and a fourth part", "255:33554431:0:extra", 127, 16777215, {0});
    row("only bits beyond the masks", "128:16777216:5", 0, 0, {5});
    row("base 10 throughout", "031:010:08+010", 31, 10, {8, 10});
    row("no hexadecimal", "0x1f:0xff:0x0a", 0, 0, {0});
    row("no fractions", "1.0:2.5:3.5", 0, 0, {0});
    row("no minutes", "127:16777215:", 127, 16777215, {0});
    row("no minutes, yet more parts", "1:1::30", 1, 1, {0});
    row("bad minutes", "127:16777215:99+x", 127, 16777215, {0});
    row("blanks, gaps and doubles", "127:16777215: 5 ++ 5 + 3", 127, 16777215, {3, 5});
    row("good among bad", "1:1:60+-1+59+0+x+1e1", 1, 1, {0, 59});
    row("unsorted", "1:1:45+15+30+0", 1, 1, {0, 15, 30, 45});
    row("sorted by value, not as text", "1:1:10+9", 1, 1, {9, 10});
    row("only separators", "1:1:+++", 1, 1, {0});
    row("minutes over 32 bits", "1:1:4294967296+7", 1, 1, {7});
    row("commas do not separate", "1:1:5,10", 1, 1, {0});
    row("tabs around minutes", "1:1:\t5\t+\n6", 1, 1, {5, 6});
    row("letters of another script", "1:1:\xd9\xa5+7", 1, 1, {7});
}

void tst_ScheduleRule::storageTextIsReadTolerantly()
{
    QFETCH(QString, text);
    const ScheduleRule rule = ScheduleRule::fromStorage(text);
    QTEST(int(rule.days), "days");
    QTEST(uint(rule.hours), "hours");
    QTEST(rule.minutes, "minutes");
}

void tst_ScheduleRule::cleanRulesSurviveStorage()
{
    QRandomGenerator random(7);
    for (int round = 0; round < 500; ++round) {
        ScheduleRule rule = randomRule(&random);
        std::sort(rule.minutes.begin(), rule.minutes.end());
        rule.minutes.erase(std::unique(rule.minutes.begin(), rule.minutes.end()), rule.minutes.end());

        const ScheduleRule back = ScheduleRule::fromStorage(rule.toStorage());
        QCOMPARE(int(back.days), int(rule.days));
        QCOMPARE(back.hours, rule.hours);
        QCOMPARE(back.minutes, rule.minutes);
        QCOMPARE(back.toStorage(), rule.toStorage());
    }
}

void tst_ScheduleRule::labels_data()
{
    QTest::addColumn<int>("days");
    QTest::addColumn<uint>("hours");
    QTest::addColumn<QList<int>>("minutes");
    QTest::addColumn<QString>("label");

    const auto row = [](int days, uint hours, const QList<int> &minutes, const char *label) {
        QTest::newRow(label) << days << hours << minutes << QString::fromLatin1(label);
    };
    row(127, kEveryHour, {0}, "Every hour at :00");
    row(127, kEveryHour, {0, 30}, "Every hour at :00, :30");
    row(31, kEveryHour, {15}, "Weekdays every hour at :15");
    row(96, kEveryHour, {5}, "Weekends every hour at :05");
    row(64, kEveryHour, {0}, "Sun every hour at :00");
    row(127, kEveryHour, {30, 0}, "Every hour at :30, :00");
    row(127, kEveryHour, {0, 5, 10, 15, 20, 25, 30, 35, 40, 45, 50, 55},
        "Every hour at :00, :05, :10, :15, :20, :25, :30, :35, :40, :45, :50, :55");
    row(127, hourMask({8}), {30}, "Daily at 08:30");
    row(127, hourMask({0}), {0}, "Daily at 00:00");
    row(127, hourMask({23}), {59}, "Daily at 23:59");
    row(31, hourMask({8}), {30}, "Weekdays 08:30");
    row(96, hourMask({23}), {5}, "Weekends 23:05");
    row(0b101, hourMask({8}), {30}, "Mon, Wed 08:30");
    row(1, hourMask({8}), {30}, "Mon 08:30");
    row(2, hourMask({8}), {30}, "Tue 08:30");
    row(4, hourMask({8}), {30}, "Wed 08:30");
    row(8, hourMask({8}), {30}, "Thu 08:30");
    row(16, hourMask({8}), {30}, "Fri 08:30");
    row(32, hourMask({8}), {30}, "Sat 08:30");
    row(64, hourMask({8}), {30}, "Sun 08:30");
    row(63, hourMask({8}), {30}, "Mon, Tue, Wed, Thu, Fri, Sat 08:30");
    row(0b1111000, hourMask({9}), {0}, "Thu, Fri, Sat, Sun 09:00");
    row(127, hourMask({6, 18}), {0}, "06:00, 18:00");
    row(127, hourMask({6, 9, 12}), {0}, "06:00, 09:00, 12:00");
    row(127, hourMask({6, 9, 12, 15}), {0}, "06:00, 09:00, 12:00 +1 more");
    row(127, hourMask({8}), {0, 30}, "08:00, 08:30");
    row(127, hourMask({8}), {30, 0}, "08:30, 08:00");
    row(127, hourMask({8}), {0, 15, 30}, "08:00, 08:15, 08:30");
    row(127, hourMask({8, 20}), {5, 50}, "08:05, 08:50, 20:05 +1 more");
    row(31, hourMask({8}), {0, 15, 30, 45}, "Weekdays 08:00, 08:15, 08:30 +1 more");
    row(31, 524224, {0, 30}, "Weekdays 06:00, 06:30, 07:00 +23 more");
    row(2, hourMask({1, 2}), {0}, "Tue 01:00, 02:00");
    row(127, kEveryHour & ~1u, {0}, "01:00, 02:00, 03:00 +20 more");
}

void tst_ScheduleRule::labels()
{
    QFETCH(int, days);
    QFETCH(uint, hours);
    QFETCH(QList<int>, minutes);
    QTEST(makeRule(quint8(days), hours, minutes).label(), "label");
}

void tst_ScheduleRule::labelsAreTranslatedButNotTheirPatterns_data()
{
    QTest::addColumn<QString>("rule");
    QTest::addColumn<QString>("label");

    QTest::newRow("never") << u"0:1:0"_s << u"[Never (nothing selected)]"_s;
    QTest::newRow("every hour") << u"127:16777215:0+30"_s << u"[every hour at :00, :30]"_s;
    QTest::newRow("daily") << u"127:256:30"_s << u"[Daily at 08:30]"_s;
    QTest::newRow("weekdays") << u"31:256:30"_s << u"[Weekdays] 08:30"_s;
    QTest::newRow("weekends") << u"96:16777215:5"_s << u"[Weekends] [every hour at :05]"_s;
    QTest::newRow("days") << u"63:256:30"_s << u"[Mon], [Tue], [Wed], [Thu], [Fri], [Sat] 08:30"_s;
    QTest::newRow("Sunday") << u"64:256:30"_s << u"[Sun] 08:30"_s;
    QTest::newRow("more") << u"127:256:0+1+2+3+4"_s << u"08:00, 08:01, 08:02[ +2 more]"_s;
}

void tst_ScheduleRule::labelsAreTranslatedButNotTheirPatterns()
{
    QFETCH(QString, rule);
    MarkingTranslator translator;
    QVERIFY(QCoreApplication::installTranslator(&translator));
    const auto remove = qScopeGuard([&translator] { QCoreApplication::removeTranslator(&translator); });
    QTEST(ScheduleRule::fromStorage(rule).label(), "label");
}

QTEST_GUILESS_MAIN(tst_ScheduleRule)
#include "tst_ScheduleRule.moc"
