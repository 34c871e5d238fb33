#include "support/HttpTestServer.h"
#include "support/MarkingTranslator.h"
#include "support/RefusedPort.h"
#include "support/TestSettings.h"
#include "update/UpdateChecker.h"

#include <QEventLoop>
#include <QGuiApplication>
#include <QNetworkAccessManager>
#include <QNetworkProxyFactory>
#include <QNetworkReply>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QSysInfo>
#include <QTemporaryFile>
#include <QTest>
#include <QTimer>

#include <memory>
#include <optional>

using namespace Qt::StringLiterals;

namespace {

constexpr int kPatienceMs = 20000; // only a test that fails waits for so long
constexpr qint64 kMuch = 8 << 20;
constexpr qsizetype kBigBody = 50 << 20;

const QString kUnreachable = u"Could not reach the update service: "_s;
const QString kMalformed = u"The update service returned a malformed response."_s;
const QString kNoVersion = u"The update service did not report a version."_s;
const QByteArray kGoodBody = R"({"latest_version": "1.2.0"})";

/** What a check came to. */
struct Outcome
{
    int signalCount = 0;
    UpdateInfo info = {};
    QString reason = {}; ///< empty if the check succeeded
    bool manual = false;
};

/** A checker whose signals are noted. */
class ObservedChecker
{
public:
    ObservedChecker() :
        finished(checker.get(), &UpdateChecker::finished), failed(checker.get(), &UpdateChecker::failed)
    {
    }

    UpdateChecker *operator->() const { return checker.get(); }
    void destroy() { checker.reset(); }
    qsizetype signalCount() const { return finished.size() + failed.size(); }

    /** Of the last signal, once there is one. */
    Outcome outcome()
    {
        if (signalCount() == 0) {
            QEventLoop loop;
            QObject::connect(checker.get(), &UpdateChecker::finished, &loop, &QEventLoop::quit);
            QObject::connect(checker.get(), &UpdateChecker::failed, &loop, &QEventLoop::quit);
            QTimer::singleShot(kPatienceMs, &loop, &QEventLoop::quit);
            loop.exec();
        }
        Outcome result{.signalCount = static_cast<int>(signalCount())};
        if (!failed.isEmpty()) {
            result.reason = failed.last().at(0).toString();
            result.manual = failed.last().at(1).toBool();
        } else if (!finished.isEmpty()) {
            result.info = finished.last().at(0).value<UpdateInfo>();
            result.manual = finished.last().at(1).toBool();
        }
        return result;
    }

private:
    std::unique_ptr<UpdateChecker> checker = std::make_unique<UpdateChecker>();
    QSignalSpy finished;
    QSignalSpy failed;
};

Outcome outcomeOf(const QUrl &endpoint, bool isManual = false)
{
    ObservedChecker checker;
    checker->check(endpoint, isManual);
    return checker.outcome();
}

Outcome outcomeOf(const HttpAnswer &answer)
{
    HttpTestServer server;
    server.setAnswer(answer);
    return outcomeOf(server.url());
}

/** The texts of an answer in the order of their declaration. */
QStringList texts(const UpdateInfo &info)
{
    return {info.latestVersion, info.releaseDate, info.downloadUrl,
            info.notesUrl,      info.notes,       info.minSupportedVersion};
}

/** Until it goes, the program trusts the certificates of the test's servers. */
class Trust
{
public:
    Trust()
    {
        QSslConfiguration trusting = before;
        trusting.addCaCertificate(HttpTestServer::authority());
        QSslConfiguration::setDefaultConfiguration(trusting);
    }
    ~Trust() { QSslConfiguration::setDefaultConfiguration(before); }
    Q_DISABLE_COPY_MOVE(Trust)

private:
    QSslConfiguration before = QSslConfiguration::defaultConfiguration();
};

const QSslConfiguration &ownTls()
{
    static const QSslConfiguration made = HttpTestServer::makeTls(u"IP:127.0.0.1"_s);
    return made;
}

bool isUnreachable(const QString &reason)
{
    return reason.startsWith(kUnreachable) && reason.size() > kUnreachable.size();
}

} // namespace

