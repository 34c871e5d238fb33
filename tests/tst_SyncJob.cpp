#include "model/SyncJob.h"
#include "support/MarkingTranslator.h"

#include <QCoreApplication>
#include <QScopeGuard>
#include <QTest>

#include <limits>
#include <type_traits>

using namespace Qt::StringLiterals;

namespace {

constexpr int kMaxInt = std::numeric_limits<int>::max();

QDateTime utc(const char *text)
{
    return QDateTime::fromString(QString::fromLatin1(text) + u'Z', Qt::ISODateWithMs);
}

SyncJob intervalJob(int minutes, const QDateTime &lastRun = {})
{
    SyncJob job;
    job.intervalMins = minutes;
    job.lastRun = lastRun;
    return job;
}

SyncJob rulesJob(const QStringList &rules)
{
    SyncJob job;
    job.scheduleMode = Rules;
    job.rules.clear();
    for (const QString &rule : rules)
        job.rules << ScheduleRule::fromStorage(rule);
    return job;
}

AppSettings settingsWith(const QStringList &names)
{
    AppSettings settings;
    for (const QString &name : names) {
        SyncJob job;
        job.name = name;
        settings.jobs << job;
    }
    return settings;
}

/** `base` and its forms with the counters 2 to `last`. */
QStringList counted(const QString &base, int last)
{
    QStringList names{base};
    for (int n = 2; n <= last; ++n)
        names << base + u" ("_s + QString::number(n) + u')';
    return names;
}

} // namespace

class tst_SyncJob : public QObject
{
    Q_OBJECT

private slots:
    void enumerationsKeepTheirStoredValues();
    void aNewConfigHasItsDefaults();
    void aNewResultIsAllZero();
    void aNewJobHasItsDefaults();
    void newSettingsHaveTheirDefaults();
    void recordsCrossThreadsUnderTheirNames();
    void aCopyIsIndependent();

    void aJobNeedsHostAndLocalFolder_data();
    void aJobNeedsHostAndLocalFolder();
    void nothingElseIsNeeded();
    void modeLabels_data();
    void modeLabels();
    void serverLabels_data();
    void serverLabels();
    void countedNouns_data();
    void countedNouns();
    void namesAreKeptDistinct_data();
    void namesAreKeptDistinct();

    void usableSchedules_data();
    void usableSchedules();
    void intervalsCountFromTheLastRun_data();
    void intervalsCountFromTheLastRun();
    void aJobThatNeverRanIsDueAtOnce_data();
    void aJobThatNeverRanIsDueAtOnce();
    void theEarliestRuleWins_data();
    void theEarliestRuleWins();
    void intervalModeIgnoresTheRules();
    void rulesModeIgnoresTheInterval();
    void aPreviewWalksThroughTheRules_data();
    void aPreviewWalksThroughTheRules();
    void aPreviewOfAnIntervalRepeatsItsFirstRun_data();
    void aPreviewOfAnIntervalRepeatsItsFirstRun();
    void aPreviewOfNothingIsEmpty_data();
    void aPreviewOfNothingIsEmpty();
    void askingChangesNothing();

    void scheduleLabels_data();
    void scheduleLabels();
    void scheduleDetails_data();
    void scheduleDetails();

    void userTextsAreTranslated();
    void panelTextsAndPatternsAreNotTranslated();
};

void tst_SyncJob::enumerationsKeepTheirStoredValues()
{
    QCOMPARE(int(NewAndChanged), 0);
    QCOMPARE(int(NewOnly), 1);
    QCOMPARE(int(FullSync), 2);
    QCOMPARE(int(SizeAndTimestamp), 0);
    QCOMPARE(int(SizeOnly), 1);
    QCOMPARE(int(TimestampOnly), 2);
    QCOMPARE(int(Interval), 0);
    QCOMPARE(int(Rules), 1);
    static_assert(std::is_same_v<decltype(MirrorConfig::syncMode), int>);
    static_assert(std::is_same_v<decltype(MirrorConfig::compareBy), int>);
    static_assert(std::is_same_v<decltype(SyncJob::scheduleMode), int>);
}

void tst_SyncJob::aNewConfigHasItsDefaults()
{
    // Taken apart by position, which pins the order of the fields, too.
    const auto [host, port, user, password, useTls, acceptAnyCertificate, timeout, remoteDir, localDir,
                syncMode, compareBy, deleteExtraneous, recursive, excludes] = MirrorConfig();
    static_assert(std::is_same_v<decltype(MirrorConfig::port), quint16>);
    static_assert(std::is_same_v<decltype(MirrorConfig::timeout), int>);
    static_assert(std::is_same_v<decltype(MirrorConfig::excludes), QStringList>);
    QCOMPARE(host, QString());
    QCOMPARE(port, quint16(21));
    QCOMPARE(user, QString());
    QCOMPARE(password, QString());
    QCOMPARE(useTls, false);
    QCOMPARE(acceptAnyCertificate, true);
    QCOMPARE(timeout, 30000);
    QCOMPARE(remoteDir, u"/"_s);
    QCOMPARE(localDir, QString());
    QCOMPARE(syncMode, 0);
    QCOMPARE(compareBy, 0);
    QCOMPARE(deleteExtraneous, false);
    QCOMPARE(recursive, true);
    QCOMPARE(excludes, QStringList());
}

