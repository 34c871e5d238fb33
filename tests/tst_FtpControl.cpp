#include "support/FtpScriptServer.h"
#include "support/TestClient.h"

#include <QElapsedTimer>
#include <QTest>

#include <atomic>

using namespace Qt::StringLiterals;

namespace {

// MDTM is the command with the least around it: one exchange, nothing in front and nothing behind.
const QString kFirstTime = u"2001-01-01T00:00:00Z"_s;
const QString kSecondTime = u"2002-02-02T00:00:00Z"_s;
constexpr char kFirstReply[] = "213 20010101000000\r\n";
constexpr char kSecondReply[] = "213 20020202000000\r\n";

QString timeOf(FtpClient *client, const QString &path)
{
    return client->modificationTime(path).toString(Qt::ISODate); // empty if invalid
}

} // namespace

class TestFtpControl : public QObject
{
    Q_OBJECT

private slots:
    void aFreshClientIsNotConnected();
    void aFailureIsStoredAndLogged();
    void aSessionIsSentByteForByte();
    void repliesAreReadToTheirEnd_data();
    void repliesAreReadToTheirEnd();
    void aReplyMayComeInAnyPackets_data();
    void aReplyMayComeInAnyPackets();
    void everyWaitHasTheWholeTimeOut();
    void twoRepliesInOnePacketAnswerTwoCommands();
    void unfinishedRepliesTimeOut_data();
    void unfinishedRepliesTimeOut();
    void endlessRepliesAreGivenUp_data();
    void endlessRepliesAreGivenUp();
    void aReplyMayBeLong();
    void aLateReplyAnswersTheNextCommand();
    void aLostConnectionIsReported_data();
    void aLostConnectionIsReported();
    void aBufferedReplyOutlivesTheConnection();
    void aRaisedFlagStopsTheWaitForAReply();
    void aFlagRaisedMeanwhileCountsAtTheNextWait();
    void aFlagRaisedDuringASilentWaitLeavesATimeOut();
    void aReplyThatIsThereIsReturnedInSpiteOfTheFlag();
    void lineBreaksAreNeverSent_data();
    void lineBreaksAreNeverSent();
    void aServerThatDoesNotReadHoldsNobodyUp();
    void closeSaysGoodbyeInSilence();
    void closeForgetsTheSessionButNotTheError();
    void theDestructorCloses();
    void oneClientCanHaveSeveralSessions();
};

void TestFtpControl::aFreshClientIsNotConnected()
{
    TestClient client;
    QVERIFY(!client.isConnected());
    QVERIFY(!client.supportsMlsd());
    QCOMPARE(client.lastError(), QString());
    client.close();
    QVERIFY(!client.isConnected());

    QList<FtpEntry> entries(3);
    QVERIFY(!client.list(u"/"_s, &entries));
    QVERIFY(entries.isEmpty());
    QCOMPARE(client.errors(), QStringList({u"Not connected"_s, u"Cannot change to remote directory '/'"_s}));
    QCOMPARE(timeOf(&client, u"a"_s), QString());
    QCOMPARE(client.fileSize(u"a"_s), -1);
    QCOMPARE(client.errors().size(), 2);
}

void TestFtpControl::aFailureIsStoredAndLogged()
{
    TestClient client;
    QList<FtpEntry> entries;
    client.list(u"/a"_s, &entries);
    QCOMPARE(client.lastError(), u"Cannot change to remote directory '/a'"_s);
    QCOMPARE(client.log(),
             QStringList({u"ERROR: Not connected"_s, u"ERROR: Cannot change to remote directory '/a'"_s}));
}

void TestFtpControl::aSessionIsSentByteForByte()
{
    FtpScript script;
    script.login().expect("MDTM /Größe/\xF0\x9F\x90\x9A").replyRaw(kFirstReply);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QVERIFY(client.isConnected());
    QCOMPARE(timeOf(&client, u"/Größe/\U0001F41A"_s), kFirstTime);
    client.close();
    QVERIFY(!client.isConnected());
    QCOMPARE(server.finish(), QString());
    QCOMPARE(server.received(),
             QByteArray("USER kim\r\nPASS secret\r\nFEAT\r\nMDTM /Größe/\xF0\x9F\x90\x9A\r\nQUIT\r\n"));
    QCOMPARE(client.log().mid(client.log().size() - 2),
             QStringList({u"> MDTM /Größe/\U0001F41A"_s, u"< 213 20010101000000"_s}));
}

