#include "mirror/MirrorWorker.h"
#include "support/FtpScriptServer.h"
#include "support/FtpTreeServer.h"
#include "support/LocalFolder.h"
#include "support/RecordedWorker.h"
#include "support/RefusedPort.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTest>
#include <QThread>

#include <atomic>
#include <future>
#include <optional>

using namespace Qt::StringLiterals;

namespace {

constexpr int kShortMs = 250; // a time-out for servers that fall silent
constexpr int kSampleMs = 250;

const QByteArray kTime = "20240131120000";

/** What a run says apart from rates, which are a matter of time. */
QStringList withoutRates(const QStringList &events)
{
    static const QRegularExpression rate(u"^throughput (?!0$)"_s);
    QStringList kept;
    for (const QString &event : events) {
        if (!rate.match(event).hasMatch())
            kept += event;
    }
    return kept;
}

/** A tree, and a local folder to mirror it into, in which there is something to fetch, to keep and to delete.
 */
const RemoteTree &sampleTree()
{
    static const RemoteTree tree{
        {"/",
         {remoteFile("old.txt", "the new one", kTime), remoteFolder("sub"),
          remoteFile("z.txt", "last", kTime)}},
        {"/sub", {remoteFile("b.txt", "deep", kTime)}},
    };
    return tree;
}

QStringList sampleLocal()
{
    return {u"extra.txt: of old"_s, u"old.txt: old"_s, u"sub/extra.txt: of old too"_s};
}

QStringList sampleMirrored() { return {u"old.txt: the new one"_s, u"sub/b.txt: deep"_s, u"z.txt: last"_s}; }

/** Lets a server's thread rest for so long, once the worker has received so many bytes of a file. */
class Rest
{
public:
    explicit Rest(const MirrorWorker &worker)
    {
        QObject::connect(&worker, &MirrorWorker::progress, &worker,
                         [this](const QString &, qint64 done, qint64) { received = done; });
    }

    std::function<void()> of(int milliseconds, qint64 behind)
    {
        return [this, milliseconds, behind] {
            const QDeadlineTimer patience(20000);
            while (received < behind && !patience.hasExpired())
                QThread::msleep(1);
            QThread::msleep(static_cast<unsigned long>(milliseconds));
        };
    }

private:
    std::atomic<qint64> received = 0;
};

/** Cancels at an event of this text, the first time or after so many. */
std::function<void(const QString &)> cancelAt(MirrorWorker *worker, const QString &wanted, int passes = 0)
{
    return [worker, wanted, passes](const QString &event) mutable {
        if (event == wanted && passes-- == 0)
            worker->requestCancel();
    };
}

} // namespace

/** Starts a worker that lives on another thread. */
class Starter : public QObject
{
    Q_OBJECT

signals:
    void startSyncRequested(const MirrorConfig &config);
    void startTestRequested(const MirrorConfig &config);
};

class TestMirrorWorker : public QObject
{
    Q_OBJECT

private slots:
    void aRunTellsEveryStepInOrder();
    void aRunWithNothingToDoIsASuccess();
    void theSessionIsClosedBeforeTheRunIsOver();
    void theLocalFolderIsMadeWithItsParents();
    void aLocalFolderThatCannotBeMadeEndsTheRunBeforeItConnects_data();
    void aLocalFolderThatCannotBeMadeEndsTheRunBeforeItConnects();
    void aJobWithoutALocalFolderTouchesNothing();
    void aFailedLoginEndsTheRun_data();
    void aFailedLoginEndsTheRun();
    void aRefusedConnectionEndsTheRun();
    void tlsIsUsedAsConfigured();
    void certificatesAreCheckedAsConfigured();
    void theSummaryCountsEverything();
    void theSummaryRoundsDownToKilobytes_data();
    void theSummaryRoundsDownToKilobytes();
    void theSummaryTellsSecondsWithOneDecimal();
    void unknownSizesDoNotCountAsBytes();
    void bytesAreTheListedOnes();
    void failuresOfARun_data();
    void failuresOfARun();
    void partialResultsCount();
    void aRunForgetsTheOneBefore();
    void percentSignsArePutInLiterally();

    void aStopTakesEffect_data();
    void aStopTakesEffect();
    void aStopSkipsTheRestOfTheTimes();
    void aStopDuringTheLastFileStillEndsTheRun();
    void aStopInTheMiddleOfAReply_data();
    void aStopInTheMiddleOfAReply();
    void aWaitThatExpiresIsATimeOutDespiteAStop();
    void aStopDoesNotInterruptPruning();
    void aStopBetweenRunsIsForgotten();
    void aStopBeforeAConnectionTestIsForgotten();

    void aConnectionTestTellsEveryStep();
    void aConnectionTestNamesListForEveryServer_data();
    void aConnectionTestNamesListForEveryServer();
    void aConnectionTestTouchesNothingLocal();
    void aConnectionTestThatFails_data();
    void aConnectionTestThatFails();
    void aConnectionTestUsesTheOptionsItIsGiven();
    void aStoppedConnectionTestFails();

    void progressComesOncePerChunk();
    void progressOfAnUnknownSize();
    void anEmptyFileHasNoChunks();
    void aLongDownloadIsSampled();
    void aSampleCountsFromTheOneBefore();
    void aSampleCountsFromTheStartOfItsFile();
    void aFileOfUnknownSizeHasANegativeRate();
    void aLargeFileAlwaysHasARate();
    void aFileTooShortToTellHasNoRate();
    void aFailedFileHasNoRate();

    void itWorksOnAThreadOfItsOwn();
    void itIsStoppedFromAnotherThread();
    void nothingBeginsOnceTheThreadIsToEnd();

    void aServerThatFallsSilent_data();
    void aServerThatFallsSilent();
    void aServerThatFallsSilentWhenAskedForTimes();
    void aConnectionThatIsCut_data();
    void aConnectionThatIsCut();
    void aCutAtAnyCommandDamagesNothing_data();
    void aCutAtAnyCommandDamagesNothing();
    void fiftyThousandEntriesAreServed();
};

// The frame of a run

void TestMirrorWorker::aRunTellsEveryStepInOrder()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    recorded.mirror({{"/", {remoteFile("a.txt", "hello", kTime)}}});
    const QStringList expected = {
        u"log 0 Mirroring ftp://127.0.0.1/ -> LOCAL"_s,
        u"status 1 ''"_s,
        u"log 3 Connecting to 127.0.0.1:PORT ..."_s,
        u"log 3 < 220 ready"_s,
        u"log 3 > USER kim"_s,
        u"log 3 < 331 password?"_s,
        u"log 3 > PASS ********"_s,
        u"log 3 < 230 welcome"_s,
        u"log 3 > FEAT"_s,
        u"log 3 < 211-I can do\nMLSD\nMDTM\n211 no more"_s,
        u"status 2 ''"_s,
        u"log 3 > CWD /"_s,
        u"log 3 < 250 here"_s,
        u"log 3 > TYPE I"_s,
        u"log 3 < 200 binary"_s,
        u"log 3 > EPSV"_s,
        u"log 3 < 229 passive (|||DATA|)"_s,
        u"log 3 > MLSD"_s,
        u"log 3 < 150 coming"_s,
        u"log 3 < 226 done"_s,
        u"progress 'a.txt' 0 5"_s,
        u"status 3 'a.txt'"_s,
        u"log 0 Downloading /a.txt (new)"_s,
        u"log 3 > EPSV"_s,
        u"log 3 < 229 passive (|||DATA|)"_s,
        u"log 3 > RETR /a.txt"_s,
        u"log 3 < 150 coming"_s,
        u"progress '' 5 5"_s,
        u"log 3 < 226 done"_s,
        u"throughput 0"_s,
        u"status 0 ''"_s,
        u"log 0 Finished in TIME s - 1 downloaded, 0 up to date, 0 deleted, 0 failed (0 KB)."_s,
        u"finished success downloaded=1 bytes=5"_s,
    };
    QCOMPARE(withoutRates(recorded.events), expected);
    QCOMPARE(local.read(), QStringList{u"a.txt: hello"_s});
}

