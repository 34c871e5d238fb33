#include "panel/VfdPanel.h"

#include "support/PanelPicture.h"
#include "support/StillClock.h"
#include "support/TestSettings.h"

#include <QApplication>
#include <QDir>
#include <QPainter>
#include <QTest>
#include <QTimer>
#include <QTimerEvent>

using namespace Qt::StringLiterals;

namespace {

/** Where changed pictures go, with one of the difference beside each; without it none are written. */
constexpr char kRenewInto[] = "KELPWHARF_RENEW_PICTURES";

/** Set where the pictures must be compared: a machine that paints differently then fails. */
constexpr char kRequire[] = "KELPWHARF_REQUIRE_PICTURES";

using Feed = void (*)(VfdPanel &);

QDateTime at(int hour, int minute, int second = 0)
{
    return QDateTime(QDate(2026, 3, 18), QTime(hour, minute, second));
}

void goIdle(VfdPanel &panel)
{
    panel.setJobName(u"Nightly archive"_s);
    panel.setHost(u"ftp.example.org"_s);
    panel.setLastRun(at(9, 30, 12), u"12 new · 340 same · 0 del · 0 fail · 48.2 MB"_s);
    panel.setLink(VfdPanel::Offline, u"Idle"_s);
}

void countDown(VfdPanel &panel)
{
    goIdle(panel);
    panel.setMode(VfdPanel::Auto);
    panel.setNextRun(at(17, 5));
    for (const QDateTime &mark : {at(2, 0), at(2, 31), at(6, 10), at(9, 30)})
        panel.addActivityMark(mark);
}

void run(VfdPanel &panel)
{
    countDown(panel);
    StillClock::set(at(14, 28, 23));
    panel.setRunning(true);
    StillClock::set(at(14, 40));
    panel.setLink(VfdPanel::Transferring, u"Transferring"_s);
    panel.setCurrentFile(u"/archive/2026/03/recording-0317.flac"_s);
    panel.setFileProgress(0.58);
    panel.setRate(1.9 * 1048576.0);
}

void blink(VfdPanel &panel)
{
    auto *timer = panel.findChild<QTimer *>();
    QTimerEvent tick(timer->timerId());
    QCoreApplication::sendEvent(timer, &tick);
}

void runDark(VfdPanel &panel)
{
    run(panel);
    blink(panel);
}

void fail(VfdPanel &panel)
{
    countDown(panel);
    panel.setLink(VfdPanel::Error, u"Login refused: 530 Login incorrect"_s);
}

void failByHand(VfdPanel &panel)
{
    goIdle(panel);
    panel.setMode(VfdPanel::Manual);
    panel.setLink(VfdPanel::Error, u"Login refused: 530 Login incorrect"_s);
}

void fillTheDay(VfdPanel &panel)
{
    countDown(panel);
    for (int minute = 0; minute < 24 * 60; minute += 30)
        panel.addActivityMark(at(minute / 60, minute % 60));
}

void crowd(VfdPanel &panel)
{
    run(panel);
    panel.setJobName(u"Everything from the old recording studio's server"_s);
    panel.setHost(u"recordings.archive.studio.example.org"_s);
    panel.setSyncModeLabel(u"New + changed + prune"_s);
    panel.setCurrentFile(u"/archive/2026/03/a-rather-long-name-of-a-recording.flac"_s);
    panel.setFileProgress(1.0);
    panel.setRate(2e7);
}

/** What the pictures are made of, drawn without the panel: if it differs, so would every picture. */
QImage sample()
{
    QImage image(640, 70, QImage::Format_ARGB32_Premultiplied);
    image.fill(QColor(9, 11, 12));
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(QColor(86, 240, 226));
    const struct
    {
        int pointSize;
        QFont::Weight weight;
    } cuts[] = {{7, QFont::DemiBold}, {6, QFont::DemiBold}, {6, QFont::Normal}};
    int y = 0;
    for (const auto &cut : cuts) {
        QFont font(u"Noto Sans"_s, cut.pointSize, cut.weight);
        font.setLetterSpacing(QFont::AbsoluteSpacing, 1.2);
        p.setFont(font);
        p.drawText(QRectF(0.5, y + 0.5, 639.0, 16.0), int(Qt::AlignLeft | Qt::AlignVCenter),
                   u"ABCDEFGHIJKLMNOPQRSTUVWXYZ 0123456789 +-·/%:…"_s);
        y += 16;
    }
    p.setPen(QPen(QColor(229, 72, 56, 50), 6.0, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.drawPolygon(QPolygonF({{10.3, 58.7}, {30.1, 52.9}, {50.6, 58.7}, {30.1, 64.2}}));
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(57, 160, 151, 70));
    p.drawEllipse(QRectF(70.7, 52.3, 5.8, 5.8));
    p.drawRoundedRect(QRectF(90.82, 50.5, 11.77, 15.0), 1.0, 1.0);
    return image;
}

QString referenceFile(const QString &name)
{
    return QStringLiteral(KELPWHARF_REFERENCE_DIR) + u'/' + name + u".png"_s;
}

/** Black where both agree, white where they do not. */
QImage difference(const QImage &a, const QImage &b)
{
    QImage image(a.size().expandedTo(b.size()), QImage::Format_RGB32);
    image.fill(Qt::white);
    for (int y = 0; y < std::min(a.height(), b.height()); ++y) {
        for (int x = 0; x < std::min(a.width(), b.width()); ++x) {
            if (a.pixel(x, y) == b.pixel(x, y))
                image.setPixelColor(x, y, Qt::black);
        }
    }
    return image;
}

bool isAsRecorded(const QString &name, QImage picture)
{
    const QImage reference = QImage(referenceFile(name)).convertToFormat(QImage::Format_ARGB32);
    // A ratio is no part of the file.
    picture.setDevicePixelRatio(1.0);
    picture.convertTo(QImage::Format_ARGB32);
    if (picture == reference)
        return true;
    if (!qEnvironmentVariableIsEmpty(kRenewInto)) {
        constexpr int smallest = 0; // of a PNG's qualities, all of which are exact
        const QDir folder(qEnvironmentVariable(kRenewInto));
        if (!folder.mkpath(u"."_s) || !picture.save(folder.filePath(name + u".png"_s), "PNG", smallest) ||
            !difference(reference, picture)
                 .save(folder.filePath(name + u"-difference.png"_s), "PNG", smallest))
            qWarning("cannot write to %s", qPrintable(folder.path()));
    }
    return false;
}

} // namespace

class TestPanelPictures : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void panelLooksAsRecorded_data();
    void panelLooksAsRecorded();

private:
    bool comparable = false;
};

