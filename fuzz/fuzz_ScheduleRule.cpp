#include "Check.h"

#include "model/SyncJob.h"

#include <algorithm>
#include <array>

namespace {

/** Looks at every minute; in UTC, as everything here. */
bool hasInstantBetween(const ScheduleRule &rule, qint64 after, qint64 before)
{
    std::array<bool, 60> minutes{};
    for (const int minute : rule.minutes)
        minutes.at(static_cast<std::size_t>(minute)) = true;
    for (qint64 minute = after / 60 + 1; minute * 60 < before; ++minute) {
        const qint64 day = (minute / 1440 + 3) % 7; // the first of 1970 was a Thursday
        const qint64 hour = minute / 60 % 24;
        if (minutes.at(static_cast<std::size_t>(minute % 60)) && (rule.hours >> hour & 1U) &&
            (rule.days >> day & 1U))
            return true;
    }
    return false;
}

void checkNext(const ScheduleRule &rule, const QDateTime &from)
{
    const QDateTime next = rule.nextAfter(from);
    check(next.isValid() == rule.isUsable(), "a usable rule always has a next instant, another one never");
    if (!rule.isUsable())
        return;
    check(next > from.addSecs(30), "an instant is more than half a minute ahead");
    check(next < from.addDays(9), "an instant is at most a week and a day ahead");
    check(rule.minutes.contains(next.time().minute()), "an instant has one of the rule's minutes");
    check(rule.hours & (1U << next.time().hour()), "an instant has one of the rule's hours");
    check(rule.days & (1U << (next.date().dayOfWeek() - 1)), "an instant has one of the rule's days");
    check(!hasInstantBetween(rule, from.toSecsSinceEpoch() + 30, next.toSecsSinceEpoch()),
          "no instant is left out");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    qputenv("TZ", "UTC");
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const ScheduleRule rule = ScheduleRule::fromStorage(QString::fromUtf8(inputBytes(data, size)));
    check(rule.days <= 127 && rule.hours <= 16777215, "masks have no bits beyond days and hours");
    check(!rule.minutes.isEmpty(), "there is always a minute");
    check(std::is_sorted(rule.minutes.begin(), rule.minutes.end()), "minutes ascend");
    check(std::adjacent_find(rule.minutes.begin(), rule.minutes.end()) == rule.minutes.end(),
          "minutes are different");
    check(rule.minutes.first() >= 0 && rule.minutes.last() <= 59, "minutes are within the hour");

    const ScheduleRule again = ScheduleRule::fromStorage(rule.toStorage());
    check(again.days == rule.days && again.hours == rule.hours && again.minutes == rule.minutes,
          "a rule survives its storage");
    check(again.toStorage() == rule.toStorage(), "the stored text is stable");
    check(!rule.label().isEmpty() && rule.label().size() < 400, "a label is short, but never empty");
    check(rule.runsPerWeek() >= 0 && rule.runsPerWeek() <= 10080, "a week has so many minutes");

    const qint64 seconds = 1700000000 + static_cast<qint64>(size) * 86399;
    checkNext(rule, QDateTime::fromSecsSinceEpoch(seconds));
    return 0;
}