void TestMirrorWorker::aRunWithNothingToDoIsASuccess()
{
    LocalFolder local({u"a.txt: hello"_s});
    setFileTime(local.filePath(u"a.txt"_s), kTime);
    RecordedWorker recorded(local.path());
    QCOMPARE(recorded.mirror({{"/", {remoteFile("a.txt", "hello", kTime)}}}), u"success upToDate=1"_s);
    const QStringList expected = {
        u"status 1 ''"_s,
        u"status 2 ''"_s,
        u"throughput 0"_s,
        u"status 0 ''"_s,
        u"finished success upToDate=1"_s,
    };
    QCOMPARE(recorded.eventsOf({u"status"_s, u"throughput"_s, u"progress"_s, u"finished"_s}), expected);
    QCOMPARE(recorded.log(0).last(),
             u"Finished in TIME s - 0 downloaded, 1 up to date, 0 deleted, 0 failed (0 KB)."_s);
    QVERIFY(!recorded.commands.contains("RETR /a.txt"));
}

void TestMirrorWorker::theSessionIsClosedBeforeTheRunIsOver()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    FtpTreeServer server({{"/", {}}});
    recorded.config.port = server.port();
    QByteArrayList seenAtTheEnd;
    recorded.onEvent = [&](const QString &event) {
        // By the time of the last rate the client is gone, so the server can be waited for.
        if (event == u"throughput 0") {
            server.finish();
            seenAtTheEnd = server.commands();
        }
    };
    QCOMPARE(recorded.run(), u"success"_s);
    QCOMPARE(seenAtTheEnd.value(seenAtTheEnd.size() - 1), QByteArray("QUIT"));
    QCOMPARE(server.sessions(), 1);
}

void TestMirrorWorker::theLocalFolderIsMadeWithItsParents()
{
    LocalFolder local;
    RecordedWorker recorded(local.filePath(u"some/where/deep"_s));
    QCOMPARE(recorded.mirror({{"/", {remoteFile("a.txt", "hello")}}}), u"success downloaded=1 bytes=5"_s);
    QCOMPARE(local.read(), QStringList{u"some/where/deep/a.txt: hello"_s});
}

void TestMirrorWorker::aLocalFolderThatCannotBeMadeEndsTheRunBeforeItConnects_data()
{
    QTest::addColumn<QString>("inTheWay");
    QTest::addColumn<QString>("path");
    QTest::newRow("a file is its parent") << u"file: in the way"_s << u"file/sub"_s;
    QTest::newRow("a file in its place") << u"file: in the way"_s << u"file"_s;
    QTest::newRow("a dangling link in its place") << u"link -> nowhere"_s << u"link"_s;
}

void TestMirrorWorker::aLocalFolderThatCannotBeMadeEndsTheRunBeforeItConnects()
{
    QFETCH(const QString, inTheWay);
    QFETCH(const QString, path);
    LocalFolder local({inTheWay});
    RecordedWorker recorded(local.filePath(path));
    QCOMPARE(recorded.mirror(sampleTree()), u"message='Cannot create the local folder 'LOCAL''"_s);
    const QStringList expected = {
        u"log 2 Cannot create the local folder 'LOCAL'"_s,
        u"finished message='Cannot create the local folder 'LOCAL''"_s,
    };
    QCOMPARE(recorded.events, expected);
    QCOMPARE(recorded.sessions, 0);
    QCOMPARE(local.read(), QStringList{inTheWay});
}

void TestMirrorWorker::aJobWithoutALocalFolderTouchesNothing()
{
    LocalFolder local({u"mine: x"_s});
    const QString before = QDir::currentPath();
    QVERIFY(QDir::setCurrent(local.path()));
    RecordedWorker recorded{QString()};
    recorded.config.deleteExtraneous = true;
    const QString told = recorded.mirror(sampleTree());
    QVERIFY(QDir::setCurrent(before));
    QCOMPARE(told, u"message='Cannot create the local folder ''"_s + u'\'');
    QCOMPARE(recorded.sessions, 0);
    QCOMPARE(local.read(), QStringList{u"mine: x"_s});
}

void TestMirrorWorker::aFailedLoginEndsTheRun_data()
{
    QTest::addColumn<bool>("useTls");
    QTest::addColumn<QByteArray>("command");
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<QString>("message");
    QTest::addColumn<int>("commandsSeen");
    QTest::newRow("greeting") << false << QByteArray() << QByteArray("421 too many")
                              << u"Unexpected greeting: 421 too many"_s << 1;
    QTest::newRow("user") << false << QByteArray("USER kim") << QByteArray("530 who?")
                          << u"Login rejected by the server"_s << 2;
    QTest::newRow("password") << false << QByteArray("PASS secret") << QByteArray("530 no")
                              << u"Login rejected by the server"_s << 3;
    QTest::newRow("TLS") << true << QByteArray("AUTH TLS") << QByteArray("500 what?")
                         << u"Server refused AUTH TLS"_s << 2;
}

void TestMirrorWorker::aFailedLoginEndsTheRun()
{
    QFETCH(const bool, useTls);
    QFETCH(const QByteArray, command);
    QFETCH(const QByteArray, reply);
    QFETCH(const QString, message);
    QFETCH(const int, commandsSeen);
    LocalFolder local(sampleLocal());
    RecordedWorker recorded(local.path());
    recorded.config.useTls = useTls;
    recorded.config.deleteExtraneous = true;
    recorded.mirror(sampleTree(), {.faults = {Fault::at(command).reply(reply)}});
    const QStringList expected = {
        u"log 0 Mirroring ftp://127.0.0.1/ -> LOCAL"_s,
        u"status 1 ''"_s,
        u"status 4 '%1'"_s.arg(message),
        u"finished message='%1'"_s.arg(message),
    };
    QCOMPARE(
        recorded.eventsOf({u"log 0"_s, u"log 1"_s, u"log 2"_s, u"status"_s, u"throughput"_s, u"finished"_s}),
        expected);
    QVERIFY(recorded.log(3).contains(u"ERROR: "_s + message));
    QCOMPARE(recorded.commands.size(), commandsSeen); // the last one is QUIT
    QCOMPARE(recorded.commands.last(), QByteArray("QUIT"));
    QCOMPARE(local.read(), sampleLocal());
}

void TestMirrorWorker::aRefusedConnectionEndsTheRun()
{
    const RefusedPort refused;
    LocalFolder local;
    RecordedWorker recorded(local.path());
    recorded.config.port = refused.number();
    const QString message = u"Cannot connect to 127.0.0.1:PORT (Connection refused)"_s;
    recorded.run();
    QCOMPARE(recorded.eventsOf({u"status"_s, u"finished"_s}),
             (QStringList{u"status 1 ''"_s, u"status 4 '%1'"_s.arg(message),
                          u"finished message='%1'"_s.arg(message)}));
}

void TestMirrorWorker::tlsIsUsedAsConfigured()
{
    FtpScript script;
    script.secureLogin().expect("CWD /").reply(250).expect("TYPE I").reply(200);
    script.enterPassive().expect("MLSD").reply(150).dataTls().dataSend("type=file;size=2; a\r\n").dataClose();
    script.reply(226).enterPassive().expect("RETR /a").reply(150).dataTls().dataSend("ab").dataClose().reply(
        226);
    FtpScriptServer server(script);
    LocalFolder local;
    RecordedWorker recorded(local.path());
    recorded.config.port = server.port();
    recorded.config.useTls = true;
    QCOMPARE(recorded.run(), u"success downloaded=1 bytes=2"_s);
    QCOMPARE(server.finish(), QString());
    QCOMPARE(recorded.log(0).first(), u"Mirroring ftp://127.0.0.1/ -> LOCAL"_s); // also for TLS
    QCOMPARE(local.read(), QStringList{u"a: ab"_s});
}

void TestMirrorWorker::certificatesAreCheckedAsConfigured()
{
    FtpScript script;
    script.reply(220).expect("AUTH TLS").reply(234).offerTls();
    FtpScriptServer server(script);
    LocalFolder local;
    RecordedWorker recorded(local.path());
    recorded.config.port = server.port();
    recorded.config.useTls = true;
    recorded.config.acceptAnyCertificate = false;
    const QString told = recorded.run();
    QVERIFY2(told.startsWith(u"message='TLS handshake failed: "), qPrintable(told));
    server.finish();
    QVERIFY(!server.commands().contains("USER kim"));
}

