#include "app/MainWindow.h"

#include "app/JobTexts.h"
#include "dialogs/JobDialog.h"
#include "dialogs/ReadableColours.h"
#include "mirror/MirrorWorker.h"
#include "model/LogLevel.h"
#include "model/SettingsStore.h"
#include "panel/VfdPanel.h"
#include "update/AboutDialog.h"
#include "update/ForeignText.h"
#include "update/UpdateChecker.h"
#include "update/UpdateDialog.h"
#include "update/UpdateThrottle.h"

#include <QAction>
#include <QCheckBox>
#include <QCloseEvent>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QHeaderView>
#include <QInputDialog>
#include <QLabel>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollBar>
#include <QStatusBar>
#include <QSystemTrayIcon>
#include <QTableWidget>
#include <QThread>
#include <QTimer>
#include <QUrl>
#include <QVBoxLayout>

#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr int kTickMs = 1000;
constexpr int kAutoStartMs = 1200;   ///< the window is up by then
constexpr int kUpdateCheckMs = 4000; ///< after the start, when it is through with more urgent things
constexpr int kCloseWaitMs = 5000;
constexpr int kTrayHintMs = 4000;
constexpr int kTrayWarningMs = 8000;
constexpr int kLogLines = 5000;
constexpr int kLinesATurn = 100; ///< of the worker's; they take some milliseconds to show
constexpr QSize kDefaultSize(880, 760);

const QString kBuiltInEndpoint = QStringLiteral(KELPWHARF_UPDATE_URL);

enum Column : int { kEnabled, kJob, kServer, kMode, kSchedule, kNextRun, kLastResult, kColumns };

/** The colour of the cell "Last result"; invalid for the table's own. */
QVariant lastResultColour(const SyncJob &job)
{
    if (!job.lastRun.isValid())
        return QColor(0x80, 0x80, 0x80);
    return job.lastOk ? QVariant() : QColor(0xC0, 0x30, 0x20);
}

/** A message box for text that may be foreign, and must not be taken for markup. */
int showMessage(QWidget *parent, QMessageBox::Icon icon, const QString &text,
                QMessageBox::StandardButtons buttons = QMessageBox::Ok)
{
    QMessageBox box(icon, QCoreApplication::applicationName(), text, buttons, parent);
    box.setTextFormat(Qt::PlainText);
    return box.exec();
}

QIcon applicationIcon() { return QIcon(u":/Kelpwharf.png"_s); }

} // namespace

// Construction and closing

MainWindow::MainWindow(QWidget *parent) : QMainWindow(parent)
{
    setWindowTitle(QCoreApplication::applicationName());
    setWindowIcon(applicationIcon());
    settings.load();
    buildUi();
    buildMenus();
    wireWorker();
    wireUpdates();

    tickTimer = new QTimer(this);
    tickTimer->setObjectName("tickTimer"_L1);
    tickTimer->setInterval(kTickMs);
    connect(tickTimer, &QTimer::timeout, this, &MainWindow::onTick);

    restoreGeometry(openSettingsStore().value("geometry").toByteArray());
    // Qt takes a damaged geometry that begins well for a window of next to no size.
    const QSize smallest = minimumSizeHint();
    if (width() < smallest.width() || height() < smallest.height())
        resize(kDefaultSize);
    refreshTable();
    refreshPanel();
    updateButtons();
    const int jobs = static_cast<int>(settings.jobs.size());
    appendLog(tr("Ready. %1 configured.").arg(pluralCount(jobs, tr("job"), tr("jobs"))), LogInformation);
    if (settings.runOnStart && jobs > 0)
        QTimer::singleShot(kAutoStartMs, this, [this] { autoCheck->setChecked(true); });
}

MainWindow::~MainWindow()
{
    stopWorker();
    // A run that noticed nothing in all that time is left to itself: a running thread must not be
    // destroyed. main() sees to it that the process ends all the same.
    if (workerThread->isRunning())
        workerThread->setParent(nullptr);
}

void MainWindow::buildUi()
{
    auto *central = new QWidget(this);
    auto *layout = new QVBoxLayout(central);
    layout->setContentsMargins(10, 10, 10, 10);
    layout->setSpacing(10);
    panel = new VfdPanel(this);
    panel->setObjectName("panel"_L1);
    panel->setAccessibleName(tr("Status panel"));
    layout->addWidget(panel, 0);
    buildTable();
    layout->addWidget(table, 1);
    layout->addLayout(buildButtonRow(), 0);
    buildLog();
    layout->addWidget(logView, 1);
    setCentralWidget(central);
    resize(kDefaultSize);
    buildStatusBar();
    if (QSystemTrayIcon::isSystemTrayAvailable())
        buildTray();
}

