#include "model/SettingsStore.h"
#include "model/SyncJob.h"
#include "support/LocalZone.h"
#include "support/MarkingTranslator.h"
#include "support/TestSettings.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QProcess>
#include <QRandomGenerator>
#include <QScopeGuard>
#include <QSettings>
#include <QTest>
#include <QTime>
#include <QTimeZone>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <memory>

#ifdef Q_OS_UNIX
#include <sys/stat.h>
#endif

using namespace Qt::StringLiterals;

namespace {

constexpr int kMaxInt = std::numeric_limits<int>::max();

QDateTime utc(const char *text)
{
    return QDateTime::fromString(QString::fromLatin1(text) + u'Z', Qt::ISODateWithMs);
}

QString text(bool value) { return value ? u"true"_s : u"false"_s; }

QString text(const QDateTime &when)
{
    return when.isValid() ? when.toUTC().toString(u"yyyy-MM-ddTHH:mm:ss.zzz"_s) : u"invalid"_s;
}

/** All of a job, a line per field, so that a comparison names the field that differs. */
QStringList describe(const SyncJob &job)
{
    QStringList rules;
    for (const ScheduleRule &rule : job.rules)
        rules << rule.toStorage();
    const MirrorConfig &config = job.config;
    return {
        u"name: "_s + job.name,
        u"enabled: "_s + text(job.enabled),
        u"host: "_s + config.host,
        u"port: "_s + QString::number(config.port),
        u"user: "_s + config.user,
        u"password: "_s + config.password,
        u"useTls: "_s + text(config.useTls),
        u"acceptAnyCertificate: "_s + text(config.acceptAnyCertificate),
        u"timeout: "_s + QString::number(config.timeout),
        u"remoteDir: "_s + config.remoteDir,
        u"localDir: "_s + config.localDir,
        u"excludes: "_s + config.excludes.join(u'|'),
        u"recursive: "_s + text(config.recursive),
        u"deleteExtraneous: "_s + text(config.deleteExtraneous),
        u"syncMode: "_s + QString::number(config.syncMode),
        u"compareBy: "_s + QString::number(config.compareBy),
        u"scheduleMode: "_s + QString::number(job.scheduleMode),
        u"intervalMins: "_s + QString::number(job.intervalMins),
        u"rules: "_s + rules.join(u'|'),
        u"lastRun: "_s + text(job.lastRun),
        u"lastSummary: "_s + job.lastSummary,
        u"lastOk: "_s + text(job.lastOk),
        u"nextRun: "_s + text(job.nextRun),
        u"queued: "_s + text(job.queued),
        u"running: "_s + text(job.running),
    };
}

QStringList describeOptions(const AppSettings &settings)
{
    return {
        u"savePasswords: "_s + text(settings.savePasswords),
        u"runOnStart: "_s + text(settings.runOnStart),
        u"minimiseToTray: "_s + text(settings.minimiseToTray),
        u"verbose: "_s + text(settings.verbose),
        u"checkForUpdates: "_s + text(settings.checkForUpdates),
        u"updateEndpoint: "_s + settings.updateEndpoint,
        u"skippedVersion: "_s + settings.skippedVersion,
        u"lastUpdateCheck: "_s + text(settings.lastUpdateCheck),
    };
}

QStringList describe(const AppSettings &settings)
{
    QStringList lines = describeOptions(settings);
    lines << u"jobs: "_s + QString::number(settings.jobs.size());
    for (const SyncJob &job : settings.jobs)
        lines << describe(job);
    return lines;
}

/** The lines with those replaced that tell of the same field. */
QStringList with(QStringList lines, const QStringList &changes)
{
    for (const QString &change : changes) {
        const QString field = change.left(change.indexOf(u": "_s) + 2);
        const auto line = std::find_if(lines.begin(), lines.end(),
                                       [&field](const QString &l) { return l.startsWith(field); });
        if (line == lines.end())
            qFatal("no such field: %s", qPrintable(change));
        *line = change;
    }
    return lines;
}

/** A settings file with one job, whose keys these lines are. */
QByteArray oneJobFile(const QString &lines)
{
    QByteArray file = "[jobs]\nsize=1\n";
    for (const QString &line : lines.split(u'\n', Qt::SkipEmptyParts))
        file += "1\\" + line.toUtf8() + '\n';
    return file;
}

/**
 * Loads what the file says. Its time moves on first: QSettings remembers what this process has put
 * into a file, and would give the very same values back instead of reading what became of them.
 */
AppSettings loaded()
{
    QFile file(
        QSettings(QSettings::IniFormat, QSettings::UserScope, u"Orrinvale"_s, u"Kelpwharf"_s).fileName());
    if (file.open(QIODevice::ReadWrite | QIODevice::ExistingOnly)) {
        const QDateTime later = file.fileTime(QFileDevice::FileModificationTime).addSecs(1);
        file.setFileTime(later, QFileDevice::FileModificationTime);
        file.close();
    }
    AppSettings settings;
    settings.load();
    return settings;
}

/** Settings none of whose stored fields has its default. */
AppSettings fullSettings()
{
    AppSettings settings;
    settings.runOnStart = true;
    settings.minimiseToTray = false;
    settings.verbose = true;
    settings.checkForUpdates = false;
    settings.updateEndpoint = u"https://updates.example/kelp?x=1&y=a,b;c"_s;
    settings.skippedVersion = u"2.0.1"_s;
    settings.lastUpdateCheck = utc("2024-02-03T04:05:06.789");

    SyncJob job;
    job.name = u"Night archive"_s;
    job.enabled = false;
    job.config.host = u"ftp.example"_s;
    job.config.port = 2121;
    job.config.user = u"kim"_s;
    job.config.password = u"pä$$ wörd"_s;
    job.config.useTls = true;
    job.config.timeout = 45000;
    job.config.remoteDir = u"/pub/a b"_s;
    job.config.localDir = u"/home/kim/archive"_s;
    job.config.excludes = QStringList{u"*.tmp"_s, u"Thumbs.db"_s};
    job.config.recursive = false;
    job.config.deleteExtraneous = true;
    job.config.syncMode = FullSync;
    job.config.compareBy = SizeOnly;
    job.scheduleMode = Rules;
    job.intervalMins = 90;
    job.rules = {ScheduleRule::fromStorage(u"31:524224:0+30"_s),
                 ScheduleRule::fromStorage(u"96:8388608:5"_s)};
    job.lastRun = utc("2024-01-02T03:04:05.678");
    job.lastSummary = u"3 downloaded"_s;
    job.lastOk = false;
    settings.jobs << job;

    SyncJob plain;
    plain.name = u"Plain"_s;
    settings.jobs << plain;
    return settings;
}

/** Other settings than those of fullSettings(), and more jobs. */
AppSettings otherSettings()
{
    AppSettings settings;
    settings.savePasswords = false;
    settings.skippedVersion = u"3"_s;
    for (int i = 1; i <= 5; ++i) {
        SyncJob job;
        job.name = u"Other "_s + QString::number(i);
        job.config.host = u"other.example"_s;
        job.config.port = 990;
        settings.jobs << job;
    }
    return settings;
}

/** What a settings file of one job that is called "alpha" says about its password. */
QByteArray scrambledForm(const TestSettings &store, const QString &password)
{
    AppSettings settings;
    settings.jobs.resize(1);
    settings.jobs[0].name = u"alpha"_s;
    settings.jobs[0].config.password = password;
    settings.save();
    const QSettings file(store.filePath(), QSettings::IniFormat);
    return file.value("jobs/1/password").toString().toLatin1();
}

/** The keys of a settings file as "section/key", as they stand in it. */
QStringList keysOf(const QByteArray &file)
{
    QStringList keys;
    QString section;
    for (const QByteArray &line : file.split('\n')) {
        if (line.startsWith('['))
            section = QString::fromUtf8(line.sliced(1, line.indexOf(']') - 1));
        else if (!line.isEmpty())
            keys << section + u'/' + QString::fromUtf8(line.left(line.indexOf('=')));
    }
    return keys;
}

/** A value of a settings file as it stands in it, behind "key=". */
QByteArray rawValue(const QByteArray &file, const QByteArray &key)
{
    for (const QByteArray &line : file.split('\n')) {
        if (line.startsWith(key + '='))
            return line.sliced(key.size() + 1);
    }
    return "no such key";
}

const QStringList kJobKeys{u"name"_s,         u"enabled"_s,
                           u"host"_s,         u"port"_s,
                           u"user"_s,         u"password"_s,
                           u"useTls"_s,       u"timeout"_s,
                           u"remoteDir"_s,    u"localDir"_s,
                           u"excludes"_s,     u"recursive"_s,
                           u"syncMode"_s,     u"deleteExtraneous"_s,
                           u"compareBy"_s,    u"scheduleMode"_s,
                           u"intervalMins"_s, u"rules"_s,
                           u"lastRun"_s,      u"lastSummary"_s,
                           u"lastOk"_s};
const QStringList kOptionKeys{u"savePasswords"_s,  u"runOnStart"_s,      u"minimiseToTray"_s,
                              u"verbose"_s,        u"checkForUpdates"_s, u"updateEndpoint"_s,
                              u"skippedVersion"_s, u"lastUpdateCheck"_s};

/** All keys of a settings file with so many jobs, in alphabetical order. */
QStringList expectedKeys(int jobs)
{
    QStringList keys{u"jobs/size"_s};
    for (const QString &key : kOptionKeys)
        keys << u"General/"_s + key;
    for (int i = 1; i <= jobs; ++i) {
        for (const QString &key : kJobKeys)
            keys << u"jobs/"_s + QString::number(i) + u'\\' + key;
    }
    keys.sort();
    return keys;
}

QStringList sorted(QStringList list)
{
    list.sort();
    return list;
}

/** What holds for loaded settings whatever the file was. */
QString firstOddity(const AppSettings &settings)
{
    for (qsizetype i = 0; i < settings.jobs.size(); ++i) {
        const SyncJob &job = settings.jobs.at(i);
        const QString where = u" in job "_s + QString::number(i + 1);
        if (job.name.isEmpty())
            return u"no name"_s + where;
        if (job.rules.isEmpty())
            return u"no rule"_s + where;
        for (const ScheduleRule &rule : job.rules) {
            if (rule.days > 127 || rule.hours > 16777215 || rule.minutes.isEmpty())
                return u"bad rule"_s + where;
        }
        if (!job.config.acceptAnyCertificate || job.nextRun.isValid() || job.queued || job.running)
            return u"state of a run"_s + where;
        if (job.config.excludes.contains(QString()))
            return u"empty pattern"_s + where;
    }
    return {};
}

constexpr char kSaveOption[] = "--save-on-demand";

/** The other running copy: saves the same settings for each line that it is told, and says when it has. */
int saveOnDemand(char **arguments)
{
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, QFile::decodeName(arguments[2]));
    const AppSettings settings = qstrcmp(arguments[3], "full") == 0 ? fullSettings() : otherSettings();
    while (std::getchar() == '\n') {
        settings.save();
        std::puts("saved");
        std::fflush(stdout);
    }
    return 0;
}

