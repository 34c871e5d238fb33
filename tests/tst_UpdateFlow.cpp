#include "support/DialogVisit.h"
#include "support/HttpTestServer.h"
#include "support/MarkingTranslator.h"
#include "support/MessageBoxAnswer.h"
#include "support/TestSettings.h"
#include "support/TestWindow.h"
#include "update/UpdateChecker.h"

#include <QApplication>
#include <QInputDialog>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <optional>

using namespace Qt::StringLiterals;

namespace {

constexpr int kPatienceMs = 20000; // only a test that fails waits for so long
const QString kHelp = u"&Help"_s;
const QString kOffer = u"Update available"_s;
const QString kEndpointBox = u"Update endpoint"_s;
const QString kInformation = u"#56f0e2"_s;
const QString kWarning = u"#cc9235"_s;
const QString kError = u"#e54838"_s;
const QString kDim = u"#2e8f86"_s;

/** A window with an empty log. */
class UpdateWindow : public TestWindow
{
public:
    UpdateWindow() { clearLog(); }

    void check() const { choose(kHelp, u"Check for &Updates..."_s); }

    void find(const UpdateInfo &info, bool manual)
    {
        if (!QMetaObject::invokeMethod(this, "onUpdateFound", Qt::DirectConnection, Q_ARG(UpdateInfo, info),
                                       Q_ARG(bool, manual)))
            qFatal("the window takes no update");
    }

    void fail(const QString &reason, bool manual)
    {
        if (!QMetaObject::invokeMethod(this, "onUpdateFailed", Qt::DirectConnection, Q_ARG(QString, reason),
                                       Q_ARG(bool, manual)))
            qFatal("the window takes no failure");
    }

    QString lastLine() const { return log().isEmpty() ? QString() : log().last(); }
    QString lastColour() const { return logLines().isEmpty() ? QString() : logLines().last().colour; }
};

UpdateInfo offer(const QString &version, bool isCritical = false)
{
    UpdateInfo info;
    info.latestVersion = version;
    info.critical = isCritical;
    return info;
}

void store(const AppSettings &settings) { settings.save(); }

/** Settings under which nothing is asked by itself. */
AppSettings quiet()
{
    AppSettings settings;
    settings.checkForUpdates = false;
    return settings;
}

bool isNow(const QDateTime &when) { return qAbs(when.secsTo(QDateTime::currentDateTime())) < 60; }

} // namespace

class TestUpdateFlow : public QObject
{
    Q_OBJECT

public:
    explicit TestUpdateFlow(const TestSettings &settings) : settingsFile(settings) {}

private slots:
    void init() const;

    void whoAsksByItself();
    void oneAskedMeanwhileIsNotAskedAgain();
    void askedByHandItAlwaysAsks();
    void aSecondCheckIsNotMade();
    void anAddressOfBlanksIsTheBuiltInOne();

    void nothingNewer_data();
    void nothingNewer();
    void theRunningVersionIsTheApplications();
    void whatIsOffered_data();
    void whatIsOffered();
    void whatIsChosen_data();
    void whatIsChosen();
    void theProgramGoesOnBehindTheOffer();
    void aStrangersVersionIsOneLine();

    void aCheckThatFails_data();
    void aCheckThatFails();
    void aCheckThatFailsByHandIsTold();
    void aServerThatAnswersBadlyIsTold();

    void theEndpointIsAskedFor();
    void theEndpointIsStored_data();
    void theEndpointIsStored();
    void theEndpointHasNoEntry();

    void theAboutBoxComes();
    void textsAreTranslated();

private:
    const TestSettings &settingsFile;
};

void TestUpdateFlow::init() const
{
    settingsFile.clear();
    store(quiet());
}