void MainWindow::buildTable()
{
    table = new QTableWidget(0, kColumns, this);
    table->setObjectName("table"_L1);
    table->setHorizontalHeaderLabels(
        {QString(), tr("Job"), tr("Server"), tr("Mode"), tr("Schedule"), tr("Next run"), tr("Last result")});
    table->horizontalHeaderItem(kEnabled)->setData(Qt::AccessibleTextRole, tr("Enabled"));
    table->setAccessibleName(tr("Jobs"));
    table->setTabKeyNavigation(false); // the arrow keys go from cell to cell; Tab must lead out again
    ensureLightRows(table);
    table->setSelectionBehavior(QAbstractItemView::SelectRows);
    table->setSelectionMode(QAbstractItemView::SingleSelection);
    table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    table->verticalHeader()->hide();
    table->setAlternatingRowColors(true);
    table->setMinimumHeight(140);
    QHeaderView *header = table->horizontalHeader();
    for (int column = 0; column < kColumns; ++column) {
        const bool stretches = column == kJob || column == kServer || column == kLastResult;
        header->setSectionResizeMode(column, stretches ? QHeaderView::Stretch : QHeaderView::Interactive);
    }
    header->setMinimumSectionSize(28);
    header->resizeSection(kEnabled, 28);
    header->resizeSection(kMode, fontMetrics().horizontalAdvance(u"NEW + CHANGED + PRUNE"_s) + 12);
    header->resizeSection(kSchedule, fontMetrics().horizontalAdvance(u"Every hour at :00"_s) + 12);
    connect(table, &QTableWidget::itemSelectionChanged, this, &MainWindow::onSelectionChanged);
    connect(table, &QTableWidget::itemDoubleClicked, this, [this](const QTableWidgetItem *item) {
        table->selectRow(item->row()); // a click on the check box alone selects nothing
        onEditJob();
    });
    connect(table, &QTableWidget::cellChanged, this, &MainWindow::onJobItemChanged);
}

QBoxLayout *MainWindow::buildButtonRow()
{
    const struct
    {
        QPushButton *MainWindow::*member;
        QLatin1StringView name;
        QString text;
        void (MainWindow::*slot)();
        int gapBehind;
    } buttons[] = {
        {&MainWindow::addButton, "addButton"_L1, tr("Add"), &MainWindow::onAddJob, 0},
        {&MainWindow::editButton, "editButton"_L1, tr("Edit"), &MainWindow::onEditJob, 0},
        {&MainWindow::removeButton, "removeButton"_L1, tr("Remove"), &MainWindow::onRemoveJob, 12},
        {&MainWindow::testButton, "testButton"_L1, tr("Test"), &MainWindow::onTestConnection, 0},
        {&MainWindow::syncButton, "syncButton"_L1, tr("Sync Now"), &MainWindow::onSyncSelected, 0},
        {&MainWindow::stopButton, "stopButton"_L1, tr("Stop"), &MainWindow::onStop, 8},
    };
    auto *row = new QHBoxLayout;
    row->setSpacing(6);
    for (const auto &b : buttons) {
        auto *button = new QPushButton(b.text, this);
        button->setObjectName(b.name);
        button->setMinimumSize(84, 32);
        connect(button, &QPushButton::clicked, this, b.slot);
        row->addWidget(button);
        if (b.gapBehind > 0)
            row->addSpacing(b.gapBehind);
        this->*b.member = button;
    }
    syncButton->setStyleSheet(
        u"QPushButton { background:#1d6b4f; color:#eafff6; border:1px solid #2c9c74; "
        "border-radius:3px; font-weight:600; }"
        "QPushButton:hover:!disabled { background:#237f5d; }"
        "QPushButton:disabled { background:#2f3a36; color:#78847f; border-color:#3a453f; }"_s);
    autoCheck = new QCheckBox(tr("Auto"), this);
    autoCheck->setObjectName("autoCheck"_L1);
    connect(autoCheck, &QCheckBox::toggled, this, &MainWindow::onAutoToggled);
    row->addWidget(autoCheck);
    row->addStretch(1);
    return row;
}

void MainWindow::buildLog()
{
    logView = new QPlainTextEdit(this);
    logView->setObjectName("logView"_L1);
    logView->setAccessibleName(tr("Log"));
    logView->setReadOnly(true);
    logView->setMaximumBlockCount(kLogLines);
    logView->setFrameShape(QFrame::NoFrame);
    logView->setMinimumHeight(120);
    logTimer = new QTimer(this);
    logTimer->setObjectName("logTimer"_L1);
    logTimer->setSingleShot(true);
    connect(logTimer, &QTimer::timeout, this, [this] {
        linesThisTurn = 0;
        showWaitingLines();
    });
    QFont font(u"Consolas"_s, 9);
    font.setStyleHint(QFont::Monospace);
    logView->setFont(font);
    logView->setStyleSheet(u"QPlainTextEdit { background:#06080a; color:#56f0e2; border:1px solid #14201f; "
                           "border-radius:3px; padding:6px; }"_s);
}