void startCopy(QProcess *process, const TestSettings &store, const QString &which)
{
    const QString home = QFileInfo(QFileInfo(store.filePath()).path()).path();
    process->start(QCoreApplication::applicationFilePath(), {QString::fromLatin1(kSaveOption), home, which});
}

#ifdef Q_OS_UNIX
unsigned modeOf(const QString &path)
{
    struct stat status = {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 ? status.st_mode & 07777U : 0U;
}
#endif

} // namespace

class tst_AppSettings : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void aMissingFileMeansDefaults();
    void loadingReplacesEverything();
    void optionsAreRead_data();
    void optionsAreRead();
    void jobKeysAreRead_data();
    void jobKeysAreRead();
    void schedulesAreRead_data();
    void schedulesAreRead();
    void anImpossibleDailyTimeDoesNoHarm_data();
    void anImpossibleDailyTimeDoesNoHarm();
    void jobsKeepTheirOrder();
    void namelessJobsAreNumbered();
    void theNumberedNameIsTranslated();
    void readingChangesNothingInTheFile_data();
    void readingChangesNothingInTheFile();
    void savingBringsOldFilesForward_data();
    void savingBringsOldFilesForward();

    void theFileHasExactlyTheKeysOfTheFormat_data();
    void theFileHasExactlyTheKeysOfTheFormat();
    void valuesAreWritten_data();
    void valuesAreWritten();
    void datesAreWritten();
    void deletedJobsAndUnknownKeysDisappear();
    void foreignKeysSurvive();
    void savingChangesNothingInMemory();
    void everythingSurvivesTheFile();
    void textsSurviveTheFile_data();
    void textsSurviveTheFile();
    void timesSurviveTheFile_data();
    void timesSurviveTheFile();
    void excludesSurviveTheFile_data();
    void excludesSurviveTheFile();
    void rulesSurviveTheFile_data();
    void rulesSurviveTheFile();
    void timeOutsAreSecondsInTheFile_data();
    void timeOutsAreSecondsInTheFile();

    void passwordsAreNeverInClear_data();
    void passwordsAreNeverInClear();
    void theMaskDependsOnThePositionAlone();
    void passwordsAreNotSavedIfUnwanted();
    void passwordsAreNotReadIfUnwanted();
    void damagedPasswordsReadAsSomeText_data();
    void damagedPasswordsReadAsSomeText();

    void oddSizesDoNoHarm_data();
    void oddSizesDoNoHarm();
    void aFileCutAnywhereIsRead();
    void aFileWithAWrongByteIsRead();
    void unsafeLinesAreTakenOut_data();
    void unsafeLinesAreTakenOut();
    void whatComesWithAnUnsafeLineStays_data();
    void whatComesWithAnUnsafeLineStays();
    void anUnsafeFileIsReadAndMended();
    void rubbishIsRead_data();
    void rubbishIsRead();
    void othersCannotReadANewFile_data();
    void othersCannotReadANewFile();
    void anOldFileKeepsItsPermissions();
    void unusableFilesAreTakenInSilence_data();
    void unusableFilesAreTakenInSilence();
    void tenThousandJobsSurviveTheFile();

    void twoCopiesInTurnLeaveTheLatterWhole();
    void twoCopiesAtOnceLeaveOneOfThemWhole();
    void aCopyKilledWhileSavingLeavesAWholeFile();
    void anAbandonedLockKeepsNobodyWaiting();

private:
    std::unique_ptr<TestSettings> store;
};

void tst_AppSettings::init()
{
    // A folder for each row, since QSettings remembers files by their path.
    store = std::make_unique<TestSettings>();
}

void tst_AppSettings::aMissingFileMeansDefaults()
{
    const AppSettings settings = loaded();
    QCOMPARE(describeOptions(settings),
             (QStringList{u"savePasswords: true"_s, u"runOnStart: false"_s, u"minimiseToTray: true"_s,
                          u"verbose: false"_s, u"checkForUpdates: true"_s, u"updateEndpoint: "_s,
                          u"skippedVersion: "_s, u"lastUpdateCheck: invalid"_s}));
    QCOMPARE(settings.jobs.size(), 0);
    QVERIFY(!QFile::exists(store->filePath()));
}

void tst_AppSettings::loadingReplacesEverything()
{
    AppSettings settings = fullSettings();
    settings.savePasswords = false;
    settings.load();
    QCOMPARE(describe(settings), describe(AppSettings()));

    store->write(oneJobFile(u"host=alpha"_s));
    settings = fullSettings();
    settings.load();
    settings.load();
    QCOMPARE(settings.jobs.size(), 1);
    QCOMPARE(settings.jobs.constFirst().config.host, u"alpha"_s);
}

void tst_AppSettings::optionsAreRead_data()
{
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<QStringList>("changes");

    const auto row = [](const char *what, const char *lines, const QStringList &changes) {
        QTest::newRow(what) << QByteArray("[General]\n") + lines + '\n' << changes;
    };
    row("empty section", "", {});
    row("savePasswords", "savePasswords=false", {u"savePasswords: false"_s});
    row("runOnStart", "runOnStart=true", {u"runOnStart: true"_s});
    row("minimiseToTray", "minimiseToTray=false", {u"minimiseToTray: false"_s});
    row("verbose", "verbose=true", {u"verbose: true"_s});
    row("checkForUpdates", "checkForUpdates=false", {u"checkForUpdates: false"_s});
    row("updateEndpoint", "updateEndpoint=https://updates.example/x",
        {u"updateEndpoint: https://updates.example/x"_s});
    row("skippedVersion", "skippedVersion=1.10", {u"skippedVersion: 1.10"_s});
    row("lastUpdateCheck", "lastUpdateCheck=2024-01-02T03:04:05Z",
        {u"lastUpdateCheck: 2024-01-02T03:04:05.000"_s});
    row("numbers as truths", "runOnStart=1\nverbose=2\nminimiseToTray=0",
        {u"runOnStart: true"_s, u"verbose: true"_s, u"minimiseToTray: false"_s});
    row("truths by what QVariant makes of text",
        "runOnStart=yes\nverbose=FALSE\nminimiseToTray=\ncheckForUpdates=maybe",
        {u"runOnStart: "_s + text(QVariant(u"yes"_s).toBool()),
         u"verbose: "_s + text(QVariant(u"FALSE"_s).toBool()),
         u"minimiseToTray: "_s + text(QVariant(QString()).toBool()),
         u"checkForUpdates: "_s + text(QVariant(u"maybe"_s).toBool())});
    row("impossible date", "lastUpdateCheck=2024-02-30T03:04:05", {});
    row("no date", "lastUpdateCheck=never", {});
    row("damaged date", "lastUpdateCheck=@DateTime(\\0\\0\\0)", {});
    row("something else than a date", "lastUpdateCheck=@ByteArray(x)", {});
    row("foreign keys", "geometry=@ByteArray(x)\nlanguage=en\nnextRun=1", {});
    row("keys of a job have no meaning here", "name=alpha\nhost=beta\nport=1", {});
}

void tst_AppSettings::optionsAreRead()
{
    QFETCH(QByteArray, file);
    QFETCH(QStringList, changes);
    store->write(file);
    const AppSettings settings = loaded();
    QCOMPARE(describeOptions(settings), with(describeOptions(AppSettings()), changes));
    QCOMPARE(settings.jobs.size(), 0);
}

void tst_AppSettings::jobKeysAreRead_data()
{
    QTest::addColumn<QString>("lines");
    QTest::addColumn<QStringList>("changes");

    const auto row = [](const char *what, const char *lines, const QStringList &changes) {
        QTest::newRow(what) << QString::fromUtf8(lines) << changes;
    };
    row("nothing", "", {});
    row("name", "name=Archive", {u"name: Archive"_s});
    row("name in Unicode", "name=\xc3\x96lhafen \xe2\x98\x82", {u"name: Ölhafen ☂"_s});
    row("name of blanks is a name", "name=\"  \"", {u"name:   "_s});
    row("enabled", "enabled=false", {u"enabled: false"_s});
    row("host", "host=ftp.example", {u"host: ftp.example"_s});
    row("host stays untrimmed", "host=\" ftp.example \"", {u"host:  ftp.example "_s});
    row("port", "port=2121", {u"port: 2121"_s});
    row("largest port", "port=65535", {u"port: 65535"_s});
    row("port of 17 bits", "port=65536", {u"port: 0"_s});
    row("port cut to 16 bits", "port=65557", {u"port: 21"_s});
    row("port cut again", "port=70000", {u"port: 4464"_s});
    row("port of all 32 bits", "port=4294967295", {u"port: 65535"_s});
    row("negative port", "port=-1", {u"port: "_s + QString::number(quint16(QVariant(u"-1"_s).toUInt()))});
    row("port over 32 bits", "port=99999999999",
        {u"port: "_s + QString::number(quint16(QVariant(u"99999999999"_s).toUInt()))});
    row("bad port", "port=ftp", {u"port: 0"_s});
    row("empty port", "port=", {u"port: 0"_s});
    row("fractional port", "port=21.5", {u"port: "_s + QString::number(QVariant(u"21.5"_s).toUInt())});
    row("user", "user=kim", {u"user: kim"_s});
    row("empty password", "password=", {});
    row("useTls", "useTls=true", {u"useTls: true"_s});
    row("timeout", "timeout=45", {u"timeout: 45000"_s});
    row("timeout of 0", "timeout=0", {u"timeout: 0"_s});
    row("bad timeout", "timeout=soon", {u"timeout: 0"_s});
    row("empty timeout", "timeout=", {u"timeout: 0"_s});
    row("remoteDir", "remoteDir=/pub/a b", {u"remoteDir: /pub/a b"_s});
    row("empty remoteDir is not a missing one", "remoteDir=", {u"remoteDir: "_s});
    row("localDir", "localDir=/home/kim", {u"localDir: /home/kim"_s});
    row("one exclude", "excludes=*.tmp", {u"excludes: *.tmp"_s});
    row("two excludes", "excludes=\"*.tmp;*.bak\"", {u"excludes: *.tmp|*.bak"_s});
    row("gaps in the excludes", "excludes=\";*.tmp;;*.bak;\"", {u"excludes: *.tmp|*.bak"_s});
    row("blanks in the excludes stay", "excludes=\" *.tmp ; a b\"", {u"excludes:  *.tmp | a b"_s});
    row("comma in an exclude", "excludes=\"a,b;c\"", {u"excludes: a,b|c"_s});
    row("empty excludes", "excludes=", {});
    row("excludes of a lone separator", "excludes=\";\"", {});
    row("recursive", "recursive=false", {u"recursive: false"_s});
    row("deleteExtraneous", "deleteExtraneous=true", {u"deleteExtraneous: true"_s});
    row("syncMode", "syncMode=2", {u"syncMode: 2"_s});
    row("unknown syncMode", "syncMode=7", {u"syncMode: 7"_s});
    row("negative syncMode", "syncMode=-1", {u"syncMode: -1"_s});
    row("bad syncMode", "syncMode=full", {});
    row("compareBy", "compareBy=1", {u"compareBy: 1"_s});
    row("unknown compareBy", "compareBy=99", {u"compareBy: 99"_s});
    row("bad compareBy", "compareBy=x", {});
    row("intervalMins", "intervalMins=90", {u"intervalMins: 90"_s});
    row("intervalMins of 0", "intervalMins=0", {u"intervalMins: 0"_s});
    row("negative intervalMins", "intervalMins=-5", {u"intervalMins: -5"_s});
    row("bad intervalMins", "intervalMins=often", {u"intervalMins: 0"_s});
    row("lastRun", "lastRun=2024-01-02T03:04:05Z", {u"lastRun: 2024-01-02T03:04:05.000"_s});
    row("bad lastRun", "lastRun=yesterday", {});
    row("number as lastRun", "lastRun=5", {});
    row("damaged lastRun", "lastRun=@DateTime(\\0\\0\\0)", {});
    row("lastSummary", "lastSummary=\"3 downloaded, 1 failed\"", {u"lastSummary: 3 downloaded, 1 failed"_s});
    row("lastOk", "lastOk=false", {u"lastOk: false"_s});
    row("bad truths", "enabled=x\nuseTls=0\nlastOk=\nrecursive=no",
        {u"enabled: "_s + text(QVariant(u"x"_s).toBool()), u"useTls: false"_s,
         u"lastOk: "_s + text(QVariant(QString()).toBool()),
         u"recursive: "_s + text(QVariant(u"no"_s).toBool())});
    row("lists where text belongs do no harm", "host=a, b\nuser=@Variant(\\0\\0)\nname=alpha",
        {u"name: alpha"_s});
    row("what is not stored is not read",
        "acceptAnyCertificate=false\nnextRun=2024-01-02T03:04:05Z\nqueued=true\nrunning=true", {});
    row("unknown keys", "colour=red\nsub\\key=1\nname=alpha", {u"name: alpha"_s});
}