void TestFtpControl::repliesAreReadToTheirEnd_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("logged");
    QTest::addColumn<QString>("next"); // what the next command meets
    const QString own = u"< 550 own"_s;
    const auto row = [own](const char *what, const QByteArray &bytes, const QString &logged,
                           const QString &next = QString()) {
        QTest::newRow(what) << bytes << logged << (next.isEmpty() ? own : next);
    };

    row("one line", "213 a\r\n", u"< 213 a"_s);
    row("line feed alone", "213 a\n", u"< 213 a"_s);
    row("blanks around", "  213 a \t\r\n", u"< 213 a"_s);
    row("several lines", "213-a\r\n213-b\r\n213 c\r\n", u"< 213-a\n213-b\n213 c"_s);
    row("lines without a code", "213-a\r\nb\r\n c\r\n213 d\r\n", u"< 213-a\nb\nc\n213 d"_s);
    row("empty line inside", "213-a\r\n\r\n213 d\r\n", u"< 213-a\n\n213 d"_s);
    row("empty line in front", "\r\n213 a\r\n", u"< 213 a"_s);
    row("another code inside", "213-a\r\n150 b\r\n213 c\r\n", u"< 213-a\n150 b\n213 c"_s);
    row("another block inside", "213-a\r\n150-b\r\n150 c\r\n213 d\r\n", u"< 213-a\n150-b\n150 c\n213 d"_s);
    row("text in front", "hello\r\n213 a\r\n", u"< hello\n213 a"_s);
    row("two digits", "21 a\r\n213 b\r\n", u"< 21 a\n213 b"_s);
    row("four digits", "2130 a\r\n213 b\r\n", u"< 2130 a\n213 b"_s);
    row("bare code", "213\r\n213 b\r\n", u"< 213\n213 b"_s);
    row("code and a blank", "213 \r\n213 b\r\n", u"< 213\n213 b"_s);
    row("code and a tab", "213\ta\r\n213 b\r\n", u"< 213\ta\n213 b"_s);
    row("digits of another script", "\xD9\xA2\xD9\xA1\xD9\xA3 a\r\n213 b\r\n",
        u"< \u0662\u0661\u0663 a\n213 b"_s);
    row("code and a blank of another kind",
        "213\xC2\xA0"
        "a\r\n213 b\r\n",
        u"< 213\u00A0a\n213 b"_s);
    row("code and a hyphen", "213-\r\n213 b\r\n", u"< 213-\n213 b"_s);
    row("indented line ends the block", "213-a\r\n 213 b\r\n213 c\r\n", u"< 213-a\n213 b"_s, u"< 213 c"_s);
    row("blank ends at once", "213 a\r\n213-b\r\n213 c\r\n", u"< 213 a"_s, u"< 213-b\n213 c"_s);
    row("hyphen behind the block's code", "213-a\r\n213-\r\n213 b\r\n", u"< 213-a\n213-\n213 b"_s);
    row("Unicode",
        "213 gr\xC3\xB6\xC3\x9F"
        "e\r\n",
        u"< 213 größe"_s);
    row("not UTF-8", "213 gr\xF6\r\n", u"< 213 gr\uFFFD"_s);
    row("percent signs", "213 %1 %2\r\n", u"< 213 %1 %2"_s);
}

void TestFtpControl::repliesAreReadToTheirEnd()
{
    QFETCH(const QByteArray, bytes);
    QFETCH(const QString, logged);
    QFETCH(const QString, next);
    FtpScript script;
    script.login().expect("MDTM a").replyRaw(bytes).expect("MDTM b").reply(550, "own");
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    timeOf(&client, u"a"_s);
    QCOMPARE(client.log().last(), logged);
    timeOf(&client, u"b"_s);
    QCOMPARE(client.log().last(), next);
    QCOMPARE(client.errors(), QStringList());
    QCOMPARE(server.finish(), QString());
}

void TestFtpControl::aReplyMayComeInAnyPackets_data()
{
    QTest::addColumn<int>("size");
    for (const int size : {1, 2, 3, 5, 8, 13, 21})
        QTest::addRow("%d bytes", size) << size;
}

void TestFtpControl::aReplyMayComeInAnyPackets()
{
    QFETCH(const int, size);
    FtpScript script;
    script.login().expect("MDTM a").fragment(size).replyRaw("213-größer\r\nals\r\n213 20010101000000\r\n");
    script.expect("MDTM b").fragment(size).replyRaw(kSecondReply);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    timeOf(&client, u"a"_s);
    QCOMPARE(client.log().last(), u"< 213-größer\nals\n213 20010101000000"_s);
    QCOMPARE(timeOf(&client, u"b"_s), kSecondTime);
    QCOMPARE(server.finish(), QString());
}

