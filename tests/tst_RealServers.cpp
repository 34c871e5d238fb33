#include "mirror/MirrorWorker.h"
#include "model/LogLevel.h"
#include "support/FileTree.h"
#include "support/RealServer.h"
#include "support/TestSettings.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QList>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSslSocket>
#include <QTest>

#include <algorithm>
#include <functional>
#include <memory>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr int kTimeoutMs = 20000;
constexpr int kGoodbyeMs = 2000; ///< what closing a session waits at most for one thing

const QString kLargeFile = u"recordings/2024/night.raw"_s;
constexpr qsizetype kLargeSize = 5 * 1024 * 1024 + 7;

QByteArray bytes(quint32 seed, qsizetype size)
{
    QRandomGenerator generator(seed);
    QByteArray content(size, Qt::Uninitialized);
    for (char &byte : content)
        byte = static_cast<char>(generator.bounded(256));
    return content;
}

QDateTime utc(const char *text)
{
    return QDateTime::fromString(QString::fromLatin1(text), Qt::ISODateWithMs);
}

/** Names that a server or a client with too much cleverness trips over. */
QStringList awkwardNames()
{
    return {u"a b.txt"_s,
            u"two  blanks.txt"_s,
            u"it's \"quoted\".txt"_s,
            u"100%.txt"_s,
            u"%1 of %2.txt"_s,
            u"%20"_s,
            u"caf\u00e9.txt"_s,
            u"cafe\u0301.txt"_s,
            u"\u6d77\u85fb \U0001f30a.txt"_s,
            u"a..b"_s,
            u"..mp3"_s,
            u".hidden"_s,
            u"~x"_s,
            u"[a]"_s,
            u"*"_s,
            u"?.txt"_s,
            u"-rf"_s,
            u"a;b"_s,
            u"type=dir;x"_s,
            u"a -> b"_s,
            u"back\\slash"_s,
            u"#1 $HOME `x` {y} |z&"_s,
            u"upper.PART"_s,
            QString(255, u'n')};
}

FileTree archive(int serverKind)
{
    FileTree tree;
    QStringList names = awkwardNames();
    if (serverKind == RealServer::PureFtpd)
        names.removeOne(u"back\\slash"_s); // it lists such a file, but never sends it
    const QDateTime start = utc("2019-03-31T01:59:58.250Z");
    for (int i = 0; i < names.size(); ++i) {
        const auto seed = static_cast<quint32>(i);
        tree.insert(names.at(i), {bytes(seed, 10 + i), start.addDays(i).addMSecs(77)});
        tree.insert(u"archive [old]/100% \u00e9/"_s + names.at(i),
                    {bytes(seed + 100, 3000 + i), start.addDays(-i)});
    }
    tree.insert(u"empty.txt"_s, {{}, utc("2020-02-29T12:00:00Z")});
    tree.insert(u"recordings/first second.raw"_s, {bytes(300, 65536), utc("1970-01-01T00:00:01Z")});
    tree.insert(u"recordings/last millisecond.raw"_s, {bytes(301, 65537), utc("1999-12-31T23:59:59.999Z")});
    tree.insert(u"recordings/gap.raw"_s, {bytes(302, 1), utc("2024-03-31T02:30:00Z")});
    tree.insert(u"recordings/far future.raw"_s, {bytes(303, 200000), utc("2041-07-08T09:10:11Z")});
    tree.insert(kLargeFile, {bytes(304, kLargeSize), utc("2024-10-27T01:02:03Z")});
    tree.insert(u"recordings/none yet/"_s, {});
    return tree;
}

int fileCount(const FileTree &tree)
{
    const QStringList paths = tree.keys();
    return static_cast<int>(std::count_if(paths.cbegin(), paths.cend(),
                                          [](const QString &path) { return !path.endsWith(u'/'); }));
}

/** What a run did, as the program would see it. */
struct Run
{
    MirrorResult result = {};
    int finishedCount = 0;
    QStringList log = {};      ///< without the protocol
    QStringList protocol = {}; ///< commands and replies
    qint64 longestWaitMs = 0;  ///< of all between two lines of the protocol
    QString longestWait = {};  ///< the line in front of it
    qint64 goodbyeMs = 0;      ///< from the last line of the protocol to the end