void tst_AppSettings::jobKeysAreRead()
{
    QFETCH(QString, lines);
    QFETCH(QStringList, changes);
    store->write(oneJobFile(lines));

    const AppSettings settings = loaded();
    QCOMPARE(settings.jobs.size(), 1);
    const QStringList untouched{u"name: Job 1"_s,
                                u"enabled: true"_s,
                                u"host: "_s,
                                u"port: 21"_s,
                                u"user: "_s,
                                u"password: "_s,
                                u"useTls: false"_s,
                                u"acceptAnyCertificate: true"_s,
                                u"timeout: 30000"_s,
                                u"remoteDir: /"_s,
                                u"localDir: "_s,
                                u"excludes: "_s,
                                u"recursive: true"_s,
                                u"deleteExtraneous: false"_s,
                                u"syncMode: 0"_s,
                                u"compareBy: 0"_s,
                                u"scheduleMode: 0"_s,
                                u"intervalMins: 60"_s,
                                u"rules: 127:16777215:0"_s,
                                u"lastRun: invalid"_s,
                                u"lastSummary: "_s,
                                u"lastOk: true"_s,
                                u"nextRun: invalid"_s,
                                u"queued: false"_s,
                                u"running: false"_s};
    QCOMPARE(describe(settings.jobs.constFirst()), with(untouched, changes));
    QCOMPARE(describeOptions(settings), describeOptions(AppSettings()));
}

void tst_AppSettings::schedulesAreRead_data()
{
    QTest::addColumn<QString>("lines");
    QTest::addColumn<int>("mode");
    QTest::addColumn<QString>("rules");

    const auto row = [](const char *what, const char *lines, int mode, const char *rules) {
        QTest::newRow(what) << QString::fromUtf8(lines) << mode << QString::fromUtf8(rules);
    };
    const char *const usual = "127:16777215:0";
    row("one rule", "scheduleMode=1\nrules=31:524224:0+30", 1, "31:524224:0+30");
    row("two rules", "scheduleMode=1\nrules=31:524224:0+30, 96:8388608:5", 1, "31:524224:0+30|96:8388608:5");
    row("two rules in one text", "scheduleMode=1\nrules=\"31:524224:0+30;96:8388608:5\"", 1,
        "31:524224:0+30|96:8388608:5");
    row("three rules in one text, with gaps", "scheduleMode=1\nrules=\";1:1:0;;2:2:0; 4:4:0 ;\"", 1,
        "1:1:0|2:2:0|4:4:0");
    row("blanks around a rule", "scheduleMode=1\nrules=\" 31:1:0 \"", 1, "31:1:0");
    row("list with blanks around", "scheduleMode=1\nrules=\" 31:1:0 \", \" 1:1:5 \"", 1, "31:1:0|1:1:5");
    row("three rules in order", "scheduleMode=1\nrules=4:1:0, 1:1:0, 2:1:0", 1, "4:1:0|1:1:0|2:1:0");
    row("same rule twice", "scheduleMode=1\nrules=4:1:0, 4:1:0", 1, "4:1:0|4:1:0");
    row("empty element of a list", "scheduleMode=1\nrules=, 31:1:0", 1, "127:16777215:0|31:1:0");
    row("separators inside of a list's element", "scheduleMode=1\nrules=\"1:1:0;2:1:0\", 4:1:0", 1,
        "1:1:0|4:1:0");
    row("parts of blanks", "scheduleMode=1\nrules=\" ; \"", 1, "127:16777215:0|127:16777215:0");
    row("rules in interval mode", "scheduleMode=0\nrules=31:1:0", 0, "31:1:0");
    row("unknown mode", "scheduleMode=7\nrules=31:1:0", 7, "31:1:0");
    row("negative mode", "scheduleMode=-1\nrules=31:1:0", -1, "31:1:0");
    row("bad mode", "scheduleMode=weekly\nrules=31:1:0", 0, "31:1:0");
    row("empty mode is there", "scheduleMode=\nrules=31:1:0", 0, "31:1:0");
    row("empty rules", "scheduleMode=1\nrules=", 1, usual);
    row("rules of nothing", "scheduleMode=1\nrules=@Invalid()", 1, usual);
    row("rules of a separator", "scheduleMode=1\nrules=\";\"", 1, usual);
    row("bad rule", "scheduleMode=1\nrules=now and then", 1, usual);
    row("bad rule among good ones", "scheduleMode=1\nrules=31:1:0, x, 1:1:5", 1,
        "31:1:0|127:16777215:0|1:1:5");
    row("rule with a bad mask stays unusable", "scheduleMode=1\nrules=abc:1:0", 1, "0:1:0");
    row("rules are cleaned", "scheduleMode=1\nrules=255:33554431:30+0+30+99", 1, "127:16777215:0+30");

    row("mode alone", "scheduleMode=1", 1, usual);
    row("interval mode alone", "scheduleMode=0", 0, usual);
    row("three keys", "scheduleMode=1\ndays=31\nhours=524224\nminutes=0, 30", 1, "31:524224:0+30");
    row("three keys in interval mode", "scheduleMode=0\ndays=31\nhours=256\nminutes=15", 0, "31:256:15");
    row("days alone", "scheduleMode=0\ndays=31", 0, "31:16777215:0");
    row("hours alone", "scheduleMode=1\nhours=256", 1, "127:256:0");
    row("minutes alone", "scheduleMode=1\nminutes=30", 1, "127:16777215:30");
    row("masks are cut", "scheduleMode=1\ndays=255\nhours=4294967295", 1, usual);
    row("only bits beyond the masks", "scheduleMode=1\ndays=128\nhours=16777216", 1, "0:0:0");
    row("bad masks", "scheduleMode=1\ndays=all\nhours=none\nminutes=5", 1, "0:0:5");
    row("minutes as one text", "scheduleMode=1\nminutes=\"45,0, 15 \"", 1, "127:16777215:0+15+45");
    row("minutes as a list", "scheduleMode=1\nminutes=45, 0,15", 1, "127:16777215:0+15+45");
    row("doubled and bad minutes", "scheduleMode=1\nminutes=30, 0, 30, 60, -1, x, , 59", 1,
        "127:16777215:0+30+59");
    row("doubled and bad minutes in one text", "scheduleMode=1\nminutes=\"30,,0,30,60,-1,x,59\"", 1,
        "127:16777215:0+30+59");
    row("minutes sorted by value", "scheduleMode=1\nminutes=10, 9", 1, "127:16777215:9+10");
    row("only bad minutes", "scheduleMode=1\nminutes=60, x", 1, usual);
    row("empty minutes", "scheduleMode=1\nminutes=", 1, usual);
    row("minutes are not joined by a plus", "scheduleMode=1\nminutes=5+10", 1, usual);
    row("rules win over three keys", "scheduleMode=1\ndays=1\nhours=1\nminutes=7\nrules=31:256:30", 1,
        "31:256:30");
    row("empty rules win over three keys", "scheduleMode=1\ndays=1\nhours=1\nminutes=7\nrules=", 1, usual);

    row("daily", "daily=true\ndailyTime=14:30", 1, "127:16384:30");
    row("daily, seconds dropped", "daily=true\ndailyTime=14:30:59", 1, "127:16384:30");
    row("daily as a stored time", "daily=true\ndailyTime=@Variant(\\0\\0\\0\\xf\\x3\\x1c\\x82@)", 1,
        "127:16384:30");
    row("daily without a time", "daily=true", 1, "127:8:0");
    row("daily at midnight", "daily=true\ndailyTime=00:00", 1, "127:1:0");
    row("daily at the last minute", "daily=true\ndailyTime=23:59", 1, "127:8388608:59");
    row("daily as a number", "daily=1\ndailyTime=14:30", 1, "127:16384:30");
    row("not daily", "daily=false\ndailyTime=14:30", 0, usual);
    row("a time alone", "dailyTime=14:30", 0, usual);
    row("not daily, whatever else is there", "daily=false\nrules=31:1:0\ndays=1\nhours=1\nminutes=7", 0,
        usual);
    row("rules without a mode", "rules=31:1:0", 0, usual);
    row("three keys without a mode", "days=1\nhours=1\nminutes=7", 0, usual);
    row("daily wins where the mode is missing", "daily=true\ndailyTime=14:30\nrules=31:1:0\ndays=1", 1,
        "127:16384:30");
    row("a mode wins over daily", "scheduleMode=0\ndaily=true\ndailyTime=14:30", 0, usual);
    row("a mode with rules wins over daily", "scheduleMode=1\ndaily=true\ndailyTime=14:30\nrules=31:1:0", 1,
        "31:1:0");
}

