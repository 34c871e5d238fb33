#include "mirror/MirrorWorker.h"

#include "ftp/FtpClient.h"
#include "model/LogLevel.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>

#include <algorithm>

#if defined(Q_OS_LINUX) && QT_POINTER_SIZE == 8
#include <sys/stat.h>
#endif

using namespace Qt::StringLiterals;

namespace {

enum Status : int { kOffline = 0, kConnecting = 1, kConnected = 2, kTransferring = 3, kFailed = 4 };

constexpr int kDeepestFolder = 64; ///< the root of the mirror has depth 0
constexpr int kRateSampleMs = 250;
constexpr int kRatedFileMs = 100;         ///< a download this long has a rate of its own
constexpr qint64 kRatedFileBytes = 65536; ///< and so has a file this large
constexpr int kClockSlackSecs = 2;        ///< file systems and servers round

QList<QRegularExpression> compiledPatterns(const QStringList &wildcards)
{
    QList<QRegularExpression> patterns;
    for (const QString &wildcard : wildcards) {
        const QString trimmed = wildcard.trimmed();
        if (trimmed.isEmpty())
            continue;
        const auto pattern = QRegularExpression::fromWildcard(trimmed, Qt::CaseInsensitive);
        if (pattern.isValid())
            patterns.append(pattern);
    }
    return patterns;
}

/** Whether a name stays in the folder that it is put into, whatever the server had in mind with it. */
bool isBareName(const QString &name)
{
#ifdef Q_OS_WIN
    const QStringView separators = u"/\\:";
#else
    const QStringView separators = u"/";
#endif
    return std::none_of(name.begin(), name.end(),
                        [separators](QChar c) { return c.isNull() || separators.contains(c); });
}

QString childPath(const QString &folder, const QString &name)
{
    return folder.endsWith(u'/') ? folder + name : folder + u'/' + name;
}

/** What the disk knows of a file, all from one look at it. */
struct LocalFile
{
    bool exists = false;
    qint64 size = 0;
    QDateTime modified = {}; ///< UTC
};

LocalFile localFile(const QString &path)
{
#if defined(Q_OS_LINUX) && QT_POINTER_SIZE == 8
    // QFileInfo gives a time by way of local time, and that is two looks at the system's time zone for
    // each file of a run in which nothing has changed.
    struct stat status = {};
    if (::stat(QFile::encodeName(path).constData(), &status) != 0)
        return {};
    const qint64 msecs = status.st_mtim.tv_sec * 1000 + status.st_mtim.tv_nsec / 1000000;
    return {true, status.st_size, QDateTime::fromMSecsSinceEpoch(msecs, Qt::UTC)};
#else
    const QFileInfo local(path);
    return {local.exists(), local.size(), local.fileTime(QFileDevice::FileModificationTime).toUTC()};
#endif
}

bool isNewerOnServer(const FtpEntry &entry, const LocalFile &local)
{
    return local.modified.secsTo(entry.modified) > kClockSlackSecs;
}

/** Why a file that is there already is fetched again; empty if it counts as up to date. */
QString difference(const FtpEntry &entry, const LocalFile &local, int compareBy)
{
    const bool hasTime = entry.modified.isValid();
    if (!hasTime && entry.size < 0)
        return MirrorWorker::tr("no size or timestamp available");
    const bool bySize = compareBy == SizeAndTimestamp || compareBy == SizeOnly;
    if (bySize && entry.size >= 0 && entry.size != local.size)
        return MirrorWorker::tr("size changed");
    const bool byTime = compareBy == SizeAndTimestamp || compareBy == TimestampOnly;
    if (byTime && hasTime && isNewerOnServer(entry, local))
        return MirrorWorker::tr("newer on server");
    return {};
}

/** Why a file is fetched; empty if it counts as up to date. */
QString downloadReason(const FtpEntry &entry, const LocalFile &local, const MirrorConfig &config)
{
    if (!local.exists)
        return MirrorWorker::tr("new");
    if (config.syncMode == FullSync)
        return MirrorWorker::tr("full re-sync");
    if (config.syncMode == NewAndChanged)
        return difference(entry, local, config.compareBy);
    return {};
}

/** False also if it is gone already, unlike the function of QDir. */
bool removeFolder(const QString &path)
{
    QDir folder(path);
    return folder.exists() && folder.removeRecursively();
}

bool isLink(const QFileInfo &local) { return local.isSymbolicLink() || local.isJunction(); }

} // namespace