    QString text() const
    {
        return result.message + u'\n' + (log + protocol.mid(protocol.size() - 20)).join(u'\n');
    }
    QStringList sent(const QString &verb) const { return protocol.filter(u"> "_s + verb); }
};

/** Keeps the log of a worker and the times between its lines. */
class Recorder : public QObject
{
public:
    Recorder(MirrorWorker *worker, Run *target) : run(target)
    {
        connect(worker, &MirrorWorker::log, this, &Recorder::add);
        connect(worker, &MirrorWorker::finished, this, [this](const MirrorResult &result) {
            run->result = result;
            ++run->finishedCount;
        });
        meter.start();
    }

    void end() { run->goodbyeMs = meter.elapsed(); }

private:
    void add(const QString &message, int level)
    {
        if (level != LogProtocol) {
            run->log.append(message);
            return;
        }
        const qint64 waited = meter.restart();
        if (waited > run->longestWaitMs) {
            run->longestWaitMs = waited;
            run->longestWait = run->protocol.isEmpty() ? u"the start"_s : run->protocol.last();
        }
        run->protocol.append(message);
    }

    Run *run;
    QElapsedTimer meter;
};

/** Called with the worker, the file in transfer and how much of it is there. */
using Watch = std::function<void(MirrorWorker *, const QString &, qint64)>;

Run mirror(const MirrorConfig &config, const Watch &watch = {})
{
    Run run;
    MirrorWorker worker;
    Recorder recorder(&worker, &run);
    QString current;
    if (watch) {
        QObject::connect(&worker, &MirrorWorker::progress, &worker,
                         [&](const QString &file, qint64 done, qint64) {
                             if (!file.isEmpty())
                                 current = file;
                             watch(&worker, current, done);
                         });
    }
    worker.runSync(config);
    recorder.end();
    return run;
}

QStringList withVerb(const QStringList &commands, const QString &verb)
{
    return commands.filter(QRegularExpression(u"^%1( |$)"_s.arg(verb)));
}

void addServerRows()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<int>("security");
    const std::pair<const char *, RealServer::Kind> kinds[] = {{"vsftpd", RealServer::Vsftpd},
                                                               {"proftpd", RealServer::Proftpd},
                                                               {"pure-ftpd", RealServer::PureFtpd},
                                                               {"pyftpdlib", RealServer::Pyftpdlib}};
    const std::pair<const char *, RealServer::Security> securities[] = {
        {"plain", RealServer::Plain}, {"TLS 1.2", RealServer::Tls12}, {"TLS 1.3", RealServer::Tls13}};
    for (const auto &[kindName, kind] : kinds) {
        for (const auto &[securityName, security] : securities)
            QTest::addRow("%s, %s", kindName, securityName) << int(kind) << int(security);
    }
}

/** A control connection without the program, to look at the server itself. */
class RawSession
{
public:
    explicit RawSession(const RealServer &server) { control.connectToHost(u"127.0.0.1"_s, server.port()); }

    QByteArray reply()
    {
        QByteArray line;
        do {
            while (!control.canReadLine()) {
                if (!control.waitForReadyRead(kTimeoutMs))
                    return {};
            }
            line = control.readLine();
        } while (line.size() < 4 || line[3] != ' ' || line[0] == ' ');
        return line;
    }

    QByteArray ask(const QString &command)
    {
        control.write(command.toUtf8() + "\r\n");
        return reply();
    }

    bool startTls()
    {
        control.ignoreSslErrors();
        control.startClientEncryption();
        return control.waitForEncrypted(kTimeoutMs);
    }

    QSsl::SslProtocol protocol() const { return control.sessionProtocol(); }

private:
    QSslSocket control;
};

} // namespace