void tst_AppSettings::schedulesAreRead()
{
    QFETCH(QString, lines);
    QFETCH(int, mode);
    QFETCH(QString, rules);
    store->write(oneJobFile(lines + u"\nintervalMins=90"_s));

    const AppSettings settings = loaded();
    QCOMPARE(settings.jobs.size(), 1);
    QCOMPARE(describe(settings.jobs.constFirst()),
             with(describe(SyncJob()), {u"name: Job 1"_s, u"intervalMins: 90"_s, u"rules: "_s + rules,
                                        u"scheduleMode: "_s + QString::number(mode)}));
}

void tst_AppSettings::anImpossibleDailyTimeDoesNoHarm_data()
{
    QTest::addColumn<QString>("time");
    QTest::newRow("words") << u"noon"_s;
    QTest::newRow("empty") << QString();
    QTest::newRow("hour 25") << u"25:00"_s;
    QTest::newRow("minute 75") << u"14:75"_s;
    QTest::newRow("negative") << u"-1:00"_s;
    QTest::newRow("date") << u"2024-01-02"_s;
    QTest::newRow("list") << u"14, 30"_s;
    QTest::newRow("damaged") << u"@Variant(\\0\\0\\0\\xf\\xff)"_s;
    QTest::newRow("stored invalid time") << u"@Variant(\\0\\0\\0\\xf\\xff\\xff\\xff\\xff)"_s;
}

void tst_AppSettings::anImpossibleDailyTimeDoesNoHarm()
{
    QFETCH(QString, time);
    store->write(oneJobFile(u"daily=true\nlastSummary=behind it\ndailyTime="_s + time));

    const AppSettings settings = loaded();
    QCOMPARE(settings.jobs.size(), 1);
    const SyncJob &job = settings.jobs.constFirst();
    QCOMPARE(job.scheduleMode, 1);
    QCOMPARE(job.rules.size(), 1);
    QCOMPARE(job.lastSummary, u"behind it"_s);
    QCOMPARE(firstOddity(settings), QString());
}

void tst_AppSettings::jobsKeepTheirOrder()
{
    QByteArray file = "[jobs]\n";
    // As text, 10 comes before 2.
    for (int i = 12; i >= 1; --i)
        file += QByteArray::number(i) + "\\name=job " + QByteArray::number(i) + '\n';
    store->write(file + "size=12\n");

    const AppSettings settings = loaded();
    QCOMPARE(settings.jobs.size(), 12);
    for (int i = 0; i < 12; ++i)
        QCOMPARE(settings.jobs.at(i).name, u"job "_s + QString::number(i + 1));
}

void tst_AppSettings::namelessJobsAreNumbered()
{
    store->write("[jobs]\n1\\name=\n2\\name=\n3\\name=\nsize=3\n");
    AppSettings settings = loaded();
    QStringList names;
    for (const SyncJob &job : std::as_const(settings.jobs))
        names << job.name;
    QCOMPARE(names, (QStringList{u"Job 1"_s, u"Job 2"_s, u"Job 3"_s}));

    // The name is the job's own from the next save on, wherever the job moves.
    settings.jobs.removeFirst();
    settings.save();
    QCOMPARE(rawValue(store->read(), "1\\name"), "Job 2");
    settings.load();
    QCOMPARE(settings.jobs.constFirst().name, u"Job 2"_s);
}

void tst_AppSettings::theNumberedNameIsTranslated()
{
    MarkingTranslator translator;
    QVERIFY(QCoreApplication::installTranslator(&translator));
    const auto remove = qScopeGuard([&translator] { QCoreApplication::removeTranslator(&translator); });
    store->write("[jobs]\n1\\name=alpha\nsize=2\n");
    const AppSettings settings = loaded();
    QCOMPARE(settings.jobs.size(), 2);
    QCOMPARE(settings.jobs.at(0).name, u"alpha"_s);
    QCOMPARE(settings.jobs.at(1).name, u"[Job 2]"_s);
}

void tst_AppSettings::readingChangesNothingInTheFile_data()
{
    QTest::addColumn<QByteArray>("file");
    QTest::newRow("daily") << oneJobFile(u"daily=true\ndailyTime=14:30"_s);
    QTest::newRow("three keys") << oneJobFile(u"scheduleMode=1\ndays=31\nhours=256\nminutes=0, 30"_s);
    QTest::newRow("nameless") << oneJobFile(u"name="_s);
    QTest::newRow("foreign keys") << QByteArray("[General]\ngeometry=@ByteArray(xy)\n\n[other]\na=b\n");
    QTest::newRow("passwords unwanted")
        << "[General]\nsavePasswords=false\n\n" + oneJobFile(u"password=c2VjcmV0"_s);
    QTest::newRow("rubbish") << QByteArray("\0\xff[]=\n\n[[[", 10);
    QTest::newRow("empty") << QByteArray();
}

void tst_AppSettings::readingChangesNothingInTheFile()
{
    QFETCH(QByteArray, file);
    store->write(file);
    const QDir folder = QFileInfo(store->filePath()).dir();
    loaded();
    QCOMPARE(store->read(), file);
    QCOMPARE(folder.entryList(QDir::Files | QDir::Hidden), QStringList{u"Kelpwharf.ini"_s});
}

void tst_AppSettings::savingBringsOldFilesForward_data()
{
    QTest::addColumn<QString>("lines");
    QTest::addColumn<QByteArray>("mode");
    QTest::addColumn<QByteArray>("rules");

    QTest::newRow("daily") << u"daily=true\ndailyTime=14:30"_s << QByteArray("1")
                           << QByteArray("127:16384:30");
    QTest::newRow("not daily") << u"daily=false\ndailyTime=14:30"_s << QByteArray("0")
                               << QByteArray("127:16777215:0");
    QTest::newRow("three keys") << u"scheduleMode=1\ndays=31\nhours=256\nminutes=0, 30"_s << QByteArray("1")
                                << QByteArray("31:256:0+30");
    QTest::newRow("all that ever was")
        << u"scheduleMode=0\nrules=1:1:1\ndays=31\nhours=256\nminutes=0, 30\ndaily=true\ndailyTime=14:30"_s
        << QByteArray("0") << QByteArray("1:1:1");
}

void tst_AppSettings::savingBringsOldFilesForward()
{
    QFETCH(QString, lines);
    store->write(oneJobFile(lines));
    AppSettings settings = loaded();
    settings.save();

    QCOMPARE(sorted(keysOf(store->read())), expectedKeys(1));
    QTEST(rawValue(store->read(), "1\\scheduleMode"), "mode");
    QTEST(rawValue(store->read(), "1\\rules"), "rules");
    QCOMPARE(describe(loaded()), describe(settings));
}

void tst_AppSettings::theFileHasExactlyTheKeysOfTheFormat_data()
{
    QTest::addColumn<AppSettings>("settings");

    QTest::newRow("no jobs") << AppSettings();
    QTest::newRow("two jobs") << fullSettings();
    QTest::newRow("five jobs, passwords unwanted") << otherSettings();
    AppSettings busy = fullSettings();
    busy.jobs[0].nextRun = utc("2024-01-02T03:04:05");
    busy.jobs[0].queued = true;
    busy.jobs[0].running = true;
    busy.jobs[0].config.acceptAnyCertificate = false;
    QTest::newRow("job that is running") << busy;
    AppSettings bare;
    bare.jobs.resize(1);
    bare.jobs[0].rules.clear();
    bare.jobs[0].config.remoteDir.clear();
    QTest::newRow("everything empty") << bare;
}

void tst_AppSettings::theFileHasExactlyTheKeysOfTheFormat()
{
    QFETCH(AppSettings, settings);
    settings.save();
    const int jobs = int(settings.jobs.size());
    QCOMPARE(sorted(keysOf(store->read())), expectedKeys(jobs));
    QCOMPARE(rawValue(store->read(), "size"), QByteArray::number(jobs));
}

void tst_AppSettings::valuesAreWritten_data()
{
    QTest::addColumn<QByteArray>("key");
    QTest::addColumn<QByteArray>("value");

    const auto row = [](const char *key, const char *value) {
        QTest::newRow(key) << QByteArray(key) << QByteArray(value);
    };
    row("savePasswords", "true");
    row("runOnStart", "true");
    row("minimiseToTray", "false");
    row("verbose", "true");
    row("checkForUpdates", "false");
    row("updateEndpoint", "\"https://updates.example/kelp?x=1&y=a,b;c\"");
    row("skippedVersion", "2.0.1");
    row("1\\name", "Night archive");
    row("1\\enabled", "false");
    row("1\\host", "ftp.example");
    row("1\\port", "2121");
    row("1\\user", "kim");
    row("1\\useTls", "true");
    row("1\\timeout", "45");
    row("1\\remoteDir", "/pub/a b");
    row("1\\localDir", "/home/kim/archive");
    row("1\\excludes", "\"*.tmp;Thumbs.db\"");
    row("1\\recursive", "false");
    row("1\\deleteExtraneous", "true");
    row("1\\syncMode", "2");
    row("1\\compareBy", "1");
    row("1\\scheduleMode", "1");
    row("1\\intervalMins", "90");
    row("1\\rules", "31:524224:0+30, 96:8388608:5");
    row("1\\lastSummary", "3 downloaded");
    row("1\\lastOk", "false");
    row("2\\name", "Plain");
    row("2\\enabled", "true");
    row("2\\host", "");
    row("2\\port", "21");
    row("2\\user", "");
    row("2\\password", "");
    row("2\\useTls", "false");
    row("2\\timeout", "30");
    row("2\\remoteDir", "/");
    row("2\\localDir", "");
    row("2\\excludes", "");
    row("2\\recursive", "true");
    row("2\\deleteExtraneous", "false");
    row("2\\syncMode", "0");
    row("2\\compareBy", "0");
    row("2\\scheduleMode", "0");
    row("2\\intervalMins", "60");
    row("2\\rules", "127:16777215:0");
    row("2\\lastSummary", "");
    row("2\\lastOk", "true");
}

void tst_AppSettings::valuesAreWritten()
{
    QFETCH(QByteArray, key);
    fullSettings().save();
    QTEST(rawValue(store->read(), key), "value");
}

