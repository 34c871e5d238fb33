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
#include <csignal>
#include <cstdio>
#include <optional>

using namespace Qt::StringLiterals;

namespace {

constexpr int kKills = 50; ///< unless KELPWHARF_KILLS says how many
constexpr int kFiles = 20;
constexpr int kProcessMs = 20000;
constexpr int kStepsASave = 3; ///< of a run, between two writes of the settings

const QString kRunOption = u"--mirror"_s;

/** Its size tells a file's versions apart, and no part of one is part of another near it. */
QByteArray contentOf(int file, int version)
{
    const int sizes[] = {3000, 70000, 140000, 500000};
    const int size = sizes[file % 4] + 100 * file + version;
    return QByteArray(size, static_cast<char>(version % 100));
}

QString pathOf(int file) { return u"folder %1/file %2.bin"_s.arg(file % 5).arg(file); }

/** Every seventh file is gone, each time another one: it is to be pruned, or comes back. */
FileTree archive(int version)
{
    const QDateTime start(QDate(2020, 1, 1), QTime(), Qt::UTC);
    FileTree tree;
    for (int file = 0; file < kFiles; ++file) {
        if ((file + version) % 7 != 0)
            tree.insert(pathOf(file), {contentOf(file, version), start.addDays(version)});
    }
    return tree;
}

/** Files that are neither as before nor as served, and those that are gone without being pruned. */
QStringList damagedFiles(const FileTree &tree, const FileTree &before, const FileTree &served)
{
    const auto isOf = [](const FileTree &other, const QString &path, const QByteArray &content) {
        return other.contains(path) && other.value(path).content == content;
    };
    QStringList onTheirWay;
    for (int file = 0; file < kFiles; ++file)
        onTheirWay += pathOf(file) + u".part"_s;
    QStringList damaged;
    for (auto file = tree.cbegin(); file != tree.cend(); ++file) {
        const QString &path = file.key();
        const bool isWhole = isOf(before, path, file->content) || isOf(served, path, file->content);
        if (!isWhole && !onTheirWay.contains(path) && !path.endsWith(u'/'))
            damaged += path;
    }
    // Between the old one's removal and the new one's rename there is the whole new one beside its place.
    for (auto file = served.cbegin(); file != served.cend(); ++file) {
        const bool isOnTheWay = tree.value(file.key() + u".part"_s).content == file->content;
        if (before.contains(file.key()) && !tree.contains(file.key()) && !isOnTheWay)
            damaged += file.key() + u" is gone"_s;
    }
    return damaged;
}

/** Settings of which every part tells to which write it belongs. */
AppSettings settingsOf(int write)
{
    AppSettings settings;
    settings.checkForUpdates = false;
    for (int row = 0; row < 20; ++row) {
        SyncJob job;
        job.name = u"job %1"_s.arg(row);
        job.lastSummary = QString::number(write);
        settings.jobs += job;
    }
    settings.skippedVersion = QString::number(write);
    return settings;
}

/** Whether the settings file holds one write, and all of it. */
bool areSettingsWhole()
{
    AppSettings seen;
    seen.load();
    const bool sameWrite = std::all_of(seen.jobs.cbegin(), seen.jobs.cend(), [&seen](const SyncJob &job) {
        return job.lastSummary == seen.skippedVersion;
    });
    return sameWrite && seen.jobs.size() == settingsOf(0).jobs.size() && !seen.skippedVersion.isEmpty();
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
    int steps = 0;
    QObject::connect(&worker, &MirrorWorker::log, &worker, reportStep);
    QObject::connect(&worker, &MirrorWorker::log, &worker, [&steps] {
        if (++steps % kStepsASave == 0)
            settingsOf(steps).save();
    });
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
    const bool isKilled = run.exitStatus() == QProcess::CrashExit;
    if (run.exitCode() != (isKilled ? SIGKILL : 0))
        qFatal("a run ended by itself with %d", run.exitCode());
    return isKilled;
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

    const int wanted = qEnvironmentVariableIsEmpty("KELPWHARF_KILLS")
                           ? kKills
                           : qEnvironmentVariableIntValue("KELPWHARF_KILLS");
    int kills = 0;
    int version = 0;
    while (kills < wanted) {
        QVERIFY(version < 2 * wanted); // some runs are over before the signal comes
        ++version;
        const FileTree served = archive(version);
        for (const QString &path : archive(version - 1).keys()) {
            if (!served.contains(path))
                QFile::remove(server.root() + u'/' + path);
        }
        writeTree(server.root(), served);
        const FileTree before = readTree(local.path());
        if (killAfter(random.bounded(1, allSteps), config))
            ++kills;
        QCOMPARE(damagedFiles(readTree(local.path()), before, served).join(u"; "_s), QString());
        QVERIFY(areSettingsWhole());
    }

    QVERIFY2(stepsOfAWholeRun(config) > 0, server.log().constData());
    FileTree repaired = readTree(local.path());
    repaired.removeIf([](const auto &file) { return file.key().endsWith(u".part"); }); // never pruned
    QCOMPARE(treeDifference(archive(version), repaired), QString());
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
