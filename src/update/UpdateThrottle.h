#pragma once

class QDateTime;

/**
 * Whether the program may ask for updates by itself again, 20 hours after the last check.
 *
 * A last check in the future, as after a clock was set back, counts as one that has just been. An
 * invalid one stands for no check at all.
 */
bool isUpdateCheckDue(const QDateTime &lastCheck, const QDateTime &now);