void TestMirrorWorker::theSummaryCountsEverything()
{
    LocalFolder local(
        {u"kept.txt: same"_s, u"kept too.txt: same"_s, u"kept three.txt: same"_s, u"extra: x"_s});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    recorded.config.compareBy = SizeOnly;
    const RemoteTree tree{
        {"/",
         {remoteFile("kept.txt", "same"), remoteFile("kept too.txt", "same"),
          remoteFile("kept three.txt", "same"), remoteFile("new 1.txt", QByteArray(3000, 'x')),
          remoteFile("new 2.txt", QByteArray(1500, 'x')), remoteFile("bad 1.txt", "x"),
          remoteFile("bad 2.txt", "x"), remoteFile("bad 3.txt", "x"), remoteFile("bad 4.txt", "x")}}};
    QList<Fault> faults;
    for (const char *number : {"1", "2", "3", "4"})
        faults += Fault::at(QByteArray("RETR /bad ") + number + ".txt").reply("550 no");
    QCOMPARE(
        recorded.mirror(tree, {.faults = faults}),
        u"downloaded=2 upToDate=3 deleted=1 failed=4 bytes=4500 message='The mirror did not complete.'"_s);
    QCOMPARE(recorded.log(0).last(),
             u"Finished in TIME s - 2 downloaded, 3 up to date, 1 deleted, 4 failed (4 KB)."_s);
}

void TestMirrorWorker::theSummaryRoundsDownToKilobytes_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QString>("kilobytes");
    QTest::newRow("almost one") << 1023 << u"(0 KB)."_s;
    QTest::newRow("one") << 1024 << u"(1 KB)."_s;
    QTest::newRow("almost two") << 2047 << u"(1 KB)."_s;
    QTest::newRow("many") << 300000 << u"(292 KB)."_s;
}

void TestMirrorWorker::theSummaryRoundsDownToKilobytes()
{
    QFETCH(const int, size);
    QFETCH(const QString, kilobytes);
    LocalFolder local;
    RecordedWorker recorded(local.path());
    QCOMPARE(recorded.mirror({{"/", {remoteFile("a", QByteArray(size, 'x'))}}}),
             u"success downloaded=1 bytes=%1"_s.arg(size));
    QVERIFY2(recorded.log(0).last().endsWith(kilobytes), qPrintable(recorded.log(0).last()));
}

void TestMirrorWorker::theSummaryTellsSecondsWithOneDecimal()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    QString summary;
    QObject::connect(&recorded.worker, &MirrorWorker::log, &recorded.worker,
                     [&](const QString &message, int level) {
                         if (level == 0)
                             summary = message;
                     });
    QElapsedTimer meter;
    meter.start();
    recorded.mirror({{"/", {}}}, {.faults = {Fault::at("USER kim").call([] { QThread::msleep(160); })}});
    const auto atMost = static_cast<double>(meter.elapsed()) / 1000.0;
    static const QRegularExpression form(u"^Finished in (\\d+\\.\\d) s - "_s);
    const QRegularExpressionMatch match = form.match(summary);
    QVERIFY2(match.hasMatch(), qPrintable(summary));
    const double seconds = match.captured(1).toDouble();
    QVERIFY2(seconds > 0.15 && seconds < atMost + 0.051, qPrintable(summary));
}

void TestMirrorWorker::unknownSizesDoNotCountAsBytes()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    const RemoteTree tree{{"/", {remoteFileListedAs({}, "unknown", "12345"), remoteFile("known", "123")}}};
    QCOMPARE(recorded.mirror(tree), u"success downloaded=2 bytes=3"_s);
    QCOMPARE(local.read(), (QStringList{u"known: 123"_s, u"unknown: 12345"_s}));
}

void TestMirrorWorker::bytesAreTheListedOnes()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    const RemoteTree tree{
        {"/", {remoteFileListedAs("7", "grown", "1234567890"), remoteFile("whole", "123")}}};
    QCOMPARE(recorded.mirror(tree),
             u"downloaded=1 failed=1 bytes=3 message='The mirror did not complete.'"_s);
    QCOMPARE(recorded.log(2),
             QStringList{u"Failed: /grown (Size mismatch for '/grown': expected 7 bytes, got 10)"_s});
}

void TestMirrorWorker::failuresOfARun_data()
{
    QTest::addColumn<QList<Fault>>("faults");
    QTest::addColumn<QString>("told");
    QTest::addColumn<QString>("lastStatus");
    const QString incomplete = u"message='The mirror did not complete.'"_s;
    QTest::newRow("the root is not listed") << QList{Fault::at("MLSD").reply("550 no")}
                                            << u"failed=1 message='Server refused the listing command'"_s
                                            << u"status 4 'Server refused the listing command'"_s;
    QTest::newRow("a file fails") << QList{Fault::at("RETR /old.txt").reply("550 no")}
                                  << u"downloaded=2 failed=1 bytes=8 "_s + incomplete << u"status 4 ''"_s;
    QTest::newRow("a folder is not listed")
        << QList{Fault::at("CWD /sub").reply("550 no")}
        << u"downloaded=2 failed=1 bytes=15 message='Cannot change to remote directory '/sub''"_s
        << u"status 4 'Cannot change to remote directory '/sub''"_s;
    QTest::newRow("the session is lost in a file")
        << QList{Fault::at("RETR /sub/b.txt").close()}
        << u"downloaded=1 failed=1 bytes=11 message='Server refused to send '/sub/b.txt''"_s
        << u"status 4 'Server refused to send '/sub/b.txt''"_s;
}

void TestMirrorWorker::failuresOfARun()
{
    QFETCH(const QList<Fault>, faults);
    QFETCH(const QString, told);
    QFETCH(const QString, lastStatus);
    LocalFolder local;
    RecordedWorker recorded(local.path());
    QCOMPARE(recorded.mirror(sampleTree(), {.faults = faults}), told);
    const QStringList frame = recorded.eventsOf({u"status"_s, u"log 0 Finished"_s, u"throughput 0"_s});
    QVERIFY(frame.size() > 3);
    QCOMPARE(frame[frame.size() - 3], u"throughput 0"_s);
    QCOMPARE(frame[frame.size() - 2], lastStatus);
    QVERIFY(frame.last().startsWith(u"log 0 Finished"));
}

void TestMirrorWorker::partialResultsCount()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    QCOMPARE(recorded.mirror(sampleTree(), {.faults = {Fault::at("CWD /sub").close()}}),
             u"downloaded=1 failed=1 bytes=11 message='Cannot change to remote directory '/sub''"_s);
    QCOMPARE(local.read(), (QStringList{u"old.txt: the new one"_s, u"sub/"_s}));
}

void TestMirrorWorker::aRunForgetsTheOneBefore()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    recorded.config.excludes = {u"old*"_s};
    QCOMPARE(recorded.mirror(sampleTree(), {.faults = {Fault::at("CWD /sub").reply("550 no")}}),
             u"downloaded=1 failed=1 bytes=4 message='Cannot change to remote directory '/sub''"_s);
    recorded.config.excludes = {};
    QCOMPARE(recorded.mirror(sampleTree()), u"success downloaded=2 upToDate=1 bytes=15"_s);
    QCOMPARE(local.read(), sampleMirrored());
}

void TestMirrorWorker::percentSignsArePutInLiterally()
{
    LocalFolder local;
    const QString folder = local.filePath(u"%1 %2"_s);
    RecordedWorker recorded(folder);
    recorded.config.remoteDir = u"/%3%2%1"_s;
    recorded.config.deleteExtraneous = true;
    recorded.config.excludes = {u"*%2excluded"_s};
    plant(folder, {u"%1%2 extra: x"_s, u"%2 extra/x: x"_s, u"%1 folder: not one"_s});
    QStringList lines;
    QObject::connect(&recorded.worker, &MirrorWorker::log, &recorded.worker,
                     [&](const QString &message, int level) {
                         if (level != 3 || message.startsWith(u"Excluded"))
                             lines += message;
                     });
    const RemoteTree tree{
        {"/%3%2%1",
         {remoteFile("%2 file %1", "x"), remoteFile("%2 bad %1", "x"), remoteFolder("%1 folder"),
          remoteFolder("%2 refused %1"), remoteLink("%1 link %2"), remoteFile("%1%2excluded", "x"),
          remoteFile("%1/%2", "x")}},
    };
    QCOMPARE(recorded.mirror(tree, {.faults = {Fault::at("RETR /%3%2%1/%2 bad %1").reply("550 no")}}),
             u"downloaded=1 deleted=3 failed=3 bytes=1 "
             "message='Cannot change to remote directory '/%3%2%1/%2 refused %1''"_s);
    QVERIFY(lines.last().startsWith(u"Finished in "));
    lines.removeLast();
    const auto deleted = [](const QString &line) { return line.startsWith(u"Deleted"); };
    std::sort(std::find_if(lines.begin(), lines.end(), deleted), lines.end()); // the disk's own order
    const QStringList expected = {
        u"Mirroring ftp://127.0.0.1/%3%2%1 -> "_s + folder,
        u"Downloading /%3%2%1/%2 file %1 (new)"_s,
        u"Downloading /%3%2%1/%2 bad %1 (new)"_s,
        u"Failed: /%3%2%1/%2 bad %1 (Server refused to send '/%3%2%1/%2 bad %1')"_s,
        u"Cannot create '"_s + folder + u"/%1 folder'."_s,
        u"Cannot list '/%3%2%1/%2 refused %1': Cannot change to remote directory '/%3%2%1/%2 refused %1'"_s,
        u"Skipping symlink '%1 link %2'."_s,
        u"Excluded: %1%2excluded"_s,
        u"Skipping unsafe name '%1/%2'."_s,
        u"Deleted "_s + folder + u"/%1 folder"_s,
        u"Deleted "_s + folder + u"/%1%2 extra"_s,
        u"Deleted folder "_s + folder + u"/%2 extra"_s,
    };
    QCOMPARE(lines, expected);
}

