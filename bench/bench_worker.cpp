// One mirror run and nothing else: the worker on a thread of its own, as in the program, and a main
// thread that receives all it says. tools/bench measures it beside other clients.
//
//   bench_worker HOST PORT plain|tls USER PASSWORD REMOTE-FOLDER LOCAL-FOLDER

#include "mirror/MirrorWorker.h"

#include <QCoreApplication>
#include <QStringList>
#include <QThread>

#include <cstdio>

using namespace Qt::StringLiterals;

namespace {

enum ExitStatus : int { kSucceeded = 0, kFailed = 1, kMisused = 2 };

/** What the worker has said, counted: a receiver that costs as little as one can. */
class Receiver : public QObject
{
public:
    explicit Receiver(const MirrorWorker *worker)
    {
        connect(worker, &MirrorWorker::log, this, [this] { ++signalCount; });
        connect(worker, &MirrorWorker::progress, this, [this] { ++signalCount; });
        connect(worker, &MirrorWorker::statusChanged, this, [this] { ++signalCount; });
        connect(worker, &MirrorWorker::throughput, this, [this] { ++signalCount; });
        connect(worker, &MirrorWorker::testFinished, this, [this] { ++signalCount; });
        connect(worker, &MirrorWorker::finished, this, &Receiver::end);
    }

private:
    void end(const MirrorResult &result) const
    {
        std::printf("%d downloaded, %d up to date, %d failed, %lld bytes, %lld signals. %s\n",
                    result.downloaded, result.upToDate, result.failed, static_cast<long long>(result.bytes),
                    static_cast<long long>(signalCount), qPrintable(result.message));
        QCoreApplication::exit(result.success ? kSucceeded : kFailed);
    }

    qint64 signalCount = 0;
};

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 8) {
        std::fputs("bench_worker HOST PORT plain|tls USER PASSWORD REMOTE-FOLDER LOCAL-FOLDER\n", stderr);
        return kMisused;
    }
    MirrorConfig config;
    config.host = arguments.at(1);
    config.port = arguments.at(2).toUShort();
    config.useTls = arguments.at(3) == u"tls"_s;
    config.user = arguments.at(4);
    config.password = arguments.at(5);
    config.remoteDir = arguments.at(6);
    config.localDir = arguments.at(7);

    qRegisterMetaType<MirrorResult>("MirrorResult");
    QThread thread;
    auto *worker = new MirrorWorker;
    worker->moveToThread(&thread);
    QObject::connect(&thread, &QThread::finished, worker, &QObject::deleteLater);
    const Receiver receiver(worker);
    thread.start();
    QMetaObject::invokeMethod(worker, [worker, config] { worker->runSync(config); });
    const int status = QCoreApplication::exec();
    thread.quit();
    thread.wait();
    return status;
}