void MainWindow::buildStatusBar()
{
    statusLabel = new QLabel(tr("Idle"), this);
    statusLabel->setObjectName("statusLabel"_L1);
    statusLabel->setTextFormat(Qt::PlainText); // it names files, as the server calls them
    statusBar()->addWidget(statusLabel, 1);
    versionLabel = new QLabel(tr("v%1").arg(QCoreApplication::applicationVersion()), this);
    versionLabel->setObjectName("versionLabel"_L1);
    versionLabel->setStyleSheet(u"color:#2e8f86;"_s);
    statusBar()->addPermanentWidget(versionLabel);
}

void MainWindow::buildTray()
{
    tray = new QSystemTrayIcon(applicationIcon(), this);
    tray->setObjectName("tray"_L1);
    tray->setToolTip(QCoreApplication::applicationName());
    auto *menu = new QMenu(this);
    menu->addAction(tr("Show window"), this, &MainWindow::bringUp);
    menu->addAction(tr("Sync all jobs now"), this, &MainWindow::onSyncAll);
    menu->addSeparator();
    menu->addAction(tr("Quit"), this, &MainWindow::quit);
    tray->setContextMenu(menu);
    tray->setVisible(true);
    connect(tray, &QSystemTrayIcon::activated, this, &MainWindow::onTrayActivated);
}

void MainWindow::onTrayActivated(int reason)
{
    if (reason != QSystemTrayIcon::DoubleClick && reason != QSystemTrayIcon::Trigger)
        return;
    if (isVisible())
        hide();
    else
        bringUp();
}

void MainWindow::bringUp()
{
    showNormal();
    raise();
    activateWindow();
}

void MainWindow::buildMenus()
{
    QMenu *program = menuBar()->addMenu(QCoreApplication::applicationName());
    program->addAction(tr("Sync &All Jobs Now"), this, &MainWindow::onSyncAll);
    program->addAction(tr("&Stop"), this, &MainWindow::onStop);
    program->addSeparator();
    runOnStartAction =
        addToggle(program, tr("Switch to AUTO on launch"), u"runOnStartAction"_s, &AppSettings::runOnStart);
    closeToTrayAction = addToggle(program, tr("Close to the system tray"), u"closeToTrayAction"_s,
                                  &AppSettings::minimiseToTray);
    verboseAction =
        addToggle(program, tr("Show FTP protocol chatter"), u"verboseAction"_s, &AppSettings::verbose);
    program->addSeparator();
    program->addAction(tr("E&xit"), this, &MainWindow::quit);

    QMenu *jobs = menuBar()->addMenu(tr("&Jobs"));
    jobs->addAction(tr("&Add..."), this, &MainWindow::onAddJob);
    jobs->addAction(tr("&Edit..."), this, &MainWindow::onEditJob);
    jobs->addAction(tr("D&uplicate"), this, &MainWindow::onDuplicateJob);
    jobs->addAction(tr("&Remove"), this, &MainWindow::onRemoveJob);
    jobs->addSeparator();
    jobs->addAction(tr("&Test Connection"), this, &MainWindow::onTestConnection);
    jobs->addAction(tr("Sync &Selected Now"), this, &MainWindow::onSyncSelected);

    QMenu *help = menuBar()->addMenu(tr("&Help"));
    help->addAction(tr("Check for &Updates..."), this, &MainWindow::onCheckForUpdates);
    checkUpdatesAction = addToggle(help, tr("Check automatically on launch"), u"checkUpdatesAction"_s,
                                   &AppSettings::checkForUpdates);
    help->addSeparator();
    help->addAction(tr("&About %1").arg(QCoreApplication::applicationName()), this, &MainWindow::onAbout);
}

QAction *MainWindow::addToggle(QMenu *menu, const QString &text, const QString &name,
                               bool AppSettings::*option)
{
    QAction *action = menu->addAction(text);
    action->setObjectName(name);
    action->setCheckable(true);
    action->setChecked(settings.*option);
    connect(action, &QAction::toggled, this, [this, option](bool on) {
        settings.*option = on;
        settings.save();
    });
    return action;
}

void MainWindow::quit()
{
    quitting = true;
    close();
}

void MainWindow::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::ApplicationPaletteChange && table)
        ensureLightRows(table); // a desktop may turn dark in the evening
    QMainWindow::changeEvent(event);
}

void MainWindow::closeEvent(QCloseEvent *event)
{
    if (!quitting && tray && settings.minimiseToTray) {
        hide();
        tray->showMessage(QCoreApplication::applicationName(),
                          tr("Still running in the background. Right-click the tray icon to quit."),
                          QSystemTrayIcon::Information, kTrayHintMs);
        event->ignore();
        return;
    }
    settings.save();
    openSettingsStore().setValue("geometry", saveGeometry());
    stopWorker();
    if (tray)
        tray->hide();
    event->accept();
    QCoreApplication::quit();
}