void tst_SyncJob::aNewResultIsAllZero()
{
    const auto [success, cancelled, downloaded, upToDate, deleted, failed, bytes, message] = MirrorResult();
    static_assert(std::is_same_v<decltype(MirrorResult::bytes), qint64>);
    QCOMPARE(success, false);
    QCOMPARE(cancelled, false);
    QCOMPARE(downloaded, 0);
    QCOMPARE(upToDate, 0);
    QCOMPARE(deleted, 0);
    QCOMPARE(failed, 0);
    QCOMPARE(bytes, 0);
    QCOMPARE(message, QString());
}

void tst_SyncJob::aNewJobHasItsDefaults()
{
    const auto [name, enabled, config, scheduleMode, intervalMins, rules, lastRun, lastSummary, lastOk,
                nextRun, queued, running] = SyncJob();
    QCOMPARE(name, QString());
    QCOMPARE(enabled, true);
    QCOMPARE(config.port, quint16(21));
    QCOMPARE(config.remoteDir, u"/"_s);
    QCOMPARE(scheduleMode, 0);
    QCOMPARE(intervalMins, 60);
    QCOMPARE(rules.size(), 1);
    QCOMPARE(rules.constFirst().toStorage(), u"127:16777215:0"_s);
    QVERIFY(!lastRun.isValid());
    QCOMPARE(lastSummary, QString());
    QCOMPARE(lastOk, true);
    QVERIFY(!nextRun.isValid());
    QCOMPARE(queued, false);
    QCOMPARE(running, false);
}

void tst_SyncJob::newSettingsHaveTheirDefaults()
{
    const auto [jobs, savePasswords, runOnStart, minimiseToTray, verbose, checkForUpdates, updateEndpoint,
                skippedVersion, lastUpdateCheck] = AppSettings();
    QCOMPARE(jobs.size(), 0);
    QCOMPARE(savePasswords, true);
    QCOMPARE(runOnStart, false);
    QCOMPARE(minimiseToTray, true);
    QCOMPARE(verbose, false);
    QCOMPARE(checkForUpdates, true);
    QCOMPARE(updateEndpoint, QString());
    QCOMPARE(skippedVersion, QString());
    QVERIFY(!lastUpdateCheck.isValid());
}

