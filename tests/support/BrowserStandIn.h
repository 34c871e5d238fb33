#pragma once

#include <QList>
#include <QObject>
#include <QUrl>

/**
 * Takes the place of the browser, and of whatever else the desktop has for an address, so that no
 * test opens anything.
 */
class BrowserStandIn : public QObject
{
    Q_OBJECT

public:
    BrowserStandIn();
    ~BrowserStandIn() override;

    QList<QUrl> opened = {};

public slots:
    void open(const QUrl &url) { opened += url; }
};