void MainWindow::stopWorker()
{
    if (worker) {
        worker->requestCancel();
        worker = nullptr; // once its loop may end, the thread deletes it at any moment
    }
    workerThread->requestInterruption(); // reaches also a run that has not begun yet
    workerThread->quit();
    workerThread->wait(QDeadlineTimer(kCloseWaitMs));
}

// Log

void MainWindow::appendLog(const QString &message, int level)
{
    if (waitingLines.isEmpty())
        showLine({QDateTime::currentDateTime(), message, level});
    else
        queueLog(message, level); // to come in its turn
}

void MainWindow::onWorkerLog(const QString &message, int level)
{
    if (level == LogProtocol && !settings.verbose)
        return;
    if (sender() == worker)
        queueLog(message, level);
    else
        appendLog(message, level);
}

/**
 * The worker can say more than the window can show, and as long as it goes on, its queued signals
 * would leave no time for anything else. So what is above the measure of a turn waits for the next
 * one; of what waits, those lines are given up that would be pushed out of the view at once.
 */
void MainWindow::queueLog(const QString &message, int level)
{
    waitingLines.append({QDateTime::currentDateTime(), message, level});
    if (waitingLines.size() > kLogLines)
        waitingLines.removeFirst();
    showWaitingLines();
}

void MainWindow::showWaitingLines()
{
    for (; !waitingLines.isEmpty() && linesThisTurn < kLinesATurn; ++linesThisTurn)
        showLine(waitingLines.takeFirst());
    if (linesThisTurn > 0 && !logTimer->isActive())
        logTimer->start();
}

void MainWindow::showLine(const WaitingLine &line)
{
    logView->appendHtml(logLineHtml(line.when, line.message, line.level));
    logView->verticalScrollBar()->setValue(logView->verticalScrollBar()->maximum());
}

// Job table

void MainWindow::refreshTable()
{
    tableUpdating = true;
    const int noted = selectedRow();
    table->setRowCount(static_cast<int>(settings.jobs.size()));
    for (int row = 0; row < table->rowCount(); ++row) {
        for (int column = 0; column < kColumns; ++column) {
            if (!table->item(row, column))
                table->setItem(row, column, new QTableWidgetItem);
        }
        refreshRow(row);
    }
    if (noted >= 0 && noted < table->rowCount())
        table->selectRow(noted);
    else if (table->rowCount() > 0)
        table->selectRow(0);
    tableUpdating = false;
}

void MainWindow::refreshRow(int row)
{
    if (!isJobRow(row))
        return;
    const bool wasUpdating = tableUpdating;
    tableUpdating = true;
    const SyncJob &job = settings.jobs.at(row);

    QTableWidgetItem *enabled = table->item(row, kEnabled);
    enabled->setFlags(Qt::ItemIsSelectable | Qt::ItemIsUserCheckable | Qt::ItemIsEnabled);
    enabled->setCheckState(job.enabled ? Qt::Checked : Qt::Unchecked);
    enabled->setToolTip(tr("Include this job when AUTO is on"));
    enabled->setData(Qt::AccessibleTextRole, tr("Enable %1").arg(job.name)); // or nothing would be read out

    const std::pair<Column, QString> texts[] = {
        {kJob, job.name},
        {kServer, job.serverLabel()},
        {kMode, job.syncModeLabel()},
        {kSchedule, job.scheduleLabel()},
        {kNextRun, nextRunText(job, autoCheck->isChecked())},
        {kLastResult, lastResultText(job)},
    };
    for (const auto &[column, text] : texts)
        table->item(row, column)->setText(text);
    table->item(row, kServer)->setToolTip(tr("%1  ->  %2").arg(job.config.remoteDir, job.config.localDir));
    table->item(row, kLastResult)->setData(Qt::ForegroundRole, lastResultColour(job));
    tableUpdating = wasUpdating;
}

int MainWindow::selectedRow() const
{
    const QItemSelectionModel *selection = table->selectionModel();
    if (selection) {
        const QModelIndexList rows = selection->selectedRows(0);
        if (!rows.isEmpty())
            return rows.first().row();
    }
    return table->currentRow();
}

void MainWindow::updateButtons()
{
    const bool idle = runningIndex < 0;
    const bool canAct = idle && selectedRow() >= 0 && !settings.jobs.isEmpty();
    addButton->setEnabled(idle);
    for (QPushButton *button : {editButton, removeButton, testButton, syncButton})
        button->setEnabled(canAct);
    stopButton->setEnabled(!idle || !queue.isEmpty());
}

void MainWindow::onSelectionChanged()
{
    updateButtons();
    refreshPanel();
}