void tst_SyncJob::recordsCrossThreadsUnderTheirNames()
{
    QCOMPARE(QMetaType::fromType<MirrorConfig>().name(), "MirrorConfig");
    QCOMPARE(QMetaType::fromType<MirrorResult>().name(), "MirrorResult");

    MirrorConfig config;
    config.host = u"alpha"_s;
    config.excludes = QStringList{u"*.tmp"_s};
    const QVariant carried = QVariant::fromValue(config);
    config.host = u"beta"_s;
    QCOMPARE(carried.value<MirrorConfig>().host, u"alpha"_s);
    QCOMPARE(carried.value<MirrorConfig>().excludes, QStringList{u"*.tmp"_s});

    MirrorResult result;
    result.bytes = 5'000'000'000;
    result.message = u"stopped"_s;
    const QVariant carriedResult = QVariant::fromValue(result);
    QCOMPARE(carriedResult.value<MirrorResult>().bytes, 5'000'000'000);
    QCOMPARE(carriedResult.value<MirrorResult>().message, u"stopped"_s);
}

void tst_SyncJob::aCopyIsIndependent()
{
    SyncJob original = rulesJob({u"1:1:0"_s});
    original.name = u"alpha"_s;
    original.config.excludes = QStringList{u"*.tmp"_s};
    original.nextRun = utc("2024-01-01T00:00:00");
    original.queued = true;
    original.running = true;

    SyncJob copy = original;
    QCOMPARE(copy.nextRun, original.nextRun);
    QVERIFY(copy.queued && copy.running);
    copy.name = u"beta"_s;
    copy.config.excludes << u"*.bak"_s;
    copy.rules[0].minutes << 30;
    copy.rules << ScheduleRule();
    copy.queued = false;

    QCOMPARE(original.name, u"alpha"_s);
    QCOMPARE(original.config.excludes, QStringList{u"*.tmp"_s});
    QCOMPARE(original.rules.size(), 1);
    QCOMPARE(original.rules.constFirst().minutes, QList<int>{0});
    QVERIFY(original.queued);
}

void tst_SyncJob::aJobNeedsHostAndLocalFolder_data()
{
    QTest::addColumn<QString>("host");
    QTest::addColumn<QString>("localDir");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("error");

    const auto row = [](const char *what, const char *host, const char *localDir, const char *name,
                        const char *error) {
        QTest::newRow(what) << QString::fromUtf8(host) << QString::fromUtf8(localDir)
                            << QString::fromUtf8(name) << QString::fromUtf8(error);
    };
    row("no host", "", "/data", "alpha", "'alpha' has no FTP host set.");
    row("blank host", "   ", "/data", "alpha", "'alpha' has no FTP host set.");
    row("host of other white space", "\t\n\xc2\xa0", "/data", "alpha", "'alpha' has no FTP host set.");
    row("no local folder", "ftp.example", "", "alpha", "'alpha' has no local folder set.");
    row("blank local folder", "ftp.example", " \t ", "alpha", "'alpha' has no local folder set.");
    row("neither", "", "", "alpha", "'alpha' has no FTP host set.");
    row("no name", "", "/data", "", "'' has no FTP host set.");
    row("blanks in the name stay", "", "/data", " a  b ", "' a  b ' has no FTP host set.");
    row("place marker in the name", "", "/data", "%1 of %2", "'%1 of %2' has no FTP host set.");
    row("place marker in the name, no folder", "ftp.example", "", "100%1",
        "'100%1' has no local folder set.");
}

void tst_SyncJob::aJobNeedsHostAndLocalFolder()
{
    QFETCH(QString, host);
    QFETCH(QString, localDir);
    QFETCH(QString, name);
    SyncJob job;
    job.name = name;
    job.config.host = host;
    job.config.localDir = localDir;

    QString error = u"left over"_s;
    QVERIFY(!job.isRunnable(&error));
    QTEST(error, "error");
    QVERIFY(!job.isRunnable(nullptr));
    QVERIFY(!job.isRunnable());
}

void tst_SyncJob::nothingElseIsNeeded()
{
    SyncJob job = rulesJob({});
    job.enabled = false;
    job.config.host = u" ftp.example "_s;
    job.config.localDir = u" data "_s;
    job.config.remoteDir.clear();
    QVERIFY(!job.hasUsableSchedule());

    QString error = u"left over"_s;
    QVERIFY(job.isRunnable(&error));
    QCOMPARE(error, u"left over"_s);
    QVERIFY(job.isRunnable());
}

void tst_SyncJob::modeLabels_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<bool>("prune");
    QTest::addColumn<QString>("label");

    QTest::newRow("new and changed") << 0 << false << u"NEW + CHANGED"_s;
    QTest::newRow("new and changed, pruned") << 0 << true << u"NEW + CHANGED + PRUNE"_s;
    QTest::newRow("new only") << 1 << false << u"NEW ONLY"_s;
    QTest::newRow("new only, pruned") << 1 << true << u"NEW ONLY + PRUNE"_s;
    QTest::newRow("full") << 2 << false << u"FULL SYNC"_s;
    QTest::newRow("full, pruned") << 2 << true << u"FULL SYNC + PRUNE"_s;
    QTest::newRow("unknown") << 3 << false << u"NEW + CHANGED"_s;
    QTest::newRow("unknown, pruned") << 7 << true << u"NEW + CHANGED + PRUNE"_s;
    QTest::newRow("negative") << -1 << false << u"NEW + CHANGED"_s;
}

void tst_SyncJob::modeLabels()
{
    QFETCH(int, mode);
    QFETCH(bool, prune);
    SyncJob job;
    job.config.syncMode = mode;
    job.config.deleteExtraneous = prune;
    QTEST(job.syncModeLabel(), "label");
}

void tst_SyncJob::serverLabels_data()
{
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("host");
    QTest::addColumn<int>("port");
    QTest::addColumn<QString>("label");

    QTest::newRow("host alone") << QString() << u"alpha"_s << 21 << u"alpha"_s;
    QTest::newRow("port") << QString() << u"alpha"_s << 2121 << u"alpha:2121"_s;
    QTest::newRow("port 0") << QString() << u"alpha"_s << 0 << u"alpha:0"_s;
    QTest::newRow("largest port, no grouping") << QString() << u"alpha"_s << 65535 << u"alpha:65535"_s;
    QTest::newRow("user") << u"kim"_s << u"alpha"_s << 21 << u"kim@alpha"_s;
    QTest::newRow("both") << u"kim"_s << u"alpha"_s << 2121 << u"kim@alpha:2121"_s;
    QTest::newRow("host stays untrimmed") << u"kim"_s << u" alpha "_s << 2121 << u"kim@ alpha :2121"_s;
    QTest::newRow("blank user is not empty") << u" "_s << u"alpha"_s << 21 << u" @alpha"_s;
    QTest::newRow("no host") << u"kim"_s << QString() << 22 << u"kim@:22"_s;
    QTest::newRow("nothing") << QString() << QString() << 21 << QString();
    QTest::newRow("place markers") << u"%2"_s << u"%1"_s << 2121 << u"%2@%1:2121"_s;
}

void tst_SyncJob::serverLabels()
{
    QFETCH(QString, user);
    QFETCH(QString, host);
    QFETCH(int, port);
    SyncJob job;
    job.config.user = user;
    job.config.host = host;
    job.config.port = quint16(port);
    QTEST(job.serverLabel(), "label");
}

void tst_SyncJob::countedNouns_data()
{
    QTest::addColumn<int>("n");
    QTest::addColumn<QString>("text");

    QTest::newRow("one") << 1 << u"1 mouse"_s;
    QTest::newRow("zero") << 0 << u"0 mice"_s;
    QTest::newRow("two") << 2 << u"2 mice"_s;
    QTest::newRow("minus one") << -1 << u"-1 mice"_s;
    QTest::newRow("twenty-one") << 21 << u"21 mice"_s;
    QTest::newRow("no grouping") << 1234567 << u"1234567 mice"_s;
    QTest::newRow("largest") << kMaxInt << u"2147483647 mice"_s;
}

