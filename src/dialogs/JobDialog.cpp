#include "dialogs/JobDialog.h"

#include "dialogs/ReadableColours.h"
#include "dialogs/SchedulePreview.h"
#include "dialogs/ScheduleRuleDialog.h"

#include <QCheckBox>
#include <QColor>
#include <QComboBox>
#include <QDateTime>
#include <QDialogButtonBox>
#include <QDir>
#include <QFileDialog>
#include <QFormLayout>
#include <QGridLayout>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QRadioButton>
#include <QSpinBox>
#include <QTabWidget>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>
#include <limits>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr quint8 kAllDays = 0x7F;
constexpr int kPreviewRuns = 4;

template <typename Widget, typename... Arguments>
Widget *named(QLatin1StringView name, Arguments... arguments)
{
    auto *widget = new Widget(arguments...);
    widget->setObjectName(name);
    return widget;
}

/** A field that takes a text of any length: cut to Qt's 32767, it would come back as another one. */
QLineEdit *lineEdit(QLatin1StringView name, QWidget *parent)
{
    auto *edit = named<QLineEdit>(name, parent);
    edit->setMaxLength(std::numeric_limits<int>::max());
    ensureReadablePlaceholder(edit);
    return edit;
}

QLabel *note(const QString &richText, QWidget *parent)
{
    auto *label = new QLabel(richText, parent);
    label->setTextFormat(Qt::RichText);
    label->setWordWrap(true);
    return label;
}

QLabel *labelFor(QWidget *field, const QString &text, QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    label->setBuddy(field);
    return label;
}

/** The days of no rule, usable or not; all of them if each day has one. */
quint8 daysNotCovered(const QList<ScheduleRule> &rules)
{
    unsigned covered = 0;
    for (const ScheduleRule &rule : rules)
        covered |= rule.days;
    const unsigned left = ~covered & kAllDays;
    return left != 0 ? static_cast<quint8>(left) : kAllDays;
}

} // namespace

JobDialog::JobDialog(const SyncJob &job, QWidget *parent) : QDialog(parent), sourceJob(job)
{
    setWindowTitle(tr("Synchronisation job"));
    setModal(true);
    auto *layout = new QVBoxLayout(this);

    nameEdit = lineEdit("nameEdit"_L1, this);
    nameEdit->setPlaceholderText(tr("e.g. 2YYY overnight archive"));
    enabledBox = named<QCheckBox>("enabledBox"_L1, tr("Enabled"), this);
    auto *header = new QHBoxLayout;
    header->addWidget(labelFor(nameEdit, tr("Job name:"), this));
    header->addWidget(nameEdit, 1);
    header->addWidget(enabledBox);
    layout->addLayout(header);

    auto *tabs = new QTabWidget(this);
    tabs->setAccessibleName(tr("Job settings"));
    tabs->addTab(buildServerTab(), tr("Server"));
    tabs->addTab(buildFolderTab(), tr("Folders"));
    tabs->addTab(buildSyncTab(), tr("Sync"));
    tabs->addTab(buildScheduleTab(), tr("Schedule"));
    layout->addWidget(tabs);

    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &JobDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &JobDialog::reject);
    layout->addWidget(buttons);

    fillIn();
    refreshRuleList();
    updateEnabledStates();
    resize(560, 470);
}

JobDialog::~JobDialog() = default;

// Construction