void MainWindow::onJobItemChanged(int row, int column)
{
    if (column != kEnabled || !isJobRow(row) || tableUpdating)
        return;
    SyncJob &job = settings.jobs[row];
    job.enabled = table->item(row, kEnabled)->checkState() == Qt::Checked;
    settings.save();
    if (autoCheck->isChecked())
        job.nextRun = job.enabled ? job.computeNextRun(QDateTime::currentDateTime()) : QDateTime();
    appendLog((job.enabled ? tr("'%1' enabled.") : tr("'%1' disabled.")).arg(job.name), LogInformation);
    refreshRow(row);
    refreshPanel();
}

// Queue and AUTO

void MainWindow::enqueue(int row, bool manual)
{
    if (!isJobRow(row))
        return;
    SyncJob &job = settings.jobs[row];
    if (job.queued || job.running)
        return;
    QString error;
    if (!job.isRunnable(&error)) {
        appendLog(error, LogWarning);
        return;
    }
    job.queued = true;
    queue.append(row);
    if (manual)
        manualRun = true;
    refreshRow(row);
    updateButtons();
    startNextQueued();
}

void MainWindow::onSyncSelected()
{
    const int row = selectedRow();
    if (row >= 0)
        enqueue(row, true);
}

void MainWindow::onSyncAll()
{
    // A job goes straight through the queue if the worker is free, so both places count.
    const auto pending = [this] { return queue.size() + (runningIndex >= 0 ? 1 : 0); };
    int queued = 0;
    for (int row = 0; row < settings.jobs.size(); ++row) {
        if (!settings.jobs.at(row).enabled)
            continue;
        const qsizetype before = pending();
        enqueue(row, true);
        if (pending() > before)
            ++queued;
    }
    if (queued == 0)
        appendLog(tr("No enabled jobs to run."), LogWarning);
    else
        appendLog(tr("Queued %1.").arg(pluralCount(queued, tr("job"), tr("jobs"))), LogInformation);
}

void MainWindow::onStop()
{
    const bool hadQueue = !queue.isEmpty();
    for (const int row : std::as_const(queue)) {
        if (!isJobRow(row))
            continue;
        settings.jobs[row].queued = false;
        refreshRow(row);
    }
    queue.clear();
    if (runningIndex >= 0) {
        const QString name = isJobRow(runningIndex) ? settings.jobs.at(runningIndex).name : QString();
        appendLog(tr("Stopping '%1'...").arg(name), LogWarning);
        if (worker)
            worker->requestCancel();
    } else if (hadQueue) {
        appendLog(tr("Queue cleared."), LogWarning);
    }
    updateButtons();
}

void MainWindow::onAutoToggled(bool enabled)
{
    if (enabled && settings.jobs.isEmpty()) {
        showMessage(this, QMessageBox::Warning, tr("Add a job before switching on AUTO."));
        autoCheck->setChecked(false); // comes back here, so the log says that AUTO is off
        return;
    }
    if (enabled) {
        rescheduleAll(true);
        tickTimer->start();
    } else {
        tickTimer->stop();
        for (SyncJob &job : settings.jobs)
            job.nextRun = QDateTime();
        appendLog(tr("AUTO off."), LogInformation);
    }
    refreshTable();
    refreshPanel();
    updateButtons();
}

void MainWindow::rescheduleAll(bool announce)
{
    const QDateTime now = QDateTime::currentDateTime();
    int scheduled = 0;
    for (SyncJob &job : settings.jobs) {
        const bool takesPart = job.enabled && job.isRunnable();
        job.nextRun = takesPart ? job.computeNextRun(now) : QDateTime();
        if (takesPart)
            ++scheduled;
    }
    if (announce)
        appendLog(tr("AUTO on: %1 scheduled.").arg(pluralCount(scheduled, tr("job"), tr("jobs"))),
                  LogInformation);
}

void MainWindow::onTick()
{
    if (!autoCheck->isChecked())
        return;
    const QDateTime now = QDateTime::currentDateTime();
    for (int row = 0; row < settings.jobs.size(); ++row) {
        SyncJob &job = settings.jobs[row];
        const bool isDue =
            job.enabled && !job.running && !job.queued && job.nextRun.isValid() && job.nextRun <= now;
        if (!isDue)
            continue;
        // Cleared first, so that a job which cannot run says so once and not every second.
        job.nextRun = QDateTime();
        enqueue(row, false);
        refreshRow(row); // it shows its firing still if it was refused
    }
    refreshPanel();
}

// Running a job

