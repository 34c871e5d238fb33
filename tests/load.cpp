// Puts the whole program under load and says what it took. No test, since times decide nothing there. It
// fails only if something was lost.
//
//   kelpwharf_load                       the loads of tools/load, as text
//   kelpwharf_load window FILES ROUNDS   what the window costs a mirror of so many files, as JSON for
//                                        tools/bench

#include "mirror/MirrorWorker.h"
#include "support/RealServer.h"
#include "support/RefusedPort.h"
#include "support/TestSettings.h"
#include "support/TestWindow.h"

#include <QApplication>
#include <QCheckBox>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPlainTextEdit>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTextBlock>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <cstdio>

using namespace Qt::StringLiterals;

namespace {

constexpr int kPatienceMs = 3600 * 1000;
constexpr int kSampleMs = 100;
constexpr int kPulseMs = 5;

qint64 memoryKb()
{
    QFile status(u"/proc/self/status"_s);
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toLongLong();
    }
    return -1;
}

/** Watches the GUI thread's pulse, and the memory of the process. */
class Watch : public QObject
{
public:
    Watch()
    {
        pulse.setTimerType(Qt::PreciseTimer);
        connect(&pulse, &QTimer::timeout, this,
                [this] { longestMs = std::max(longestMs, sincePulse.restart()); });
        connect(&sample, &QTimer::timeout, this, [this] { kilobytes += memoryKb(); });
        sincePulse.start();
        total.start();
        pulse.start(kPulseMs);
        sample.start(kSampleMs);
        kilobytes += memoryKb();
    }

    /** The longest time for which the GUI thread did not come round to its events. */
    qint64 longestDelayMs() const { return longestMs - kPulseMs; }

    void report(const char *what, qsizetype logLines)
    {
        kilobytes += memoryKb();
        longestMs = std::max(longestMs, sincePulse.elapsed());
        // A tenth of the way in, everything that is needed once is there.
        const qsizetype settled = kilobytes.size() / 10;
        std::printf("%-34s %7.1f s   MiB: start %5.1f, settled %5.1f, most %5.1f, end %5.1f   "
                    "longest delay %4lld ms   log lines shown %lld\n",
                    what, static_cast<double>(total.elapsed()) / 1000.0, mib(kilobytes.first()),
                    mib(kilobytes.at(settled)), mib(*std::max_element(kilobytes.cbegin(), kilobytes.cend())),
                    mib(kilobytes.last()), static_cast<long long>(longestDelayMs()),
                    static_cast<long long>(logLines));
        std::fflush(stdout);
    }

private:
    static double mib(qint64 kb) { return static_cast<double>(kb) / 1024.0; }

    QTimer pulse;
    QTimer sample;
    QElapsedTimer sincePulse;
    QElapsedTimer total;
    qint64 longestMs = 0;
    QList<qint64> kilobytes;
};

void require(bool condition, const QString &what)
{
    if (!condition)
        qFatal("%s", qPrintable(what));
}

void makeFiles(const QString &root, int folders, int filesEach, qint64 size)
{
    for (int folder = 0; folder < folders; ++folder) {
        const QString path = folders == 1 ? root : root + u"/folder %1"_s.arg(folder);
        require(QDir().mkpath(path), path);
        for (int i = 0; i < filesEach; ++i) {
            QFile file(path + u"/file %1.bin"_s.arg(i));
            require(file.open(QIODevice::WriteOnly) && file.resize(size), file.fileName());
        }
    }
}