class TestUpdateChecker : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void theQuery_data();
    void theQuery();
    void theRequest();
    void nameAndVersionAreTheProgramsOwn();

    void aFullAnswerIsTaken();
    void allButTheVersionMayBeMissing();
    void textsAreTakenAsTheyStand();
    void wrongTypesReadAsMissing_data();
    void wrongTypesReadAsMissing();
    void criticalIsTakenOnlyAsABoolean_data();
    void criticalIsTakenOnlyAsABoolean();
    void manualIsHandedThrough_data();
    void manualIsHandedThrough();

    void badEndpoints_data();
    void badEndpoints();
    void statusesOtherThan200_data();
    void statusesOtherThan200();
    void anAnswerWithoutAStatusPasses();
    void answersThatAreNoObject_data();
    void answersThatAreNoObject();
    void answersWithoutAVersion_data();
    void answersWithoutAVersion();
    void connectionsThatFail_data();
    void connectionsThatFail();
    void aBrokenChunkIsAFailure();
    void nobodyListens();
    void silenceEndsInATimeOut_data();
    void silenceEndsInATimeOut();

    void redirectsAreFollowed_data();
    void redirectsAreFollowed();
    void redirectsThatAreNotFollowed_data();
    void redirectsThatAreNotFollowed();
    void aRedirectNeverLeadsOutOfTls();

    void aTrustedCertificateIsAccepted();
    void aCertificateThatDoesNotVerifyIsRefused_data();
    void aCertificateThatDoesNotVerifyIsRefused();

    void aSlowBodyIsAwaited();
    void anEndlessBodyHoldsNothingUp();
    void aBigBody();
    void aBodyThatUnpacksToFarMoreIsRefused();

    void aSecondCheckMeanwhileIsDropped();
    void theCheckerIsIdleBeforeTheOutcomeIsTold_data();
    void theCheckerIsIdleBeforeTheOutcomeIsTold();
    void noCookieIsKept();
    void aVersionOfAnyLengthIsBounded();
    void textsAreTranslated();
    void checksFollowOneAnother();
    void aCheckerMayGoDuringACheck();
    void nothingIsLeftOfACheck();

    void versionsCompare_data();
    void versionsCompare();
    void hugeVersionsCompare();
    void thePlatform();
};

void TestUpdateChecker::initTestCase()
{
    QNetworkProxyFactory::setUseSystemConfiguration(false); // all goes to 127.0.0.1
}

void TestUpdateChecker::theQuery_data()
{
    QTest::addColumn<QString>("endpoint");
    QTest::addColumn<QString>("ahead");
    const auto row = [](const char *what, const char *endpoint, const char *ahead) {
        QTest::newRow(what) << QString::fromLatin1(endpoint) << QString::fromLatin1(ahead);
    };
    row("path alone", "/api/latest.json", "/api/latest.json?");
    row("no path", "", "/?");
    row("a query of its own", "/api/latest.json?channel=beta&x=a%26b",
        "/api/latest.json?channel=beta&x=a%26b&");
    row("a query with the same keys", "/a?app=other&current=9", "/a?app=other&current=9&");
    row("a key without a value", "/a?quiet", "/a?quiet&");
    row("a fragment, which is not sent", "/a#top", "/a?");
}

void TestUpdateChecker::theQuery()
{
    QFETCH(const QString, endpoint);
    QFETCH(const QString, ahead);
    HttpTestServer server;
    server.setAnswer(HttpAnswer::json(kGoodBody));

    QCOMPARE(outcomeOf(server.url(endpoint)).reason, QString());

    const QString added = u"app=Kelpwharf&current=1.0.0&platform=%1&arch=%2"_s.arg(
        UpdateChecker::platformId(), QSysInfo::currentCpuArchitecture());
    QCOMPARE(QString::fromLatin1(server.requestLine()), u"GET "_s + ahead + added + u" HTTP/1.1"_s);
}

void TestUpdateChecker::theRequest()
{
    HttpTestServer server;
    server.setAnswer(HttpAnswer::raw({}, HttpAnswer::End::Silence));
    ObservedChecker checker;
    checker->check(server.url(), false);
    QTRY_COMPARE(server.requests().size(), 1);

    QCOMPARE(server.header("User-Agent"), QByteArray("Kelpwharf/1.0.0"));
    const auto *reply = checker->findChild<QNetworkReply *>();
    QVERIFY(reply);
    QCOMPARE(reply->request().transferTimeout(), 15000);
    QCOMPARE(reply->request().attribute(QNetworkRequest::RedirectPolicyAttribute).toInt(),
             int(QNetworkRequest::NoLessSafeRedirectPolicy));
    QCOMPARE(reply->manager()->parent(), checker.operator->());
}

void TestUpdateChecker::nameAndVersionAreTheProgramsOwn()
{
    const QString name = QCoreApplication::applicationName();
    QCoreApplication::setApplicationName(u"Other"_s);
    QCoreApplication::setApplicationVersion(u"7.7"_s);
    const auto restore = qScopeGuard([name] {
        QCoreApplication::setApplicationName(name);
        QCoreApplication::setApplicationVersion(QString());
    });
    HttpTestServer server;
    server.setAnswer(HttpAnswer::json(kGoodBody));

    outcomeOf(server.url());

    QVERIFY(server.requestLine().startsWith("GET /?app=Kelpwharf&current=1.0.0&"));
    QCOMPARE(server.header("User-Agent"), QByteArray("Kelpwharf/1.0.0"));
}

