#include "support/RecordedWorker.h"

#include <QRegularExpression>

#include <algorithm>

using namespace Qt::StringLiterals;

QString describe(const MirrorResult &result)
{
    QStringList parts;
    if (result.success)
        parts += u"success"_s;
    if (result.cancelled)
        parts += u"cancelled"_s;
    const auto count = [&parts](const QString &name, qint64 number) {
        if (number != 0)
            parts += name + u'=' + QString::number(number);
    };
    count(u"downloaded"_s, result.downloaded);
    count(u"upToDate"_s, result.upToDate);
    count(u"deleted"_s, result.deleted);
    count(u"failed"_s, result.failed);
    count(u"bytes"_s, result.bytes);
    if (!result.message.isEmpty())
        parts += u"message='"_s + result.message + u'\'';
    return parts.join(u' ');
}

RecordedWorker::RecordedWorker(const QString &localDir)
{
    config.host = u"127.0.0.1"_s;
    config.user = u"kim"_s;
    config.password = u"secret"_s;
    config.timeout = 20000; // a test that waits for this long has failed anyway
    config.localDir = localDir;

    QObject::connect(&worker, &MirrorWorker::log, &worker, [this](const QString &message, int level) {
        note(u"log %1 %2"_s.arg(QString::number(level), message));
    });
    QObject::connect(
        &worker, &MirrorWorker::progress, &worker,
        [this](const QString &currentFile, qint64 done, qint64 total) {
            note(u"progress '%1' %2 %3"_s.arg(currentFile, QString::number(done), QString::number(total)));
        });
    QObject::connect(&worker, &MirrorWorker::statusChanged, &worker,
                     [this](int status, const QString &detail) {
                         note(u"status %1 '%2'"_s.arg(QString::number(status), detail));
                     });
    QObject::connect(&worker, &MirrorWorker::throughput, &worker, [this](double bytesPerSecond) {
        rates += bytesPerSecond;
        note(u"throughput "_s + QString::number(bytesPerSecond));
    });
    QObject::connect(&worker, &MirrorWorker::finished, &worker,
                     [this](const MirrorResult &result) { note(u"finished "_s + describe(result)); });
    QObject::connect(&worker, &MirrorWorker::testFinished, &worker, [this](bool ok, const QString &message) {
        note(u"test %1 %2"_s.arg(QString::number(ok), message));
    });
}

void RecordedWorker::note(const QString &event)
{
    static const QRegularExpression dataPort(u"\\(\\|\\|\\|\\d+\\|\\)"_s);
    static const QRegularExpression seconds(u"^log 0 Finished in \\d+\\.\\d s - "_s);
    QString text = event;
    if (!config.localDir.isEmpty())
        if (!config.localDir.isEmpty())
            text.replace(config.localDir, u"LOCAL"_s);
    text.replace(u"127.0.0.1:%1"_s.arg(config.port), u"127.0.0.1:PORT"_s);
    if (event.startsWith(u"log 3 < 229"))
        text.replace(dataPort, u"(|||DATA|)"_s);
    if (event.startsWith(u"log 0 Finished"))
        text.replace(seconds, u"log 0 Finished in TIME s - "_s);
    events += text;
    if (onEvent)
        onEvent(text);
}

QString RecordedWorker::mirror(const RemoteTree &tree, const FtpTreeOptions &options)
{
    return serve(tree, options, &RecordedWorker::run);
}

QString RecordedWorker::test(const RemoteTree &tree, const FtpTreeOptions &options)
{
    return serve(tree, options, &RecordedWorker::runTest);
}

QString RecordedWorker::serve(const RemoteTree &tree, const FtpTreeOptions &options,
                              QString (RecordedWorker::*go)())
{
    FtpTreeServer server(tree, options);
    config.port = server.port();
    QString told = (this->*go)();
    server.finish();
    commands = server.commands();
    sessions = server.sessions();
    return told;
}

QString RecordedWorker::run()
{
    events.clear();
    rates.clear();
    worker.runSync(config);
    return outcome(u"finished "_s);
}

QString RecordedWorker::runTest()
{
    events.clear();
    rates.clear();
    worker.testConnection(config);
    return outcome(u"test "_s);
}

/** What the last event says, which must be the only one of its kind. */
QString RecordedWorker::outcome(const QString &word) const
{
    const auto ends = events.filter(QRegularExpression(u"^(finished|test) "_s));
    if (ends.size() != 1 || !events.last().startsWith(word))
        return u"ended by "_s + ends.join(u" and "_s) + u", not by "_s + word;
    return ends.first().sliced(word.size());
}

QStringList RecordedWorker::log(int level) const
{
    const QString prefix = u"log %1 "_s.arg(level);
    QStringList messages;
    for (const QString &event : events) {
        if (event.startsWith(prefix))
            messages += event.sliced(prefix.size());
    }
    return messages;
}

QStringList RecordedWorker::eventsOf(const QStringList &words) const
{
    QStringList chosen;
    for (const QString &event : events) {
        if (std::any_of(words.begin(), words.end(),
                        [&event](const QString &word) { return event.startsWith(word); }))
            chosen += event;
    }
    return chosen;
}