/** Runs the only job twice, the second time with nothing to do, since all files must be there then. */
void mirror(const char *what, int folders, int filesEach, qint64 size, bool verbose)
{
    RealServer server(filesEach > 10000 ? RealServer::Pyftpdlib
                                        : RealServer::PureFtpd); // which lists no more
    require(server.problem().isEmpty(), server.problem());
    makeFiles(server.root(), folders, filesEach, size);
    const QTemporaryDir local;
    SyncJob job;
    job.name = u"load"_s;
    job.config = server.job(local.path());
    TestJobs::store({job}, {.verbose = verbose});
    TestWindow window;
    window.show();
    for (const char *round : {"", ", nothing to do"}) {
        Watch watch;
        window.press("syncButton");
        require(QTest::qWaitFor([&] { return window.status() == u"Idle"_s; }, kPatienceMs), window.status());
        watch.report(qPrintable(QLatin1String(what) + QLatin1String(round)),
                     window.part<QPlainTextEdit>("logView")->blockCount());
        const bool isFirst = *round == '\0';
        const QString count = QString::number(folders * filesEach);
        const QString expected = isFirst ? count + u" NEW · 0 SAME · 0 DEL · 0 FAIL"_s
                                         : u"0 NEW · "_s + count + u" SAME · 0 DEL · 0 FAIL"_s;
        require(window.cell(0, LastResultColumn).contains(expected), window.cell(0, LastResultColumn));
    }
}

void manyJobs()
{
    const RefusedPort refused;
    QList<SyncJob> jobs;
    const QTemporaryDir local;
    for (int i = 0; i < 500; ++i) {
        SyncJob job = TestJobs::weekly(u"job %1"_s.arg(i));
        job.config.port = refused.number();
        job.config.localDir = local.filePath(job.name);
        jobs += job;
    }
    TestJobs::store(jobs);
    TestWindow window;
    window.show();
    Watch watch;
    window.part<QCheckBox>("autoCheck")->setChecked(true);
    window.choose(u"Kelpwharf"_s, u"Sync &All Jobs Now"_s);
    require(QTest::qWaitFor([&] { return window.status() == u"Idle"_s; }, kPatienceMs), window.status());
    watch.report("500 jobs, each refused", window.part<QPlainTextEdit>("logView")->blockCount());
    for (const SyncJob &job : TestJobs::stored().jobs)
        require(job.lastRun.isValid() && !job.lastOk, job.name);
}

// What the window costs

qint64 nowMs() { return QDateTime::currentMSecsSinceEpoch(); }

/** When the last file of a mirror got its name: the worker's own time, whoever listens to it. */
qint64 lastFileMs(const QString &local, qsizetype expectedFiles)
{
    const QFileInfoList files = QDir(local).entryInfoList(QDir::Files, QDir::NoSort);
    require(files.size() == expectedFiles, u"%1 files"_s.arg(files.size()));
    qint64 last = 0;
    for (const QFileInfo &file : files)
        last = std::max(last, file.metadataChangeTime().toMSecsSinceEpoch());
    return last;
}

/** Runs the event loop until a text view is painted with a certain text in its last line. */
class LastLineWatch : public QObject
{
public:
    LastLineWatch(QPlainTextEdit *watched, QString expectedText) :
        view(watched), text(std::move(expectedText))
    {
        view->viewport()->installEventFilter(this);
    }

    /** When that was. Not by QTest::qWaitFor(), which sleeps between two looks. */
    qint64 awaitMs()
    {
        loop.exec();
        return shown;
    }

protected:
    bool eventFilter(QObject *object, QEvent *event) override
    {
        if (shown == 0 && event->type() == QEvent::Paint &&
            view->document()->lastBlock().text().contains(text)) {
            shown = nowMs();
            loop.quit();
        }
        return QObject::eventFilter(object, event);
    }

private:
    QPlainTextEdit *view;
    QString text;
    QEventLoop loop;
    qint64 shown = 0;
};

/** One column of figures, a row for each round. */
struct Cost
{
    QJsonArray seconds = {};
    QJsonArray delayMs = {};
    QJsonArray lastLineMs = {};

    QJsonObject toJson() const
    {
        return {{u"seconds"_s, seconds}, {u"delayMs"_s, delayMs}, {u"lastLineMs"_s, lastLineMs}};
    }
};

