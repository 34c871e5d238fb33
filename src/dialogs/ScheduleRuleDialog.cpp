#include "dialogs/ScheduleRuleDialog.h"

#include "dialogs/ReadableColours.h"
#include "dialogs/SchedulePreview.h"

#include <QCheckBox>
#include <QDateTime>
#include <QDialogButtonBox>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QRegularExpression>
#include <QStringList>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr quint8 kAllDays = 127;
constexpr quint8 kMondayToFriday = 31;
constexpr quint8 kWeekend = 96;
constexpr quint32 kAllHours = 16777215;
constexpr quint32 kHours06To18 = 524224;
constexpr int kHoursPerRow = 12;
constexpr int kPreviewRuns = 4;

} // namespace

ScheduleRuleDialog::ScheduleRuleDialog(const ScheduleRule &rule, QWidget *parent) : QDialog(parent)
{
    setWindowTitle(tr("Schedule"));
    setModal(true);
    auto *layout = new QVBoxLayout(this);
    layout->setSpacing(8);
    layout->addLayout(buildDayRow());
    layout->addLayout(buildHourRow());
    layout->addLayout(buildHourGrid());
    layout->addLayout(buildMinuteRow());
    previewLabel = createSchedulePreview(52, this);
    previewLabel->setObjectName("previewLabel"_L1);
    layout->addWidget(previewLabel);
    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &ScheduleRuleDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &ScheduleRuleDialog::reject);
    layout->addWidget(buttons);

    setDays(rule.days);
    setHours(rule.hours);
    QStringList minutes;
    for (const int minute : rule.minutes)
        minutes += QString::number(minute);
    minutesEdit->setText(minutes.join(u", "_s));
    refreshPreview();
    resize(540, 340);
}

QBoxLayout *ScheduleRuleDialog::buildDayRow()
{
    const QString names[] = {tr("Mon"), tr("Tue"), tr("Wed"), tr("Thu"), tr("Fri"), tr("Sat"), tr("Sun")};
    const QString rowLabel = tr("Days:");
    auto *row = new QHBoxLayout;
    row->setSpacing(4);
    row->addWidget(new QLabel(rowLabel, this));
    for (size_t day = 0; day < dayBoxes.size(); ++day) {
        auto *box = new QCheckBox(names[day], this);
        box->setObjectName(u"dayBoxes%1"_s.arg(day));
        connect(box, &QCheckBox::toggled, this, &ScheduleRuleDialog::refreshPreview);
        row->addWidget(box);
        dayBoxes[day] = box;
    }
    row->addStretch(1);
    addPreset(row, rowLabel, tr("All"), [this] { setDays(kAllDays); });
    addPreset(row, rowLabel, tr("Mon-Fri"), [this] { setDays(kMondayToFriday); });
    addPreset(row, rowLabel, tr("Sat/Sun"), [this] { setDays(kWeekend); });
    return row;
}

QBoxLayout *ScheduleRuleDialog::buildHourRow()
{
    const QString rowLabel = tr("Hours:");
    auto *row = new QHBoxLayout;
    row->addWidget(new QLabel(rowLabel, this));
    row->addStretch(1);
    addPreset(row, rowLabel, tr("All"), [this] { setHours(kAllHours); });
    addPreset(row, rowLabel, tr("06-18"), [this] { setHours(kHours06To18); });
    addPreset(row, rowLabel, tr("None"), [this] { setHours(0); });
    return row;
}

QBoxLayout *ScheduleRuleDialog::buildHourGrid()
{
    auto *grid = new QGridLayout;
    grid->setSpacing(2);
    for (int hour = 0; hour < static_cast<int>(hourBoxes.size()); ++hour) {
        auto *box = new QCheckBox(u"%1"_s.arg(hour, 2, 10, QChar(u'0')), this);
        box->setObjectName(u"hourBoxes%1"_s.arg(hour));
        box->setAccessibleName(tr("Hours:") + u' ' + box->text()); // a bare number says little by itself
        box->setMaximumWidth(46);
        connect(box, &QCheckBox::toggled, this, &ScheduleRuleDialog::refreshPreview);
        grid->addWidget(box, hour / kHoursPerRow, hour % kHoursPerRow);
        hourBoxes[static_cast<size_t>(hour)] = box;
    }
    auto *row = new QHBoxLayout;
    row->addLayout(grid);
    row->addStretch(1);
    return row;
}