// Stopping

void TestMirrorWorker::aStopTakesEffect_data()
{
    QTest::addColumn<QString>("event");
    QTest::addColumn<int>("passes");
    QTest::addColumn<QString>("told");
    QTest::addColumn<QStringList>("errors");
    QTest::addColumn<QString>("lastStatus");
    QTest::addColumn<QString>("lastCommand");
    const QString stopped = u"message='Stopped at your request.'"_s;
    const auto row = [](const char *what, const QString &event, int passes, const QString &told,
                        const QStringList &errors, const QString &lastStatus, const QString &lastCommand) {
        QTest::newRow(what) << event << passes << told << errors << lastStatus << lastCommand;
    };
    const auto atLogin = [&](const char *what, const QString &event, const QString &lastCommand) {
        row(what, event, 0, u"message='Cancelled'"_s, {}, u"status 4 'Cancelled'"_s, lastCommand);
    };
    atLogin("connecting", u"log 3 Connecting to 127.0.0.1:PORT ..."_s, {});
    atLogin("waiting for the reply to USER", u"log 3 > USER kim"_s, u"USER kim"_s);
    atLogin("waiting for the reply to PASS", u"log 3 > PASS ********"_s, u"PASS ********"_s);
    row("waiting for the reply to FEAT", u"log 3 > FEAT"_s, 0, u"cancelled "_s + stopped, {},
        u"status 4 ''"_s, u"FEAT"_s);
    row("entering the root", u"status 2 ''"_s, 0, u"cancelled "_s + stopped, {}, u"status 4 ''"_s, u"FEAT"_s);

    const auto inListing = [&](const char *what, const QString &event, const QString &why,
                               const QString &lastCommand) {
        row(what, event, 0, u"cancelled failed=1 "_s + stopped, {u"Cannot list '/': "_s + why},
            u"status 4 '%1'"_s.arg(why), lastCommand);
    };
    inListing("waiting for the reply to CWD", u"log 3 > CWD /"_s, u"Cannot change to remote directory '/'"_s,
              u"CWD /"_s);
    inListing("waiting for the reply to TYPE", u"log 3 > TYPE I"_s, u"Server refused binary transfer mode"_s,
              u"TYPE I"_s);
    inListing("waiting for the reply to EPSV", u"log 3 > EPSV"_s, u"Server refused passive mode"_s,
              u"PASV"_s);
    inListing("waiting for the reply to MLSD", u"log 3 > MLSD"_s, u"Server refused the listing command"_s,
              u"MLSD"_s);
    inListing("reading a listing", u"log 3 < 150 coming"_s, u"Cancelled"_s, u"MLSD"_s);

    const auto inWalk = [&](const char *what, const QString &event, int passes, const QString &counts,
                            const QString &lastCommand) {
        row(what, event, passes, u"cancelled "_s + counts + stopped, {}, u"status 4 ''"_s, lastCommand);
    };
    inWalk("in front of the first entry", u"log 3 < 226 done"_s, 0, u""_s, u"MLSD"_s);
    inWalk("waiting for a download's EPSV", u"log 0 Downloading /old.txt (newer on server)"_s, 0, u""_s,
           u"PASV"_s);
    inWalk("waiting for the reply to RETR", u"log 3 > RETR /old.txt"_s, 0, u""_s, u"RETR /old.txt"_s);
    inWalk("in front of the first chunk", u"log 3 < 150 coming"_s, 1, u""_s, u"RETR /old.txt"_s);
    inWalk("behind the last chunk", u"progress '' 11 11"_s, 0, u""_s, u"RETR /old.txt"_s);
    inWalk("between entries", u"log 3 < 226 done"_s, 1, u"downloaded=1 bytes=11 "_s, u"RETR /old.txt"_s);
    inWalk("in front of a sub-folder's first entry", u"log 3 < 226 done"_s, 2, u"downloaded=1 bytes=11 "_s,
           u"MLSD"_s);
    inWalk("in a sub-folder's file", u"log 3 > RETR /sub/b.txt"_s, 0, u"downloaded=1 bytes=11 "_s,
           u"RETR /sub/b.txt"_s);
    row("in a sub-folder's listing", u"log 3 > CWD /sub"_s, 0,
        u"cancelled downloaded=1 failed=1 bytes=11 "_s + stopped,
        {u"Cannot list '/sub': Cannot change to remote directory '/sub'"_s},
        u"status 4 'Cannot change to remote directory '/sub''"_s, u"CWD /sub"_s);
}

void TestMirrorWorker::aStopTakesEffect()
{
    QFETCH(const QString, event);
    QFETCH(const int, passes);
    QFETCH(const QString, told);
    QFETCH(const QStringList, errors);
    QFETCH(const QString, lastStatus);
    QFETCH(const QString, lastCommand);
    LocalFolder local(sampleLocal());
    setFileTime(local.filePath(u"old.txt"_s), "20200101000000");
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    recorded.config.compareBy = TimestampOnly;
    recorded.onEvent = cancelAt(&recorded.worker, event, passes);
    QCOMPARE(recorded.mirror(sampleTree()), told);
    QCOMPARE(recorded.log(2), errors);
    QCOMPARE(recorded.eventsOf({u"status"_s}).last(), lastStatus);
    // Of the log, since a server that is still talking when the client leaves may miss the last commands.
    const QStringList commands = recorded.log(3).filter(QRegularExpression(u"^> "_s));
    QCOMPARE(commands.value(commands.size() - 1), lastCommand.isEmpty() ? QString() : u"> "_s + lastCommand);
    QStringList expected = sampleLocal();
    if (told.contains(u"downloaded=1"))
        expected[1] = sampleMirrored()[0];
    QCOMPARE(local.read(), expected); // nothing deleted, and no working file left

    recorded.onEvent = nullptr;
    const QString next = recorded.mirror(sampleTree());
    QVERIFY2(next.startsWith(u"success"), qPrintable(next));
    QCOMPARE(local.read(), sampleMirrored());
}

void TestMirrorWorker::aStopSkipsTheRestOfTheTimes()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    recorded.onEvent = cancelAt(&recorded.worker, u"log 3 < 213 %1"_s.arg(QString::fromLatin1(kTime)));
    const RemoteTree tree{
        {"/", {remoteFile("a", "1", kTime), remoteFile("b", "2", kTime), remoteFile("c", "3", kTime)}}};
    QCOMPARE(recorded.mirror(tree, {.listing = FtpTreeOptions::Unix}),
             u"cancelled message='Stopped at your request.'"_s);
    const QByteArrayList end = recorded.commands.sliced(recorded.commands.size() - 3);
    QCOMPARE(end, (QByteArrayList{"LIST -a", "MDTM a", "QUIT"}));
    QCOMPARE(recorded.log(2), QStringList()); // the listing did not fail
}

void TestMirrorWorker::aStopDuringTheLastFileStillEndsTheRun()
{
    LocalFolder local({u"extra: x"_s});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    recorded.onEvent = cancelAt(&recorded.worker, u"log 3 < 226 done"_s, 1);
    QCOMPARE(recorded.mirror({{"/", {remoteFile("a", "1", kTime)}}}),
             u"cancelled downloaded=1 bytes=1 message='Stopped at your request.'"_s);
    QCOMPARE(recorded.eventsOf({u"status"_s}).last(), u"status 0 ''"_s); // the walk itself went well
    QCOMPARE(local.read(), (QStringList{u"a: 1"_s, u"extra: x"_s}));
}