double secondsOf(qint64 milliseconds) { return static_cast<double>(milliseconds) / 1000.0; }

/** The worker without a window, and somebody who receives all it says. */
void mirrorAlone(const RealServer &server, qsizetype files, Cost *cost)
{
    const QTemporaryDir local;
    QThread thread;
    MirrorWorker worker;
    worker.moveToThread(&thread);
    QObject receiver;
    qint64 signalCount = 0;
    const auto count = [&signalCount] { ++signalCount; };
    QObject::connect(&worker, &MirrorWorker::log, &receiver, count);
    QObject::connect(&worker, &MirrorWorker::progress, &receiver, count);
    QObject::connect(&worker, &MirrorWorker::statusChanged, &receiver, count);
    QObject::connect(&worker, &MirrorWorker::throughput, &receiver, count);
    QSignalSpy finished(&worker, &MirrorWorker::finished);
    thread.start();
    const MirrorConfig config = server.job(local.path());
    const qint64 start = nowMs();
    QMetaObject::invokeMethod(&worker, [&worker, config] { worker.runSync(config); });
    require(finished.wait(kPatienceMs), u"no end"_s);
    thread.quit();
    thread.wait();
    require(finished.first().first().value<MirrorResult>().success && signalCount > files, u"failed"_s);
    cost->seconds.append(secondsOf(lastFileMs(local.path(), files) - start));
}

/** The whole program, whose AUTO finds the job due. */
void mirrorInWindow(const RealServer &server, qsizetype files, bool verbose, Cost *cost)
{
    const QTemporaryDir local;
    SyncJob job;
    job.name = u"load"_s;
    job.config = server.job(local.path());
    TestJobs::store({job}, {.verbose = verbose});
    TestWindow window;
    qint64 start = 0;
    QObject::connect(&window, &MainWindow::startSyncRequested, &window, [&start] { start = nowMs(); });
    LastLineWatch lastLine(window.part<QPlainTextEdit>("logView"), u"[load] Complete - "_s);
    window.show();
    require(QTest::qWaitForWindowExposed(&window), u"no window"_s);
    const Watch watch;
    window.part<QCheckBox>("autoCheck")->setChecked(true);
    const qint64 shown = lastLine.awaitMs();
    const qint64 end = lastFileMs(local.path(), files);
    cost->seconds.append(secondsOf(end - start));
    cost->delayMs.append(watch.longestDelayMs());
    cost->lastLineMs.append(shown - end);
}

void compareWithWindow(int files, int rounds)
{
    const RealServer server(RealServer::PureFtpd);
    require(server.problem().isEmpty(), server.problem());
    makeFiles(server.root(), 1, files, 4096);
    Cost alone;
    Cost quiet;
    Cost verbose;
    for (int round = 0; round < rounds; ++round) {
        mirrorAlone(server, files, &alone);
        mirrorInWindow(server, files, false, &quiet);
        mirrorInWindow(server, files, true, &verbose);
    }
    const QJsonObject all{{u"files"_s, files},
                          {u"alone"_s, alone.toJson()},
                          {u"quiet"_s, quiet.toJson()},
                          {u"verbose"_s, verbose.toJson()}};
    std::puts(QJsonDocument(all).toJson(QJsonDocument::Compact).constData());
}

} // namespace

int main(int argc, char *argv[])
{
    const TestSettings settings;
    QApplication application(argc, argv);
    TestWindow::setIdentity();
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() == 4 && arguments.at(1) == u"window") {
        compareWithWindow(arguments.at(2).toInt(), arguments.at(3).toInt());
        return 0;
    }
    mirror("20,000 files of 1 KiB", 200, 100, 1024, false);
    mirror("30,000 files, 200,000 log lines", 300, 100, 1024, true);
    mirror("50,000 files in one folder", 1, 50000, 0, false);
    mirror("one file of 8 GiB", 1, 1, Q_INT64_C(8) << 30, false);
    manyJobs();
    return 0;
}
