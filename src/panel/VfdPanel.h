#pragma once

#include <QDateTime>
#include <QList>
#include <QRectF>
#include <QString>
#include <QStringList>
#include <QWidget>

class QTimer;

/** Where the parts of the panel lie, in pixels of the widget. */
struct PanelLayout
{
    QRectF bezel = {};
    QRectF glass = {};
    QRectF digits = {};
    QRectF meters = {};
    QRectF pills = {};
    QRectF timeline = {};
    QRectF footer = {};

    /** All heights are fixed: what a taller widget has to spare stays empty under the footer. */
    static PanelLayout forWidget(const QRectF &widget);
};

/**
 * The status strip, painted like a vacuum fluorescent display: a clock, meters, pills, the day's
 * runs and a footer.
 *
 * A pure view: it shows what the setters told it, asks nobody and emits nothing. Only the clock is
 * its own, so it repaints itself twice a second. Belongs to the GUI thread.
 */
class VfdPanel : public QWidget
{
    Q_OBJECT

public:
    /** Which of the three mode pills is lit. */
    enum Mode : int {
        Off = 0,
        Manual = 1,
        Auto = 2,
    };

    /** The state of the connection, in the worker's own numbers. */
    enum Link : int {
        Offline = 0,
        Connecting = 1,
        Connected = 2,
        Transferring = 3,
        Error = 4,
    };

    explicit VfdPanel(QWidget *parent = nullptr);
    ~VfdPanel() override;

    /**
     * Names other families for the panel's font where it is missing. What a desktop picks by itself
     * can be so wide that captions lose a letter. To be called once, before the first panel is shown.
     */
    static void nameFontStandIns();

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

    void setMode(Mode newMode);
    void setLink(Link newLink, const QString &detail);
    void setHost(const QString &newHost);
    void setJobName(const QString &name);
    void setSyncModeLabel(const QString &label);
    void setCurrentFile(const QString &path);
    void setRate(double bytesPerSecond);

    /** 0.0 to 1.0, or negative if there is no file or its size is unknown. */
    void setFileProgress(double fraction);

    /** An invalid time means that there is none. */
    void setNextRun(const QDateTime &when);
    void setLastRun(const QDateTime &when, const QString &summary);

    /** Starting twice keeps the first start. Stopping clears the rate, the progress and the file. */
    void setRunning(bool on);

    /** Notes that a run which changed something has finished. The latest 400 are kept. */
    void addActivityMark(const QDateTime &when);
    void clearActivity();

    /** 0 for a run that is overdue, -1 for none. */
    qint64 secondsToNextRun() const;

    QColor linkColour() const;
    QString linkText() const;
    QFont labelFont(int pointSize, bool bold) const;

    /** Draws a caption in the panel's usual cut; `flags` as for QPainter::drawText(). */
    void drawLabel(QPainter &p, const QRectF &rect, const QString &text, const QColor &colour,
                   int flags) const;

protected:
    void paintEvent(QPaintEvent *event) override;

    void drawDigits(QPainter &p, const QRectF &zone);

    /** 0 to 9, -1 for nothing at all, -2 for a dash; any other number is a digit with nothing lit. */
    void drawSegmentDigit(QPainter &p, const QRectF &cell, int digit, const QColor &colour) const;
    void drawColon(QPainter &p, const QRectF &cell, const QColor &colour, bool lit) const;

    void drawMeters(QPainter &p, const QRectF &zone);

    /** A zoned bar turns amber and then red towards its end. A negative value lights nothing. */
    void drawMeterRow(QPainter &p, const QRectF &row, const QString &caption, double value, bool zoned) const;

    void drawPills(QPainter &p, const QRectF &zone);

    /** Draws at the left end of the row and moves the row's left edge past the pill. */
    void drawPill(QPainter &p, QRectF *row, const QString &text, bool active, const QColor &colour,
                  bool filled) const;

    void drawTimeline(QPainter &p, const QRectF &zone);
    void drawFooter(QPainter &p, const QRectF &zone);

private:
    void drawClockCaption(QPainter &p, const QRectF &zone) const;
    void drawTimelineSlots(QPainter &p, const QRectF &strip) const;
    qint64 shownSeconds() const;
    QString lastActionText() const;
    QString nextActionText() const;
    QString linkInWords() const;
    QStringList stateInWords() const;
    void describe();

    Mode mode = Off;
    Link link = Offline;
    QString linkDetail = {};
    QString host = {};
    QString jobName = {};                                    ///< in capitals
    QString syncModeLabel = QStringLiteral("NEW + CHANGED"); ///< in capitals
    QString currentFile = {};
    QString lastRunText = {}; ///< in capitals
    QDateTime nextRun = {};   ///< invalid if there is none
    QDateTime lastRun = {};   ///< invalid if there was none
    QDateTime runStart = {};
    double fileProgress = -1.0; ///< negative means no file
    double rate = 0.0;          ///< bytes per second
    bool running = false;
    bool colonOn = true;                 ///< phase of the colons' blinking
    QTimer *blinkTimer = nullptr;        ///< never stopped: the clock and the day move on by its repaints
    QList<QDateTime> activityMarks = {}; ///< oldest first
};