void tst_SyncJob::countedNouns()
{
    QFETCH(int, n);
    QTEST(pluralCount(n, u"mouse"_s, u"mice"_s), "text");
    // A noun is foreign text, whatever it holds.
    QCOMPARE(pluralCount(n, u"%1%2"_s, u"%1%2"_s), QString::number(n) + u" %1%2"_s);
}

void tst_SyncJob::namesAreKeptDistinct_data()
{
    QTest::addColumn<QStringList>("taken");
    QTest::addColumn<QString>("base");
    QTest::addColumn<int>("ignoreIndex");
    QTest::addColumn<QString>("name");

    const auto row = [](const char *what, const QStringList &taken, const char *base, int ignoreIndex,
                        const char *name) {
        QTest::newRow(what) << taken << QString::fromUtf8(base) << ignoreIndex << QString::fromUtf8(name);
    };
    row("empty list", {}, "alpha", -1, "alpha");
    row("trimmed", {}, " \talpha beta\n", -1, "alpha beta");
    row("blanks, empty list", {}, "   ", -1, "New job");
    row("nothing, empty list", {}, "", -1, "New job");
    row("blanks, the words taken in capitals", {u"NEW JOB"_s}, "  ", -1, "New job (2)");
    row("free", {u"beta"_s}, "alpha", -1, "alpha");
    row("taken", {u"alpha"_s}, "alpha", -1, "alpha (2)");
    row("taken after trimming", {u"alpha"_s}, " alpha ", -1, "alpha (2)");
    row("taken in another case, the newcomer's is kept", {u"ALPHA"_s}, "alPha", -1, "alPha (2)");
    row("case of other letters", {u"ÄPFEL"_s}, "äpfel", -1, "äpfel (2)");
    row("list is not trimmed", {u" alpha "_s}, "alpha", -1, "alpha");
    row("part of a name", {u"alphabet"_s, u"my alpha"_s}, "alpha", -1, "alpha");
    row("next counter", {u"alpha"_s, u"alpha (2)"_s}, "alpha", -1, "alpha (3)");
    row("gap in the counters", {u"alpha"_s, u"alpha (3)"_s}, "alpha", -1, "alpha (2)");
    row("counter without the plain name", {u"alpha (2)"_s}, "alpha", -1, "alpha");
    row("counted name taken in another case", {u"alpha"_s, u"ALPHA (2)"_s}, "alpha", -1, "alpha (3)");
    row("counter is not parsed", {u"alpha (2)"_s}, "alpha (2)", -1, "alpha (2) (2)");
    row("own row", {u"a"_s, u"b"_s, u"c"_s, u"alpha"_s}, "alpha", 3, "alpha");
    row("own row, another case", {u"alpha"_s}, "ALPHA", 0, "ALPHA");
    row("own row and another", {u"alpha"_s, u"b"_s, u"c"_s, u"alpha"_s}, "alpha", 3, "alpha (2)");
    row("own row has the counter", {u"alpha"_s, u"alpha (2)"_s}, "alpha", 1, "alpha (2)");
    row("a row that is not there", {u"alpha"_s}, "alpha", 1, "alpha (2)");
    row("place markers", {u"%1"_s, u"%2 %1"_s}, "%1", -1, "%1 (2)");
    row("two place markers", {u"%1"_s, u"%2 %1"_s}, "%2 %1", -1, "%2 %1 (2)");
    row("last counter", counted(u"alpha"_s, 998), "alpha", -1, "alpha (999)");
    row("all taken", counted(u"alpha"_s, 999), "alpha", -1, "alpha");
    row("all taken, trimmed all the same", counted(u"alpha"_s, 999), " Alpha ", -1, "Alpha");
    row("all taken, nameless", counted(u"new job"_s, 999), "", -1, "New job");
}

void tst_SyncJob::namesAreKeptDistinct()
{
    QFETCH(QStringList, taken);
    QFETCH(QString, base);
    QFETCH(int, ignoreIndex);
    QTEST(settingsWith(taken).uniqueName(base, ignoreIndex), "name");
}

void tst_SyncJob::usableSchedules_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<int>("interval");
    QTest::addColumn<QStringList>("rules");
    QTest::addColumn<bool>("usable");

    const QStringList unusable{u"0:1:0"_s, u"1:0:0"_s};
    QTest::newRow("interval") << 0 << 60 << QStringList{u"1:1:0"_s} << true;
    QTest::newRow("interval of 0, no rules") << 0 << 0 << QStringList() << true;
    QTest::newRow("negative interval, unusable rules") << 0 << -5 << unusable << true;
    QTest::newRow("a rule") << 1 << 60 << QStringList{u"1:1:0"_s} << true;
    QTest::newRow("no rule") << 1 << 60 << QStringList() << false;
    QTest::newRow("unusable rules") << 1 << 60 << unusable << false;
    QTest::newRow("the last one is usable") << 1 << 60 << (unusable + QStringList{u"1:1:0"_s}) << true;
    QTest::newRow("unknown mode, no rule") << 7 << 60 << QStringList() << false;
    QTest::newRow("unknown mode, a rule") << 7 << 60 << QStringList{u"1:1:0"_s} << true;
    QTest::newRow("negative mode, unusable rules") << -1 << 60 << unusable << false;
}

