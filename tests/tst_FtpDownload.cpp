#include "support/FtpScriptServer.h"
#include "support/TestClient.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QStorageInfo>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <memory>

#ifdef Q_OS_UNIX
#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#endif
#ifdef Q_OS_LINUX
#include <sched.h>
#include <sys/mount.h>
#endif

using namespace Qt::StringLiterals;

namespace {

// Every message must take these for names, not for places to fill in.
const QString kRemotePath = u"/r/%1 of %2%3.bin"_s;
const QString kLocalName = u"%2 and %1.bin"_s;
const QByteArray kOld = "what was here before";
const QByteArray kNew = "what the server has";

/** A session in which everything is said up to the data connection. */
FtpScript inBinaryMode() { return FtpScript().login().expect("TYPE I").reply(200); }

/** The same up to the RETR. */
FtpScript asked(const QString &remotePath = kRemotePath)
{
    return inBinaryMode().enterPassive().expect("RETR " + remotePath.toUtf8());
}

FtpScript sent(const QByteArray &bytes, const QString &remotePath = kRemotePath)
{
    return asked(remotePath).reply(150, "coming").dataSend(bytes).dataClose().reply(226, "done");
}

QByteArray pattern(qsizetype size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (qsizetype i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 31 + i / 251) & 0xff);
    return bytes;
}

QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : "cannot be read";
}

void write(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.flush())
        qFatal("cannot write a file of the test");
}

/** Everything in a folder, dangling links too. */
QStringList namesIn(const QString &folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
}

QString cannotWrite(const QString &workingName) { return u"Cannot write to '"_s + workingName + u"': "_s; }

/** A small disk that can be filled to the page; invalid where nothing may be mounted. */
class SmallDisk
{
public:
    SmallDisk()
    {
#ifdef Q_OS_LINUX
        // In a name space of its own the mount vanishes with the test, whatever way that ends.
        isMounted =
            ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
            ::mount("tmpfs", QFile::encodeName(folder.path()).constData(), "tmpfs", 0, "size=1m") == 0;
#endif
    }

    ~SmallDisk()
    {
#ifdef Q_OS_LINUX
        if (isMounted)
            ::umount2(QFile::encodeName(folder.path()).constData(), MNT_DETACH);
#endif
    }
    Q_DISABLE_COPY_MOVE(SmallDisk)

    bool isValid() const { return isMounted; }
    QString path(const QString &name) const { return folder.filePath(name); }
    qint64 pageSize() const { return QStorageInfo(folder.path()).blockSize(); }

    void leaveFree(qint64 pages) const
    {
        QFile::remove(path(u"filler"_s));
        write(path(u"filler"_s),
              QByteArray(QStorageInfo(folder.path()).bytesAvailable() - pages * pageSize(), 'x'));
    }

private:
    QTemporaryDir folder;
    bool isMounted = false;
};

} // namespace

class TestFtpDownload : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void aDownloadIsLoggedLineByLine();
    void theOldFileStaysUntilTheNewOneIsWhole();
    void filesArrive_data();
    void filesArrive();
    void filesOfAllSizesArrive_data();
    void filesOfAllSizesArrive();
    void progressIsToldPerChunk();
    void timesAreSetToTheSecond_data();
    void timesAreSetToTheSecond();
    void withoutATimeTheTimeOfWritingStays();
    void namesAreTakenAsTheyAre_data();
    void namesAreTakenAsTheyAre();
    void longNamesGetAShorterWorkingName_data();
    void longNamesGetAShorterWorkingName();
    void aNameThatIsTooLongIsNotFetched_data();
    void aNameThatIsTooLongIsNotFetched();
    void foldersAreMade();
    void downloadsFail_data();
    void downloadsFail();
    void aRaisedFlagStopsTheReceiving();
    void anUnreadFinalReplyAnswersTheNextCommand();
    void aLineBreakIsNeverSent();
    void workingFilesThatCannotBeOpened_data();
    void workingFilesThatCannotBeOpened();
    void aStaleWorkingFileIsOverwritten();
    void aWorkingFileThatIsALinkIsNotFollowed_data();
    void aWorkingFileThatIsALinkIsNotFollowed();
    void aWorkingFileOfAnotherKindIsReplaced_data();
    void aWorkingFileOfAnotherKindIsReplaced();
    void aNameThatCannotBeWrittenDownIsRefused();
    void aTargetThatIsALinkIsNotFollowed_data();
    void aTargetThatIsALinkIsNotFollowed();
    void aFolderIsNotReplaced_data();
    void aFolderIsNotReplaced();
    void aLostWorkingFileIsReported();
    void aFullDiskLeavesTheOldFile_data();
    void aFullDiskLeavesTheOldFile();
    void aLimitedFileLeavesTheOldFile_data();
    void aLimitedFileLeavesTheOldFile();
    void protectedDownloadsLoseNoTime_data();
    void protectedDownloadsLoseNoTime();
    void protectedDataFails_data();
    void protectedDataFails();
    void aBrokenRecordIsNoEnd();

private:
    QString folder() const { return home->filePath(u"local"_s); }
    QString target() const { return folder() + u'/' + kLocalName; }
    QString workingName() const { return target() + u".part"_s; }
    QString canary() const { return home->filePath(u"canary"_s); }

    std::unique_ptr<QTemporaryDir> home;
};

void TestFtpDownload::init()
{
    home = std::make_unique<QTemporaryDir>();
    QVERIFY(home->isValid());
    QVERIFY(QDir().mkdir(folder()));
    write(target(), kOld);
    write(canary(), "alive");
}