void tst_AppSettings::datesAreWritten()
{
    fullSettings().save();
    const QSettings file(store->filePath(), QSettings::IniFormat);
    const auto stored = [&file](const char *key) { return file.value(QLatin1String(key)); };
    QCOMPARE(stored("lastUpdateCheck").typeId(), int(QMetaType::QDateTime));
    QCOMPARE(stored("lastUpdateCheck").toDateTime(), utc("2024-02-03T04:05:06.789"));
    QCOMPARE(stored("jobs/1/lastRun").typeId(), int(QMetaType::QDateTime));
    QCOMPARE(stored("jobs/1/lastRun").toDateTime(), utc("2024-01-02T03:04:05.678"));
    QVERIFY(!stored("jobs/2/lastRun").toDateTime().isValid());
}

void tst_AppSettings::deletedJobsAndUnknownKeysDisappear()
{
    store->write("[jobs]\n"
                 "1\\name=first\n1\\colour=red\n1\\sub\\key=1\n1\\daily=true\n1\\days=1\n"
                 "2\\name=second\n2\\host=gone.example\n3\\name=third\n9\\name=beyond the size\n"
                 "comment=none of a job's\nsize=3\n");
    AppSettings settings = loaded();
    QCOMPARE(settings.jobs.size(), 3);
    settings.jobs.remove(1, 2);
    settings.save();

    QCOMPARE(sorted(keysOf(store->read())), expectedKeys(1));
    QCOMPARE(rawValue(store->read(), "1\\name"), "first");
    QVERIFY(!store->read().contains("gone.example"));

    settings.jobs.clear();
    settings.save();
    QCOMPARE(sorted(keysOf(store->read())), expectedKeys(0));
    QCOMPARE(rawValue(store->read(), "size"), "0");
}

void tst_AppSettings::foreignKeysSurvive()
{
    store->write("[General]\n"
                 "geometry=@ByteArray(\\x1\\xd9\\xd0\\xcb\\0\\x3)\n"
                 "language=en\n"
                 "verbose=true\n\n"
                 "[other]\njobs\\1\\name=not ours\nlist=a, b\n\n" +
                 oneJobFile(u"name=alpha"_s));
    AppSettings settings = loaded();
    settings.verbose = false;
    settings.save();

    const QByteArray file = store->read();
    QCOMPARE(rawValue(file, "geometry"), "@ByteArray(\\x1\\xd9\\xd0\\xcb\\0\\x3)");
    QCOMPARE(rawValue(file, "language"), "en");
    QCOMPARE(rawValue(file, "jobs\\1\\name"), "not ours");
    QCOMPARE(rawValue(file, "list"), "a, b");
    QCOMPARE(rawValue(file, "verbose"), "false");
    QCOMPARE(sorted(keysOf(file)), sorted(expectedKeys(1) << u"General/geometry"_s << u"General/language"_s
                                                          << u"other/jobs\\1\\name"_s << u"other/list"_s));
}

void tst_AppSettings::savingChangesNothingInMemory()
{
    for (AppSettings settings : {fullSettings(), otherSettings()}) {
        settings.jobs[0].config.password = u"secret"_s;
        settings.jobs[0].config.timeout = 45999;
        settings.jobs[0].running = true;
        const QStringList before = describe(settings);
        settings.save();
        QCOMPARE(describe(settings), before);
    }
}

void tst_AppSettings::everythingSurvivesTheFile()
{
    AppSettings settings = fullSettings();
    QVERIFY(!QFile::exists(store->filePath()));
    settings.save();
    QCOMPARE(describe(loaded()), describe(settings));

    const QByteArray file = store->read();
    settings.save();
    loaded().save();
    QCOMPARE(store->read(), file);

    settings.jobs[0].nextRun = utc("2024-01-02T03:04:05");
    settings.jobs[0].queued = true;
    settings.jobs[0].running = true;
    settings.jobs[0].config.acceptAnyCertificate = false;
    settings.save();
    QCOMPARE(store->read(), file);
    QCOMPARE(describe(loaded()), describe(fullSettings()));
}

void tst_AppSettings::textsSurviveTheFile_data()
{
    QTest::addColumn<QString>("text");

    QTest::newRow("blanks around") << u"  two  words  "_s;
    QTest::newRow("quotes") << u"\"a\" 'b' \"\""_s;
    QTest::newRow("signs of the format") << u"a=b, [c] # d ; e % f"_s;
    QTest::newRow("percent signs") << u"%1 %20 100%"_s;
    QTest::newRow("backslashes") << uR"(C:\new\x41 \\server\share\)"_s;
    QTest::newRow("line breaks") << u"one\ntwo\r\nthree\tfour"_s;
    QTest::newRow("at signs") << u"@ByteArray(x)"_s;
    QTest::newRow("two at signs") << u"@@Invalid()"_s;
    QTest::newRow("Unicode") << u"Ölhafen ☂ Привет 日本"_s;
    QTest::newRow("beyond 16 bits") << u"🐟 𝄞"_s;
    QTest::newRow("composed and decomposed") << u"\u00e9 e\u0301"_s;
    QTest::newRow("right to left") << u"שלום"_s;
    QTest::newRow("hexadecimal digits behind an escape") << u"\u0001abc"_s;
    QTest::newRow("NUL") << u"a\0b"_s;
    QTest::newRow("number") << u"0123"_s;
    QTest::newRow("truth") << u"false"_s;
    QTest::newRow("lone comma") << u","_s;
    QTest::newRow("long") << QString(20000, u'x');
}

void tst_AppSettings::textsSurviveTheFile()
{
    QFETCH(QString, text);
    AppSettings settings;
    settings.updateEndpoint = text;
    settings.skippedVersion = text;
    settings.jobs.resize(1);
    SyncJob &job = settings.jobs[0];
    job.name = text;
    job.config.host = text;
    job.config.user = text;
    job.config.password = text;
    job.config.remoteDir = text;
    job.config.localDir = text;
    job.lastSummary = text;
    settings.save();
    QCOMPARE(describe(loaded()), describe(settings));
}

void tst_AppSettings::timesSurviveTheFile_data()
{
    QTest::addColumn<QDateTime>("when");

    QTest::newRow("none") << QDateTime();
    QTest::newRow("local") << QDateTime(QDate(2024, 7, 1), QTime(12, 34, 56, 789));
    QTest::newRow("UTC") << utc("2024-07-01T12:34:56.789");
    QTest::newRow("some other zone's")
        << QDateTime(QDate(2024, 7, 1), QTime(12, 34), QTimeZone("Australia/Lord_Howe"));
    QTest::newRow("by an offset") << utc("2024-07-01T12:34:56").toOffsetFromUtc(-12600);
    QTest::newRow("first time round in autumn") << utc("2026-10-25T00:30:00");
    QTest::newRow("second time round in autumn") << utc("2026-10-25T01:30:00");
    QTest::newRow("before the epoch") << utc("1961-02-03T04:05:06.007");
    QTest::newRow("beyond 2038") << utc("2099-12-31T23:59:59.999");
}

void tst_AppSettings::timesSurviveTheFile()
{
    const LocalZone withSummerTime("Europe/Berlin");
    QFETCH(QDateTime, when);
    AppSettings settings;
    settings.lastUpdateCheck = when;
    settings.jobs.resize(1);
    settings.jobs[0].name = u"alpha"_s;
    settings.jobs[0].lastRun = when;
    settings.save();
    const QStringList saved = describe(settings);
    const LocalZone onTheMove("America/New_York");
    const AppSettings back = loaded();
    QCOMPARE(describe(back), saved);
    // Both are shown to the user, so they are told by his clock.
    QCOMPARE(back.lastUpdateCheck.timeSpec(), Qt::LocalTime);
    QCOMPARE(back.jobs.constFirst().lastRun.timeSpec(), Qt::LocalTime);
}

void tst_AppSettings::excludesSurviveTheFile_data()
{
    QTest::addColumn<QStringList>("excludes");
    QTest::addColumn<QStringList>("read");

    const auto row = [](const char *what, const QStringList &excludes, const QStringList &read) {
        QTest::newRow(what) << excludes << read;
    };
    row("none", {}, {});
    row("one", {u"*.tmp"_s}, {u"*.tmp"_s});
    row("several", {u"*.tmp"_s, u"[ab]?,c"_s, u" x "_s}, {u"*.tmp"_s, u"[ab]?,c"_s, u" x "_s});
    row("the same twice", {u"a"_s, u"a"_s}, {u"a"_s, u"a"_s});
    row("empty ones are dropped", {u""_s, u"a"_s, u""_s, u"b"_s}, {u"a"_s, u"b"_s});
    row("one with a separator falls apart", {u"a;b"_s, u"c"_s}, {u"a"_s, u"b"_s, u"c"_s});
}

void tst_AppSettings::excludesSurviveTheFile()
{
    QFETCH(QStringList, excludes);
    AppSettings settings;
    settings.jobs.resize(1);
    settings.jobs[0].config.excludes = excludes;
    settings.save();
    const AppSettings back = loaded();
    QCOMPARE(back.jobs.size(), 1);
    QTEST(back.jobs.constFirst().config.excludes, "read");
}

void tst_AppSettings::rulesSurviveTheFile_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QStringList>("rules");
    QTest::addColumn<QStringList>("read");

    const QString office = u"31:524224:0+30"_s;
    const QString weekend = u"96:8388608:5"_s;
    const QString usual = u"127:16777215:0"_s;
    const QString never = u"0:0:0"_s;
    const auto row = [](const char *what, int mode, const QStringList &rules, const QStringList &read) {
        QTest::newRow(what) << mode << rules << read;
    };
    row("one", 1, {office}, {office});
    row("two", 1, {office, weekend}, {office, weekend});
    row("three", 1, {weekend, office, usual}, {weekend, office, usual});
    row("kept in interval mode", 0, {office, weekend}, {office, weekend});
    row("one kept in interval mode", 0, {office}, {office});
    row("kept in an unknown mode", 7, {office}, {office});
    row("unusable ones are kept", 1, {never, office}, {never, office});
    row("none becomes the default", 1, {}, {usual});
    row("none becomes the default in interval mode", 0, {}, {usual});
}

void tst_AppSettings::rulesSurviveTheFile()
{
    QFETCH(int, mode);
    QFETCH(QStringList, rules);
    QFETCH(QStringList, read);
    AppSettings settings;
    settings.jobs.resize(1);
    SyncJob &job = settings.jobs[0];
    job.name = u"alpha"_s;
    job.scheduleMode = mode;
    job.rules.clear();
    for (const QString &rule : rules)
        job.rules << ScheduleRule::fromStorage(rule);
    settings.save();

    const AppSettings back = loaded();
    QCOMPARE(back.jobs.size(), 1);
    QCOMPARE(describe(back.jobs.constFirst()), with(describe(job), {u"rules: "_s + read.join(u'|')}));
}