void tst_SyncJob::usableSchedules()
{
    QFETCH(int, mode);
    QFETCH(int, interval);
    QFETCH(QStringList, rules);
    SyncJob job = rulesJob(rules);
    job.scheduleMode = mode;
    job.intervalMins = interval;
    QTEST(job.hasUsableSchedule(), "usable");
}

void tst_SyncJob::intervalsCountFromTheLastRun_data()
{
    QTest::addColumn<int>("interval");
    QTest::addColumn<QDateTime>("lastRun");
    QTest::addColumn<QDateTime>("next");

    // All asked at 12:00:00.
    const QDateTime from = utc("2024-05-01T12:00:00");
    QTest::newRow("ahead") << 60 << utc("2024-05-01T11:30:00") << utc("2024-05-01T12:30:00");
    QTest::newRow("a second ahead") << 60 << utc("2024-05-01T11:00:01") << utc("2024-05-01T12:00:01");
    QTest::newRow("a millisecond ahead")
        << 60 << utc("2024-05-01T11:00:00.001") << utc("2024-05-01T12:00:00.001");
    QTest::newRow("exactly now") << 60 << utc("2024-05-01T11:00:00") << from;
    QTest::newRow("gone by") << 60 << utc("2024-05-01T10:59:59") << from;
    QTest::newRow("long gone by") << 60 << utc("2020-05-01T10:59:59") << from;
    QTest::newRow("just ended") << 60 << from << utc("2024-05-01T13:00:00");
    QTest::newRow("ended in the future") << 60 << utc("2024-05-01T12:10:00") << utc("2024-05-01T13:10:00");
    QTest::newRow("one minute") << 1 << utc("2024-05-01T11:59:30") << utc("2024-05-01T12:00:30");
    QTest::newRow("a day") << 1440 << utc("2024-05-01T11:59:59") << utc("2024-05-02T11:59:59");
    QTest::newRow("interval of 0") << 0 << utc("2024-05-01T11:59:59") << from;
    QTest::newRow("interval of 0, just ended") << 0 << from << from;
    QTest::newRow("negative interval") << -60 << from << from;
    QTest::newRow("seconds exceed 32 bits")
        << 35791395 << from << utc("2024-05-01T12:00:00").addSecs(2147483700);
    QTest::newRow("largest") << kMaxInt << from << utc("2024-05-01T12:00:00").addSecs(qint64(kMaxInt) * 60);
    QTest::newRow("smallest") << std::numeric_limits<int>::min() << from << from;
    const QDateTime elsewhere = utc("2024-05-01T11:30:00").toOffsetFromUtc(19800);
    QTest::newRow("last run told by another clock") << 60 << elsewhere << utc("2024-05-01T12:30:00");
}

void tst_SyncJob::intervalsCountFromTheLastRun()
{
    QFETCH(int, interval);
    QFETCH(QDateTime, lastRun);
    QTEST(intervalJob(interval, lastRun).computeNextRun(utc("2024-05-01T12:00:00")), "next");
}

void tst_SyncJob::aJobThatNeverRanIsDueAtOnce_data()
{
    QTest::addColumn<int>("interval");
    QTest::newRow("usual") << 60;
    QTest::newRow("interval of 0") << 0;
    QTest::newRow("negative") << -1;
    QTest::newRow("largest") << kMaxInt;
}

void tst_SyncJob::aJobThatNeverRanIsDueAtOnce()
{
    QFETCH(int, interval);
    const QDateTime from = utc("2024-05-01T12:00:00.123");
    QCOMPARE(intervalJob(interval).computeNextRun(from), from);
}

void tst_SyncJob::theEarliestRuleWins_data()
{
    QTest::addColumn<QStringList>("rules");
    QTest::addColumn<QString>("next");

    // All asked on Sunday 2024-01-07 at 12:00 local time.
    const QString monday = u"1:256:0"_s;
    const QString tuesday = u"2:256:0"_s;
    const QString never = u"0:256:0"_s;
    QTest::newRow("none") << QStringList() << QString();
    QTest::newRow("unusable") << QStringList{never} << QString();
    QTest::newRow("Tuesday, Monday") << QStringList{tuesday, monday} << u"2024-01-08T08:00:00"_s;
    QTest::newRow("Monday, Tuesday") << QStringList{monday, tuesday} << u"2024-01-08T08:00:00"_s;
    QTest::newRow("the same twice") << QStringList{monday, monday} << u"2024-01-08T08:00:00"_s;
    QTest::newRow("unusable first") << QStringList{never, tuesday} << u"2024-01-09T08:00:00"_s;
    QTest::newRow("unusable last") << QStringList{tuesday, never} << u"2024-01-09T08:00:00"_s;
    QTest::newRow("best in the middle")
        << QStringList{tuesday, u"64:4096:1"_s, monday} << u"2024-01-07T12:01:00"_s;
    QTest::newRow("now does not count") << QStringList{u"64:4096:0"_s} << u"2024-01-14T12:00:00"_s;
}

