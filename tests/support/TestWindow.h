#pragma once

#include "app/MainWindow.h"

#include <QColor>
#include <QList>
#include <QString>
#include <QStringList>

class QAction;
class QTableWidgetItem;

/** A line of the log as it is seen. */
struct LogLine
{
    QString stamp = {}; ///< "[2024-05-01 08:30:00]"
    QString text = {};
    QString stampColour = {}; ///< "#rrggbb"
    QString colour = {};
};

/** The columns of the job table. */
enum TableColumn : int {
    EnabledColumn,
    JobColumn,
    ServerColumn,
    ModeColumn,
    ScheduleColumn,
    NextRunColumn,
    LastResultColumn
};

/**
 * The main window in a test's hands. Its parts are found by the names of the objects and by their
 * texts alone; one that is missing ends the test program.
 */
class TestWindow : public MainWindow
{
    Q_OBJECT

public:
    /**
     * Gives the application the program's names, and lets no request leave this machine; once, and
     * before a window is made.
     */
    static void setIdentity();

    /** From here on runs are only announced; the test ends them with endRun(). */
    void takeWorkerAway();

    template <typename Part>
    Part *part(const char *name) const
    {
        auto *found = findChild<Part *>(QLatin1String(name));
        if (!found)
            qFatal("the window has no %s", name);
        return found;
    }

    QStringList menuTitles() const;
    /** The entries of a menu, a separator as null text. */
    QList<QAction *> entries(const QString &menu) const;
    void choose(const QString &menu, const QString &entry) const;
    /** Clicks a button or the check box, which must be enabled. */
    void press(const char *name) const;
    bool isPressable(const char *name) const;

    QTableWidgetItem *item(int row, int column) const;
    QString cell(int row, int column) const;
    QStringList column(int column) const; ///< from top to bottom
    void tick(int row, bool on) const;    ///< the job's check box in the table
    bool isTicked(int row) const;
    void selectJob(int row) const;

    QList<LogLine> logLines() const;
    QStringList log() const; ///< without the time stamps
    void clearLog() const;
    QString status() const;

    void invoke(const char *slot);
    void endRun(const MirrorResult &result = {.success = true});
    void sayFromWorker(const QString &message, int level);
    void announceProgress(const QString &file, qint64 done = 0, qint64 total = -1);
};

/** Jobs as a test wants them in the settings file, and what the program has made of them. */
namespace TestJobs {

/** A job that can run; nothing listens where it goes to. */
SyncJob named(const QString &name);

/** The same with a weekly rule whose next instant is two days away, or more. */
SyncJob weekly(const QString &name);

/** The same, every hour, whose last run was so many seconds ago. */
SyncJob lastRunAgo(const QString &name, qint64 seconds);

void store(const QList<SyncJob> &jobs, AppSettings options = {});
AppSettings stored();

} // namespace TestJobs
