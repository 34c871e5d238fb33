#include "Check.h"

#include "update/ForeignText.h"
#include "update/UpdateChecker.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>

#include <algorithm>

using namespace Qt::StringLiterals;

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    UpdateInfo info;
    QString reason;
    const bool isRead = UpdateChecker::readAnswer(inputBytes(data, size), &info, &reason);
    check(isRead == reason.isEmpty(), "there is a reason for every failure and for nothing else");
    check(!isRead || !info.latestVersion.isEmpty(), "an answer that counts has a version");
    if (!isRead)
        return 0;

    const QJsonObject again{{u"latest_version"_s, info.latestVersion},
                            {u"release_date"_s, info.releaseDate},
                            {u"download_url"_s, info.downloadUrl},
                            {u"notes_url"_s, info.notesUrl},
                            {u"notes"_s, info.notes},
                            {u"min_supported_version"_s, info.minSupportedVersion},
                            {u"critical"_s, info.critical}};
    UpdateInfo copy;
    check(UpdateChecker::readAnswer(QJsonDocument(again).toJson(), &copy, &reason),
          "what was read can be written and read again");
    check(copy.critical == info.critical, "the weight survives");
    for (const auto text : {&UpdateInfo::latestVersion, &UpdateInfo::releaseDate, &UpdateInfo::downloadUrl,
                            &UpdateInfo::notesUrl, &UpdateInfo::notes, &UpdateInfo::minSupportedVersion}) {
        // Half a surrogate pair has no bytes to be written as.
        const bool isWritable = (info.*text).isValidUtf16();
        check(!isWritable || copy.*text == info.*text, "each text survives");
    }

    const QString version = oneLine(info.latestVersion);
    check(version.size() <= 101, "a line is short");
    check(std::none_of(version.begin(), version.end(),
                       [](QChar c) { return c == u'\n' || c == u'\r' || c == QChar(0x202E); }),
          "a line is one line, and keeps its direction");
    check(boundedText(info.notes).size() <= 100001, "notes are bounded");
    const QUrl address(info.downloadUrl);
    check(!isWebAddress(address) || address.scheme().startsWith(u"http"_s), "only the web is opened");
    UpdateChecker::compareVersions(info.latestVersion, info.minSupportedVersion);
    return 0;
}