void TestFtpControl::everyWaitHasTheWholeTimeOut()
{
    FtpScript script;
    script.login().expect("MDTM a").delay(500).replyRaw("213 2001").delay(500).replyRaw("0101").delay(500);
    script.replyRaw("000000\r\n");
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    client.setTimeoutMs(1200);
    QCOMPARE(timeOf(&client, u"a"_s), kFirstTime);
    QCOMPARE(server.finish(), QString());
}

void TestFtpControl::twoRepliesInOnePacketAnswerTwoCommands()
{
    FtpScript script;
    script.login()
        .expect("MDTM a")
        .replyRaw(QByteArray(kFirstReply) + kSecondReply)
        .expect("MDTM b")
        .silence();
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QCOMPARE(timeOf(&client, u"a"_s), kFirstTime);
    QCOMPARE(timeOf(&client, u"b"_s), kSecondTime);
    QCOMPARE(client.errors(), QStringList());
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpControl::unfinishedRepliesTimeOut_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("silence") << QByteArray();
    QTest::newRow("no line feed") << QByteArray("213 20010101000000\r");
    QTest::newRow("code and a blank only") << QByteArray("213 \r\n");
    QTest::newRow("first line of several") << QByteArray("213-a\r\n");
    QTest::newRow("another code for the last") << QByteArray("213-a\r\n214 b\r\n");
    QTest::newRow("no code") << QByteArray("hello\r\n");
}

void TestFtpControl::unfinishedRepliesTimeOut()
{
    QFETCH(const QByteArray, bytes);
    FtpScript script;
    script.login().expect("MDTM a").replyRaw(bytes).silence();
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    client.hurryFrom(u"> MDTM a"_s);
    QCOMPARE(timeOf(&client, u"a"_s), QString());
    QCOMPARE(client.lastError(), u"Timed out waiting for a server reply"_s);
    QCOMPARE(client.log().last(), u"ERROR: Timed out waiting for a server reply"_s);
    QVERIFY(client.isConnected());
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpControl::endlessRepliesAreGivenUp_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("one line") << QByteArray(2000000, 'x');
    QTest::newRow("many lines") << "213-a\r\n" + QByteArray("more\r\n").repeated(300000);
    QTest::newRow("many codes") << QByteArray("213-a\r\n").repeated(200000);
}

