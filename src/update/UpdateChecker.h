#pragma once

#include <QObject>
#include <QString>

class QNetworkAccessManager;
class QNetworkReply;
class QUrl;

/** What the update service says of the newest version. Nothing in it can be trusted. */
struct UpdateInfo
{
    QString latestVersion = {};
    QString releaseDate = {}; ///< as it is to be shown
    QString downloadUrl = {}; ///< a page for the browser
    QString notesUrl = {};    ///< the full release notes
    QString notes = {};       ///< plain text
    QString minSupportedVersion = {};
    bool critical = false;
};

/**
 * Asks an update service for the newest version, one check at a time and without blocking.
 *
 * What follows from the answer is the receiver's business: the checker compares nothing with the
 * running version and remembers nothing. Lives on the GUI thread.
 */
class UpdateChecker : public QObject
{
    Q_OBJECT

public:
    explicit UpdateChecker(QObject *parent = nullptr);

    /**
     * Ends in one finished() or failed(), which a bad address makes before this returns. While a
     * check is in flight another one is dropped without a signal.
     *
     * @param isManual handed through, so that the receiver knows whether a person waits
     */
    void check(const QUrl &endpoint, bool isManual);

    bool isBusy() const { return reply != nullptr; }

    /** The system that the program is built for, as the update service knows it. */
    static QString platformId();

    /** Whether the body of an answer holds a version. Writes to `info` what it says, else to `reason` why
     * not. */
    static bool readAnswer(const QByteArray &body, UpdateInfo *info, QString *reason);

    /** 1 if a is newer than b, -1 if it is older, 0 if they are the same. */
    static int compareVersions(const QString &a, const QString &b);

signals:
    void finished(const UpdateInfo &info, bool manual);
    void failed(const QString &reason, bool manual);

private slots:
    void onReplyFinished();

private:
    QNetworkAccessManager *manager = nullptr;
    QNetworkReply *reply = nullptr; ///< in flight; null when idle
    bool manual = false;            ///< of the check in flight
};
