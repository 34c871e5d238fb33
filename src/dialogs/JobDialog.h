#pragma once

#include "model/SyncJob.h"

#include <QDialog>
#include <QList>

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QPushButton;
class QRadioButton;
class QSpinBox;
class QToolButton;

/**
 * The modal editor of one job.
 *
 * It changes nothing but its own copy: whoever opened it fetches the result from job() and saves.
 */
class JobDialog : public QDialog
{
    Q_OBJECT

public:
    JobDialog(const SyncJob &job, QWidget *parent);
    ~JobDialog() override;

    /** The job as edited, once the dialog was accepted. What has no control is as it came. */
    SyncJob job() const;

    /** Refuses a job that could not run or would never fire; what was typed stays. */
    void accept() override;

private slots:
    void onBrowseLocal();
    void updateEnabledStates();

private:
    QWidget *buildServerTab();
    QWidget *buildFolderTab();
    QWidget *buildSyncTab();
    QWidget *buildScheduleTab();
    QWidget *buildRulesPanel(QWidget *tab);
    void fillIn();
    void refreshRuleList();
    void refreshPreview();
    void onAddRule();
    void onEditRule();
    void onRemoveRule();
    bool isCurrentRowARule() const;
    void refuse(const QString &reason);

    QLineEdit *nameEdit = nullptr;
    QCheckBox *enabledBox = nullptr;
    QLineEdit *hostEdit = nullptr;
    QSpinBox *portSpin = nullptr;
    QLineEdit *userEdit = nullptr;
    QLineEdit *passwordEdit = nullptr;
    QCheckBox *tlsBox = nullptr;
    QSpinBox *timeoutSpin = nullptr; ///< in seconds
    QLineEdit *remoteEdit = nullptr;
    QLineEdit *localEdit = nullptr;
    QToolButton *browseButton = nullptr;
    QLineEdit *excludeEdit = nullptr;
    QCheckBox *recursiveBox = nullptr;
    QComboBox *syncModeCombo = nullptr; ///< the index is the SyncMode
    QComboBox *compareCombo = nullptr;  ///< the index is the CompareBy
    QCheckBox *deleteBox = nullptr;
    QLabel *modeDescription = nullptr;
    QRadioButton *intervalRadio = nullptr;
    QRadioButton *rulesRadio = nullptr;
    QSpinBox *intervalSpin = nullptr;
    QWidget *rulesPanel = nullptr;
    QListWidget *ruleList = nullptr;
    QPushButton *addRuleButton = nullptr;
    QPushButton *editRuleButton = nullptr;
    QPushButton *removeRuleButton = nullptr;
    QLabel *schedulePreview = nullptr;
    QList<ScheduleRule> rules = {}; ///< as edited; the rows of the list are its indexes
    SyncJob sourceJob = {};         ///< as it came
};
