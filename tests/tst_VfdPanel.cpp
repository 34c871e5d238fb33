#include "panel/VfdPanel.h"

#include "support/PanelPicture.h"
#include "support/StillClock.h"
#include "support/TestSettings.h"

#include <QApplication>
#include <QPainter>
#include <QSignalSpy>
#include <QTest>
#include <QTimeZone>
#include <QTimer>
#include <QTimerEvent>

#include <cmath>
#include <functional>
#include <limits>

using namespace Qt::StringLiterals;

namespace {

const QColor cyan(0x56, 0xF0, 0xE2);
const QColor cyanMid(0x39, 0xA0, 0x97);
const QColor cyanDim(0x1C, 0x66, 0x6A);
const QColor amber(0xCC, 0x92, 0x35);
const QColor red(0xE5, 0x48, 0x38);
const QColor bezel(0x14, 0x16, 0x17);
const QColor glass(0x09, 0x0B, 0x0C);
const QColor edge(0x1C, 0x3E, 0x3B);
const QColor pillFill(0x15, 0x2F, 0x2D);

constexpr int leftMiddle = int(Qt::AlignLeft | Qt::AlignVCenter);
constexpr int rightMiddle = int(Qt::AlignRight | Qt::AlignVCenter);
constexpr int topCentre = int(Qt::AlignHCenter | Qt::AlignTop);

/** What `alpha` of a colour makes of the one under it. */
QColor over(const QColor &under, const QColor &colour, int alpha)
{
    const auto mixed = [alpha](int below, int above) {
        return int(std::lround((below * (255 - alpha) + above * alpha) / 255.0));
    };
    return {mixed(under.red(), colour.red()), mixed(under.green(), colour.green()),
            mixed(under.blue(), colour.blue())};
}

const QColor ghost = over(glass, cyan, 26);

/** Blending in bytes may round a channel the other way. */
bool alike(const QColor &a, const QColor &b, int tolerance = 1)
{
    return std::abs(a.red() - b.red()) <= tolerance && std::abs(a.green() - b.green()) <= tolerance &&
           std::abs(a.blue() - b.blue()) <= tolerance && std::abs(a.alpha() - b.alpha()) <= tolerance;
}

/** The colour of the pixel that holds this point of the widget. */
QColor at(const QImage &picture, double x, double y)
{
    const double ratio = picture.devicePixelRatio();
    return picture.pixelColor(int(std::floor(x * ratio)), int(std::floor(y * ratio)));
}

#define COMPARE_COLOUR(actual, expected)                                                                     \
    do {                                                                                                     \
        const QColor actualColour = actual;                                                                  \
        const QColor expectedColour = expected;                                                              \
        QVERIFY2(alike(actualColour, expectedColour),                                                        \
                 qPrintable(actualColour.name(QColor::HexArgb) + u" is not "_s +                             \
                            expectedColour.name(QColor::HexArgb)));                                          \
    } while (false)

QDateTime day(int hour, int minute, int second = 0)
{
    return QDateTime(QDate(2026, 3, 18), QTime(hour, minute, second)); // a Wednesday
}

/** Its routines paint into a picture of their own here. */
class OpenPanel : public VfdPanel
{
public:
    using VfdPanel::drawColon;
    using VfdPanel::drawDigits;
    using VfdPanel::drawMeterRow;
    using VfdPanel::drawPill;
    using VfdPanel::drawSegmentDigit;
};

/** A piece of glass to paint on, twice as fine as the panel's pixels. */
template <typename Paint>
QImage onGlass(const QSize &size, Paint paint)
{
    QImage picture(size * 2, QImage::Format_ARGB32_Premultiplied);
    picture.setDevicePixelRatio(2.0);
    picture.fill(glass);
    QPainter p(&picture);
    p.setRenderHint(QPainter::Antialiasing);
    paint(p);
    return picture;
}

void tick(VfdPanel &panel)
{
    auto *timer = panel.findChild<QTimer *>();
    QTimerEvent event(timer->timerId());
    QCoreApplication::sendEvent(timer, &event);
}

/**
 * The lit segments of a digit as one would write them in three lines; empty if there is not even a
 * ghost of a segment, and "?" if a segment is neither lit nor unlit.
 */
QString faceOf(const QImage &picture, const QPointF &cell, const QColor &colour)
{
    const struct
    {
        QPointF centre;
        char16_t sign;
        int place;
    } segments[] = {
        {{16.24, 3.3}, u'_', 1}, {{3.3, 16.2}, u'|', 3},   {{16.24, 29.0}, u'_', 4}, {{29.1, 16.2}, u'|', 5},
        {{3.3, 41.8}, u'|', 6},  {{16.24, 54.7}, u'_', 7}, {{29.1, 41.8}, u'|', 8},
    };
    QString face(9, u' ');
    int unlit = 0;
    int dark = 0;
    for (const auto &segment : segments) {
        const QColor found = at(picture, cell.x() + segment.centre.x(), cell.y() + segment.centre.y());
        if (found == colour)
            face[segment.place] = segment.sign;
        else if (alike(found, ghost))
            ++unlit;
        else if (found == glass)
            ++dark;
        else
            return u"?"_s;
    }
    if (dark == 7)
        return {};
    if (dark > 0)
        return u"?"_s;
    return unlit == 7 ? u"unlit"_s : face;
}

const QStringList digitFaces = {u" _ | ||_|"_s, u"     |  |"_s, u" _  _||_ "_s, u" _  _| _|"_s,
                                u"   |_|  |"_s, u" _ |_  _|"_s, u" _ |_ |_|"_s, u" _   |  |"_s,
                                u" _ |_||_|"_s, u" _ |_| _|"_s};

/** The clock as text: its digits, '-' for a dash, a blank for an empty cell, '?' for anything else. */
QString clockOf(const QImage &picture, const QColor &colour = cyan)
{
    QString text;
    for (const double x : {18.5, 55.98, 110.46, 147.94, 202.42, 239.9}) {
        const QString face = faceOf(picture, {x, 30.5}, colour);
        const qsizetype digit = digitFaces.indexOf(face);
        if (digit >= 0)
            text += QString::number(digit);
        else if (face == u"    _    "_s)
            text += u'-';
        else
            text += face.isEmpty() ? u' ' : u'?';
    }
    return text;
}

/** Where the colons' dots have their centres. */
const QPointF dots[] = {{99.46, 49.06}, {99.46, 69.94}, {191.42, 49.06}, {191.42, 69.94}};

/** 'C', 'A' or 'R' for a segment lit in cyan, amber or red, in small letters for a dark one. */
QString barOf(const QImage &picture, double y)
{
    const double meters = picture.width() / picture.devicePixelRatio();
    const double content = meters - 37.0;
    const double left = std::min(320.0, 0.44 * content);
    const double step = (content - left - 8.0 - 26.0) / 26.0;
    QString bar;
    for (int i = 0; i < 26; ++i) {
        const QColor found = at(picture, 18.5 + left + 8.0 + 26.0 + (i + 0.42) * step, y);
        char16_t sign = u'?';
        const std::pair<QColor, char16_t> zones[] = {{cyanMid, u'c'}, {amber, u'a'}, {red, u'r'}};
        for (const auto &[colour, letter] : zones) {
            if (found == colour)
                sign = char16_t(letter - u'a' + u'A');
            else if (alike(found, over(glass, colour, 38)))
                sign = letter;
        }
        bar += sign;
    }
    return bar;
}

constexpr double fileBar = 38.0;
constexpr double rateBar = 56.0;

/** A letter per half hour: 'N' for the next run, 'x' for a run, 'p' for past, '.' for ahead. */
QString dayOf(const QImage &picture)
{
    const double step = (picture.width() / picture.devicePixelRatio() - 83.0) / 48.0;
    QString halfHours;
    for (int i = 0; i < 48; ++i) {
        const QColor found = at(picture, 64.5 + (i + 0.43) * step, 137.0);
        if (found == cyan)
            halfHours += u'N';
        else if (found == cyanMid)
            halfHours += u'x';
        else if (alike(found, over(glass, cyanMid, 70)))
            halfHours += u'p';
        else
            halfHours += alike(found, over(glass, cyanDim, 40)) ? u'.' : u'?';
    }
    return halfHours;
}

QFont captionFont(int pointSize = 7, QFont::Weight weight = QFont::DemiBold)
{
    QFont font(u"Segoe UI"_s, pointSize, weight);
    font.setStyleHint(QFont::SansSerif);
    font.setLetterSpacing(QFont::AbsoluteSpacing, 1.2);
    return font;
}

struct Text
{
    QString text = {};
    QRectF place = {};
    QColor colour = {};
    int flags = 0;
    QFont font = captionFont();
    QColor under = glass;
};

/** Whether this text, and nothing but it, stands at its place. */
bool holds(const QImage &picture, const Text &expected, const QRectF &within)
{
    QImage wanted(picture.size(), picture.format());
    wanted.setDevicePixelRatio(picture.devicePixelRatio());
    wanted.fill(expected.under);
    {
        QPainter p(&wanted);
        p.setRenderHint(QPainter::Antialiasing);
        p.setFont(expected.font);
        p.setPen(expected.colour);
        p.drawText(expected.place, expected.flags, expected.text);
    }
    const double ratio = picture.devicePixelRatio();
    const QRect area = QRectF(within.topLeft() * ratio, within.size() * ratio).toAlignedRect();
    return picture.copy(area) == wanted.copy(area);
}

bool holds(const QImage &picture, const Text &expected) { return holds(picture, expected, expected.place); }

int paintsAfter(VfdPanel &panel, const std::function<void()> &change)
{
    struct Counter : QObject
    {
        int paints = 0;
        bool eventFilter(QObject * /*watched*/, QEvent *event) override
        {
            paints += event->type() == QEvent::Paint ? 1 : 0;
            return false;
        }
    } counter;
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
    panel.installEventFilter(&counter);
    change();
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
    return counter.paints;
}

} // namespace