void MainWindow::wireWorker()
{
    qRegisterMetaType<MirrorConfig>("MirrorConfig");
    qRegisterMetaType<MirrorResult>("MirrorResult");
    workerThread = new QThread(this);
    workerThread->setObjectName("workerThread"_L1);
    worker = new MirrorWorker;
    worker->setObjectName("worker"_L1);
    worker->moveToThread(workerThread);
    connect(workerThread, &QThread::finished, worker, &QObject::deleteLater);
    connect(this, &MainWindow::startSyncRequested, worker, &MirrorWorker::runSync);
    connect(this, &MainWindow::testConnectionRequested, worker, &MirrorWorker::testConnection);
    connect(worker, &MirrorWorker::log, this, &MainWindow::onWorkerLog);
    connect(worker, &MirrorWorker::progress, this, &MainWindow::onWorkerProgress);
    connect(worker, &MirrorWorker::statusChanged, this, &MainWindow::onWorkerStatus);
    connect(worker, &MirrorWorker::throughput, this, [this](double rate) { panel->setRate(rate); });
    connect(worker, &MirrorWorker::finished, this, &MainWindow::onWorkerFinished);
    connect(worker, &MirrorWorker::testFinished, this, &MainWindow::onTestFinished);
    workerThread->start();
}

void MainWindow::startNextQueued()
{
    if (runningIndex >= 0)
        return;
    int row = -1;
    while (!isJobRow(row)) {
        if (queue.isEmpty())
            return;
        row = queue.takeFirst();
    }
    SyncJob &job = settings.jobs[row];
    job.queued = false;
    job.running = true;
    runningIndex = row;
    panel->setJobName(job.name);
    panel->setHost(job.config.host);
    panel->setSyncModeLabel(job.syncModeLabel());
    panel->setFileProgress(-1.0);
    panel->setRunning(true);
    statusLabel->setText(tr("Mirroring '%1'...").arg(job.name));
    appendLog(tr("[%1] Starting sync.").arg(job.name), LogInformation);
    refreshRow(row);
    updateButtons();
    refreshPanel();
    emit startSyncRequested(job.config);
}

void MainWindow::onWorkerProgress(const QString &file, qint64 done, qint64 total)
{
    if (!file.isEmpty()) {
        panel->setCurrentFile(file);
        statusLabel->setText(tr("Downloading %1").arg(file));
    }
    panel->setFileProgress(total > 0 ? static_cast<double>(done) / static_cast<double>(total) : -1.0);
}

void MainWindow::onWorkerFinished(const MirrorResult &result)
{
    const int row = std::exchange(runningIndex, -1);
    panel->setRunning(false);
    if (isJobRow(row))
        recordResult(row, result);
    settings.save();
    statusLabel->setText(queue.isEmpty() ? tr("Idle") : tr("Queued: %1").arg(queue.size()));
    // Cleared at every end, so only the first job of a batch started by hand counts as manual. Wanted.
    manualRun = false;
    updateButtons();
    startNextQueued();
    if (runningIndex < 0)
        refreshPanel();
}

void MainWindow::recordResult(int row, const MirrorResult &result)
{
    const QDateTime now = QDateTime::currentDateTime();
    SyncJob &job = settings.jobs[row];
    job.running = false;
    job.lastRun = now;
    job.lastSummary = runSummary(result);
    job.lastOk = result.success;
    if (autoCheck->isChecked() && job.enabled)
        job.nextRun = job.computeNextRun(now);
    panel->setLastRun(job.lastRun, job.lastSummary);
    if (result.downloaded > 0 || result.deleted > 0)
        panel->addActivityMark(now);
    logOutcome(job, result);
    refreshRow(row);
}

void MainWindow::logOutcome(const SyncJob &job, const MirrorResult &result)
{
    if (result.success) {
        appendLog(tr("[%1] Complete - %2 downloaded, %3 unchanged, %4 deleted.")
                      .arg(job.name, QString::number(result.downloaded), QString::number(result.upToDate),
                           QString::number(result.deleted)),
                  LogInformation);
        return;
    }
    if (result.cancelled) {
        appendLog(tr("[%1] Stopped.").arg(job.name), LogWarning);
        return;
    }
    appendLog(tr("[%1] Finished with problems: %2").arg(job.name, result.message), LogError);
    if (tray && !isVisible())
        tray->showMessage(QCoreApplication::applicationName(), tr("'%1' reported errors.").arg(job.name),
                          QSystemTrayIcon::Warning, kTrayWarningMs);
}

// Panel

void MainWindow::refreshPanel()
{
    const bool isAuto = autoCheck->isChecked();
    const bool isRunning = runningIndex >= 0;
    if (isAuto)
        panel->setMode(VfdPanel::Auto);
    else
        panel->setMode(isRunning && manualRun ? VfdPanel::Manual : VfdPanel::Off);
    if (isRunning)
        return; // the panel belongs to the run

    int row = isAuto ? soonestPendingJob() : -1;
    if (!isJobRow(row))
        row = selectedRow();
    if (!isJobRow(row)) {
        panel->setJobName(QString());
        panel->setHost(QString());
        panel->setNextRun(QDateTime());
        return;
    }
    const SyncJob &job = settings.jobs.at(row);
    panel->setJobName(job.name);
    panel->setHost(job.config.host);
    panel->setSyncModeLabel(job.syncModeLabel());
    panel->setNextRun(isAuto ? job.nextRun : QDateTime());
    // A job that never ran leaves the last run of the one shown before it. Wanted.
    if (job.lastRun.isValid())
        panel->setLastRun(job.lastRun, job.lastSummary);
}