void tst_SyncJob::theEarliestRuleWins()
{
    QFETCH(QStringList, rules);
    QFETCH(QString, next);
    const QDateTime from(QDate(2024, 1, 7), QTime(12, 0));

    const QDateTime found = rulesJob(rules).computeNextRun(from);
    QCOMPARE(found.toString(Qt::ISODate), next);
    QCOMPARE(found.isValid(), !next.isEmpty());
    if (next == u"2024-01-07T12:01:00"_s) {
        // The margin of the rules holds for the job.
        QCOMPARE(rulesJob(rules).computeNextRun(from.addSecs(30)).toString(Qt::ISODate),
                 u"2024-01-08T08:00:00"_s);
    }
    SyncJob unknownMode = rulesJob(rules);
    unknownMode.scheduleMode = 7;
    QCOMPARE(unknownMode.computeNextRun(from), found);
    unknownMode.scheduleMode = -1;
    QCOMPARE(unknownMode.computeNextRun(from), found);
}

void tst_SyncJob::intervalModeIgnoresTheRules()
{
    const QDateTime from = utc("2024-05-01T12:00:00");
    SyncJob job = intervalJob(600, from);
    job.rules = {ScheduleRule()};
    QCOMPARE(job.computeNextRun(from), from.addSecs(36000));
    QCOMPARE(job.scheduleLabel(), u"Every 10 hour(s)"_s);
}

void tst_SyncJob::rulesModeIgnoresTheInterval()
{
    const QDateTime from(QDate(2024, 1, 7), QTime(12, 0));
    SyncJob job = rulesJob({u"127:256:0"_s});
    const QDateTime next(QDate(2024, 1, 8), QTime(8, 0));
    QCOMPARE(job.computeNextRun(from), next);
    job.intervalMins = 1;
    job.lastRun = from.addDays(-3);
    QCOMPARE(job.computeNextRun(from), next);
    job.enabled = false;
    QCOMPARE(job.computeNextRun(from), next);
}

void tst_SyncJob::aPreviewWalksThroughTheRules_data()
{
    QTest::addColumn<QStringList>("rules");
    QTest::addColumn<int>("count");
    QTest::addColumn<QStringList>("runs");

    // All asked on Sunday 2024-01-07 at 12:00 local time.
    QTest::newRow("daily") << QStringList{u"127:256:0"_s} << 4
                           << QStringList{u"2024-01-08T08:00:00"_s, u"2024-01-09T08:00:00"_s,
                                          u"2024-01-10T08:00:00"_s, u"2024-01-11T08:00:00"_s};
    QTest::newRow("weekly") << QStringList{u"1:256:0"_s} << 3
                            << QStringList{u"2024-01-08T08:00:00"_s, u"2024-01-15T08:00:00"_s,
                                           u"2024-01-22T08:00:00"_s};
    QTest::newRow("two rules that meet") << QStringList{u"1:256:0+30"_s, u"3:256:0"_s} << 4
                                         << QStringList{u"2024-01-08T08:00:00"_s, u"2024-01-08T08:30:00"_s,
                                                        u"2024-01-09T08:00:00"_s, u"2024-01-15T08:00:00"_s};
    QTest::newRow("minutes in a row")
        << QStringList{u"64:4096:0+1+2+3"_s} << 3
        << QStringList{u"2024-01-07T12:01:00"_s, u"2024-01-07T12:02:00"_s, u"2024-01-07T12:03:00"_s};
    QTest::newRow("one is enough") << QStringList{u"127:256:0"_s} << 1
                                   << QStringList{u"2024-01-08T08:00:00"_s};
}

void tst_SyncJob::aPreviewWalksThroughTheRules()
{
    QFETCH(QStringList, rules);
    QFETCH(int, count);
    QStringList found;
    for (const QDateTime &run :
         rulesJob(rules).upcomingRuns(QDateTime(QDate(2024, 1, 7), QTime(12, 0)), count))
        found << run.toString(Qt::ISODate);
    QTEST(found, "runs");
}

void tst_SyncJob::aPreviewOfAnIntervalRepeatsItsFirstRun_data()
{
    QTest::addColumn<QDateTime>("lastRun");
    QTest::addColumn<QDateTime>("run");

    QTest::newRow("never ran") << QDateTime() << utc("2024-05-01T12:00:00");
    QTest::newRow("gone by") << utc("2024-05-01T10:00:00") << utc("2024-05-01T12:00:00");
    QTest::newRow("ahead") << utc("2024-05-01T11:30:00") << utc("2024-05-01T12:30:00");
}

void tst_SyncJob::aPreviewOfAnIntervalRepeatsItsFirstRun()
{
    QFETCH(QDateTime, lastRun);
    QFETCH(QDateTime, run);
    const QList<QDateTime> found = intervalJob(60, lastRun).upcomingRuns(utc("2024-05-01T12:00:00"), 4);
    QCOMPARE(found, (QList<QDateTime>{run, run, run, run}));
}