void tst_AppSettings::timeOutsAreSecondsInTheFile_data()
{
    QTest::addColumn<int>("milliseconds");
    QTest::addColumn<QByteArray>("seconds");
    QTest::addColumn<int>("read");

    QTest::newRow("whole") << 45000 << QByteArray("45") << 45000;
    QTest::newRow("cut") << 45999 << QByteArray("45") << 45000;
    QTest::newRow("below a second") << 999 << QByteArray("0") << 0;
    QTest::newRow("none") << 0 << QByteArray("0") << 0;
    QTest::newRow("negative, cut towards 0") << -1999 << QByteArray("-1") << -1000;
    QTest::newRow("largest") << kMaxInt << QByteArray("2147483") << 2147483000;
    // From here on only the file could say so.
    QTest::newRow("a second too large") << -1 << QByteArray("2147484") << kMaxInt;
    QTest::newRow("largest number") << -1 << QByteArray("2147483647") << kMaxInt;
    QTest::newRow("beyond 32 bits") << -1 << QByteArray("4294967326") << kMaxInt;
    QTest::newRow("beyond all bits") << -1 << QByteArray("9223372036854775807") << kMaxInt;
    QTest::newRow("milliseconds by mistake") << -1 << QByteArray("30000000") << kMaxInt;
}

void tst_AppSettings::timeOutsAreSecondsInTheFile()
{
    QFETCH(int, milliseconds);
    QFETCH(QByteArray, seconds);
    QFETCH(int, read);
    if (read == kMaxInt) {
        store->write(oneJobFile(u"timeout="_s + QString::fromLatin1(seconds)));
    } else {
        AppSettings settings;
        settings.jobs.resize(1);
        settings.jobs[0].config.timeout = milliseconds;
        settings.save();
        QCOMPARE(rawValue(store->read(), "1\\timeout"), seconds);
    }
    AppSettings back = loaded();
    QCOMPARE(back.jobs.size(), 1);
    QCOMPARE(back.jobs.constFirst().config.timeout, read);
    back.save();
    QCOMPARE(rawValue(store->read(), "1\\timeout"), QByteArray::number(read / 1000));
}

void tst_AppSettings::passwordsAreNeverInClear_data()
{
    QTest::addColumn<QString>("password");

    QTest::newRow("word") << u"secret"_s;
    QTest::newRow("one character") << u"q"_s;
    QTest::newRow("with blanks") << u" open sesame "_s;
    QTest::newRow("Unicode") << u"Passwörter ☂ пароль 🐟"_s;
    QTest::newRow("looks scrambled") << u"c2VjcmV0"_s;
    QTest::newRow("signs of the format") << u"a=b;c,\"d\"\\x41%1"_s;
    QTest::newRow("control characters") << u"\u0001\n\t\u007f"_s;
    QTest::newRow("NUL") << u"a\0b\0"_s;
    QTest::newRow("long") << QString(1000, u'z') + u"ä"_s;
}

void tst_AppSettings::passwordsAreNeverInClear()
{
    QFETCH(QString, password);
    const QByteArray form = scrambledForm(*store, password);
    const QByteArray file = store->read();
    if (password.size() > 1)
        QVERIFY(!file.contains(password.toUtf8()));
    QVERIFY(!file.contains(password.toUtf8().toBase64()));
    QVERIFY(form != password.toUtf8());

    const auto decoded = QByteArray::fromBase64Encoding(form, QByteArray::AbortOnBase64DecodingErrors);
    QVERIFY(decoded);
    QCOMPARE(decoded.decoded.toBase64(), form);
    QCOMPARE(decoded.decoded.size(), password.toUtf8().size());

    const AppSettings back = loaded();
    QCOMPARE(back.jobs.size(), 1);
    QCOMPARE(back.jobs.constFirst().config.password, password);
}

void tst_AppSettings::theMaskDependsOnThePositionAlone()
{
    constexpr int length = 600;
    const auto maskBy = [this](const QByteArray &password) {
        QByteArray mask = QByteArray::fromBase64(scrambledForm(*store, QString::fromLatin1(password)));
        for (qsizetype i = 0; i < mask.size(); ++i)
            mask[i] = char(mask.at(i) ^ password.at(i));
        return mask;
    };
    const QByteArray mask = maskBy(QByteArray(length, 'a'));
    QCOMPARE(mask.size(), length);
    QCOMPARE(maskBy(QByteArray(length, '~')), mask);
    QCOMPARE(maskBy("secret"), mask.first(6));
    QCOMPARE(maskBy("0123456789"), mask.first(10));
    QVERIFY2(QByteArray(mask).replace(mask.first(1), QByteArray()).size() > length / 2,
             "nearly the same throughout");
    QCOMPARE(scrambledForm(*store, QString()), QByteArray());

    // Bytes are masked, not characters.
    const QByteArray umlauts = u"äöü"_s.toUtf8();
    QByteArray unmasked = QByteArray::fromBase64(scrambledForm(*store, u"äöü"_s));
    for (qsizetype i = 0; i < unmasked.size(); ++i)
        unmasked[i] = char(unmasked.at(i) ^ mask.at(i));
    QCOMPARE(unmasked, umlauts);
}

void tst_AppSettings::passwordsAreNotSavedIfUnwanted()
{
    AppSettings settings = fullSettings();
    settings.save();
    const QByteArray form = rawValue(store->read(), "1\\password");
    QVERIFY(!form.isEmpty());

    settings.savePasswords = false;
    settings.save();
    const QByteArray file = store->read();
    QCOMPARE(rawValue(file, "savePasswords"), "false");
    QCOMPARE(rawValue(file, "1\\password"), "");
    QCOMPARE(rawValue(file, "2\\password"), "");
    QVERIFY(!file.contains(form));
    QCOMPARE(settings.jobs.constFirst().config.password, u"pä$$ wörd"_s);

    settings.savePasswords = true;
    settings.save();
    QCOMPARE(rawValue(store->read(), "1\\password"), form);
}

void tst_AppSettings::passwordsAreNotReadIfUnwanted()
{
    fullSettings().save();
    const QByteArray form = rawValue(store->read(), "1\\password");
    // The option counts wherever it stands in the file.
    const QByteArray file = "[jobs]\n1\\name=alpha\n1\\password=" + form + "\n2\\password=" + form +
                            "\nsize=2\n\n[General]\nsavePasswords=";
    store->write(file + "true\n");
    AppSettings settings = loaded();
    QCOMPARE(settings.jobs.size(), 2);
    QCOMPARE(settings.jobs.at(0).config.password, u"pä$$ wörd"_s);
    QCOMPARE(settings.jobs.at(1).config.password, u"pä$$ wörd"_s);

    store->write(file + "false\n");
    settings.load();
    QCOMPARE(settings.jobs.size(), 2);
    QCOMPARE(settings.jobs.at(0).name, u"alpha"_s);
    QCOMPARE(settings.jobs.at(0).config.password, QString());
    QCOMPARE(settings.jobs.at(1).config.password, QString());
    QVERIFY(store->read().contains(form));
    settings.save();
    QVERIFY(!store->read().contains(form));
    QCOMPARE(rawValue(store->read(), "1\\password"), "");
}

void tst_AppSettings::damagedPasswordsReadAsSomeText_data()
{
    QTest::addColumn<QByteArray>("stored");
    QTest::newRow("no Base64") << QByteArray("!!!");
    QTest::newRow("cut short") << QByteArray("c2VjcmV");
    QTest::newRow("padding in the middle") << QByteArray("c2=Vj==cmV0");
    QTest::newRow("bytes that are no UTF-8") << QByteArray(64, '/');
    QTest::newRow("other letters") << QByteArray("\xc3\xa4\xe2\x98\x82");
    QTest::newRow("list") << QByteArray("c2Vj, cmV0");
    QTest::newRow("damaged value") << QByteArray("@Variant(\\0\\0)");
    QTest::newRow("bytes") << QByteArray("@ByteArray(c2VjcmV0)");
}

void tst_AppSettings::damagedPasswordsReadAsSomeText()
{
    QFETCH(QByteArray, stored);
    store->write(
        oneJobFile(u"name=alpha\npassword="_s + QString::fromUtf8(stored) + u"\nuser=kim\nport=2121"_s));
    AppSettings settings = loaded();
    QCOMPARE(settings.jobs.size(), 1);
    const QString password = settings.jobs.constFirst().config.password;
    QCOMPARE(describe(settings.jobs.constFirst()),
             with(describe(SyncJob()),
                  {u"name: alpha"_s, u"user: kim"_s, u"port: 2121"_s, u"password: "_s + password}));
    // Whatever it was read as, it is that from now on.
    settings.save();
    QCOMPARE(describe(loaded()), describe(settings));
}

void tst_AppSettings::oddSizesDoNoHarm_data()
{
    QTest::addColumn<QByteArray>("jobs");
    QTest::addColumn<int>("fewest");
    QTest::addColumn<int>("most");

    const QByteArray two = "1\\name=alpha\n2\\host=beta\n";
    const int sane = 100000;
    QTest::newRow("right") << two + "size=2\n" << 2 << 2;
    QTest::newRow("too small") << two + "size=1\n" << 1 << 1;
    QTest::newRow("none") << two + "size=0\n" << 0 << 0;
    QTest::newRow("missing") << two << 0 << 0;
    QTest::newRow("empty") << two + "size=\n" << 0 << 0;
    QTest::newRow("no number") << two + "size=many\n" << 0 << 0;
    QTest::newRow("negative") << two + "size=-1\n" << 0 << 0;
    QTest::newRow("smallest") << two + "size=-2147483648\n" << 0 << 0;
    QTest::newRow("a few jobs without keys") << two + "size=7\n" << 7 << 7;
    QTest::newRow("no keys at all") << QByteArray("size=3\n") << 3 << 3;
    QTest::newRow("a hole in the middle") << two + "5\\name=epsilon\nsize=5\n" << 5 << 5;
    QTest::newRow("a million") << two + "size=1000000\n" << 2 << sane;
    QTest::newRow("a last job far up") << two + "3000\\name=omega\nsize=3000\n" << 3 << 3000;
    QTest::newRow("a job beyond a large size") << two + "3000\\name=beyond\nsize=2000\n" << 2 << 2000;
    QTest::newRow("two milliards") << two + "size=2000000000\n" << 2 << sane;
    QTest::newRow("largest") << two + "size=2147483647\n" << 2 << sane;
    QTest::newRow("largest, no keys at all") << QByteArray("size=2147483647\n") << 0 << sane;
    QTest::newRow("largest, and a last job") << two + "2147483647\\name=omega\nsize=2147483647\n"
                                             << 2 << sane;
    QTest::newRow("largest, and odd groups")
        << two + "-5\\name=x\nx\\name=x\n99999999999\\name=x\nsize=2147483647\n"
        << 2 << sane;
    // Beyond 32 bits the number is what QVariant makes of it.
    QTest::newRow("beyond 32 bits") << two + "size=99999999999999\n" << 0 << sane;
}

