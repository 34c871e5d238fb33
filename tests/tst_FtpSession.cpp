#include "support/FtpScriptServer.h"
#include "support/RefusedPort.h"
#include "support/TestClient.h"

#include <QElapsedTimer>
#include <QNetworkProxy>
#include <QScopeGuard>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <atomic>

using namespace Qt::StringLiterals;

namespace {

const QString kTimedOut = u"Timed out waiting for a server reply"_s;
const QString kCancelled = u"Cancelled"_s;
const QString kClosed = u"Control connection closed by the server"_s;
const QString kNotConnected = u"Not connected"_s;
const QString kUnprotected =
    u"WARNING: server would not protect the data channel; transfers will be in the clear."_s;

QString connectingTo(const FtpScriptServer &server)
{
    return u"Connecting to 127.0.0.1:%1 ..."_s.arg(server.port());
}

} // namespace

class TestFtpSession : public QObject
{
    Q_OBJECT

private slots:
    void aPlainLoginIsLoggedLineByLine();
    void aSecureLoginIsLoggedLineByLine();
    void aUserMayNeedNoPassword();
    void anEmptyPasswordIsSentAllTheSame();
    void namesAreSentAsUtf8();
    void aLineBreakInNameOrPasswordIsNotSent();
    void loginsAreRejected_data();
    void loginsAreRejected();
    void greetingsAreRefused_data();
    void greetingsAreRefused();
    void aGreetingMayHaveSeveralLines();
    void nobodyListens();
    void nobodyAnswers();
    void anInvalidHostIsNamedLiterally();
    void noProxyIsAsked();
    void theSessionEndsHalfWay_data();
    void theSessionEndsHalfWay();
    void featuresAreFoundInTheReply_data();
    void featuresAreFoundInTheReply();
    void aRefusedOptsIsNoFailure();
    void binaryModeIsSetOnce();
    void binaryModeIsRefused_data();
    void binaryModeIsRefused();
    void withoutTlsNobodyAsksForIt();
    void tlsVersions_data();
    void tlsVersions();
    void tlsIsRefused_data();
    void tlsIsRefused();
    void handshakesFail_data();
    void handshakesFail();
    void plainTextBehindTheReplyIsNeverRead_data();
    void plainTextBehindTheReplyIsNeverRead();
    void anUnknownCertificateIsRefused();
    void refusedProtectionIsAWarning_data();
    void refusedProtectionIsAWarning();
    void aSecureSessionLeavesNothingToThePlainOneBehindIt();
    void secureExchangesLoseNoTime_data();
    void secureExchangesLoseNoTime();
    void aSecureSessionIsReadInAnyPackets();
    void aSecureSessionThatIsClosedIsReported();
};

void TestFtpSession::aPlainLoginIsLoggedLineByLine()
{
    FtpScript script;
    script.reply(220, "ready")
        .expect("USER kim")
        .reply(331, "password?")
        .expect("PASS secret")
        .reply(230, "in");
    script.expect("FEAT").replyRaw("211-Can:\r\n MLSD\r\n UTF8\r\n211 End\r\n");
    script.expect("OPTS UTF8 ON").reply(200, "on");
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QCOMPARE(client.log(),
             QStringList({connectingTo(server), u"< 220 ready"_s, u"> USER kim"_s, u"< 331 password?"_s,
                          u"> PASS ********"_s, u"< 230 in"_s, u"> FEAT"_s,
                          u"< 211-Can:\nMLSD\nUTF8\n211 End"_s, u"> OPTS UTF8 ON"_s, u"< 200 on"_s}));
    QCOMPARE(client.lastError(), QString());
    QCOMPARE(server.finish(), QString());
    QCOMPARE(server.received(), QByteArray("USER kim\r\nPASS secret\r\nFEAT\r\nOPTS UTF8 ON\r\n"));
}