class TestVfdPanel : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void isAPlainWidgetOfFixedHeight();
    void enumeratorsHaveTheWorkersNumbers();
    void links_data();
    void links();
    void standInsAreNamedForTheFont();
    void fontsOfCaptions();
    void labelsStandWhereTheFlagsSay();
    void zones_data();
    void zones();
    void frame_data();
    void frame();
    void aFreshPanelIsOff();
    void everySetterRepaints_data();
    void everySetterRepaints();
    void repaintsByItselfTwiceASecond();
    void secondsToNextRun();

    void digits_data();
    void digits();
    void strokesAndDotsHaveALeastWidth();
    void segmentsMeetAtTheirTips();
    void litSegmentsGlow_data();
    void litSegmentsGlow();
    void laterSegmentsCoverTheGlow();
    void colonsHaveHalos();
    void colonsBlinkOnlyDuringARun();
    void countdowns_data();
    void countdowns();
    void elapsedTimes_data();
    void elapsedTimes();
    void startingTwiceKeepsTheStart();
    void aRunHidesTheCountdown();
    void errorsAreRed();
    void theFirstCellOfALessThanTenHourClockIsBare();
    void digitsShrinkWithTheirZone();
    void digitsReachIntoTheGapOfANarrowPanel();
    void clockCaptions_data();
    void clockCaptions();
    void aLongJobNameIsElided_data();
    void aLongJobNameIsElided();

    void fileBars_data();
    void fileBars();
    void rateBars_data();
    void rateBars();
    void barsAreCutIntoSegments_data();
    void barsAreCutIntoSegments();
    void gapsHaveALeastWidth();
    void rateTexts_data();
    void rateTexts();
    void meterCaptions_data();
    void meterCaptions();
    void stoppingClearsTheMeters_data();
    void stoppingClearsTheMeters();
    void modePills_data();
    void modePills();
    void pillsStandSixPixelsApart();
    void aPillMovesTheRow();
    void aPillWithoutTextIsStillDrawn();
    void linkTextStandsRight_data();
    void linkTextStandsRight();
    void aLongHostRunsAcrossThePills();
    void lastActions_data();
    void lastActions();
    void nextActions_data();
    void nextActions();
    void footerTextsMayOverlap();

    void daySlots_data();
    void daySlots();
    void slotsLieSideBySide_data();
    void slotsLieSideBySide();
    void theNextRunIsFramed();
    void onlyTheLatestMarksAreKept();
    void midnightClearsTheDay();
    void aClearedDayShowsNoRuns();
    void hoursAreLabelled_data();
    void hoursAreLabelled();
};

void TestVfdPanel::initTestCase()
{
    QVERIFY2(StillClock::isHeld(), "The clock goes on: is libfaketime missing (package faketime)?");
}

void TestVfdPanel::init() { StillClock::set(day(14, 40)); }

// The frame and the state.

void TestVfdPanel::isAPlainWidgetOfFixedHeight()
{
    const VfdPanel panel;
    QCOMPARE(panel.sizeHint(), QSize(740, 204));
    QCOMPARE(panel.minimumSizeHint(), QSize(620, 204));
    QCOMPARE(panel.sizePolicy().horizontalPolicy(), QSizePolicy::Preferred);
    QCOMPARE(panel.sizePolicy().verticalPolicy(), QSizePolicy::Fixed);
    QVERIFY(!panel.autoFillBackground());
    QVERIFY(!panel.testAttribute(Qt::WA_OpaquePaintEvent));
    QVERIFY(panel.findChildren<QWidget *>().isEmpty());
    QCOMPARE(panel.metaObject()->superClass(), &QWidget::staticMetaObject);
    QCOMPARE(panel.metaObject()->methodCount(), QWidget::staticMetaObject.methodCount());
    QCOMPARE(panel.metaObject()->propertyCount(), QWidget::staticMetaObject.propertyCount());
}

void TestVfdPanel::enumeratorsHaveTheWorkersNumbers()
{
    QCOMPARE(int(VfdPanel::Off), 0);
    QCOMPARE(int(VfdPanel::Manual), 1);
    QCOMPARE(int(VfdPanel::Auto), 2);
    QCOMPARE(int(VfdPanel::Offline), 0);
    QCOMPARE(int(VfdPanel::Connecting), 1);
    QCOMPARE(int(VfdPanel::Connected), 2);
    QCOMPARE(int(VfdPanel::Transferring), 3);
    QCOMPARE(int(VfdPanel::Error), 4);
}

void TestVfdPanel::links_data()
{
    QTest::addColumn<int>("link");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QColor>("colour");
    QTest::newRow("offline") << 0 << u"OFFLINE"_s << cyanDim;
    QTest::newRow("connecting") << 1 << u"CONNECTING"_s << amber;
    QTest::newRow("connected") << 2 << u"CONNECTED"_s << cyan;
    QTest::newRow("transferring") << 3 << u"TRANSFERRING"_s << cyan;
    QTest::newRow("error") << 4 << u"ERROR"_s << red;
    QTest::newRow("below") << -1 << u"OFFLINE"_s << cyan;
    QTest::newRow("above") << 5 << u"OFFLINE"_s << cyan;
}

void TestVfdPanel::links()
{
    QFETCH(const int, link);
    VfdPanel panel;
    panel.setLink(VfdPanel::Link(link), u"whatever"_s);
    QTEST(panel.linkText(), "text");
    QTEST(panel.linkColour(), "colour");
}

void TestVfdPanel::standInsAreNamedForTheFont()
{
    VfdPanel::nameFontStandIns();
    VfdPanel::nameFontStandIns();
    const QStringList standIns = QFont::substitutes(u"Segoe UI"_s);
    QFont::removeSubstitutions(u"Segoe UI"_s);
    QCOMPARE(standIns.join(u'|').toLower(), u"open sans|noto sans"_s);
}

void TestVfdPanel::fontsOfCaptions()
{
    const VfdPanel panel;
    const QFont bold = panel.labelFont(7, true);
    QCOMPARE(bold.family(), u"Segoe UI"_s);
    QCOMPARE(bold.pointSize(), 7);
    QCOMPARE(int(bold.weight()), 600);
    QVERIFY(!bold.italic());
    QCOMPARE(bold.styleHint(), QFont::SansSerif);
    QCOMPARE(bold.styleStrategy(), QFont::PreferDefault);
    QCOMPARE(bold.letterSpacingType(), QFont::AbsoluteSpacing);
    QVERIFY(std::abs(bold.letterSpacing() - 1.2) < 1.0 / 64.0); // fonts count in 64ths
    const QFont plain = panel.labelFont(6, false);
    QCOMPARE(plain.pointSize(), 6);
    QCOMPARE(int(plain.weight()), 400);
    QCOMPARE(plain.letterSpacing(), bold.letterSpacing());
}

void TestVfdPanel::labelsStandWhereTheFlagsSay()
{
    const VfdPanel panel;
    const QRectF place(20.5, 10.25, 100.0, 16.0);
    for (const int flags : {leftMiddle, rightMiddle, topCentre, int(Qt::AlignCenter)}) {
        const QImage picture =
            onGlass({200, 40}, [&](QPainter &p) { panel.drawLabel(p, place, u"LABEL"_s, amber, flags); });
        QVERIFY(holds(picture, {u"LABEL"_s, place, amber, flags}, QRectF(0.0, 0.0, 200.0, 40.0)));
    }
}

void TestVfdPanel::zones_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<double>("contentWidth");
    QTest::addColumn<double>("digitsWidth");
    QTest::addColumn<double>("metersLeft");
    QTest::addColumn<double>("metersWidth");
    QTest::newRow("minimum") << 620 << 583.0 << 248.52 << 283.02 << 318.48;
    QTest::newRow("hint") << 740 << 703.0 << 301.32 << 335.82 << 385.68;
    QTest::newRow("last that shares") << 764 << 727.0 << 311.88 << 346.38 << 399.12;
    QTest::newRow("first that does not") << 765 << 728.0 << 312.0 << 346.5 << 400.0;
    QTest::newRow("wide") << 1200 << 1163.0 << 312.0 << 346.5 << 835.0;
}

void TestVfdPanel::zones()
{
    QFETCH(const int, width);
    QFETCH(const double, contentWidth);
    QFETCH(const double, digitsWidth);
    QFETCH(const double, metersLeft);
    QFETCH(const double, metersWidth);
    for (const int height : {204, 300}) { // what a taller widget has to spare stays empty
        const PanelLayout layout = PanelLayout::forWidget(QRectF(0.0, 0.0, width, height));
        QCOMPARE(layout.bezel, QRectF(0.5, 0.5, width - 1.0, height - 1.0));
        QCOMPARE(layout.glass, QRectF(6.5, 6.5, width - 13.0, height - 13.0));
        QCOMPARE(layout.digits, QRectF(18.5, 14.5, digitsWidth, 84.0));
        QCOMPARE(layout.meters, QRectF(metersLeft, 14.5, metersWidth, 84.0));
        QCOMPARE(layout.pills, QRectF(18.5, 100.5, contentWidth, 24.0));
        QCOMPARE(layout.timeline, QRectF(18.5, 128.5, contentWidth, 32.0));
        QCOMPARE(layout.footer, QRectF(18.5, 162.5, contentWidth, 16.0));
    }
}

void TestVfdPanel::frame_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<double>("ratio");
    for (const int width : {620, 740, 1200}) {
        QTest::addRow("%d", width) << width << 1.0;
        QTest::addRow("%d, twice as fine", width) << width << 2.0;
    }
}

void TestVfdPanel::frame()
{
    QFETCH(const int, width);
    QFETCH(const double, ratio);
    VfdPanel panel;
    const QImage picture = pictureOf(panel, width, ratio);
    const double right = width;
    const double middle = width / 2.0;

    QCOMPARE(at(picture, 0.0, 0.0).alpha(), 0); // the bezel is round, and nothing is under it
    QCOMPARE(at(picture, right - 0.5, 203.5).alpha(), 0);
    for (const double y : {1.0, 5.5, 198.0, 202.5})
        QCOMPARE(at(picture, middle, y), bezel);
    for (const double x : {1.0, 5.5, right - 5.6, right - 1.6})
        QCOMPARE(at(picture, x, 100.0), bezel);

    // The line runs through the middle of its pixels: 6 to 7, and its like from the other side.
    for (const double inset : {6.0, 6.6}) {
        QCOMPARE(at(picture, middle, inset), edge);
        QCOMPARE(at(picture, inset, 100.0), edge);
        QCOMPARE(at(picture, middle, 203.9 - inset), edge);
        QCOMPARE(at(picture, right - 0.1 - inset, 100.0), edge);
    }
    QCOMPARE(at(picture, middle, 7.0), glass);
    QCOMPARE(at(picture, 7.0, 95.0), glass);
    QCOMPARE(at(picture, middle, 196.5), glass);
    QCOMPARE(at(picture, right - 7.6, 180.0), glass);
    QVERIFY(at(picture, 6.0, 6.0) != edge); // the glass has round corners too

    // The bezel's outermost half pixel is not painted.
    const QColor outermost = at(picture, middle, 0.0);
    if (ratio > 1.0)
        QCOMPARE(outermost.alpha(), 0);
    else
        QVERIFY2(std::abs(outermost.alpha() - 128) <= 1, qPrintable(outermost.name(QColor::HexArgb)));
}