void TestMirrorWorker::aStopInTheMiddleOfAReply_data()
{
    QTest::addColumn<QByteArray>("command");
    QTest::addColumn<bool>("useTls");
    QTest::addColumn<QString>("told");
    QTest::newRow("greeting") << QByteArray() << false << u"message='Cancelled'"_s;
    QTest::newRow("USER") << QByteArray("USER kim") << false << u"message='Cancelled'"_s;
    QTest::newRow("PASS") << QByteArray("PASS secret") << false << u"message='Cancelled'"_s;
    QTest::newRow("AUTH TLS") << QByteArray("AUTH TLS") << true << u"message='Server refused AUTH TLS'"_s;
}

void TestMirrorWorker::aStopInTheMiddleOfAReply()
{
    QFETCH(const QByteArray, command);
    QFETCH(const bool, useTls);
    QFETCH(const QString, told);
    LocalFolder local;
    RecordedWorker recorded(local.path());
    recorded.config.useTls = useTls;
    const auto stop = [&](const QByteArray &line) {
        if (line == command)
            recorded.worker.requestCancel(); // on the server's thread, while the worker waits
    };
    QCOMPARE(recorded.mirror(sampleTree(), {.faults = {Fault::at(command).mumble("2")}, .onCommand = stop}),
             told);
    QCOMPARE(recorded.eventsOf({u"status"_s}).size(), 2);
}

void TestMirrorWorker::aWaitThatExpiresIsATimeOutDespiteAStop()
{
    // The stop must come while the worker waits, and nobody can tell when it has begun to.
    QString told;
    for (unsigned long pause = 10; pause < 200 && told != u"message='Timed out waiting for a server reply'";
         pause *= 2) {
        LocalFolder local;
        RecordedWorker recorded(local.path());
        recorded.config.timeout = kShortMs;
        const auto stop = [&](const QByteArray &line) {
            if (line != "USER kim")
                return;
            QThread::msleep(pause);
            recorded.worker.requestCancel();
        };
        told =
            recorded.mirror(sampleTree(), {.faults = {Fault::at("USER kim").silence()}, .onCommand = stop});
    }
    QCOMPARE(told, u"message='Timed out waiting for a server reply'"_s);
}

void TestMirrorWorker::aStopDoesNotInterruptPruning()
{
    LocalFolder local({u"extra 1: x"_s, u"extra 2: x"_s, u"extra 3: x"_s});
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    recorded.onEvent = [&](const QString &event) {
        if (event.startsWith(u"log 0 Deleted"))
            recorded.worker.requestCancel();
    };
    QCOMPARE(recorded.mirror({{"/", {}}}), u"cancelled deleted=3 message='Stopped at your request.'"_s);
    QCOMPARE(local.read(), QStringList());
    QCOMPARE(recorded.eventsOf({u"status"_s}).last(), u"status 0 ''"_s);
}

void TestMirrorWorker::aStopBetweenRunsIsForgotten()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    recorded.worker.requestCancel();
    QCOMPARE(recorded.mirror(sampleTree()), u"success downloaded=3 bytes=19"_s);
    recorded.worker.requestCancel();
    QCOMPARE(recorded.mirror(sampleTree()), u"success upToDate=3"_s);
}

void TestMirrorWorker::aStopBeforeAConnectionTestIsForgotten()
{
    RecordedWorker recorded;
    recorded.worker.requestCancel();
    QCOMPARE(recorded.test({{"/", {}}}), u"1 Connected. '/' contains 0 item(s). Listing mode: LIST."_s);
}

// Connection tests

void TestMirrorWorker::aConnectionTestTellsEveryStep()
{
    RecordedWorker recorded;
    recorded.config.remoteDir = u"/pub"_s;
    recorded.test({{"/pub", {remoteFile("a", "1"), remoteLink("b"), remoteFolder("c")}}});
    const QStringList expected = {
        u"status 1 ''"_s,
        u"log 3 Connecting to 127.0.0.1:PORT ..."_s,
        u"log 3 < 220 ready"_s,
        u"log 3 > USER kim"_s,
        u"log 3 < 331 password?"_s,
        u"log 3 > PASS ********"_s,
        u"log 3 < 230 welcome"_s,
        u"log 3 > FEAT"_s,
        u"log 3 < 211-I can do\nMLSD\nMDTM\n211 no more"_s,
        u"status 2 ''"_s,
        u"log 3 > CWD /pub"_s,
        u"log 3 < 250 here"_s,
        u"log 3 > TYPE I"_s,
        u"log 3 < 200 binary"_s,
        u"log 3 > EPSV"_s,
        u"log 3 < 229 passive (|||DATA|)"_s,
        u"log 3 > MLSD"_s,
        u"log 3 < 150 coming"_s,
        u"log 3 < 226 done"_s,
        u"status 0 ''"_s,
        u"test 1 Connected. '/pub' contains 3 item(s). Listing mode: LIST."_s,
    };
    QCOMPARE(recorded.events, expected);
    QCOMPARE(recorded.commands.last(), QByteArray("QUIT"));
    QCOMPARE(recorded.sessions, 1);
}

void TestMirrorWorker::aConnectionTestNamesListForEveryServer_data()
{
    QTest::addColumn<int>("listing");
    QTest::addColumn<bool>("hasMdtm");
    QTest::addColumn<QByteArrayList>("listed");
    QTest::newRow("MLSD") << int(FtpTreeOptions::Mlsd) << true << QByteArrayList{"MLSD"};
    QTest::newRow("LIST and MDTM") << int(FtpTreeOptions::Unix) << true
                                   << QByteArrayList{"LIST -a", "MDTM a", "MDTM b"};
    QTest::newRow("LIST alone") << int(FtpTreeOptions::Dos) << false << QByteArrayList{"LIST -a"};
}

void TestMirrorWorker::aConnectionTestNamesListForEveryServer()
{
    QFETCH(const int, listing);
    QFETCH(const bool, hasMdtm);
    QFETCH(const QByteArrayList, listed);
    RecordedWorker recorded;
    const RemoteTree tree{
        {"/", {remoteFile("a", "1", kTime), remoteFolder("sub"), remoteFile("b", "2", kTime)}}};
    QCOMPARE(recorded.test(tree, {.listing = FtpTreeOptions::Listing(listing), .hasMdtm = hasMdtm}),
             u"1 Connected. '/' contains 3 item(s). Listing mode: LIST."_s);
    const QByteArrayList expected =
        QByteArrayList{"USER kim", "PASS secret", "FEAT", "CWD /", "TYPE I", "EPSV"} + listed +
        QByteArrayList{"QUIT"};
    QCOMPARE(recorded.commands, expected);
}

void TestMirrorWorker::aConnectionTestTouchesNothingLocal()
{
    LocalFolder local(sampleLocal());
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    QVERIFY(recorded.test(sampleTree()).startsWith(u"1 "));
    QCOMPARE(local.read(), sampleLocal());

    recorded.config.localDir = local.filePath(u"not there"_s);
    QVERIFY(recorded.test(sampleTree()).startsWith(u"1 "));
    QCOMPARE(local.read(), sampleLocal());
}

void TestMirrorWorker::aConnectionTestThatFails_data()
{
    QTest::addColumn<QByteArray>("command");
    QTest::addColumn<bool>("loggedIn");
    QTest::addColumn<QString>("message");
    QTest::newRow("greeting") << QByteArray() << false << u"Unexpected greeting: 550 no"_s;
    QTest::newRow("login") << QByteArray("PASS secret") << false << u"Login rejected by the server"_s;
    QTest::newRow("folder") << QByteArray("CWD /") << true << u"Cannot change to remote directory '/'"_s;
    QTest::newRow("listing") << QByteArray("MLSD") << true << u"Server refused the listing command"_s;
}

void TestMirrorWorker::aConnectionTestThatFails()
{
    QFETCH(const QByteArray, command);
    QFETCH(const bool, loggedIn);
    QFETCH(const QString, message);
    RecordedWorker recorded;
    recorded.test(sampleTree(), {.faults = {Fault::at(command).reply("550 no")}});
    QStringList expected = {u"status 1 ''"_s};
    if (loggedIn)
        expected += u"status 2 ''"_s;
    expected += {u"status 4 '%1'"_s.arg(message), u"test 0 "_s + message};
    QCOMPARE(recorded.eventsOf({u"status"_s, u"test"_s, u"log 0"_s, u"log 1"_s, u"log 2"_s}), expected);
    QVERIFY(recorded.log(3).contains(u"ERROR: "_s + message));
    QCOMPARE(recorded.commands.last(), QByteArray("QUIT"));
}