void TestFtpSession::aSecureLoginIsLoggedLineByLine()
{
    FtpScript script;
    script.reply(220, "ready").expect("AUTH TLS").reply(234, "go").startTls();
    script.expect("USER kim").reply(331, "password?").expect("PASS secret").reply(230, "in");
    script.expect("PBSZ 0").reply(200, "0").expect("PROT P").reply(200, "P").expect("FEAT").reply(500,
                                                                                                  "what?");
    FtpScriptServer server(script);
    TestClient client;
    client.setTlsOptions(true, true);
    QVERIFY(client.login(server));
    QCOMPARE(client.log(),
             QStringList({connectingTo(server), u"< 220 ready"_s, u"> AUTH TLS"_s, u"< 234 go"_s,
                          u"Control channel secured with TLS."_s, u"> USER kim"_s, u"< 331 password?"_s,
                          u"> PASS ********"_s, u"< 230 in"_s, u"> PBSZ 0"_s, u"< 200 0"_s, u"> PROT P"_s,
                          u"< 200 P"_s, u"> FEAT"_s, u"< 500 what?"_s}));
    client.close();
    QCOMPARE(server.finish(), QString());
    QCOMPARE(server.received(),
             QByteArray("AUTH TLS\r\nUSER kim\r\nPASS secret\r\nPBSZ 0\r\nPROT P\r\nFEAT\r\nQUIT\r\n"));
}

void TestFtpSession::aUserMayNeedNoPassword()
{
    FtpScript script;
    script.reply(220).expect("USER kim").reply(230).expect("FEAT").reply(500);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QCOMPARE(server.finish(), QString());
}

void TestFtpSession::anEmptyPasswordIsSentAllTheSame()
{
    FtpScript script;
    script.reply(220).expect("USER kim").reply(331).expect("PASS ").reply(230).expect("FEAT").reply(500);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.connectAndLogin(u"127.0.0.1"_s, server.port(), u"kim"_s, QString()));
    QVERIFY(client.log().contains(u"> PASS ********"_s));
    QCOMPARE(server.finish(), QString());
}

void TestFtpSession::namesAreSentAsUtf8()
{
    FtpScript script;
    script.reply(220).expect("USER k\xC3\xADm").reply(331).expect("PASS gr\xC3\xBC\xC3\x9F %1");
    script.reply(230).expect("FEAT").reply(500);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.connectAndLogin(u"127.0.0.1"_s, server.port(), u"kím"_s, u"grüß %1"_s));
    QVERIFY(client.log().contains(u"> USER kím"_s));
    QVERIFY(!client.log().join(u'\n').contains(u"grüß"_s));
    QCOMPARE(server.finish(), QString());
}

void TestFtpSession::aLineBreakInNameOrPasswordIsNotSent()
{
    FtpScript script;
    script.reply(220).nextSession().reply(220).expect("USER kim").reply(331);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(!client.connectAndLogin(u"127.0.0.1"_s, server.port(), u"kim\r\nDELE a"_s, u"secret"_s));
    QVERIFY(client.isConnected());
    QVERIFY(!client.connectAndLogin(u"127.0.0.1"_s, server.port(), u"kim"_s, u"secret\nDELE a"_s));
    QVERIFY(!client.log().join(u'\n').contains(u"secret"_s));
    client.close();
    QCOMPARE(server.finish(), QString());
    QCOMPARE(server.commands(), QByteArrayList({"QUIT", "USER kim", "QUIT"}));
}

void TestFtpSession::loginsAreRejected_data()
{
    QTest::addColumn<int>("userCode");
    QTest::addColumn<int>("passwordCode"); // 0: not asked for
    QTest::newRow("unknown user") << 530 << 0;
    QTest::newRow("account wanted") << 332 << 0;
    QTest::newRow("other success") << 200 << 0;
    QTest::newRow("service ends") << 421 << 0;
    QTest::newRow("wrong password") << 331 << 530;
    QTest::newRow("account wanted behind the password") << 331 << 332;
    QTest::newRow("password superfluous") << 331 << 202;
    QTest::newRow("password asked for again") << 331 << 331;
}

