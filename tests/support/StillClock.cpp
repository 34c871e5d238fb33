#include "support/StillClock.h"

using namespace Qt::StringLiterals;

bool StillClock::isHeld()
{
    const QDateTime longAgo(QDate(2001, 2, 3), QTime(4, 5, 6));
    const QByteArray before = qgetenv("FAKETIME");
    set(longAgo);
    const bool obeys = QDateTime::currentDateTime() == longAgo;
    qputenv("FAKETIME", before);
    return obeys;
}

void StillClock::set(const QDateTime &when)
{
    qputenv("FAKETIME", when.toString(u"yyyy-MM-dd HH:mm:ss"_s).toLatin1());
}
