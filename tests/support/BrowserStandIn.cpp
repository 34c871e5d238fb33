#include "support/BrowserStandIn.h"

#include <QDesktopServices>
#include <QStringList>

using namespace Qt::StringLiterals;

namespace {

const QStringList kSchemes{u"http"_s, u"https"_s,      u"ftp"_s,    u"file"_s,
                           u"data"_s, u"javascript"_s, u"mailto"_s, u"vnd.installer"_s};

} // namespace

BrowserStandIn::BrowserStandIn()
{
    for (const QString &scheme : kSchemes)
        QDesktopServices::setUrlHandler(scheme, this, "open");
}

BrowserStandIn::~BrowserStandIn()
{
    for (const QString &scheme : kSchemes)
        QDesktopServices::unsetUrlHandler(scheme);
}
