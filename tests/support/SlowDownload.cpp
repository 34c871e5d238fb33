#include "support/SlowDownload.h"

#include <QThread>

namespace {

constexpr int kLongestMs = 20000;
constexpr int kByteMs = 20;

} // namespace

FtpScript SlowDownload::script()
{
    FtpScript steps;
    steps.login().expect("CWD /texts").reply(250).expect("TYPE I").reply(200);
    steps.enterPassive().expect("MLSD").reply(150);
    steps.dataSend("type=file;size=1000000; new.txt\r\n").dataClose().reply(226);
    steps.enterPassive().expect("RETR /texts/new.txt").reply(150).dataSend(QByteArray(320000, 'n'));
    const auto rest = [this] {
        if (!isEnough)
            QThread::msleep(kByteMs);
    };
    for (int waitedMs = 0; waitedMs < kLongestMs; waitedMs += kByteMs)
        steps.call(rest).dataSend("n");
    return steps;
}
