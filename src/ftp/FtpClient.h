#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QObject>
#include <QString>

#include <atomic>
#include <memory>

class QFile;
class QSslSocket;

/** One entry of a remote folder. */
struct FtpEntry
{
    QString name = {}; ///< bare, without a path
    bool isDir = false;
    bool isSymlink = false;  ///< never together with isDir
    qint64 size = -1;        ///< bytes; -1 if unknown
    QDateTime modified = {}; ///< UTC; invalid if unknown
};
Q_DECLARE_TYPEINFO(FtpEntry, Q_RELOCATABLE_TYPE); // a list of very many grows without copying

/**
 * A blocking FTP and FTPS client for one server session at a time (RFC 959, 2228, 2428, 3659, 4217).
 *
 * Every operation runs to its end on the calling thread and needs no event loop. An operation
 * that returns false has logged its reason and stored it for lastError(); it leaves the
 * connection as it is, and the caller decides whether to go on. Nothing is ever repeated, and
 * no command that changes anything on a server is ever sent.
 *
 * A client belongs to one thread. Only the cancel flag may be written from another: it is
 * looked at before a wait, so a request takes effect after one time-out at the latest.
 */
class FtpClient : public QObject
{
    Q_OBJECT

public:
    explicit FtpClient(QObject *parent = nullptr);
    ~FtpClient() override;

    /** Not owned, may be null; must outlive every operation. */
    void setCancelFlag(const std::atomic<bool> *flag) { cancelFlag = flag; }

    /** Milliseconds for a single wait, not for a whole operation; below 0 counts as 0. */
    void setTimeoutMs(int milliseconds) { timeoutMs = milliseconds < 0 ? 0 : milliseconds; }

    /** Whether to ask for TLS (RFC 4217), and whether to take every certificate then. */
    void setTlsOptions(bool tls, bool anyCertificate)
    {
        useTls = tls;
        acceptAnyCertificate = anyCertificate;
    }

    /** The reason of the last failure. Never cleared, not even by close(). */
    QString lastError() const { return errorText; }

    /** Whether the session's server announced MLSD (RFC 3659). False once the session is closed. */
    bool supportsMlsd() const { return hasMlsd; }

    /** False as soon as the server's closing is known, also while received data is unread. */
    bool isConnected() const;

    /**
     * Connects, secures the session if asked to, logs in and learns the server's features.
     * A failed attempt leaves the connection to the caller to close.
     */
    bool connectAndLogin(const QString &hostName, quint16 port, const QString &user, const QString &password);

    /** Says goodbye without waiting for the answer; takes 4 seconds at most. */
    void close();

    /**
     * Lists a folder and leaves the session in it. Entries come in the server's order; on false
     * there are none. Where the server has no MLSD but MDTM, each file costs one MDTM.
     */
    bool list(const QString &path, QList<FtpEntry> *entries);

    /**
     * Fetches a file into `localPath` by way of a working file beside it, and gives it the
     * server's time. The old file is touched only when the new one is whole and verified.
     *
     * @param expectedSize bytes, or below 0 if unknown; another count received is a failure
     * @param remoteTime UTC; invalid leaves the time of writing
     */
    bool download(const QString &remotePath, const QString &localPath, qint64 expectedSize,
                  const QDateTime &remoteTime);

    /** MDTM (RFC 3659): UTC, or invalid if the server does not tell. */
    QDateTime modificationTime(const QString &path);

    /** SIZE (RFC 3659): bytes, or -1 if the server does not tell. */
    qint64 fileSize(const QString &path);

    /** Entries of an MLSD answer (RFC 3659), in its order; what is no entry is dropped. */
    static QList<FtpEntry> parseMlsd(const QByteArray &data);

    /** Entries of a LIST answer in Unix or DOS form, in its order. They bear no times. */
    static QList<FtpEntry> parseList(const QByteArray &data);

    /** Whether `line` has the form of `ls -l`; fills `entry` if so. */
    static bool parseUnixLine(const QString &line, FtpEntry *entry);

    /** Whether `line` has the form of a DOS directory; fills `entry` if so. */
    static bool parseDosLine(const QString &line, FtpEntry *entry);

    /** The UTC time of "YYYYMMDDHHMMSS", with or without a fraction; invalid if it is none. */
    static QDateTime parseTimeval(const QString &text);

signals:
    /** A command, a reply, a failure or a remark, as one line for the log. */
    void logMessage(const QString &message);

    /** Bytes received so far of a download, once per chunk; `total` is -1 if unknown. */
    void transferProgress(qint64 received, qint64 total);

private:
    bool sendCommand(const QString &command, int *code, QString *text, const QString &logAs = QString());
    bool flushCommand();
    bool readReply(int *code, QString *text);
    bool awaitReplyLine();
    void fail(const QString &message);
    bool cancelAsked() const { return cancelFlag && cancelFlag->load(); }

    std::unique_ptr<QSslSocket> createSocket() const;
    bool secureControlChannel();
    bool login(const QString &user, const QString &password);
    void protectDataChannel();
    bool negotiateFeatures();
    bool ensureBinaryMode();

    std::unique_ptr<QSslSocket> openDataConnection();
    quint16 extendedPassivePort();
    bool passivePort(quint16 *port);
    bool startDataTls(QSslSocket *data);
    bool awaitData(QSslSocket *data, const QString &timeoutText);
    bool readAllFromData(QSslSocket *data, QByteArray *buffer);
    bool receiveFile(QSslSocket *data, QFile *part, const QString &remotePath, qint64 expectedSize,
                     qint64 *received);
    bool completeTransfer();
    void askTimes(QList<FtpEntry> *entries);
    void failToWrite(const QFile &part);
    bool finishPart(QFile *part);
    bool replaceLocalFile(const QString &partPath, const QString &localPath);

    QSslSocket *socket = nullptr; ///< control connection; null without a session
    const std::atomic<bool> *cancelFlag = nullptr;
    int timeoutMs = 30000;
    bool useTls = false;
    bool acceptAnyCertificate = false;
    bool hasMlsd = false;
    bool hasMdtm = false;
    bool hasSize = false;
    bool binaryModeSet = false; ///< TYPE I was accepted in this session
    bool dataProtected = false; ///< PROT P was accepted in this session
    QString host = {};
    QString dataFault = {}; ///< what broke the data connection; empty while it is whole
    QString errorText = {};
};