void TestVfdPanel::aFreshPanelIsOff()
{
    VfdPanel panel;
    QCOMPARE(panel.secondsToNextRun(), -1);
    QCOMPARE(panel.linkText(), u"OFFLINE"_s);
    const QImage picture = pictureOf(panel, 740);
    QCOMPARE(clockOf(picture), u"------"_s);
    QCOMPARE(barOf(picture, fileBar), QString(26, u'c'));
    QVERIFY(holds(picture, {u"NEXT SYNC IN"_s, {18.5, 14.5, 301.32, 12.0}, cyanDim, leftMiddle}));
    QVERIFY(holds(picture, {u"LAST · NEVER"_s, {18.5, 162.5, 703.0, 16.0}, amber, leftMiddle}));
    QVERIFY(holds(picture, {u"OFFLINE"_s, {18.5, 100.5, 703.0, 24.0}, cyanDim, rightMiddle},
                  {500.0, 100.5, 221.5, 24.0}));
    VfdPanel labelled;
    labelled.setSyncModeLabel(u"new + changed"_s);
    QCOMPARE(pictureOf(labelled, 740), picture);
}

void TestVfdPanel::everySetterRepaints_data()
{
    QTest::addColumn<std::function<void(VfdPanel &)>>("change");
    const auto row = [](const char *what, const std::function<void(VfdPanel &)> &change) {
        QTest::newRow(what) << change;
    };
    row("setMode", [](VfdPanel &panel) { panel.setMode(VfdPanel::Auto); });
    row("setLink", [](VfdPanel &panel) { panel.setLink(VfdPanel::Error, u"why"_s); });
    row("setHost", [](VfdPanel &panel) { panel.setHost(u"host"_s); });
    row("setJobName", [](VfdPanel &panel) { panel.setJobName(u"name"_s); });
    row("setSyncModeLabel", [](VfdPanel &panel) { panel.setSyncModeLabel(u"label"_s); });
    row("setCurrentFile", [](VfdPanel &panel) { panel.setCurrentFile(u"file"_s); });
    row("setRate", [](VfdPanel &panel) { panel.setRate(1000.0); });
    row("setFileProgress", [](VfdPanel &panel) { panel.setFileProgress(0.5); });
    row("setNextRun", [](VfdPanel &panel) { panel.setNextRun(day(15, 0)); });
    row("setLastRun", [](VfdPanel &panel) { panel.setLastRun(day(13, 0), u"all"_s); });
    row("setRunning(true)", [](VfdPanel &panel) { panel.setRunning(true); });
    row("setRunning(false)", [](VfdPanel &panel) { panel.setRunning(false); });
    row("addActivityMark", [](VfdPanel &panel) { panel.addActivityMark(day(13, 0)); });
    row("clearActivity", [](VfdPanel &panel) { panel.clearActivity(); });
}

void TestVfdPanel::everySetterRepaints()
{
    QFETCH(const std::function<void(VfdPanel &)>, change);
    VfdPanel panel;
    panel.findChild<QTimer *>()->stop(); // its repaints are no concern of this test
    panel.show();
    QVERIFY(QTest::qWaitForWindowExposed(&panel));
    QCOMPARE(paintsAfter(panel, [] {}), 0);
    QCOMPARE(paintsAfter(panel, [&] { change(panel); }), 1);
    QCOMPARE(paintsAfter(panel, [&] { change(panel); }), 1); // and again, with nothing new
}

void TestVfdPanel::repaintsByItselfTwiceASecond()
{
    VfdPanel panel;
    const QList<QTimer *> timers = panel.findChildren<QTimer *>();
    QCOMPARE(timers.size(), 1);
    QTimer *timer = timers.constFirst();
    QCOMPARE(timer->objectName(), u"blinkTimer"_s);
    QCOMPARE(timer->interval(), 500);
    QVERIFY(timer->isActive());
    QVERIFY(!timer->isSingleShot());
    panel.setRunning(true);
    QVERIFY(timer->isActive());
    panel.setRunning(false);
    QVERIFY(timer->isActive());

    panel.show();
    QVERIFY(QTest::qWaitForWindowExposed(&panel));
    QCOMPARE(paintsAfter(panel, [&] { tick(panel); }), 1);
    QSignalSpy ticks(timer, &QTimer::timeout);
    QVERIFY(ticks.wait());
}

void TestVfdPanel::secondsToNextRun()
{
    VfdPanel panel;
    panel.setNextRun(day(14, 41, 30));
    QCOMPARE(panel.secondsToNextRun(), 90); // whatever the mode
    panel.setNextRun(day(14, 40).addMSecs(1999));
    QCOMPARE(panel.secondsToNextRun(), 1);
    panel.setNextRun(day(14, 40));
    QCOMPARE(panel.secondsToNextRun(), 0);
    panel.setNextRun(day(14, 39));
    QCOMPARE(panel.secondsToNextRun(), 0);
    panel.setNextRun({});
    QCOMPARE(panel.secondsToNextRun(), -1);
}

// Digits.

void TestVfdPanel::digits_data()
{
    QTest::addColumn<int>("digit");
    QTest::addColumn<QString>("face");
    for (int digit = 0; digit < 10; ++digit)
        QTest::addRow("%d", digit) << digit << digitFaces.at(digit);
    QTest::newRow("nothing at all") << -1 << QString();
    QTest::newRow("dash") << -2 << u"    _    "_s;
    QTest::newRow("below") << -3 << u"unlit"_s;
    QTest::newRow("above") << 10 << u"unlit"_s;
    QTest::newRow("far above") << std::numeric_limits<int>::max() << u"unlit"_s;
    QTest::newRow("far below") << std::numeric_limits<int>::min() << u"unlit"_s;
}

void TestVfdPanel::digits()
{
    QFETCH(const int, digit);
    QFETCH(const QString, face);
    const OpenPanel panel;
    for (const QColor &colour : {cyan, red}) {
        const QImage picture = onGlass({60, 80}, [&](QPainter &p) {
            panel.drawSegmentDigit(p, QRectF(10.5, 10.5, 32.48, 58.0), digit, colour);
        });
        QCOMPARE(faceOf(picture, {10.5, 10.5}, colour), face);
    }
}

void TestVfdPanel::strokesAndDotsHaveALeastWidth()
{
    const OpenPanel panel;
    // At 20 high a stroke would be 2.3 thick, and a dot 2 across.
    const QImage digit = onGlass(
        {40, 40}, [&](QPainter &p) { panel.drawSegmentDigit(p, QRectF(10.0, 10.0, 20.0, 20.0), 99, cyan); });
    COMPARE_COLOUR(at(digit, 20.0, 10.0), ghost);
    COMPARE_COLOUR(at(digit, 20.0, 13.5), ghost);
    COMPARE_COLOUR(at(digit, 20.0, 14.0), glass);
    COMPARE_COLOUR(at(digit, 20.0, 17.5), glass);
    COMPARE_COLOUR(at(digit, 20.0, 18.0), ghost);
    COMPARE_COLOUR(at(digit, 20.0, 21.5), ghost);
    COMPARE_COLOUR(at(digit, 20.0, 22.0), glass);

    const QImage colon = onGlass(
        {40, 40}, [&](QPainter &p) { panel.drawColon(p, QRectF(10.0, 10.0, 12.0, 20.0), cyan, false); });
    for (const double y : {16.4, 23.6}) {
        COMPARE_COLOUR(at(colon, 16.0, y), ghost);
        COMPARE_COLOUR(at(colon, 14.6, y), ghost);
        COMPARE_COLOUR(at(colon, 17.4, y), ghost);
        COMPARE_COLOUR(at(colon, 13.4, y), glass);
        COMPARE_COLOUR(at(colon, 18.6, y), glass);
    }
}

void TestVfdPanel::segmentsMeetAtTheirTips()
{
    const OpenPanel panel;
    const QImage picture = onGlass(
        {60, 80}, [&](QPainter &p) { panel.drawSegmentDigit(p, QRectF(10.0, 10.0, 32.48, 58.0), 99, cyan); });
    // A stroke is 6.67 thick and keeps inside the cell.
    COMPARE_COLOUR(at(picture, 26.0, 10.0), ghost);
    COMPARE_COLOUR(at(picture, 26.0, 16.0), ghost);
    COMPARE_COLOUR(at(picture, 26.0, 17.0), glass);
    COMPARE_COLOUR(at(picture, 26.0, 9.5), glass);
    COMPARE_COLOUR(at(picture, 26.0, 67.5), ghost);
    COMPARE_COLOUR(at(picture, 26.0, 68.0), glass);
    COMPARE_COLOUR(at(picture, 10.0, 26.0), ghost);
    COMPARE_COLOUR(at(picture, 9.5, 26.0), glass);
    COMPARE_COLOUR(at(picture, 41.9, 26.0), ghost);
    COMPARE_COLOUR(at(picture, 42.6, 26.0), glass);
    // No gap along the slanted ends, and nothing in the cell's corners.
    for (const double offset : {1.0, 2.0, 3.0})
        QVERIFY(alike(at(picture, 13.335 + offset, 13.335 + offset), ghost, 4));
    COMPARE_COLOUR(at(picture, 11.0, 11.0), glass);
    COMPARE_COLOUR(at(picture, 41.0, 67.0), glass);
}

void TestVfdPanel::litSegmentsGlow_data()
{
    QTest::addColumn<QColor>("colour");
    QTest::addColumn<VfdPanel::Link>("link");
    QTest::newRow("as ever") << cyan << VfdPanel::Offline;
    QTest::newRow("in error") << red << VfdPanel::Error;
}