class tst_RealServers : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void theServerLogsWhateverItHears_data() { addServerRows(); }
    void theServerLogsWhateverItHears();
    void fetchesAllAndThenFindsNothingToDo_data() { addServerRows(); }
    void fetchesAllAndThenFindsNothingToDo();
    void fetchesWhatChanged_data() { addServerRows(); }
    void fetchesWhatChanged();
    void prunesWhatIsGone_data() { addServerRows(); }
    void prunesWhatIsGone();
    void stoppedRunDamagesNothing_data() { addServerRows(); }
    void stoppedRunDamagesNothing();
    void testsTheConnection_data() { addServerRows(); }
    void testsTheConnection();

private:
    void verifyPace(const Run &run);
    void mirrorTo(const FileTree &tree);
    QString localDir() const { return local->filePath(u"mirror"_s); }
    MirrorConfig job() const;
    bool heardGoodbyes(int count) const { return withVerb(server->commands(), u"QUIT"_s).size() == count; }

    std::unique_ptr<RealServer> server;
    std::unique_ptr<QTemporaryDir> local;
};

void tst_RealServers::init()
{
    QFETCH(int, kind);
    QFETCH(int, security);
    local = std::make_unique<QTemporaryDir>();
    server = std::make_unique<RealServer>(static_cast<RealServer::Kind>(kind),
                                          static_cast<RealServer::Security>(security));
    QVERIFY2(server->problem().isEmpty(), qPrintable(server->problem()));
}

void tst_RealServers::cleanup()
{
    if (!server)
        return;
    const QString foreign = server->foreignCommands().join(u'\n');
    server.reset();
    QCOMPARE(foreign, QString());
}

MirrorConfig tst_RealServers::job() const
{
    MirrorConfig config = server->job(localDir());
    config.timeout = kTimeoutMs;
    return config;
}

/** The one place where time counts: a wait for what does not come would last a whole time-out. */
void tst_RealServers::verifyPace(const Run &run)
{
    QVERIFY2(run.longestWaitMs < kTimeoutMs / 2,
             qPrintable(u"%1 ms after '%2'"_s.arg(run.longestWaitMs).arg(run.longestWait)));
    QVERIFY2(run.goodbyeMs < kGoodbyeMs, qPrintable(u"%1 ms to close the session"_s.arg(run.goodbyeMs)));
}

/** Leaves server and local folder with the same files. */
void tst_RealServers::mirrorTo(const FileTree &tree)
{
    writeTree(server->root(), tree);
    const Run run = mirror(job());
    QVERIFY2(run.result.success, qPrintable(run.text()));
    QCOMPARE(treeDifference(tree, readTree(localDir())), QString());
}

void tst_RealServers::theServerLogsWhateverItHears()
{
    QFETCH(int, security);
    RawSession session(*server);
    QVERIFY(session.reply().startsWith("220"));
    if (security != RealServer::Plain) {
        QVERIFY(session.ask(u"AUTH TLS"_s).startsWith("234"));
        QVERIFY(session.startTls());
        QCOMPARE(session.protocol(), security == RealServer::Tls12 ? QSsl::TlsV1_2 : QSsl::TlsV1_3);
    }
    QVERIFY(session.ask(u"USER "_s + server->user()).startsWith("331"));
    QVERIFY(session.ask(u"PASS "_s + server->password()).startsWith("230"));
    QVERIFY(session.ask(u"NOOP"_s).startsWith("2"));
    QVERIFY(session.ask(u"XYZZY a b"_s).startsWith("5"));
    QVERIFY(session.ask(u"QUIT"_s).startsWith("221"));
    QTRY_VERIFY2(heardGoodbyes(1), server->log().constData());
    QCOMPARE(server->foreignCommands().join(u'\n'), u"NOOP\nXYZZY a b"_s);
    server.reset(); // cleanup() would object
}

