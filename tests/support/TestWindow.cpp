#include "support/TestWindow.h"

#include <QAbstractButton>
#include <QAction>
#include <QDateTime>
#include <QDir>
#include <QGuiApplication>
#include <QHostAddress>
#include <QLabel>
#include <QMenu>
#include <QMenuBar>
#include <QNetworkProxy>
#include <QPlainTextEdit>
#include <QTableWidget>
#include <QTextBlock>

#include <utility>

using namespace Qt::StringLiterals;

namespace {

/** Sends whatever is meant for another machine to a port on which nobody listens. */
class ThisMachineOnly : public QNetworkProxyFactory
{
public:
    QList<QNetworkProxy> queryProxy(const QNetworkProxyQuery &query) override
    {
        if (QHostAddress(query.peerHostName()).isLoopback() || query.peerHostName().isEmpty())
            return {QNetworkProxy(QNetworkProxy::NoProxy)};
        return {QNetworkProxy(QNetworkProxy::HttpProxy, u"127.0.0.1"_s, 9)};
    }
};

constexpr qsizetype kStampLength = 21; // "[yyyy-MM-dd HH:mm:ss]"

QString colourAt(const QTextBlock &block, qsizetype position)
{
    for (auto it = block.begin(); it != block.end(); ++it) {
        const QTextFragment fragment = it.fragment();
        const qsizetype start = fragment.position() - block.position();
        if (position >= start && position < start + fragment.length())
            return fragment.charFormat().foreground().color().name();
    }
    return {};
}

} // namespace

void TestWindow::setIdentity()
{
    QCoreApplication::setOrganizationName(u"Orrinvale"_s);
    QCoreApplication::setApplicationName(u"Kelpwharf"_s);
    QCoreApplication::setApplicationVersion(u"1.0.0"_s);
    QGuiApplication::setQuitOnLastWindowClosed(false);
    QNetworkProxyFactory::setApplicationProxyFactory(new ThisMachineOnly);
}

void TestWindow::takeWorkerAway() { disconnect(this, &MainWindow::startSyncRequested, nullptr, nullptr); }

QStringList TestWindow::menuTitles() const
{
    QStringList titles;
    for (const QAction *action : menuBar()->actions())
        titles += action->text();
    return titles;
}

QList<QAction *> TestWindow::entries(const QString &menu) const
{
    for (const QAction *action : menuBar()->actions()) {
        if (action->text() == menu && action->menu())
            return action->menu()->actions();
    }
    qFatal("there is no menu %s", qPrintable(menu));
}

void TestWindow::choose(const QString &menu, const QString &entry) const
{
    for (QAction *action : entries(menu)) {
        if (action->text() == entry) {
            action->trigger();
            return;
        }
    }
    qFatal("there is no entry %s", qPrintable(entry));
}

void TestWindow::press(const char *name) const
{
    auto *button = part<QAbstractButton>(name);
    if (!button->isEnabled())
        qFatal("%s is disabled", name);
    button->click();
}

bool TestWindow::isPressable(const char *name) const { return part<QAbstractButton>(name)->isEnabled(); }

QTableWidgetItem *TestWindow::item(int row, int column) const
{
    QTableWidgetItem *found = part<QTableWidget>("table")->item(row, column);
    if (!found)
        qFatal("the table has no cell %d, %d", row, column);
    return found;
}

QString TestWindow::cell(int row, int column) const { return item(row, column)->text(); }

QStringList TestWindow::column(int column) const
{
    QStringList texts;
    for (int row = 0; row < part<QTableWidget>("table")->rowCount(); ++row)
        texts += cell(row, column);
    return texts;
}

void TestWindow::tick(int row, bool on) const
{
    item(row, EnabledColumn)->setCheckState(on ? Qt::Checked : Qt::Unchecked);
}

bool TestWindow::isTicked(int row) const { return item(row, EnabledColumn)->checkState() == Qt::Checked; }

void TestWindow::selectJob(int row) const { part<QTableWidget>("table")->selectRow(row); }

QList<LogLine> TestWindow::logLines() const
{
    QList<LogLine> lines;
    const auto *view = part<QPlainTextEdit>("logView");
    for (QTextBlock block = view->document()->begin(); block.isValid(); block = block.next()) {
        const QString text = block.text();
        if (!text.isEmpty())
            lines.append({text.left(kStampLength), text.mid(kStampLength + 1), colourAt(block, 0),
                          colourAt(block, kStampLength + 1)});
    }
    return lines;
}

QStringList TestWindow::log() const
{
    QStringList texts;
    for (const LogLine &line : logLines())
        texts += line.text;
    return texts;
}

void TestWindow::clearLog() const { part<QPlainTextEdit>("logView")->clear(); }

QString TestWindow::status() const { return part<QLabel>("statusLabel")->text(); }

void TestWindow::invoke(const char *slot)
{
    if (!QMetaObject::invokeMethod(this, slot, Qt::DirectConnection))
        qFatal("the window has no slot %s", slot);
}

void TestWindow::endRun(const MirrorResult &result)
{
    if (!QMetaObject::invokeMethod(this, "onWorkerFinished", Qt::DirectConnection,
                                   Q_ARG(MirrorResult, result)))
        qFatal("the window does not take a result");
}

void TestWindow::sayFromWorker(const QString &message, int level)
{
    if (!QMetaObject::invokeMethod(this, "onWorkerLog", Qt::DirectConnection, Q_ARG(QString, message),
                                   Q_ARG(int, level)))
        qFatal("the window does not take a line");
}

void TestWindow::announceProgress(const QString &file, qint64 done, qint64 total)
{
    if (!QMetaObject::invokeMethod(this, "onWorkerProgress", Qt::DirectConnection, Q_ARG(QString, file),
                                   Q_ARG(qint64, done), Q_ARG(qint64, total)))
        qFatal("the window does not take progress");
}

SyncJob TestJobs::named(const QString &name)
{
    SyncJob job;
    job.name = name;
    job.config.host = u"127.0.0.1"_s;
    job.config.port = 9; // reserved for what throws everything away
    job.config.localDir = QDir::home().filePath(u"mirror/"_s + name); // the test's own home
    return job;
}

SyncJob TestJobs::weekly(const QString &name)
{
    SyncJob job = named(name);
    job.scheduleMode = Rules;
    ScheduleRule rule;
    rule.days = static_cast<quint8>(1U << ((QDate::currentDate().dayOfWeek() - 1 + 3) % 7));
    rule.hours = 1;
    job.rules = {rule};
    return job;
}

SyncJob TestJobs::lastRunAgo(const QString &name, qint64 seconds)
{
    SyncJob job = named(name);
    job.lastRun = QDateTime::currentDateTime().addSecs(-seconds);
    job.lastSummary = u"earlier"_s;
    return job;
}

void TestJobs::store(const QList<SyncJob> &jobs, AppSettings options)
{
    options.jobs = jobs;
    options.checkForUpdates = false;
    options.save();
}

AppSettings TestJobs::stored()
{
    AppSettings settings;
    settings.load();
    return settings;
}