void TestUpdateChecker::aFullAnswerIsTaken()
{
    const Outcome outcome = outcomeOf(HttpAnswer::json(R"({
        "latest_version": "1.2.0",
        "release_date": "30 October 2026",
        "download_url": "https://maker.example/download",
        "notes_url": "https://maker.example/notes",
        "notes": "One\nTwo \u00e4",
        "min_supported_version": "0.9",
        "critical": true,
        "mirror": {"unknown": ["keys", "are", "ignored"]}
    })"));

    QCOMPARE(outcome.reason, QString());
    QCOMPARE(outcome.signalCount, 1);
    QCOMPARE(texts(outcome.info),
             (QStringList{u"1.2.0"_s, u"30 October 2026"_s, u"https://maker.example/download"_s,
                          u"https://maker.example/notes"_s, u"One\nTwo ä"_s, u"0.9"_s}));
    QVERIFY(outcome.info.critical);
}

void TestUpdateChecker::allButTheVersionMayBeMissing()
{
    const Outcome outcome = outcomeOf(HttpAnswer::json(kGoodBody));

    QCOMPARE(outcome.reason, QString());
    QCOMPARE(texts(outcome.info), (QStringList{u"1.2.0"_s, {}, {}, {}, {}, {}}));
    QVERIFY(!outcome.info.critical);
}

void TestUpdateChecker::textsAreTakenAsTheyStand()
{
    const Outcome outcome = outcomeOf(HttpAnswer::json(R"({
        "latest_version": " <b>2</b> ", "release_date": "%1 %2", "download_url": "file:///etc/passwd",
        "notes_url": " ", "notes": "<a href='x'>y</a>\u0000", "min_supported_version": "\u202e"
    })"));

    QCOMPARE(outcome.reason, QString());
    QCOMPARE(texts(outcome.info),
             (QStringList{u" <b>2</b> "_s, u"%1 %2"_s, u"file:///etc/passwd"_s, u" "_s,
                          u"<a href='x'>y</a>"_s + QChar(u'\0'), QString(QChar(0x202E))}));
}

void TestUpdateChecker::wrongTypesReadAsMissing_data()
{
    QTest::addColumn<QByteArray>("key");
    QTest::addColumn<QByteArray>("value");
    for (const char *key : {"release_date", "download_url", "notes_url", "notes", "min_supported_version"}) {
        for (const char *value :
             {"1", "-1.5e300", "true", "false", "null", "[]", "[\"x\"]", "{}", "{\"x\":1}"})
            QTest::addRow("%s %s", key, value) << QByteArray(key) << QByteArray(value);
    }
}

void TestUpdateChecker::wrongTypesReadAsMissing()
{
    QFETCH(const QByteArray, key);
    QFETCH(const QByteArray, value);

    const Outcome outcome =
        outcomeOf(HttpAnswer::json(R"({"latest_version": "1.2.0", ")" + key + "\": " + value + "}"));

    QCOMPARE(outcome.reason, QString());
    QCOMPARE(texts(outcome.info), (QStringList{u"1.2.0"_s, {}, {}, {}, {}, {}}));
}

void TestUpdateChecker::criticalIsTakenOnlyAsABoolean_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<bool>("isCritical");
    QTest::newRow("true") << QByteArray("true") << true;
    for (const char *value : {"false", "\"true\"", "\"false\"", "1", "0", "null", "[true]", "{}"})
        QTest::newRow(value) << QByteArray(value) << false;
}

void TestUpdateChecker::criticalIsTakenOnlyAsABoolean()
{
    QFETCH(const QByteArray, value);
    QFETCH(const bool, isCritical);

    const Outcome outcome =
        outcomeOf(HttpAnswer::json(R"({"latest_version": "1.2.0", "critical": )" + value + "}"));

    QCOMPARE(outcome.reason, QString());
    QCOMPARE(outcome.info.critical, isCritical);
}

void TestUpdateChecker::manualIsHandedThrough_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<bool>("isManual");
    QTest::newRow("success, by hand") << 200 << true;
    QTest::newRow("success, by itself") << 200 << false;
    QTest::newRow("failure, by hand") << 503 << true;
    QTest::newRow("failure, by itself") << 503 << false;
}

void TestUpdateChecker::manualIsHandedThrough()
{
    QFETCH(const int, status);
    QFETCH(const bool, isManual);
    HttpTestServer server;
    server.setAnswer(HttpAnswer::status(status, kGoodBody));

    const Outcome outcome = outcomeOf(server.url(), isManual);

    QCOMPARE(outcome.reason.isEmpty(), status == 200);
    QCOMPARE(outcome.manual, isManual);
}

void TestUpdateChecker::badEndpoints_data()
{
    QTest::addColumn<QString>("endpoint");
    QTest::addColumn<QString>("shown");
    const auto row = [](const char *what, const char *endpoint, const char *shown) {
        QTest::newRow(what) << QString::fromLatin1(endpoint) << QString::fromLatin1(shown);
    };
    row("empty", "", "");
    row("no scheme", "updates.example/latest.json", "updates.example/latest.json");
    row("a path", "/latest.json", "/latest.json");
    row("a placeholder in it", "%1/latest.json", QUrl(u"%1/latest.json"_s).toString().toLatin1());
    row("an open bracket", "http://[updates.example/", "");
    row("port out of range", "http://127.0.0.1:99999/", "");
}

