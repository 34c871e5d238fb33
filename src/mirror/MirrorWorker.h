#pragma once

#include "model/SyncJob.h"

#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QRegularExpression>
#include <QSet>
#include <QString>

#include <atomic>
#include <memory>

class FtpClient;
struct FtpEntry;

/**
 * Carries out one mirror run or connection test at a time.
 *
 * It is meant to live on a thread of its own, since its slots block until the work is done. It
 * tells everything by signals; only requestCancel() may be called from another thread.
 */
class MirrorWorker : public QObject
{
    Q_OBJECT

public:
    explicit MirrorWorker(QObject *parent = nullptr);
    ~MirrorWorker() override;

    /**
     * Asks the run or test in progress to stop, from any thread. It takes effect after one network
     * time-out at the latest, and is forgotten when the next run or test begins.
     */
    void requestCancel();

signals:
    /** A line for the log, with its LogLevel. */
    void log(const QString &message, int level);

    /** The file in transfer and its bytes; an empty name means the one named last. `total` may be -1. */
    void progress(const QString &currentFile, qint64 done, qint64 total);

    /** Ends every run, exactly once. */
    void finished(const MirrorResult &result);

    /** 0 offline, 1 connecting, 2 connected, 3 transferring (detail: the file), 4 error (detail: why). */
    void statusChanged(int status, const QString &detail);

    /** The rate of the last quarter of a second or of a whole file, not smoothed; 0 ends a run. */
    void throughput(double bytesPerSecond);

    /** Ends every connection test, exactly once. */
    void testFinished(bool ok, const QString &message);

public slots:
    /** Brings the job's local folder into line with its remote folder. */
    void runSync(const MirrorConfig &jobConfig);

    /** Logs in and lists the remote folder, touching nothing local. */
    void testConnection(const MirrorConfig &jobConfig);

private:
    /** A folder in the middle of its walk. */
    struct Folder
    {
        QString remotePath;
        QString localPath; ///< absolute
        int depth;
        QSet<QString> keepFiles = {}; ///< names that the server has as files; only for a job that prunes
        QSet<QString> keepDirs = {};  ///< names that the server has as folders; likewise
    };

    /** How the walk of a folder goes on after an entry. */
    enum class Walk {
        Done,   ///< nothing went wrong
        Failed, ///< this entry failed, the next one follows
        Ended,  ///< stopped, or the session is lost: no further entry and no pruning
    };

    void setStatus(int status, const QString &detail = QString());
    void prepare(FtpClient *ftp, const MirrorConfig &jobConfig);
    void closeSession();
    void settleResult(bool walked);
    void onTransferProgress(qint64 received, qint64 total);
    void reportFileRate(qint64 size);

    bool mirrorDirectory(const QString &remotePath, const QString &localPath, int depth);
    Walk mirrorEntry(const FtpEntry &entry, Folder *folder);
    Walk mirrorSubfolder(const QString &remotePath, const QString &localPath, int depth);
    Walk transferFile(const FtpEntry &entry, const QString &remotePath, const QString &localPath,
                      const QString &reason);
    void removeExtraneous(const QString &localPath, const QSet<QString> &keepFiles,
                          const QSet<QString> &keepDirs);
    bool isExcluded(const QString &name) const;

    std::unique_ptr<FtpClient> client; ///< the run's session; null between runs
    MirrorConfig config = {};
    QList<QRegularExpression> excludePatterns = {}; ///< of config, compiled once per run
    MirrorResult result = {};
    QElapsedTimer rateMeter; ///< since the last throughput sample
    QElapsedTimer fileMeter; ///< since the current file's download began
    qint64 lastBytes = 0;    ///< received at the last throughput sample
    std::atomic<bool> cancelRequested = false;
};