MirrorWorker::MirrorWorker(QObject *parent) : QObject(parent) {}

MirrorWorker::~MirrorWorker() = default;

void MirrorWorker::requestCancel() { cancelRequested.exchange(true); }

void MirrorWorker::setStatus(int status, const QString &detail) { emit statusChanged(status, detail); }

// A run and a connection test

void MirrorWorker::runSync(const MirrorConfig &jobConfig)
{
    // A run that was on its way when the program began to close must not start afresh.
    cancelRequested.exchange(QThread::currentThread()->isInterruptionRequested());
    config = jobConfig;
    excludePatterns = compiledPatterns(config.excludes);
    result = MirrorResult();
    QElapsedTimer runMeter;
    runMeter.start();

    // Behind a link, ".." leads elsewhere for the system than for who reads the path. Resolved once and
    // for all, what is filled is also what is pruned.
    const QString localRoot = QDir(config.localDir).absolutePath();
    // A path without a name would be the working directory, with whatever it holds.
    const bool hasLocalFolder =
        !config.localDir.isEmpty() && (QDir(localRoot).exists() || QDir().mkpath(localRoot));
    if (!hasLocalFolder) {
        result.message = tr("Cannot create the local folder '%1'").arg(config.localDir);
        emit log(result.message, LogError);
        emit finished(result);
        return;
    }
    emit log(tr("Mirroring ftp://%1%2 -> %3").arg(config.host, config.remoteDir, config.localDir),
             LogInformation);

    client = std::make_unique<FtpClient>();
    prepare(client.get(), config);
    rateMeter.start();
    lastBytes = 0;
    connect(client.get(), &FtpClient::transferProgress, this, &MirrorWorker::onTransferProgress);
    setStatus(kConnecting);
    if (!client->connectAndLogin(config.host, config.port, config.user, config.password)) {
        result.message = client->lastError();
        setStatus(kFailed, result.message);
        closeSession();
        emit finished(result);
        return;
    }
    setStatus(kConnected);

    const bool walked = mirrorDirectory(config.remoteDir, localRoot, 0);
    closeSession();
    emit throughput(0.0);
    // Before the message is settled, so a run that was stopped ends in an error without a text. Wanted.
    setStatus(walked && result.failed <= 0 ? kOffline : kFailed, result.message);
    settleResult(walked);

    const QString seconds = QString::number(static_cast<double>(runMeter.elapsed()) / 1000.0, 'f', 1);
    emit log(tr("Finished in %1 s - %2 downloaded, %3 up to date, %4 deleted, %5 failed (%6 KB).")
                 .arg(seconds, QString::number(result.downloaded), QString::number(result.upToDate),
                      QString::number(result.deleted), QString::number(result.failed),
                      QString::number(result.bytes / 1024)),
             LogInformation);
    emit finished(result);
}

void MirrorWorker::testConnection(const MirrorConfig &jobConfig)
{
    cancelRequested.exchange(QThread::currentThread()->isInterruptionRequested());
    FtpClient probe;
    prepare(&probe, jobConfig);
    setStatus(kConnecting);
    if (!probe.connectAndLogin(jobConfig.host, jobConfig.port, jobConfig.user, jobConfig.password)) {
        setStatus(kFailed, probe.lastError());
        emit testFinished(false, probe.lastError());
        return;
    }
    setStatus(kConnected);
    QList<FtpEntry> entries;
    const bool listed = probe.list(jobConfig.remoteDir, &entries);
    probe.close();
    if (!listed) {
        setStatus(kFailed, probe.lastError());
        emit testFinished(false, probe.lastError());
        return;
    }
    setStatus(kOffline);
    // The session is closed by now and its features are forgotten, so the text names LIST for every
    // server. Wanted, and pinned by a test: don't ask before closing.
    const QString mode = probe.supportsMlsd() ? u"MLSD"_s : u"LIST"_s;
    emit testFinished(true, tr("Connected. '%1' contains %2 item(s). Listing mode: %3.")
                                .arg(jobConfig.remoteDir, QString::number(entries.size()), mode));
}