void tst_RealServers::fetchesAllAndThenFindsNothingToDo()
{
    QFETCH(int, kind);
    const FileTree tree = archive(kind);
    const int files = fileCount(tree);
    writeTree(server->root(), tree);

    const Run first = mirror(job());
    QVERIFY2(first.result.success, qPrintable(first.text()));
    QCOMPARE(first.finishedCount, 1);
    QCOMPARE(first.result.message, QString());
    QCOMPARE(first.result.downloaded, files);
    QCOMPARE(first.result.upToDate, 0);
    QCOMPARE(treeDifference(tree, readTree(localDir())), QString());
    QTRY_VERIFY2(heardGoodbyes(1), server->log().constData());
    const QStringList firstCommands = server->commands();
    QCOMPARE(withVerb(firstCommands, u"RETR"_s).size(), files);
    // The others have no MLSD or announce it as MLST; they tell each time when asked for it.
    const bool announcesMlsd = kind == RealServer::PureFtpd;
    QCOMPARE(!withVerb(firstCommands, u"MLSD"_s).isEmpty(), announcesMlsd);
    QCOMPARE(withVerb(firstCommands, u"LIST"_s).isEmpty(), announcesMlsd);
    QCOMPARE(withVerb(firstCommands, u"MDTM"_s).size(), announcesMlsd ? 0 : files);

    const Run second = mirror(job());
    QVERIFY2(second.result.success, qPrintable(second.text()));
    QCOMPARE(second.result.downloaded, 0);
    QCOMPARE(second.result.upToDate, files);
    QCOMPARE(second.sent(u"RETR"_s), QStringList());
    QCOMPARE(treeDifference(tree, readTree(localDir())), QString());
    QTRY_VERIFY2(heardGoodbyes(2), server->log().constData());
    QCOMPARE(withVerb(server->commands(), u"RETR"_s).size(), files);

    verifyPace(first);
    verifyPace(second);
}

void tst_RealServers::fetchesWhatChanged()
{
    FileTree tree{{u"same.txt"_s, {bytes(1, 100), utc("2022-01-01T00:00:00Z")}},
                  {u"grown.txt"_s, {bytes(2, 100), utc("2022-01-01T00:00:00Z")}},
                  {u"sub/newer.txt"_s, {bytes(3, 100), utc("2022-01-01T00:00:00Z")}},
                  {u"sub/hardly newer.txt"_s, {bytes(4, 100), utc("2022-01-01T00:00:00Z")}}};
    mirrorTo(tree);
    if (QTest::currentTestFailed())
        return;

    tree[u"grown.txt"_s].content = bytes(12, 101);
    tree[u"sub/newer.txt"_s] = {bytes(13, 100), utc("2022-01-01T00:00:03Z")};
    FileTree served = tree;
    served[u"sub/hardly newer.txt"_s].modified = utc("2022-01-01T00:00:02Z");
    writeTree(server->root(), served);

    const Run run = mirror(job());
    QVERIFY2(run.result.success, qPrintable(run.text()));
    QCOMPARE(run.result.downloaded, 2);
    QCOMPARE(run.result.upToDate, 2);
    QCOMPARE(run.sent(u"RETR"_s).size(), 2);
    QCOMPARE(run.log.filter(u"grown.txt (size changed)"_s).size(), 1);
    QCOMPARE(run.log.filter(u"newer.txt (newer on server)"_s).size(), 1);
    QCOMPARE(treeDifference(tree, readTree(localDir())), QString());
    verifyPace(run);
}

void tst_RealServers::prunesWhatIsGone()
{
    const QDateTime time = utc("2022-01-01T00:00:00Z");
    FileTree tree{{u"a b.txt"_s, {bytes(1, 100), time}},
                  {u"[a]"_s, {bytes(2, 100), time}},
                  {u"a"_s, {bytes(3, 100), time}},
                  {u"kept/caf\u00e9"_s, {bytes(4, 100), time}},
                  {u"kept/cafe\u0301"_s, {bytes(5, 100), time}},
                  {u"gone [1]/*"_s, {bytes(6, 100), time}},
                  {u"gone [1]/sub/x"_s, {bytes(7, 100), time}},
                  {u"gone empty/"_s, {}}};
    mirrorTo(tree);
    if (QTest::currentTestFailed())
        return;
    writeTree(local->path(), {{u"canary.txt"_s, {"sings", time}}, {u"canary/*"_s, {"too", time}}});

    for (const QString &path : {u"[a]"_s, u"kept/cafe\u0301"_s}) {
        QVERIFY(QFile::remove(server->root() + u'/' + path));
        tree.remove(path);
    }
    for (const QString &path : {u"gone [1]"_s, u"gone empty"_s})
        QVERIFY(QDir(server->root() + u'/' + path).removeRecursively());
    tree.removeIf([](const auto &file) { return file.key().startsWith(u"gone"); });

    MirrorConfig pruning = job();
    pruning.deleteExtraneous = true;
    const Run run = mirror(pruning);
    QVERIFY2(run.result.success, qPrintable(run.text()));
    QCOMPARE(run.result.deleted, 4);
    QCOMPARE(run.result.downloaded, 0);
    QCOMPARE(treeDifference(tree, readTree(localDir())), QString());
    const QStringList around = readTree(local->path()).keys();
    QCOMPARE(around.filter(u"canary"_s), (QStringList{u"canary.txt"_s, u"canary/*"_s}));
    verifyPace(run);
}