void TestUpdateFlow::whoAsksByItself()
{
    HttpTestServer server;
    server.setAnswer(HttpAnswer::json(R"({"latest_version":"0.9"})"));
    const QDateTime now = QDateTime::currentDateTime();
    const struct
    {
        QString name;
        bool checks;
        QDateTime last;
        bool asks;
    } cases[] = {
        {u"off"_s, false, {}, false},
        {u"19 hours ago"_s, true, now.addSecs(-19 * 3600), false},
        {u"just below 20 hours ago"_s, true, now.addSecs(-72000 + 60), false},
        {u"in the future"_s, true, now.addSecs(3600), false},
        {u"far in the future"_s, true, now.addYears(10), false},
        {u"never"_s, true, {}, true},
        {u"20 hours ago"_s, true, now.addSecs(-72000), true},
        {u"a year ago"_s, true, now.addYears(-1), true},
    };
    for (const auto &one : cases) {
        AppSettings settings;
        settings.checkForUpdates = one.checks;
        settings.lastUpdateCheck = one.last;
        settings.updateEndpoint = server.url(u"/check"_s).toString();
        store(settings);
        const UpdateWindow window;
        auto *timer = window.findChild<QTimer *>(u"updateTimer"_s);
        QCOMPARE(timer != nullptr, one.asks);
        if (!timer)
            continue;
        QVERIFY2(timer->isActive() && timer->isSingleShot(), qPrintable(one.name));
        QCOMPARE(timer->interval(), 4000);
        timer->start(0); // as if they were over
        QTRY_COMPARE_WITH_TIMEOUT(window.log(), QStringList{u"Up to date (running 1.0.0, latest 0.9)."_s},
                                  kPatienceMs);
    }
    QCOMPARE(server.requests().size(), 3);
    QVERIFY(isNow(TestJobs::stored().lastUpdateCheck));
}

void TestUpdateFlow::oneAskedMeanwhileIsNotAskedAgain()
{
    HttpTestServer server;
    server.setAnswer(HttpAnswer::raw("HTTP/1.1 200 OK\r\n", HttpAnswer::End::Silence));
    AppSettings settings;
    settings.updateEndpoint = server.url().toString();
    store(settings);
    const UpdateWindow window;
    window.check();
    QTRY_COMPARE_WITH_TIMEOUT(server.requests().size(), 1, kPatienceMs);
    auto *timer = window.findChild<QTimer *>(u"updateTimer"_s);
    QSignalSpy due(timer, &QTimer::timeout);
    timer->start(0);
    QTRY_COMPARE_WITH_TIMEOUT(due.size(), 1, kPatienceMs);
    QCOMPARE(window.log(), QStringList{u"Checking for updates..."_s});
    const MessageBoxAnswer ok(u"OK"_s);
    server.say("Content-Length: 2\r\n\r\n{}");
    QTRY_VERIFY_WITH_TIMEOUT(ok.hasCome(), kPatienceMs);
    QTRY_COMPARE(window.log().size(), 2);
    QCOMPARE(server.requests().size(), 1);
}

void TestUpdateFlow::askedByHandItAlwaysAsks()
{
    HttpTestServer server;
    server.setAnswer(HttpAnswer::json(R"({"latest_version":"1.0"})"));
    AppSettings settings = quiet();
    settings.lastUpdateCheck = QDateTime::currentDateTime().addSecs(-60);
    settings.updateEndpoint = u"  "_s + server.url().toString() + u"\n"_s;
    store(settings);
    const UpdateWindow window;
    const MessageBoxAnswer ok(u"OK"_s);
    window.check();
    QCOMPARE(window.log(), QStringList{u"Checking for updates..."_s});
    QCOMPARE(window.lastColour(), kInformation);
    QTRY_VERIFY_WITH_TIMEOUT(ok.hasCome(), kPatienceMs);
    QCOMPARE(server.requests().size(), 1);
    QTRY_COMPARE(ok.text(), u"You are running the latest version (1.0.0)."_s);
}

void TestUpdateFlow::aSecondCheckIsNotMade()
{
    HttpTestServer server;
    server.setAnswer(HttpAnswer::raw("HTTP/1.1 200 OK\r\n", HttpAnswer::End::Silence));
    AppSettings settings = quiet();
    settings.updateEndpoint = server.url().toString();
    store(settings);
    const UpdateWindow window;
    window.check();
    QTRY_COMPARE_WITH_TIMEOUT(server.requests().size(), 1, kPatienceMs);
    window.check();
    QCOMPARE(window.log(),
             QStringList({u"Checking for updates..."_s, u"An update check is already running."_s}));
    QCOMPARE(window.lastColour(), kWarning);
    const MessageBoxAnswer ok(u"OK"_s);
    server.say("Content-Length: 2\r\n\r\n{}");
    QTRY_VERIFY_WITH_TIMEOUT(ok.hasCome(), kPatienceMs);
    QCOMPARE(server.requests().size(), 1);
    QTRY_COMPARE(window.log().size(), 3);
}