void TestFtpSession::loginsAreRejected()
{
    QFETCH(const int, userCode);
    QFETCH(const int, passwordCode);
    FtpScript script;
    script.reply(220).expect("USER kim").reply(userCode);
    if (passwordCode != 0)
        script.expect("PASS secret").reply(passwordCode);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(!client.login(server));
    QCOMPARE(client.errors(), QStringList(u"Login rejected by the server"_s));
    QVERIFY(client.isConnected());
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpSession::greetingsAreRefused_data()
{
    QTest::addColumn<QByteArray>("greeting");
    QTest::addColumn<QString>("text");
    QTest::newRow("later") << QByteArray("120 wait\r\n220 ready\r\n") << u"120 wait"_s;
    QTest::newRow("full") << QByteArray("421 too many\r\n") << u"421 too many"_s;
    QTest::newRow("other success") << QByteArray("200 hello\r\n") << u"200 hello"_s;
    QTest::newRow("several lines") << QByteArray("530-no\r\n530 entry\r\n") << u"530-no\n530 entry"_s;
    QTest::newRow("percent signs") << QByteArray("421 %1 of %2\r\n") << u"421 %1 of %2"_s;
}

void TestFtpSession::greetingsAreRefused()
{
    QFETCH(const QByteArray, greeting);
    QFETCH(const QString, text);
    FtpScript script;
    script.replyRaw(greeting);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(!client.login(server));
    QCOMPARE(client.lastError(), u"Unexpected greeting: "_s + text);
    QCOMPARE(client.log(),
             QStringList({connectingTo(server), u"< "_s + text, u"ERROR: Unexpected greeting: "_s + text}));
    QVERIFY(client.isConnected());
    client.close();
    QCOMPARE(server.finish(), QString());
    QCOMPARE(server.commands(), QByteArrayList({"QUIT"}));
}

void TestFtpSession::aGreetingMayHaveSeveralLines()
{
    FtpScript script;
    script.replyRaw("220-welcome\r\n 120 guests\r\n220 ready\r\n").expect("USER kim").reply(230);
    script.expect("FEAT").reply(500);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QCOMPARE(client.log().at(1), u"< 220-welcome\n120 guests\n220 ready"_s);
    QCOMPARE(server.finish(), QString());
}

void TestFtpSession::nobodyListens()
{
    const RefusedPort refused;
    const quint16 port = refused.number();
    TestClient client;
    QVERIFY(!client.connectAndLogin(u"127.0.0.1"_s, port, u"kim"_s, u"secret"_s));
    QCOMPARE(client.lastError(), u"Cannot connect to 127.0.0.1:%1 (Connection refused)"_s.arg(port));
    QVERIFY(!client.isConnected());
}

void TestFtpSession::nobodyAnswers()
{
    QTcpServer listener;
    listener.setListenBacklogSize(0);
    QVERIFY(listener.listen(QHostAddress::LocalHost));
    QTcpSocket filler; // takes the only place in the queue, so that the next one gets no answer
    filler.connectToHost(QHostAddress(QHostAddress::LocalHost), listener.serverPort());
    QVERIFY(filler.waitForConnected());
    TestClient client;
    client.setTimeoutMs(100);
    QVERIFY(!client.connectAndLogin(u"127.0.0.1"_s, listener.serverPort(), u"kim"_s, u"secret"_s));
    const QString begin = u"Cannot connect to 127.0.0.1:%1 ("_s.arg(listener.serverPort());
    QVERIFY2(client.hasFailedOnceWith(begin), qPrintable(client.lastError()));
    QVERIFY(!client.isConnected());
}

void TestFtpSession::anInvalidHostIsNamedLiterally()
{
    TestClient client;
    QVERIFY(!client.connectAndLogin(u"%2 %1"_s, 21, u"kim"_s, u"secret"_s));
    QCOMPARE(client.log().first(), u"Connecting to %2 %1:21 ..."_s);
    QVERIFY2(client.hasFailedOnceWith(u"Cannot connect to %2 %1:21 ("_s), qPrintable(client.lastError()));
}

void TestFtpSession::noProxyIsAsked()
{
#ifdef Q_OS_WIN
    QSKIP("There is no other way to name this host here, and 127.0.0.1 is never looked for at a proxy.");
#endif
    const RefusedPort refused;
    FtpScriptServer server(FtpScript().login());
    TestClient client;
    QNetworkProxy::setApplicationProxy(
        QNetworkProxy(QNetworkProxy::Socks5Proxy, u"127.0.0.1"_s, refused.number()));
    const auto restore = qScopeGuard([] { QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy); });
    QVERIFY2(client.connectAndLogin(u"0.0.0.0"_s, server.port(), u"kim"_s, u"secret"_s),
             qPrintable(client.lastError()));
    QCOMPARE(server.finish(), QString());
}

