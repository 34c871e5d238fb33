#pragma once

#include "mirror/MirrorWorker.h"
#include "support/FtpTreeServer.h"

#include <QString>
#include <QStringList>

#include <functional>

/** The fields of a result that are not zero: "success downloaded=2 bytes=10", or "message='why'". */
QString describe(const MirrorResult &result);

/**
 * A worker on the test's own thread that writes down what it says, every signal in order:
 *
 *     log 0 Downloading /a.txt (new)       status 3 'a.txt'       finished success downloaded=1 bytes=5
 *     progress 'a.txt' 0 5                 throughput 0           test 1 Connected. ...
 *
 * In these texts the local folder is LOCAL, the server's port PORT, the port for data DATA, and a
 * run takes TIME seconds.
 */
class RecordedWorker
{
public:
    explicit RecordedWorker(const QString &localDir = QString());

    /** Runs once against a server that serves this tree, and tells the result. */
    QString mirror(const RemoteTree &tree, const FtpTreeOptions &options = {});
    /** The same, as a connection test. */
    QString test(const RemoteTree &tree, const FtpTreeOptions &options = {});
    /** Runs against whatever `config` says. */
    QString run();
    QString runTest();

    /** The messages of one level in the last run. */
    QStringList log(int level) const;
    /** The events of the last run whose texts begin with one of these words. */
    QStringList eventsOf(const QStringList &words) const;

    MirrorWorker worker;
    MirrorConfig config;                               ///< kim on 127.0.0.1, with time to spare
    std::function<void(const QString &event)> onEvent; ///< called at each event, on the worker's thread

    // Of the last run.
    QStringList events;
    QList<double> rates;     ///< of the throughput events
    QByteArrayList commands; ///< as the server of mirror() and test() saw them
    int sessions = 0;

private:
    void note(const QString &event);
    QString outcome(const QString &word) const;
    QString serve(const RemoteTree &tree, const FtpTreeOptions &options, QString (RecordedWorker::*go)());
};
