#include "update/UpdateChecker.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QStringView>
#include <QSysInfo>
#include <QUrl>
#include <QUrlQuery>

#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr int kTransferTimeoutMs = 15000;
constexpr int kHttpOk = 200;
constexpr int kFirstHttpError = 400;
constexpr qsizetype kLongestVersion = 1000; ///< it is remembered when it is skipped
constexpr qsizetype kLongestPart = 1000;    ///< of a version; reading millions of digits takes seconds

const QString kProgram = u"Kelpwharf"_s;
const QString kVersion = QStringLiteral(KELPWHARF_VERSION);

/** Takes the part in front of the next dot; 0 if there is none or if it is no number. */
int takePart(QStringView *version)
{
    const qsizetype dot = version->indexOf(u'.');
    const QStringView part = dot < 0 ? *version : version->first(dot);
    *version = dot < 0 ? QStringView() : version->sliced(dot + 1);
    return part.size() > kLongestPart ? 0 : part.toInt();
}

UpdateInfo infoFrom(const QJsonObject &answer)
{
    UpdateInfo info;
    info.latestVersion = answer["latest_version"_L1].toString().left(kLongestVersion);
    info.releaseDate = answer["release_date"_L1].toString();
    info.downloadUrl = answer["download_url"_L1].toString();
    info.notesUrl = answer["notes_url"_L1].toString();
    info.notes = answer["notes"_L1].toString();
    info.minSupportedVersion = answer["min_supported_version"_L1].toString();
    info.critical = answer["critical"_L1].toBool(false);
    return info;
}

} // namespace

UpdateChecker::UpdateChecker(QObject *parent) : QObject(parent), manager(new QNetworkAccessManager(this)) {}

void UpdateChecker::check(const QUrl &endpoint, bool isManual)
{
    if (reply)
        return;
    manual = isManual;
    if (!endpoint.isValid() || endpoint.scheme().isEmpty()) {
        emit failed(tr("The update endpoint '%1' is not a valid URL.").arg(endpoint.toString()), manual);
        return;
    }
    QUrl url = endpoint;
    QUrlQuery query(url);
    query.addQueryItem(u"app"_s, kProgram);
    query.addQueryItem(u"current"_s, kVersion);
    query.addQueryItem(u"platform"_s, platformId());
    query.addQueryItem(u"arch"_s, QSysInfo::currentCpuArchitecture());
    url.setQuery(query);

    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::UserAgentHeader, u"%1/%2"_s.arg(kProgram, kVersion));
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setTransferTimeout(kTransferTimeoutMs);
    // The service has no business with knowing a program again.
    request.setAttribute(QNetworkRequest::CookieLoadControlAttribute, QNetworkRequest::Manual);
    request.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
    reply = manager->get(request);
    connect(reply, &QNetworkReply::finished, this, &UpdateChecker::onReplyFinished);
}

void UpdateChecker::onReplyFinished()
{
    QNetworkReply *ended = std::exchange(reply, nullptr);
    if (!ended)
        return;
    ended->deleteLater();

    const int status = ended->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    // Qt counts a status such as 404 among the errors, from here on. Whoever sends one has been reached.
    const bool isStatus = ended->error() >= QNetworkReply::ContentAccessDenied && status >= kFirstHttpError;
    if (ended->error() != QNetworkReply::NoError && !isStatus) {
        emit failed(tr("Could not reach the update service: %1").arg(ended->errorString()), manual);
        return;
    }
    if (status != 0 && status != kHttpOk) {
        emit failed(tr("The update service returned HTTP %1.").arg(status), manual);
        return;
    }
    UpdateInfo info;
    QString reason;
    if (!readAnswer(ended->readAll(), &info, &reason)) {
        emit failed(reason, manual);
        return;
    }
    emit finished(info, manual);
}

bool UpdateChecker::readAnswer(const QByteArray &body, UpdateInfo *info, QString *reason)
{
    QJsonParseError problem;
    const QJsonDocument answer = QJsonDocument::fromJson(body, &problem);
    if (problem.error != QJsonParseError::NoError || !answer.isObject()) {
        *reason = tr("The update service returned a malformed response.");
        return false;
    }
    *info = infoFrom(answer.object());
    if (info->latestVersion.isEmpty()) {
        *reason = tr("The update service did not report a version.");
        return false;
    }
    return true;
}

QString UpdateChecker::platformId()
{
#if defined(Q_OS_WIN)
    return u"windows"_s;
#elif defined(Q_OS_MACOS)
    return u"macos"_s;
#else
    return u"linux"_s;
#endif
}

int UpdateChecker::compareVersions(const QString &a, const QString &b)
{
    QStringView restOfA = QStringView(a).trimmed();
    QStringView restOfB = QStringView(b).trimmed();
    while (!restOfA.isEmpty() || !restOfB.isEmpty()) {
        const int partOfA = takePart(&restOfA);
        const int partOfB = takePart(&restOfB);
        if (partOfA != partOfB)
            return partOfA > partOfB ? 1 : -1;
    }
    return 0;
}