void TestFtpSession::theSessionEndsHalfWay_data()
{
    QTest::addColumn<bool>("useTls");
    QTest::addColumn<FtpScript>("script");
    QTest::addColumn<QString>("moment"); // the log line at which the flag is raised or the hurry begins
    QTest::addColumn<QString>("kind");
    QTest::addColumn<bool>("accepted");
    QTest::addColumn<QStringList>("errors");

    // `more` is what is sent all the same, as long as the connection is there.
    const auto point = [](const QString &moment, bool useTls, const FtpScript &asked, bool accepted,
                          const QString &general = QString(), const QByteArrayList &more = {}) {
        for (const QString &kind : {u"silent"_s, u"cancelled"_s, u"closed"_s}) {
            const bool isClosed = kind == u"closed";
            const QString text = isClosed ? kClosed : kind == u"silent" ? kTimedOut : kCancelled;
            FtpScript script = asked;
            QStringList errors(text);
            for (const QByteArray &command : more) {
                if (!isClosed)
                    script.expect(command);
                errors += isClosed ? kNotConnected : text;
            }
            if (isClosed)
                script.closeControl();
            else
                script.silence();
            if (!general.isEmpty())
                errors += general;
            QTest::addRow("%s %s", qPrintable(moment), qPrintable(kind))
                << useTls << script << moment << kind << accepted << errors;
        }
    };

    const FtpScript greeted = FtpScript().reply(220);
    const FtpScript loggedIn = FtpScript(greeted).expect("USER kim").reply(230);
    const FtpScript secured =
        FtpScript(greeted).expect("AUTH TLS").reply(234).startTls().expect("USER kim").reply(230);
    const QString refused = u"Server refused AUTH TLS"_s;
    point(u"Connecting"_s, false, FtpScript(), false);
    point(u"> AUTH TLS"_s, true, FtpScript(greeted).expect("AUTH TLS"), false, refused);
    point(u"> USER"_s, false, FtpScript(greeted).expect("USER kim"), false);
    point(u"> PASS"_s, false, FtpScript(greeted).expect("USER kim").reply(331).expect("PASS secret"), false);
    point(u"> PBSZ"_s, true, FtpScript(secured).expect("PBSZ 0"), true, QString(), {"PROT P", "FEAT"});
    point(u"> PROT"_s, true, FtpScript(secured).expect("PBSZ 0").reply(200).expect("PROT P"), true, QString(),
          {"FEAT"});
    point(u"> FEAT"_s, false, FtpScript(loggedIn).expect("FEAT"), true);
    point(u"> OPTS"_s, false, FtpScript(loggedIn).expect("FEAT").reply(211, "UTF8").expect("OPTS UTF8 ON"),
          true);
}

