#include "app/JobTexts.h"

#include "model/SyncJob.h"

#include <QCoreApplication>
#include <QScopeGuard>
#include <QTest>
#include <QTranslator>

#include <limits>

using namespace Qt::StringLiterals;

namespace {

/** Puts every text of the main window in angle brackets, so that it shows which ones are translated. */
class WindowTranslator : public QTranslator
{
public:
    bool isEmpty() const override { return false; }

    QString translate(const char *context, const char *sourceText, const char * /*remark*/,
                      int /*n*/) const override
    {
        if (qstrcmp(context, "MainWindow") != 0)
            return {};
        return u'<' + QString::fromUtf8(sourceText) + u'>';
    }
};

QDateTime wednesday() { return QDateTime(QDate(2024, 5, 1), QTime(8, 3, 7)); }

} // namespace

class TestJobTexts : public QObject
{
    Q_OBJECT

private slots:
    void bytes_data();
    void bytes();
    void aSummaryNamesEveryFigure_data();
    void aSummaryNamesEveryFigure();
    void nextRuns_data();
    void nextRuns();
    void lastResults_data();
    void lastResults();
    void logLines_data();
    void logLines();
    void onlyWordsAreTranslated();
};

void TestJobTexts::bytes_data()
{
    QTest::addColumn<qint64>("bytes");
    QTest::addColumn<QString>("text");
    const auto row = [](const char *what, qint64 bytes, const QString &text) {
        QTest::newRow(what) << bytes << text;
    };
    row("none", 0, u"0 B"_s);
    row("one", 1, u"1 B"_s);
    row("last of bytes", 1023, u"1023 B"_s);
    row("first kilobyte", 1024, u"1.0 KB"_s);
    row("half a kilobyte more", 1536, u"1.5 KB"_s);
    row("one decimal, rounded down", 1024 + 51, u"1.0 KB"_s);
    row("one decimal, rounded up", 1024 + 52, u"1.1 KB"_s);
    row("no step for what rounds to one", 1048575, u"1024.0 KB"_s);
    row("first megabyte", 1048576, u"1.0 MB"_s);
    row("one and a half", 1572864, u"1.5 MB"_s);
    row("a gigabyte in megabytes", qint64(1024) * 1048576, u"1024.0 MB"_s);
    row("no unit above", qint64(5) * 1024 * 1048576, u"5120.0 MB"_s);
    row("the most", std::numeric_limits<qint64>::max(), u"8796093022208.0 MB"_s);
    row("less than none", -5, u"-5 B"_s);
}

void TestJobTexts::bytes()
{
    QFETCH(const qint64, bytes);
    QTEST(byteText(bytes), "text");
}

void TestJobTexts::aSummaryNamesEveryFigure_data()
{
    QTest::addColumn<MirrorResult>("result");
    QTest::addColumn<QString>("text");
    QTest::newRow("nothing happened") << MirrorResult() << u"0 NEW · 0 SAME · 0 DEL · 0 FAIL · 0 B"_s;
    QTest::newRow("each its own")
        << MirrorResult{.downloaded = 1, .upToDate = 22, .deleted = 333, .failed = 4444, .bytes = 2048}
        << u"1 NEW · 22 SAME · 333 DEL · 4444 FAIL · 2.0 KB"_s;
    QTest::newRow("no separator of thousands") << MirrorResult{.downloaded = 1234567, .bytes = 1048576}
                                               << u"1234567 NEW · 0 SAME · 0 DEL · 0 FAIL · 1.0 MB"_s;
    QTest::newRow("says nothing of how it ended")
        << MirrorResult{.success = false, .cancelled = true, .failed = 1, .message = u"Stopped"_s}
        << u"0 NEW · 0 SAME · 0 DEL · 1 FAIL · 0 B"_s;
}

void TestJobTexts::aSummaryNamesEveryFigure()
{
    QFETCH(const MirrorResult, result);
    QTEST(runSummary(result), "text");
}

void TestJobTexts::nextRuns_data()
{
    QTest::addColumn<SyncJob>("job");
    QTest::addColumn<bool>("autoOn");
    QTest::addColumn<QString>("text");
    const QDateTime when = wednesday();
    const auto row = [](const char *what, const SyncJob &job, bool autoOn, const QString &text) {
        QTest::newRow(what) << job << autoOn << text;
    };
    row("by hand", {}, false, u"manual"_s);
    row("AUTO off", {.nextRun = when}, false, u"manual"_s);
    row("AUTO on, nothing pending", {}, true, u"manual"_s);
    row("AUTO on", {.nextRun = when}, true, u"Wed 08:03:07"_s);
    row("disabled", {.enabled = false}, false, u"disabled"_s);
    row("disabled, AUTO on", {.enabled = false, .nextRun = when}, true, u"disabled"_s);
    row("queued", {.queued = true}, false, u"queued"_s);
    row("queued before scheduled", {.nextRun = when, .queued = true}, true, u"queued"_s);
    row("queued before disabled", {.enabled = false, .queued = true}, false, u"queued"_s);
    row("running", {.running = true}, false, u"running..."_s);
    row("running before scheduled", {.nextRun = when, .running = true}, true, u"running..."_s);
    row("running before disabled", {.enabled = false, .running = true}, true, u"running..."_s);
    row("running before queued", {.queued = true, .running = true}, false, u"running..."_s);
    row("never in another language", {.nextRun = QDateTime(QDate(2024, 5, 5), QTime(23, 59, 59, 999))}, true,
        u"Sun 23:59:59"_s);
}

