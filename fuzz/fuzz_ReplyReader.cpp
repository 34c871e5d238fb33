#include "Check.h"

#include "ftp/FtpClient.h"

#include <QCoreApplication>
#include <QStringList>

#include <array>
#include <future>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

/** A server of few words: says the same to everybody, whatever it hears. */
class Peer
{
public:
    Peer()
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        check(::bind(listener, reinterpret_cast<const sockaddr *>(&address), length) == 0 &&
                  ::listen(listener, 1) == 0 &&
                  ::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length) == 0,
              "the fuzzer can listen");
        port = ntohs(address.sin_port);
    }

    /** Serves one client to its end. */
    void serve(const QByteArray &bytes) const
    {
        const int client = ::accept(listener, nullptr, nullptr);
        qsizetype sent = 0;
        while (sent < bytes.size()) {
            const ssize_t count = ::send(client, bytes.constData() + sent,
                                         static_cast<std::size_t>(bytes.size() - sent), MSG_NOSIGNAL);
            if (count <= 0)
                break;
            sent += count;
        }
        ::shutdown(client, SHUT_WR);
        std::array<char, 1024> heard;
        while (::recv(client, heard.data(), heard.size(), 0) > 0) {
        }
        ::close(client);
    }

    quint16 port = 0;

private:
    int listener = -1;
};

bool hasCode(const QString &line)
{
    return line.size() >= 4 && line.at(0).unicode() < 0x80 && line.at(1).unicode() < 0x80 &&
           line.at(2).unicode() < 0x80 && line.at(0).isDigit() && line.at(1).isDigit() &&
           line.at(2).isDigit() && (line.at(3) == u' ' || line.at(3) == u'-');
}

/** What the client should make of the bytes, worked out in another way. */
QStringList repliesIn(const QByteArray &bytes)
{
    QStringList replies;
    QString reply;
    QString openCode;
    qsizetype begin = 0;
    for (qsizetype end = bytes.indexOf('\n'); end >= 0; end = bytes.indexOf('\n', begin)) {
        const QString line = QString::fromUtf8(bytes.sliced(begin, end + 1 - begin)).trimmed();
        begin = end + 1;
        reply += line + u'\n';
        if (!hasCode(line))
            continue;
        const QString code = line.left(3);
        if (line.at(3) == u' ' && (openCode.isEmpty() || openCode == code)) {
            replies.append(reply.trimmed());
            reply.clear();
            openCode.clear();
        } else if (openCode.isEmpty()) {
            openCode = code;
        }
    }
    return replies;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    static const QCoreApplication app(*argc, *argv);
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const Peer peer;
    const QByteArray bytes = inputBytes(data, size);
    const std::future<void> serving = std::async(std::launch::async, [&bytes] { peer.serve(bytes); });

    QStringList replies;
    {
        FtpClient client;
        QObject::connect(&client, &FtpClient::logMessage, &client, [&replies](const QString &line) {
            if (line.startsWith(u"< "_s))
                replies.append(line.sliced(2));
        });
        const bool isIn = client.connectAndLogin(u"127.0.0.1"_s, peer.port, u"kim"_s, u"secret"_s);
        check(isIn || !client.lastError().isEmpty(), "a failure has a reason");
        if (isIn) {
            const QDateTime time = client.modificationTime(u"a"_s);
            check(!time.isValid() || time.timeSpec() == Qt::UTC, "times are in UTC");
            client.fileSize(u"a"_s);
        }
        client.close();
        check(!client.isConnected() && !client.supportsMlsd(), "a closed session is forgotten");
    }
    serving.wait();
    // How many of them were asked for is the client's business.
    const QStringList expected = repliesIn(bytes);
    check(expected.isEmpty() || !replies.isEmpty(), "a greeting is read");
    check(replies.size() <= expected.size() && replies == expected.first(replies.size()),
          "replies are read as they were said, one after the other");
    return 0;
}