void TestUpdateFlow::anAddressOfBlanksIsTheBuiltInOne()
{
    AppSettings settings = quiet();
    settings.updateEndpoint = u"  "_s;
    store(settings);
    UpdateWindow window;
    QString shown;
    const DialogVisit visit(kEndpointBox, [&shown](QDialog *dialog) {
        shown = qobject_cast<QInputDialog *>(dialog)->textValue();
        dialog->reject();
    });
    window.invoke("onUpdateEndpoint");
    const DialogVisit again(kEndpointBox, [](QDialog *dialog) {
        dialog->findChild<QLineEdit *>()->setText(u" "_s);
        dialog->accept();
    });
    window.invoke("onUpdateEndpoint");
    QCOMPARE(window.log(), QStringList{u"Update endpoint set to %1."_s.arg(shown)});
    QVERIFY2(shown.startsWith(u"https://"_s) && shown.endsWith(u"/api/latest.json"_s), qPrintable(shown));
}

void TestUpdateFlow::nothingNewer_data()
{
    QTest::addColumn<QString>("version");
    QTest::addColumn<bool>("manual");
    for (const bool manual : {false, true}) {
        const char *who = manual ? "by hand" : "by itself";
        QTest::addRow("the same, %s", who) << u"1.0.0"_s << manual;
        QTest::addRow("the same, shorter, %s", who) << u"1"_s << manual;
        QTest::addRow("older, %s", who) << u"0.9.9"_s << manual;
        QTest::addRow("percent signs, %s", who) << u"%1 %2"_s << manual;
    }
}

void TestUpdateFlow::nothingNewer()
{
    QFETCH(const QString, version);
    QFETCH(const bool, manual);
    UpdateWindow window;
    std::optional<MessageBoxAnswer> ok;
    if (manual)
        ok.emplace(u"OK"_s);
    window.find(offer(version, true), manual);
    QCOMPARE(window.log(), QStringList{u"Up to date (running 1.0.0, latest "_s + version + u")."_s});
    QCOMPARE(window.lastColour(), kInformation);
    QVERIFY(isNow(TestJobs::stored().lastUpdateCheck));
    if (manual) {
        QCOMPARE(ok->title(), u"Kelpwharf"_s);
        QCOMPARE(ok->text(), u"You are running the latest version (1.0.0)."_s);
        QCOMPARE(ok->icon(), QMessageBox::Information);
    }
}

void TestUpdateFlow::theRunningVersionIsTheApplications()
{
    QCoreApplication::setApplicationVersion(u"2.5"_s);
    const auto putBack = qScopeGuard([] { QCoreApplication::setApplicationVersion(u"1.0.0"_s); });
    UpdateWindow window;
    window.find(offer(u"2.4"_s), false);
    QCOMPARE(window.log(), QStringList{u"Up to date (running 2.5, latest 2.4)."_s});
}

void TestUpdateFlow::whatIsOffered_data()
{
    QTest::addColumn<QString>("skipped");
    QTest::addColumn<QString>("version");
    QTest::addColumn<bool>("isCritical");
    QTest::addColumn<bool>("manual");
    QTest::addColumn<bool>("isShown");
    const auto row = [](const char *what, const QString &skipped, const QString &version, bool isShown,
                        bool isCritical = false, bool manual = false) {
        QTest::newRow(what) << skipped << version << isCritical << manual << isShown;
    };
    row("nothing skipped", {}, u"1.2.0"_s, true);
    row("the skipped one", u"1.2.0"_s, u"1.2.0"_s, false);
    row("the skipped one in other digits", u"1.2"_s, u"1.2.0"_s, false);
    row("below the skipped one", u"1.2.0"_s, u"1.1.9"_s, false);
    row("above the skipped one", u"1.2.0"_s, u"1.2.1"_s, true);
    row("the skipped one, by hand", u"1.2.0"_s, u"1.2.0"_s, true, false, true);
    row("the skipped one, critical", u"1.2.0"_s, u"1.2.0"_s, true, true);
    row("critical", {}, u"1.2.0"_s, true, true);
    row("critical, by hand", u"1.2.0"_s, u"1.1.0"_s, true, true, true);
}