void TestUpdateChecker::badEndpoints()
{
    QFETCH(const QString, endpoint);
    QFETCH(const QString, shown);
    for (const bool isManual : {true, false}) {
        UpdateChecker checker;
        QSignalSpy failed(&checker, &UpdateChecker::failed);
        QSignalSpy finished(&checker, &UpdateChecker::finished);

        checker.check(QUrl(endpoint, QUrl::TolerantMode), isManual);

        QVERIFY(!checker.isBusy());
        QCOMPARE(failed.size(), 1);
        QCOMPARE(failed.at(0).at(0).toString(),
                 QString(u"The update endpoint '"_s + shown + u"' is not a valid URL."_s));
        QCOMPARE(failed.at(0).at(1).toBool(), isManual);
        QCOMPARE(finished.size(), 0);
    }
}

void TestUpdateChecker::statusesOtherThan200_data()
{
    QTest::addColumn<int>("status");
    for (const int status : {201, 202, 203, 204, 206, 300, 304, 400, 401, 403, 404, 405,
                             408, 410, 418, 429, 451, 500, 501, 502, 503, 504, 599, 999})
        QTest::addRow("%d", status) << status;
}

void TestUpdateChecker::statusesOtherThan200()
{
    QFETCH(const int, status);

    // A good body, which must not be looked at.
    const Outcome outcome = outcomeOf(HttpAnswer::status(status, kGoodBody));

    QCOMPARE(outcome.reason, u"The update service returned HTTP %1."_s.arg(status));
    QCOMPARE(outcome.signalCount, 1);
}

void TestUpdateChecker::anAnswerWithoutAStatusPasses()
{
    QTemporaryFile file;
    QVERIFY(file.open());
    file.write(kGoodBody);
    file.close();

    const Outcome outcome = outcomeOf(QUrl::fromLocalFile(file.fileName()));

    QCOMPARE(outcome.reason, QString());
    QCOMPARE(outcome.info.latestVersion, u"1.2.0"_s);
}

void TestUpdateChecker::answersThatAreNoObject_data()
{
    QTest::addColumn<QByteArray>("body");
    const auto row = [](const char *what, const QByteArray &body) { QTest::newRow(what) << body; };
    row("nothing", {});
    row("blanks", " \r\n");
    row("HTML", "<!DOCTYPE html><html><body>Please log in to this network</body></html>");
    row("an array", R"(["latest_version", "1.2.0"])");
    row("a text", R"("1.2.0")");
    row("a number", "1.2");
    row("null", "null");
    row("cut off", R"({"latest_version": "1.2.0")");
    row("more behind it", kGoodBody + "{}");
    row("a comma too many", R"({"latest_version": "1.2.0",})");
    row("single quotes", "{'latest_version': '1.2.0'}");
    row("a wrapped object", "[" + kGoodBody + "]");
    row("no UTF-8", "{\"latest_version\": \"1.2\xff\xfe\"}");
    row("UTF-16", QByteArray("{\0\"\0a\0\"\0:\0\"\0b\0\"\0}\0", 18));
    row("zeros", QByteArray(1000, '\0'));
    row("nested without end", QByteArray(1000000, '['));
    row("nested objects", QByteArray("{\"a\":").repeated(200000));
    row("a script's call", "callback(" + kGoodBody + ")");
}

void TestUpdateChecker::answersThatAreNoObject()
{
    QFETCH(const QByteArray, body);

    const Outcome outcome = outcomeOf(HttpAnswer::json(body));

    QCOMPARE(outcome.reason, kMalformed);
    QCOMPARE(outcome.signalCount, 1);
}

void TestUpdateChecker::answersWithoutAVersion_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::newRow("an empty object") << QByteArray("{}");
    QTest::newRow("other keys") << QByteArray(R"({"notes": "x", "critical": true})");
    QTest::newRow("other case") << QByteArray(R"({"Latest_Version": "1.2.0"})");
    QTest::newRow("nested") << QByteArray(R"({"kelpwharf": {"latest_version": "1.2.0"}})");
    for (const char *value : {"\"\"", "1.2", "2", "true", "null", "[\"1.2.0\"]", "{\"x\": \"1.2.0\"}"})
        QTest::newRow(value) << "{\"latest_version\": " + QByteArray(value) + "}";
}

void TestUpdateChecker::answersWithoutAVersion()
{
    QFETCH(const QByteArray, body);

    const Outcome outcome = outcomeOf(HttpAnswer::json(body));

    QCOMPARE(outcome.reason, kNoVersion);
    QCOMPARE(outcome.signalCount, 1);
}

