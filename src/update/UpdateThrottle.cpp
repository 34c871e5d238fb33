#include "update/UpdateThrottle.h"

#include <QDateTime>

namespace {

constexpr qint64 kIntervalSecs = 72000;

} // namespace

bool isUpdateCheckDue(const QDateTime &lastCheck, const QDateTime &now)
{
    return !lastCheck.isValid() || lastCheck.secsTo(now) >= kIntervalSecs;
}