void TestUpdateFlow::whatIsOffered()
{
    QFETCH(const QString, skipped);
    QFETCH(const QString, version);
    QFETCH(const bool, isCritical);
    QFETCH(const bool, manual);
    QFETCH(const bool, isShown);
    AppSettings settings = quiet();
    settings.skippedVersion = skipped;
    store(settings);
    UpdateWindow window;
    if (!isShown) {
        window.find(offer(version, isCritical), manual);
        QCOMPARE(window.log(), QStringList{u"Version %1 is available but was skipped."_s.arg(version)});
        QCOMPARE(window.lastColour(), kDim); // shown also without the protocol
        QVERIFY(!TestJobs::stored().verbose);
    } else {
        QStringList buttons;
        QString line;
        const DialogVisit visit(kOffer, [&](QDialog *dialog) {
            QVERIFY(dialog->isModal());
            QCOMPARE(dialog->parentWidget(), &window);
            QVERIFY(isNow(TestJobs::stored().lastUpdateCheck)); // noted before anybody answers
            line = window.lastLine();
            QStringList texts;
            for (const auto *label : dialog->findChildren<QLabel *>())
                texts += label->text();
            QVERIFY2(texts.contains(u"Version %1  (you have 1.0.0)"_s.arg(version)),
                     qPrintable(texts.join(u'|')));
            for (const auto *button : dialog->findChildren<QPushButton *>())
                buttons += button->text();
            QTest::keyClick(dialog, Qt::Key_Escape);
        });
        window.find(offer(version, isCritical), manual);
        QCOMPARE(line, u"Version %1 is available."_s.arg(version));
        QCOMPARE(window.log(), QStringList{line}); // nothing follows from Escape
        QCOMPARE(window.lastColour(), isCritical ? kWarning : kInformation);
        QCOMPARE(buttons.contains(u"Skip This Version"_s), !isCritical);
    }
    QCOMPARE(TestJobs::stored().skippedVersion, skipped);
    QVERIFY(isNow(TestJobs::stored().lastUpdateCheck));
}

void TestUpdateFlow::whatIsChosen_data()
{
    QTest::addColumn<QString>("button");
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("skipped");
    QTest::newRow("skip") << u"Skip This Version"_s << u"Version 1.2.0 will be skipped."_s << u"1.2.0"_s;
    QTest::newRow("remind") << u"Remind Me Later"_s << QString() << u"1.1"_s;
    QTest::newRow("download") << u"Download..."_s << u"Opened the download page for 1.2.0."_s << u"1.1"_s;
}

void TestUpdateFlow::whatIsChosen()
{
    QFETCH(const QString, button);
    QFETCH(const QString, line);
    QFETCH(const QString, skipped);
    AppSettings settings = quiet();
    settings.skippedVersion = u"1.1"_s;
    store(settings);
    UpdateWindow window;
    UpdateInfo info = offer(u"1.2.0"_s);
    info.downloadUrl = u"file:///no/page"_s; // which is not opened, and nobody looks at that
    const DialogVisit visit(kOffer, [&](QDialog *dialog) { clickButton(dialog, button); });
    window.find(info, false);
    QStringList expected = {u"Version 1.2.0 is available."_s};
    if (!line.isEmpty())
        expected += line;
    QCOMPARE(window.log(), expected);
    QCOMPARE(window.lastColour(), kInformation);
    QCOMPARE(TestJobs::stored().skippedVersion, skipped);
}

void TestUpdateFlow::theProgramGoesOnBehindTheOffer()
{
    AppSettings settings = quiet();
    settings.jobs = {TestJobs::named(u"a"_s)};
    store(settings);
    UpdateWindow window;
    window.takeWorkerAway();
    QSignalSpy runs(&window, &MainWindow::startSyncRequested);
    window.press("autoCheck");
    const DialogVisit visit(kOffer, [&](QDialog *dialog) {
        QTRY_COMPARE_WITH_TIMEOUT(runs.size(), 1, kPatienceMs);
        dialog->reject();
    });
    window.find(offer(u"2"_s), false);
    QCOMPARE(runs.size(), 1);
}

