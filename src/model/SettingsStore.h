#pragma once

#include <QSettings>

/** The user's settings file. It is written when the object goes out of scope. */
QSettings openSettingsStore();