void tst_SyncJob::aPreviewOfNothingIsEmpty_data()
{
    QTest::addColumn<SyncJob>("job");
    QTest::addColumn<int>("count");

    QTest::newRow("none of a rule") << rulesJob({u"127:256:0"_s}) << 0;
    QTest::newRow("fewer than none of a rule") << rulesJob({u"127:256:0"_s}) << -1;
    QTest::newRow("none of an interval") << intervalJob(60) << 0;
    QTest::newRow("fewer than none of an interval") << intervalJob(60) << std::numeric_limits<int>::min();
    QTest::newRow("no rules") << rulesJob({}) << 4;
    QTest::newRow("a rule without days") << rulesJob({u"0:256:0"_s}) << 4;
    QTest::newRow("a great many of nothing") << rulesJob({u"0:256:0"_s}) << kMaxInt;
}

void tst_SyncJob::aPreviewOfNothingIsEmpty()
{
    QFETCH(SyncJob, job);
    QFETCH(int, count);
    QCOMPARE(job.upcomingRuns(QDateTime(QDate(2024, 1, 7), QTime(12, 0)), count), QList<QDateTime>());
}

void tst_SyncJob::askingChangesNothing()
{
    const QDateTime last(QDate(2024, 1, 1), QTime(8, 0));
    SyncJob job = rulesJob({u"127:256:0"_s});
    job.rules[0].minutes = {30, 0};
    job.lastRun = last;
    job.computeNextRun(last.addDays(1));
    job.upcomingRuns(last.addDays(1), 4);

    QVERIFY(!job.nextRun.isValid());
    QCOMPARE(job.lastRun, last);
    QCOMPARE(job.rules.constFirst().minutes, (QList<int>{30, 0}));
    QVERIFY(!job.queued && !job.running);
}

void tst_SyncJob::scheduleLabels_data()
{
    QTest::addColumn<SyncJob>("job");
    QTest::addColumn<QString>("label");

    const auto interval = [](int minutes, const char *label) {
        QTest::addRow("%d minutes", minutes) << intervalJob(minutes) << QString::fromLatin1(label);
    };
    interval(std::numeric_limits<int>::min(), "Every -2147483648 min");
    interval(-1440, "Every -1440 min");
    interval(-60, "Every -60 min");
    interval(-1, "Every -1 min");
    interval(0, "Every 0 min");
    interval(1, "Every 1 min");
    interval(59, "Every 59 min");
    interval(60, "Every 1 hour(s)");
    interval(61, "Every 61 min");
    interval(90, "Every 90 min");
    interval(120, "Every 2 hour(s)");
    interval(1380, "Every 23 hour(s)");
    interval(1439, "Every 1439 min");
    interval(1440, "Every 1 day(s)");
    interval(1441, "Every 1441 min");
    interval(1500, "Every 25 hour(s)");
    interval(2880, "Every 2 day(s)");
    interval(14400, "Every 10 day(s)");
    interval(1440000, "Every 1000 day(s)");
    interval(kMaxInt, "Every 2147483647 min");

    const auto rules = [](const char *what, const QStringList &texts, const char *label) {
        QTest::newRow(what) << rulesJob(texts) << QString::fromLatin1(label);
    };
    const QString first = u"31:256:30"_s;
    const QString other = u"127:16777215:0"_s;
    const QString never = u"0:1:0"_s;
    rules("no rule", {}, "Never (nothing selected)");
    rules("unusable rules", {never, never}, "Never (nothing selected)");
    rules("one rule", {first}, "Weekdays 08:30");
    rules("one usable rule", {never, first, never}, "Weekdays 08:30");
    rules("two rules", {first, other}, "Weekdays 08:30  (+1 more schedule)");
    rules("two rules in the other order", {other, first}, "Every hour at :00  (+1 more schedule)");
    rules("two usable and one not", {never, first, other}, "Weekdays 08:30  (+1 more schedule)");
    rules("three usable and one not", {never, first, other, other}, "Weekdays 08:30  (+2 more schedules)");
    rules("the first label says more by itself", {u"31:256:0+15+30+45"_s, other, first},
          "Weekdays 08:00, 08:15, 08:30 +1 more  (+2 more schedules)");
    SyncJob unknownMode = rulesJob({first});
    unknownMode.scheduleMode = 7;
    QTest::newRow("unknown mode") << unknownMode << u"Weekdays 08:30"_s;
}

void tst_SyncJob::scheduleLabels()
{
    QFETCH(SyncJob, job);
    QTEST(job.scheduleLabel(), "label");
}

