#include "model/SyncJob.h"

#include "model/SettingsStore.h"

#include <QObject>
#include <QTime>
#include <QTimeZone>

#include <algorithm>
#include <bit>
#include <limits>
#include <numeric>
#include <optional>

using namespace Qt::StringLiterals;

namespace {

constexpr quint8 kAllDays = 127;
constexpr quint8 kWeekdays = 31;
constexpr quint8 kWeekend = 96;
constexpr quint32 kAllHours = 16777215;
constexpr int kThresholdSecs = 30; ///< an instant closer than this counts as the one just served
constexpr int kDaysAhead = 8;      ///< a week, and a day more for what the threshold skips
constexpr int kNamedTimes = 3;     ///< clock times spelled out in a label
constexpr int kEmptyJobsBelieved = 1000;

QString plural(int n, const QString &singular, const QString &several)
{
    return u"%1 %2"_s.arg(QString::number(n), n == 1 ? singular : several);
}

int offsetAt(qint64 utcSecs) { return QDateTime::fromSecsSinceEpoch(utcSecs).offsetFromUtc(); }

/**
 * The instant of a wall-clock time. Qt before 6.7 gives an invalid time inside a spring-forward gap
 * and either occurrence of a repeated time, so the offsets on both sides of a change decide here.
 */
QDateTime localInstant(const QDate &date, const QTime &time)
{
    constexpr qint64 day = 86400; // seconds
    const qint64 digits = QDateTime(date, time, QTimeZone::utc()).toSecsSinceEpoch();
    const int before = offsetAt(digits - day);
    const int after = offsetAt(digits + day);
    const bool existsBefore = offsetAt(digits - before) == before;
    const bool existsAfter = offsetAt(digits - after) == after;
    return QDateTime::fromSecsSinceEpoch(digits - (existsAfter && !existsBefore ? after : before));
}

/**
 * Midnight in milliseconds since the epoch, if every time of the date lies as far behind it as the clock
 * reads: where the offset is the same a day before and a day after, it does not change in between, since
 * no zone changes twice in three days.
 */
std::optional<qint64> steadyMidnight(const QDate &date)
{
    constexpr qint64 day = 86400; // seconds
    const qint64 digits = QDateTime(date, QTime(0, 0), Qt::UTC).toSecsSinceEpoch();
    const int offset = offsetAt(digits - day);
    if (offsetAt(digits + 2 * day) != offset)
        return {};
    return (digits - offset) * 1000;
}

/** Minutes as stored: numbers from 0 to 59, each once, ascending; none at all means the full hour. */
QList<int> cleanMinutes(const QStringList &texts)
{
    QList<int> minutes;
    for (const QString &text : texts) {
        bool ok = false;
        const int minute = text.trimmed().toInt(&ok);
        if (ok && minute >= 0 && minute <= 59 && !minutes.contains(minute))
            minutes.append(minute);
    }
    std::sort(minutes.begin(), minutes.end());
    if (minutes.isEmpty())
        minutes.append(0);
    return minutes;
}

QString clockText(int hour, int minute)
{
    return u"%1:%2"_s.arg(hour, 2, 10, QChar(u'0')).arg(minute, 2, 10, QChar(u'0'));
}

QString dayText(quint8 days)
{
    if (days == kAllDays)
        return {};
    if (days == kWeekdays)
        return QObject::tr("Weekdays");
    if (days == kWeekend)
        return QObject::tr("Weekends");
    const QString names[] = {QObject::tr("Mon"), QObject::tr("Tue"), QObject::tr("Wed"), QObject::tr("Thu"),
                             QObject::tr("Fri"), QObject::tr("Sat"), QObject::tr("Sun")};
    QStringList chosen;
    for (int day = 0; day < 7; ++day) {
        if (days & (1U << day))
            chosen.append(names[day]);
    }
    return chosen.join(u", "_s);
}

QString everyHourText(const QList<int> &minutes)
{
    QStringList texts;
    for (const int minute : minutes)
        texts.append(u":%1"_s.arg(minute, 2, 10, QChar(u'0')));
    return QObject::tr("every hour at %1").arg(texts.join(u", "_s));
}

/** The first few clock times of a rule, and how many more there are. */
QString clockTimesText(const ScheduleRule &rule)
{
    QStringList times;
    for (int hour = 0; hour < 24; ++hour) {
        if (!(rule.hours & (1U << hour)))
            continue;
        for (const int minute : rule.minutes) {
            if (times.size() < kNamedTimes)
                times.append(clockText(hour, minute));
        }
    }
    const qsizetype total = std::popcount(rule.hours) * rule.minutes.size();
    QString text = times.join(u", "_s);
    if (total > times.size())
        text += QObject::tr(" +%1 more").arg(total - times.size());
    return text;
}

/**
 * Keeps a password out of casual sight, and undoes it again. The mask depends on nothing but the
 * position, so this is no encryption.
 */
QByteArray masked(QByteArray bytes)
{
    for (qsizetype i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(bytes.at(i) ^ static_cast<char>((0x5B + 37 * i) & 0xFF));
    return bytes;
}

QString scrambled(const QString &password)
{
    return QString::fromLatin1(masked(password.toUtf8()).toBase64());
}

QString unscrambled(const QString &text)
{
    return QString::fromUtf8(masked(QByteArray::fromBase64(text.toLatin1())));
}

/** A list as QSettings gives it back: one element comes as plain text, several as a list. */
QStringList storedList(const QVariant &value, QChar separator)
{
    if (value.typeId() == QMetaType::QStringList)
        return value.toStringList();
    return value.toString().split(separator, Qt::SkipEmptyParts);
}

/** The one rule of a file from before jobs had several. */
ScheduleRule readRuleOfThreeKeys(const QSettings &store)
{
    ScheduleRule rule;
    rule.days = static_cast<quint8>(store.value("days", kAllDays).toUInt() & kAllDays);
    rule.hours = store.value("hours", kAllHours).toUInt() & kAllHours;
    rule.minutes = cleanMinutes(storedList(store.value("minutes", u"0"_s), u','));
    return rule;
}

/** The run a day of a file from before jobs had rules. */
ScheduleRule readDailyRule(const QSettings &store)
{
    const QTime time = store.value("dailyTime", QTime(3, 0)).toTime();
    ScheduleRule rule;
    rule.hours = time.isValid() ? 1U << time.hour() : 0;
    rule.minutes = {time.isValid() ? time.minute() : 0};
    return rule;
}

void readSchedule(const QSettings &store, SyncJob *job)
{
    job->intervalMins = store.value("intervalMins", 60).toInt();
    job->rules.clear();
    if (store.contains("scheduleMode")) {
        job->scheduleMode = store.value("scheduleMode").toInt();
        if (store.contains("rules")) {
            for (const QString &text : storedList(store.value("rules"), u';'))
                job->rules.append(ScheduleRule::fromStorage(text.trimmed()));
        } else {
            job->rules.append(readRuleOfThreeKeys(store));
        }
    } else if (store.value("daily", false).toBool()) {
        job->scheduleMode = Rules;
        job->rules.append(readDailyRule(store));
    } else {
        job->scheduleMode = Interval;
    }
    if (job->rules.isEmpty())
        job->rules.append(ScheduleRule());
}

/** What overflows is held at the largest time there is. */
int millisecondsOf(qint64 seconds)
{
    constexpr qint64 most = std::numeric_limits<int>::max();
    const qint64 bounded = std::clamp(seconds, -most, most); // the product cannot overflow then
    return static_cast<int>(std::clamp(bounded * 1000, -most, most));
}

SyncJob readJob(const QSettings &store, bool withPassword, int position)
{
    SyncJob job;
    MirrorConfig &config = job.config;
    job.name = store.value("name").toString();
    job.enabled = store.value("enabled", true).toBool();
    config.host = store.value("host").toString();
    config.port = static_cast<quint16>(store.value("port", 21).toUInt());
    config.user = store.value("user").toString();
    if (withPassword)
        config.password = unscrambled(store.value("password").toString());
    config.useTls = store.value("useTls", false).toBool();
    config.timeout = millisecondsOf(store.value("timeout", 30).toLongLong());
    config.remoteDir = store.value("remoteDir", u"/"_s).toString();
    config.localDir = store.value("localDir").toString();
    config.excludes = store.value("excludes").toString().split(u';', Qt::SkipEmptyParts);
    config.recursive = store.value("recursive", true).toBool();
    config.deleteExtraneous = store.value("deleteExtraneous", false).toBool();
    config.syncMode = store.value("syncMode", 0).toInt();
    config.compareBy = store.value("compareBy", 0).toInt();
    readSchedule(store, &job);
    job.lastRun = store.value("lastRun").toDateTime().toLocalTime();
    job.lastSummary = store.value("lastSummary").toString();
    job.lastOk = store.value("lastOk", true).toBool();
    if (job.name.isEmpty())
        job.name = QObject::tr("Job %1").arg(position);
    return job;
}

void writeJob(QSettings *store, const SyncJob &job, bool withPassword)
{
    const MirrorConfig &config = job.config;
    store->setValue("name", job.name);
    store->setValue("enabled", job.enabled);
    store->setValue("host", config.host);
    store->setValue("port", int(config.port));
    store->setValue("user", config.user);
    store->setValue("password", withPassword ? scrambled(config.password) : QString());
    store->setValue("useTls", config.useTls);
    store->setValue("timeout", config.timeout / 1000);
    store->setValue("remoteDir", config.remoteDir);
    store->setValue("localDir", config.localDir);
    store->setValue("excludes", config.excludes.join(u';'));
    store->setValue("recursive", config.recursive);
    store->setValue("deleteExtraneous", config.deleteExtraneous);
    store->setValue("syncMode", config.syncMode);
    store->setValue("compareBy", config.compareBy);
    store->setValue("scheduleMode", job.scheduleMode);
    store->setValue("intervalMins", job.intervalMins);
    QStringList rules;
    for (const ScheduleRule &rule : job.rules)
        rules.append(rule.toStorage());
    store->setValue("rules", rules);
    for (const auto *legacyKey : {"days", "hours", "minutes", "daily", "dailyTime"})
        store->remove(legacyKey);
    store->setValue("lastRun", job.lastRun.toUTC()); // local time would repeat itself in autumn
    store->setValue("lastSummary", job.lastSummary);
    store->setValue("lastOk", job.lastOk);
}

/**
 * The positions of the jobs to read, from 1. A damaged count must not fill the memory with jobs that
 * are not there, so far up only those count that are.
 */
QList<int> jobPositions(QSettings *store, int count)
{
    QList<int> positions(std::clamp(count, 0, kEmptyJobsBelieved));
    std::iota(positions.begin(), positions.end(), 1);
    if (count <= kEmptyJobsBelieved)
        return positions;
    store->beginGroup("jobs");
    for (const QString &group : store->childGroups()) {
        const int position = group.toInt();
        if (position > kEmptyJobsBelieved && position <= count)
            positions.append(position);
    }
    store->endGroup();
    std::sort(positions.begin(), positions.end());
    return positions;
}

} // namespace

QString pluralCount(int n, const QString &singular, const QString &several)
{
    return plural(n, singular, several);
}

// Schedule rules

int ScheduleRule::runsPerWeek() const
{
    if (!isUsable())
        return 0;
    return std::popcount(days) * std::popcount(hours) * static_cast<int>(minutes.size());
}

QDateTime ScheduleRule::nextAfter(const QDateTime &from) const
{
    if (!isUsable() || !from.isValid())
        return {};
    const QDateTime threshold = from.addSecs(kThresholdSecs);
    QList<int> sorted = minutes;
    std::sort(sorted.begin(), sorted.end());
    const qint64 thresholdMs = threshold.toMSecsSinceEpoch();
    QDateTime moved; // the earliest hit that a clock change has moved: one behind it may come sooner
    for (int offset = 0; offset <= kDaysAhead; ++offset) {
        const QDate date = from.date().addDays(offset);
        if (!(days & (1U << (date.dayOfWeek() - 1))))
            continue;
        const std::optional<qint64> midnight = steadyMidnight(date);
        for (int hour = 0; hour < 24; ++hour) {
            if (!(hours & (1U << hour)))
                continue;
            for (const int minute : std::as_const(sorted)) {
                const QTime time(hour, minute);
                if (midnight && *midnight + time.msecsSinceStartOfDay() <= thresholdMs)
                    continue; // told without asking the zone for each minute of a day that is nearly over
                const QDateTime instant = localInstant(date, time);
                if (instant <= threshold)
                    continue;
                if (instant.time() == time)
                    return moved.isValid() ? std::min(moved, instant) : instant;
                moved = moved.isValid() ? std::min(moved, instant) : instant;
            }
        }
    }
    return moved;
}

QString ScheduleRule::toStorage() const
{
    QStringList texts;
    for (const int minute : minutes)
        texts.append(QString::number(minute));
    return u"%1:%2:%3"_s.arg(QString::number(days), QString::number(hours), texts.join(u'+'));
}

ScheduleRule ScheduleRule::fromStorage(const QString &text)
{
    ScheduleRule rule;
    const QStringList parts = text.split(u':');
    if (parts.size() < 3)
        return rule;
    // A mask that cannot be read becomes 0, which never fires; only the minutes have a fall-back.
    // Wanted: a damaged rule must not run more often than it was meant to.
    rule.days = static_cast<quint8>(parts.at(0).toUInt() & kAllDays);
    rule.hours = parts.at(1).toUInt() & kAllHours;
    rule.minutes = cleanMinutes(parts.at(2).split(u'+', Qt::SkipEmptyParts));
    return rule;
}

QString ScheduleRule::label() const
{
    if (!isUsable())
        return QObject::tr("Never (nothing selected)");
    const QString day = dayText(days);
    QString time;
    if (std::popcount(hours) == 24) {
        time = everyHourText(minutes);
    } else if (std::popcount(hours) == 1 && minutes.size() == 1) {
        time = clockText(std::countr_zero(hours), minutes.first());
        if (days == kAllDays)
            return QObject::tr("Daily at %1").arg(time);
    } else {
        time = clockTimesText(*this);
    }
    if (!day.isEmpty())
        return u"%1 %2"_s.arg(day, time);
    time[0] = time.at(0).toUpper();
    return time;
}

// Jobs

bool SyncJob::isRunnable(QString *errorOut) const
{
    QString error;
    if (config.host.trimmed().isEmpty())
        error = QObject::tr("'%1' has no FTP host set.").arg(name);
    else if (config.localDir.trimmed().isEmpty())
        error = QObject::tr("'%1' has no local folder set.").arg(name);
    else
        return true;
    if (errorOut)
        *errorOut = error;
    return false;
}

QString SyncJob::syncModeLabel() const
{
    QString label = u"NEW + CHANGED"_s;
    if (config.syncMode == NewOnly)
        label = u"NEW ONLY"_s;
    else if (config.syncMode == FullSync)
        label = u"FULL SYNC"_s;
    if (config.deleteExtraneous)
        label += u" + PRUNE"_s;
    return label;
}

QString SyncJob::serverLabel() const
{
    QString label = config.host;
    if (config.port != 21)
        label += u":%1"_s.arg(config.port);
    if (!config.user.isEmpty())
        label = config.user + u'@' + label;
    return label;
}

bool SyncJob::hasUsableSchedule() const
{
    return scheduleMode == Interval || std::any_of(rules.cbegin(), rules.cend(),
                                                   [](const ScheduleRule &rule) { return rule.isUsable(); });
}

QDateTime SyncJob::computeNextRun(const QDateTime &from) const
{
    if (scheduleMode == Interval) {
        if (!lastRun.isValid())
            return from;
        const QDateTime due = lastRun.addSecs(qint64(intervalMins) * 60);
        return due > from ? due : from;
    }
    QDateTime earliest;
    for (const ScheduleRule &rule : rules) {
        const QDateTime instant = rule.nextAfter(from);
        if (instant.isValid() && (!earliest.isValid() || instant < earliest))
            earliest = instant;
    }
    return earliest;
}

QList<QDateTime> SyncJob::upcomingRuns(const QDateTime &from, int count) const
{
    QList<QDateTime> runs;
    QDateTime cursor = from;
    for (int i = 0; i < count; ++i) {
        cursor = computeNextRun(cursor);
        if (!cursor.isValid())
            break;
        runs.append(cursor);
    }
    return runs;
}

QString SyncJob::scheduleLabel() const
{
    if (scheduleMode == Interval) {
        constexpr int hour = 60;
        constexpr int day = 24 * hour;
        if (intervalMins >= day && intervalMins % day == 0)
            return QObject::tr("Every %1 day(s)").arg(intervalMins / day);
        if (intervalMins >= hour && intervalMins % hour == 0)
            return QObject::tr("Every %1 hour(s)").arg(intervalMins / hour);
        return QObject::tr("Every %1 min").arg(intervalMins);
    }
    QStringList labels;
    for (const ScheduleRule &rule : rules) {
        if (rule.isUsable())
            labels.append(rule.label());
    }
    if (labels.isEmpty())
        return QObject::tr("Never (nothing selected)");
    const qsizetype others = labels.size() - 1;
    if (others == 0)
        return labels.first();
    return QObject::tr("%1  (+%2 more %3)")
        .arg(labels.first(), QString::number(others),
             others == 1 ? QObject::tr("schedule") : QObject::tr("schedules"));
}

QString SyncJob::scheduleDetail() const
{
    if (scheduleMode == Interval)
        return QObject::tr("Runs every %1, measured from the end of the previous run.")
            .arg(plural(intervalMins, QObject::tr("minute"), QObject::tr("minutes")));
    int usable = 0;
    int perWeek = 0;
    for (const ScheduleRule &rule : rules) {
        if (!rule.isUsable())
            continue;
        ++usable;
        perWeek += rule.runsPerWeek();
    }
    if (usable == 0)
        return QObject::tr("Nothing selected, so this job will never fire.");
    return QObject::tr("%1, %2 per week at most.")
        .arg(plural(usable, QObject::tr("schedule"), QObject::tr("schedules")),
             plural(perWeek, QObject::tr("run"), QObject::tr("runs")));
}

// Settings

void AppSettings::load()
{
    QSettings store = openSettingsStore();
    savePasswords = store.value("savePasswords", true).toBool();
    runOnStart = store.value("runOnStart", false).toBool();
    minimiseToTray = store.value("minimiseToTray", true).toBool();
    verbose = store.value("verbose", false).toBool();
    checkForUpdates = store.value("checkForUpdates", true).toBool();
    updateEndpoint = store.value("updateEndpoint").toString();
    skippedVersion = store.value("skippedVersion").toString();
    lastUpdateCheck = store.value("lastUpdateCheck").toDateTime().toLocalTime();

    jobs.clear();
    const int stored = store.beginReadArray("jobs");
    store.endArray();
    const QList<int> positions = jobPositions(&store, stored);
    store.beginReadArray("jobs");
    for (const int position : positions) {
        store.setArrayIndex(position - 1);
        jobs.append(readJob(store, savePasswords, position));
    }
    store.endArray();
}

void AppSettings::save() const
{
    ensureSettingsFile();
    QSettings store = openSettingsStore();
    store.setValue("savePasswords", savePasswords);
    store.setValue("runOnStart", runOnStart);
    store.setValue("minimiseToTray", minimiseToTray);
    store.setValue("verbose", verbose);
    store.setValue("checkForUpdates", checkForUpdates);
    store.setValue("updateEndpoint", updateEndpoint);
    store.setValue("skippedVersion", skippedVersion);
    store.setValue("lastUpdateCheck", lastUpdateCheck.toUTC());
    store.remove("jobs");
    store.beginWriteArray("jobs", static_cast<int>(jobs.size()));
    for (qsizetype i = 0; i < jobs.size(); ++i) {
        store.setArrayIndex(static_cast<int>(i));
        writeJob(&store, jobs.at(i), savePasswords);
    }
    store.endArray();
}

QString AppSettings::uniqueName(const QString &base, int ignoreIndex) const
{
    const auto clashes = [this, ignoreIndex](const QString &name) {
        for (qsizetype i = 0; i < jobs.size(); ++i) {
            if (i != ignoreIndex && QString::compare(jobs.at(i).name, name, Qt::CaseInsensitive) == 0)
                return true;
        }
        return false;
    };
    QString candidate = base.trimmed();
    if (candidate.isEmpty())
        candidate = QObject::tr("New job");
    if (!clashes(candidate))
        return candidate;
    for (int n = 2; n <= 999; ++n) {
        QString numbered = u"%1 (%2)"_s.arg(candidate, QString::number(n));
        if (!clashes(numbered))
            return numbered;
    }
    return candidate;
}
