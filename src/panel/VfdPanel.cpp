#include "panel/VfdPanel.h"

#include <QFontMetricsF>
#include <QPainter>
#include <QPen>
#include <QPolygonF>
#include <QTimer>

#include <algorithm>
#include <array>
#include <cmath>

using namespace Qt::StringLiterals;

namespace {

constexpr QColor kBezel(0x14, 0x16, 0x17);
constexpr QColor kDisplayBg(0x09, 0x0B, 0x0C);
constexpr QColor kEdge(0x1C, 0x3E, 0x3B);
constexpr QColor kCyan(0x56, 0xF0, 0xE2);
constexpr QColor kCyanMid(0x39, 0xA0, 0x97);
constexpr QColor kCyanDim(0x1C, 0x66, 0x6A);
constexpr QColor kAmber(0xCC, 0x92, 0x35);
constexpr QColor kRed(0xE5, 0x48, 0x38);
constexpr QColor kPillBg(0x15, 0x2F, 0x2D);
constexpr QColor kGhost(0x56, 0xF0, 0xE2, 26); ///< what is not lit is still there

const QString kFontFamily = u"Segoe UI"_s;

constexpr int kLeftMiddle = int(Qt::AlignLeft | Qt::AlignVCenter);
constexpr int kRightMiddle = int(Qt::AlignRight | Qt::AlignVCenter);
constexpr int kTopCentre = int(Qt::AlignHCenter | Qt::AlignTop);

// The widget and its zones.
constexpr QSize kSizeHint(740, 204);
constexpr QSize kMinimumSize(620, 204);
constexpr double kBezelWidth = 6.0;
constexpr double kBezelRadius = 4.0;
constexpr double kGlassRadius = 3.0;
constexpr double kMarginX = 12.0;
constexpr double kMarginY = 8.0;
constexpr double kHalfGap = 8.0; ///< to either side between the digits and the meters
constexpr double kDigitsShare = 0.44;
constexpr double kDigitsWidest = 320.0;

struct Row
{
    double top; ///< below the content's upper edge
    double height;
};
constexpr Row kUpperRow{0.0, 84.0};
constexpr Row kPillsRow{86.0, 24.0};
constexpr Row kTimelineRow{114.0, 32.0};
constexpr Row kFooterRow{148.0, 16.0};
constexpr double kHeaderHeight = 12.0; ///< the captions over the digits and over the meters

// Digits.
constexpr double kDigitsTop = 16.0;
constexpr double kDigitsTaken = 18.0; ///< height of the zone that the digits leave alone
constexpr double kDigitTallest = 58.0;
constexpr double kDigitAspect = 0.56;
constexpr double kCellGap = 5.0;
constexpr double kColonWidth = 12.0;
constexpr double kStrokeShare = 0.115;
constexpr double kDotShare = 0.1;
constexpr double kThinnest = 4.0; ///< of strokes and dots
constexpr double kDotHeights[] = {0.32, 0.68};
constexpr double kHaloWidth = 2.0;
constexpr int kHaloAlpha = 60;
constexpr double kGlowWidth = 6.0;
constexpr int kGlowAlpha = 50;
constexpr double kJobNameShare = 0.62;
constexpr qint64 kLongestSeconds = 359999; ///< 99:59:59

constexpr int kDash = -2;
constexpr int kDashMask = 0x40;
constexpr int kDigitMask[] = {0x3F, 0x06, 0x5B, 0x4F, 0x66, 0x6D, 0x7D, 0x07, 0x7F, 0x6F};

// Pills.
constexpr double kPillPadding = 9.0;
constexpr double kPillGap = 6.0;
constexpr double kPillRadius = 2.0;
constexpr int kFaintFrameAlpha = 60;
constexpr int kFaintTextAlpha = 70;

// Meters.
constexpr int kMeterSegments = 26;
constexpr double kMeterCaption = 26.0;
constexpr double kMeterCaptionText = 22.0;
constexpr Row kFileMeter{16.0, 15.0};
constexpr Row kRateMeter{34.0, 15.0};
constexpr Row kMeterScale{52.0, 11.0};
constexpr double kMeterScaleWidth = 28.0;
constexpr double kMeterGapShare = 0.16;
constexpr double kNarrowestGap = 1.0;
constexpr double kSegmentRadius = 1.0;
constexpr int kDarkSegmentAlpha = 38;
constexpr double kAmberAbove = 0.66;
constexpr double kRedAbove = 0.86;
constexpr double kRounding = 1e-6; ///< a full meter lights its last segment, whatever the division lost
constexpr double kKilobyte = 1024.0;
constexpr double kMegabyte = 1048576.0;
constexpr double kSlowestShown = 0.02;
constexpr double kRateDecade = 0.25; ///< four decades of KB/S fill the bar

// Timeline.
constexpr int kMostMarks = 400;
constexpr int kSlots = 48; ///< half hours
constexpr double kTimelineCaption = 46.0;
constexpr double kTimelineCaptionText = 42.0;
constexpr double kTimelineCaptionHeight = 16.0;
constexpr Row kSlotRow{1.0, 15.0};
constexpr double kSlotGapShare = 0.14;
constexpr double kSlotRadius = 1.0;
constexpr double kNextFrameGrowth = 1.5;
constexpr double kNextFrameRadius = 2.0;
constexpr int kPastAlpha = 70;
constexpr int kAheadAlpha = 40;
constexpr Row kHourRow{17.0, 12.0};
constexpr double kHourWidth = 24.0;

// Footer.
constexpr qsizetype kLongestPath = 44;
constexpr qsizetype kCutPath = 41;
constexpr qsizetype kLongestDetail = 46;

QColor withAlpha(QColor colour, int alpha)
{
    colour.setAlpha(alpha);
    return colour;
}

QRectF grown(const QRectF &rect, double by) { return rect.adjusted(-by, -by, by, by); }

QRectF rowIn(const QRectF &zone, const Row &row)
{
    return {zone.x(), zone.y() + row.top, zone.width(), row.height};
}

QPolygonF horizontalSegment(double x1, double x2, double y, double t)
{
    const double h = 0.5 * t;
    return {{{x1, y}, {x1 + h, y - h}, {x2 - h, y - h}, {x2, y}, {x2 - h, y + h}, {x1 + h, y + h}}};
}

QPolygonF verticalSegment(double x, double y1, double y2, double t)
{
    const double h = 0.5 * t;
    return {{{x, y1}, {x + h, y1 + h}, {x + h, y2 - h}, {x, y2}, {x - h, y2 - h}, {x - h, y1 + h}}};
}

void drawSegment(QPainter &p, const QPolygonF &shape, const QColor &colour, bool lit)
{
    if (lit) {
        p.setPen(QPen(withAlpha(colour, kGlowAlpha), kGlowWidth, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        p.setBrush(Qt::NoBrush);
        p.drawPolygon(shape, Qt::OddEvenFill);
    }
    p.setPen(Qt::NoPen);
    p.setBrush(lit ? colour : kGhost);
    p.drawPolygon(shape, Qt::OddEvenFill);
}

int segmentMask(int digit)
{
    if (digit == kDash)
        return kDashMask;
    return digit >= 0 && digit <= 9 ? kDigitMask[digit] : 0;
}

/** Hours, minutes and seconds in reading order; dashes for a negative time. */
std::array<int, 6> clockDigits(qint64 seconds)
{
    if (seconds < 0)
        return {kDash, kDash, kDash, kDash, kDash, kDash};
    const int s = int(std::min(seconds, kLongestSeconds));
    const int hours = s / 3600;
    const int minutes = s % 3600 / 60;
    return {hours / 10, hours % 10, minutes / 10, minutes % 10, s % 60 / 10, s % 10};
}

QColor zoneColour(double fraction)
{
    if (fraction > kRedAbove)
        return kRed;
    return fraction > kAmberAbove ? kAmber : kCyanMid;
}

QString rateText(double rate)
{
    if (!(rate > 0.0))
        return u"---"_s;
    if (rate < kMegabyte)
        return u"%1 KB/S"_s.arg(QString::number(rate / kKilobyte, 'f', 0));
    return u"%1 MB/S"_s.arg(QString::number(rate / kMegabyte, 'f', 1));
}

/** The length of the rate's bar; -1.0 for no reading. */
double rateValue(double rate)
{
    if (!(rate > 0.0))
        return -1.0;
    const double kilobytes = rate / kKilobyte;
    if (kilobytes <= 1.0)
        return kSlowestShown;
    return std::clamp(kRateDecade * std::log10(kilobytes), kSlowestShown, 1.0);
}

int slotOf(const QTime &time) { return 2 * time.hour() + (time.minute() >= 30 ? 1 : 0); }

/** The half hour of `when`, or -1 if it is not on that day. */
int slotOnDay(const QDateTime &when, const QDate &day)
{
    const QDateTime local = when.toLocalTime();
    return local.isValid() && local.date() == day ? slotOf(local.time()) : -1;
}

void drawNextRunSlot(QPainter &p, const QRectF &slot)
{
    p.setBrush(kCyan);
    p.drawRoundedRect(slot, kSlotRadius, kSlotRadius);
    p.setPen(QPen(kCyan, 1.0));
    p.setBrush(Qt::NoBrush);
    p.drawRoundedRect(grown(slot, kNextFrameGrowth), kNextFrameRadius, kNextFrameRadius);
    p.setPen(Qt::NoPen);
}

} // namespace

PanelLayout PanelLayout::forWidget(const QRectF &widget)
{
    PanelLayout layout;
    layout.bezel = grown(widget, -0.5);
    layout.glass = grown(layout.bezel, -kBezelWidth);

    const QRectF content(layout.glass.x() + kMarginX, layout.glass.y() + kMarginY,
                         layout.glass.width() - 2.0 * kMarginX, 0.0);
    const QRectF upper = rowIn(content, kUpperRow);
    const double left = std::min(kDigitsWidest, kDigitsShare * content.width());
    layout.digits = QRectF(upper.x(), upper.y(), left - kHalfGap, upper.height());
    layout.meters =
        QRectF(upper.x() + left + kHalfGap, upper.y(), upper.width() - left - kHalfGap, upper.height());
    layout.pills = rowIn(content, kPillsRow);
    layout.timeline = rowIn(content, kTimelineRow);
    layout.footer = rowIn(content, kFooterRow);
    return layout;
}

VfdPanel::VfdPanel(QWidget *parent) : QWidget(parent), blinkTimer(new QTimer(this))
{
    setAutoFillBackground(false);
    setAttribute(Qt::WA_OpaquePaintEvent, false);
    blinkTimer->setObjectName(u"blinkTimer"_s);
    blinkTimer->setInterval(500);
    connect(blinkTimer, &QTimer::timeout, this, [this] {
        colonOn = !colonOn;
        update();
    });
    blinkTimer->start();
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
    describe();
}

VfdPanel::~VfdPanel() = default;

void VfdPanel::nameFontStandIns()
{
    QFont::insertSubstitutions(kFontFamily, {u"Open Sans"_s, u"Noto Sans"_s});
}

QSize VfdPanel::sizeHint() const { return kSizeHint; }

QSize VfdPanel::minimumSizeHint() const { return kMinimumSize; }

// What the panel is told.

void VfdPanel::setMode(Mode newMode)
{
    mode = newMode;
    describe();
    update();
}

void VfdPanel::setLink(Link newLink, const QString &detail)
{
    link = newLink;
    linkDetail = detail;
    describe();
    update();
}

void VfdPanel::setHost(const QString &newHost)
{
    host = newHost;
    describe();
    update();
}

void VfdPanel::setJobName(const QString &name)
{
    jobName = name.toUpper();
    describe();
    update();
}

void VfdPanel::setSyncModeLabel(const QString &label)
{
    syncModeLabel = label.toUpper();
    update();
}

void VfdPanel::setCurrentFile(const QString &path)
{
    const bool isNew = path != currentFile; // told at every step of a file's way
    currentFile = path;
    if (isNew)
        describe();
    update();
}

void VfdPanel::setRate(double bytesPerSecond)
{
    rate = bytesPerSecond;
    update();
}

void VfdPanel::setFileProgress(double fraction)
{
    fileProgress = fraction;
    update();
}

void VfdPanel::setNextRun(const QDateTime &when)
{
    nextRun = when;
    describe();
    update();
}

void VfdPanel::setLastRun(const QDateTime &when, const QString &summary)
{
    lastRun = when;
    lastRunText = summary.toUpper();
    describe();
    update();
}

void VfdPanel::setRunning(bool on)
{
    if (on && !running)
        runStart = QDateTime::currentDateTime();
    running = on;
    if (!on) {
        rate = 0.0;
        fileProgress = -1.0;
        currentFile.clear();
    }
    describe();
    update();
}

void VfdPanel::addActivityMark(const QDateTime &when)
{
    activityMarks.append(when);
    while (activityMarks.size() > kMostMarks)
        activityMarks.removeFirst();
    update();
}

void VfdPanel::clearActivity()
{
    activityMarks.clear();
    update();
}

// What follows from it.

qint64 VfdPanel::secondsToNextRun() const
{
    if (!nextRun.isValid())
        return -1;
    return std::max<qint64>(0, QDateTime::currentDateTime().secsTo(nextRun));
}

qint64 VfdPanel::shownSeconds() const
{
    if (running && runStart.isValid())
        return runStart.secsTo(QDateTime::currentDateTime()); // negative once the clock is set back
    return mode == Off ? -1 : secondsToNextRun();
}

QColor VfdPanel::linkColour() const
{
    switch (link) {
    case Offline:
        return kCyanDim;
    case Connecting:
        return kAmber;
    case Error:
        return kRed;
    default:
        return kCyan;
    }
}

QString VfdPanel::linkText() const
{
    switch (link) {
    case Connecting:
        return u"CONNECTING"_s;
    case Connected:
        return u"CONNECTED"_s;
    case Transferring:
        return u"TRANSFERRING"_s;
    case Error:
        return u"ERROR"_s;
    default:
        return u"OFFLINE"_s;
    }
}

QString VfdPanel::lastActionText() const
{
    if (running && !currentFile.isEmpty()) {
        const bool isLong = currentFile.size() > kLongestPath;
        const QString shown = isLong ? currentFile.left(kCutPath) + u"..."_s : currentFile;
        return u"XFER %1"_s.arg(shown.toUpper());
    }
    if (lastRun.isValid())
        return u"LAST %1 · %2"_s.arg(lastRun.toString(u"HH:mm:ss"_s), lastRunText);
    return u"LAST · NEVER"_s;
}

QString VfdPanel::nextActionText() const
{
    if (nextRun.isValid() && mode != Off)
        return u"NEXT %1"_s.arg(nextRun.toString(u"ddd HH:mm"_s)).toUpper();
    return linkDetail.left(kLongestDetail).toUpper();
}

// What the face says, for those who cannot see it. The clock and the meters are left out: they would
// make it change all the time.

QString VfdPanel::linkInWords() const
{
    switch (link) {
    case Connecting:
        return host.isEmpty() ? tr("Connecting.") : tr("Connecting to %1.").arg(host);
    case Connected:
        return host.isEmpty() ? tr("Connected.") : tr("Connected to %1.").arg(host);
    case Transferring:
        return host.isEmpty() ? tr("Transferring.") : tr("Transferring from %1.").arg(host);
    case Error:
        return linkDetail.isEmpty() ? tr("Error.") : tr("Error: %1.").arg(linkDetail);
    default:
        return tr("Offline.");
    }
}

QStringList VfdPanel::stateInWords() const
{
    QStringList words;
    switch (mode) {
    case Auto:
        words += tr("AUTO is on.");
        break;
    case Manual:
        words += tr("Started by hand.");
        break;
    default:
        words += tr("AUTO is off.");
    }
    if (!jobName.isEmpty())
        words += (running ? tr("Running: %1.") : tr("Job: %1.")).arg(jobName);
    words += linkInWords();
    if (running && !currentFile.isEmpty())
        words += tr("File: %1.").arg(currentFile);
    if (nextRun.isValid() && mode != Off)
        words += tr("Next run: %1.").arg(nextRun.toString(u"dddd HH:mm"_s));
    words += lastRun.isValid() ? tr("Last run: %1, %2.").arg(lastRun.toString(u"HH:mm"_s), lastRunText)
                               : tr("No last run.");
    return words;
}

void VfdPanel::describe()
{
    const QString words = stateInWords().join(u' ');
    if (words != accessibleDescription()) // or each setting would be announced as news
        setAccessibleDescription(words);
}

QFont VfdPanel::labelFont(int pointSize, bool bold) const
{
    QFont font(kFontFamily, pointSize, bold ? QFont::DemiBold : QFont::Normal);
    font.setStyleHint(QFont::SansSerif, QFont::PreferDefault);
    font.setLetterSpacing(QFont::AbsoluteSpacing, 1.2);
    return font;
}

// The face. Every routine sets its own font, pen and brush.

void VfdPanel::drawLabel(QPainter &p, const QRectF &rect, const QString &text, const QColor &colour,
                         int flags) const
{
    p.setFont(labelFont(7, true));
    p.setPen(colour);
    p.drawText(rect, flags, text);
}

void VfdPanel::paintEvent(QPaintEvent * /*event*/)
{
    const PanelLayout layout = PanelLayout::forWidget(rect());
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);

    p.setPen(Qt::NoPen);
    p.setBrush(kBezel);
    p.drawRoundedRect(layout.bezel, kBezelRadius, kBezelRadius);
    p.setPen(QPen(kEdge, 1.0));
    p.setBrush(kDisplayBg);
    p.drawRoundedRect(layout.glass, kGlassRadius, kGlassRadius);

    drawDigits(p, layout.digits);
    drawMeters(p, layout.meters);
    drawPills(p, layout.pills);
    drawTimeline(p, layout.timeline);
    drawFooter(p, layout.footer);
}

void VfdPanel::drawDigits(QPainter &p, const QRectF &zone)
{
    drawClockCaption(p, zone);

    const double height = std::min(kDigitTallest, zone.height() - kDigitsTaken);
    const double width = kDigitAspect * height;
    const double top = zone.y() + kDigitsTop;
    const std::array<int, 6> digits = clockDigits(shownSeconds());
    const QColor colour = link == Error ? kRed : kCyan;
    const bool colonLit = colonOn || !running;
    constexpr double colonStep = kColonWidth + kCellGap;
    for (int i = 0; i < 6; ++i) {
        const int colonsBefore = i / 2;
        const double x = zone.x() + i * (width + kCellGap) + colonsBefore * colonStep;
        if (i == 2 || i == 4)
            drawColon(p, QRectF(x - colonStep, top, kColonWidth, height), colour, colonLit);
        const int digit = digits.at(size_t(i));
        if (i == 0 && digit == 0)
            continue; // no unlit segments either: the cell stays black below ten hours
        drawSegmentDigit(p, QRectF(x, top, width, height), digit, colour);
    }
}

void VfdPanel::drawClockCaption(QPainter &p, const QRectF &zone) const
{
    const QRectF row(zone.x(), zone.y(), zone.width(), kHeaderHeight);
    p.setFont(labelFont(7, true));
    p.setPen(kCyanDim);
    p.drawText(row, kLeftMiddle, running ? u"ELAPSED"_s : u"NEXT SYNC IN"_s);
    if (jobName.isEmpty())
        return;
    p.setPen(link == Error ? kRed : kCyanMid);
    const int widest = int(kJobNameShare * zone.width());
    p.drawText(row, kRightMiddle, p.fontMetrics().elidedText(jobName, Qt::ElideRight, widest));
}

void VfdPanel::drawSegmentDigit(QPainter &p, const QRectF &cell, int digit, const QColor &colour) const
{
    if (digit == -1)
        return;
    const double t = std::max(kThinnest, kStrokeShare * cell.height());
    const double inset = t / 2.0;
    const double left = cell.x() + inset;
    const double right = cell.x() + cell.width() - inset;
    const double top = cell.y() + inset;
    const double bottom = cell.y() + cell.height() - inset;
    const double mid = cell.y() + 0.5 * cell.height();
    const struct
    {
        int bit;
        QPolygonF shape;
    } segments[] = {
        {0x01, horizontalSegment(left, right, top, t)},    {0x40, horizontalSegment(left, right, mid, t)},
        {0x08, horizontalSegment(left, right, bottom, t)}, {0x20, verticalSegment(left, top, mid, t)},
        {0x02, verticalSegment(right, top, mid, t)},       {0x10, verticalSegment(left, mid, bottom, t)},
        {0x04, verticalSegment(right, mid, bottom, t)},
    };
    // Glow and body of one segment before those of the next: a segment covers its forerunners' glow.
    const int mask = segmentMask(digit);
    for (const auto &segment : segments)
        drawSegment(p, segment.shape, colour, (mask & segment.bit) != 0);
}

void VfdPanel::drawColon(QPainter &p, const QRectF &cell, const QColor &colour, bool lit) const
{
    const double d = std::max(kThinnest, kDotShare * cell.height());
    const double radius = d / 2.0;
    const double centre = cell.x() + 0.5 * cell.width();
    p.setPen(Qt::NoPen);
    for (const double fraction : kDotHeights) {
        const QRectF dot(centre - radius, cell.y() + fraction * cell.height() - radius, d, d);
        if (lit) {
            p.setBrush(withAlpha(colour, kHaloAlpha));
            p.drawEllipse(grown(dot, kHaloWidth));
        }
        p.setBrush(lit ? colour : kGhost);
        p.drawEllipse(dot);
    }
}

void VfdPanel::drawMeters(QPainter &p, const QRectF &zone)
{
    const QRectF header(zone.x(), zone.y(), 0.6 * zone.width(), kHeaderHeight);
    p.setFont(labelFont(7, true));
    p.setPen(kCyanDim);
    p.drawText(header, kLeftMiddle, u"TRANSFER"_s);
    p.setPen(rate > 0.0 ? kCyanMid : kCyanDim);
    p.drawText(header.translated(0.4 * zone.width(), 0.0), kRightMiddle, rateText(rate));

    drawMeterRow(p, rowIn(zone, kFileMeter), u"FILE"_s, fileProgress, false);
    drawMeterRow(p, rowIn(zone, kRateMeter), u"RATE"_s, rateValue(rate), true);

    const struct
    {
        double fraction;
        QString text;
    } marks[] = {{0.0, u"0"_s}, {0.25, u"25"_s}, {0.5, u"50"_s}, {0.75, u"75"_s}, {1.0, u"100%"_s}};
    const QRectF scale = rowIn(zone, kMeterScale);
    p.setFont(labelFont(6, false));
    p.setPen(kCyanDim);
    for (const auto &mark : marks) {
        const double centre = zone.x() + kMeterCaption + mark.fraction * (zone.width() - kMeterCaption);
        const QRectF label(centre - kMeterScaleWidth / 2.0, scale.y(), kMeterScaleWidth, scale.height());
        p.drawText(label, Qt::AlignCenter, mark.text);
    }
}

void VfdPanel::drawMeterRow(QPainter &p, const QRectF &row, const QString &caption, double value,
                            bool zoned) const
{
    p.setFont(labelFont(6, true));
    p.setPen(kCyanDim);
    p.drawText(QRectF(row.x(), row.y(), kMeterCaptionText, row.height()), kLeftMiddle, caption);

    const double step = (row.width() - kMeterCaption) / kMeterSegments;
    const double gap = std::max(kMeterGapShare * step, kNarrowestGap);
    const double start = row.x() + kMeterCaption;
    p.setPen(Qt::NoPen);
    for (int i = 0; i < kMeterSegments; ++i) {
        const double fraction = double(i + 1) / kMeterSegments;
        const bool lit = value >= 0.0 && value + kRounding >= fraction;
        const QColor colour = zoned ? zoneColour(fraction) : kCyanMid;
        p.setBrush(lit ? colour : withAlpha(colour, kDarkSegmentAlpha));
        p.drawRoundedRect(QRectF(start + i * step, row.y(), step - gap, row.height()), kSegmentRadius,
                          kSegmentRadius);
    }
}

void VfdPanel::drawPills(QPainter &p, const QRectF &zone)
{
    QRectF row = zone;
    drawPill(p, &row, u"AUTO"_s, mode == Auto, kCyan, false);
    drawPill(p, &row, u"MANUAL"_s, mode == Manual, kCyan, false);
    drawPill(p, &row, u"OFF"_s, mode == Off, kCyanMid, false);
    drawPill(p, &row, u"ERR"_s, link == Error, kRed, false);
    row.setLeft(row.left() + kPillGap);
    drawPill(p, &row, syncModeLabel, true, kCyan, true);

    p.setFont(labelFont(7, true));
    p.setPen(linkColour());
    p.drawText(zone, kRightMiddle,
               host.isEmpty() ? linkText() : u"FTP · %1 · %2"_s.arg(linkText(), host.toUpper()));
}

void VfdPanel::drawPill(QPainter &p, QRectF *row, const QString &text, bool active, const QColor &colour,
                        bool filled) const
{
    p.setFont(labelFont(7, true));
    const double width = QFontMetricsF(p.font()).horizontalAdvance(text) + 2.0 * kPillPadding;
    const QRectF pill(row->x(), row->y(), width, row->height());

    p.setPen(QPen(withAlpha(colour, active ? 255 : kFaintFrameAlpha), 1.0));
    p.setBrush(filled && active ? QBrush(kPillBg) : QBrush(Qt::NoBrush));
    p.drawRoundedRect(grown(pill, -0.5), kPillRadius, kPillRadius);

    p.setPen(active ? colour : withAlpha(colour, kFaintTextAlpha));
    p.drawText(pill, Qt::AlignCenter, text);
    row->setLeft(pill.right() + kPillGap);
}

void VfdPanel::drawTimeline(QPainter &p, const QRectF &zone)
{
    p.setFont(labelFont(7, true));
    p.setPen(kCyanDim);
    p.drawText(QRectF(zone.x(), zone.y(), kTimelineCaptionText, kTimelineCaptionHeight), kLeftMiddle,
               u"TODAY"_s);

    const QRectF strip = zone.adjusted(kTimelineCaption, 0.0, 0.0, 0.0);
    drawTimelineSlots(p, strip);

    const QRectF hours = rowIn(strip, kHourRow);
    p.setFont(labelFont(6, false));
    p.setPen(kCyanDim);
    for (int hour = 0; hour <= 24; hour += 6) { // the end of the day is the next one's 00
        const double centre = strip.x() + hour / 24.0 * strip.width();
        const QRectF label(centre - kHourWidth / 2.0, hours.y(), kHourWidth, hours.height());
        p.drawText(label, kTopCentre, u"%1"_s.arg(hour % 24, 2, 10, QChar(u'0')));
    }
}

void VfdPanel::drawTimelineSlots(QPainter &p, const QRectF &strip) const
{
    const QDateTime now = QDateTime::currentDateTime();
    std::array<bool, kSlots> lit = {};
    for (const QDateTime &mark : activityMarks) {
        const int slot = slotOnDay(mark, now.date());
        if (slot >= 0)
            lit.at(size_t(slot)) = true;
    }
    const int next = slotOnDay(nextRun, now.date());
    const int present = slotOf(now.time());

    const double step = strip.width() / kSlots;
    const double gap = std::max(kSlotGapShare * step, kNarrowestGap);
    const QRectF row = rowIn(strip, kSlotRow);
    p.setPen(Qt::NoPen);
    for (int i = 0; i < kSlots; ++i) {
        const QRectF slot(strip.x() + i * step, row.y(), step - gap, row.height());
        if (i == next) {
            drawNextRunSlot(p, slot);
            continue;
        }
        if (lit.at(size_t(i)))
            p.setBrush(kCyanMid);
        else
            p.setBrush(i <= present ? withAlpha(kCyanMid, kPastAlpha) : withAlpha(kCyanDim, kAheadAlpha));
        p.drawRoundedRect(slot, kSlotRadius, kSlotRadius);
    }
}

void VfdPanel::drawFooter(QPainter &p, const QRectF &zone)
{
    p.setFont(labelFont(7, true));
    p.setPen(kAmber);
    p.drawText(zone, kLeftMiddle, lastActionText());
    p.setPen(link == Error ? kRed : kAmber);
    p.drawText(zone, kRightMiddle, nextActionText());
}