void TestVfdPanel::litSegmentsGlow()
{
    QFETCH(const QColor, colour);
    QFETCH(const VfdPanel::Link, link);
    VfdPanel panel;
    panel.setMode(VfdPanel::Auto);
    panel.setLink(link, {});
    panel.setNextRun(day(14, 40).addSecs(420)); // 0:07:00
    const QColor glow = over(glass, colour, 50);
    const QImage picture = pictureOf(panel, 740, 2.0);

    // Over the top of the 7, whose cell is (147.94, 30.5): three pixels of it.
    for (const double y : {27.5, 28.0, 29.0, 30.0})
        COMPARE_COLOUR(at(picture, 164.0, y), glow);
    COMPARE_COLOUR(at(picture, 164.0, 27.0), glass);
    QCOMPARE(at(picture, 164.0, 30.5), colour);
    QCOMPARE(at(picture, 164.0, 36.5), colour);
    // Below the top stroke, inside the digit, three more.
    COMPARE_COLOUR(at(picture, 164.0, 39.5), glow);
    COMPARE_COLOUR(at(picture, 164.0, 40.5), glass);
    // To the right of its right stroke, and nothing beyond.
    COMPARE_COLOUR(at(picture, 182.5, 47.0), glow);
    COMPARE_COLOUR(at(picture, 184.0, 47.0), glass);
    // What is not lit has no glow.
    COMPARE_COLOUR(at(picture, 164.0, 90.0), glass);
    COMPARE_COLOUR(at(picture, 164.0, 86.0), ghost);
}

void TestVfdPanel::laterSegmentsCoverTheGlow()
{
    const OpenPanel panel;
    const auto paint = [&](int digit) {
        return onGlass({60, 80}, [&](QPainter &p) {
            panel.drawSegmentDigit(p, QRectF(10.0, 10.0, 32.48, 58.0), digit, red);
        });
    };
    // In red the order shows. The upper left stroke comes after the middle one, and is over its glow;
    const QColor ghostOverGlow = over(over(glass, red, 50), cyan, 26);
    COMPARE_COLOUR(at(paint(-2), 13.5, 36.0), ghostOverGlow);
    // the top stroke comes before the upper right one, and is under its glow.
    const QColor glowOverGhost = over(over(glass, cyan, 26), red, 50);
    COMPARE_COLOUR(at(paint(1), 36.0, 13.0), glowOverGhost);
    QVERIFY(!alike(ghostOverGlow, glowOverGhost));
    // Where two strokes glow, both do.
    COMPARE_COLOUR(at(paint(7), 35.0, 17.5), over(over(glass, red, 50), red, 50));
}

void TestVfdPanel::colonsHaveHalos()
{
    VfdPanel panel;
    for (const VfdPanel::Link link : {VfdPanel::Offline, VfdPanel::Error}) {
        panel.setLink(link, {});
        const QColor colour = link == VfdPanel::Error ? red : cyan;
        const QImage picture = pictureOf(panel, 740, 2.0);
        for (const QPointF &dot : dots) {
            QCOMPARE(at(picture, dot.x(), dot.y()), colour);
            QCOMPARE(at(picture, dot.x() - 2.2, dot.y()), colour);
            QCOMPARE(at(picture, dot.x() + 2.2, dot.y()), colour);
            COMPARE_COLOUR(at(picture, dot.x() - 3.9, dot.y()), over(glass, colour, 60));
            COMPARE_COLOUR(at(picture, dot.x() + 3.9, dot.y()), over(glass, colour, 60));
            COMPARE_COLOUR(at(picture, dot.x(), dot.y() - 3.9), over(glass, colour, 60));
            COMPARE_COLOUR(at(picture, dot.x(), dot.y() + 3.9), over(glass, colour, 60));
            COMPARE_COLOUR(at(picture, dot.x() - 5.5, dot.y()), glass);
            COMPARE_COLOUR(at(picture, dot.x(), dot.y() + 5.5), glass);
        }
    }
}

void TestVfdPanel::colonsBlinkOnlyDuringARun()
{
    VfdPanel panel;
    const auto areLit = [&panel] {
        const QImage picture = pictureOf(panel, 740, 2.0);
        int lit = 0;
        for (const QPointF &dot : dots) {
            const QColor centre = at(picture, dot.x(), dot.y());
            const QColor halo = at(picture, dot.x() + 3.9, dot.y());
            if (centre == cyan && alike(halo, over(glass, cyan, 60)))
                ++lit;
            else if (!alike(centre, ghost) || halo != glass)
                return u"neither"_s;
        }
        return lit == 4 ? u"lit"_s : lit == 0 ? u"dark"_s : u"some"_s;
    };
    QCOMPARE(areLit(), u"lit"_s);
    tick(panel); // the phase goes on, unseen
    QCOMPARE(areLit(), u"lit"_s);
    panel.setRunning(true);
    QCOMPARE(areLit(), u"dark"_s);
    tick(panel);
    QCOMPARE(areLit(), u"lit"_s);
    tick(panel);
    QCOMPARE(areLit(), u"dark"_s);
    panel.setRunning(false);
    QCOMPARE(areLit(), u"lit"_s);
}

void TestVfdPanel::countdowns_data()
{
    QTest::addColumn<VfdPanel::Mode>("mode");
    QTest::addColumn<QDateTime>("next");
    QTest::addColumn<QString>("clock");
    const auto row = [](const char *what, VfdPanel::Mode mode, const QDateTime &next, const QString &clock) {
        QTest::newRow(what) << mode << next << clock;
    };
    const QDateTime now = day(14, 40);
    row("no next run", VfdPanel::Auto, {}, u"------"_s);
    row("off", VfdPanel::Off, now.addSecs(60), u"------"_s);
    row("by hand", VfdPanel::Manual, now.addSecs(60), u" 00100"_s);
    row("due", VfdPanel::Auto, now, u" 00000"_s);
    row("overdue", VfdPanel::Auto, now.addSecs(-1), u" 00000"_s);
    row("overdue for days", VfdPanel::Auto, now.addDays(-9), u" 00000"_s);
    row("a second", VfdPanel::Auto, now.addSecs(1), u" 00001"_s);
    row("not quite two seconds", VfdPanel::Auto, now.addMSecs(1999), u" 00001"_s);
    row("last second of the first hour", VfdPanel::Auto, now.addSecs(3599), u" 05959"_s);
    row("an hour", VfdPanel::Auto, now.addSecs(3600), u" 10000"_s);
    row("every digit", VfdPanel::Auto, now.addSecs(23 * 3600 + 45 * 60 + 6), u"234506"_s);
    row("the rest", VfdPanel::Auto, now.addSecs(17 * 3600 + 8 * 60 + 9), u"170809"_s);
    row("last without its first cell", VfdPanel::Auto, now.addSecs(35999), u" 95959"_s);
    row("first with it", VfdPanel::Auto, now.addSecs(36000), u"100000"_s);
    row("last that fits", VfdPanel::Auto, now.addSecs(359999), u"995959"_s);
    row("first that does not", VfdPanel::Auto, now.addSecs(360000), u"995959"_s);
    row("years ahead", VfdPanel::Auto, now.addYears(500), u"995959"_s);
}

void TestVfdPanel::countdowns()
{
    QFETCH(const VfdPanel::Mode, mode);
    QFETCH(const QDateTime, next);
    VfdPanel panel;
    panel.setMode(mode);
    panel.setNextRun(next);
    QTEST(clockOf(pictureOf(panel, 740)), "clock");
    QTEST(clockOf(pictureOf(panel, 1200)), "clock"); // the row keeps its place and size
}

void TestVfdPanel::elapsedTimes_data()
{
    QTest::addColumn<int>("seconds");
    QTest::addColumn<QString>("clock");
    QTest::newRow("none yet") << 0 << u" 00000"_s;
    QTest::newRow("minutes") << 697 << u" 01137"_s;
    QTest::newRow("just below ten hours") << 35999 << u" 95959"_s;
    QTest::newRow("ten hours") << 36000 << u"100000"_s;
    QTest::newRow("a hundred hours") << 360000 << u"995959"_s;
    QTest::newRow("the clock was set back") << -1 << u"------"_s;
    QTest::newRow("and far") << -100000 << u"------"_s;
}

void TestVfdPanel::elapsedTimes()
{
    QFETCH(const int, seconds);
    VfdPanel panel;
    panel.setRunning(true);
    StillClock::set(day(14, 40).addSecs(seconds));
    const QImage picture = pictureOf(panel, 740);
    QTEST(clockOf(picture), "clock");
    QVERIFY(holds(picture, {u"ELAPSED"_s, {18.5, 14.5, 301.32, 12.0}, cyanDim, leftMiddle}));
}

void TestVfdPanel::startingTwiceKeepsTheStart()
{
    VfdPanel panel;
    panel.setRunning(true);
    StillClock::set(day(14, 50));
    panel.setRunning(true);
    QCOMPARE(clockOf(pictureOf(panel, 740)), u" 01000"_s);
    panel.setRunning(false);
    panel.setRunning(true);
    QCOMPARE(clockOf(pictureOf(panel, 740)), u" 00000"_s);
}

void TestVfdPanel::aRunHidesTheCountdown()
{
    VfdPanel panel;
    panel.setMode(VfdPanel::Auto);
    panel.setNextRun(day(15, 40));
    panel.setRunning(true);
    StillClock::set(day(14, 40, 5));
    QCOMPARE(clockOf(pictureOf(panel, 740)), u" 00005"_s);
    panel.setRunning(false);
    QCOMPARE(clockOf(pictureOf(panel, 740)), u" 05955"_s);
}

void TestVfdPanel::errorsAreRed()
{
    VfdPanel panel;
    panel.setMode(VfdPanel::Auto);
    panel.setNextRun(day(15, 40));
    panel.setJobName(u"job"_s);
    panel.setLink(VfdPanel::Error, u"why"_s);
    const QImage picture = pictureOf(panel, 740);
    QCOMPARE(clockOf(picture, red), u" 10000"_s);
    for (const QPointF &dot : dots)
        QCOMPARE(at(picture, dot.x(), dot.y()), red);
    const QRectF row(18.5, 14.5, 301.32, 12.0);
    QVERIFY(holds(picture, {u"NEXT SYNC IN"_s, row, cyanDim, leftMiddle}, {18.5, 14.5, 120.0, 12.0}));
    QVERIFY(holds(picture, {u"JOB"_s, row, red, rightMiddle}, {200.0, 14.5, 119.82, 12.0}));
    const QRectF footer(18.5, 162.5, 703.0, 16.0);
    QVERIFY(holds(picture, {u"NEXT WED 15:40"_s, footer, red, rightMiddle}, {400.0, 162.5, 321.5, 16.0}));
    QVERIFY(holds(picture, {u"LAST · NEVER"_s, footer, amber, leftMiddle}, {18.5, 162.5, 200.0, 16.0}));

    panel.setLink(VfdPanel::Connected, {});
    QCOMPARE(clockOf(pictureOf(panel, 740)), u" 10000"_s);
}