void TestFtpControl::endlessRepliesAreGivenUp()
{
    QFETCH(const QByteArray, bytes);
    FtpScript script;
    script.login().expect("MDTM a").replyRaw(bytes).silence();
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QCOMPARE(timeOf(&client, u"a"_s), QString());
    QCOMPARE(client.errors(), QStringList(u"The server's reply is too long"_s));
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpControl::aReplyMayBeLong()
{
    // A little less than is allowed, as one line and as many.
    const QByteArray longLine = "213-" + QByteArray(1000000, 'x') + "\r\n213 20010101000000\r\n";
    const QByteArray longReply = "213-" + QByteArray("x\r\n").repeated(300000) + kFirstReply;
    FtpScript script;
    script.login().expect("MDTM a").replyRaw(longLine).expect("MDTM b").replyRaw(longReply);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    timeOf(&client, u"a"_s);
    QCOMPARE(client.log().last().size(), 2 + 4 + 1000000 + 1 + 18);
    timeOf(&client, u"b"_s);
    QVERIFY(client.log().last().endsWith(u"\nx\n213 20010101000000"_s));
    QCOMPARE(client.errors(), QStringList());
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpControl::aLateReplyAnswersTheNextCommand()
{
    FtpScript script;
    script.login().expect("MDTM a").expect("MDTM b").replyRaw(kFirstReply);
    script.expect("MDTM c").replyRaw(kSecondReply);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    client.setTimeoutMs(100);
    QCOMPARE(timeOf(&client, u"a"_s), QString());
    QCOMPARE(client.lastError(), u"Timed out waiting for a server reply"_s);
    client.setTimeoutMs(10000);
    QCOMPARE(timeOf(&client, u"b"_s), kFirstTime); // the answer for a
    QCOMPARE(timeOf(&client, u"c"_s), kSecondTime);
    QCOMPARE(server.finish(), QString());
}

void TestFtpControl::aLostConnectionIsReported_data()
{
    QTest::addColumn<FtpScript>("script");
    FtpScript asked;
    asked.login().expect("MDTM a");
    QTest::newRow("closed") << FtpScript(asked).closeControl();
    QTest::newRow("reset") << FtpScript(asked).dropControl();
    QTest::newRow("closed within a line") << FtpScript(asked).replyRaw("213 2001").closeControl();
    QTest::newRow("closed within a reply") << FtpScript(asked).replyRaw("213-a\r\n").closeControl();
    QTest::newRow("closed in front of the command") << FtpScript().login().closeControl();
}

void TestFtpControl::aLostConnectionIsReported()
{
    QFETCH(const FtpScript, script);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QCOMPARE(timeOf(&client, u"a"_s), QString());
    QCOMPARE(client.errors(), QStringList(u"Control connection closed by the server"_s));
    QVERIFY(!client.isConnected());
    QCOMPARE(timeOf(&client, u"b"_s), QString());
    QCOMPARE(client.lastError(), u"Not connected"_s);
    QCOMPARE(server.finish(), QString());
    QVERIFY(!server.commands().contains("QUIT"));
}

void TestFtpControl::aBufferedReplyOutlivesTheConnection()
{
    // The final reply has come together with the preliminary one when the server hangs up.
    FtpScript script;
    script.login().expect("CWD /").reply(250).expect("TYPE I").reply(200).enterPassive().expect("MLSD");
    script.replyRaw("150 coming\r\n226 done\r\n").closeControl().dataSend("type=file; a\r\n").dataClose();
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QList<FtpEntry> entries;
    QVERIFY(client.list(u"/"_s, &entries));
    QCOMPARE(entries.size(), 1);
    QCOMPARE(client.errors(), QStringList());
    QCOMPARE(timeOf(&client, u"a"_s), QString());
    QCOMPARE(client.lastError(), u"Control connection closed by the server"_s);
    QVERIFY(!client.isConnected());
    QCOMPARE(server.finish(), QString());
}

void TestFtpControl::aRaisedFlagStopsTheWaitForAReply()
{
    FtpScript script;
    script.login().expect("MDTM a").silence();
    FtpScriptServer server(script);
    std::atomic<bool> cancel = false;
    TestClient client;
    client.setCancelFlag(&cancel);
    QVERIFY(client.login(server));
    cancel = true;
    QCOMPARE(timeOf(&client, u"a"_s), QString());
    QCOMPARE(client.errors(), QStringList(u"Cancelled"_s));
    QVERIFY(client.isConnected());
    client.close();
    QCOMPARE(server.finish(), QString());
    QCOMPARE(server.commands().mid(3), QByteArrayList({"MDTM a", "QUIT"}));
}

void TestFtpControl::aFlagRaisedMeanwhileCountsAtTheNextWait()
{
    std::atomic<bool> cancel = false;
    FtpScript script;
    script.login().expect("MDTM a").call([&cancel] { cancel = true; }).replyRaw("213-a\r\n").silence();
    FtpScriptServer server(script);
    TestClient client;
    client.setCancelFlag(&cancel);
    QVERIFY(client.login(server));
    QCOMPARE(timeOf(&client, u"a"_s), QString());
    QCOMPARE(client.errors(), QStringList(u"Cancelled"_s));
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpControl::aFlagRaisedDuringASilentWaitLeavesATimeOut()
{
    std::atomic<bool> cancel = false;
    FtpScript script;
    script.login().expect("MDTM a").delay(300).call([&cancel] { cancel = true; }).silence();
    FtpScriptServer server(script);
    TestClient client;
    client.setCancelFlag(&cancel);
    QVERIFY(client.login(server));
    client.setTimeoutMs(800);
    QCOMPARE(timeOf(&client, u"a"_s), QString());
    QVERIFY(cancel);
    QCOMPARE(client.errors(), QStringList(u"Timed out waiting for a server reply"_s));
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpControl::aReplyThatIsThereIsReturnedInSpiteOfTheFlag()
{
    std::atomic<bool> cancel = false;
    FtpScript script;
    script.login()
        .expect("MDTM a")
        .replyRaw(QByteArray(kFirstReply) + kSecondReply)
        .expect("MDTM b")
        .silence();
    FtpScriptServer server(script);
    TestClient client;
    client.setCancelFlag(&cancel);
    QVERIFY(client.login(server));
    QCOMPARE(timeOf(&client, u"a"_s), kFirstTime);
    cancel = true;
    QCOMPARE(timeOf(&client, u"b"_s), kSecondTime);
    QCOMPARE(client.errors(), QStringList());
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpControl::lineBreaksAreNeverSent_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("carriage return") << u"a\rb"_s;
    QTest::newRow("line feed") << u"a\nb"_s;
    QTest::newRow("second command") << u"a\r\nQUIT"_s;
    QTest::newRow("at the end") << u"a\r\n"_s;
    QTest::newRow("NUL") << u"a\0b"_s;
}

void TestFtpControl::lineBreaksAreNeverSent()
{
    QFETCH(const QString, path);
    FtpScript script;
    script.login().expect("TYPE I").reply(200).expect("MDTM b").replyRaw(kFirstReply);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));

    QCOMPARE(timeOf(&client, path), QString());
    QCOMPARE(client.errors().size(), 1);
    QVERIFY(!client.lastError().isEmpty());
    QCOMPARE(client.fileSize(path), -1);
    QList<FtpEntry> entries(1);
    QVERIFY(!client.list(path, &entries));
    QVERIFY(entries.isEmpty());
    QCOMPARE(client.lastError(), u"Cannot change to remote directory '"_s + path + u'\'');
    QVERIFY(client.isConnected());
    QCOMPARE(timeOf(&client, u"b"_s), kFirstTime);
    QVERIFY(!client.lastError().isEmpty()); // a success does not clear it
    client.close();
    QCOMPARE(server.finish(), QString());
    QCOMPARE(server.received(),
             QByteArray("USER kim\r\nPASS secret\r\nFEAT\r\nTYPE I\r\nMDTM b\r\nQUIT\r\n"));
}

void TestFtpControl::aServerThatDoesNotReadHoldsNobodyUp()
{
    FtpScript script;
    script.login().hold();
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    client.setTimeoutMs(100);
    // More than what the system takes off a writer's hands on its own.
    QCOMPARE(timeOf(&client, QString(24'000'000, u'x')), QString());
    QCOMPARE(client.lastError(), u"Timed out sending a command"_s);
    QVERIFY(client.isConnected());

    client.setTimeoutMs(120000);
    QElapsedTimer clock;
    clock.start();
    client.close();
    QVERIFY(clock.elapsed() < 15000); // 4 s, whatever the time-out is
    QVERIFY(!client.isConnected());
    QCOMPARE(server.finish(), QString());
}

void TestFtpControl::closeSaysGoodbyeInSilence()
{
    FtpScript script;
    script.login().expect("QUIT").silence();
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    const QStringList log = client.log();
    QElapsedTimer clock;
    clock.start();
    client.close();
    QVERIFY(clock.elapsed() < 1500); // the answer to QUIT, which never comes, is not waited for
    QCOMPARE(client.log(), log);
    client.close();
    QCOMPARE(client.log(), log);
    QCOMPARE(server.finish(), QString());
    QCOMPARE(server.commands().count("QUIT"), 1);
}

void TestFtpControl::closeForgetsTheSessionButNotTheError()
{
    FtpScript script;
    script.login().expect("MDTM a").closeControl();
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QVERIFY(client.supportsMlsd());
    timeOf(&client, u"a"_s);
    QVERIFY(client.supportsMlsd());
    client.close();
    QVERIFY(!client.supportsMlsd());
    QCOMPARE(client.lastError(), u"Control connection closed by the server"_s);
    const QStringList log = client.log();
    timeOf(&client, u"a"_s);
    client.fileSize(u"a"_s);
    QCOMPARE(client.log(), log); // nothing is known of MDTM and SIZE any more
    QCOMPARE(server.finish(), QString());
}

void TestFtpControl::theDestructorCloses()
{
    FtpScript script;
    script.login().expect("QUIT").silence();
    FtpScriptServer server(script);
    {
        TestClient client;
        QVERIFY(client.login(server));
    }
    QCOMPARE(server.finish(), QString());
}

void TestFtpControl::oneClientCanHaveSeveralSessions()
{
    const QByteArray line = "-rw-r--r-- 1 kim web 5 Jan 2 2020 a\r\n";
    FtpScript script;
    script.login().expect("CWD /").reply(250).expect("TYPE I").reply(200).enterPassive();
    script.expect("MLSD").reply(150).dataClose().reply(226);
    script.nextSession(); // which says goodbye to the first one
    script.login({}).expect("CWD /").reply(250).expect("TYPE I").reply(200).enterPassive();
    script.expect("LIST -a").reply(150).dataSend(line).dataClose().reply(226);
    FtpScriptServer server(script);
    TestClient client;
    QList<FtpEntry> entries;
    QVERIFY(client.login(server));
    QVERIFY(client.list(u"/"_s, &entries));
    QVERIFY(client.login(server));
    QVERIFY(client.list(u"/"_s, &entries));
    QCOMPARE(entries.size(), 1);
    QCOMPARE(client.fileSize(u"a"_s), -1);
    QCOMPARE(server.finish(), QString());
    QCOMPARE(server.commands().count("QUIT"), 1);
}

QTEST_GUILESS_MAIN(TestFtpControl)
#include "tst_FtpControl.moc"