void TestFtpSession::theSessionEndsHalfWay()
{
    QFETCH(const bool, useTls);
    QFETCH(const FtpScript, script);
    QFETCH(const QString, moment);
    QFETCH(const QString, kind);
    QFETCH(const bool, accepted);
    QFETCH(const QStringList, errors);
    FtpScriptServer server(script);
    std::atomic<bool> cancel = false;
    TestClient client;
    client.setTlsOptions(useTls, true);
    client.setCancelFlag(&cancel);
    if (kind == u"silent")
        client.hurryFrom(moment);
    if (kind == u"cancelled")
        client.whenLogged(moment, [&cancel] { cancel = true; });

    QCOMPARE(client.login(server), accepted);
    QCOMPARE(client.errors(), errors);
    QCOMPARE(client.lastError(), errors.last());
    QCOMPARE(client.isConnected(), kind != u"closed");
    QVERIFY(!client.log().join(u'\n').contains(u"secret"_s));
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpSession::featuresAreFoundInTheReply_data()
{
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<bool>("mlsd");
    QTest::addColumn<bool>("mdtm");
    QTest::addColumn<bool>("size");
    QTest::addColumn<bool>("utf8");
    const auto row = [](const char *what, const QByteArray &reply, bool mlsd, bool mdtm, bool size,
                        bool utf8) { QTest::newRow(what) << reply << mlsd << mdtm << size << utf8; };

    row("all", "211-Can:\r\n MLSD\r\n MDTM\r\n SIZE\r\n UTF8\r\n211 End\r\n", true, true, true, true);
    row("none", "211-Can:\r\n REST STREAM\r\n211 End\r\n", false, false, false, false);
    row("one line", "211 nothing\r\n", false, false, false, false);
    row("one line with a feature", "211 MDTM\r\n", false, true, false, false);
    row("first line with a feature", "211-SIZE\r\n211 End\r\n", false, false, true, false);
    row("last line with a feature", "211-Can:\r\n211 UTF8\r\n", false, false, false, true);
    row("lower case", "211-can:\r\n mlsd\r\n mdtm\r\n size\r\n utf8\r\n211 end\r\n", true, true, true, true);
    row("MLST alone", "211-Can:\r\n MLST type*;size*;modify*;\r\n211 End\r\n", false, false, true, false);
    row("within another word", "211-Can:\r\n XMLSDX\r\n211 End\r\n", true, false, false, false);
    row("UTF-8 with a hyphen", "211-Can:\r\n UTF-8\r\n211 End\r\n", false, false, false, false);
    row("lines indented with the code", "211-Can:\r\n211-MLSD\r\n211-MDTM\r\n211 End\r\n", true, true, false,
        false);
    row("refused", "500 MLSD MDTM SIZE UTF8\r\n", false, false, false, false);
    row("not allowed", "550 MLSD\r\n", false, false, false, false);
    row("other success", "200-MLSD\r\n MDTM\r\n200 SIZE\r\n", false, false, false, false);
}

void TestFtpSession::featuresAreFoundInTheReply()
{
    QFETCH(const QByteArray, reply);
    QFETCH(const bool, mlsd);
    QFETCH(const bool, mdtm);
    QFETCH(const bool, size);
    QFETCH(const bool, utf8);
    FtpScript script;
    script.reply(220).expect("USER kim").reply(230).expect("FEAT").replyRaw(reply);
    if (utf8)
        script.expect("OPTS UTF8 ON").reply(200);
    if (mdtm)
        script.expect("MDTM a").reply(213, "20200102030405");
    if (size)
        script.expect("TYPE I").reply(200).expect("SIZE a").reply(213, "5");
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QCOMPARE(client.supportsMlsd(), mlsd);
    QCOMPARE(client.modificationTime(u"a"_s).isValid(), mdtm);
    QCOMPARE(client.fileSize(u"a"_s), size ? 5 : -1);
    QCOMPARE(client.errors(), QStringList());
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpSession::aRefusedOptsIsNoFailure()
{
    FtpScript script;
    script.reply(220).expect("USER kim").reply(230).expect("FEAT").reply(211, "UTF8 MLSD");
    script.expect("OPTS UTF8 ON").reply(501, "no need");
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QVERIFY(client.supportsMlsd());
    QCOMPARE(client.errors(), QStringList());
    QCOMPARE(server.finish(), QString());
}

void TestFtpSession::binaryModeIsSetOnce()
{
    FtpScript script;
    script.login().expect("TYPE I").reply(200).expect("SIZE a").reply(213, "5");
    script.expect("SIZE b").reply(213, "6");
    script.expect("CWD /").reply(250).enterPassive().expect("MLSD").reply(150).dataClose().reply(226);
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QCOMPARE(client.fileSize(u"a"_s), 5);
    QCOMPARE(client.fileSize(u"b"_s), 6);
    QList<FtpEntry> entries;
    QVERIFY(client.list(u"/"_s, &entries));
    QCOMPARE(server.finish(), QString());
}

void TestFtpSession::binaryModeIsRefused_data()
{
    QTest::addColumn<int>("code");
    for (const int code : {202, 250, 500, 504, 530})
        QTest::addRow("%d", code) << code;
}

void TestFtpSession::binaryModeIsRefused()
{
    QFETCH(const int, code);
    FtpScript script;
    script.login().expect("CWD /").reply(250).expect("TYPE I").reply(code);
    script.expect("TYPE I").reply(code).expect("TYPE I").reply(200).expect("SIZE a").reply(213, "5");
    FtpScriptServer server(script);
    TestClient client;
    QVERIFY(client.login(server));
    QList<FtpEntry> entries;
    QVERIFY(!client.list(u"/"_s, &entries));
    QCOMPARE(client.errors(), QStringList(u"Server refused binary transfer mode"_s));
    QCOMPARE(client.fileSize(u"a"_s), -1);
    QCOMPARE(client.fileSize(u"a"_s), 5);
    QCOMPARE(server.finish(), QString());
}

void TestFtpSession::withoutTlsNobodyAsksForIt()
{
    FtpScript script;
    script.login({"AUTH TLS", "PBSZ", "PROT"});
    FtpScriptServer server(script);
    TestClient client;
    client.setTlsOptions(false, true);
    QVERIFY(client.login(server));
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpSession::tlsVersions_data()
{
    QTest::addColumn<QSsl::SslProtocol>("version");
    QTest::newRow("1.2") << QSsl::TlsV1_2;
    QTest::newRow("1.3") << QSsl::TlsV1_3;
}

void TestFtpSession::tlsVersions()
{
    QFETCH(const QSsl::SslProtocol, version);
    FtpScript script;
    script.tlsVersion(version).secureLogin().expect("MDTM a").reply(213, "20200102030405");
    FtpScriptServer server(script);
    TestClient client;
    client.setTlsOptions(true, true);
    QVERIFY(client.login(server));
    QVERIFY(client.modificationTime(u"a"_s).isValid());
    QCOMPARE(client.errors(), QStringList());
    client.close();
    QCOMPARE(server.finish(), QString());
    QCOMPARE(server.commands().last(), QByteArray("QUIT"));
}

void TestFtpSession::tlsIsRefused_data()
{
    QTest::addColumn<int>("code");
    for (const int code : {220, 334, 421, 431, 500, 502, 504, 530, 534})
        QTest::addRow("%d", code) << code;
}

void TestFtpSession::tlsIsRefused()
{
    QFETCH(const int, code);
    FtpScript script;
    script.reply(220).expect("AUTH TLS").reply(code);
    FtpScriptServer server(script);
    TestClient client;
    client.setTlsOptions(true, true);
    QVERIFY(!client.login(server));
    QCOMPARE(client.errors(), QStringList(u"Server refused AUTH TLS"_s));
    QVERIFY(client.isConnected());
    client.close();
    QCOMPARE(server.finish(), QString());
    QCOMPARE(server.commands(), QByteArrayList({"AUTH TLS", "QUIT"})); // never the user's name
}

void TestFtpSession::handshakesFail_data()
{
    QTest::addColumn<FtpScript>("script");
    FtpScript asked;
    asked.reply(220).expect("AUTH TLS").reply(234);
    QTest::newRow("closed") << FtpScript(asked).closeControl();
    QTest::newRow("reset") << FtpScript(asked).dropControl();
    QTest::newRow("silence") << FtpScript(asked).hold();
}

void TestFtpSession::handshakesFail()
{
    QFETCH(const FtpScript, script);
    FtpScriptServer server(script);
    TestClient client;
    client.setTlsOptions(true, true);
    client.hurryFrom(u"< 234 as you wish"_s, 200);
    QVERIFY(!client.login(server));
    QVERIFY2(client.hasFailedOnceWith(u"TLS handshake failed: "_s), qPrintable(client.lastError()));
    QVERIFY(!client.log().contains(u"> USER kim"_s));
    QCOMPARE(server.finish(), QString()); // first, as a goodbye to whom does not listen takes its 4 seconds
}

void TestFtpSession::plainTextBehindTheReplyIsNeverRead_data()
{
    QTest::addColumn<FtpScript>("script");
    FtpScript asked;
    asked.reply(220).expect("AUTH TLS");
    QTest::newRow("same packet") << FtpScript(asked).replyRaw("234 go\r\n230 injected\r\n").offerTls();
    QTest::newRow("same packet, three replies")
        << FtpScript(asked).replyRaw("234 go\r\n331 injected\r\n230 injected\r\n500 injected\r\n").offerTls();
    QTest::newRow("same packet, line without an end")
        << FtpScript(asked).replyRaw("234 go\r\n230 injected").offerTls();
    QTest::newRow("same packet, one byte") << FtpScript(asked).replyRaw("234 go\r\n2").offerTls();
    QTest::newRow("same packet, empty line") << FtpScript(asked).replyRaw("234 go\r\n\r\n").offerTls();
    QTest::newRow("next packet")
        << FtpScript(asked).replyRaw("234 go\r\n").replyRaw("230 injected\r\n").offerTls();
    QTest::newRow("later packet")
        << FtpScript(asked).replyRaw("234 go\r\n").delay(100).replyRaw("230 injected\r\n").offerTls();
}

void TestFtpSession::plainTextBehindTheReplyIsNeverRead()
{
    QFETCH(const FtpScript, script);
    FtpScriptServer server(script);
    TestClient client;
    client.setTlsOptions(true, true);
    QVERIFY(!client.login(server));
    QVERIFY2(client.hasFailedOnceWith(u"TLS handshake failed: "_s), qPrintable(client.lastError()));
    QCOMPARE(client.log().mid(client.log().indexOf(u"> AUTH TLS"_s)),
             QStringList({u"> AUTH TLS"_s, u"< 234 go"_s, u"ERROR: "_s + client.lastError()}));
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpSession::anUnknownCertificateIsRefused()
{
    for (const QSsl::SslProtocol version : {QSsl::TlsV1_2, QSsl::TlsV1_3}) {
        FtpScript script;
        script.tlsVersion(version).reply(220).expect("AUTH TLS").reply(234).offerTls();
        FtpScriptServer server(script);
        TestClient client;
        client.setTlsOptions(true, false);
        QVERIFY(!client.login(server));
        QVERIFY2(client.hasFailedOnceWith(u"TLS handshake failed: "_s), qPrintable(client.lastError()));
        QVERIFY(!client.log().contains(u"Control channel secured with TLS."_s));
        client.close();
        QCOMPARE(server.finish(), QString());
        QCOMPARE(server.commands().value(0), QByteArray("AUTH TLS"));
        QVERIFY(!server.received().contains("USER"));
    }
}

void TestFtpSession::refusedProtectionIsAWarning_data()
{
    QTest::addColumn<int>("bufferCode");
    QTest::addColumn<int>("protectionCode");
    QTest::newRow("buffer refused") << 503 << 200;
    QTest::newRow("protection refused") << 200 << 534;
    QTest::newRow("both refused") << 500 << 500;
    QTest::newRow("other success") << 200 << 250;
}

void TestFtpSession::refusedProtectionIsAWarning()
{
    QFETCH(const int, bufferCode);
    QFETCH(const int, protectionCode);
    const bool isProtected = protectionCode == 200;
    FtpScript script;
    script.reply(220).expect("AUTH TLS").reply(234).startTls().expect("USER kim").reply(230);
    script.expect("PBSZ 0")
        .reply(bufferCode)
        .expect("PROT P")
        .reply(protectionCode)
        .expect("FEAT")
        .reply(500);
    script.expect("CWD /").reply(250).expect("TYPE I").reply(200).enterPassive().expect("LIST -a").reply(150);
    if (isProtected)
        script.dataTls();
    script.dataSend("-rw-r--r-- 1 kim web 5 Jan 2 2020 a\r\n").dataClose().reply(226);
    FtpScriptServer server(script);
    TestClient client;
    client.setTlsOptions(true, true);
    QVERIFY(client.login(server));
    QCOMPARE(client.log().count(kUnprotected), isProtected ? 0 : 1);
    QList<FtpEntry> entries;
    QVERIFY(client.list(u"/"_s, &entries));
    QCOMPARE(entries.size(), 1);
    QCOMPARE(client.errors(), QStringList());
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpSession::aSecureSessionLeavesNothingToThePlainOneBehindIt()
{
    FtpScript script;
    script.secureLogin().nextSession();
    script.login().expect("CWD /").reply(250).expect("TYPE I").reply(200).enterPassive();
    script.expect("MLSD").reply(150).dataSend("type=file; a\r\n").dataClose().reply(226);
    FtpScriptServer server(script);
    TestClient client;
    client.setTlsOptions(true, true);
    QVERIFY(client.login(server));
    client.setTlsOptions(false, true);
    QVERIFY(client.login(server));
    QList<FtpEntry> entries;
    QVERIFY2(client.list(u"/"_s, &entries), qPrintable(client.lastError()));
    QCOMPARE(entries.size(), 1);
    QCOMPARE(server.finish(), QString());
}

void TestFtpSession::secureExchangesLoseNoTime_data() { tlsVersions_data(); }

void TestFtpSession::secureExchangesLoseNoTime()
{
    QFETCH(const QSsl::SslProtocol, version);
    FtpScript script;
    script.tlsVersion(version).secureLogin({"MDTM"});
    for (int i = 0; i < 50; ++i)
        script.expect("MDTM a").reply(213, "20200102030405");
    FtpScriptServer server(script);
    TestClient client;
    client.setTimeoutMs(8000);
    client.setTlsOptions(true, true);
    qint64 longest = 0;
    QElapsedTimer clock;
    connect(&client, &FtpClient::logMessage, &client, [&clock, &longest] {
        if (clock.isValid())
            longest = qMax(longest, clock.elapsed());
        clock.start();
    });
    QVERIFY(client.login(server));
    for (int i = 0; i < 50; ++i)
        QVERIFY(client.modificationTime(u"a"_s).isValid());
    QVERIFY2(longest < 4000, qPrintable(QString::number(longest)));
    clock.start();
    client.close();
    QVERIFY(clock.elapsed() < 1500);
    QCOMPARE(server.finish(), QString());
}

void TestFtpSession::aSecureSessionIsReadInAnyPackets()
{
    FtpScript script;
    script.secureLogin().expect("MDTM a").fragment(3).replyRaw("213-größer\r\n213 b\r\n");
    script.expect("MDTM b").replyRaw("213 20200102030405\r\n213 20210102030405\r\n").expect("MDTM c");
    FtpScriptServer server(script);
    TestClient client;
    client.setTlsOptions(true, true);
    QVERIFY(client.login(server));
    client.modificationTime(u"a"_s);
    QCOMPARE(client.log().last(), u"< 213-größer\n213 b"_s);
    QCOMPARE(client.modificationTime(u"b"_s).date().year(), 2020);
    QCOMPARE(client.modificationTime(u"c"_s).date().year(), 2021);
    client.close();
    QCOMPARE(server.finish(), QString());
}

void TestFtpSession::aSecureSessionThatIsClosedIsReported()
{
    for (const QSsl::SslProtocol version : {QSsl::TlsV1_2, QSsl::TlsV1_3}) {
        FtpScript script;
        script.tlsVersion(version).secureLogin().expect("MDTM a").closeControl();
        FtpScriptServer server(script);
        TestClient client;
        client.setTlsOptions(true, true);
        QVERIFY(client.login(server));
        QVERIFY(!client.modificationTime(u"a"_s).isValid());
        QCOMPARE(client.errors(), QStringList(kClosed));
        QVERIFY(!client.isConnected());
        QCOMPARE(server.finish(), QString());
    }
}

QTEST_GUILESS_MAIN(TestFtpSession)
#include "tst_FtpSession.moc"