int MainWindow::soonestPendingJob() const
{
    int soonest = -1;
    for (int row = 0; row < settings.jobs.size(); ++row) {
        const SyncJob &job = settings.jobs.at(row);
        if (!job.enabled || !job.nextRun.isValid())
            continue;
        if (soonest < 0 || job.nextRun < settings.jobs.at(soonest).nextRun)
            soonest = row;
    }
    return soonest;
}

void MainWindow::onWorkerStatus(int status, const QString &detail)
{
    const bool isKnown = status >= VfdPanel::Connecting && status <= VfdPanel::Error;
    panel->setLink(isKnown ? static_cast<VfdPanel::Link>(status) : VfdPanel::Offline, detail);
}

// Job commands

// None of these asks whether a job is running: the buttons are off then, but menus and double clicks
// are not, and what they do holds all the same. Wanted.

void MainWindow::onAddJob()
{
    SyncJob proposed;
    proposed.name = settings.uniqueName(tr("New job"), -1);
    JobDialog dialog(proposed, this);
    if (dialog.exec() != QDialog::Accepted)
        return;
    SyncJob job = dialog.job();
    job.name = settings.uniqueName(job.name, -1);
    if (autoCheck->isChecked())
        job.nextRun = job.computeNextRun(QDateTime::currentDateTime());
    appendJob(job);
    appendLog(tr("Added job '%1'.").arg(job.name), LogInformation);
    refreshPanel();
}

void MainWindow::onEditJob()
{
    const int row = selectedRow();
    if (!isJobRow(row))
        return;
    JobDialog dialog(settings.jobs.at(row), this);
    if (dialog.exec() != QDialog::Accepted)
        return;
    // The state of the moment when the dialog was opened comes back too, and wins over what a run has
    // recorded meanwhile. Wanted.
    SyncJob job = dialog.job();
    job.name = settings.uniqueName(job.name, row);
    if (autoCheck->isChecked() && job.enabled)
        job.nextRun = job.computeNextRun(QDateTime::currentDateTime());
    settings.jobs[row] = job;
    settings.save();
    refreshRow(row);
    refreshPanel();
    appendLog(tr("Updated job '%1'.").arg(job.name), LogInformation);
}

void MainWindow::onDuplicateJob()
{
    const int row = selectedRow();
    if (!isJobRow(row))
        return;
    // It keeps the marks of a job that waits or runs, and has no next run until AUTO comes on anew or
    // the job is edited or ticked. Wanted.
    SyncJob copy = settings.jobs.at(row);
    copy.name = settings.uniqueName(copy.name, -1);
    copy.lastRun = QDateTime();
    copy.lastSummary.clear();
    copy.nextRun = QDateTime();
    appendJob(copy);
    appendLog(tr("Duplicated as '%1'.").arg(copy.name), LogInformation);
}

void MainWindow::appendJob(const SyncJob &job)
{
    settings.jobs.append(job);
    settings.save();
    refreshTable();
    table->selectRow(table->rowCount() - 1);
}

void MainWindow::onRemoveJob()
{
    const int row = selectedRow();
    if (!isJobRow(row))
        return;
    const QString name = settings.jobs.at(row).name;
    const int answer =
        showMessage(this, QMessageBox::Question,
                    tr("Remove the job '%1'?\n\nLocal files already downloaded are left alone.").arg(name),
                    QMessageBox::Yes | QMessageBox::No);
    if (answer != QMessageBox::Yes)
        return;
    settings.jobs.removeAt(row);
    queue.removeAll(row);
    for (int &waiting : queue) {
        if (waiting > row)
            --waiting;
    }
    settings.save();
    refreshTable();
    refreshPanel();
    updateButtons();
    appendLog(tr("Removed job '%1'.").arg(name), LogInformation);
}

void MainWindow::onTestConnection()
{
    const int row = selectedRow();
    if (!isJobRow(row))
        return;
    const SyncJob &job = settings.jobs.at(row);
    QString error;
    if (!job.isRunnable(&error)) {
        showMessage(this, QMessageBox::Warning, error);
        return;
    }
    testButton->setEnabled(false);
    statusLabel->setText(tr("Testing connection..."));
    appendLog(tr("[%1] Testing connection to %2...").arg(job.name, job.config.host), LogInformation);
    panel->setJobName(job.name);
    emit testConnectionRequested(job.config);
}

