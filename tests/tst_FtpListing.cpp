#include "support/FtpScriptServer.h"
#include "support/TestClient.h"

#include <QElapsedTimer>
#include <QTest>

#include <atomic>

using namespace Qt::StringLiterals;

namespace {

constexpr char kMlsdLines[] = "type=file;size=5;modify=20200102030405; a.txt\r\ntype=dir; sub\r\n";
constexpr char kListLines[] =
    "-rw-r--r-- 1 kim web 5 Jan 2 2020 a.txt\r\ndrwxr-xr-x 3 kim web 4096 Jan 2 2020 sub\r\n";

/** A session for which everything is said up to the point at which a listing opens its data connection. */
FtpScript inFolder(const QByteArrayList &features = {"MLSD"})
{
    return FtpScript().login(features).expect("CWD /").reply(250).expect("TYPE I").reply(200);
}

/** The same with the data connection, up to the listing command. */
FtpScript asked(const QByteArrayList &features = {"MLSD"})
{
    return inFolder(features).enterPassive().expect(features.contains("MLSD") ? "MLSD" : "LIST -a");
}

QStringList names(const QList<FtpEntry> &entries)
{
    QStringList found;
    for (const FtpEntry &entry : entries)
        found += entry.name;
    return found;
}

} // namespace

class TestFtpListing : public QObject
{
    Q_OBJECT

private slots:
    void mlsdAsksForNothingElse();
    void listAsksForTheTimeOfEveryFile();
    void listWithoutMdtmHasNoTimes();
    void aTimeThatIsNotToldFailsNothing();
    void everyListingHasItsOwnDataConnection();
    void foldersAreEntered_data();
    void foldersAreEntered();
    void foldersAreRefused_data();
    void foldersAreRefused();
    void passiveModeIsNegotiated_data();
    void passiveModeIsNegotiated();
    void passiveModeFails_data();
    void passiveModeFails();
    void aRaisedFlagStopsTheOpening();
    void dataPortsThatNobodyServes_data();
    void dataPortsThatNobodyServes();
    void listingsFail_data();
    void listingsFail();
    void listingsSucceed_data();
    void listingsSucceed();
    void anUnreadFinalReplyAnswersTheNextCommand();
    void aRaisedFlagStopsTheReading_data();
    void aRaisedFlagStopsTheReading();
    void aRaisedFlagStopsAskingForTimes();
    void protectedListingsLoseNoTime_data();
    void protectedListingsLoseNoTime();
    void protectedDataFails_data();
    void protectedDataFails();
    void aBrokenRecordIsNoEnd_data();
    void aBrokenRecordIsNoEnd();
    void anUnknownCertificateOnTheDataConnectionIsRefused();
    void timesAreAskedFor_data();
    void timesAreAskedFor();
    void sizesAreAskedFor_data();
    void sizesAreAskedFor();
};

void TestFtpListing::mlsdAsksForNothingElse()
{
    FtpScript script;
    script.login({"MLSD", "MDTM", "SIZE"}).expect("CWD /pub/a b").reply(250).expect("TYPE I").reply(200);
    script.enterPassive()
        .expect("MLSD")
        .reply(150, "coming")
        .dataSend(kMlsdLines)
        .dataClose()
        .reply(226, "done");
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QList<FtpEntry> entries(7);
    const qsizetype before = client.log().size();
    QVERIFY(client.list(u"/pub/a b"_s, &entries));
    QCOMPARE(names(entries), QStringList({u"a.txt"_s, u"sub"_s}));
    QCOMPARE(entries[0].size, 5);
    QCOMPARE(entries[0].modified, QDateTime(QDate(2020, 1, 2), QTime(3, 4, 5), Qt::UTC));
    QVERIFY(entries[1].isDir);
    client.close();
    QCOMPARE(server.finish(), QString());
    QCOMPARE(client.log().mid(before),
             QStringList({u"> CWD /pub/a b"_s, u"< 250 as you wish"_s, u"> TYPE I"_s, u"< 200 as you wish"_s,
                          u"> EPSV"_s, u"< 229 Extended passive (|||%1|)"_s.arg(server.dataPorts().at(0)),
                          u"> MLSD"_s, u"< 150 coming"_s, u"< 226 done"_s}));
}