void TestUpdateChecker::connectionsThatFail_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<HttpAnswer::End>("end");
    const QByteArray head = "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n";
    const auto row = [](const char *what, const QByteArray &bytes,
                        HttpAnswer::End end = HttpAnswer::End::Close) {
        QTest::newRow(what) << bytes << end;
    };
    row("closed without a word", {});
    row("broken off without a word", {}, HttpAnswer::End::Reset);
    row("closed within the head", "HTTP/1.1 200 OK\r\nContent-Le");
    row("closed behind the head", head);
    row("closed within the body", head + kGoodBody);
    row("broken off within the body", head + kGoodBody, HttpAnswer::End::Reset);
    row("redirected to nowhere", "HTTP/1.1 302 Found\r\nContent-Length: 0\r\n\r\n");
    row("another protocol", "220 ready when you are\r\n");
}

void TestUpdateChecker::connectionsThatFail()
{
    QFETCH(const QByteArray, bytes);
    QFETCH(const HttpAnswer::End, end);

    const Outcome outcome = outcomeOf(HttpAnswer::raw(bytes, end));

    QVERIFY2(isUnreachable(outcome.reason), qPrintable(outcome.reason));
    QCOMPARE(outcome.signalCount, 1);
}

void TestUpdateChecker::aBrokenChunkIsAFailure()
{
    // Qt does not always notice it, and takes what has come for the whole then.
    const Outcome outcome = outcomeOf(HttpAnswer::raw(
        "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nff\r\n" + kGoodBody.chopped(1)));

    QVERIFY2(isUnreachable(outcome.reason) || outcome.reason == kMalformed, qPrintable(outcome.reason));
    QCOMPARE(outcome.signalCount, 1);
}

void TestUpdateChecker::nobodyListens()
{
    const RefusedPort refused;
    QUrl nowhere(u"http://127.0.0.1:%1/"_s.arg(refused.number()));
    QCOMPARE(outcomeOf(nowhere).reason, QString(kUnreachable + u"Connection refused"_s));
    nowhere.setScheme(u"gopher"_s);
    QCOMPARE(outcomeOf(nowhere).reason, QString(kUnreachable + u"Protocol \"gopher\" is unknown"_s));
}

void TestUpdateChecker::silenceEndsInATimeOut_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("in the head") << QByteArray("HTTP/1.1 200 OK\r\n");
    QTest::newRow("in the body of a 404")
        << QByteArray("HTTP/1.1 404 Not Found\r\nContent-Length: 1000\r\n\r\n" + kGoodBody);
}

void TestUpdateChecker::silenceEndsInATimeOut()
{
    QFETCH(const QByteArray, bytes);
    HttpTestServer server;
    server.setAnswer(HttpAnswer::raw(bytes, HttpAnswer::End::Silence));
    ObservedChecker checker;
    checker->check(server.url(), true);
    QTRY_COMPARE(server.requests().size(), 1);
    QVERIFY(checker->isBusy());

    // What the request's time-out, which theRequest() looks at, does after its 15 seconds.
    checker->findChild<QNetworkReply *>()->abort();

    QVERIFY(!checker->isBusy());
    QCOMPARE(checker.outcome().reason, QString(kUnreachable + u"Operation canceled"_s));
    QCOMPARE(checker.signalCount(), 1);
    QTRY_COMPARE(server.connections(), 0);
}

void TestUpdateChecker::redirectsAreFollowed_data()
{
    QTest::addColumn<bool>("isSecureAtFirst");
    QTest::addColumn<bool>("isSecureThen");
    QTest::newRow("HTTP to HTTP") << false << false;
    QTest::newRow("HTTP to HTTPS") << false << true;
    QTest::newRow("HTTPS to HTTPS") << true << true;
}

void TestUpdateChecker::redirectsAreFollowed()
{
    QFETCH(const bool, isSecureAtFirst);
    QFETCH(const bool, isSecureThen);
    const Trust trust;
    const auto make = [](bool isSecure) {
        return isSecure ? std::make_unique<HttpTestServer>(ownTls()) : std::make_unique<HttpTestServer>();
    };
    const auto first = make(isSecureAtFirst);
    const auto then = make(isSecureThen);
    first->setAnswer(HttpAnswer::redirect(then->url(u"/there?a=b"_s)));
    then->setAnswer(HttpAnswer::json(kGoodBody), "/there");

    const Outcome outcome = outcomeOf(first->url(), true);

    QCOMPARE(outcome.reason, QString());
    QCOMPARE(outcome.info.latestVersion, u"1.2.0"_s);
    QVERIFY(outcome.manual);
    QCOMPARE(then->requestLine(), QByteArray("GET /there?a=b HTTP/1.1"));
}

void TestUpdateChecker::redirectsThatAreNotFollowed_data()
{
    QTest::addColumn<QString>("target");
    QTest::addColumn<QString>("reason"); // empty for any of those of a service out of reach
    QTest::newRow("in a circle") << u"/"_s << QString();
    QTest::newRow("to a file") << u"file:///etc/hostname"_s << QString();
    QTest::newRow("to data") << u"data:application/json,%7B%22latest_version%22:%222%22%7D"_s << QString();
    QTest::newRow("to another protocol") << u"ftp://127.0.0.1/latest.json"_s << QString();
    QTest::newRow("to no port") << u"http://127.0.0.1:99999/"_s << QString();
    QTest::newRow("to what is missing") << u"/missing"_s << u"The update service returned HTTP 404."_s;
}

