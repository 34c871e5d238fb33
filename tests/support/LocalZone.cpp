#include "support/LocalZone.h"

#include <ctime>

namespace {

void enter(const QByteArray &zone)
{
    qputenv("TZ", zone);
#ifdef Q_OS_WIN
    ::_tzset();
#else
    ::tzset();
#endif
}

} // namespace

LocalZone::LocalZone(const QByteArray &zone) : before(qgetenv("TZ")) { enter(zone); }

LocalZone::~LocalZone() { enter(before); }