QWidget *JobDialog::buildServerTab()
{
    auto *tab = new QWidget(this);
    auto *form = new QFormLayout(tab);
    hostEdit = lineEdit("hostEdit"_L1, tab);
    hostEdit->setPlaceholderText(tr("ftp.example.com"));
    form->addRow(tr("Host:"), hostEdit);
    portSpin = named<QSpinBox>("portSpin"_L1, tab);
    portSpin->setRange(1, 65535);
    form->addRow(tr("Port:"), portSpin);
    userEdit = lineEdit("userEdit"_L1, tab);
    form->addRow(tr("Username:"), userEdit);
    passwordEdit = lineEdit("passwordEdit"_L1, tab);
    passwordEdit->setEchoMode(QLineEdit::Password);
    form->addRow(tr("Password:"), passwordEdit);
    form->addRow(QString(), note(tr("<i>Passwords are stored obfuscated, not encrypted.</i>"), tab));
    tlsBox = named<QCheckBox>("tlsBox"_L1, tr("Use explicit FTPS (AUTH TLS)"), tab);
    form->addRow(tr("Security:"), tlsBox);
    timeoutSpin = named<QSpinBox>("timeoutSpin"_L1, tab);
    timeoutSpin->setRange(5, 600);
    timeoutSpin->setSuffix(tr(" seconds"));
    form->addRow(tr("Timeout:"), timeoutSpin);
    return tab;
}

QWidget *JobDialog::buildFolderTab()
{
    auto *tab = new QWidget(this);
    remoteEdit = lineEdit("remoteEdit"_L1, tab);
    remoteEdit->setPlaceholderText(u"/public_html/recordings"_s);
    localEdit = lineEdit("localEdit"_L1, tab);
    browseButton = named<QToolButton>("browseButton"_L1, tab);
    browseButton->setText(u"..."_s);
    browseButton->setAccessibleName(tr("Choose the local folder"));
    connect(browseButton, &QToolButton::clicked, this, &JobDialog::onBrowseLocal);
    excludeEdit = lineEdit("excludeEdit"_L1, tab);
    excludeEdit->setPlaceholderText(tr("*.tmp; cache*; .htaccess"));
    recursiveBox = named<QCheckBox>("recursiveBox"_L1, tr("Include sub-folders"), tab);

    auto *grid = new QGridLayout(tab);
    grid->addWidget(labelFor(remoteEdit, tr("Remote folder:"), tab), 0, 0);
    grid->addWidget(remoteEdit, 0, 1, 1, 2);
    grid->addWidget(labelFor(localEdit, tr("Local folder:"), tab), 1, 0);
    grid->addWidget(localEdit, 1, 1);
    grid->addWidget(browseButton, 1, 2);
    grid->addWidget(labelFor(excludeEdit, tr("Exclude:"), tab), 2, 0);
    grid->addWidget(excludeEdit, 2, 1, 1, 2);
    grid->addWidget(note(tr("<i>Semicolon separated wildcards, matched on the name.</i>"), tab), 3, 1, 1, 2);
    grid->addWidget(recursiveBox, 4, 1, 1, 2);
    grid->setColumnStretch(1, 1);
    grid->setRowStretch(5, 1);
    return tab;
}

QWidget *JobDialog::buildSyncTab()
{
    auto *tab = new QWidget(this);
    auto *layout = new QVBoxLayout(tab);

    auto *transfer = new QGroupBox(tr("What to transfer"), tab);
    auto *form = new QFormLayout(transfer);
    syncModeCombo = named<QComboBox>("syncModeCombo"_L1, transfer);
    syncModeCombo->addItem(tr("New and changed files"), NewAndChanged);
    syncModeCombo->addItem(tr("New files only (never overwrite)"), NewOnly);
    syncModeCombo->addItem(tr("Full sync (re-download everything)"), FullSync);
    connect(syncModeCombo, &QComboBox::currentIndexChanged, this, &JobDialog::updateEnabledStates);
    form->addRow(tr("Transfer:"), syncModeCombo);
    compareCombo = named<QComboBox>("compareCombo"_L1, transfer);
    compareCombo->addItem(tr("Size and timestamp"), SizeAndTimestamp);
    compareCombo->addItem(tr("Size only"), SizeOnly);
    compareCombo->addItem(tr("Timestamp only"), TimestampOnly);
    form->addRow(tr("Compare by:"), compareCombo);
    layout->addWidget(transfer);

    modeDescription = note({}, tab);
    modeDescription->setObjectName("modeDescription"_L1);
    layout->addWidget(modeDescription);

    auto *housekeeping = new QGroupBox(tr("Local housekeeping"), tab);
    auto *column = new QVBoxLayout(housekeeping);
    deleteBox = named<QCheckBox>("deleteBox"_L1, tr("Delete local files that no longer exist on the server"),
                                 housekeeping);
    column->addWidget(deleteBox);
    column->addWidget(note(tr("<i>Turns the copy into a true mirror. A folder is only pruned when its remote "
                              "listing succeeded, so a dropped connection cannot wipe your local files. "
                              "Excluded names are never deleted.</i>"),
                           housekeeping));
    layout->addWidget(housekeeping);
    layout->addStretch();
    return tab;
}