void TestUpdateChecker::redirectsThatAreNotFollowed()
{
    QFETCH(const QString, target);
    QFETCH(const QString, reason);
    HttpTestServer server;
    server.setAnswer(HttpAnswer::status(302, {}, "Location: " + target.toLatin1() + "\r\n"));
    server.setAnswer(HttpAnswer::status(404, kGoodBody), "/missing");

    const Outcome outcome = outcomeOf(server.url());

    if (reason.isEmpty())
        QVERIFY2(isUnreachable(outcome.reason), qPrintable(outcome.reason));
    else
        QCOMPARE(outcome.reason, reason);
    QCOMPARE(outcome.signalCount, 1);
}

void TestUpdateChecker::aRedirectNeverLeadsOutOfTls()
{
    const Trust trust;
    HttpTestServer plain;
    plain.setAnswer(HttpAnswer::json(kGoodBody));
    HttpTestServer secure(ownTls());
    secure.setAnswer(HttpAnswer::redirect(plain.url()));

    const Outcome outcome = outcomeOf(secure.url());

    QVERIFY2(isUnreachable(outcome.reason), qPrintable(outcome.reason));
    QCOMPARE(secure.requests().size(), 1);
    QCOMPARE(plain.requests().size(), 0);
}

void TestUpdateChecker::aTrustedCertificateIsAccepted()
{
    const Trust trust;
    HttpTestServer server(ownTls());
    server.setAnswer(HttpAnswer::json(kGoodBody));

    const Outcome outcome = outcomeOf(server.url());

    QCOMPARE(outcome.reason, QString());
    QCOMPARE(outcome.info.latestVersion, u"1.2.0"_s);
}

void TestUpdateChecker::aCertificateThatDoesNotVerifyIsRefused_data()
{
    QTest::addColumn<QString>("altName");
    QTest::addColumn<bool>("isCurrent");
    QTest::addColumn<bool>("isTrusted");
    QTest::addColumn<QString>("said");
    QTest::newRow("signed by nobody we trust") << u"IP:127.0.0.1"_s << true << false << u"issuer"_s;
    QTest::newRow("of another host") << u"DNS:updates.example"_s << true << true << u"host name"_s;
    QTest::newRow("out of date") << u"IP:127.0.0.1"_s << false << true << u"expired"_s;
}

void TestUpdateChecker::aCertificateThatDoesNotVerifyIsRefused()
{
    QFETCH(const QString, altName);
    QFETCH(const bool, isCurrent);
    QFETCH(const bool, isTrusted);
    QFETCH(const QString, said);
    const QSslConfiguration tls = HttpTestServer::makeTls(altName, isCurrent);
    std::optional<Trust> trust;
    if (isTrusted)
        trust.emplace();
    HttpTestServer server(tls);
    server.setAnswer(HttpAnswer::json(kGoodBody));

    const Outcome outcome = outcomeOf(server.url(), true);

    QVERIFY2(isUnreachable(outcome.reason), qPrintable(outcome.reason));
    QVERIFY2(outcome.reason.contains(said), qPrintable(outcome.reason));
    QCOMPARE(outcome.signalCount, 1);
    QCOMPARE(server.requests().size(), 0); // nothing is said to a stranger
}

void TestUpdateChecker::aSlowBodyIsAwaited()
{
    HttpTestServer server;
    HttpAnswer answer = HttpAnswer::json(kGoodBody);
    answer.fragment = 1;
    server.setAnswer(answer);

    const Outcome outcome = outcomeOf(server.url());

    QCOMPARE(outcome.reason, QString());
    QCOMPARE(outcome.info.latestVersion, u"1.2.0"_s);
}

void TestUpdateChecker::anEndlessBodyHoldsNothingUp()
{
    HttpTestServer server;
    server.setAnswer(HttpAnswer::raw("HTTP/1.1 200 OK\r\n\r\n{\"latest_version\": \"1.2.0\", \"notes\": \"x",
                                     HttpAnswer::End::Endless));
    ObservedChecker checker;
    checker->check(server.url(), false);

    // The event loop runs, or the server would not get on.
    QTRY_VERIFY_WITH_TIMEOUT(server.sent() > kMuch, kPatienceMs);
    QVERIFY(checker->isBusy());
    QCOMPARE(checker.signalCount(), 0);

    server.hangUp();

    const Outcome outcome = checker.outcome();
    QVERIFY(!outcome.reason.isEmpty());
    QCOMPARE(outcome.signalCount, 1);
    QVERIFY(!checker->isBusy());
}

