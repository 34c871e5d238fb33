#include "support/RealServer.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSet>
#include <QTcpServer>

#include <csignal>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kStartMs = 20000; ///< far more than any server takes; a hanging one must not hang the test
constexpr int kProbeMs = 20;
constexpr int kAttempts = 5; ///< another process can take the free port before the server does

/** Of whose rights the served user is: an ordinary user's, since some servers let nobody be root. */
struct Account
{
    uid_t user;
    gid_t group;
    QString userName;
    QString groupName;
};

Account servedAccount()
{
    const passwd *entry = geteuid() == 0 ? getpwnam("nobody") : getpwuid(geteuid());
    if (!entry)
        qFatal("this machine does not know the user that the server is to run as");
    Account account{entry->pw_uid, entry->pw_gid, QString::fromLocal8Bit(entry->pw_name), {}};
    const group *ownGroup = getgrgid(account.group);
    account.groupName = ownGroup ? QString::fromLocal8Bit(ownGroup->gr_name) : QString::number(account.group);
    return account;
}

QByteArray readAll(const QString &path)
{
    QFile source(path);
    return source.open(QIODevice::ReadOnly) ? source.readAll() : QByteArray();
}

/** Runs a tool to its end and returns its output. */
QByteArray runTool(const QString &program, const QStringList &arguments, const QByteArray &input = {})
{
    QProcess tool;
    tool.start(program, arguments);
    tool.write(input);
    tool.closeWriteChannel();
    if (!tool.waitForFinished() || tool.exitStatus() != QProcess::NormalExit || tool.exitCode() != 0)
        qFatal("%s failed: %s %s", qPrintable(program), qPrintable(tool.errorString()),
               tool.readAllStandardError().constData());
    return tool.readAllStandardOutput();
}

QString passwordHash(const QString &password)
{
    const QByteArray hash =
        runTool(u"openssl"_s, {u"passwd"_s, u"-6"_s, u"-stdin"_s}, password.toUtf8() + '\n');
    return QString::fromLatin1(hash.trimmed());
}

/** A certificate and its key in one file, for all servers of a test run. */
class Certificate
{
public:
    Certificate()
    {
        runTool(u"openssl"_s, {u"req"_s, u"-x509"_s, u"-newkey"_s, u"rsa:2048"_s, u"-nodes"_s, u"-days"_s,
                               u"2"_s, u"-subj"_s, u"/CN=127.0.0.1"_s, u"-keyout"_s, dir.filePath(u"key"_s),
                               u"-out"_s, dir.filePath(u"cert"_s)});
        QFile both(path());
        const QByteArray pem = readAll(dir.filePath(u"key"_s)) + readAll(dir.filePath(u"cert"_s));
        if (!both.open(QIODevice::WriteOnly) || !both.setPermissions(QFile::ReadOwner | QFile::WriteOwner) ||
            both.write(pem) != pem.size())
            qFatal("cannot write the certificate");
    }

    QString path() const { return dir.filePath(u"both.pem"_s); }

private:
    QTemporaryDir dir;
};

QString certificatePath()
{
    static const Certificate certificate;
    return certificate.path();
}

QString unpacked(const QString &path) { return QStringLiteral(KELPWHARF_SERVERS_DIR "/") + path; }

/**
 * A free port that the system gives to nobody who leaves the choice to it. All other servers of the
 * tests do so, and whoever came first would hear what is meant for the other one.
 */
quint16 freePort()
{
    for (;;) {
        QTcpServer probe;
        if (probe.listen(QHostAddress::LocalHost,
                         static_cast<quint16>(QRandomGenerator::global()->bounded(20000, 32000))))
            return probe.serverPort();
    }
}

/** What a server has logged or printed when the port is its own and it greets whoever comes. */
QByteArray signOfLife(RealServer::Kind kind)
{
    switch (kind) {
    case RealServer::Vsftpd:
        return "CONNECT: ";
    case RealServer::Proftpd:
        return "STARTUP";
    case RealServer::PureFtpd:
        return "New connection";
    case RealServer::Pyftpdlib:
        return "port ";
    }
    return {};
}

} // namespace

RealServer::RealServer(Kind serverKind, Security serverSecurity) : kind(serverKind), security(serverSecurity)
{
    const auto readableByAll = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup |
                               QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther;
    if (!QDir().mkpath(root()) || !QFile::setPermissions(dir.path(), readableByAll) ||
        !QFile::setPermissions(root(), readableByAll))
        qFatal("cannot make a folder for the server: %s", qPrintable(dir.errorString()));
    start();
}

RealServer::~RealServer()
{
    if (process.state() == QProcess::NotRunning)
        return;
    // To the whole group: the servers have a process for each session.
    ::kill(-static_cast<pid_t>(process.processId()), SIGKILL);
    process.waitForFinished();
}

QString RealServer::remoteRoot() const { return kind == Pyftpdlib ? u"/"_s : root(); }

// vsftpd asks the system for all users but this one, whose passwords it can read from a file.
QString RealServer::user() const { return kind == Vsftpd ? u"ftp"_s : u"kim"_s; }

