#include "mirror/MirrorWorker.h"
#include "support/FileTree.h"
#include "support/RealServer.h"
#include "support/TestSettings.h"

#include <QCoreApplication>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <cstdio>
#include <optional>

using namespace Qt::StringLiterals;

namespace {

constexpr int kKills = 50;
constexpr int kMostRuns = 2 * kKills; ///< some runs are over before the signal comes
constexpr int kFiles = 20;
constexpr int kProcessMs = 20000;

const QString kRunOption = u"--mirror"_s;

/** Tells a file from all others and from its other versions, and no part of it is part of another. */
QByteArray contentOf(int file, int version)
{
    const int sizes[] = {3000, 70000, 140000, 500000};
    const int size = sizes[file % 4] + 100 * file + version;
    return QByteArray(size, static_cast<char>(version));
}

QString pathOf(int file) { return u"folder %1/file %2.bin"_s.arg(file % 5).arg(file); }

FileTree archive(int version)
{
    const QDateTime start(QDate(2020, 1, 1), QTime(), Qt::UTC);
    FileTree tree;
    for (int file = 0; file < kFiles; ++file)
        tree.insert(pathOf(file), {contentOf(file, version), start.addDays(version)});
    return tree;
}

/** Files that are neither whole nor on their way; `newest` is the last version that was served. */
QStringList damagedFiles(const FileTree &tree, int newest)
{
    QStringList paths = tree.keys();
    for (int file = 0; file < kFiles; ++file) {
        const QByteArray content = tree.value(pathOf(file)).content;
        const int version = content.isEmpty() ? newest + 1 : static_cast<int>(content.front());
        if (version <= newest && content == contentOf(file, version))
            paths.removeOne(pathOf(file));
        paths.removeOne(pathOf(file) + u".part"_s);
    }
    paths.removeIf([](const QString &path) { return path.endsWith(u'/'); });
    return paths;
}

// The run that is killed: this program once more, with other arguments.

/** Tells the parent that the run has got a step further. */
void reportStep()
{
    std::fputc('.', stdout);
    std::fflush(stdout);
}

QStringList runArguments(const MirrorConfig &config)
{
    return {kRunOption,     QString::number(config.port), config.user, config.password, config.remoteDir,
            config.localDir};
}

int runOnce(const QStringList &arguments)
{
    MirrorConfig config;
    config.host = u"127.0.0.1"_s;
    config.port = arguments.at(1).toUShort();
    config.user = arguments.at(2);
    config.password = arguments.at(3);
    config.remoteDir = arguments.at(4);
    config.localDir = arguments.at(5);
    config.deleteExtraneous = true;
    MirrorWorker worker;
    bool success = false;
    QObject::connect(&worker, &MirrorWorker::log, &worker, reportStep);
    QObject::connect(&worker, &MirrorWorker::progress, &worker, reportStep);
    QObject::connect(&worker, &MirrorWorker::finished, &worker,
                     [&success](const MirrorResult &result) { success = result.success; });
    worker.runSync(config);
    return success ? 0 : 1;
}

} // namespace

class tst_Kill : public QObject
{
    Q_OBJECT

private slots:
    void killedRunsDamageNothingAndAreRepaired();

private:
    void startRun(QProcess *run, const MirrorConfig &config);
    int stepsOfAWholeRun(const MirrorConfig &config);
    bool killAfter(int steps, const MirrorConfig &config);
};

void tst_Kill::startRun(QProcess *run, const MirrorConfig &config)
{
    run->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    run->start(QCoreApplication::applicationFilePath(), runArguments(config));
    QVERIFY2(run->waitForStarted(kProcessMs), qPrintable(run->errorString()));
}

/** Runs to the end; -1 if that is not a good one. */
int tst_Kill::stepsOfAWholeRun(const MirrorConfig &config)
{
    QProcess run;
    startRun(&run, config);
    if (!run.waitForFinished(kProcessMs) || run.exitStatus() != QProcess::NormalExit || run.exitCode() != 0)
        return -1;
    return static_cast<int>(run.readAllStandardOutput().size());
}

/** False if the run was over before it could be killed. */
bool tst_Kill::killAfter(int steps, const MirrorConfig &config)
{
    QProcess run;
    startRun(&run, config);
    while (run.bytesAvailable() < steps && run.waitForReadyRead(kProcessMs)) {
    }
    run.kill();
    run.waitForFinished(kProcessMs);
    return run.exitStatus() == QProcess::CrashExit;
}

void tst_Kill::killedRunsDamageNothingAndAreRepaired()
{
    RealServer server(RealServer::Pyftpdlib);
    QVERIFY2(server.problem().isEmpty(), qPrintable(server.problem()));
    const QTemporaryDir local;
    const MirrorConfig config = server.job(local.path());
    const quint32 seed = qEnvironmentVariableIsSet("KELPWHARF_SEED")
                             ? qEnvironmentVariable("KELPWHARF_SEED").toUInt()
                             : QRandomGenerator::global()->generate();
    qInfo("KELPWHARF_SEED=%u", seed);
    QRandomGenerator random(seed);

    writeTree(server.root(), archive(0));
    const int allSteps = stepsOfAWholeRun(config);
    QVERIFY2(allSteps > 0, server.log().constData());
    QCOMPARE(treeDifference(archive(0), readTree(local.path())), QString());

    int kills = 0;
    int version = 0;
    while (kills < kKills) {
        QVERIFY(version < kMostRuns);
        ++version;
        writeTree(server.root(), archive(version));
        if (killAfter(random.bounded(1, allSteps), config))
            ++kills;
        QCOMPARE(damagedFiles(readTree(local.path()), version), QStringList());
    }

    QVERIFY2(stepsOfAWholeRun(config) > 0, server.log().constData());
    const FileTree repaired = readTree(local.path());
    QCOMPARE(repaired.keys(), archive(version).keys());
    for (int file = 0; file < kFiles; ++file)
        QVERIFY2(repaired.value(pathOf(file)).content == contentOf(file, version), qPrintable(pathOf(file)));
    QCOMPARE(server.foreignCommands(), QStringList());
}

int main(int argc, char *argv[])
{
    // A run that is to be killed lives in its parent's home: it would never clear one of its own away.
    const bool isToBeKilled = argc > 1 && kRunOption == QLatin1StringView(argv[1]);
    std::optional<TestSettings> settings;
    if (!isToBeKilled)
        settings.emplace();
    const QCoreApplication app(argc, argv);
    if (isToBeKilled)
        return runOnce(QCoreApplication::arguments().mid(1));
    tst_Kill test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_Kill.moc"