void TestUpdateChecker::aBigBody()
{
    HttpTestServer server;
    server.setAnswer(
        HttpAnswer::json(R"({"latest_version": "1.2.0", "notes": ")" + QByteArray(kBigBody, 'n') + "\"}"),
        "/notes");
    server.setAnswer(HttpAnswer::json(QByteArray(kBigBody, 'n')), "/rubbish");

    const Outcome outcome = outcomeOf(server.url(u"/notes"_s));
    QCOMPARE(outcome.reason, QString());
    QCOMPARE(outcome.info.notes.size(), kBigBody);

    QCOMPARE(outcomeOf(server.url(u"/rubbish"_s)).reason, kMalformed);
}

void TestUpdateChecker::aBodyThatUnpacksToFarMoreIsRefused()
{
    const QByteArray packed = qCompress(QByteArray(kBigBody, ' ') + kGoodBody).sliced(4);

    const Outcome outcome = outcomeOf(HttpAnswer::status(200, packed, "Content-Encoding: deflate\r\n"));

    QVERIFY2(isUnreachable(outcome.reason), qPrintable(outcome.reason));
}

void TestUpdateChecker::aSecondCheckMeanwhileIsDropped()
{
    const HttpAnswer whole = HttpAnswer::json(kGoodBody);
    HttpTestServer server;
    server.setAnswer(HttpAnswer::raw(whole.bytes.first(9), HttpAnswer::End::Silence));
    ObservedChecker checker;
    QVERIFY(!checker->isBusy());
    checker->check(server.url(), true);
    QVERIFY(checker->isBusy());

    checker->check(server.url(u"/second"_s), false);
    checker->check(QUrl(), false); // not even its address is looked at
    QTRY_COMPARE(server.requests().size(), 1);
    checker->check(server.url(u"/second"_s), false);
    QCOMPARE(checker.signalCount(), 0);
    server.say(whole.bytes.sliced(9));

    const Outcome outcome = checker.outcome();
    QCOMPARE(outcome.reason, QString());
    QVERIFY(outcome.manual);
    QTRY_COMPARE(checker->findChildren<QNetworkReply *>().size(), 0);
    QCOMPARE(checker.signalCount(), 1);
    QCOMPARE(server.requests().size(), 1);
    QVERIFY(server.requestLine().startsWith("GET /?"));
}

void TestUpdateChecker::theCheckerIsIdleBeforeTheOutcomeIsTold_data()
{
    QTest::addColumn<int>("status");
    QTest::newRow("success") << 200;
    QTest::newRow("failure") << 500;
}

void TestUpdateChecker::theCheckerIsIdleBeforeTheOutcomeIsTold()
{
    QFETCH(const int, status);
    HttpTestServer server;
    server.setAnswer(HttpAnswer::status(status, kGoodBody));
    server.setAnswer(HttpAnswer::json(R"({"latest_version": "3"})"), "/next");
    UpdateChecker checker;
    QList<bool> flags;
    QString lastVersion;
    const auto askAgain = [&](bool isManual) {
        flags += isManual;
        QVERIFY(!checker.isBusy());
        if (flags.size() == 1)
            checker.check(server.url(u"/next"_s), false);
    };
    connect(&checker, &UpdateChecker::finished, this, [&](const UpdateInfo &info, bool isManual) {
        lastVersion = info.latestVersion;
        askAgain(isManual);
    });
    connect(&checker, &UpdateChecker::failed, this,
            [&](const QString &, bool isManual) { askAgain(isManual); });

    checker.check(server.url(), true);

    QTRY_COMPARE_WITH_TIMEOUT(flags.size(), 2, kPatienceMs);
    QCOMPARE(flags, (QList<bool>{true, false}));
    QCOMPARE(lastVersion, u"3"_s);
}

void TestUpdateChecker::noCookieIsKept()
{
    HttpTestServer server;
    server.setAnswer(HttpAnswer::status(200, kGoodBody, "Set-Cookie: id=42; Max-Age=99999\r\n"));
    ObservedChecker checker;
    for (int round = 0; round < 2; ++round) {
        checker->check(server.url(), false);
        QTRY_COMPARE_WITH_TIMEOUT(checker.signalCount(), round + 1, kPatienceMs);
        QCOMPARE(server.header("Cookie", round), QByteArray());
    }
}

void TestUpdateChecker::aVersionOfAnyLengthIsBounded()
{
    const QByteArray endless(5000000, '1');
    const Outcome outcome = outcomeOf(HttpAnswer::json(R"({"latest_version": "2.)" + endless + "\"}"));
    QCOMPARE(outcome.info.latestVersion, u"2."_s + QString(998, u'1')); // it may be stored
}

void TestUpdateChecker::textsAreTranslated()
{
    MarkingTranslator translator("UpdateChecker");
    QCoreApplication::installTranslator(&translator);
    const auto remove = qScopeGuard([&translator] { QCoreApplication::removeTranslator(&translator); });
    QCOMPARE(outcomeOf(QUrl(u"x"_s)).reason, u"[The update endpoint 'x' is not a valid URL.]"_s);
    QCOMPARE(outcomeOf(HttpAnswer::status(503, {})).reason, u"[The update service returned HTTP 503.]"_s);
    QCOMPARE(outcomeOf(HttpAnswer::json("[]")).reason, u'[' + kMalformed + u']');
    QCOMPARE(outcomeOf(HttpAnswer::json("{}")).reason, u'[' + kNoVersion + u']');
    QVERIFY(outcomeOf(HttpAnswer::raw({})).reason.startsWith(u'[' + kUnreachable));
}