void TestJobTexts::nextRuns()
{
    QFETCH(const SyncJob, job);
    QFETCH(const bool, autoOn);
    QTEST(nextRunText(job, autoOn), "text");
}

void TestJobTexts::lastResults_data()
{
    QTest::addColumn<SyncJob>("job");
    QTest::addColumn<QString>("text");
    const auto row = [](const char *what, const SyncJob &job, const QString &text) {
        QTest::newRow(what) << job << text;
    };
    row("never ran", {}, u"never run"_s);
    row("never ran, whatever is noted", {.lastSummary = u"left over"_s, .lastOk = false}, u"never run"_s);
    row("ran well", {.lastRun = wednesday(), .lastSummary = u"all"_s}, u"08:03  all"_s);
    row("ran badly", {.lastRun = wednesday(), .lastSummary = u"all"_s, .lastOk = false}, u"08:03  all"_s);
    row("without a summary", {.lastRun = wednesday()}, u"08:03  "_s);
    row("a week ago reads like today",
        {.lastRun = QDateTime(QDate(2024, 4, 24), QTime(23, 59, 59)), .lastSummary = u"all"_s},
        u"23:59  all"_s);
    row("placeholders in the summary", {.lastRun = wednesday(), .lastSummary = u"%1 and %2"_s},
        u"08:03  %1 and %2"_s);
}

void TestJobTexts::lastResults()
{
    QFETCH(const SyncJob, job);
    QTEST(lastResultText(job), "text");
}

void TestJobTexts::logLines_data()
{
    QTest::addColumn<QString>("message");
    QTest::addColumn<int>("level");
    QTest::addColumn<QString>("colour");
    QTest::addColumn<QString>("escaped");
    const auto row = [](const char *what, const QString &message, int level, const QString &colour,
                        const QString &escaped) {
        QTest::newRow(what) << message << level << colour << escaped;
    };
    const QString hello = u"hello"_s;
    row("information", hello, 0, u"#56f0e2"_s, hello);
    row("warning", hello, 1, u"#cc9235"_s, hello);
    row("error", hello, 2, u"#e54838"_s, hello);
    row("protocol", hello, 3, u"#2e8f86"_s, hello);
    row("below", hello, -1, u"#56f0e2"_s, hello);
    row("far below", hello, std::numeric_limits<int>::min(), u"#56f0e2"_s, hello);
    row("above", hello, 4, u"#2e8f86"_s, hello);
    row("far above", hello, 7, u"#2e8f86"_s, hello);
    row("a tag", u"<b>"_s, 0, u"#56f0e2"_s, u"&lt;b&gt;"_s);
    row("an ampersand", u"a & b"_s, 0, u"#56f0e2"_s, u"a &amp; b"_s);
    row("an escaped tag", u"&lt;b&gt;"_s, 0, u"#56f0e2"_s, u"&amp;lt;b&amp;gt;"_s);
    row("quotes stay", u"\"a\" and 'b'"_s, 0, u"#56f0e2"_s, u"\"a\" and 'b'"_s);
    row("placeholders", u"%1 %2 %3 %99"_s, 0, u"#56f0e2"_s, u"%1 %2 %3 %99"_s);
    row("empty", u""_s, 0, u"#56f0e2"_s, u""_s);
}

void TestJobTexts::logLines()
{
    QFETCH(const QString, message);
    QFETCH(const int, level);
    QFETCH(const QString, colour);
    QFETCH(const QString, escaped);
    QCOMPARE(logLineHtml(wednesday(), message, level),
             u"<span style='color:#2e8f86;'>[2024-05-01 08:03:07]</span> <span style='color:"_s + colour +
                 u";'>"_s + escaped + u"</span>"_s);
}

void TestJobTexts::onlyWordsAreTranslated()
{
    WindowTranslator translator;
    QVERIFY(QCoreApplication::installTranslator(&translator));
    const auto remove = qScopeGuard([&translator] { QCoreApplication::removeTranslator(&translator); });

    QCOMPARE(runSummary({.downloaded = 1, .bytes = 1024}), u"<1 NEW · 0 SAME · 0 DEL · 0 FAIL · 1.0 KB>"_s);
    QCOMPARE(byteText(1), u"1 B"_s);
    QCOMPARE(byteText(1048576), u"1.0 MB"_s);
    QCOMPARE(nextRunText({}, false), u"<manual>"_s);
    QCOMPARE(nextRunText({.running = true}, false), u"<running...>"_s);
    QCOMPARE(nextRunText({.queued = true}, false), u"<queued>"_s);
    QCOMPARE(nextRunText({.enabled = false}, false), u"<disabled>"_s);
    QCOMPARE(nextRunText({.nextRun = wednesday()}, true), u"Wed 08:03:07"_s);
    QCOMPARE(lastResultText({}), u"<never run>"_s);
    QCOMPARE(lastResultText({.lastRun = wednesday(), .lastSummary = u"all"_s}), u"08:03  all"_s);
}

QTEST_GUILESS_MAIN(TestJobTexts)
#include "tst_JobTexts.moc"
