#pragma once

#include "model/SyncJob.h"

#include <QList>
#include <QMainWindow>

class MirrorWorker;
class QBoxLayout;
class QCheckBox;
class QLabel;
class QPlainTextEdit;
class QPushButton;
class QSystemTrayIcon;
class QTableWidget;
class QThread;
class QTimer;
class QUrl;
class UpdateChecker;
class VfdPanel;
struct UpdateInfo;

/**
 * The one window, and the controller behind it: it owns the jobs, decides which of them runs
 * when, and hands one at a time to the worker on its thread.
 *
 * Rows of the table are indexes of the job list everywhere. All of it runs on the GUI thread.
 */
class MainWindow : public QMainWindow
{
    Q_OBJECT

public:
    explicit MainWindow(QWidget *parent = nullptr);
    ~MainWindow() override;

    /** Closes for good. A run in progress gets 5 seconds to notice. */
    void quit();

signals:
    void startSyncRequested(const MirrorConfig &config);
    void testConnectionRequested(const MirrorConfig &config);

private slots:
    void onAbout();
    void onCheckForUpdates();
    void onUpdateEndpoint();
    void onUpdateFound(const UpdateInfo &info, bool manual);
    void onUpdateFailed(const QString &reason, bool manual);
    void onAddJob();
    void onEditJob();
    void onDuplicateJob();
    void onRemoveJob();
    void onTestConnection();
    void onSyncSelected();
    void onSyncAll();
    void onStop();
    void onAutoToggled(bool enabled);
    void onTick();
    void onSelectionChanged();
    void onJobItemChanged(int row, int column);
    void onWorkerLog(const QString &message, int level);
    void onWorkerProgress(const QString &file, qint64 done, qint64 total);
    void onWorkerStatus(int status, const QString &detail);
    void onWorkerFinished(const MirrorResult &result);
    void onTestFinished(bool ok, const QString &message);

protected:
    void changeEvent(QEvent *event) override;
    void closeEvent(QCloseEvent *event) override;

private:
    void buildUi();
    void buildTable();
    QBoxLayout *buildButtonRow();
    void buildLog();
    void buildStatusBar();
    void buildTray();
    void buildMenus();
    QAction *addToggle(QMenu *menu, const QString &text, const QString &name, bool AppSettings::*option);
    void wireWorker();
    void stopWorker();
    void bringUp();
    void onTrayActivated(int reason);

    /** A line that has come and is not shown yet. */
    struct WaitingLine
    {
        QDateTime when;
        QString message;
        int level;
    };

    void appendLog(const QString &message, int level);
    void queueLog(const QString &message, int level);
    void showWaitingLines();
    void showLine(const WaitingLine &line);

    void refreshTable();
    void refreshRow(int row);
    int selectedRow() const;
    bool isJobRow(int row) const { return row >= 0 && row < settings.jobs.size(); }
    void updateButtons();

    void enqueue(int row, bool manual);
    void rescheduleAll(bool announce);
    void startNextQueued();
    void recordResult(int row, const MirrorResult &result);
    void logOutcome(const SyncJob &job, const MirrorResult &result);

    void refreshPanel();
    int soonestPendingJob() const;

    void appendJob(const SyncJob &job);

    void wireUpdates();
    QUrl updateEndpointUrl() const;
    void noteUpdateCheck();
    void offerUpdate(const UpdateInfo &info);

    VfdPanel *panel = nullptr;
    QTableWidget *table = nullptr;
    QPushButton *addButton = nullptr;
    QPushButton *editButton = nullptr;
    QPushButton *removeButton = nullptr;
    QPushButton *testButton = nullptr;
    QPushButton *syncButton = nullptr;
    QPushButton *stopButton = nullptr;
    QCheckBox *autoCheck = nullptr; ///< the AUTO state itself, kept nowhere else
    UpdateChecker *updateChecker = nullptr;
    QPlainTextEdit *logView = nullptr;
    QLabel *statusLabel = nullptr;
    QLabel *versionLabel = nullptr;
    QAction *closeToTrayAction = nullptr;
    QAction *checkUpdatesAction = nullptr;
    QAction *verboseAction = nullptr;
    QAction *runOnStartAction = nullptr;
    QSystemTrayIcon *tray = nullptr; ///< null on a desktop without one
    QThread *workerThread = nullptr;
    MirrorWorker *worker = nullptr;       ///< goes with its thread; null once closing has begun
    QTimer *tickTimer = nullptr;          ///< runs while AUTO is on
    QTimer *logTimer = nullptr;           ///< ends a turn of the event loop, for the log
    QList<WaitingLine> waitingLines = {}; ///< oldest first
    int linesThisTurn = 0;                ///< shown of the worker's
    AppSettings settings = {};
    QList<int> queue = {};      ///< rows that wait to run, oldest first
    int runningIndex = -1;      ///< row of the job in the worker, or -1
    bool manualRun = false;     ///< a job was queued by hand since the last run ended
    bool quitting = false;      ///< the next close is for good, whatever the tray
    bool tableUpdating = false; ///< cells are being written by the program, not clicked
};
