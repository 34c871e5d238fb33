#pragma once

#include <QDateTime>

/**
 * The process's wall clock, which stands still at a time of the test's choice.
 *
 * Needs libfaketime in the process: a test that uses this is made known to CTest by
 * kelpwharf_still_clock(). Timers and waits are not concerned, they go by the monotonic clock.
 */
namespace StillClock {

/** Whether the clock obeys. Without libfaketime it goes on by itself. */
bool isHeld();

/** Moves the clock to this second. */
void set(const QDateTime &when);

} // namespace StillClock