void TestVfdPanel::theFirstCellOfALessThanTenHourClockIsBare()
{
    VfdPanel panel;
    panel.setMode(VfdPanel::Auto);
    panel.setNextRun(day(15, 40));
    const QImage picture = pictureOf(panel, 740);
    for (int y = 31; y < 88; ++y) {
        for (int x = 19; x < 50; ++x)
            QCOMPARE(picture.pixelColor(x, y), glass);
    }
}

void TestVfdPanel::digitsShrinkWithTheirZone()
{
    OpenPanel panel;
    // 42 high and 23.52 wide in a zone of 60: strokes of 4.83, the second cell 28.52 further on.
    const QImage picture =
        onGlass({300, 80}, [&](QPainter &p) { panel.drawDigits(p, QRectF(10.0, 10.0, 280.0, 60.0)); });
    for (const double x : {10.0, 38.52, 84.04, 112.56, 158.08, 186.6}) {
        QCOMPARE(at(picture, x + 11.76, 47.0), cyan);        // the dash in the middle
        COMPARE_COLOUR(at(picture, x + 11.76, 26.2), ghost); // the top
        COMPARE_COLOUR(at(picture, x + 11.76, 25.5), glass);
        COMPARE_COLOUR(at(picture, x + 11.76, 67.5), ghost); // the bottom
        COMPARE_COLOUR(at(picture, x + 11.76, 68.5), glass);
        COMPARE_COLOUR(at(picture, x + 22.8, 36.0), ghost); // the right side
        COMPARE_COLOUR(at(picture, x + 24.1, 36.0), glass);
    }
    QCOMPARE(at(picture, 73.04, 39.44), cyan);  // the first dot
    QCOMPARE(at(picture, 147.08, 54.56), cyan); // the last
}

void TestVfdPanel::digitsReachIntoTheGapOfANarrowPanel()
{
    VfdPanel panel;
    panel.setMode(VfdPanel::Auto);
    panel.setNextRun(day(14, 40).addSecs(7));
    const QImage picture = pictureOf(panel, 620, 2.0);
    QCOMPARE(clockOf(picture), u" 00007"_s);
    // The zone ends at 267.02, the digit's right stroke at 272.38, its glow at 275.38.
    QCOMPARE(at(picture, 269.0, 47.0), cyan);
    QCOMPARE(at(picture, 271.5, 47.0), cyan);
    COMPARE_COLOUR(at(picture, 274.0, 47.0), over(glass, cyan, 50));
    COMPARE_COLOUR(at(picture, 276.0, 47.0), glass);
}

void TestVfdPanel::clockCaptions_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<double>("zoneWidth");
    QTest::addColumn<double>("ratio");
    for (const double ratio : {1.0, 2.0}) {
        QTest::addRow("minimum, ratio %g", ratio) << 620 << 248.52 << ratio;
        QTest::addRow("hint, ratio %g", ratio) << 740 << 301.32 << ratio;
        QTest::addRow("wide, ratio %g", ratio) << 1200 << 312.0 << ratio;
    }
}

void TestVfdPanel::clockCaptions()
{
    QFETCH(const int, width);
    QFETCH(const double, zoneWidth);
    QFETCH(const double, ratio);
    VfdPanel panel;
    const QRectF row(18.5, 14.5, zoneWidth, 12.0);
    QVERIFY(holds(pictureOf(panel, width, ratio), {u"NEXT SYNC IN"_s, row, cyanDim, leftMiddle}));
    panel.setJobName(u"Straße"_s);
    panel.setRunning(true);
    const QImage picture = pictureOf(panel, width, ratio);
    const double half = zoneWidth / 2.0;
    QVERIFY(holds(picture, {u"ELAPSED"_s, row, cyanDim, leftMiddle}, {18.5, 14.5, half, 12.0}));
    QVERIFY(holds(picture, {u"STRASSE"_s, row, cyanMid, rightMiddle}, {18.5 + half, 14.5, half, 12.0}));
}

void TestVfdPanel::aLongJobNameIsElided_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<double>("zoneWidth");
    QTest::addColumn<int>("widest");
    QTest::newRow("minimum") << 620 << 248.52 << 154;
    QTest::newRow("hint") << 740 << 301.32 << 186;
    QTest::newRow("wide") << 1200 << 312.0 << 193;
}

void TestVfdPanel::aLongJobNameIsElided()
{
    QFETCH(const int, width);
    QFETCH(const double, zoneWidth);
    QFETCH(const int, widest);
    VfdPanel panel;
    panel.setRunning(true); // the shorter caption
    // A little more at a time, so that some of the names end just before the limit and some behind it.
    QString name = u"The name of a job"_s;
    for (int i = 0; i < 12; ++i) {
        name += u"ii"_s;
        panel.setJobName(name);
        const QString shown = QFontMetrics(captionFont()).elidedText(name.toUpper(), Qt::ElideRight, widest);
        const QRectF row(18.5, 14.5, zoneWidth, 12.0);
        QVERIFY(holds(pictureOf(panel, width), {shown, row, cyanMid, rightMiddle},
                      {18.5 + zoneWidth - widest, 14.5, double(widest), 12.0}));
    }
    QVERIFY(QFontMetrics(captionFont()).horizontalAdvance(name.toUpper()) > widest);
}

// Meters.

void TestVfdPanel::fileBars_data()
{
    QTest::addColumn<double>("progress");
    QTest::addColumn<int>("lit");
    QTest::newRow("no file") << -1.0 << 0;
    QTest::newRow("less than nothing") << -1e-9 << 0;
    QTest::newRow("nothing") << 0.0 << 0;
    QTest::newRow("just too little") << 1.0 / 26.0 - 2e-6 << 0;
    QTest::newRow("rounding forgiven") << 1.0 / 26.0 - 5e-7 << 1;
    QTest::newRow("first") << 1.0 / 26.0 << 1;
    QTest::newRow("half") << 0.5 << 13;
    QTest::newRow("nearly half") << 0.4999 << 12;
    QTest::newRow("17") << 17.5 / 26.0 << 17;
    QTest::newRow("18") << 18.5 / 26.0 << 18;
    QTest::newRow("23") << 23.5 / 26.0 << 23;
    QTest::newRow("nearly all") << 0.99999 << 25;
    QTest::newRow("all") << 1.0 << 26;
    QTest::newRow("more than all") << 7.5 << 26;
    QTest::newRow("no number") << std::numeric_limits<double>::quiet_NaN() << 0;
}

void TestVfdPanel::fileBars()
{
    QFETCH(const double, progress);
    QFETCH(const int, lit);
    VfdPanel panel;
    panel.setFileProgress(progress);
    const QString bar = QString(lit, u'C') + QString(26 - lit, u'c'); // never amber, never red
    QCOMPARE(barOf(pictureOf(panel, 740), fileBar), bar);
    QCOMPARE(barOf(pictureOf(panel, 620, 2.0), fileBar), bar);
    QCOMPARE(barOf(pictureOf(panel, 1200), fileBar), bar);
}

void TestVfdPanel::rateBars_data()
{
    QTest::addColumn<double>("kilobytes");
    QTest::addColumn<QString>("bar");
    const auto row = [](const char *what, double kilobytes, const char *bar) {
        QTest::newRow(what) << kilobytes << QString::fromLatin1(bar);
    };
    row("none", 0.0, "cccccccccccccccccaaaaarrrr");
    row("negative", -5.0, "cccccccccccccccccaaaaarrrr");
    row("a byte", 1.0 / 1024.0, "cccccccccccccccccaaaaarrrr");
    row("a kilobyte", 1.0, "cccccccccccccccccaaaaarrrr");
    row("before the first", 1.42, "cccccccccccccccccaaaaarrrr");
    row("first", 1.43, "Cccccccccccccccccaaaaarrrr");
    row("a quarter", 10.0, "CCCCCCcccccccccccaaaaarrrr");
    row("a half", 100.0, "CCCCCCCCCCCCCccccaaaaarrrr");
    row("17", 587.0, "CCCCCCCCCCCCCCCCCaaaaarrrr");
    row("18", 589.0, "CCCCCCCCCCCCCCCCCAaaaarrrr");
    row("three quarters", 1000.0, "CCCCCCCCCCCCCCCCCAAaaarrrr");
    row("22", 3454.0, "CCCCCCCCCCCCCCCCCAAAAArrrr");
    row("23", 3457.0, "CCCCCCCCCCCCCCCCCAAAAARrrr");
    row("nearly all", 9990.0, "CCCCCCCCCCCCCCCCCAAAAARRRr");
    row("all", 10000.0, "CCCCCCCCCCCCCCCCCAAAAARRRR");
    row("beyond", 1e9, "CCCCCCCCCCCCCCCCCAAAAARRRR");
    row("no number", std::numeric_limits<double>::quiet_NaN(), "cccccccccccccccccaaaaarrrr");
}

void TestVfdPanel::rateBars()
{
    QFETCH(const double, kilobytes);
    QFETCH(const QString, bar);
    VfdPanel panel;
    panel.setRate(kilobytes * 1024.0);
    QCOMPARE(barOf(pictureOf(panel, 740), rateBar), bar);
    QCOMPARE(barOf(pictureOf(panel, 620), rateBar), bar);
}

void TestVfdPanel::barsAreCutIntoSegments_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<double>("start");
    QTest::addColumn<double>("step");
    QTest::addColumn<double>("gap");
    QTest::newRow("minimum") << 620 << 309.02 << 11.249231 << 1.799877;
    QTest::newRow("hint") << 740 << 361.82 << 13.833846 << 2.213415;
    QTest::newRow("wide") << 1200 << 372.5 << 31.115385 << 4.978462;
}