void MirrorWorker::prepare(FtpClient *ftp, const MirrorConfig &jobConfig)
{
    ftp->setCancelFlag(&cancelRequested);
    ftp->setTimeoutMs(jobConfig.timeout);
    ftp->setTlsOptions(jobConfig.useTls, jobConfig.acceptAnyCertificate);
    connect(ftp, &FtpClient::logMessage, this,
            [this](const QString &message) { emit log(message, LogProtocol); });
}

void MirrorWorker::closeSession()
{
    client->close();
    client.reset();
}

void MirrorWorker::settleResult(bool walked)
{
    result.cancelled = cancelRequested;
    result.success = walked && !result.cancelled && result.failed == 0;
    if (result.cancelled)
        result.message = tr("Stopped at your request.");
    else if (!walked && result.message.isEmpty())
        result.message = tr("The mirror did not complete.");
}

void MirrorWorker::onTransferProgress(qint64 received, qint64 total)
{
    emit progress(QString(), received, total);
    const qint64 elapsed = rateMeter.elapsed();
    if (elapsed < kRateSampleMs)
        return;
    const qint64 delta = received - lastBytes;
    if (delta >= 0)
        emit throughput(static_cast<double>(delta) * 1000.0 / static_cast<double>(elapsed));
    lastBytes = received;
    rateMeter.restart();
}

/** Gives also those files a rate that are too short for a sample, but not those too short to tell. */
void MirrorWorker::reportFileRate(qint64 size)
{
    const qint64 elapsed = fileMeter.elapsed();
    if (elapsed < kRatedFileMs && size < kRatedFileBytes)
        return;
    emit throughput(static_cast<double>(size) * 1000.0 / static_cast<double>(std::max<qint64>(elapsed, 1)));
}

// The walk

bool MirrorWorker::mirrorDirectory(const QString &remotePath, const QString &localPath, int depth)
{
    if (cancelRequested)
        return false;
    if (depth > kDeepestFolder) {
        emit log(tr("Maximum depth reached, skipping '%1'.").arg(remotePath), LogWarning);
        return true;
    }
    // Only the user can have made such a link, but the server chooses the names that are walked, and
    // behind the link it would fetch and prune in a folder that is not its counterpart.
    const QFileInfo local(localPath);
    if (depth > 0 && isLink(local) && local.exists()) {
        emit log(tr("Not following the link '%1'.").arg(localPath), LogError);
        ++result.failed;
        return false;
    }
    if (!QDir(localPath).exists() && !QDir().mkpath(localPath)) {
        emit log(tr("Cannot create '%1'.").arg(localPath), LogError);
        ++result.failed;
        return false;
    }
    QList<FtpEntry> entries;
    if (!client->list(remotePath, &entries)) {
        result.message = client->lastError();
        emit log(tr("Cannot list '%1': %2").arg(remotePath, result.message), LogError);
        ++result.failed;
        return false;
    }

    Folder folder{remotePath, localPath, depth};
    bool succeeded = true;
    for (const FtpEntry &entry : std::as_const(entries)) {
        const Walk walk = cancelRequested ? Walk::Ended : mirrorEntry(entry, &folder);
        if (walk == Walk::Ended)
            return false;
        if (walk == Walk::Failed)
            succeeded = false;
    }
    if (!config.deleteExtraneous || cancelRequested)
        return succeeded;
    // A session that is lost while it is asked for times fails no listing, but it prunes nothing either.
    if (!client->isConnected()) {
        result.message = client->lastError();
        return false;
    }
    removeExtraneous(localPath, folder.keepFiles, folder.keepDirs);
    return succeeded;
}