MirrorConfig RealServer::job(const QString &localDir) const
{
    MirrorConfig config;
    config.host = u"127.0.0.1"_s;
    config.port = port();
    config.user = user();
    config.password = password();
    config.useTls = security != Plain;
    config.remoteDir = remoteRoot();
    config.localDir = localDir;
    return config;
}

QByteArray RealServer::log() const
{
    return readAll(file(u"commands.log"_s)) + readAll(file(u"system.log"_s)) + readAll(file(u"tls.log"_s)) +
           readAll(file(u"output"_s));
}

QStringList RealServer::commands() const
{
    static const QRegularExpression vsftpdLine(u"FTP command: Client \"[^\"]*\", \"([^ ]*) ?(.*)\"$"_s);
    static const QRegularExpression pureFtpdLine(u"Command \\[([^\\]]*)\\] \\[(.*)\\]$"_s);
    static const QRegularExpression plainLine(u"^([^ ]+) ?(.*)$"_s);
    const QRegularExpression &form = kind == Vsftpd     ? vsftpdLine
                                     : kind == PureFtpd ? pureFtpdLine
                                                        : plainLine;
    QStringList commands;
    QString text = QString::fromUtf8(readAll(file(u"commands.log"_s)));
    if (kind == Proftpd)
        text.replace(u"OPTS_UTF8 "_s, u"OPTS UTF8 "_s); // the command that it makes of an option
    const QStringList lines = text.split(u'\n');
    for (const QString &line : lines) {
        const QRegularExpressionMatch match = form.match(line);
        if (match.hasMatch())
            commands.append((match.captured(1).toUpper() + u' ' + match.captured(2)).trimmed());
    }
    return commands;
}

QStringList RealServer::foreignCommands() const
{
    static const QSet<QString> vocabulary{u"AUTH"_s, u"USER"_s, u"PASS"_s, u"PBSZ"_s, u"PROT"_s, u"FEAT"_s,
                                          u"OPTS"_s, u"TYPE"_s, u"EPSV"_s, u"PASV"_s, u"CWD"_s,  u"MLSD"_s,
                                          u"LIST"_s, u"RETR"_s, u"MDTM"_s, u"SIZE"_s, u"QUIT"_s};
    QStringList foreign = commands();
    foreign.removeIf([](const QString &command) { return vocabulary.contains(command.section(u' ', 0, 0)); });
    return foreign;
}

// Start

void RealServer::start()
{
    if (kind != Pyftpdlib && !QFileInfo::exists(unpacked(u"libs"_s))) {
        problemText =
            u"There are no servers in '%1'; tools/fetch-servers puts them there."_s.arg(unpacked({}));
        return;
    }
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setStandardOutputFile(file(u"output"_s));
    process.setChildProcessModifier([] { ::setpgid(0, 0); });
    setEnvironment();
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        portNumber = freePort();
        if (launch(prepare()))
            return;
    }
    problemText = u"The server does not run. It said:\n"_s + QString::fromUtf8(log());
}

bool RealServer::launch(const QStringList &command)
{
    // The shell ends with the server, and the server with the shell; the shell ends with this
    // process, however that ends, since it sees its input end.
    const QString guard = u"(\"$@\"; kill 0) & read -r line; kill 0"_s;
    process.start(u"/bin/sh"_s, QStringList{u"-c"_s, guard, u"sh"_s} + command);
    return process.waitForStarted() && awaitGreeting();
}

bool RealServer::awaitGreeting()
{
    const QDeadlineTimer deadline(kStartMs);
    while (process.state() == QProcess::Running && !deadline.hasExpired()) {
        probe.abort();
        probe.connectToHost(QHostAddress(QHostAddress::LocalHost), port());
        const bool answered = probe.waitForConnected(kStartMs) && probe.waitForReadyRead(kStartMs);
        if (answered && log().contains(signOfLife(kind)))
            return true;
        process.waitForFinished(kProbeMs);
    }
    return false;
}

void RealServer::setEnvironment()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"LC_ALL"_s, u"C.UTF-8"_s);
    if (kind != Pyftpdlib)
        environment.insert(u"LD_LIBRARY_PATH"_s, unpacked(u"libs"_s));
    if (kind == PureFtpd) {
        environment.insert(u"LD_PRELOAD"_s, QStringLiteral(KELPWHARF_SERVER_SHIM));
        environment.insert(u"KELPWHARF_SERVER_LOG"_s, file(u"commands.log"_s));
    }
    if (security != Plain) {
        const QByteArray version = security == Tls12 ? "TLSv1.2" : "TLSv1.3";
        const QByteArray text = "openssl_conf = all\n[all]\nssl_conf = ssl\n[ssl]\nsystem_default = default\n"
                                "[default]\nMinProtocol = " +
                                version + "\nMaxProtocol = " + version + "\n";
        environment.insert(u"OPENSSL_CONF"_s, write(u"openssl.cnf"_s, text));
    }
    process.setProcessEnvironment(environment);
}