void TestVfdPanel::barsAreCutIntoSegments()
{
    QFETCH(const int, width);
    QFETCH(const double, start);
    QFETCH(const double, step);
    QFETCH(const double, gap);
    VfdPanel panel;
    panel.setFileProgress(1.0);
    const double ratio = 8.0; // fine enough to see where a segment ends
    const QImage picture = pictureOf(panel, width, ratio);
    for (const int i : {0, 1, 12, 25}) {
        const double left = start + i * step;
        const double right = left + step - gap;
        QCOMPARE(at(picture, left + 0.15, fileBar), cyanMid);
        QCOMPARE(at(picture, right - 0.15, fileBar), cyanMid);
        QCOMPARE(at(picture, left - 0.15, fileBar), glass);
        QCOMPARE(at(picture, right + 0.15, fileBar), glass);
        // 15 high, with corners of one pixel
        const double middle = (left + right) / 2.0;
        QCOMPARE(at(picture, middle, 30.6), cyanMid);
        QCOMPARE(at(picture, middle, 45.4), cyanMid);
        QCOMPARE(at(picture, middle, 45.6), glass);
        QVERIFY(at(picture, left + 0.15, 30.6) != cyanMid);
        QCOMPARE(at(picture, left + 0.4, 30.9), cyanMid);
    }
    COMPARE_COLOUR(at(picture, start + step / 3.0, 48.6), over(glass, cyanMid, 38));
    COMPARE_COLOUR(at(picture, start + step / 3.0, 63.4), over(glass, cyanMid, 38));
    COMPARE_COLOUR(at(picture, start + step / 3.0, 63.6), glass);
    COMPARE_COLOUR(at(picture, start + step / 3.0, 48.4), glass);
}

void TestVfdPanel::gapsHaveALeastWidth()
{
    const OpenPanel panel;
    // Steps of 4 pixels, of which 0.16 would be less than one.
    const QImage picture = onGlass({160, 40}, [&](QPainter &p) {
        panel.drawMeterRow(p, QRectF(10.0, 10.0, 130.0, 15.0), {}, 1.0, false);
    });
    for (int i = 0; i < 26; ++i) {
        for (const double x : {0.0, 1.5, 2.5})
            QCOMPARE(at(picture, 36.0 + 4 * i + x, 17.0), cyanMid);
        QCOMPARE(at(picture, 36.0 + 4 * i + 3.0, 17.0), glass);
        QCOMPARE(at(picture, 36.0 + 4 * i + 3.5, 17.0), glass);
    }
    QCOMPARE(at(picture, 35.5, 17.0), glass);
}

void TestVfdPanel::rateTexts_data()
{
    QTest::addColumn<double>("rate");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QColor>("colour");
    QTest::newRow("none") << 0.0 << u"---"_s << cyanDim;
    QTest::newRow("negative") << -1.0 << u"---"_s << cyanDim;
    QTest::newRow("a byte") << 1.0 << u"0 KB/S"_s << cyanMid;
    QTest::newRow("rounded") << 1536.1 << u"2 KB/S"_s << cyanMid;
    QTest::newRow("kilobytes") << 250.0 * 1024.0 << u"250 KB/S"_s << cyanMid;
    QTest::newRow("last in kilobytes") << 1048575.0 << u"1024 KB/S"_s << cyanMid;
    QTest::newRow("first in megabytes") << 1048576.0 << u"1.0 MB/S"_s << cyanMid;
    QTest::newRow("megabytes") << 19.07 * 1048576.0 << u"19.1 MB/S"_s << cyanMid;
    QTest::newRow("no separator of thousands") << 12345.6 * 1048576.0 << u"12345.6 MB/S"_s << cyanMid;
}

void TestVfdPanel::rateTexts()
{
    QFETCH(const double, rate);
    QFETCH(const QString, text);
    QFETCH(const QColor, colour);
    VfdPanel panel;
    panel.setRate(rate);
    QVERIFY(holds(pictureOf(panel, 740), {text, {490.092, 14.5, 231.408, 12.0}, colour, rightMiddle}));
    QVERIFY(holds(pictureOf(panel, 620), {text, {410.412, 14.5, 191.088, 12.0}, colour, rightMiddle}));
    QVERIFY(holds(pictureOf(panel, 1200, 2.0), {text, {680.5, 14.5, 501.0, 12.0}, colour, rightMiddle}));
}

void TestVfdPanel::meterCaptions_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<double>("ratio");
    QTest::addColumn<double>("left");
    QTest::addColumn<double>("zoneWidth");
    for (const double ratio : {1.0, 2.0}) {
        QTest::addRow("minimum, ratio %g", ratio) << 620 << ratio << 283.02 << 318.48;
        QTest::addRow("hint, ratio %g", ratio) << 740 << ratio << 335.82 << 385.68;
        QTest::addRow("wide, ratio %g", ratio) << 1200 << ratio << 346.5 << 835.0;
    }
}

void TestVfdPanel::meterCaptions()
{
    QFETCH(const int, width);
    QFETCH(const double, ratio);
    QFETCH(const double, left);
    QFETCH(const double, zoneWidth);
    VfdPanel panel;
    const QImage picture = pictureOf(panel, width, ratio);
    QVERIFY(holds(picture, {u"TRANSFER"_s, {left, 14.5, 0.6 * zoneWidth, 12.0}, cyanDim, leftMiddle},
                  {left, 14.5, 0.5 * zoneWidth, 12.0}));

    // Wherever the font is too wide for its 22 pixels, the caption is cut there.
    const QFont small = captionFont(6);
    QVERIFY(holds(picture, {u"FILE"_s, {left, 30.5, 22.0, 15.0}, cyanDim, leftMiddle, small},
                  {left, 30.5, 24.0, 15.0}));
    QVERIFY(holds(picture, {u"RATE"_s, {left, 48.5, 22.0, 15.0}, cyanDim, leftMiddle, small},
                  {left, 48.5, 24.0, 15.0}));

    const QFont plain = captionFont(6, QFont::Normal);
    const QString marks[] = {u"0"_s, u"25"_s, u"50"_s, u"75"_s, u"100%"_s};
    for (int i = 0; i < 5; ++i) {
        const double centre = left + 26.0 + i * (zoneWidth - 26.0) / 4.0;
        const QRectF place(centre - 14.0, 66.5, 28.0, 11.0);
        QVERIFY(holds(picture, {marks[i], place, cyanDim, Qt::AlignCenter, plain},
                      i < 4 ? place : QRectF(centre - 14.0, 66.5, 24.0, 11.0)));
    }
}

void TestVfdPanel::stoppingClearsTheMeters_data()
{
    QTest::addColumn<bool>("wasRunning");
    QTest::newRow("a run") << true;
    QTest::newRow("nothing") << false;
}

void TestVfdPanel::stoppingClearsTheMeters()
{
    QFETCH(const bool, wasRunning);
    VfdPanel panel;
    const QImage before = pictureOf(panel, 740);
    panel.setRunning(wasRunning);
    panel.setRate(2e6);
    panel.setFileProgress(0.7);
    panel.setCurrentFile(u"file"_s);
    QVERIFY(pictureOf(panel, 740) != before);
    panel.setRunning(false);
    QCOMPARE(pictureOf(panel, 740), before);
    panel.setRunning(true); // the file is forgotten, not only unseen
    QVERIFY(holds(pictureOf(panel, 740), {u"LAST · NEVER"_s, {18.5, 162.5, 703.0, 16.0}, amber, leftMiddle}));
}

// Pills.

namespace {

double pillWidth(const QString &text) { return QFontMetricsF(captionFont()).horizontalAdvance(text) + 18.0; }

/** Whether the pill with this left edge has that frame, inside and text. */
bool isPill(const QImage &picture, double left, const QString &text, const QColor &frame, const QColor &ink,
            const QColor &inside)
{
    const double middle = left + pillWidth(text) / 2.0;
    const QRectF place(left, 100.5, pillWidth(text), 24.0);
    return alike(at(picture, middle, 101.0), frame) && alike(at(picture, middle, 123.6), frame) &&
           alike(at(picture, middle, 102.0), inside) &&
           holds(picture, {text, place, ink, Qt::AlignCenter, captionFont(), inside},
                 place.adjusted(3.0, 3.0, -3.0, -3.0));
}

} // namespace

void TestVfdPanel::modePills_data()
{
    QTest::addColumn<VfdPanel::Mode>("mode");
    QTest::addColumn<VfdPanel::Link>("link");
    QTest::addColumn<QString>("lit");
    QTest::newRow("off") << VfdPanel::Off << VfdPanel::Offline << u"OFF"_s;
    QTest::newRow("manual") << VfdPanel::Manual << VfdPanel::Connected << u"MANUAL"_s;
    QTest::newRow("auto") << VfdPanel::Auto << VfdPanel::Transferring << u"AUTO"_s;
    QTest::newRow("off, error") << VfdPanel::Off << VfdPanel::Error << u"OFF ERR"_s;
    QTest::newRow("manual, error") << VfdPanel::Manual << VfdPanel::Error << u"MANUAL ERR"_s;
    QTest::newRow("auto, error") << VfdPanel::Auto << VfdPanel::Error << u"AUTO ERR"_s;
}

void TestVfdPanel::modePills()
{
    QFETCH(const VfdPanel::Mode, mode);
    QFETCH(const VfdPanel::Link, link);
    QFETCH(const QString, lit);
    VfdPanel panel;
    panel.setMode(mode);
    panel.setLink(link, {});
    panel.setSyncModeLabel(u"Full sync"_s);
    for (const int width : {620, 1200}) {
        const QImage picture = pictureOf(panel, width, 2.0);
        const struct
        {
            QString text;
            QColor colour;
        } pills[] = {{u"AUTO"_s, cyan}, {u"MANUAL"_s, cyan}, {u"OFF"_s, cyanMid}, {u"ERR"_s, red}};
        double left = 18.5;
        for (const auto &pill : pills) {
            const bool isLit = lit.split(u' ').contains(pill.text);
            QColor faint = pill.colour;
            faint.setAlpha(70);
            QVERIFY2(isPill(picture, left, pill.text, isLit ? pill.colour : over(glass, pill.colour, 60),
                            isLit ? pill.colour : faint, glass),
                     qPrintable(pill.text));
            left += pillWidth(pill.text) + 6.0;
        }
        QVERIFY(isPill(picture, left + 6.0, u"FULL SYNC"_s, cyan, cyan, pillFill));
    }
}

void TestVfdPanel::pillsStandSixPixelsApart()
{
    VfdPanel panel;
    panel.setMode(VfdPanel::Auto);
    const double ratio = 8.0;
    const QImage picture = pictureOf(panel, 740, ratio);
    const double right = 18.5 + pillWidth(u"AUTO"_s);
    QCOMPARE(at(picture, 18.7, 112.0), cyan);
    QCOMPARE(at(picture, 19.3, 112.0), cyan);
    QCOMPARE(at(picture, 18.3, 112.0), glass);
    QCOMPARE(at(picture, 19.7, 112.0), glass);
    QCOMPARE(at(picture, right - 0.3, 112.0), cyan);
    QCOMPARE(at(picture, right + 0.3, 112.0), glass);
    QCOMPARE(at(picture, right + 5.7, 112.0), glass);
    COMPARE_COLOUR(at(picture, right + 6.4, 112.0), over(glass, cyan, 60));
    // Corners of two pixels: the point of the corner is bare.
    QCOMPARE(at(picture, 18.7, 100.7), glass);
    QCOMPARE(at(picture, 21.3, 100.7), cyan);
    QCOMPARE(at(picture, 18.7, 103.3), cyan);
}