void tst_RealServers::stoppedRunDamagesNothing()
{
    FileTree old{{u"a.txt"_s, {bytes(1, 100), utc("2022-01-01T00:00:00Z")}},
                 {kLargeFile, {bytes(2, 1000), utc("2022-01-01T00:00:00Z")}},
                 {u"z/gone.txt"_s, {bytes(3, 100), utc("2022-01-01T00:00:00Z")}}};
    mirrorTo(old);
    if (QTest::currentTestFailed())
        return;
    FileTree fresh = old;
    fresh.remove(u"z/gone.txt"_s);
    fresh[kLargeFile] = {bytes(4, kLargeSize), utc("2023-01-01T00:00:00Z")};
    writeTree(server->root(), fresh);
    QVERIFY(QDir(server->root() + u"/z"_s).removeRecursively());

    MirrorConfig pruning = job();
    pruning.deleteExtraneous = true;
    const Run stopped = mirror(pruning, [](MirrorWorker *worker, const QString &file, qint64 done) {
        if (kLargeFile.endsWith(file) && done > kLargeSize / 3)
            worker->requestCancel();
    });
    QVERIFY2(stopped.result.cancelled, qPrintable(stopped.text()));
    QVERIFY(!stopped.result.success);
    QCOMPARE(stopped.result.message, u"Stopped at your request."_s);
    QCOMPARE(stopped.result.failed, 0);
    QCOMPARE(stopped.result.downloaded, 0);
    QCOMPARE(stopped.result.deleted, 0);
    QCOMPARE(treeDifference(old, readTree(localDir())), QString());

    const Run repair = mirror(pruning);
    QVERIFY2(repair.result.success, qPrintable(repair.text()));
    QCOMPARE(repair.result.downloaded, 1);
    QCOMPARE(repair.result.deleted, 1);
    QCOMPARE(treeDifference(fresh, readTree(localDir())), QString());
    verifyPace(stopped);
    verifyPace(repair);
}

void tst_RealServers::testsTheConnection()
{
    writeTree(server->root(), {{u"a.txt"_s, {"a", utc("2022-01-01T00:00:00Z")}},
                               {u".b"_s, {"b", utc("2022-01-01T00:00:00Z")}},
                               {u"sub/c.txt"_s, {"c", utc("2022-01-01T00:00:00Z")}}});
    QStringList answers;
    Run run;
    MirrorWorker worker;
    Recorder recorder(&worker, &run);
    connect(&worker, &MirrorWorker::testFinished, &worker, [&answers](bool ok, const QString &message) {
        answers.append((ok ? u"good: "_s : u"bad: "_s) + message);
    });

    worker.testConnection(job());
    recorder.end();
    QCOMPARE(answers, QStringList(u"good: Connected. '%1' contains 3 item(s). Listing mode: LIST."_s.arg(
                          server->remoteRoot())));
    QVERIFY(!QDir(localDir()).exists());
    verifyPace(run);
}

int main(int argc, char *argv[])
{
    const TestSettings settings;
    const QCoreApplication app(argc, argv);
    tst_RealServers test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_RealServers.moc"