QStringList RealServer::prepare()
{
    switch (kind) {
    case Vsftpd:
        return prepareVsftpd();
    case Proftpd:
        return prepareProftpd();
    case PureFtpd:
        return preparePureFtpd();
    case Pyftpdlib:
        return preparePyftpdlib();
    }
    return {};
}

QStringList RealServer::prepareVsftpd() const
{
    const QString passwords = write(u"passwords"_s, password().toUtf8() + '\n');
    QString text = uR"(listen=YES
listen_address=127.0.0.1
listen_port=%1
background=NO
run_as_launching_user=YES
ftp_username=%2
anonymous_enable=YES
local_enable=NO
anon_root=%3
anon_world_readable_only=NO
secure_email_list_enable=YES
email_password_file=%4
delay_failed_login=0
seccomp_sandbox=NO
xferlog_enable=YES
log_ftp_protocol=YES
vsftpd_log_file=%5
)"_s.arg(QString::number(port()), servedAccount().userName, root(), passwords, file(u"commands.log"_s));
    if (security != Plain) {
        text += uR"(ssl_enable=YES
allow_anon_ssl=YES
force_local_logins_ssl=NO
force_local_data_ssl=NO
require_ssl_reuse=NO
rsa_cert_file=%1
)"_s.arg(certificatePath());
    }
    return {unpacked(u"usr/sbin/vsftpd"_s), write(u"vsftpd.conf"_s, text.toUtf8())};
}

QStringList RealServer::prepareProftpd() const
{
    const Account account = servedAccount();
    const QString passwords =
        write(u"passwords"_s, u"%1:%2:%3:%4::%5:/bin/false\n"_s
                                  .arg(user(), passwordHash(password()), QString::number(account.user),
                                       QString::number(account.group), root())
                                  .toUtf8());
    QFile::setPermissions(passwords, QFile::ReadOwner | QFile::WriteOwner); // it insists on that
    QString text = uR"(ServerType standalone
DefaultAddress 127.0.0.1
Port %1
User %2
Group %3
ModulePath %4
AuthOrder mod_auth_file.c
AuthUserFile %5
RequireValidShell off
UseReverseDNS off
DelayEngine off
WtmpLog off
TransferLog none
PidFile %6/pid
ScoreboardFile %6/scoreboard
SystemLog %6/system.log
LogFormat command "%r"
ExtendedLog %6/commands.log ALL command
)"_s.arg(QString::number(port()), account.userName, account.groupName, unpacked(u"usr/lib/proftpd"_s),
         passwords, dir.path());
    if (security != Plain) {
        text += uR"(LoadModule mod_tls.c
TLSEngine on
TLSRSACertificateFile %1
TLSRSACertificateKeyFile %1
TLSOptions NoSessionReuseRequired
TLSLog %2/tls.log
)"_s.arg(certificatePath(), dir.path());
    }
    return {unpacked(u"usr/sbin/proftpd"_s), u"-n"_s, u"-q"_s, u"-c"_s,
            write(u"proftpd.conf"_s, text.toUtf8())};
}

QStringList RealServer::preparePureFtpd() const
{
    const Account account = servedAccount();
    // The tool would hash the password itself, so thoroughly that each login took seconds.
    const QString users =
        write(u"users"_s, u"%1:%2:%3:%4::%5::::::::::::\n"_s
                              .arg(user(), passwordHash(password()), QString::number(account.user),
                                   QString::number(account.group), root())
                              .toUtf8());
    const QString database = file(u"users.pdb"_s);
    runTool(unpacked(u"usr/bin/pure-pw"_s), {u"mkdb"_s, database, u"-f"_s, users});
    const QString minimalUser = u"1"_s;
    QStringList command{unpacked(u"usr/sbin/pure-ftpd"_s),
                        u"-S"_s,
                        u"127.0.0.1,%1"_s.arg(port()),
                        u"-H"_s, // no look-ups of names
                        u"-E"_s, // nobody unknown
                        u"-d"_s, // logs commands
                        u"-u"_s,
                        minimalUser,
                        u"-l"_s,
                        u"puredb:"_s + database,
                        u"-g"_s,
                        file(u"pid"_s)};
    if (security != Plain)
        command += {u"-Y"_s, u"1"_s, u"-2"_s, certificatePath()};
    return command;
}

QStringList RealServer::preparePyftpdlib() const
{
    QStringList command{u"/usr/bin/python3"_s,
                        QStringLiteral(KELPWHARF_PYFTPD_SERVER),
                        u"--port"_s,
                        QString::number(port()),
                        u"--root"_s,
                        root(),
                        u"--user"_s,
                        user(),
                        u"--password"_s,
                        password(),
                        u"--log"_s,
                        file(u"commands.log"_s)};
    if (security != Plain)
        command += {u"--tls"_s, certificatePath()};
    return command;
}

QString RealServer::write(const QString &name, const QByteArray &text) const
{
    QFile target(file(name));
    if (!target.open(QIODevice::WriteOnly | QIODevice::Truncate) || target.write(text) != text.size())
        qFatal("cannot write '%s'", qPrintable(target.fileName()));
    return target.fileName();
}