QWidget *JobDialog::buildScheduleTab()
{
    auto *tab = new QWidget(this);
    auto *layout = new QVBoxLayout(tab);
    layout->setSpacing(8);

    // The two radio buttons exclude each other as children of the same tab.
    intervalRadio = named<QRadioButton>("intervalRadio"_L1, tr("Every"), tab);
    connect(intervalRadio, &QRadioButton::toggled, this, &JobDialog::updateEnabledStates);
    intervalSpin = named<QSpinBox>("intervalSpin"_L1, tab);
    connect(intervalSpin, &QSpinBox::valueChanged, this, &JobDialog::refreshPreview);
    intervalSpin->setRange(1, 10080);
    intervalSpin->setSuffix(tr(" minutes"));
    intervalSpin->setAccessibleName(tr("Minutes between runs"));
    auto *interval = new QHBoxLayout;
    interval->addWidget(intervalRadio);
    interval->addWidget(intervalSpin);
    interval->addStretch();
    layout->addLayout(interval);

    rulesRadio = named<QRadioButton>("rulesRadio"_L1, tr("At set times"), tab);
    layout->addWidget(rulesRadio);
    layout->addWidget(buildRulesPanel(tab));
    layout->addWidget(note(
        tr("<i>Add more than one schedule to cover different parts of the week from a single job, for "
           "example hourly Monday to Friday plus a twice-daily pull at the weekend. The job runs whenever "
           "any of its schedules is due.</i>"),
        tab));
    schedulePreview = createSchedulePreview(58, tab);
    schedulePreview->setObjectName("schedulePreview"_L1);
    layout->addWidget(schedulePreview);
    layout->addStretch();
    return tab;
}

QWidget *JobDialog::buildRulesPanel(QWidget *tab)
{
    rulesPanel = named<QWidget>("rulesPanel"_L1, tab);
    auto *row = new QHBoxLayout(rulesPanel);
    row->setContentsMargins(20, 2, 0, 0);
    row->setSpacing(8);
    ruleList = named<QListWidget>("ruleList"_L1, rulesPanel);
    ruleList->setMinimumHeight(96);
    ruleList->setAlternatingRowColors(true);
    ruleList->setAccessibleName(tr("Schedules"));
    ensureLightRows(ruleList);
    connect(ruleList, &QListWidget::itemDoubleClicked, this, &JobDialog::onEditRule);
    connect(ruleList, &QListWidget::currentRowChanged, this, &JobDialog::updateEnabledStates);
    row->addWidget(ruleList, 1);

    addRuleButton = named<QPushButton>("addRuleButton"_L1, tr("Add..."), rulesPanel);
    connect(addRuleButton, &QPushButton::clicked, this, &JobDialog::onAddRule);
    editRuleButton = named<QPushButton>("editRuleButton"_L1, tr("Edit..."), rulesPanel);
    connect(editRuleButton, &QPushButton::clicked, this, &JobDialog::onEditRule);
    removeRuleButton = named<QPushButton>("removeRuleButton"_L1, tr("Remove"), rulesPanel);
    connect(removeRuleButton, &QPushButton::clicked, this, &JobDialog::onRemoveRule);
    auto *column = new QVBoxLayout;
    column->addWidget(addRuleButton);
    column->addWidget(editRuleButton);
    column->addWidget(removeRuleButton);
    column->addStretch();
    row->addLayout(column);
    return rulesPanel;
}

