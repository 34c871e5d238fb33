#pragma once

#include "model/SyncJob.h"

#include <QDialog>
#include <QList>

#include <array>

class QBoxLayout;
class QCheckBox;
class QLabel;
class QLineEdit;

/**
 * The modal editor of one weekly rule.
 *
 * The rule is kept nowhere: the boxes and the text are the state, and all results come from them.
 */
class ScheduleRuleDialog : public QDialog
{
    Q_OBJECT

public:
    ScheduleRuleDialog(const ScheduleRule &rule, QWidget *parent);

    /** The rule as it stands in the dialog. Without a good minute it fires on the hour. */
    ScheduleRule rule() const;

    /** Refuses a rule without a day, an hour or a minute, and says which. */
    void accept() override;

    quint8 daysMask() const;
    quint32 hoursMask() const;
    /** The good numbers of the text, each once, ascending; what is no minute is left out in silence. */
    QList<int> minuteList() const;

    void setDays(quint8 mask);
    void setHours(quint32 mask);
    void refreshPreview();

private:
    QBoxLayout *buildDayRow();
    QBoxLayout *buildHourRow();
    QBoxLayout *buildHourGrid();
    QBoxLayout *buildMinuteRow();
    template <typename Preset>
    void addPreset(QBoxLayout *row, const QString &rowLabel, const QString &text, Preset preset);
    void refuse(const QString &reason);

    std::array<QCheckBox *, 7> dayBoxes = {};   ///< by their bit in the mask, from Monday
    std::array<QCheckBox *, 24> hourBoxes = {}; ///< by the hour, which is the bit in the mask
    QLineEdit *minutesEdit = nullptr;
    QLabel *previewLabel = nullptr; ///< null until the other widgets are there
};