void TestFtpDownload::cleanup()
{
    QCOMPARE(contents(canary()), QByteArray("alive"));
    home.reset();
}

void TestFtpDownload::aDownloadIsLoggedLineByLine()
{
    FtpScriptServer server(sent(kNew));
    TestClient client;
    QVERIFY(client.login(server));
    const qsizetype before = client.log().size();
    QVERIFY(client.download(kRemotePath, target(), kNew.size(), QDateTime()));
    QCOMPARE(contents(target()), kNew);
    QCOMPARE(namesIn(folder()), QStringList(kLocalName));
    client.close();
    QCOMPARE(server.finish(), QString());
    QCOMPARE(client.log().mid(before),
             QStringList({u"> TYPE I"_s, u"< 200 as you wish"_s, u"> EPSV"_s,
                          u"< 229 Extended passive (|||%1|)"_s.arg(server.dataPorts().at(0)),
                          u"> RETR "_s + kRemotePath, u"< 150 coming"_s, u"< 226 done"_s}));
}

void TestFtpDownload::theOldFileStaysUntilTheNewOneIsWhole()
{
    FtpScriptServer server(sent(kNew));
    TestClient client;
    QVERIFY(client.login(server));
    QByteArray duringTransfer;
    QByteArray atTheEnd;
    QStringList names;
    connect(&client, &FtpClient::transferProgress, &client, [&] {
        duringTransfer = contents(target());
        names = namesIn(folder());
    });
    client.whenLogged(u"< 226"_s, [&] { atTheEnd = contents(target()); });
    QVERIFY(client.download(kRemotePath, target(), kNew.size(), QDateTime()));
    QCOMPARE(duringTransfer, kOld);
    QCOMPARE(atTheEnd, kOld);
    QCOMPARE(names, QStringList({kLocalName, kLocalName + u".part"_s}));
    QCOMPARE(contents(target()), kNew);
    QCOMPARE(server.finish(), QString());
}

void TestFtpDownload::filesArrive_data()
{
    QTest::addColumn<FtpScript>("script");
    QTest::addColumn<qint64>("expectedSize");
    QTest::addColumn<QByteArray>("bytes");
    const qint64 size = kNew.size();
    QTest::newRow("125") << asked().reply(125).dataSend(kNew).dataClose().reply(226) << size << kNew;
    QTest::newRow("final 250") << asked().reply(150).dataSend(kNew).dataClose().reply(250) << size << kNew;
    QTest::newRow("final reply of several lines")
        << asked().reply(150).dataSend(kNew).dataClose().replyRaw("226-a\r\n226 b\r\n") << size << kNew;
    QTest::newRow("final reply early")
        << asked().replyRaw("150 a\r\n226 b\r\n").dataSend(kNew).dataClose() << size << kNew;
    QTest::newRow("data early") << asked().dataSend(kNew).dataClose().reply(150).reply(226) << size << kNew;
    QTest::newRow("size unknown") << sent(kNew) << qint64(-1) << kNew;
    QTest::newRow("size far below zero") << sent(kNew) << qint64(-4711) << kNew;
    QTest::newRow("empty") << sent({}) << qint64(0) << QByteArray();
    QTest::newRow("empty, size unknown") << sent({}) << qint64(-1) << QByteArray();
    QTest::newRow("line ends stay") << sent("a\r\nb\nc\rd\0e\x1a"_ba) << qint64(11)
                                    << "a\r\nb\nc\rd\0e\x1a"_ba;
    QTest::newRow("single bytes") << asked().reply(150).dataFragment(1).dataSend(kNew).dataClose().reply(226)
                                  << size << kNew;
    QTest::newRow("old passive mode") << inBinaryMode()
                                             .expect("EPSV")
                                             .reply(500)
                                             .expect("PASV")
                                             .passive()
                                             .reply227()
                                             .expect("RETR " + kRemotePath.toUtf8())
                                             .reply(150)
                                             .dataSend(kNew)
                                             .dataClose()
                                             .reply(226)
                                      << size << kNew;
}