void tst_SyncJob::scheduleDetails_data()
{
    QTest::addColumn<SyncJob>("job");
    QTest::addColumn<QString>("detail");

    const auto interval = [](int minutes, const char *count) {
        QTest::addRow("%d minutes", minutes) << intervalJob(minutes)
                                             << u"Runs every "_s + QString::fromLatin1(count) +
                                                    u", measured from the end of the previous run."_s;
    };
    interval(1, "1 minute");
    interval(0, "0 minutes");
    interval(2, "2 minutes");
    interval(60, "60 minutes");
    interval(1440, "1440 minutes");
    interval(-1, "-1 minutes");

    const auto rules = [](const char *what, const QStringList &texts, const char *detail) {
        QTest::newRow(what) << rulesJob(texts) << QString::fromLatin1(detail);
    };
    const QString once = u"1:1:0"_s;
    const QString hourly = u"127:16777215:0"_s;
    const QString never = u"0:1:0"_s;
    rules("no rule", {}, "Nothing selected, so this job will never fire.");
    rules("unusable rules", {never, u"1:0:0"_s}, "Nothing selected, so this job will never fire.");
    rules("one rule, one run", {once}, "1 schedule, 1 run per week at most.");
    rules("one rule, many runs", {hourly}, "1 schedule, 168 runs per week at most.");
    rules("two rules", {once, hourly}, "2 schedules, 169 runs per week at most.");
    rules("the same instant twice", {once, once}, "2 schedules, 2 runs per week at most.");
    rules("unusable ones do not count", {never, once, never}, "1 schedule, 1 run per week at most.");
    SyncJob unknownMode = rulesJob({once});
    unknownMode.scheduleMode = -1;
    QTest::newRow("unknown mode") << unknownMode << u"1 schedule, 1 run per week at most."_s;
}

void tst_SyncJob::scheduleDetails()
{
    QFETCH(SyncJob, job);
    QTEST(job.scheduleDetail(), "detail");
}

void tst_SyncJob::userTextsAreTranslated()
{
    MarkingTranslator translator;
    QVERIFY(QCoreApplication::installTranslator(&translator));
    const auto remove = qScopeGuard([&translator] { QCoreApplication::removeTranslator(&translator); });

    SyncJob job;
    job.name = u"alpha"_s;
    QString error;
    QVERIFY(!job.isRunnable(&error));
    QCOMPARE(error, u"['alpha' has no FTP host set.]"_s);
    job.config.host = u"ftp.example"_s;
    QVERIFY(!job.isRunnable(&error));
    QCOMPARE(error, u"['alpha' has no local folder set.]"_s);
    QCOMPARE(AppSettings().uniqueName(QString(), -1), u"[New job]"_s);

    QCOMPARE(intervalJob(1).scheduleLabel(), u"[Every 1 min]"_s);
    QCOMPARE(intervalJob(60).scheduleLabel(), u"[Every 1 hour(s)]"_s);
    QCOMPARE(intervalJob(1440).scheduleLabel(), u"[Every 1 day(s)]"_s);
    QCOMPARE(rulesJob({}).scheduleLabel(), u"[Never (nothing selected)]"_s);
    QCOMPARE(rulesJob({u"1:1:0"_s, u"1:1:0"_s}).scheduleLabel(), u"[[Mon] 00:00  (+1 more [schedule])]"_s);
    QCOMPARE(rulesJob({u"1:1:0"_s, u"1:1:0"_s, u"1:1:0"_s}).scheduleLabel(),
             u"[[Mon] 00:00  (+2 more [schedules])]"_s);

    QCOMPARE(intervalJob(1).scheduleDetail(),
             u"[Runs every 1 [minute], measured from the end of the previous run.]"_s);
    QCOMPARE(intervalJob(2).scheduleDetail(),
             u"[Runs every 2 [minutes], measured from the end of the previous run.]"_s);
    QCOMPARE(rulesJob({}).scheduleDetail(), u"[Nothing selected, so this job will never fire.]"_s);
    QCOMPARE(rulesJob({u"1:1:0"_s}).scheduleDetail(), u"[1 [schedule], 1 [run] per week at most.]"_s);
    QCOMPARE(rulesJob({u"1:1:0"_s, u"1:1:0"_s}).scheduleDetail(),
             u"[2 [schedules], 2 [runs] per week at most.]"_s);
}

void tst_SyncJob::panelTextsAndPatternsAreNotTranslated()
{
    MarkingTranslator translator;
    QVERIFY(QCoreApplication::installTranslator(&translator));
    const auto remove = qScopeGuard([&translator] { QCoreApplication::removeTranslator(&translator); });

    SyncJob job;
    job.config.deleteExtraneous = true;
    QCOMPARE(job.syncModeLabel(), u"NEW + CHANGED + PRUNE"_s);
    job.config.syncMode = NewOnly;
    QCOMPARE(job.syncModeLabel(), u"NEW ONLY + PRUNE"_s);
    job.config.syncMode = FullSync;
    QCOMPARE(job.syncModeLabel(), u"FULL SYNC + PRUNE"_s);

    job.config.host = u"alpha"_s;
    job.config.user = u"kim"_s;
    job.config.port = 2121;
    QCOMPARE(job.serverLabel(), u"kim@alpha:2121"_s);
    QCOMPARE(pluralCount(2, u"mouse"_s, u"mice"_s), u"2 mice"_s);
    QCOMPARE(settingsWith({u"alpha"_s}).uniqueName(u"beta"_s, -1), u"beta"_s);
}

QTEST_GUILESS_MAIN(tst_SyncJob)
#include "tst_SyncJob.moc"