void TestVfdPanel::aPillMovesTheRow()
{
    const OpenPanel panel;
    QRectF row(10.0, 10.0, 200.0, 24.0);
    onGlass({220, 50}, [&](QPainter &p) { panel.drawPill(p, &row, u"TEXT"_s, true, cyan, false); });
    const double taken = pillWidth(u"TEXT"_s) + 6.0;
    QCOMPARE(row, QRectF(10.0 + taken, 10.0, 200.0 - taken, 24.0));

    // A filled pill that is not active is as bare as any other.
    const auto paint = [&](bool filled) {
        return onGlass({220, 50}, [&](QPainter &p) {
            QRectF place(10.0, 10.0, 200.0, 24.0);
            panel.drawPill(p, &place, u"TEXT"_s, false, amber, filled);
        });
    };
    QCOMPARE(paint(true), paint(false));
    COMPARE_COLOUR(at(paint(true), 14.0, 14.0), glass);
}

void TestVfdPanel::aPillWithoutTextIsStillDrawn()
{
    VfdPanel panel;
    panel.setSyncModeLabel({});
    const QImage picture = pictureOf(panel, 740, 8.0);
    double left = 18.5 + 30.0;
    for (const QString &text : {u"AUTO"_s, u"MANUAL"_s, u"OFF"_s, u"ERR"_s})
        left += pillWidth(text);
    QCOMPARE(at(picture, left + 0.4, 112.0), cyan);
    QCOMPARE(at(picture, left + 9.0, 112.0), pillFill);
    QCOMPARE(at(picture, left + 17.6, 112.0), cyan);
    QCOMPARE(at(picture, left + 18.4, 112.0), glass);
}

void TestVfdPanel::linkTextStandsRight_data()
{
    QTest::addColumn<VfdPanel::Link>("link");
    QTest::addColumn<QString>("host");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QColor>("colour");
    const auto row = [](const char *what, VfdPanel::Link link, const QString &host, const QString &text,
                        const QColor &colour) { QTest::newRow(what) << link << host << text << colour; };
    row("no host", VfdPanel::Connecting, {}, u"CONNECTING"_s, amber);
    row("offline", VfdPanel::Offline, u"a.example"_s, u"FTP · OFFLINE · A.EXAMPLE"_s, cyanDim);
    row("connecting", VfdPanel::Connecting, u"a.example"_s, u"FTP · CONNECTING · A.EXAMPLE"_s, amber);
    row("connected", VfdPanel::Connected, u"a.example"_s, u"FTP · CONNECTED · A.EXAMPLE"_s, cyan);
    row("transferring", VfdPanel::Transferring, u"a.ex"_s, u"FTP · TRANSFERRING · A.EX"_s, cyan);
    row("error", VfdPanel::Error, u"a.example"_s, u"FTP · ERROR · A.EXAMPLE"_s, red);
    row("placeholders", VfdPanel::Offline, u"%1%2"_s, u"FTP · OFFLINE · %1%2"_s, cyanDim);
}

void TestVfdPanel::linkTextStandsRight()
{
    QFETCH(const VfdPanel::Link, link);
    QFETCH(const QString, host);
    QFETCH(const QString, text);
    QFETCH(const QColor, colour);
    VfdPanel panel;
    panel.setLink(link, u"detail"_s);
    panel.setHost(host);
    const QRectF zone(18.5, 100.5, 703.0, 24.0);
    QVERIFY(holds(pictureOf(panel, 740), {text, zone, colour, rightMiddle}, {450.0, 100.5, 271.5, 24.0}));
    const QRectF wide(18.5, 100.5, 1163.0, 24.0);
    QVERIFY(
        holds(pictureOf(panel, 1200, 2.0), {text, wide, colour, rightMiddle}, {450.0, 100.5, 731.5, 24.0}));
}

void TestVfdPanel::aLongHostRunsAcrossThePills()
{
    VfdPanel panel;
    const QString host = QString(60, u'w') + u".example"_s;
    panel.setHost(host);
    const QImage after = pictureOf(panel, 740);
    // The text stands over the pills, and nothing of it is cut.
    panel.setHost(QString());
    QImage wanted = pictureOf(panel, 740);
    const QRectF zone(18.5, 100.5, 703.0, 24.0);
    QPainter p(&wanted);
    p.fillRect(QRectF(560.0, 100.5, 161.5, 24.0).toAlignedRect(), glass); // where "OFFLINE" stood
    p.setFont(captionFont());
    p.setPen(cyanDim);
    p.drawText(zone, rightMiddle, u"FTP · OFFLINE · "_s + host.toUpper());
    p.end();
    QCOMPARE(after, wanted);
}

// Footer.

void TestVfdPanel::lastActions_data()
{
    QTest::addColumn<bool>("running");
    QTest::addColumn<QString>("file");
    QTest::addColumn<QDateTime>("last");
    QTest::addColumn<QString>("text");
    const auto row = [](const char *what, bool running, const QString &file, const QDateTime &last,
                        const QString &text) { QTest::newRow(what) << running << file << last << text; };
    const QString path44 = u"/a/23456789/123456789/123456789/123456789/12"_s + u"z"_s;
    QCOMPARE(path44.size(), 45);
    const QDateTime last = day(9, 5, 7);
    row("never", false, {}, {}, u"LAST · NEVER"_s);
    row("never, running", true, {}, {}, u"LAST · NEVER"_s);
    row("last run", false, {}, last, u"LAST 09:05:07 · 3 NEW %1 %2"_s);
    row("last run, running without a file", true, {}, last, u"LAST 09:05:07 · 3 NEW %1 %2"_s);
    row("a file, not running", false, u"/a/b.txt"_s, last, u"LAST 09:05:07 · 3 NEW %1 %2"_s);
    row("a file", true, u"/a/b.txt"_s, last, u"XFER /A/B.TXT"_s);
    row("a file in the first run", true, u"/a/%1.txt"_s, {}, u"XFER /A/%1.TXT"_s);
    row("44 characters", true, path44.left(44), {}, u"XFER /A/23456789/123456789/123456789/123456789/12"_s);
    row("45 characters", true, path44, {}, u"XFER /A/23456789/123456789/123456789/123456789..."_s);
    row("cut before it is in capitals", true, QString(45, u'ß'), {},
        u"XFER "_s + QString(82, u'S') + u"..."_s);
}

void TestVfdPanel::lastActions()
{
    QFETCH(const bool, running);
    QFETCH(const QString, file);
    QFETCH(const QDateTime, last);
    QFETCH(const QString, text);
    VfdPanel panel;
    panel.setRunning(running);
    panel.setCurrentFile(file);
    panel.setLastRun(last, u"3 new %1 %2"_s);
    for (const VfdPanel::Link link : {VfdPanel::Offline, VfdPanel::Error}) { // amber whatever happens
        panel.setLink(link, {});
        QVERIFY(holds(pictureOf(panel, 740), {text, {18.5, 162.5, 703.0, 16.0}, amber, leftMiddle}));
        QVERIFY(holds(pictureOf(panel, 1200, 2.0), {text, {18.5, 162.5, 1163.0, 16.0}, amber, leftMiddle}));
    }
}

void TestVfdPanel::nextActions_data()
{
    QTest::addColumn<VfdPanel::Mode>("mode");
    QTest::addColumn<QDateTime>("next");
    QTest::addColumn<QString>("detail");
    QTest::addColumn<QString>("text");
    const auto row = [](const char *what, VfdPanel::Mode mode, const QDateTime &next, const QString &detail,
                        const QString &text) { QTest::newRow(what) << mode << next << detail << text; };
    const QDateTime next(QDate(2026, 3, 22), QTime(7, 5, 59));
    const QString detail46 = u"0123456789abcdefghijklmnopqrstuvwxyz0123456789"_s;
    row("nothing", VfdPanel::Auto, {}, {}, {});
    row("next run", VfdPanel::Auto, next, u"detail"_s, u"NEXT SUN 07:05"_s);
    row("next run by hand", VfdPanel::Manual, next, {}, u"NEXT SUN 07:05"_s);
    row("off", VfdPanel::Off, next, u"detail"_s, u"DETAIL"_s);
    row("off, no detail", VfdPanel::Off, next, {}, {});
    row("detail", VfdPanel::Auto, {}, u"Login refused: %1"_s, u"LOGIN REFUSED: %1"_s);
    row("46 characters", VfdPanel::Auto, {}, detail46, detail46.toUpper());
    row("47 characters", VfdPanel::Auto, {}, detail46 + u'x', detail46.toUpper());
    row("cut before it is in capitals", VfdPanel::Auto, {}, QString(47, u'ß'), QString(92, u'S'));
}

void TestVfdPanel::nextActions()
{
    QFETCH(const VfdPanel::Mode, mode);
    QFETCH(const QDateTime, next);
    QFETCH(const QString, detail);
    QFETCH(const QString, text);
    VfdPanel panel;
    panel.setMode(mode);
    panel.setNextRun(next);
    for (const VfdPanel::Link link : {VfdPanel::Offline, VfdPanel::Error}) {
        panel.setLink(link, detail);
        for (const bool running : {true, false}) {
            panel.setRunning(running);
            const QImage picture = pictureOf(panel, 1200);
            const QColor colour = link == VfdPanel::Error ? red : amber;
            QVERIFY(holds(picture, {text, {18.5, 162.5, 1163.0, 16.0}, colour, rightMiddle},
                          {200.0, 162.5, 981.5, 16.0}));
        }
        panel.setLink(link, {}); // an empty detail replaces the old one
        if (next.isValid() && mode != VfdPanel::Off)
            continue;
        QVERIFY(holds(pictureOf(panel, 1200), {{}, {}, amber, rightMiddle}, {200.0, 162.5, 981.5, 16.0}));
    }
}