void TestPanelPictures::initTestCase()
{
    QVERIFY2(StillClock::isHeld(), "The clock goes on: is libfaketime missing (package faketime)?");
    QFont::insertSubstitution(u"Segoe UI"_s, u"Noto Sans"_s);
    comparable = isAsRecorded(u"sample"_s, sample());
    if (!comparable && !qEnvironmentVariableIsEmpty(kRequire))
        QFAIL("The fonts are not those that the pictures were made with (package fonts-noto-core).");
}

void TestPanelPictures::panelLooksAsRecorded_data()
{
    QTest::addColumn<Feed>("feed");
    QTest::addColumn<int>("width");
    QTest::addColumn<double>("ratio");
    const auto row = [](const char *name, Feed feed, int width, double ratio = 1.0) {
        QTest::newRow(name) << feed << width << ratio;
    };
    row(
        "fresh", [](VfdPanel &) {}, 740);
    row("idle", goIdle, 740);
    row("counting", countDown, 740);
    row("running", run, 740);
    row("running-dark", runDark, 740);
    row("error", fail, 740);
    row("error-by-hand", failByHand, 740);
    row("full-day", fillTheDay, 740);
    row("narrow", run, 620);
    row("narrow-crowded", crowd, 620);
    row("wide", run, 1200);
    row("idle-twice", goIdle, 740, 2.0);
    row("running-twice", run, 740, 2.0);
    row("error-narrow-twice", fail, 620, 2.0);
}

void TestPanelPictures::panelLooksAsRecorded()
{
    if (!comparable && qEnvironmentVariableIsEmpty(kRenewInto))
        QSKIP("Text looks different here from where the pictures were made.");
    QFETCH(const Feed, feed);
    QFETCH(const int, width);
    QFETCH(const double, ratio);
    StillClock::set(at(14, 40));
    VfdPanel panel;
    feed(panel);
    QVERIFY2(isAsRecorded(QString::fromLatin1(QTest::currentDataTag()), pictureOf(panel, width, ratio)),
             "Run with KELPWHARF_RENEW_PICTURES=FOLDER to see what has changed.");
}

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    TestPanelPictures test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_PanelPictures.moc"