void TestFtpListing::listAsksForTheTimeOfEveryFile()
{
    const QByteArray lines = "total 4\r\n"
                             "drwxr-xr-x 3 kim web 4096 Jan 2 2020 .\r\n"
                             "-rw-r--r-- 1 kim web 5 Jan 2 2020 z file\r\n"
                             "drwxr-xr-x 3 kim web 4096 Jan 2 2020 sub\r\n"
                             "lrwxrwxrwx 1 kim web 4 Jan 2 2020 link -> z file\r\n"
                             "-rw-r--r-- 1 kim web 5 Jan 2 2020 \xC3\xA9\r\n";
    FtpScript script = asked({"MDTM", "SIZE"});
    script.reply(125).dataSend(lines).dataClose().reply(226);
    script.expect("MDTM z file")
        .reply(213, "20200102030405")
        .expect("MDTM link")
        .reply(213, "20200102030406.789");
    script.expect("MDTM \xC3\xA9").reply(213, "20200102030407");
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QList<FtpEntry> entries;
    QVERIFY(client.list(u"/"_s, &entries));
    QCOMPARE(names(entries), QStringList({u"z file"_s, u"sub"_s, u"link"_s, u"é"_s}));
    QCOMPARE(entries[0].modified, QDateTime(QDate(2020, 1, 2), QTime(3, 4, 5), Qt::UTC));
    QVERIFY(!entries[1].modified.isValid());
    QCOMPARE(entries[2].modified, QDateTime(QDate(2020, 1, 2), QTime(3, 4, 6), Qt::UTC));
    QCOMPARE(entries[3].modified, QDateTime(QDate(2020, 1, 2), QTime(3, 4, 7), Qt::UTC));
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpListing::listWithoutMdtmHasNoTimes()
{
    FtpScript script = asked({"SIZE"});
    script.reply(150).dataSend(kListLines).dataClose().reply(226);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QVERIFY(!client.supportsMlsd());
    QList<FtpEntry> entries;
    QVERIFY(client.list(u"/"_s, &entries));
    QCOMPARE(names(entries), QStringList({u"a.txt"_s, u"sub"_s}));
    QVERIFY(!entries[0].modified.isValid());
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpListing::aTimeThatIsNotToldFailsNothing()
{
    QByteArray lines;
    for (const char name : {'a', 'b', 'c', 'd'})
        lines += QByteArray("-rw-r--r-- 1 kim web 5 Jan 2 2020 ") + name + "\r\n";
    FtpScript script = asked({"MDTM"});
    script.reply(150).dataSend(lines).dataClose().reply(226);
    script.expect("MDTM a").reply(550, "20200102030405").expect("MDTM b").reply(213, "yesterday");
    script.expect("MDTM c").reply(213, "20200102030405").expect("MDTM d").closeControl();
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QList<FtpEntry> entries;
    QVERIFY(client.list(u"/"_s, &entries));
    QCOMPARE(names(entries), QStringList({u"a"_s, u"b"_s, u"c"_s, u"d"_s}));
    QVERIFY(!entries[0].modified.isValid());
    QVERIFY(!entries[1].modified.isValid());
    QVERIFY(entries[2].modified.isValid());
    QVERIFY(!entries[3].modified.isValid());
    QCOMPARE(server.finish(), QString());
}

void TestFtpListing::everyListingHasItsOwnDataConnection()
{
    // EPSV is tried again, though it was refused; TYPE I is not sent again.
    FtpScript script = inFolder();
    script.expect("EPSV").reply(500).expect("PASV").passive().reply227();
    script.expect("MLSD").reply(150).dataSend(kMlsdLines).dataClose().reply(226);
    script.expect("CWD /sub").reply(250).expect("EPSV").reply(500).expect("PASV").passive().reply227();
    script.expect("MLSD").reply(150).dataClose().reply(226);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QList<FtpEntry> entries;
    QVERIFY(client.list(u"/"_s, &entries));
    QCOMPARE(entries.size(), 2);
    QVERIFY(client.list(u"/sub"_s, &entries));
    QCOMPARE(entries.size(), 0);
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpListing::foldersAreEntered_data()
{
    QTest::addColumn<int>("code");
    QTest::newRow("250") << 250;
    QTest::newRow("200") << 200;
}

void TestFtpListing::foldersAreEntered()
{
    QFETCH(const int, code);
    FtpScript script;
    script.login().expect("CWD /").reply(code).expect("TYPE I").reply(200).enterPassive();
    script.expect("MLSD").reply(150).dataClose().reply(226);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QList<FtpEntry> entries;
    QVERIFY(client.list(u"/"_s, &entries));
    QCOMPARE(server.finish(), QString());
}

void TestFtpListing::foldersAreRefused_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<FtpScript>("script");
    QTest::addColumn<QString>("first"); // the reason behind the general text, if there is one

    const auto in = [](const QByteArray &path) { return FtpScript().login().expect("CWD " + path); };
    QTest::newRow("not there") << u"/x"_s << in("/x").reply(550) << QString();
    QTest::newRow("other success") << u"/x"_s << in("/x").reply(257) << QString();
    QTest::newRow("name with percent signs") << u"/%1 %2%"_s << in("/%1 %2%").reply(550) << QString();
    QTest::newRow("name with quotes") << u"/a'b\"c"_s << in("/a'b\"c").reply(550) << QString();
    QTest::newRow("empty name") << QString() << in("").reply(501) << QString();
    QTest::newRow("silence") << u"/x"_s << in("/x").silence() << u"Timed out waiting for a server reply"_s;
    QTest::newRow("closed") << u"/x"_s << in("/x").closeControl()
                            << u"Control connection closed by the server"_s;
}

void TestFtpListing::foldersAreRefused()
{
    QFETCH(const QString, path);
    QFETCH(const FtpScript, script);
    QFETCH(const QString, first);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    client.hurryFrom(u"> CWD "_s + path);
    QList<FtpEntry> entries(3);
    QVERIFY(!client.list(path, &entries));
    QVERIFY(entries.isEmpty());
    const QString text = u"Cannot change to remote directory '"_s + path + u'\'';
    QCOMPARE(client.errors(), first.isEmpty() ? QStringList(text) : QStringList({first, text}));
    QCOMPARE(client.lastError(), text);
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpListing::passiveModeIsNegotiated_data()
{
    QTest::addColumn<FtpScript>("passive");
    const auto extended = [](const char *what, const QByteArray &reply) {
        QTest::newRow(what) << FtpScript().expect("EPSV").passive().replyRaw(reply);
    };
    extended("extended", "229 Extended passive (|||%PORT%|)\r\n");
    extended("extended, blanks inside the parentheses", "229 Extended passive (  |||%PORT%|  )\r\n");
    extended("extended, no text", "229 (|||%PORT%|)\r\n");
    extended("extended, on the second line", "229-Extended\r\n229 (|||%PORT%|)\r\n");
    extended("extended, other parentheses in front", "229 Extended (or not) (|||%PORT%|) (|||1|)\r\n");
    extended("extended, 16 bits are kept", "229 Extended passive (|||%PORT+65536%|)\r\n");

    // Whatever comes of EPSV here is no answer, and silently so.
    const auto fallback = [](const char *what, const QByteArray &reply) {
        QTest::newRow(what) << FtpScript().expect("EPSV").passive().replyRaw(reply).expect("PASV").reply227();
    };
    fallback("fallback: unknown", "500 what?\r\n");
    fallback("fallback: 522", "522 no such protocol\r\n");
    fallback("fallback: other success", "200 (|||%PORT%|)\r\n");
    fallback("fallback: 227 to EPSV", "227 Passive (127,0,0,1,0,1)\r\n");
    fallback("fallback: no port", "229 Extended passive\r\n");
    fallback("fallback: port 0", "229 Extended passive (|||0|)\r\n");
    fallback("fallback: port 65536 is 0", "229 Extended passive (|||65536|)\r\n");
    fallback("fallback: more than 32 bits", "229 Extended passive (|||4294967297|)\r\n");
    fallback("fallback: far too long", "229 Extended passive (|||99999999999999999999999|)\r\n");
    fallback("fallback: blank behind the bars", "229 Extended passive (||| %PORT%|)\r\n");
    fallback("fallback: blank behind the digits", "229 Extended passive (|||%PORT% |)\r\n");
    fallback("fallback: with address", "229 Extended passive (|1|127.0.0.1|%PORT%|)\r\n");
    fallback("fallback: other separators", "229 Extended passive (!!!%PORT%!)\r\n");
    fallback("fallback: no parentheses", "229 Extended passive |||%PORT%|\r\n");
    fallback("fallback: negative", "229 Extended passive (|||-%PORT%|)\r\n");

    const auto old = [](const char *what, const QByteArray &reply) {
        QTest::newRow(what) << FtpScript().expect("EPSV").reply(500).expect("PASV").passive().replyRaw(reply);
    };
    old("old", "227 Passive (127,0,0,1,%P1%,%P2%)\r\n");
    old("old, no parentheses", "227 Passive 127,0,0,1,%P1%,%P2%\r\n");
    old("old, another host's address", "227 Passive (10,99,98,97,%P1%,%P2%)\r\n");
    old("old, no address at all", "227 Passive (0,0,0,0,%P1%,%P2%)\r\n");
    old("old, an impossible address", "227 Passive (999,999,999,999,%P1%,%P2%)\r\n");
    old("old, blanks", "227 Passive ( 127 , 0,0 ,1,  %P1%  ,%P2% )\r\n");
    old("old, first of two", "227 Passive (127,0,0,1,%P1%,%P2%) not (127,0,0,1,0,1)\r\n");
    old("old, on the second line", "227-Passive\r\n227 (127,0,0,1,%P1%,%P2%)\r\n");
    old("old, other numbers in front", "227 Passive, 1 of 2,3: 127,0,0,1,%P1%,%P2%\r\n");
    old("old, 16 bits are kept", "227 Passive (127,0,0,1,%P1+256%,%P2%)\r\n");
}

void TestFtpListing::passiveModeIsNegotiated()
{
    QFETCH(const FtpScript, passive);
    FtpScript script = inFolder();
    script.append(passive).expect("MLSD").reply(150).dataSend(kMlsdLines).dataClose().reply(226);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QList<FtpEntry> entries;
    QVERIFY2(client.list(u"/"_s, &entries), qPrintable(client.lastError()));
    QCOMPARE(entries.size(), 2);
    QCOMPARE(client.errors(), QStringList());
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpListing::passiveModeFails_data()
{
    QTest::addColumn<FtpScript>("script");
    QTest::addColumn<QString>("moment"); // from which on the server is silent
    QTest::addColumn<QStringList>("errors");
    const QString refused = u"Server refused passive mode"_s;
    const QString unreadable = u"Could not parse the PASV reply"_s;
    const QString timedOut = u"Timed out waiting for a server reply"_s;
    const QString closed = u"Control connection closed by the server"_s;
    const auto row = [](const char *what, const FtpScript &script, const QStringList &errors,
                        const QString &moment = QString()) {
        QTest::newRow(what) << script << moment << errors;
    };

    const FtpScript old = inFolder().expect("EPSV").reply(500).expect("PASV");
    row("refused", FtpScript(old).reply(500), {refused});
    row("not logged in", FtpScript(old).reply(530, "(1,2,3,4,5,6)"), {refused});
    row("other success", FtpScript(old).reply(200, "(127,0,0,1,4,5)"), {refused});
    row("229 to PASV", FtpScript(old).reply(229, "(|||4711|)"), {refused});
    row("no numbers", FtpScript(old).reply(227, "Passive"), {unreadable});
    row("five numbers", FtpScript(old).reply(227, "Passive (127,0,0,1,4)"), {unreadable});
    row("dots", FtpScript(old).reply(227, "Passive (127.0.0.1.4.5)"), {unreadable});
    row("four digits", FtpScript(old).reply(227, "Passive (127,0,0,1,4711,5)"), {unreadable});
    row("PASV closed", FtpScript(old).closeControl(), {closed, refused});
    row("PASV silent", FtpScript(old).silence(), {timedOut, refused}, u"> PASV"_s);
    row("EPSV closed", inFolder().expect("EPSV").closeControl(), {closed, u"Not connected"_s, refused});
    row("EPSV silent", inFolder().expect("EPSV").expect("PASV").reply(500), {timedOut, refused}, u"> EPSV"_s);
}

void TestFtpListing::passiveModeFails()
{
    QFETCH(const FtpScript, script);
    QFETCH(const QString, moment);
    QFETCH(const QStringList, errors);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    client.whenLogged(u"> PASV"_s, [&client] { client.setTimeoutMs(10000); });
    client.hurryFrom(moment);
    QList<FtpEntry> entries(3);
    QVERIFY(!client.list(u"/"_s, &entries));
    QVERIFY(entries.isEmpty());
    QCOMPARE(client.errors(), errors);
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpListing::aRaisedFlagStopsTheOpening()
{
    FtpScriptServer server(inFolder().expect("EPSV").expect("PASV").silence());
    std::atomic<bool> cancel = false;
    TestClient client;
    client.setCancelFlag(&cancel);
    QVERIFY(client.login(server));
    client.whenLogged(u"> EPSV"_s, [&cancel] { cancel = true; });
    QList<FtpEntry> entries;
    QVERIFY(!client.list(u"/"_s, &entries));
    QCOMPARE(client.errors(),
             QStringList({u"Cancelled"_s, u"Cancelled"_s, u"Server refused passive mode"_s}));
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpListing::dataPortsThatNobodyServes_data()
{
    QTest::addColumn<FtpScript>("script");
    QTest::addColumn<QString>("reason"); // empty: any
    const QString refused = u"Connection refused"_s;
    QTest::newRow("extended, refused") << inFolder().expect("EPSV").passiveRefused().reply229() << refused;
    QTest::newRow("old, refused")
        << inFolder().expect("EPSV").reply(500).expect("PASV").passiveRefused().reply227() << refused;
    QTest::newRow("no answer") << inFolder().expect("EPSV").passiveDead().reply229() << QString();
}

void TestFtpListing::dataPortsThatNobodyServes()
{
    QFETCH(const FtpScript, script);
    QFETCH(const QString, reason);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    if (reason.isEmpty())
        client.hurryFrom(u"< 229 "_s);
    QList<FtpEntry> entries(3);
    QVERIFY(!client.list(u"/"_s, &entries));
    QVERIFY(entries.isEmpty());
    client.close();
    QCOMPARE(server.finish(), QString());
    QCOMPARE(client.errors().size(), 1);
    const QString begin =
        u"Cannot open the data connection to 127.0.0.1:%1 ("_s.arg(server.dataPorts().value(0));
    if (reason.isEmpty())
        QVERIFY2(client.lastError().startsWith(begin), qPrintable(client.lastError()));
    else
        QCOMPARE(client.lastError(), begin + reason + u')');
}

void TestFtpListing::listingsFail_data()
{
    QTest::addColumn<FtpScript>("script");
    QTest::addColumn<QString>("moment"); // from which on the server is silent
    QTest::addColumn<QStringList>("errors");
    const QString refused = u"Server refused the listing command"_s;
    const QString timedOut = u"Timed out waiting for a server reply"_s;
    const QString dataTimedOut = u"Timed out reading from the data connection"_s;
    const QString closed = u"Control connection closed by the server"_s;
    const QString unclean = u"Transfer did not complete cleanly: "_s;
    const auto row = [](const char *what, const FtpScript &script, const QStringList &errors,
                        const QString &moment = QString()) {
        QTest::newRow(what) << script << moment << errors;
    };

    // Wherever the server stalls, it wants to see the data connection closed by the client.
    row("MLSD refused", asked().reply(500).dataStall(), {refused});
    row("LIST refused", asked({}).reply(550).dataStall(), {refused});
    row("final instead of preliminary", asked().reply(226).dataStall(), {refused});
    row("other preliminary", asked().reply(110).dataStall(), {refused});
    row("command silent", asked().dataStall(), {timedOut, refused}, u"> MLSD"_s);
    row("command closed", asked().closeControl().dataStall(), {closed, refused});

    const QString coming = u"< 150 coming"_s;
    row("data silent", asked().reply(150, "coming").dataStall(), {dataTimedOut}, coming);
    row("data silent half-way", asked().reply(150, "coming").dataSend(kMlsdLines).dataStall(), {dataTimedOut},
        coming);
    row("data silent, though the server is done",
        asked().replyRaw("150 coming\r\n226 done\r\n").dataSend(kMlsdLines).dataStall(), {dataTimedOut},
        coming);

    const FtpScript sent = asked().dataSend(kMlsdLines).dataClose().reply(150, "coming");
    row("aborted", FtpScript(sent).reply(426, "broken"), {unclean + u"426 broken"_s});
    row("local error", FtpScript(sent).reply(451, "no disk"), {unclean + u"451 no disk"_s});
    row("other success", FtpScript(sent).reply(200, "fine"), {unclean + u"200 fine"_s});
    row("second preliminary", FtpScript(sent).reply(150, "again"), {unclean + u"150 again"_s});
    row("percent signs", FtpScript(sent).reply(550, "%1 %2"), {unclean + u"550 %1 %2"_s});
    row("several lines", FtpScript(sent).replyRaw("426-a\r\n426 b\r\n"), {unclean + u"426-a\n426 b"_s});
    row("end silent", FtpScript(sent).silence(), {timedOut}, coming);
    row("end closed", FtpScript(sent).closeControl(), {closed});
    row("data reset", asked().reply(150).dataReset().reply(426, "broken"), {unclean + u"426 broken"_s});
}

void TestFtpListing::listingsFail()
{
    QFETCH(const FtpScript, script);
    QFETCH(const QString, moment);
    QFETCH(const QStringList, errors);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    client.hurryFrom(moment);
    QList<FtpEntry> entries(3);
    QVERIFY(!client.list(u"/"_s, &entries));
    QVERIFY(entries.isEmpty());
    QCOMPARE(client.errors(), errors);
    QCOMPARE(client.lastError(), errors.last());
    QCOMPARE(client.isConnected(), !errors.contains(u"Control connection closed by the server"_s));
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpListing::listingsSucceed_data()
{
    QTest::addColumn<FtpScript>("script");
    QTest::addColumn<QStringList>("found");
    const QStringList both = {u"a.txt"_s, u"sub"_s};
    const auto row = [](const char *what, const FtpScript &script, const QStringList &found) {
        QTest::newRow(what) << script << found;
    };
    const QByteArray unicode = "size=1; \xC3\xA4\xF0\x9F\x90\x9A\r\nsize=2; e\xCC\x81\r\n";
    const QStringList unicodeNames = {u"ä\U0001F41A"_s, u"e\u0301"_s};
    QByteArray many;
    QStringList manyNames;
    for (int i = 0; i < 5000; ++i) {
        const QByteArray name = "file " + QByteArray::number(i) + ".txt";
        many += "type=file;size=5;modify=20200102030405; " + name + "\r\n";
        manyNames += QString::fromLatin1(name);
    }

    row("125", asked().reply(125).dataSend(kMlsdLines).dataClose().reply(226), both);
    row("final 250", asked().reply(150).dataSend(kMlsdLines).dataClose().reply(250), both);
    row("final reply of several lines",
        asked().reply(150).dataSend(kMlsdLines).dataClose().replyRaw("226-a\r\n226 b\r\n"), both);
    row("final reply early", asked().replyRaw("150 a\r\n226 b\r\n").dataSend(kMlsdLines).dataClose(), both);
    row("data early", asked().dataSend(kMlsdLines).dataClose().reply(150).reply(226), both);
    row("LIST", asked({}).reply(150).dataSend(kListLines).dataClose().reply(226), both);
    row("empty", asked().reply(150).dataClose().reply(226), {});
    row("reset instead of the end", asked().reply(150).dataReset().reply(226), {});
    row("single bytes", asked().reply(150).dataFragment(1).dataSend(unicode).dataClose().reply(226),
        unicodeNames);
    row("odd packets", asked().reply(150).dataFragment(7).dataSend(unicode).dataClose().reply(226),
        unicodeNames);
    row("many entries", asked().reply(150).dataSend(many).dataClose().reply(226), manyNames);
    row("many entries in odd packets",
        asked().reply(150).dataFragment(9999).dataSend(many).dataClose().reply(226), manyNames);
}

void TestFtpListing::listingsSucceed()
{
    QFETCH(const FtpScript, script);
    QFETCH(const QStringList, found);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QList<FtpEntry> entries(3);
    QVERIFY2(client.list(u"/"_s, &entries), qPrintable(client.lastError()));
    QCOMPARE(names(entries), found);
    QCOMPARE(client.errors(), QStringList());
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpListing::anUnreadFinalReplyAnswersTheNextCommand()
{
    FtpScript script = asked({"MLSD", "MDTM"});
    script.reply(150, "coming").dataStall().reply(226, "after all");
    script.expect("MDTM a").reply(213, "20200102030405").expect("MDTM b");
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    client.hurryFrom(u"< 150 coming"_s);
    client.whenLogged(u"> MDTM a"_s, [&client] { client.setTimeoutMs(10000); });
    QList<FtpEntry> entries;
    QVERIFY(!client.list(u"/"_s, &entries));
    QVERIFY(!client.modificationTime(u"a"_s).isValid());
    QCOMPARE(client.log().last(), u"< 226 after all"_s);
    QVERIFY(client.modificationTime(u"b"_s).isValid());
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpListing::aRaisedFlagStopsTheReading_data()
{
    QTest::addColumn<bool>("midway");
    QTest::newRow("before the first byte") << false;
    QTest::newRow("between two packets") << true;
}

void TestFtpListing::aRaisedFlagStopsTheReading()
{
    QFETCH(const bool, midway);
    std::atomic<bool> cancel = false;
    std::atomic<bool> isReading = false;
    const auto raise = [&cancel] { cancel = true; };
    FtpScript script = asked().reply(150, "coming").waitFor(&isReading);
    if (midway)
        script.dataSend("type=file; a\r\n").call(raise).dataSend("type=file; b\r\n");
    script.dataStall().reply(226);
    FtpScriptServer server(script);
    TestClient client;
    client.setCancelFlag(&cancel);
    QVERIFY(client.login(server));
    if (!midway)
        client.whenLogged(u"< 150 coming"_s, raise);
    client.whenLogged(u"< 150 coming"_s, [&isReading] { isReading = true; });
    QList<FtpEntry> entries;
    QVERIFY(!client.list(u"/"_s, &entries));
    QVERIFY(entries.isEmpty());
    QCOMPARE(client.errors(), QStringList(u"Cancelled"_s));
    QVERIFY(client.isConnected());
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpListing::aRaisedFlagStopsAskingForTimes()
{
    const QByteArray lines = "-rw-r--r-- 1 kim web 5 Jan 2 2020 a\r\n-rw-r--r-- 1 kim web 5 Jan 2 2020 b\r\n"
                             "-rw-r--r-- 1 kim web 5 Jan 2 2020 c\r\n";
    FtpScript script = asked({"MDTM"});
    script.reply(150).dataSend(lines).dataClose().reply(226).expect("MDTM a").reply(213, "20200102030405");
    FtpScriptServer server(script);
    std::atomic<bool> cancel = false;
    TestClient client;
    client.setCancelFlag(&cancel);
    QVERIFY(client.login(server));
    client.whenLogged(u"< 213 20200102030405"_s, [&cancel] { cancel = true; });
    QList<FtpEntry> entries;
    QVERIFY(client.list(u"/"_s, &entries));
    QCOMPARE(names(entries), QStringList({u"a"_s, u"b"_s, u"c"_s}));
    QVERIFY(entries[0].modified.isValid());
    QVERIFY(!entries[1].modified.isValid());
    QVERIFY(!entries[2].modified.isValid());
    QCOMPARE(client.errors(), QStringList());
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpListing::protectedListingsLoseNoTime_data()
{
    QTest::addColumn<FtpScript>("script");
    QTest::addColumn<int>("count");
    QByteArray many;
    for (int i = 0; i < 6000; ++i)
        many += "type=file;size=5;modify=20200102030405; " + QByteArray::number(i) + "\r\n";
    const struct
    {
        const char *what;
        FtpScript::End end;
    } ends[] = {{"alert and close", FtpScript::End::Clean},
                {"alert, the server waits", FtpScript::End::AlertOnly},
                {"no alert", FtpScript::End::WithoutAlert}};
    for (const QSsl::SslProtocol version : {QSsl::TlsV1_2, QSsl::TlsV1_3}) {
        const char *tls = version == QSsl::TlsV1_2 ? "1.2" : "1.3";
        FtpScript opened;
        opened.tlsVersion(version).secureLogin().expect("CWD /").reply(250).expect("TYPE I").reply(200);
        opened.enterPassive().expect("MLSD").reply(150).dataTls();
        for (const auto &[what, end] : ends) {
            QTest::addRow("%s, %s", tls, what)
                << FtpScript(opened).dataSend(kMlsdLines).dataClose(end).reply(226) << 2;
            QTest::addRow("%s, %s, end on its own", tls, what)
                << FtpScript(opened).dataSend(kMlsdLines).delay(50).dataClose(end).reply(226) << 2;
            QTest::addRow("%s, %s, empty", tls, what) << FtpScript(opened).dataClose(end).reply(226) << 0;
            QTest::addRow("%s, %s, large", tls, what)
                << FtpScript(opened).dataSend(many).dataClose(end).reply(226) << 6000;
            QTest::addRow("%s, %s, final reply early", tls, what)
                << FtpScript(opened).reply(226).dataFragment(11).dataSend(kMlsdLines).dataClose(end) << 2;
        }
    }
}

void TestFtpListing::protectedListingsLoseNoTime()
{
    QFETCH(FtpScript, script);
    QFETCH(const int, count);
    FtpScriptServer server(script.expect("MDTM a").reply(213, "20200102030405"));
    TestClient client;
    client.setTlsOptions(true, true);
    QVERIFY(client.login(server));
    client.setTimeoutMs(8000);
    QElapsedTimer clock;
    clock.start();
    QList<FtpEntry> entries;
    QVERIFY2(client.list(u"/"_s, &entries), qPrintable(client.lastError()));
    QVERIFY(client.modificationTime(u"a"_s).isValid());
    QVERIFY2(clock.elapsed() < 4000, qPrintable(QString::number(clock.elapsed())));
    QCOMPARE(entries.size(), count);
    QCOMPARE(client.errors(), QStringList());
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpListing::protectedDataFails_data()
{
    QTest::addColumn<FtpScript>("script");
    FtpScript opened;
    opened.secureLogin().expect("CWD /").reply(250).expect("TYPE I").reply(200);
    opened.enterPassive().expect("MLSD").reply(150, "coming");
    QTest::newRow("plain text") << FtpScript(opened).dataSend(kMlsdLines).dataStall();
    QTest::newRow("closed") << FtpScript(opened).dataClose();
    QTest::newRow("reset") << FtpScript(opened).dataReset();
    QTest::newRow("silence") << FtpScript(opened).dataStall();
}

void TestFtpListing::protectedDataFails()
{
    QFETCH(const FtpScript, script);
    FtpScriptServer server(script);
    TestClient client;
    client.setTlsOptions(true, true);
    QVERIFY(client.login(server));
    client.hurryFrom(u"< 150 coming"_s, 200);
    QList<FtpEntry> entries(3);
    QVERIFY(!client.list(u"/"_s, &entries));
    QVERIFY(entries.isEmpty());
    QVERIFY2(client.hasFailedOnceWith(u"Data channel TLS handshake failed: "_s),
             qPrintable(client.lastError()));
    QVERIFY(client.isConnected());
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpListing::aBrokenRecordIsNoEnd_data()
{
    QTest::addColumn<QSsl::SslProtocol>("version");
    QTest::newRow("TLS 1.2") << QSsl::TlsV1_2;
    QTest::newRow("TLS 1.3") << QSsl::TlsV1_3;
}

void TestFtpListing::aBrokenRecordIsNoEnd()
{
    QFETCH(const QSsl::SslProtocol, version);
    FtpScript script;
    script.tlsVersion(version).secureLogin().expect("CWD /").reply(250).expect("TYPE I").reply(200);
    script.enterPassive().expect("MLSD").replyRaw("150 coming\r\n226 done\r\n");
    script.dataTls().dataSend(kMlsdLines).dataBreakTls();
    FtpScriptServer server(script);
    TestClient client;
    client.setTlsOptions(true, true);
    QVERIFY(client.login(server));
    QList<FtpEntry> entries(3);
    QVERIFY(!client.list(u"/"_s, &entries)); // pruned by half a listing, a folder would lose its files
    QVERIFY(entries.isEmpty());
    QVERIFY2(client.hasFailedOnceWith(u"Data connection failed: "_s), qPrintable(client.lastError()));
    QVERIFY(client.isConnected());
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpListing::anUnknownCertificateOnTheDataConnectionIsRefused()
{
    FtpScript script;
    script.secureLogin().expect("CWD /").reply(250).expect("TYPE I").reply(200);
    script.enterPassive().expect("MLSD").reply(150).offerDataTls();
    FtpScriptServer server(script);
    TestClient client;
    client.setTlsOptions(true, true);
    QVERIFY(client.login(server));
    client.setTlsOptions(true, false);
    QList<FtpEntry> entries;
    QVERIFY(!client.list(u"/"_s, &entries));
    QVERIFY2(client.hasFailedOnceWith(u"Data channel TLS handshake failed: "_s),
             qPrintable(client.lastError()));
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpListing::timesAreAskedFor_data()
{
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<QString>("time"); // empty: invalid
    const auto row = [](const char *what, const QByteArray &reply, const QString &time = QString()) {
        QTest::newRow(what) << reply << time;
    };
    row("time", "213 20200102030405\r\n", u"2020-01-02T03:04:05Z"_s);
    row("fraction", "213 20200102030405.25\r\n", u"2020-01-02T03:04:05Z"_s);
    row("more blanks", "213   20200102030405  \r\n", u"2020-01-02T03:04:05Z"_s);
    row("words", "213 yesterday\r\n");
    row("too short", "213 2020010203\r\n");
    row("several lines", "213-20200102030405\r\n213 20200102030405\r\n", u"2020-01-02T03:04:05Z"_s);
    row("several lines, time on the last", "213-a\r\n213 20200102030405\r\n");
    row("no such file", "550 20200102030405\r\n");
    row("other success", "250 20200102030405\r\n");
}

void TestFtpListing::timesAreAskedFor()
{
    QFETCH(const QByteArray, reply);
    QFETCH(const QString, time);
    FtpScript script;
    script.login({"MDTM"}).expect("MDTM /a b/\xC3\xA9.txt").replyRaw(reply);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    const QDateTime modified = client.modificationTime(u"/a b/é.txt"_s);
    QCOMPARE(modified.isValid() ? modified.toString(Qt::ISODate) : QString(), time);
    QCOMPARE(client.errors(), QStringList());
    QCOMPARE(server.finish(), QString());
}

void TestFtpListing::sizesAreAskedFor_data()
{
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<qint64>("size");
    const auto row = [](const char *what, const QByteArray &reply, qint64 size = -1) {
        QTest::newRow(what) << reply << size;
    };
    row("size", "213 5\r\n", 5);
    row("none", "213 0\r\n", 0);
    row("beyond 32 bits", "213 5000000000\r\n", 5000000000);
    row("beyond 64 bits", "213 9223372036854775808\r\n");
    row("more blanks", "213   5  \r\n", 5);
    row("with a unit", "213 5 bytes\r\n");
    row("words", "213 large\r\n");
    row("several lines", "213-5\r\n213 5\r\n");
    row("no such file", "550 5\r\n");
    row("other success", "250 5\r\n");
}

void TestFtpListing::sizesAreAskedFor()
{
    QFETCH(const QByteArray, reply);
    QFETCH(const qint64, size);
    FtpScript script;
    script.login({"SIZE"}).expect("TYPE I").reply(200).expect("SIZE /a b/\xC3\xA9.txt").replyRaw(reply);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QCOMPARE(client.fileSize(u"/a b/é.txt"_s), size);
    QCOMPARE(client.errors(), QStringList());
    QCOMPARE(server.finish(), QString());
}

QTEST_GUILESS_MAIN(TestFtpListing)
#include "tst_FtpListing.moc"