void tst_AppSettings::oddSizesDoNoHarm()
{
    QFETCH(QByteArray, jobs);
    QFETCH(int, fewest);
    QFETCH(int, most);
    store->write("[jobs]\n" + jobs);

    const AppSettings settings = loaded();
    QVERIFY2(settings.jobs.size() >= fewest && settings.jobs.size() <= most,
             qPrintable(QString::number(settings.jobs.size())));
    QCOMPARE(firstOddity(settings), QString());
    if (jobs.startsWith("1\\name") && settings.jobs.size() >= 2) {
        QCOMPARE(settings.jobs.at(0).name, u"alpha"_s);
        QCOMPARE(settings.jobs.at(1).name, u"Job 2"_s);
        QCOMPARE(settings.jobs.at(1).config.host, u"beta"_s);
    }
    for (const SyncJob &job : settings.jobs)
        QVERIFY(job.name != u"beyond"_s);
    if (jobs.contains("omega"))
        QCOMPARE(settings.jobs.constLast().name, u"omega"_s);
    if (settings.jobs.size() >= 3) {
        QCOMPARE(describe(settings.jobs.at(2)), with(describe(SyncJob()), {u"name: Job 3"_s}));
    }
}

void tst_AppSettings::aFileCutAnywhereIsRead()
{
    fullSettings().save();
    const QByteArray whole = store->read();
    AppSettings settings;
    for (qsizetype length = whole.size(); length >= 0; --length) {
        QVERIFY(QFile::resize(store->filePath(), length));
        settings.load();
        QCOMPARE(firstOddity(settings), QString());
        QVERIFY(settings.jobs.size() <= 2);
    }
    QCOMPARE(describe(settings), describe(AppSettings()));
}

void tst_AppSettings::aFileWithAWrongByteIsRead()
{
    fullSettings().save();
    const QByteArray whole = store->read();
    QRandomGenerator random(42);
    AppSettings settings;
    for (int round = 0; round < 1000; ++round) {
        QByteArray damaged = whole;
        for (int wrong = random.bounded(1, 4); wrong > 0; --wrong)
            damaged[random.bounded(damaged.size())] = char(random.bounded(256));
        // Longer each time, for a file whose length and age are known is not read again.
        damaged += "\n;" + QByteArray(round, 'x');
        QFile file(store->filePath());
        QVERIFY(file.open(QIODevice::ReadWrite));
        QCOMPARE(file.write(damaged), damaged.size());
        file.close();
        settings.load();
        QVERIFY2(firstOddity(settings).isEmpty(), damaged.toPercentEncoding().constData());
        QVERIFY2(settings.jobs.size() <= 100000, damaged.toPercentEncoding().constData());
    }
}

void tst_AppSettings::unsafeLinesAreTakenOut_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<bool>("isKept");
    const auto row = [](const char *what, const char *line, bool isKept) {
        QTest::newRow(what) << QByteArray(line) << isKept;
    };
    const bool kept = true;
    const bool dropped = false;

    row("date", "a=@DateTime(\\0\\0\\0\\x10\\0\\0\\0\\0\\0\\0%\\x8b\\0\\xbe\\xb7\\x1a\\x1)", kept);
    row("quoted date", "a=\"@DateTime(\\0\\0\\0\\x10\\0,\\0\\0\\0\\0\\0%\\x8b\\0\\xbe\\xb7\\x1a\\x1)\"",
        kept);
    row("time", "a=@Variant(\\0\\0\\0\\xf\\x3\\x1c\\x82@)", kept);
    row("bytes", "a=@ByteArray(\\x1\\xd9)", kept);
    row("masked mark", "a=@@Variant(x)", kept);
    row("mark within a text", "a=b@Variant(x)", kept);
    row("mark behind a comma of a text", "a=\"b, @Variant(x)\"", kept);
    row("mark behind an equals sign", "a=b=@Variant(x)", kept);
    row("mark as a key", "@Variant(x)=a", kept);
    row("no line of values", "[@Variant(x)]", kept);

    row("polygon", "a=@DateTime(\\0\\0\\0V\\xff\\xff\\xff\\xff)", dropped);
    row("list", "a=@Variant(\\0\\0\\0\\t\\xff\\xff\\xff\\xff)", dropped);
    row("list of texts", "a=@Variant(\\0\\0\\0\\v\\xff\\xff\\xff\\xff)", dropped);
    row("large type", "a=@DateTime(\\x1\\0\\0\\x10\\0)", dropped);
    row("cut type", "a=@DateTime(\\0\\0)", dropped);
    row("blanks in front", "a= \t@Variant(x)", dropped);
    row("quoted", "a=\"@Variant(x)\"", dropped);
    row("in a list", "a=b, @Variant(x), c", dropped);
    row("behind a quoted part", "a=\"b\", @Variant(x)", dropped);
    row("quoted in a list", "a=b, \"@Variant(x)\"", dropped);
    row("behind empty quotes", "a=\"\" @Variant(x)", dropped);
    row("quotes within the mark", "a=@Var\"iant(x)\"", dropped);
    row("mark in hexadecimal", "a=\\x40Variant(x)", dropped);
    row("mark in octal", "a=\\100DateTime(x)", dropped);
    row("mark in more than 16 bits", "a=\\x10040Variant(x)", dropped);
    row("escape that stands for nothing", "a=@Va\\riant(x)\\z, @Va\\zriant(x)", dropped);
    row("key with an equals sign", "\\=a=@Variant(x)", dropped);
    row("equals sign in a quoted key", "\"=b=\"=@Variant(x)", dropped);
    row("type in octal", "a=@DateTime(\\0\\0\\0\\126\\xff)", dropped);
    row("continued", "a=\\\n@Variant(x)", dropped);
    row("continued within the mark", "a=@Var\\\r\niant(x)", dropped);

    row("date in octal", "a=@DateTime(\\0\\0\\0\\20\\0)", kept);
    row("text that continues", "a=\"b\n@Variant(x)\nc=@Variant(x)\"", kept);
    row("comment", "; a=@Variant(x)", kept);
    row("comment behind a value", "a=1;b=@Variant(x)", kept);
}

void tst_AppSettings::unsafeLinesAreTakenOut()
{
    QFETCH(const QByteArray, line);
    QFETCH(const bool, isKept);
    for (const QByteArray lineEnd : {"\n", "\r\n"}) {
        const QByteArray before = "[General]" + lineEnd + "; \"a comment" + lineEnd + "x=\"1;2\"" + lineEnd;
        const QByteArray after = "y=2" + lineEnd + "[jobs]" + lineEnd + "size=1";
        const QByteArray safe = withoutUnsafeLines(before + line + lineEnd + after);
        QCOMPARE(safe, before + (isKept ? line + lineEnd : QByteArray()) + after);
        QCOMPARE(withoutUnsafeLines(safe), safe);
    }
    QCOMPARE(withoutUnsafeLines(line), isKept ? line : QByteArray());
}

void tst_AppSettings::whatComesWithAnUnsafeLineStays_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("safe");
    QTest::newRow("old line ends") << QByteArray("x=1\ra=@Variant(x)\ry=2\r") << QByteArray("x=1\ry=2\r");
    QTest::newRow("comment") << QByteArray("a=@Variant(x);@Variant(x)\ny=2")
                             << QByteArray(";@Variant(x)\ny=2");
    QTest::newRow("quote without an end") << QByteArray("a=\"@Variant(x)\nx=1\n") << QByteArray("x=1\n");
    QTest::newRow("quotes without an end")
        << QByteArray("a=\"@Variant(x)\nx=1\nb=\"@Variant(x)\ny=2") << QByteArray("x=1\ny=2");
}

void tst_AppSettings::whatComesWithAnUnsafeLineStays()
{
    QFETCH(const QByteArray, text);
    QFETCH(const QByteArray, safe);
    QCOMPARE(withoutUnsafeLines(text), safe);
    QCOMPARE(withoutUnsafeLines(safe), safe);
}

void tst_AppSettings::anUnsafeFileIsReadAndMended()
{
    const QByteArray unsafe = "1\\lastRun=@DateTime(\\0\\0\\0V\\xff\\xff\\xff\\xff)\n";
    const QByteArray before = "[General]\nverbose=true\n[jobs]\n1\\name=alpha\n";
    const QByteArray after = "1\\host=ftp.example\nsize=1\n";
    store->write(before + unsafe + after);
    const AppSettings settings = loaded();
    QVERIFY(settings.verbose);
    QCOMPARE(settings.jobs.size(), 1);
    QCOMPARE(describe(settings.jobs.at(0)),
             with(describe(SyncJob()), {u"name: alpha"_s, u"host: ftp.example"_s, u"lastRun: invalid"_s}));
    QCOMPARE(store->read(), before + after);
}