void TestFtpDownload::filesArrive()
{
    QFETCH(const FtpScript, script);
    QFETCH(const qint64, expectedSize);
    QFETCH(const QByteArray, bytes);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QSignalSpy progress(&client, &FtpClient::transferProgress);
    QVERIFY2(client.download(kRemotePath, target(), expectedSize, QDateTime()),
             qPrintable(client.lastError()));
    QCOMPARE(contents(target()), bytes);
    QCOMPARE(namesIn(folder()), QStringList(kLocalName));
    QCOMPARE(client.errors(), QStringList());
    if (bytes.isEmpty()) {
        QCOMPARE(progress.size(), 0);
    } else {
        QCOMPARE(progress.last().at(0).toLongLong(), bytes.size());
        QCOMPARE(progress.last().at(1).toLongLong(), expectedSize);
    }
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpDownload::filesOfAllSizesArrive_data()
{
    QTest::addColumn<qint64>("size");
    for (const qint64 size : {1, 4095, 4096, 4097, 16383, 16384, 16385, 65535, 65536, 65537, 131072, 3000000})
        QTest::addRow("%lld", size) << size;
}

void TestFtpDownload::filesOfAllSizesArrive()
{
    QFETCH(const qint64, size);
    const QByteArray bytes = pattern(size);
    FtpScriptServer server(sent(bytes));
    TestClient client;
    QVERIFY(client.login(server));
    QVERIFY2(client.download(kRemotePath, target(), size, QDateTime()), qPrintable(client.lastError()));
    QVERIFY(contents(target()) == bytes);
    QCOMPARE(server.finish(), QString());
}

void TestFtpDownload::progressIsToldPerChunk()
{
    const QByteArray bytes = pattern(1000000);
    FtpScriptServer server(sent(bytes));
    TestClient client;
    QVERIFY(client.login(server));
    QSignalSpy progress(&client, &FtpClient::transferProgress);
    QVERIFY(client.download(kRemotePath, target(), bytes.size(), QDateTime()));
    QVERIFY(progress.size() >= 1000000 / 65536);
    qint64 before = 0;
    for (const QList<QVariant> &step : std::as_const(progress)) {
        const qint64 received = step.at(0).toLongLong();
        QVERIFY(received > before);
        QVERIFY(received - before <= 65536);
        QCOMPARE(step.at(1).toLongLong(), bytes.size());
        before = received;
    }
    QCOMPARE(before, bytes.size());
    QCOMPARE(server.finish(), QString());
}

void TestFtpDownload::timesAreSetToTheSecond_data()
{
    QTest::addColumn<QDateTime>("time");
    const auto row = [](const char *what, const QDate &date, const QTime &clock) {
        QTest::newRow(what) << QDateTime(date, clock, Qt::UTC);
    };
    row("odd second", QDate(2020, 1, 2), QTime(3, 4, 5));
    row("even second", QDate(2020, 1, 2), QTime(3, 4, 6));
    row("long ago", QDate(1985, 10, 26), QTime(8, 21, 0));
    row("before 1970", QDate(1969, 7, 20), QTime(20, 17, 40));
    row("beyond 32 bits", QDate(2040, 6, 1), QTime(12, 0, 1));
    row("in a spring-forward gap", QDate(2021, 3, 28), QTime(2, 30, 0));
}

void TestFtpDownload::timesAreSetToTheSecond()
{
    QFETCH(const QDateTime, time);
    FtpScriptServer server(sent(kNew));
    TestClient client;
    QVERIFY(client.login(server));
    QVERIFY(client.download(kRemotePath, target(), kNew.size(), time));
    QCOMPARE(QFileInfo(target()).lastModified().toUTC(), time);
    QCOMPARE(contents(target()), kNew);
    QCOMPARE(server.finish(), QString());
}

void TestFtpDownload::withoutATimeTheTimeOfWritingStays()
{
    QFile old(target());
    QVERIFY(old.open(QIODevice::ReadWrite));
    QVERIFY(
        old.setFileTime(QDateTime(QDate(2001, 2, 3), QTime(4, 5, 6), Qt::UTC), QFile::FileModificationTime));
    old.close();
    FtpScriptServer server(sent(kNew));
    TestClient client;
    QVERIFY(client.login(server));
    const QDateTime begin =
        QDateTime::currentDateTimeUtc().addSecs(-5); // file systems have clocks of their own
    QVERIFY(client.download(kRemotePath, target(), kNew.size(), QDateTime()));
    QVERIFY(QFileInfo(target()).lastModified().toUTC() >= begin);
    QCOMPARE(server.finish(), QString());
}

void TestFtpDownload::namesAreTakenAsTheyAre_data()
{
    QTest::addColumn<QString>("name");
    for (const QString &name : {u"a  b"_s, u"'quoted' \"twice\""_s, u"100%"_s, u"-rf"_s, u"~x"_s,
                                u"[a]*?;b&c"_s, u"a..b"_s, u"..mp3"_s, u"x.part"_s, u"\u00E9"_s, u"e\u0301"_s,
                                u"\U0001F41A"_s, u"tab\there"_s, u"back\\slash"_s})
        QTest::newRow(name.toUtf8().constData()) << name;
}

void TestFtpDownload::namesAreTakenAsTheyAre()
{
    QFETCH(const QString, name);
    FtpScriptServer server(sent(kNew, u"/r/"_s + name));
    TestClient client;
    QVERIFY(client.login(server));
    QVERIFY2(client.download(u"/r/"_s + name, folder() + u'/' + name, kNew.size(), QDateTime()),
             qPrintable(client.lastError()));
    QCOMPARE(contents(folder() + u'/' + name), kNew);
    QCOMPARE(namesIn(folder()).size(), 2);
    QCOMPARE(server.finish(), QString());
}

void TestFtpDownload::longNamesGetAShorterWorkingName_data()
{
    QTest::addColumn<QString>("name");
    for (const int size : {249, 250, 251, 254, 255})
        QTest::addRow("%d bytes", size) << QString(size, u'n');
    QTest::newRow("255 bytes with an ending") << QString(251, u'n') + u".mp3"_s;
    QTest::newRow("255 bytes in letters of two") << QString(127, u'\u00E9') + u'n';
    QTest::newRow("252 bytes in letters of two") << QString(126, u'\u00E9');
    QTest::newRow("252 bytes in letters of four") << u"\U0001F41A"_s.repeated(63);
    QTest::newRow("255 bytes in letters of four") << u"nnn"_s + u"\U0001F41A"_s.repeated(63);
}

void TestFtpDownload::longNamesGetAShorterWorkingName()
{
    QFETCH(const QString, name);
    const QString path = folder() + u'/' + name;
    for (const bool succeeds : {false, true}) {
        FtpScript script = sent(kNew, u"/r/"_s + name);
        if (!succeeds)
            script = asked(u"/r/"_s + name).reply(150).dataSend(kNew).dataClose().reply(426);
        FtpScriptServer server(script);
        TestClient client;
        QVERIFY(client.login(server));
        QStringList during;
        connect(&client, &FtpClient::transferProgress, &client, [&] { during = namesIn(folder()); });
        QCOMPARE(client.download(u"/r/"_s + name, path, kNew.size(), QDateTime()), succeeds);
        during.removeOne(kLocalName);
        QCOMPARE(during.size(), 1);
        QVERIFY(during.first().endsWith(u".part"));
        if (QFile::encodeName(name).size() <= 250)
            QCOMPARE(during.first(), name + u".part"_s);
        QCOMPARE(namesIn(folder()).size(), succeeds ? 2 : 1); // with the file that has nothing to do with it
        QCOMPARE(server.finish(), QString());
    }
    QCOMPARE(contents(path), kNew);
}

void TestFtpDownload::aNameThatIsTooLongIsNotFetched_data()
{
    QTest::addColumn<int>("length");
    QTest::newRow("by a letter") << 256;
    QTest::newRow("200,000 letters") << 200000;
}

void TestFtpDownload::aNameThatIsTooLongIsNotFetched()
{
    QFETCH(const int, length);
    const QString name(length, u'n');       // cut letter by letter, it would outlast the whole run
    FtpScriptServer server(inBinaryMode()); // which is not asked for the file
    TestClient client;
    QVERIFY(client.login(server));
    const QString path = folder() + u'/' + name;
    QVERIFY(!client.download(u"/r/x"_s, path, kNew.size(), QDateTime()));
    QVERIFY2(client.hasFailedOnceWith(cannotWrite(path + u".part"_s)), qPrintable(client.lastError()));
    QCOMPARE(namesIn(folder()), QStringList(kLocalName));
    QCOMPARE(server.finish(), QString());
}

void TestFtpDownload::foldersAreMade()
{
    FtpScriptServer server(sent(kNew));
    TestClient client;
    QVERIFY(client.login(server));
    const QString path = folder() + u"/a b/\u00E9/c/"_s + kLocalName;
    QVERIFY(client.download(kRemotePath, path, kNew.size(), QDateTime()));
    QCOMPARE(contents(path), kNew);
    QCOMPARE(server.finish(), QString());
}

void TestFtpDownload::downloadsFail_data()
{
    QTest::addColumn<FtpScript>("script");
    QTest::addColumn<qint64>("expectedSize");
    QTest::addColumn<QString>("moment");   // from which on the server is silent
    QTest::addColumn<QString>("cancelAt"); // the log line at which the flag is raised
    QTest::addColumn<QStringList>("errors");
    const QString notBinary = u"Server refused binary transfer mode"_s;
    const QString notPassive = u"Server refused passive mode"_s;
    const QString refused = u"Server refused to send '"_s + kRemotePath + u'\'';
    const QString timedOut = u"Timed out waiting for a server reply"_s;
    const QString dataTimedOut = u"Timed out receiving '"_s + kRemotePath + u'\'';
    const QString closed = u"Control connection closed by the server"_s;
    const QString cancelled = u"Cancelled"_s;
    const QString unclean = u"Transfer did not complete cleanly: "_s;
    const QString coming = u"< 150 coming"_s;
    const QString retr = u"> RETR "_s;
    const qint64 size = kNew.size();
    const auto row = [size](const char *what, const FtpScript &script, const QStringList &errors,
                            const QString &moment = QString()) {
        QTest::newRow(what) << script << size << moment << QString() << errors;
    };
    const auto wrongSize = [](const char *what, const FtpScript &script, qint64 expected, qint64 got) {
        QTest::newRow(what) << script << expected << QString() << QString()
                            << QStringList(u"Size mismatch for '"_s + kRemotePath + u"': expected "_s +
                                           QString::number(expected) + u" bytes, got "_s +
                                           QString::number(got));
    };
    const auto cancel = [size](const char *what, const FtpScript &script, const QString &line,
                               const QStringList &errors) {
        QTest::newRow(what) << script << size << QString() << line << errors;
    };

    row("binary mode refused", FtpScript().login().expect("TYPE I").reply(504), {notBinary});
    row("passive mode refused", inBinaryMode().expect("EPSV").reply(500).expect("PASV").reply(502),
        {notPassive});
    row("passive mode unreadable", inBinaryMode().expect("EPSV").reply(500).expect("PASV").reply(227),
        {u"Could not parse the PASV reply"_s});
    row("not there", asked().reply(550, "%1?").dataStall(), {refused});
    row("final instead of preliminary", asked().reply(226).dataStall(), {refused});
    row("command silent", asked().dataStall(), {timedOut, refused}, retr);
    row("command closed", asked().closeControl().dataStall(), {closed, refused});

    row("data silent", asked().reply(150, "coming").dataStall(), {dataTimedOut}, coming);
    row("data silent half-way", asked().reply(150, "coming").dataSend(kNew.first(9)).dataStall(),
        {dataTimedOut}, coming);
    row("data silent at its end", asked().reply(150, "coming").dataSend(kNew).dataStall(), {dataTimedOut},
        coming);
    row("data silent, though the server is done",
        asked().replyRaw("150 coming\r\n226 done\r\n").dataSend(kNew).dataStall(), {dataTimedOut}, coming);

    const FtpScript whole = asked().dataSend(kNew).dataClose().reply(150, "coming");
    row("aborted", FtpScript(whole).reply(426, "broken"), {unclean + u"426 broken"_s});
    row("local error", FtpScript(whole).reply(451, "%1 %2"), {unclean + u"451 %1 %2"_s});
    row("other success", FtpScript(whole).reply(200, "fine"), {unclean + u"200 fine"_s});
    row("several lines", FtpScript(whole).replyRaw("426-a\r\n426 b\r\n"), {unclean + u"426-a\n426 b"_s});
    row("end silent", FtpScript(whole).silence(), {timedOut}, coming);
    row("end closed", FtpScript(whole).closeControl(), {closed});
    row("end reset", FtpScript(whole).dropControl(), {closed});
    row("data reset", asked().reply(150).dataReset().reply(426, "broken"), {unclean + u"426 broken"_s});

    wrongSize("one byte missing", sent(kNew), size + 1, size);
    wrongSize("one byte too much", sent(kNew), size - 1, size);
    wrongSize("empty instead of something", sent({}), size, 0);
    wrongSize("something instead of empty", sent(kNew), 0, size);
    wrongSize("far too much", sent(pattern(300000)), 5, 300000);
    wrongSize("reset, though the server says it is complete", asked().reply(150).dataReset().reply(226), size,
              0);
    wrongSize("beyond 32 bits", sent(kNew), 5000000000, size);

    cancel("cancelled at TYPE", FtpScript().login().expect("TYPE I").silence(), u"> TYPE"_s,
           {cancelled, notBinary});
    cancel("cancelled at EPSV", inBinaryMode().expect("EPSV").expect("PASV").silence(), u"> EPSV"_s,
           {cancelled, cancelled, notPassive});
    cancel("cancelled at RETR", asked().dataStall(), retr, {cancelled, refused});
    cancel("cancelled before the data", asked().reply(150, "coming").dataStall(), coming, {cancelled});
    cancel("cancelled with data there", asked().dataSend(kNew).reply(150, "coming").dataStall(), coming,
           {cancelled});
    cancel("cancelled with everything there", FtpScript(whole).reply(226), coming, {cancelled});
}

void TestFtpDownload::downloadsFail()
{
    QFETCH(const FtpScript, script);
    QFETCH(const qint64, expectedSize);
    QFETCH(const QString, moment);
    QFETCH(const QString, cancelAt);
    QFETCH(const QStringList, errors);
    for (const bool hasOldFile : {true, false}) {
        if (!hasOldFile)
            QVERIFY(QFile::remove(target()));
        FtpScriptServer server(script);
        std::atomic<bool> cancel = false;
        TestClient client;
        client.setCancelFlag(&cancel);
        QVERIFY(client.login(server));
        client.hurryFrom(moment);
        if (!cancelAt.isEmpty())
            client.whenLogged(cancelAt, [&cancel] { cancel = true; });
        QVERIFY(!client.download(kRemotePath, target(), expectedSize,
                                 QDateTime(QDate(2020, 1, 2), QTime(3, 4, 5), Qt::UTC)));
        QCOMPARE(client.errors(), errors);
        QCOMPARE(client.lastError(), errors.last());
        QCOMPARE(namesIn(folder()), hasOldFile ? QStringList(kLocalName) : QStringList());
        if (hasOldFile)
            QCOMPARE(contents(target()), kOld);
        QCOMPARE(client.isConnected(), !errors.contains(u"Control connection closed by the server"_s));
        client.close();
        QCOMPARE(server.finish(), QString());
    }
}

void TestFtpDownload::aRaisedFlagStopsTheReceiving()
{
    std::atomic<bool> cancel = false;
    FtpScript script = asked().reply(150).dataSend(pattern(100000)).waitFor(&cancel);
    FtpScriptServer server(script.dataSend(pattern(100000)).dataStall().reply(426));
    TestClient client;
    client.setCancelFlag(&cancel);
    QVERIFY(client.login(server));
    int steps = 0;
    connect(&client, &FtpClient::transferProgress, &client, [&cancel, &steps] {
        ++steps;
        cancel = true;
    });
    QVERIFY(!client.download(kRemotePath, target(), 200000, QDateTime()));
    QCOMPARE(client.errors(), QStringList(u"Cancelled"_s));
    QCOMPARE(steps, 1);
    QCOMPARE(contents(target()), kOld);
    QCOMPARE(namesIn(folder()), QStringList(kLocalName));
    QVERIFY(client.isConnected());
    client.close();
    QCOMPARE(server.finish(), QString());
    QCOMPARE(server.commands().last(), QByteArray("QUIT")); // and no ABOR
}

void TestFtpDownload::anUnreadFinalReplyAnswersTheNextCommand()
{
    FtpScript script = asked().reply(150, "coming").dataSend(kNew).dataStall().reply(226, "after all");
    script.expect("MDTM a").reply(213, "20200102030405").expect("MDTM b");
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    client.hurryFrom(u"< 150 coming"_s);
    client.whenLogged(u"> MDTM a"_s, [&client] { client.setTimeoutMs(10000); });
    QVERIFY(!client.download(kRemotePath, target(), kNew.size(), QDateTime()));
    QVERIFY(!client.modificationTime(u"a"_s).isValid());
    QCOMPARE(client.log().last(), u"< 226 after all"_s);
    QVERIFY(client.modificationTime(u"b"_s).isValid());
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpDownload::aLineBreakIsNeverSent()
{
    FtpScript script =
        inBinaryMode().enterPassive().dataStall().expect("MDTM a").reply(213, "20200102030405");
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    const QString path = u"/r/a\r\nDELE b"_s;
    QVERIFY(!client.download(path, target(), -1, QDateTime()));
    QCOMPARE(client.lastError(), u"Server refused to send '"_s + path + u'\'');
    QCOMPARE(contents(target()), kOld);
    QCOMPARE(namesIn(folder()), QStringList(kLocalName));
    QVERIFY(client.modificationTime(u"a"_s).isValid());
    client.close();
    QCOMPARE(server.finish(), QString());
    QVERIFY(!server.received().contains("DELE"));
}

void TestFtpDownload::workingFilesThatCannotBeOpened_data()
{
    QTest::addColumn<QString>("path");   // of the target, in the folder
    QTest::addColumn<bool>("isBlocked"); // by a folder of the working name
    QTest::newRow("file in place of the folder") << kLocalName + u"/a.bin"_s << false;
    QTest::newRow("file in place of a folder above") << kLocalName + u"/a/b/c.bin"_s << false;
    QTest::newRow("folder in place of the working file") << kLocalName << true;
    QTest::newRow("path without a name") << kLocalName + u'/' << false;
}

void TestFtpDownload::workingFilesThatCannotBeOpened()
{
    QFETCH(const QString, path);
    QFETCH(const bool, isBlocked);
    if (isBlocked) {
        QVERIFY(QDir().mkdir(workingName()));
        write(workingName() + u"/inside"_s, "inside");
    }
    FtpScriptServer server(FtpScript(inBinaryMode()).expect("MDTM a").reply(213, "20200102030405"));
    TestClient client;
    QVERIFY(client.login(server));
    const QString localPath = folder() + u'/' + path;
    QVERIFY(!client.download(kRemotePath, localPath, kNew.size(), QDateTime()));
    QVERIFY2(client.hasFailedOnceWith(cannotWrite(localPath + u".part"_s)), qPrintable(client.lastError()));
    QCOMPARE(contents(target()), kOld);
    if (isBlocked)
        QCOMPARE(contents(workingName() + u"/inside"_s), QByteArray("inside"));
    QVERIFY(client.modificationTime(u"a"_s).isValid()); // no data connection was opened
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpDownload::aStaleWorkingFileIsOverwritten()
{
    write(workingName(), pattern(50000));
    FtpScriptServer server(sent(kNew));
    TestClient client;
    QVERIFY(client.login(server));
    QVERIFY(client.download(kRemotePath, target(), kNew.size(), QDateTime()));
    QCOMPARE(contents(target()), kNew);
    QCOMPARE(namesIn(folder()), QStringList(kLocalName));
    QCOMPARE(server.finish(), QString());
}

void TestFtpDownload::aWorkingFileThatIsALinkIsNotFollowed_data()
{
    QTest::addColumn<QString>("destination"); // beside the folder
    QTest::addColumn<bool>("succeeds");
    QTest::newRow("to a file") << u"canary"_s << true;
    QTest::newRow("to a file, transfer aborted") << u"canary"_s << false;
    QTest::newRow("to nothing") << u"nothing"_s << true;
    QTest::newRow("to nothing, transfer aborted") << u"nothing"_s << false;
    QTest::newRow("to a folder") << u"."_s << true;
    QTest::newRow("to itself") << u"local/"_s + kLocalName + u".part"_s << true;
}

void TestFtpDownload::aWorkingFileThatIsALinkIsNotFollowed()
{
    QFETCH(const QString, destination);
    QFETCH(const bool, succeeds);
    QVERIFY(QFile::link(home->filePath(destination), workingName()));
    FtpScriptServer server(succeeds ? sent(kNew) : asked().reply(150).dataSend(kNew).dataClose().reply(426));
    TestClient client;
    QVERIFY(client.login(server));
    QCOMPARE(client.download(kRemotePath, target(), kNew.size(), QDateTime()), succeeds);
    QCOMPARE(contents(target()), succeeds ? kNew : kOld);
    QVERIFY(!QFileInfo(target()).isSymLink());
    QCOMPARE(namesIn(folder()), QStringList(kLocalName));
    QCOMPARE(namesIn(home->path()), QStringList({u"canary"_s, u"local"_s}));
    QCOMPARE(server.finish(), QString());
}

void TestFtpDownload::aWorkingFileOfAnotherKindIsReplaced_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("hard link") << u"hard link"_s;
    QTest::newRow("pipe") << u"pipe"_s; // to open it would wait for somebody who reads
}

void TestFtpDownload::aWorkingFileOfAnotherKindIsReplaced()
{
    QFETCH(const QString, kind);
    const QByteArray path = QFile::encodeName(workingName());
    if (kind == u"pipe")
        QCOMPARE(::mkfifo(path.constData(), 0600), 0);
    else
        std::filesystem::create_hard_link(canary().toStdString(), path.toStdString());
    FtpScriptServer server(sent(kNew));
    TestClient client;
    QVERIFY(client.login(server));
    QVERIFY(client.download(kRemotePath, target(), kNew.size(), QDateTime()));
    QCOMPARE(contents(target()), kNew);
    QCOMPARE(namesIn(folder()), QStringList(kLocalName));
    QCOMPARE(server.finish(), QString());
}

void TestFtpDownload::aNameThatCannotBeWrittenDownIsRefused()
{
    const QString path = folder() + u'/' + QChar(0xD800); // half of a pair
    FtpScriptServer server(sent(kNew));
    TestClient client;
    QVERIFY(client.login(server));
    const bool arrived = client.download(kRemotePath, path, kNew.size(), QDateTime());
    QCOMPARE(namesIn(folder()).size(), arrived ? 2 : 1); // whatever the file system makes of it
    QCOMPARE(contents(target()), kOld);
    client.close();
    server.finish();
}

void TestFtpDownload::aTargetThatIsALinkIsNotFollowed_data()
{
    QTest::addColumn<QString>("destination"); // beside the folder
    QTest::newRow("to a file") << u"canary"_s;
    QTest::newRow("to nothing") << u"nothing"_s;
    QTest::newRow("to a folder") << u"."_s;
    QTest::newRow("to itself") << u"local/"_s + kLocalName;
}

void TestFtpDownload::aTargetThatIsALinkIsNotFollowed()
{
    QFETCH(const QString, destination);
    QVERIFY(QFile::remove(target()));
    QVERIFY(QFile::link(home->filePath(destination), target()));
    FtpScriptServer server(sent(kNew));
    TestClient client;
    QVERIFY(client.login(server));
    QVERIFY2(client.download(kRemotePath, target(), kNew.size(),
                             QDateTime(QDate(2020, 1, 2), QTime(3, 4), Qt::UTC)),
             qPrintable(client.lastError()));
    QVERIFY(!QFileInfo(target()).isSymLink());
    QCOMPARE(contents(target()), kNew);
    QCOMPARE(namesIn(folder()), QStringList(kLocalName));
    QCOMPARE(namesIn(home->path()), QStringList({u"canary"_s, u"local"_s}));
    QCOMPARE(server.finish(), QString());
}

void TestFtpDownload::aFolderIsNotReplaced_data()
{
    QTest::addColumn<bool>("isEmpty");
    QTest::newRow("empty") << true;
    QTest::newRow("not empty") << false;
}

void TestFtpDownload::aFolderIsNotReplaced()
{
    QFETCH(const bool, isEmpty);
    QVERIFY(QFile::remove(target()));
    QVERIFY(QDir().mkdir(target()));
    if (!isEmpty)
        write(target() + u"/inside"_s, "inside");
    FtpScriptServer server(sent(kNew));
    TestClient client;
    QVERIFY(client.login(server));
    QVERIFY(!client.download(kRemotePath, target(), kNew.size(), QDateTime()));
    QCOMPARE(client.errors(), QStringList(u"Cannot replace '"_s + target() + u'\''));
    QVERIFY(QFileInfo(target()).isDir());
    QCOMPARE(namesIn(target()).size(), isEmpty ? 0 : 1);
    QCOMPARE(namesIn(folder()), QStringList(kLocalName));
    QCOMPARE(server.finish(), QString());
}

void TestFtpDownload::aLostWorkingFileIsReported()
{
    FtpScriptServer server(sent(kNew));
    TestClient client;
    QVERIFY(client.login(server));
    client.whenLogged(u"< 226"_s, [this] { QFile::remove(workingName()); });
    QVERIFY(!client.download(kRemotePath, target(), kNew.size(), QDateTime()));
    QCOMPARE(client.errors(),
             QStringList(u"Cannot rename '"_s + workingName() + u"' to '"_s + target() + u'\''));
    QCOMPARE(server.finish(), QString());
}

void TestFtpDownload::aFullDiskLeavesTheOldFile_data()
{
    QTest::addColumn<qint64>("size");
    QTest::addColumn<int>("packet"); // 0: all at once
    for (const int packet : {0, 4000}) {
        for (const qint64 size :
             {1, 4095, 4096, 4097, 16383, 16384, 16385, 20000, 65535, 65536, 65537, 131073})
            QTest::addRow("%lld bytes in packets of %d", size, packet) << size << packet;
    }
}

void TestFtpDownload::aFullDiskLeavesTheOldFile()
{
    QFETCH(const qint64, size);
    QFETCH(const int, packet);
    const SmallDisk disk;
    if (!disk.isValid())
        QSKIP("Only root may mount a disk to fill; a limit on the file's size is tested in any case.");
    const QString path = disk.path(kLocalName);
    write(path, kOld);
    const QByteArray bytes = pattern(size);
    const qint64 pages = (size + disk.pageSize() - 1) / disk.pageSize();
    for (const bool fits : {false, true}) {
        disk.leaveFree(fits ? pages : pages - 1);
        FtpScriptServer server(
            asked().reply(150).dataFragment(packet).dataSend(bytes).dataClose().reply(226));
        TestClient client;
        QVERIFY(client.login(server));
        QCOMPARE(client.download(kRemotePath, path, size, QDateTime()), fits);
        QVERIFY(contents(path) == (fits ? bytes : kOld));
        QVERIFY(!QFileInfo::exists(path + u".part"_s));
        if (!fits) {
            QVERIFY2(client.hasFailedOnceWith(cannotWrite(path + u".part"_s)),
                     qPrintable(client.lastError()));
        }
        client.close();
        QCOMPARE(server.finish(), QString());
    }
}

void TestFtpDownload::aLimitedFileLeavesTheOldFile_data() { aFullDiskLeavesTheOldFile_data(); }

void TestFtpDownload::aLimitedFileLeavesTheOldFile()
{
#ifdef Q_OS_UNIX
    QFETCH(const qint64, size);
    QFETCH(const int, packet);
    const QByteArray bytes = pattern(size);
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit former = {};
    QCOMPARE(::getrlimit(RLIMIT_FSIZE, &former), 0);
    for (const bool fits : {false, true}) {
        FtpScriptServer server(
            asked().reply(150).dataFragment(packet).dataSend(bytes).dataClose().reply(226));
        TestClient client;
        QVERIFY(client.login(server));
        rlimit limit = former;
        limit.rlim_cur = static_cast<rlim_t>(fits ? size : size - 1);
        bool done = false;
        {
            const auto restore = qScopeGuard([&former] { ::setrlimit(RLIMIT_FSIZE, &former); });
            QCOMPARE(::setrlimit(RLIMIT_FSIZE, &limit), 0);
            done = client.download(kRemotePath, target(), size, QDateTime());
        }
        QCOMPARE(done, fits);
        QVERIFY(contents(target()) == (fits ? bytes : kOld));
        QCOMPARE(namesIn(folder()), QStringList(kLocalName));
        if (!fits) {
            QVERIFY2(client.hasFailedOnceWith(cannotWrite(workingName())), qPrintable(client.lastError()));
        }
        client.close();
        QCOMPARE(server.finish(), QString());
    }
#else
    QSKIP("There is no limit on a file's size here.");
#endif
}

void TestFtpDownload::protectedDownloadsLoseNoTime_data()
{
    QTest::addColumn<QSsl::SslProtocol>("version");
    QTest::addColumn<int>("end");
    QTest::addColumn<qint64>("size");
    const struct
    {
        const char *what;
        FtpScript::End end;
    } ends[] = {{"alert and close", FtpScript::End::Clean},
                {"alert, the server waits", FtpScript::End::AlertOnly},
                {"no alert", FtpScript::End::WithoutAlert}};
    for (const QSsl::SslProtocol version : {QSsl::TlsV1_2, QSsl::TlsV1_3}) {
        for (const auto &[what, end] : ends) {
            for (const qint64 size : {0, 1, 16384, 65537, 1000000})
                QTest::addRow("%s, %s, %lld bytes", version == QSsl::TlsV1_2 ? "1.2" : "1.3", what, size)
                    << version << static_cast<int>(end) << size;
        }
    }
}

void TestFtpDownload::protectedDownloadsLoseNoTime()
{
    QFETCH(const QSsl::SslProtocol, version);
    QFETCH(const int, end);
    QFETCH(const qint64, size);
    const QByteArray bytes = pattern(size);
    FtpScript script;
    script.tlsVersion(version).secureLogin().expect("TYPE I").reply(200).enterPassive();
    script.expect("RETR " + kRemotePath.toUtf8()).reply(150).dataTls().dataSend(bytes);
    script.dataClose(static_cast<FtpScript::End>(end)).reply(226);
    FtpScriptServer server(script);
    TestClient client;
    client.setTlsOptions(true, true);
    QVERIFY(client.login(server));
    client.setTimeoutMs(8000);
    QElapsedTimer clock;
    clock.start();
    QVERIFY2(client.download(kRemotePath, target(), size, QDateTime()), qPrintable(client.lastError()));
    QVERIFY2(clock.elapsed() < 4000, qPrintable(QString::number(clock.elapsed())));
    QVERIFY(contents(target()) == bytes);
    QCOMPARE(client.errors(), QStringList());
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpDownload::protectedDataFails_data()
{
    QTest::addColumn<FtpScript>("script");
    FtpScript opened;
    opened.secureLogin().expect("TYPE I").reply(200).enterPassive();
    opened.expect("RETR " + kRemotePath.toUtf8()).reply(150, "coming");
    QTest::newRow("plain text") << FtpScript(opened).dataSend(kNew).dataStall();
    QTest::newRow("closed") << FtpScript(opened).dataClose();
    QTest::newRow("silence") << FtpScript(opened).dataStall();
}

void TestFtpDownload::protectedDataFails()
{
    QFETCH(const FtpScript, script);
    FtpScriptServer server(script);
    TestClient client;
    client.setTlsOptions(true, true);
    QVERIFY(client.login(server));
    client.hurryFrom(u"< 150 coming"_s, 200);
    QVERIFY(!client.download(kRemotePath, target(), kNew.size(), QDateTime()));
    QVERIFY2(client.hasFailedOnceWith(u"Data channel TLS handshake failed: "_s),
             qPrintable(client.lastError()));
    QCOMPARE(contents(target()), kOld);
    QCOMPARE(namesIn(folder()), QStringList(kLocalName));
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpDownload::aBrokenRecordIsNoEnd()
{
    FtpScript script;
    script.secureLogin().expect("TYPE I").reply(200).enterPassive();
    script.expect("RETR " + kRemotePath.toUtf8())
        .replyRaw("150 coming\r\n226 done\r\n")
        .dataTls()
        .dataSend(kNew)
        .dataBreakTls();
    FtpScriptServer server(script);
    TestClient client;
    client.setTlsOptions(true, true);
    QVERIFY(client.login(server));
    QVERIFY(!client.download(kRemotePath, target(), -1, QDateTime())); // no size would tell
    QVERIFY2(client.hasFailedOnceWith(u"Data connection failed: "_s), qPrintable(client.lastError()));
    QCOMPARE(contents(target()), kOld);
    QCOMPARE(namesIn(folder()), QStringList(kLocalName));
    client.close();
    QCOMPARE(server.finish(), QString());
}

QTEST_GUILESS_MAIN(TestFtpDownload)
#include "tst_FtpDownload.moc"