void TestMirrorWorker::aConnectionTestUsesTheOptionsItIsGiven()
{
    RecordedWorker recorded;
    recorded.config.timeout = kShortMs;
    QCOMPARE(recorded.test(sampleTree(), {.faults = {Fault::at("FEAT").silence()}}),
             u"0 Cannot change to remote directory '/'"_s);

    recorded.config.timeout = 20000;
    recorded.config.useTls = true;
    for (const bool acceptAny : {true, false}) {
        FtpScript script;
        if (acceptAny)
            script.secureLogin().expect("CWD /").reply(550);
        else
            script.reply(220).expect("AUTH TLS").reply(234).offerTls();
        FtpScriptServer server(script);
        recorded.config.port = server.port();
        recorded.config.acceptAnyCertificate = acceptAny;
        const QString told = recorded.runTest();
        QVERIFY2(told.startsWith(acceptAny ? u"0 Cannot change to remote directory '/'"_s
                                           : u"0 TLS handshake failed: "_s),
                 qPrintable(told));
    }
}

void TestMirrorWorker::aStoppedConnectionTestFails()
{
    RecordedWorker recorded;
    recorded.onEvent = cancelAt(&recorded.worker, u"log 3 < 150 coming"_s);
    QCOMPARE(recorded.test(sampleTree()), u"0 Cancelled"_s);
    QCOMPARE(recorded.eventsOf({u"status"_s}).last(), u"status 4 'Cancelled'"_s);

    recorded.onEvent = cancelAt(&recorded.worker, u"log 3 > USER kim"_s);
    QCOMPARE(recorded.test(sampleTree()), u"0 Cancelled"_s);
}

// Progress and rates

void TestMirrorWorker::progressComesOncePerChunk()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    qint64 last = 0;
    qint64 largestStep = 0;
    int chunks = 0;
    QObject::connect(&recorded.worker, &MirrorWorker::progress, &recorded.worker,
                     [&](const QString &currentFile, qint64 done, qint64 total) {
                         QCOMPARE(total, qint64(200000));
                         if (!currentFile.isEmpty()) {
                             QCOMPARE(currentFile, u"a"_s);
                             QCOMPARE(done, qint64(0));
                             return;
                         }
                         ++chunks;
                         largestStep = std::max(largestStep, done - last);
                         QVERIFY(done > last);
                         last = done;
                     });
    QCOMPARE(recorded.mirror({{"/", {remoteFile("a", QByteArray(200000, 'x'))}}}),
             u"success downloaded=1 bytes=200000"_s);
    QCOMPARE(last, qint64(200000));
    QVERIFY(largestStep <= 65536);
    QVERIFY(chunks >= 4);
}

void TestMirrorWorker::progressOfAnUnknownSize()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    recorded.mirror({{"/", {remoteFileListedAs({}, "a", "12345")}}});
    QCOMPARE(recorded.eventsOf({u"progress"_s}),
             (QStringList{u"progress 'a' 0 -1"_s, u"progress '' 5 -1"_s}));
}

void TestMirrorWorker::anEmptyFileHasNoChunks()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    QCOMPARE(recorded.mirror({{"/", {remoteFile("a", {})}}}), u"success downloaded=1"_s);
    QCOMPARE(recorded.eventsOf({u"progress"_s}), QStringList{u"progress 'a' 0 0"_s});
    QCOMPARE(local.read(), QStringList{u"a: "_s});
}

void TestMirrorWorker::aLongDownloadIsSampled()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    Rest rest(recorded.worker);
    recorded.mirror({{"/", {remoteFile("a", QByteArray(4000, 'x'))}}},
                    {.faults = {Fault::inData("RETR /a", 1000).call(rest.of(kSampleMs + 10, 1000))}});
    // One sample behind the rest, one rate of the whole file, and the end of the run. What a busy
    // machine adds to the time makes the rates only smaller.
    const QStringList order = recorded.eventsOf({u"progress"_s, u"throughput"_s, u"log 3 < 226"_s});
    const qsizetype lastChunk = order.lastIndexOf(u"progress '' 4000 4000"_s);
    QVERIFY2(lastChunk > 0, qPrintable(order.join(u'\n')));
    QVERIFY(order.value(lastChunk + 1).startsWith(u"throughput "));
    QCOMPARE(order.value(lastChunk + 2), u"log 3 < 226 done"_s);
    QVERIFY(order.value(lastChunk + 3).startsWith(u"throughput "));
    QCOMPARE(order.value(lastChunk + 4), u"throughput 0"_s);
    QCOMPARE(order.size(), lastChunk + 5);
    for (const double rate : recorded.rates.sliced(0, recorded.rates.size() - 1))
        QVERIFY2(rate > 0 && rate <= 4000 * 1000.0 / kSampleMs, qPrintable(QString::number(rate)));
}

void TestMirrorWorker::aSampleCountsFromTheOneBefore()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    Rest rest(recorded.worker);
    const int large = 100000;
    recorded.mirror(
        {{"/", {remoteFile("a", QByteArray(large + 20, 'x'))}}},
        {.faults = {Fault::inData("RETR /a", large).call(rest.of(kSampleMs + 10, large)),
                    Fault::inData("RETR /a", large + 10).call(rest.of(kSampleMs + 10, large + 10))}});
    // The last sample is one of ten bytes.
    const QStringList order = recorded.eventsOf({u"progress"_s, u"throughput"_s});
    const qsizetype lastChunk = order.lastIndexOf(u"progress '' %1 %1"_s.arg(large + 20));
    QVERIFY(lastChunk > 0);
    QVERIFY(order.value(lastChunk - 1).startsWith(u"throughput "));
    QVERIFY(order.value(lastChunk + 1).startsWith(u"throughput "));
    const double rate = order.value(lastChunk + 1).sliced(11).toDouble();
    QVERIFY2(rate > 0 && rate <= 10 * 1000.0 / kSampleMs, qPrintable(QString::number(rate)));
}

void TestMirrorWorker::aSampleCountsFromTheStartOfItsFile()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    Rest rest(recorded.worker);
    recorded.mirror({{"/", {remoteFile("a", QByteArray(5000, 'x')), remoteFile("b", QByteArray(100, 'x'))}}},
                    {.faults = {Fault::inData("RETR /a", 4999).call(rest.of(kSampleMs + 10, 4999)),
                                Fault::inData("RETR /b", 99).call(rest.of(kSampleMs + 10, 99))}});
    const QStringList order = recorded.eventsOf({u"progress"_s, u"throughput"_s});
    const qsizetype lastChunk = order.lastIndexOf(u"progress '' 100 100"_s);
    QVERIFY(lastChunk > 0);
    QVERIFY2(order.value(lastChunk + 1).startsWith(u"throughput "), qPrintable(order.join(u'\n')));
    const double rate = order.value(lastChunk + 1).sliced(11).toDouble();
    QVERIFY2(rate > 0 && rate <= 100 * 1000.0 / kSampleMs, qPrintable(QString::number(rate)));
}

void TestMirrorWorker::aFileOfUnknownSizeHasANegativeRate()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    recorded.mirror({{"/", {remoteFileListedAs({}, "a", "1234")}}},
                    {.faults = {Fault::inData("RETR /a").call([] { QThread::msleep(110); })}});
    QVERIFY(recorded.rates.size() >= 2);
    const double rate = recorded.rates[recorded.rates.size() - 2];
    QVERIFY2(rate < 0 && rate >= -10, qPrintable(QString::number(rate)));
}

void TestMirrorWorker::aLargeFileAlwaysHasARate()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    recorded.mirror({{"/", {remoteFile("a", QByteArray(65536, 'x'))}}});
    QVERIFY(recorded.rates.size() >= 2);
    const double rate = recorded.rates[recorded.rates.size() - 2];
    QVERIFY2(rate > 0 && rate <= 65536 * 1000.0, qPrintable(QString::number(rate)));
    QVERIFY(recorded.eventsOf({u"progress"_s, u"throughput"_s}).indexOf(u"progress '' 65536 65536"_s) >= 0);
}

