#pragma once

#include <QByteArray>

/** Makes this zone the process's local time as long as it lives. */
class LocalZone
{
public:
    explicit LocalZone(const QByteArray &zone);
    ~LocalZone();
    Q_DISABLE_COPY_MOVE(LocalZone)

private:
    QByteArray before;
};