void MainWindow::onTestFinished(bool ok, const QString &message)
{
    updateButtons();
    if (runningIndex < 0)
        statusLabel->setText(tr("Idle"));
    appendLog(message, ok ? LogInformation : LogError);
    if (ok)
        showMessage(this, QMessageBox::Information, message);
    else
        showMessage(this, QMessageBox::Critical, tr("Connection failed:\n\n%1").arg(message));
}

// Updates and about

void MainWindow::wireUpdates()
{
    updateChecker = new UpdateChecker(this);
    updateChecker->setObjectName("updateChecker"_L1);
    connect(updateChecker, &UpdateChecker::finished, this, &MainWindow::onUpdateFound);
    connect(updateChecker, &UpdateChecker::failed, this, &MainWindow::onUpdateFailed);
    if (!settings.checkForUpdates ||
        !isUpdateCheckDue(settings.lastUpdateCheck, QDateTime::currentDateTime()))
        return;
    auto *timer = new QTimer(this);
    timer->setObjectName("updateTimer"_L1);
    timer->setSingleShot(true);
    connect(timer, &QTimer::timeout, this, [this] {
        if (!updateChecker->isBusy())
            updateChecker->check(updateEndpointUrl(), false);
    });
    timer->start(kUpdateCheckMs);
}

QUrl MainWindow::updateEndpointUrl() const
{
    const QString own = settings.updateEndpoint.trimmed();
    return QUrl(own.isEmpty() ? kBuiltInEndpoint : own, QUrl::TolerantMode);
}

void MainWindow::onCheckForUpdates()
{
    if (updateChecker->isBusy()) {
        appendLog(tr("An update check is already running."), LogWarning);
        return;
    }
    appendLog(tr("Checking for updates..."), LogInformation);
    updateChecker->check(updateEndpointUrl(), true);
}

void MainWindow::onUpdateEndpoint()
{
    const QString own = settings.updateEndpoint.trimmed();
    bool ok = false;
    const QString answer =
        QInputDialog::getText(this, tr("Update endpoint"),
                              tr("Where %1 checks for updates.\nLeave blank to restore the default.")
                                  .arg(QCoreApplication::applicationName()),
                              QLineEdit::Normal, own.isEmpty() ? kBuiltInEndpoint : own, &ok)
            .trimmed();
    if (!ok)
        return;
    // The default is never written out, so that a later version may bring another one.
    settings.updateEndpoint = answer == kBuiltInEndpoint ? QString() : answer;
    settings.save();
    appendLog(tr("Update endpoint set to %1.").arg(updateEndpointUrl().toString()), LogInformation);
}

void MainWindow::noteUpdateCheck()
{
    settings.lastUpdateCheck = QDateTime::currentDateTime();
    settings.save();
}

void MainWindow::onUpdateFound(const UpdateInfo &info, bool manual)
{
    noteUpdateCheck();
    const QString running = QCoreApplication::applicationVersion();
    const QString latest = oneLine(info.latestVersion);
    if (UpdateChecker::compareVersions(info.latestVersion, running) <= 0) {
        appendLog(tr("Up to date (running %1, latest %2).").arg(running, latest), LogInformation);
        if (manual)
            showMessage(this, QMessageBox::Information,
                        tr("You are running the latest version (%1).").arg(running));
        return;
    }
    // Skipping is a ceiling: a version above the skipped one is offered again.
    const bool isSkipped = !settings.skippedVersion.isEmpty() && !manual && !info.critical &&
                           UpdateChecker::compareVersions(info.latestVersion, settings.skippedVersion) <= 0;
    if (isSkipped) {
        appendLog(tr("Version %1 is available but was skipped.").arg(latest), LogProtocol);
        return;
    }
    appendLog(tr("Version %1 is available.").arg(latest), info.critical ? LogWarning : LogInformation);
    offerUpdate(info);
}

void MainWindow::offerUpdate(const UpdateInfo &info)
{
    const QString latest = oneLine(info.latestVersion);
    UpdateDialog dialog(info, QCoreApplication::applicationVersion(), this);
    dialog.exec();
    switch (dialog.choice()) {
    case UpdateDialog::SkipVersion:
        settings.skippedVersion = info.latestVersion;
        settings.save();
        appendLog(tr("Version %1 will be skipped.").arg(latest), LogInformation);
        break;
    case UpdateDialog::Download:
        appendLog(tr("Opened the download page for %1.").arg(latest), LogInformation);
        break;
    case UpdateDialog::RemindLater:
        break;
    }
}

void MainWindow::onUpdateFailed(const QString &reason, bool manual)
{
    noteUpdateCheck();
    appendLog(tr("Update check failed: %1").arg(reason), manual ? LogError : LogProtocol);
    if (manual)
        showMessage(this, QMessageBox::Warning, tr("Could not check for updates.\n\n%1").arg(reason));
}

void MainWindow::onAbout() { AboutDialog(this).exec(); }