void TestMirrorWorker::aFileTooShortToTellHasNoRate()
{
    // It has one if the machine was too busy to fetch it quickly, so there is more than one attempt.
    for (int attempt = 0; attempt < 50; ++attempt) {
        LocalFolder local;
        RecordedWorker recorded(local.path());
        QElapsedTimer meter;
        qint64 elapsed = 0;
        recorded.onEvent = [&](const QString &event) {
            if (event.startsWith(u"progress 'a'"))
                meter.start();
            else if (event == u"throughput 0")
                elapsed = meter.elapsed();
        };
        recorded.mirror({{"/", {remoteFile("a", QByteArray(65535, 'x'))}}});
        if (elapsed >= 100)
            continue;
        QCOMPARE(recorded.rates, QList<double>{0.0});
        return;
    }
    QFAIL("never quick enough");
}

void TestMirrorWorker::aFailedFileHasNoRate()
{
    LocalFolder local;
    RecordedWorker recorded(local.path());
    recorded.mirror({{"/", {remoteFile("a", QByteArray(100000, 'x'))}}},
                    {.faults = {Fault::inData("RETR /a", 0).call([] { QThread::msleep(110); }),
                                Fault::atEnd("RETR /a").reply("451 no")}});
    const QStringList order = recorded.eventsOf({u"log 2"_s, u"throughput"_s});
    const qsizetype failure =
        order.indexOf(u"log 2 Failed: /a (Transfer did not complete cleanly: 451 no)"_s);
    QVERIFY(failure >= 0);
    QCOMPARE(order.sliced(failure + 1), QStringList{u"throughput 0"_s});
}

// Threads

void TestMirrorWorker::itWorksOnAThreadOfItsOwn()
{
    LocalFolder local;
    FtpTreeServer server(sampleTree());
    QThread thread;
    auto *worker = new MirrorWorker;
    worker->moveToThread(&thread);
    QObject::connect(&thread, &QThread::finished, worker, &QObject::deleteLater);
    Starter starter;
    QObject::connect(&starter, &Starter::startSyncRequested, worker, &MirrorWorker::runSync);
    QObject::connect(&starter, &Starter::startTestRequested, worker, &MirrorWorker::testConnection);

    QStringList events;
    bool isHere = true;
    const auto note = [&](const QString &event) {
        isHere = isHere && QThread::currentThread() == starter.thread();
        events += event;
    };
    QObject::connect(worker, &MirrorWorker::statusChanged, &starter, [&](int status, const QString &detail) {
        note(u"status %1 %2"_s.arg(status).arg(detail));
    });
    QObject::connect(worker, &MirrorWorker::finished, &starter,
                     [&](const MirrorResult &result) { note(u"finished "_s + describe(result)); });
    QObject::connect(worker, &MirrorWorker::testFinished, &starter,
                     [&](bool ok, const QString &) { note(ok ? u"test good"_s : u"test bad"_s); });
    thread.start();

    MirrorConfig config{
        .host = u"127.0.0.1"_s, .port = server.port(), .user = u"kim"_s, .password = u"secret"_s};
    config.localDir = local.path();
    emit starter.startSyncRequested(config);
    emit starter.startTestRequested(config); // queues up behind the run
    config.localDir = u"changed after the start"_s;
    QTRY_VERIFY_WITH_TIMEOUT(!events.isEmpty() && events.last() == u"test good"_s, 20000);
    thread.quit();
    QVERIFY(thread.wait());
    const QStringList expected = {
        u"status 1 "_s,
        u"status 2 "_s,
        u"status 3 old.txt"_s,
        u"status 3 b.txt"_s,
        u"status 3 z.txt"_s,
        u"status 0 "_s,
        u"finished success downloaded=3 bytes=19"_s,
        u"status 1 "_s,
        u"status 2 "_s,
        u"status 0 "_s,
        u"test good"_s,
    };
    QCOMPARE(events, expected);
    QVERIFY(isHere);
    QCOMPARE(local.read(), sampleMirrored());
}

void TestMirrorWorker::nothingBeginsOnceTheThreadIsToEnd()
{
    LocalFolder local;
    FtpTreeServer server(sampleTree());
    QThread thread;
    auto *worker = new MirrorWorker;
    worker->moveToThread(&thread);
    QObject::connect(&thread, &QThread::finished, worker, &QObject::deleteLater);
    Starter starter;
    QObject::connect(&starter, &Starter::startSyncRequested, worker, &MirrorWorker::runSync);
    QObject::connect(&starter, &Starter::startTestRequested, worker, &MirrorWorker::testConnection);
    QStringList told;
    QObject::connect(worker, &MirrorWorker::finished, &starter,
                     [&](const MirrorResult &result) { told += describe(result); });
    QObject::connect(worker, &MirrorWorker::testFinished, &starter,
                     [&](bool ok, const QString &message) { told += ok ? u"good"_s : message; });
    thread.start();
    thread.requestInterruption();
    MirrorConfig config{
        .host = u"127.0.0.1"_s, .port = server.port(), .user = u"kim"_s, .password = u"secret"_s};
    config.localDir = local.path();
    emit starter.startSyncRequested(config);
    emit starter.startTestRequested(config);
    QTRY_COMPARE_WITH_TIMEOUT(told, (QStringList{u"message='Cancelled'"_s, u"Cancelled"_s}), 20000);
    thread.quit();
    QVERIFY(thread.wait());
    QCOMPARE(local.read(), QStringList());
}

void TestMirrorWorker::itIsStoppedFromAnotherThread()
{
    std::promise<void> stopped;
    std::shared_future<void> isStopped = stopped.get_future().share();
    const auto holdBack = [isStopped](const QByteArray &line) {
        if (line == "RETR /sub/b.txt")
            isStopped.wait();
    };
    LocalFolder local(sampleLocal());
    FtpTreeServer server(sampleTree(), {.onCommand = holdBack});
    QThread thread;
    auto *worker = new MirrorWorker;
    worker->moveToThread(&thread);
    QObject::connect(&thread, &QThread::finished, worker, &QObject::deleteLater);
    Starter starter;
    QObject::connect(&starter, &Starter::startSyncRequested, worker, &MirrorWorker::runSync);
    QStringList results;
    QObject::connect(worker, &MirrorWorker::finished, &starter,
                     [&](const MirrorResult &result) { results += describe(result); });
    QObject::connect(worker, &MirrorWorker::statusChanged, &starter, [&](int, const QString &detail) {
        if (detail == u"b.txt"_s) {
            worker->requestCancel();
            stopped.set_value();
        }
    });
    thread.start();
    MirrorConfig config{
        .host = u"127.0.0.1"_s, .port = server.port(), .user = u"kim"_s, .password = u"secret"_s};
    config.localDir = local.path();
    config.deleteExtraneous = true;
    emit starter.startSyncRequested(config);
    QTRY_VERIFY_WITH_TIMEOUT(!results.isEmpty(), 20000);
    thread.quit();
    QVERIFY(thread.wait());
    QCOMPARE(results, QStringList{u"cancelled downloaded=1 bytes=11 message='Stopped at your request.'"_s});
    QCOMPARE(local.read(), (QStringList{u"extra.txt: of old"_s, u"old.txt: the new one"_s,
                                        u"sub/extra.txt: of old too"_s}));
}

// Servers that fail