void JobDialog::fillIn()
{
    const MirrorConfig &config = sourceJob.config;
    nameEdit->setText(sourceJob.name);
    enabledBox->setChecked(sourceJob.enabled);
    hostEdit->setText(config.host);
    portSpin->setValue(config.port);
    userEdit->setText(config.user);
    passwordEdit->setText(config.password);
    tlsBox->setChecked(config.useTls);
    timeoutSpin->setValue(config.timeout / 1000);
    remoteEdit->setText(config.remoteDir);
    localEdit->setText(QDir::toNativeSeparators(config.localDir));
    excludeEdit->setText(config.excludes.join(u"; "_s));
    recursiveBox->setChecked(config.recursive);
    syncModeCombo->setCurrentIndex(config.syncMode);
    compareCombo->setCurrentIndex(config.compareBy);
    deleteBox->setChecked(config.deleteExtraneous);
    rulesRadio->setChecked(sourceJob.scheduleMode == Rules);
    intervalRadio->setChecked(sourceJob.scheduleMode == Interval);
    intervalSpin->setValue(sourceJob.intervalMins);
    rules = sourceJob.rules;
    if (rules.isEmpty())
        rules += ScheduleRule();
}

// Result

SyncJob JobDialog::job() const
{
    SyncJob edited = sourceJob;
    MirrorConfig &config = edited.config;
    edited.name = nameEdit->text().trimmed();
    edited.enabled = enabledBox->isChecked();
    config.host = hostEdit->text().trimmed();
    config.port = static_cast<quint16>(portSpin->value());
    config.user = userEdit->text();
    config.password = passwordEdit->text();
    config.useTls = tlsBox->isChecked();
    config.acceptAnyCertificate = true;
    config.timeout = timeoutSpin->value() * 1000;
    config.remoteDir = remoteEdit->text().trimmed();
    if (config.remoteDir.isEmpty())
        config.remoteDir = u"/"_s;
    config.localDir = QDir::fromNativeSeparators(localEdit->text().trimmed());
    config.recursive = recursiveBox->isChecked();
    config.excludes.clear();
    for (const QString &part : excludeEdit->text().split(u';', Qt::SkipEmptyParts)) {
        if (const QString pattern = part.trimmed(); !pattern.isEmpty())
            config.excludes += pattern;
    }
    config.syncMode = syncModeCombo->currentIndex();
    config.compareBy = compareCombo->currentIndex();
    config.deleteExtraneous = deleteBox->isChecked();
    edited.scheduleMode = intervalRadio->isChecked() ? Interval : Rules;
    edited.intervalMins = intervalSpin->value();
    edited.rules = rules;
    if (edited.rules.isEmpty())
        edited.rules += ScheduleRule();
    return edited;
}

void JobDialog::accept()
{
    if (nameEdit->text().trimmed().isEmpty()) {
        refuse(tr("Give the job a name so you can tell it apart from the others."));
        nameEdit->setFocus();
        return;
    }
    if (hostEdit->text().trimmed().isEmpty()) {
        refuse(tr("Enter the FTP host on the Server tab."));
        return;
    }
    if (localEdit->text().trimmed().isEmpty()) {
        refuse(tr("Choose a local folder on the Folders tab."));
        return;
    }
    const bool canFire =
        std::any_of(rules.cbegin(), rules.cend(), [](const ScheduleRule &rule) { return rule.isUsable(); });
    if (rulesRadio->isChecked() && !canFire) {
        refuse(tr("Add at least one usable schedule on the Schedule tab, or switch the job to "
                  "'Every N minutes'."));
        return;
    }
    QDialog::accept();
}

void JobDialog::refuse(const QString &reason) { QMessageBox::warning(this, windowTitle(), reason); }

// What follows from the fields