QBoxLayout *ScheduleRuleDialog::buildMinuteRow()
{
    auto *label = new QLabel(tr("Minutes past the hour:"), this);
    minutesEdit = new QLineEdit(this);
    minutesEdit->setObjectName("minutesEdit"_L1);
    minutesEdit->setMaximumWidth(180);
    minutesEdit->setMinimumWidth(180); // or the placeholder is cut
    minutesEdit->setPlaceholderText(tr("0    or    0, 30    or    55"));
    ensureReadablePlaceholder(minutesEdit);
    connect(minutesEdit, &QLineEdit::textChanged, this, &ScheduleRuleDialog::refreshPreview);
    label->setBuddy(minutesEdit);
    auto *row = new QHBoxLayout;
    row->addWidget(label);
    row->addWidget(minutesEdit);
    row->addStretch(1);
    return row;
}

template <typename Preset>
void ScheduleRuleDialog::addPreset(QBoxLayout *row, const QString &rowLabel, const QString &text,
                                   Preset preset)
{
    auto *button = new QToolButton(this);
    button->setText(text);
    button->setAccessibleName(rowLabel + u' ' + text); // two buttons are called alike
    connect(button, &QToolButton::clicked, this, preset);
    row->addWidget(button);
}

ScheduleRule ScheduleRuleDialog::rule() const
{
    ScheduleRule edited;
    edited.days = daysMask();
    edited.hours = hoursMask();
    if (const QList<int> minutes = minuteList(); !minutes.isEmpty())
        edited.minutes = minutes;
    return edited;
}

void ScheduleRuleDialog::accept()
{
    if (daysMask() == 0) {
        refuse(tr("Select at least one day."));
        return;
    }
    if (hoursMask() == 0) {
        refuse(tr("Select at least one hour."));
        return;
    }
    if (minuteList().isEmpty()) {
        refuse(tr("Enter at least one minute past the hour, for example 0 or 55."));
        minutesEdit->setFocus();
        return;
    }
    QDialog::accept();
}

void ScheduleRuleDialog::refuse(const QString &reason) { QMessageBox::warning(this, windowTitle(), reason); }

quint8 ScheduleRuleDialog::daysMask() const
{
    unsigned mask = 0;
    for (size_t day = 0; day < dayBoxes.size(); ++day)
        mask |= dayBoxes[day]->isChecked() ? 1U << day : 0U;
    return static_cast<quint8>(mask);
}

quint32 ScheduleRuleDialog::hoursMask() const
{
    quint32 mask = 0;
    for (size_t hour = 0; hour < hourBoxes.size(); ++hour)
        mask |= hourBoxes[hour]->isChecked() ? 1U << hour : 0U;
    return mask;
}

QList<int> ScheduleRuleDialog::minuteList() const
{
    static const QRegularExpression separators(u"[,;\\s]+"_s);
    QList<int> minutes;
    for (const QString &piece : minutesEdit->text().split(separators, Qt::SkipEmptyParts)) {
        bool ok = false;
        const int minute = piece.trimmed().toInt(&ok);
        if (ok && minute >= 0 && minute <= 59 && !minutes.contains(minute))
            minutes += minute;
    }
    std::sort(minutes.begin(), minutes.end());
    return minutes;
}

void ScheduleRuleDialog::setDays(quint8 mask)
{
    for (size_t day = 0; day < dayBoxes.size(); ++day)
        dayBoxes[day]->setChecked(mask & (1U << day));
    refreshPreview();
}

void ScheduleRuleDialog::setHours(quint32 mask)
{
    for (size_t hour = 0; hour < hourBoxes.size(); ++hour)
        hourBoxes[hour]->setChecked(mask & (1U << hour));
    refreshPreview();
}

void ScheduleRuleDialog::refreshPreview()
{
    if (!previewLabel)
        return;
    ScheduleRule edited = rule();
    edited.minutes = minuteList(); // without the fall-back: the box must not promise what is refused
    if (!edited.isUsable()) {
        previewLabel->setText(
            tr("<b>Nothing selected.</b> Pick at least one day, one hour and one minute past the hour."));
        return;
    }
    QList<QDateTime> runs;
    QDateTime cursor = QDateTime::currentDateTime();
    while (runs.size() < kPreviewRuns) {
        cursor = edited.nextAfter(cursor);
        if (!cursor.isValid())
            break;
        runs += cursor;
    }
    const QString perWeek = tr("%1 per week.").arg(pluralCount(edited.runsPerWeek(), tr("run"), tr("runs")));
    previewLabel->setText(schedulePreviewText(edited.label(), perWeek, tr("Next:"), runs));
}