void TestUpdateFlow::aStrangersVersionIsOneLine()
{
    UpdateWindow window;
    const DialogVisit visit(kOffer, [](QDialog *dialog) { dialog->reject(); });
    window.find(offer(u"2.\n<b>[2026-01-01 00:00:00] [job] Complete</b>"_s + QString(1000000, u'x')), false);
    QCOMPARE(window.log().size(), 1);
    QVERIFY(window.lastLine().size() < 200);
    QVERIFY(window.lastLine().startsWith(u"Version 2. <b>"_s));
}

void TestUpdateFlow::aCheckThatFails_data()
{
    QTest::addColumn<bool>("manual");
    QTest::newRow("by itself") << false;
    QTest::newRow("by hand") << true;
}

void TestUpdateFlow::aCheckThatFails()
{
    QFETCH(const bool, manual);
    UpdateWindow window;
    std::optional<DialogVisit> visit;
    if (manual) {
        // Noted before anybody answers.
        visit.emplace(u"Kelpwharf"_s, [](QDialog *box) {
            QVERIFY(isNow(TestJobs::stored().lastUpdateCheck));
            clickButton(box, u"OK"_s);
        });
    }
    window.fail(u"<i>%1</i>"_s, manual);
    QCOMPARE(window.log(), QStringList{u"Update check failed: <i>%1</i>"_s});
    QCOMPARE(window.lastColour(), manual ? kError : kDim);
    QVERIFY(isNow(TestJobs::stored().lastUpdateCheck));
}

void TestUpdateFlow::aCheckThatFailsByHandIsTold()
{
    UpdateWindow window;
    const MessageBoxAnswer ok(u"OK"_s);
    window.fail(u"<i>%1</i>"_s, true);
    QCOMPARE(ok.title(), u"Kelpwharf"_s);
    QCOMPARE(ok.text(), u"Could not check for updates.\n\n<i>%1</i>"_s);
    QCOMPARE(ok.icon(), QMessageBox::Warning);
}

void TestUpdateFlow::aServerThatAnswersBadlyIsTold()
{
    HttpTestServer server;
    server.setAnswer(HttpAnswer::status(503, "later"));
    AppSettings settings = quiet();
    settings.updateEndpoint = server.url().toString();
    store(settings);
    const UpdateWindow window;
    const MessageBoxAnswer ok(u"OK"_s);
    window.check();
    QTRY_COMPARE_WITH_TIMEOUT(
        ok.text(), u"Could not check for updates.\n\nThe update service returned HTTP 503."_s, kPatienceMs);
    QCOMPARE(window.lastLine(), u"Update check failed: The update service returned HTTP 503."_s);
}

void TestUpdateFlow::theEndpointIsAskedFor()
{
    AppSettings settings = quiet();
    settings.updateEndpoint = u" http://127.0.0.1:9/own "_s;
    store(settings);
    UpdateWindow window;
    QString label;
    QString value;
    const DialogVisit visit(kEndpointBox, [&](QDialog *dialog) {
        const auto *box = qobject_cast<QInputDialog *>(dialog);
        label = box->labelText();
        value = box->textValue();
        QCOMPARE(box->textEchoMode(), QLineEdit::Normal);
        box->findChild<QLineEdit *>()->setText(u"http://other"_s);
        dialog->reject();
    });
    window.invoke("onUpdateEndpoint");
    QCOMPARE(label, u"Where Kelpwharf checks for updates.\nLeave blank to restore the default."_s);
    QCOMPARE(value, u"http://127.0.0.1:9/own"_s);
    QCOMPARE(window.log(), QStringList());
    QCOMPARE(TestJobs::stored().updateEndpoint, settings.updateEndpoint);
}

void TestUpdateFlow::theEndpointIsStored_data()
{
    QTest::addColumn<QString>("typed"); // null: what stood there
    QTest::addColumn<QString>("stored");
    QTest::newRow("another") << u"  http://127.0.0.1:9/x?y=z "_s << u"http://127.0.0.1:9/x?y=z"_s;
    QTest::newRow("blank") << u"   "_s << u""_s;
    QTest::newRow("empty") << u""_s << u""_s;
    QTest::newRow("the default") << QString() << u""_s;
}