void JobDialog::updateEnabledStates()
{
    intervalSpin->setEnabled(intervalRadio->isChecked());
    rulesPanel->setEnabled(rulesRadio->isChecked());
    const bool hasRow = ruleList->currentRow() >= 0;
    editRuleButton->setEnabled(hasRow);
    removeRuleButton->setEnabled(hasRow && rules.size() > 1);
    refreshPreview();
    compareCombo->setEnabled(syncModeCombo->currentIndex() == NewAndChanged);
    switch (syncModeCombo->currentIndex()) {
    case NewOnly:
        modeDescription->setText(tr("<i>Files already present locally are never touched, even if the server "
                                    "copy changed. Useful for archives you edit locally.</i>"));
        break;
    case FullSync:
        modeDescription->setText(
            tr("<i>Every remote file is downloaded again on every run, regardless of local state. Slow and "
               "bandwidth hungry; use it to repair a local copy you no longer trust.</i>"));
        break;
    default:
        modeDescription->setText(tr("<i>Downloads files that are missing locally or that differ from the "
                                    "server copy. This is the normal choice.</i>"));
    }
}

void JobDialog::refreshRuleList()
{
    const int remembered = ruleList->currentRow();
    ruleList->clear();
    for (const ScheduleRule &rule : std::as_const(rules)) {
        auto *item = new QListWidgetItem(rule.label(), ruleList);
        if (rule.isUsable())
            item->setToolTip(tr("%1 per week.").arg(pluralCount(rule.runsPerWeek(), tr("run"), tr("runs"))));
        else
            item->setForeground(QColor(0xC0, 0x30, 0x20));
    }
    if (remembered >= 0 && remembered < ruleList->count())
        ruleList->setCurrentRow(remembered);
    else if (ruleList->count() > 0)
        ruleList->setCurrentRow(0);
    refreshPreview();
}

void JobDialog::refreshPreview()
{
    if (!schedulePreview)
        return;
    SyncJob preview = sourceJob;
    preview.scheduleMode = intervalRadio->isChecked() ? Interval : Rules;
    preview.intervalMins = intervalSpin->value();
    preview.rules = rules;
    preview.lastRun = {}; // as if it had never run
    if (!preview.hasUsableSchedule()) {
        schedulePreview->setText(tr("<b>Nothing selected.</b> Add a schedule, or this job will never run."));
        return;
    }
    schedulePreview->setText(
        schedulePreviewText(preview.scheduleLabel(), preview.scheduleDetail(), tr("Next:"),
                            preview.upcomingRuns(QDateTime::currentDateTime(), kPreviewRuns)));
}

// Commands

void JobDialog::onAddRule()
{
    ScheduleRule proposed;
    proposed.days = daysNotCovered(rules);
    ScheduleRuleDialog dialog(proposed, this);
    if (dialog.exec() != QDialog::Accepted)
        return;
    rules += dialog.rule();
    refreshRuleList();
    ruleList->setCurrentRow(ruleList->count() - 1);
}

void JobDialog::onEditRule()
{
    if (!isCurrentRowARule())
        return;
    const int row = ruleList->currentRow();
    ScheduleRuleDialog dialog(rules.at(row), this);
    if (dialog.exec() != QDialog::Accepted)
        return;
    rules[row] = dialog.rule();
    refreshRuleList();
}

void JobDialog::onRemoveRule()
{
    if (!isCurrentRowARule())
        return;
    if (rules.size() == 1) {
        QMessageBox::information(
            this, windowTitle(),
            tr("A job needs at least one schedule. Edit this one, or switch to 'Every N minutes'."));
        return;
    }
    rules.removeAt(ruleList->currentRow());
    refreshRuleList();
}

bool JobDialog::isCurrentRowARule() const
{
    return ruleList->currentRow() >= 0 && ruleList->currentRow() < rules.size();
}

void JobDialog::onBrowseLocal()
{
    const QString typed = localEdit->text();
    const QString start = typed.trimmed().isEmpty() ? QDir::homePath() : typed;
    const QString chosen = QFileDialog::getExistingDirectory(this, tr("Choose the local folder"), start,
                                                             QFileDialog::ShowDirsOnly);
    if (!chosen.isEmpty())
        localEdit->setText(QDir::toNativeSeparators(chosen));
}
