#pragma once

#include "model/SyncJob.h"

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTcpSocket>
#include <QTemporaryDir>

/**
 * A real FTP server in a process of its own, on a free port of 127.0.0.1, with one user who may
 * read and nothing else.
 *
 * It listens when the constructor has ended, or problem() says why not, and is gone with all its
 * sessions when the object is, or when the test dies. Works as root and as an ordinary user. The
 * servers but pyftpdlib come from tools/fetch-servers.
 */
class RealServer
{
public:
    enum Kind { Vsftpd, Proftpd, PureFtpd, Pyftpdlib };
    enum Security { Plain, Tls12, Tls13 }; ///< Tls12 and Tls13: explicit TLS of that version only

    explicit RealServer(Kind serverKind, Security serverSecurity = Plain);
    ~RealServer();
    Q_DISABLE_COPY_MOVE(RealServer)

    /** Why the server does not run, with what it said itself; empty if it runs. */
    QString problem() const { return problemText; }

    /** A local folder; what a test puts there is what the server serves. */
    QString root() const { return dir.filePath(QStringLiteral("root")); }

    /** The same folder as the server's clients name it. */
    QString remoteRoot() const;

    quint16 port() const { return portNumber; }
    QString user() const;
    QString password() const { return QStringLiteral("secret"); }

    /** What a run needs to mirror the served folder into a local one. */
    MirrorConfig job(const QString &localDir) const;

    /** All that the server has logged. */
    QByteArray log() const;

    /** Every command that the server has logged, the verb in capitals: "CWD /pub", "PASV". */
    QStringList commands() const;

    /** Those of commands() that the program has no business to send. */
    QStringList foreignCommands() const;

private:
    void start();
    bool launch(const QStringList &command);
    bool awaitGreeting();
    void setEnvironment();
    QStringList prepare();
    QStringList prepareVsftpd() const;
    QStringList prepareProftpd() const;
    QStringList preparePureFtpd() const;
    QStringList preparePyftpdlib() const;
    QString write(const QString &name, const QByteArray &text) const;
    QString file(const QString &name) const { return dir.filePath(name); }

    Kind kind;
    Security security;
    QTemporaryDir dir; ///< the server's configuration, its logs and what it serves
    QProcess process;
    QTcpSocket probe; ///< stays open: proftpd takes a rest at the end of each session
    quint16 portNumber = 0;
    QString problemText = {};
};