MirrorWorker::Walk MirrorWorker::mirrorEntry(const FtpEntry &entry, Folder *folder)
{
    if (isExcluded(entry.name)) {
        emit log(tr("Excluded: %1").arg(entry.name), LogProtocol);
        return Walk::Done;
    }
    if (entry.isSymlink) {
        emit log(tr("Skipping symlink '%1'.").arg(entry.name), LogWarning);
        return Walk::Done;
    }
    if (!isBareName(entry.name)) {
        emit log(tr("Skipping unsafe name '%1'.").arg(entry.name), LogWarning);
        return Walk::Done;
    }
    if (config.deleteExtraneous)
        (entry.isDir ? folder->keepDirs : folder->keepFiles).insert(entry.name);
    if (entry.isDir && !config.recursive)
        return Walk::Done;
    // Not by absoluteFilePath(): that takes a name with a colon in front for one of the resources.
    const QString localChild = childPath(folder->localPath, entry.name);
    if (entry.isDir)
        return mirrorSubfolder(childPath(folder->remotePath, entry.name), localChild, folder->depth + 1);
    const QString reason = downloadReason(entry, localFile(localChild), config);
    if (reason.isEmpty()) {
        ++result.upToDate;
        return Walk::Done;
    }
    return transferFile(entry, childPath(folder->remotePath, entry.name), localChild, reason);
}

MirrorWorker::Walk MirrorWorker::mirrorSubfolder(const QString &remotePath, const QString &localPath,
                                                 int depth)
{
    const bool mirrored = mirrorDirectory(remotePath, localPath, depth);
    if ((!mirrored && cancelRequested) || !client->isConnected())
        return Walk::Ended;
    return mirrored ? Walk::Done : Walk::Failed;
}

MirrorWorker::Walk MirrorWorker::transferFile(const FtpEntry &entry, const QString &remotePath,
                                              const QString &localPath, const QString &reason)
{
    emit progress(entry.name, 0, entry.size);
    setStatus(kTransferring, entry.name);
    emit log(tr("Downloading %1 (%2)").arg(remotePath, reason), LogInformation);
    lastBytes = 0;
    rateMeter.restart();
    fileMeter.start();
    if (client->download(remotePath, localPath, entry.size, entry.modified)) {
        ++result.downloaded;
        result.bytes += std::max<qint64>(entry.size, 0);
        reportFileRate(entry.size);
        return Walk::Done;
    }
    if (cancelRequested)
        return Walk::Ended;
    emit log(tr("Failed: %1 (%2)").arg(remotePath, client->lastError()), LogError);
    ++result.failed;
    if (client->isConnected())
        return Walk::Failed;
    result.message = client->lastError();
    return Walk::Ended;
}

// Pruning and exclusion

void MirrorWorker::removeExtraneous(const QString &localPath, const QSet<QString> &keepFiles,
                                    const QSet<QString> &keepDirs)
{
    const QFileInfoList entries = QDir(localPath).entryInfoList(
        QDir::Dirs | QDir::Files | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::NoSort);
    for (const QFileInfo &entry : entries) {
        const QString name = entry.fileName();
        if (name.endsWith(u".part") || isExcluded(name))
            continue;
        const bool isKept =
            entry.isDir() ? keepDirs.contains(name) || !config.recursive : keepFiles.contains(name);
        if (isKept)
            continue;
        // A link is kept or not as what it points to, but never followed: only the link itself can go.
        const bool isFolder = entry.isDir() && !isLink(entry);
        const QString path = entry.absoluteFilePath();
        if (isFolder ? removeFolder(path) : QFile::remove(path)) {
            ++result.deleted;
            emit log((isFolder ? tr("Deleted folder %1") : tr("Deleted %1")).arg(path), LogInformation);
        } else {
            emit log((isFolder ? tr("Cannot delete folder %1") : tr("Cannot delete %1")).arg(path),
                     LogWarning);
        }
    }
}

bool MirrorWorker::isExcluded(const QString &name) const
{
    return std::any_of(excludePatterns.cbegin(), excludePatterns.cend(),
                       [&name](const QRegularExpression &pattern) { return pattern.match(name).hasMatch(); });
}
