#pragma once

#include <QDateTime>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QStringList>

/** What a run transfers. The values are stored and are indexes of the job editor. */
enum SyncMode : int {
    NewAndChanged = 0, ///< missing files and files that differ
    NewOnly = 1,       ///< missing files; nothing local is ever overwritten
    FullSync = 2,      ///< everything, again
};

/** When a file counts as different. The values are stored and are indexes of the job editor. */
enum CompareBy : int {
    SizeAndTimestamp = 0,
    SizeOnly = 1,
    TimestampOnly = 2,
};

/** How a job recurs. Stored; every value but 0 behaves as Rules. */
enum ScheduleMode : int {
    Interval = 0, ///< so many minutes after the end of the previous run
    Rules = 1,    ///< at the instants of the weekly rules
};

/**
 * One weekly rule: every combination of its days, hours and minutes, in local time.
 *
 * A rule without a day, an hour or a minute is not usable: it has no instants, which is no error.
 * The default is every hour on the hour, and every fall-back in the program is that default.
 */
struct ScheduleRule
{
    quint8 days = 127;        ///< bit 0 is Monday, bit 6 Sunday
    quint32 hours = 16777215; ///< bit h is hour h, 0 to 23
    QList<int> minutes = {0}; ///< 0 to 59

    bool isUsable() const { return days != 0 && hours != 0 && !minutes.isEmpty(); }

    /** Instants in a week without a clock change. */
    int runsPerWeek() const;

    /**
     * The first instant more than 30 seconds after `from`; invalid if the rule is not usable.
     *
     * On a night when the clock goes forward, an instant in the gap moves on by the length of the
     * gap. When the clock goes back, a repeated time means its first occurrence.
     */
    QDateTime nextAfter(const QDateTime &from) const;

    /** "days:hours:minute+minute", all in decimal. */
    QString toStorage() const;

    /** Never fails: fewer than three parts give the default rule, a bad mask an unusable one. */
    static ScheduleRule fromStorage(const QString &text);

    /** The rule in words, such as "Weekdays 08:30". */
    QString label() const;
};

/** All that a run needs. It reaches the worker's thread by value. */
struct MirrorConfig
{
    QString host = {};
    quint16 port = 21;
    QString user = {};
    QString password = {}; ///< in clear
    bool useTls = false;   ///< explicit FTPS, RFC 4217
    bool acceptAnyCertificate = true;
    int timeout = 30000; ///< milliseconds for a single network wait
    QString remoteDir = QStringLiteral("/");
    QString localDir = {};
    int syncMode = NewAndChanged;
    int compareBy = SizeAndTimestamp;
    bool deleteExtraneous = false; ///< delete local entries that the server no longer has
    bool recursive = true;
    QStringList excludes = {}; ///< wildcards, matched on bare names
};
Q_DECLARE_METATYPE(MirrorConfig)

/** What a run reports. It comes back from the worker's thread by value. */
struct MirrorResult
{
    bool success = false;   ///< everything was done and nothing failed
    bool cancelled = false; ///< ended because it was asked to stop
    int downloaded = 0;
    int upToDate = 0;
    int deleted = 0; ///< a folder counts once, whatever it held
    int failed = 0;
    qint64 bytes = 0;     ///< sum of the listed sizes of the downloaded files
    QString message = {}; ///< why it failed or stopped
};
Q_DECLARE_METATYPE(MirrorResult)

/** One configured job and what is known of its last run. */
struct SyncJob
{
    QString name = {};
    bool enabled = true; ///< takes part in AUTO and in "Sync All"
    MirrorConfig config = {};
    int scheduleMode = Interval;
    int intervalMins = 60;
    QList<ScheduleRule> rules = {ScheduleRule()}; ///< kept in Interval mode too

    QDateTime lastRun = {}; ///< when it ended; invalid if there was none
    QString lastSummary = {};
    bool lastOk = true;

    // State of the running program, never stored.
    QDateTime nextRun = {}; ///< invalid if AUTO will not fire the job
    bool queued = false;
    bool running = false;

    /** Whether a run has what it needs. Writes the reason to `errorOut`, which may be null, if not. */
    bool isRunnable(QString *errorOut = nullptr) const;

    /** The transfer mode in capitals, such as "NEW ONLY + PRUNE". Not translated. */
    QString syncModeLabel() const;

    /** "user@host:port", without what is empty or usual. */
    QString serverLabel() const;

    /** Whether AUTO can ever fire the job. */
    bool hasUsableSchedule() const;

    /**
     * When the job runs next, seen at `from`; invalid if never. An interval that has gone by, or
     * a job that never ran, is due at `from` itself.
     */
    QDateTime computeNextRun(const QDateTime &from) const;

    /** Up to `count` next instants. In Interval mode all of them are the first one. */
    QList<QDateTime> upcomingRuns(const QDateTime &from, int count) const;

    /** The schedule in a few words. */
    QString scheduleLabel() const;

    /** The schedule in a sentence, as the second line of a preview. */
    QString scheduleDetail() const;
};

/** Everything that outlives the program but the window's geometry. Belongs to the GUI thread. */
struct AppSettings
{
    QList<SyncJob> jobs = {};
    bool savePasswords = true; ///< no control changes it, only the file
    bool runOnStart = false;   ///< switch to AUTO on launch
    bool minimiseToTray = true;
    bool verbose = false; ///< show the protocol in the log
    bool checkForUpdates = true;
    QString updateEndpoint = {}; ///< empty means the built-in one
    QString skippedVersion = {};
    QDateTime lastUpdateCheck = {};

    /** Replaces all fields by those of the user's settings file. Never fails: what is missing gets its
     * default. */
    void load();

    /** Rewrites the user's settings file. A file that cannot be written is not reported. */
    void save() const;

    /**
     * A name for a job that no other job has, whatever the case: `base`, or `base` with a counter.
     * `ignoreIndex` is the row of the job that is being named, or -1 for a new one.
     */
    QString uniqueName(const QString &base, int ignoreIndex) const;
};

/** A number and its noun: `singular` for exactly 1, else `several`. Both come translated. */
QString pluralCount(int n, const QString &singular, const QString &several);