void TestVfdPanel::footerTextsMayOverlap()
{
    VfdPanel panel;
    const QString detail(46, u'm');
    panel.setLink(VfdPanel::Offline, detail);
    panel.setRunning(true);
    panel.setCurrentFile(QString(44, u'm'));
    const QImage picture = pictureOf(panel, 620);
    QImage wanted = picture.copy();
    {
        QPainter p(&wanted);
        const QRectF zone(18.5, 162.5, 583.0, 16.0);
        p.fillRect(zone.toAlignedRect(), glass);
        p.setFont(captionFont());
        p.setPen(amber);
        p.drawText(zone, leftMiddle, u"XFER "_s + QString(44, u'M'));
        p.drawText(zone, rightMiddle, detail.toUpper());
    }
    QCOMPARE(picture, wanted);
}

// Timeline.

void TestVfdPanel::daySlots_data()
{
    QTest::addColumn<QDateTime>("now");
    QTest::addColumn<QList<QDateTime>>("marks");
    QTest::addColumn<QDateTime>("next");
    QTest::addColumn<QString>("halfHours");
    const auto row = [](const char *what, const QDateTime &now, const QList<QDateTime> &marks,
                        const QDateTime &next, const char *halfHours) {
        QTest::newRow(what) << now << marks << next << QString::fromLatin1(halfHours);
    };
    const QDateTime noon = day(12, 0);
    row("nothing ran", noon, {}, {}, "ppppppppppppppppppppppppp.......................");
    row("midnight", day(0, 0), {}, {}, "p...............................................");
    row("just before the half hour", day(0, 29, 59), {}, {},
        "p...............................................");
    row("the half hour", day(0, 30), {}, {}, "pp..............................................");
    row("the day's last second", day(23, 59, 59), {}, {}, "pppppppppppppppppppppppppppppppppppppppppppppppp");
    row("marks", noon, {day(0, 0), day(3, 29, 59), day(3, 30), day(11, 59, 59)}, {},
        "xpppppxxpppppppppppppppxp.......................");
    row("two in one half hour", noon, {day(6, 0), day(6, 29)}, {},
        "ppppppppppppxpppppppppppp.......................");
    row("a mark ahead", noon, {day(23, 59)}, {}, "ppppppppppppppppppppppppp......................x");
    row("a mark in the present", noon, {day(12, 10)}, {}, "ppppppppppppppppppppppppx.......................");
    row("marks of other days", noon, {noon.addDays(-1), noon.addDays(1), noon.addYears(-1)}, {},
        "ppppppppppppppppppppppppp.......................");
    row("marks without a time", noon, {QDateTime()}, {}, "ppppppppppppppppppppppppp.......................");
    row("next run ahead", noon, {}, day(18, 30), "ppppppppppppppppppppppppp............N..........");
    row("next run now", noon, {}, day(12, 29), "ppppppppppppppppppppppppN.......................");
    row("next run overdue", noon, {}, day(1, 0), "ppNpppppppppppppppppppppp.......................");
    row("next run tomorrow", day(23, 59), {}, day(0, 0).addDays(1),
        "pppppppppppppppppppppppppppppppppppppppppppppppp");
    row("next run at the same time yesterday", noon, {}, noon.addDays(-1),
        "ppppppppppppppppppppppppp.......................");
    row("next run over a mark", noon, {day(6, 0), day(18, 30)}, day(18, 45),
        "ppppppppppppxpppppppppppp............N..........");
    row("in another zone's time", noon, {QDateTime(QDate(2026, 3, 18), QTime(8, 0), QTimeZone(7200))}, {},
        "ppppppppppppxpppppppppppp.......................");
}

void TestVfdPanel::daySlots()
{
    QFETCH(const QDateTime, now);
    QFETCH(const QList<QDateTime>, marks);
    QFETCH(const QDateTime, next);
    QFETCH(const QString, halfHours);
    StillClock::set(now);
    VfdPanel panel;
    for (const QDateTime &mark : marks)
        panel.addActivityMark(mark);
    panel.setNextRun(next);
    QCOMPARE(dayOf(pictureOf(panel, 740)), halfHours); // with the mode off, too
    panel.setMode(VfdPanel::Auto);
    QCOMPARE(dayOf(pictureOf(panel, 620, 2.0)), halfHours);
    QCOMPARE(dayOf(pictureOf(panel, 1200)), halfHours);
}

void TestVfdPanel::slotsLieSideBySide_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<double>("step");
    QTest::addColumn<double>("gap");
    QTest::newRow("minimum") << 620 << 11.1875 << 1.56625;
    QTest::newRow("hint") << 740 << 13.6875 << 1.91625;
    QTest::newRow("wide") << 1200 << 23.270833 << 3.257917;
    QTest::newRow("so narrow that the gap is a pixel") << 400 << 6.604167 << 1.0;
}

void TestVfdPanel::slotsLieSideBySide()
{
    QFETCH(const int, width);
    QFETCH(const double, step);
    QFETCH(const double, gap);
    VfdPanel panel;
    for (int i = 0; i < 48; ++i)
        panel.addActivityMark(day(i / 2, i % 2 * 30));
    const QImage picture = pictureOf(panel, width, 8.0);
    for (const int i : {0, 1, 23, 47}) {
        const double left = 64.5 + i * step;
        const double right = left + step - gap;
        QCOMPARE(at(picture, left + 0.15, 137.0), cyanMid);
        QCOMPARE(at(picture, right - 0.15, 137.0), cyanMid);
        QCOMPARE(at(picture, left - 0.15, 137.0), glass);
        QCOMPARE(at(picture, right + 0.15, 137.0), glass);
        const double middle = (left + right) / 2.0;
        QCOMPARE(at(picture, middle, 129.6), cyanMid);
        QCOMPARE(at(picture, middle, 129.4), glass);
        QCOMPARE(at(picture, middle, 144.4), cyanMid);
        QCOMPARE(at(picture, middle, 144.6), glass);
        QVERIFY(at(picture, left + 0.15, 129.6) != cyanMid);
        QCOMPARE(at(picture, left + 0.4, 129.9), cyanMid);
    }
}

void TestVfdPanel::theNextRunIsFramed()
{
    VfdPanel panel;
    panel.setNextRun(day(17, 5));
    const QImage picture = pictureOf(panel, 740, 8.0);
    // Slot 34 runs from 529.875 to 541.64625, its frame's line from 2 to 1 pixels outside of it.
    QCOMPARE(at(picture, 530.1, 137.0), cyan);
    QCOMPARE(at(picture, 529.4, 137.0), glass);
    QCOMPARE(at(picture, 528.7, 137.0), cyan);
    QCOMPARE(at(picture, 528.1, 137.0), cyan);
    QCOMPARE(at(picture, 543.4, 133.0), cyan);
    QCOMPARE(at(picture, 542.0, 133.0), glass);
    for (const double y : {127.6, 128.4, 145.6, 146.4})
        QCOMPARE(at(picture, 535.0, y), cyan);
    for (const double y : {127.4, 128.6, 129.4, 144.6, 145.4, 146.6})
        QCOMPARE(at(picture, 535.0, y), glass);
    for (const double y : {129.6, 144.4})
        QCOMPARE(at(picture, 535.0, y), cyan);

    // In a narrow panel the frame reaches into its neighbours: over the one before, under the next.
    const QImage narrow = pictureOf(panel, 620, 8.0);
    QCOMPARE(at(narrow, 443.1, 137.0), cyan);
    COMPARE_COLOUR(at(narrow, 456.2, 137.0), over(cyan, cyanDim, 40));
}

void TestVfdPanel::onlyTheLatestMarksAreKept()
{
    VfdPanel panel;
    panel.addActivityMark(day(3, 0));
    for (int i = 0; i < 399; ++i)
        panel.addActivityMark(day(6, i % 30));
    QCOMPARE(dayOf(pictureOf(panel, 740)), u"ppppppxpppppxppppppppppppppppp.................."_s);
    panel.addActivityMark(day(9, 0));
    QCOMPARE(dayOf(pictureOf(panel, 740)), u"ppppppppppppxpppppxppppppppppp.................."_s);
    for (int i = 0; i < 399; ++i)
        panel.addActivityMark(day(12, 0));
    QCOMPARE(dayOf(pictureOf(panel, 740)), u"ppppppppppppppppppxpppppxppppp.................."_s);
    panel.addActivityMark(day(12, 0));
    QCOMPARE(dayOf(pictureOf(panel, 740)), u"ppppppppppppppppppppppppxppppp.................."_s);
}

void TestVfdPanel::midnightClearsTheDay()
{
    VfdPanel panel;
    panel.addActivityMark(day(6, 0));
    StillClock::set(day(23, 59, 59));
    QVERIFY(dayOf(pictureOf(panel, 740)).contains(u'x'));
    StillClock::set(day(0, 0).addDays(1));
    QCOMPARE(dayOf(pictureOf(panel, 740)), u'p' + QString(47, u'.'));
    StillClock::set(day(14, 40)); // the mark is skipped, not lost
    QVERIFY(dayOf(pictureOf(panel, 740)).contains(u'x'));
}

void TestVfdPanel::aClearedDayShowsNoRuns()
{
    VfdPanel panel;
    const QImage before = pictureOf(panel, 740);
    panel.addActivityMark(day(6, 0));
    panel.addActivityMark(day(9, 0));
    QVERIFY(pictureOf(panel, 740) != before);
    panel.clearActivity();
    QCOMPARE(pictureOf(panel, 740), before);
}

void TestVfdPanel::hoursAreLabelled_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<double>("ratio");
    for (const int width : {620, 740, 1200}) {
        QTest::addRow("%d", width) << width << 1.0;
        QTest::addRow("%d, twice as fine", width) << width << 2.0;
    }
}

void TestVfdPanel::hoursAreLabelled()
{
    QFETCH(const int, width);
    QFETCH(const double, ratio);
    VfdPanel panel;
    const QImage picture = pictureOf(panel, width, ratio);
    QVERIFY(holds(picture, {u"TODAY"_s, {18.5, 128.5, 42.0, 16.0}, cyanDim, leftMiddle}));
    const QFont plain = captionFont(6, QFont::Normal);
    const QString hours[] = {u"00"_s, u"06"_s, u"12"_s, u"18"_s, u"00"_s};
    for (int i = 0; i < 5; ++i) {
        const QRectF place(64.5 + i * (width - 83.0) / 4.0 - 12.0, 145.5, 24.0, 12.0);
        const QRectF onTheGlass = place.intersected(QRectF(0.0, 0.0, width - 8.0, 204.0));
        QVERIFY(holds(picture, {hours[i], place, cyanDim, topCentre, plain}, onTheGlass));
    }
}

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    TestVfdPanel test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_VfdPanel.moc"