void tst_AppSettings::rubbishIsRead_data()
{
    QTest::addColumn<QByteArray>("file");

    QTest::newRow("empty") << QByteArray();
    QTest::newRow("a line break") << QByteArray("\n");
    QTest::newRow("zeros") << QByteArray(4096, '\0');
    QTest::newRow("all bits set") << QByteArray(4096, '\xff');
    QTest::newRow("one endless line") << QByteArray(1000000, 'x');
    QTest::newRow("open bracket") << QByteArray("[");
    QTest::newRow("brackets") << QByteArray(10000, '[');
    QTest::newRow("only equals signs") << QByteArray(1000, '=') + '\n';
    QTest::newRow("open quote") << QByteArray("[jobs]\n1\\name=\"never closed\nsize=1\n");
    QTest::newRow("open bracket of a value") << QByteArray("[jobs]\n1\\lastRun=@DateTime(\\0\nsize=1\n");
    QTest::newRow("lone escapes") << QByteArray("[jobs]\nsize=1\n1\\name=\\x\\\\\\q\\\n");
    QTest::newRow("key beyond the sections") << QByteArray("[jobs]\nsize\\1\\1\\1\\1=1\nsize=1\n");
    QTest::newRow("UTF-16") << QByteArray("\xff\xfe[\0j\0o\0b\0s\0]\0\n\0", 16);
    QTest::newRow("a section for each job")
        << QByteArray("[jobs\\1]\nname=x\n[jobs]\nsize=1\n[jobs]\nsize=1\n");
    QTest::newRow("page of the web") << QByteArray("<!DOCTYPE html><html><body a=b>\n[x]</body></html>");
    QRandomGenerator random(1);
    for (const int length : {1, 10, 100, 1000, 10000, 100000}) {
        QByteArray bytes(length, '\0');
        for (char &byte : bytes)
            byte = char(random.bounded(256));
        QTest::addRow("%d random bytes", length) << bytes;
        QTest::addRow("%d random bytes in a job", length) << "[jobs]\nsize=1\n1\\name=" + bytes;
        QTest::addRow("%d random bytes in a list of rules", length)
            << "[jobs]\nsize=1\n1\\scheduleMode=1\n1\\rules=\"" + bytes + "\"\n";
    }
    for (const QByteArray kind :
         {"Variant", "DateTime", "ByteArray", "String", "Rect", "Point", "Size", "Nonsense"}) {
        QByteArray file = "[General]\nlastUpdateCheck=@" + kind + "(\\xff\\xff\\xff\\xff)\nverbose=@" + kind +
                          "(\\0\\0\\0\\xf)\n[jobs]\nsize=1\n";
        for (const QString &key : kJobKeys)
            file += "1\\" + key.toLatin1() + "=@" + kind + "(\\0\\0\\0\\x10\\x7f\\xff\\xff\\xff)\n";
        QTest::addRow("every key a damaged %s", kind.constData()) << file;
    }
    QByteArray lists = "[jobs]\nsize=1\n";
    for (const QString &key : kJobKeys)
        lists += "1\\" + key.toLatin1() + "=a, b, , \"c;d\"\n";
    QTest::newRow("every key a list") << lists;
}

void tst_AppSettings::rubbishIsRead()
{
    QFETCH(QByteArray, file);
    store->write(file);
    AppSettings settings = loaded();
    QVERIFY(settings.jobs.size() <= 1);
    QCOMPARE(firstOddity(settings), QString());

    // And it can be saved over: from then on the file says what the program says.
    settings.save();
    settings.load();
    const QStringList saved = describe(settings);
    settings.save();
    QCOMPARE(describe(loaded()), saved);
}

void tst_AppSettings::othersCannotReadANewFile_data()
{
    QTest::addColumn<bool>("hasFolder");
    QTest::newRow("in its folder") << true;
    QTest::newRow("with its folder") << false;
}

void tst_AppSettings::othersCannotReadANewFile()
{
#ifdef Q_OS_UNIX
    QFETCH(bool, hasFolder);
    const QString path = store->filePath();
    if (!hasFolder)
        QVERIFY(QDir().rmdir(QFileInfo(path).path()));
    const mode_t oldMask = ::umask(0);
    const auto maskBack = qScopeGuard([oldMask] { ::umask(oldMask); });
    for (int saves = 0; saves < 2; ++saves) {
        fullSettings().save();
        QCOMPARE(modeOf(path), 0600U);
    }
    QCOMPARE(describe(loaded()), describe(fullSettings()));
#else
    QSKIP("The system has no such permissions");
#endif
}

void tst_AppSettings::anOldFileKeepsItsPermissions()
{
#ifdef Q_OS_UNIX
    store->write(oneJobFile(u"name=alpha"_s));
    QCOMPARE(::chmod(QFile::encodeName(store->filePath()).constData(), 0640), 0);
    fullSettings().save();
    QCOMPARE(modeOf(store->filePath()), 0640U);
    QCOMPARE(describe(loaded()), describe(fullSettings()));
#else
    QSKIP("The system has no such permissions");
#endif
}

void tst_AppSettings::unusableFilesAreTakenInSilence_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("a folder in its place") << u"folder"_s;
    QTest::newRow("a link to itself") << u"loop"_s;
    QTest::newRow("a link to nowhere") << u"dangling"_s;
    QTest::newRow("no folder around it") << u"no folder"_s;
    QTest::newRow("a file around it") << u"file around"_s;
    QTest::newRow("not readable") << u"unreadable"_s;
    QTest::newRow("not writable") << u"read-only"_s;
}

void tst_AppSettings::unusableFilesAreTakenInSilence()
{
    QFETCH(QString, kind);
    const QString path = store->filePath();
    const QString folder = QFileInfo(path).path();
    const QByteArray oldFile = oneJobFile(u"name=alpha"_s);
    bool readable = false;
    if (kind == u"folder"_s) {
        QVERIFY(QDir().mkpath(path + u"/inside"_s));
    } else if (kind == u"loop"_s) {
        QVERIFY(QFile::link(path, path));
    } else if (kind == u"dangling"_s) {
        QVERIFY(QFile::link(folder + u"/nowhere/at-all"_s, path));
    } else if (kind == u"no folder"_s) {
        QVERIFY(QDir().rmdir(folder));
    } else if (kind == u"file around"_s) {
        QVERIFY(QDir().rmdir(folder));
        QFile file(folder);
        QVERIFY(file.open(QIODevice::WriteOnly));
    } else {
        store->write(oldFile);
        QVERIFY(QFile::setPermissions(path, kind == u"unreadable"_s ? QFileDevice::Permissions()
                                                                    : QFileDevice::ReadOwner));
        // The administrator reads and writes everything.
        QFile file(path);
        readable = file.open(QIODevice::ReadOnly);
    }

    AppSettings settings = fullSettings();
    settings.load();
    QCOMPARE(describeOptions(settings), describeOptions(AppSettings()));
    QCOMPARE(settings.jobs.size(), readable ? 1 : 0);

    fullSettings().save();
    if (kind == u"folder"_s) {
        QVERIFY(QFileInfo(path).isDir());
        QVERIFY(QFileInfo(path + u"/inside"_s).isDir());
    } else if (kind == u"file around"_s) {
        QVERIFY(QFileInfo(folder).isFile());
        QCOMPARE(QFileInfo(folder).size(), 0);
    } else if (kind == u"no folder"_s) {
        QCOMPARE(describe(loaded()), describe(fullSettings()));
    } else if (kind == u"read-only"_s && store->read() != oldFile) {
        QCOMPARE(describe(loaded()), describe(fullSettings()));
    }
}

void tst_AppSettings::tenThousandJobsSurviveTheFile()
{
    constexpr int count = 10000;
    AppSettings settings;
    SyncJob job = fullSettings().jobs.constFirst();
    for (int i = 1; i <= count; ++i) {
        job.name = u"job "_s + QString::number(i);
        job.config.port = quint16(i);
        settings.jobs << job;
    }
    settings.save();

    const AppSettings back = loaded();
    QCOMPARE(back.jobs.size(), count);
    for (int i = 0; i < count; ++i) {
        QCOMPARE(back.jobs.at(i).name, settings.jobs.at(i).name);
        QCOMPARE(back.jobs.at(i).config.port, settings.jobs.at(i).config.port);
    }
    QCOMPARE(describe(back.jobs.constLast()), describe(settings.jobs.constLast()));

    settings.jobs.resize(1);
    settings.save();
    QCOMPARE(sorted(keysOf(store->read())), expectedKeys(1));
}

void tst_AppSettings::twoCopiesInTurnLeaveTheLatterWhole()
{
    const AppSettings full = fullSettings();
    const AppSettings other = otherSettings();
    full.save();
    const QByteArray fullFile = store->read();
    other.save();
    const QByteArray otherFile = store->read();
    QCOMPARE(describe(loaded()), describe(other));
    QCOMPARE(sorted(keysOf(otherFile)), expectedKeys(5));

    full.save();
    QCOMPARE(store->read(), fullFile);
    QCOMPARE(describe(loaded()), describe(full));
    other.save();
    QCOMPARE(store->read(), otherFile);
}

void tst_AppSettings::twoCopiesAtOnceLeaveOneOfThemWhole()
{
    const QStringList full = describe(fullSettings());
    const QStringList other = describe(otherSettings());
    fullSettings().save();

    QProcess copies[2];
    startCopy(&copies[0], *store, u"full"_s);
    startCopy(&copies[1], *store, u"other"_s);
    for (int round = 0; round < 10; ++round) {
        for (QProcess &copy : copies)
            copy.write("\n");
        for (QProcess &copy : copies) {
            while (!copy.canReadLine()) {
                const QStringList found = describe(loaded());
                if (found != full)
                    QCOMPARE(found, other);
                copy.waitForReadyRead(1);
                QVERIFY(copy.state() != QProcess::NotRunning);
            }
            QCOMPARE(copy.readLine(), "saved\n");
        }
    }
    for (QProcess &copy : copies) {
        copy.closeWriteChannel();
        QVERIFY(copy.waitForFinished());
        QCOMPARE(copy.exitStatus(), QProcess::NormalExit);
        QCOMPARE(copy.exitCode(), 0);
    }
    const QStringList last = describe(loaded());
    if (last != full)
        QCOMPARE(last, other);
    // What either has left over, the next one who saves clears away.
    fullSettings().save();
    QCOMPARE(sorted(keysOf(store->read())), expectedKeys(2));
}

void tst_AppSettings::aCopyKilledWhileSavingLeavesAWholeFile()
{
    const QStringList other = describe(otherSettings());
    for (int saves = 1; saves <= 8; ++saves) {
        init(); // the lock of a killed copy may last for half a minute
        fullSettings().save();
        QProcess copy;
        startCopy(&copy, *store, u"other"_s);
        copy.write(QByteArray(10000, '\n'));
        for (int line = 0; line < saves; ++line) {
            QVERIFY(copy.canReadLine() || copy.waitForReadyRead());
            QCOMPARE(copy.readLine(), "saved\n");
        }
        copy.kill();
        QVERIFY(copy.waitForFinished());
        QCOMPARE(describe(loaded()), other);
    }
}

void tst_AppSettings::anAbandonedLockKeepsNobodyWaiting()
{
    // What is left of a copy that was killed between making its lock and filling it.
    QFile lock(store->filePath() + u".lock"_s);
    QVERIFY(lock.open(QIODevice::WriteOnly));
    QVERIFY(lock.setFileTime(QDateTime::currentDateTime().addSecs(-5), QFileDevice::FileModificationTime));
    lock.close();
    QElapsedTimer timer;
    timer.start();
    fullSettings().save();
    QVERIFY2(timer.elapsed() < 15000, qPrintable(QString::number(timer.elapsed()))); // or half a minute
    QCOMPARE(describe(loaded()), describe(fullSettings()));
}

int main(int argc, char **argv)
{
    if (argc == 4 && qstrcmp(argv[1], kSaveOption) == 0)
        return saveOnDemand(argv);
    const TestSettings isolated;
    QGuiApplication application(argc, argv); // damaged values may be pictures
    tst_AppSettings test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_AppSettings.moc"