void TestUpdateChecker::checksFollowOneAnother()
{
    HttpTestServer server;
    server.setAnswer(HttpAnswer::json(kGoodBody));
    server.setAnswer(HttpAnswer::status(500, {}), "/broken");
    UpdateChecker checker;
    QSignalSpy finished(&checker, &UpdateChecker::finished);
    QSignalSpy failed(&checker, &UpdateChecker::failed);

    for (int round = 1; round <= 3; ++round) {
        checker.check(server.url(), false);
        QTRY_COMPARE_WITH_TIMEOUT(finished.size(), round, kPatienceMs);
        checker.check(server.url(u"/broken"_s), true);
        QTRY_COMPARE_WITH_TIMEOUT(failed.size(), round, kPatienceMs);
    }
    QCOMPARE(server.requests().size(), 6);
}

void TestUpdateChecker::aCheckerMayGoDuringACheck()
{
    HttpTestServer server;
    server.setAnswer(
        HttpAnswer::raw("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n{", HttpAnswer::End::Silence));
    ObservedChecker checker;
    checker->check(server.url(), true);
    QTRY_COMPARE(server.requests().size(), 1);

    checker.destroy();

    QTRY_COMPARE(server.connections(), 0);
    QCOMPARE(checker.signalCount(), 0);
}

void TestUpdateChecker::nothingIsLeftOfACheck()
{
    HttpTestServer server;
    server.setAnswer(HttpAnswer::json(kGoodBody));
    ObservedChecker checker;
    checker->check(server.url(), false);
    QCOMPARE(checker.outcome().reason, QString());
    QTRY_COMPARE(checker->findChildren<QNetworkReply *>().size(), 0);

    QVERIFY(QMetaObject::invokeMethod(checker.operator->(), "onReplyFinished")); // finds no reply
    QCOMPARE(checker.signalCount(), 1);
}

void TestUpdateChecker::versionsCompare_data()
{
    QTest::addColumn<QString>("a");
    QTest::addColumn<QString>("b");
    QTest::addColumn<int>("order");
    const auto row = [](const char *a, const char *b, int order) {
        QTest::addRow("'%s' and '%s'", a, b) << QString::fromLatin1(a) << QString::fromLatin1(b) << order;
    };
    row("", "", 0);
    row("2", "", 1);
    row("0", "", 0);
    row("1.2", "1.2.0", 0);
    row("1.2", "1.2.0.1", -1);
    row("1.10", "1.9", 1);
    row("1.2.0", "1.2.1", -1);
    row("2.0", "1.99.99", 1);
    row("1.2-rc1", "1.0", 0);
    row("1.2-rc1", "1.2", -1);
    row("v2", "1", -1);
    row("  1.2\t", "1.2", 0);
    row("1..2", "1.0.2", 0);
    row(".1", "0.1", 0);
    row("1.", "1", 0);
    row("...", "", 0);
    row("01.002", "1.2", 0);
    row("0x10", "0", 0);
    row("2147483647", "2147483646", 1);
    row("2147483648", "0", 0);
    row("99999999999999999999.1", "0.1", 0);
    row("1.2.3", "1.2.3<b>", 1);
    row("one", "two", 0);
}

void TestUpdateChecker::versionsCompare()
{
    QFETCH(const QString, a);
    QFETCH(const QString, b);
    QFETCH(const int, order);

    const auto sign = [](int number) { return number > 0 ? 1 : number < 0 ? -1 : 0; };
    QCOMPARE(sign(UpdateChecker::compareVersions(a, b)), order);
    QCOMPARE(sign(UpdateChecker::compareVersions(b, a)), -order);
}

void TestUpdateChecker::hugeVersionsCompare()
{
    constexpr qsizetype length = 10 << 20;
    const QString dots(length, u'.');
    QCOMPARE(UpdateChecker::compareVersions(dots + u'1', dots), 1);
    QCOMPARE(UpdateChecker::compareVersions(dots, QString()), 0);
    QCOMPARE(UpdateChecker::compareVersions(QString(length, u'9'), QString()), 0);
    QCOMPARE(UpdateChecker::compareVersions(QString(50, u'0') + u'1', u"0"_s), 1);
}

void TestUpdateChecker::thePlatform()
{
    const QHash<QString, QString> names{{u"winnt"_s, u"windows"_s}, {u"darwin"_s, u"macos"_s}};
    QCOMPARE(UpdateChecker::platformId(), names.value(QSysInfo::kernelType(), u"linux"_s));
}

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QGuiApplication application(argc, argv);
    TestUpdateChecker test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_UpdateChecker.moc"