namespace {

/** Where a session of the sample tree breaks, and what it comes to when nothing can be read any more. */
void addBreaks(bool isSilence)
{
    QTest::addColumn<Fault>("place");
    QTest::addColumn<QString>("told");
    QTest::addColumn<QStringList>("errors");
    QTest::addColumn<bool>("isFetched");
    QTest::addColumn<bool>("isPruned");
    const QString lost =
        isSilence ? u"Timed out waiting for a server reply"_s : u"Control connection closed by the server"_s;
    const auto row = [](const char *what, const Fault &place, const QString &told, const QStringList &errors,
                        bool isFetched, bool isPruned) {
        QTest::newRow(what) << place << told << errors << isFetched << isPruned;
    };
    const auto atLogin = [&](const char *what, const QByteArray &command) {
        row(what, Fault::at(command), u"message='%1'"_s.arg(lost), {}, false, false);
    };
    atLogin("greeting", {});
    atLogin("USER", "USER kim");
    atLogin("PASS", "PASS secret");

    const auto inListing = [&](const char *what, const Fault &place, const QString &why) {
        row(what, place, u"failed=1 message='%1'"_s.arg(why), {u"Cannot list '/': "_s + why}, false, false);
    };
    inListing("FEAT", Fault::at("FEAT"), u"Cannot change to remote directory '/'"_s);
    inListing("CWD", Fault::at("CWD /"), u"Cannot change to remote directory '/'"_s);
    inListing("TYPE", Fault::at("TYPE I"), u"Server refused binary transfer mode"_s);
    inListing("EPSV", Fault::at("EPSV"), u"Server refused passive mode"_s);
    inListing("MLSD", Fault::at("MLSD"), u"Server refused the listing command"_s);
    inListing("listing", Fault::inData("MLSD"),
              isSilence ? u"Timed out reading from the data connection"_s : lost);
    inListing("end of the listing", Fault::atEnd("MLSD"), lost);

    // A server that is only silent is still connected: the run goes on from one failure to the next,
    // and the folder that was listed is pruned.
    const QString subFails = u"Cannot change to remote directory '/sub'"_s;
    const QString noPassive = u"Server refused passive mode"_s;
    const auto inFile = [&](const char *what, const Fault &place, const QString &why) {
        if (isSilence)
            row(what, place, u"deleted=1 failed=3 message='%1'"_s.arg(subFails),
                {u"Failed: /old.txt (%1)"_s.arg(why), u"Cannot list '/sub': "_s + subFails,
                 u"Failed: /z.txt (%1)"_s.arg(noPassive)},
                false, true);
        else
            row(what, place, u"failed=1 message='%1'"_s.arg(why), {u"Failed: /old.txt (%1)"_s.arg(why)},
                false, false);
    };
    inFile("a file's EPSV", Fault::at("EPSV").butNotTheFirst(1), noPassive);
    inFile("RETR", Fault::at("RETR /old.txt"), u"Server refused to send '/old.txt'"_s);
    inFile("file", Fault::inData("RETR /old.txt"), isSilence ? u"Timed out receiving '/old.txt'"_s : lost);
    inFile("end of the file", Fault::atEnd("RETR /old.txt"), lost);
    if (isSilence)
        row("sub-folder", Fault::at("CWD /sub"),
            u"downloaded=1 deleted=1 failed=2 bytes=11 message='%1'"_s.arg(subFails),
            {u"Cannot list '/sub': "_s + subFails, u"Failed: /z.txt (%1)"_s.arg(noPassive)}, true, true);
    else
        row("sub-folder", Fault::at("CWD /sub"),
            u"downloaded=1 failed=1 bytes=11 message='%1'"_s.arg(subFails),
            {u"Cannot list '/sub': "_s + subFails}, true, false);
}

} // namespace

void TestMirrorWorker::aServerThatFallsSilent_data() { addBreaks(true); }

void TestMirrorWorker::aServerThatFallsSilent()
{
    QFETCH(const Fault, place);
    QFETCH(const QString, told);
    QFETCH(const QStringList, errors);
    QFETCH(const bool, isFetched);
    QFETCH(const bool, isPruned);
    LocalFolder local(sampleLocal());
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    recorded.config.timeout = kShortMs;
    QCOMPARE(recorded.mirror(sampleTree(), {.faults = {place.silence()}}), told);
    QCOMPARE(recorded.log(2), errors);
    QStringList expected = sampleLocal();
    if (isFetched)
        expected[1] = sampleMirrored()[0];
    if (isPruned)
        expected.removeFirst();
    QCOMPARE(local.read(), expected);
    QCOMPARE(local.harm(), QString());

    recorded.config.timeout = 20000;
    const QString next = recorded.mirror(sampleTree());
    QVERIFY2(next.startsWith(u"success"), qPrintable(next));
    QCOMPARE(local.read(), sampleMirrored());
}

void TestMirrorWorker::aServerThatFallsSilentWhenAskedForTimes()
{
    LocalFolder local({u"a: other"_s, u"b: same"_s});
    setFileTime(local.filePath(u"b"_s), "20200101000000");
    RecordedWorker recorded(local.path());
    recorded.config.timeout = kShortMs;
    const RemoteTree tree{{"/", {remoteFile("a", "new", kTime), remoteFile("b", "same", kTime)}}};
    const FtpTreeOptions silent{.listing = FtpTreeOptions::Unix, .faults = {Fault::at("MDTM a").silence()}};
    // The folder counts as listed, and the files have sizes to be compared by.
    QCOMPARE(recorded.mirror(tree, silent), u"upToDate=1 failed=1 message='The mirror did not complete.'"_s);
    QCOMPARE(recorded.log(2), QStringList{u"Failed: /a (Server refused passive mode)"_s});
    QCOMPARE(local.read(), (QStringList{u"a: other"_s, u"b: same"_s}));

    recorded.config.timeout = 20000;
    QCOMPARE(recorded.mirror(tree, {.listing = FtpTreeOptions::Unix}), u"success downloaded=2 bytes=7"_s);
    QCOMPARE(local.read(), (QStringList{u"a: new"_s, u"b: same"_s}));
}

void TestMirrorWorker::aConnectionThatIsCut_data() { addBreaks(false); }

void TestMirrorWorker::aConnectionThatIsCut()
{
    QFETCH(const Fault, place);
    QFETCH(const QString, told);
    QFETCH(const QStringList, errors);
    QFETCH(const bool, isFetched);
    QFETCH(const bool, isPruned);
    QVERIFY(!isPruned);
    LocalFolder local(sampleLocal());
    RecordedWorker recorded(local.path());
    recorded.config.deleteExtraneous = true;
    QCOMPARE(recorded.mirror(sampleTree(), {.faults = {place.close()}}), told);
    QCOMPARE(recorded.log(2), errors);
    QStringList expected = sampleLocal();
    if (isFetched)
        expected[1] = sampleMirrored()[0];
    QCOMPARE(local.read(), expected);

    const QString next = recorded.mirror(sampleTree());
    QVERIFY2(next.startsWith(u"success"), qPrintable(next));
    QCOMPARE(local.read(), sampleMirrored());
}

void TestMirrorWorker::aCutAtAnyCommandDamagesNothing_data()
{
    QTest::addColumn<int>("listing");
    QTest::newRow("MLSD") << int(FtpTreeOptions::Mlsd);
    QTest::newRow("LIST in Unix form") << int(FtpTreeOptions::Unix);
    QTest::newRow("LIST in DOS form") << int(FtpTreeOptions::Dos);
}

void TestMirrorWorker::aCutAtAnyCommandDamagesNothing()
{
    QFETCH(const int, listing);
    FtpTreeOptions options{.listing = FtpTreeOptions::Listing(listing)};
    int commands = 0;
    for (int number = 0; number == 0 || number < commands; ++number) {
        LocalFolder local(sampleLocal());
        RecordedWorker recorded(local.path());
        recorded.config.deleteExtraneous = true;
        options.faults = {Fault::at({}).asNumber(number).close()};
        const QString told = recorded.mirror(sampleTree(), options);
        QVERIFY2(told.contains(u"message='") && !told.contains(u"success"), qPrintable(told));
        QVERIFY(!recorded.commands.contains("QUIT"));

        const QStringList after = local.read();
        QVERIFY2(after.contains(u"extra.txt: of old"_s), qPrintable(after.join(u'\n')));
        for (const QString &line : after)
            QVERIFY2(sampleLocal().contains(line) || sampleMirrored().contains(line), qPrintable(line));
        QVERIFY(after.contains(u"old.txt: old"_s) != after.contains(u"old.txt: the new one"_s));
        QCOMPARE(local.harm(), QString());

        options.faults = {};
        const QString next = recorded.mirror(sampleTree(), options);
        QVERIFY2(next.startsWith(u"success"), qPrintable(next));
        QCOMPARE(local.read(), sampleMirrored());
        if (number == 0)
            commands = int(recorded.commands.size()); // without QUIT, but with the greeting
    }
    QVERIFY(commands > 15);
}

void TestMirrorWorker::fiftyThousandEntriesAreServed()
{
    QList<RemoteEntry> entries;
    for (int i = 0; i < 50000; ++i)
        entries +=
            remoteFile("file " + QByteArray::number(i) + (i % 1000 == 0 ? ".txt" : ".bak"), "x", kTime);
    LocalFolder local;
    RecordedWorker recorded(local.path());
    recorded.config.excludes = {u"*.BAK"_s};
    recorded.config.deleteExtraneous = true;
    QCOMPARE(recorded.mirror({{"/", entries}}), u"success downloaded=50 bytes=50"_s);
    QCOMPARE(recorded.log(3).filter(u"Excluded: "_s).size(), qsizetype(49950));
    QCOMPARE(recorded.mirror({{"/", entries}}), u"success upToDate=50"_s);
    QCOMPARE(local.read().size(), qsizetype(50));
}

QTEST_GUILESS_MAIN(TestMirrorWorker)
#include "tst_MirrorWorker.moc"
