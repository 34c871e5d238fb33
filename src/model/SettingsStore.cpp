#include "model/SettingsStore.h"

using namespace Qt::StringLiterals;

QSettings openSettingsStore()
{
    return QSettings(QSettings::IniFormat, QSettings::UserScope, u"Orrinvale"_s, u"Kelpwharf"_s);
}