void TestUpdateFlow::theEndpointIsStored()
{
    QFETCH(const QString, typed);
    QFETCH(const QString, stored);
    UpdateWindow window;
    QString builtIn;
    const DialogVisit visit(kEndpointBox, [&](QDialog *dialog) {
        auto *edit = dialog->findChild<QLineEdit *>();
        builtIn = edit->text();
        if (!typed.isNull())
            edit->setText(typed);
        QTest::keyClick(edit, Qt::Key_Return);
    });
    window.invoke("onUpdateEndpoint");
    QCOMPARE(TestJobs::stored().updateEndpoint, stored);
    QCOMPARE(window.log(),
             QStringList{u"Update endpoint set to %1."_s.arg(stored.isEmpty() ? builtIn : stored)});
    QCOMPARE(window.lastColour(), kInformation);
}

void TestUpdateFlow::theEndpointHasNoEntry()
{
    const UpdateWindow window;
    for (const QString &menu : window.menuTitles()) {
        for (const QAction *entry : window.entries(menu))
            QVERIFY2(!entry->text().contains(u"ndpoint"_s), qPrintable(entry->text()));
    }
}

void TestUpdateFlow::theAboutBoxComes()
{
    const UpdateWindow window;
    const QWidget *parent = nullptr;
    const DialogVisit visit(u"About Kelpwharf"_s, [&parent](QDialog *dialog) {
        parent = dialog->parentWidget();
        QVERIFY(dialog->isModal());
        clickButton(dialog, u"OK"_s);
    });
    window.choose(kHelp, u"&About Kelpwharf"_s);
    QCOMPARE(parent, &window);
}

void TestUpdateFlow::textsAreTranslated()
{
    MarkingTranslator translator("MainWindow");
    QCoreApplication::installTranslator(&translator);
    const auto remove = qScopeGuard([&translator] { QCoreApplication::removeTranslator(&translator); });
    AppSettings settings = quiet();
    settings.skippedVersion = u"2"_s;
    settings.updateEndpoint = u"no scheme"_s;
    store(settings);
    UpdateWindow window;
    {
        const MessageBoxAnswer ok(u"OK"_s);
        window.find(offer(u"1"_s), true);
        QCOMPARE(ok.text(), u"[You are running the latest version (1.0.0).]"_s);
    }
    window.find(offer(u"2"_s), false);
    const DialogVisit download(kOffer, [](QDialog *dialog) { clickButton(dialog, u"Download..."_s); });
    UpdateInfo info = offer(u"3"_s);
    info.downloadUrl = u"x"_s;
    window.find(info, false);
    const DialogVisit skip(kOffer, [](QDialog *dialog) { clickButton(dialog, u"Skip This Version"_s); });
    window.find(offer(u"3"_s), true);
    {
        const MessageBoxAnswer ok(u"OK"_s);
        window.invoke("onCheckForUpdates");
        QVERIFY2(ok.text().startsWith(u"[Could not check for updates."_s), qPrintable(ok.text()));
    }
    const DialogVisit endpoint(u"[Update endpoint]"_s, [](QDialog *dialog) {
        QCOMPARE(qobject_cast<QInputDialog *>(dialog)->labelText(),
                 u"[Where Kelpwharf checks for updates.\nLeave blank to restore the default.]"_s);
        dialog->accept();
    });
    window.invoke("onUpdateEndpoint");
    const QString failure = u"The update endpoint 'no scheme' is not a valid URL."_s;
    QCOMPARE(window.log(),
             QStringList({u"[Up to date (running 1.0.0, latest 1).]"_s,
                          u"[Version 2 is available but was skipped.]"_s, u"[Version 3 is available.]"_s,
                          u"[Opened the download page for 3.]"_s, u"[Version 3 is available.]"_s,
                          u"[Version 3 will be skipped.]"_s, u"[Checking for updates...]"_s,
                          u"[Update check failed: "_s + failure + u']',
                          u"[Update endpoint set to no scheme.]"_s}));
}

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    TestWindow::setIdentity();
    TestUpdateFlow test(settings);
    return QTest::qExec(&test, argc, argv);
}

#include "tst_UpdateFlow.moc"
