#include "ftp/FtpClient.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QNetworkProxy>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSslSocket>

#include <algorithm>
#include <filesystem>
#include <system_error>

using namespace Qt::StringLiterals;

namespace {

constexpr int kGoodbyeMs = 2000;
constexpr qint64 kChunkBytes = 65536;
constexpr qint64 kReadBufferBytes = 65536; ///< of a data socket; without a bound it takes all that has come
constexpr qint64 kLongestReply = 1048576; ///< bytes; without a bound a reply that never ends fills the memory
constexpr qsizetype kLongestName = 255;   ///< bytes or, on Windows, characters of a file name

/** Whether a data connection will bring nothing more than what it holds already. */
bool hasEnded(const QSslSocket *data) { return data->state() != QAbstractSocket::ConnectedState; }

/** What a reply says behind its code and the blank. */
QString replyValue(const QString &reply) { return reply.mid(4).trimmed(); }

/**
 * The working file of a download: the target's name and ".part". A name with no room left for the
 * suffix is cut for it, so that no file is out of reach for its name alone.
 */
QString workingName(const QString &localPath)
{
    const QString suffix = u".part"_s;
    const auto bytesOf = [](const QString &name) { return QFile::encodeName(name).size(); };
    const QString fileName = QFileInfo(localPath).fileName();
    QString name = fileName;
    if (bytesOf(name) <= kLongestName) { // a longer one is no name, and opening it says so
        while (bytesOf(name) + suffix.size() > kLongestName)
            name.chop(name.back().isLowSurrogate() ? 2 : 1);
    }
    return localPath.chopped(fileName.size() - name.size()) + suffix;
}

/** A path for the standard library; no text that a path may hold makes it throw. */
std::filesystem::path nativePath(const QString &path)
{
#ifdef Q_OS_WIN
    // Only in this form does the system take a path of more than 260 characters.
    const QString native = QDir::toNativeSeparators(QFileInfo(path).absoluteFilePath());
    return (native.startsWith(u"\\\\") ? u"\\\\?\\UNC"_s + native.mid(1) : u"\\\\?\\"_s + native)
        .toStdWString();
#else
    return QFile::encodeName(path).toStdString();
#endif
}

/** Whether a line begins with three digits and a blank or a hyphen. */
bool hasReplyCode(QStringView line)
{
    const auto isDigit = [](QChar c) { return c >= u'0' && c <= u'9'; };
    return line.size() > 3 && std::all_of(line.begin(), line.begin() + 3, isDigit) &&
           (line[3] == u' ' || line[3] == u'-');
}

/** Opened, a link or a pipe of the working file's name would take the download elsewhere. */
bool clearTheWay(QFile *part)
{
    const QFileInfo leftover(*part);
    const bool isFolder = leftover.isDir() && !leftover.isSymLink();
    return isFolder || !(leftover.exists() || leftover.isSymLink()) || part->remove();
}

/** Opens the working file, empty. Mostly its folder is there and no leftover is, so that is tried first. */
bool openPart(QFile *part)
{
    // Without a buffer a full disk shows at the write that it refuses, with the system's own reason.
    const auto mode = QIODevice::WriteOnly | QIODevice::Unbuffered;
    if (part->open(mode | QIODevice::NewOnly))
        return true;
    QDir().mkpath(QFileInfo(*part).path());
    return clearTheWay(part) && part->open(mode | QIODevice::Truncate);
}

/** A disk that fills up takes what it can still hold at first; only asked for the rest it says why. */
bool writeAll(QFile *file, const char *bytes, qint64 count)
{
    while (count > 0) {
        const qint64 written = file->write(bytes, count);
        if (written <= 0)
            return false;
        bytes += written;
        count -= written;
    }
    return true;
}

} // namespace

FtpClient::FtpClient(QObject *parent) : QObject(parent) {}

FtpClient::~FtpClient() { close(); }

// Session

bool FtpClient::isConnected() const { return socket && socket->state() == QAbstractSocket::ConnectedState; }

bool FtpClient::connectAndLogin(const QString &hostName, quint16 port, const QString &user,
                                const QString &password)
{
    close();
    host = hostName;
    socket = createSocket().release();
    socket->setParent(this);
    emit logMessage(tr("Connecting to %1:%2 ...").arg(hostName, QString::number(port)));
    socket->connectToHost(hostName, port);
    if (!socket->waitForConnected(timeoutMs)) {
        fail(tr("Cannot connect to %1:%2 (%3)").arg(hostName, QString::number(port), socket->errorString()));
        return false;
    }

    int code = 0;
    QString greeting;
    if (!readReply(&code, &greeting))
        return false;
    emit logMessage(u"< "_s + greeting);
    if (code != 220) {
        fail(tr("Unexpected greeting: %1").arg(greeting));
        return false;
    }

    if (useTls && !secureControlChannel())
        return false;
    if (!login(user, password))
        return false;
    if (useTls)
        protectDataChannel();
    negotiateFeatures();
    return true;
}

void FtpClient::close()
{
    if (socket) {
        if (isConnected()) {
            socket->write("QUIT\r\n");
            socket->waitForBytesWritten(kGoodbyeMs);
            socket->disconnectFromHost();
            if (socket->state() != QAbstractSocket::UnconnectedState)
                socket->waitForDisconnected(kGoodbyeMs);
        }
        socket->deleteLater();
        socket = nullptr;
    }
    hasMlsd = false;
    hasMdtm = false;
    hasSize = false;
    binaryModeSet = false;
    dataProtected = false;
}

std::unique_ptr<QSslSocket> FtpClient::createSocket() const
{
    auto created = std::make_unique<QSslSocket>();
    QSslSocket *raw = created.get();
    raw->setProxy(QNetworkProxy::NoProxy);
    if (acceptAnyCertificate)
        connect(raw, &QSslSocket::sslErrors, raw, [raw] { raw->ignoreSslErrors(); });
    // A TLS closing alert is the end as much as a TCP close is, but Qt only reports it and calls the
    // socket connected still: every wait for more would last for a whole time-out.
    connect(raw, &QSslSocket::errorOccurred, raw, [raw](QAbstractSocket::SocketError error) {
        if (error == QAbstractSocket::RemoteHostClosedError && raw->isEncrypted())
            raw->disconnectFromHost();
    });
    return created;
}

bool FtpClient::secureControlChannel()
{
    int code = 0;
    if (!sendCommand(u"AUTH TLS"_s, &code, nullptr) || code != 234) {
        fail(tr("Server refused AUTH TLS"));
        return false;
    }
    // Whoever slipped plain text in behind the reply would have it read as part of the secured session.
    if (socket->bytesAvailable() > 0) {
        fail(tr("TLS handshake failed: %1").arg(tr("Unexpected data in front of the handshake")));
        return false;
    }
    socket->startClientEncryption();
    if (!socket->waitForEncrypted(timeoutMs)) {
        fail(tr("TLS handshake failed: %1").arg(socket->errorString()));
        return false;
    }
    emit logMessage(tr("Control channel secured with TLS."));
    return true;
}

bool FtpClient::login(const QString &user, const QString &password)
{
    int code = 0;
    if (!sendCommand(u"USER "_s + user, &code, nullptr))
        return false;
    if (code == 331 && !sendCommand(u"PASS "_s + password, &code, nullptr, u"PASS ********"_s))
        return false;
    if (code != 230) {
        fail(tr("Login rejected by the server"));
        return false;
    }
    return true;
}

void FtpClient::protectDataChannel()
{
    sendCommand(u"PBSZ 0"_s, nullptr, nullptr);
    int code = 0;
    dataProtected = sendCommand(u"PROT P"_s, &code, nullptr) && code == 200;
    if (!dataProtected)
        emit logMessage(
            tr("WARNING: server would not protect the data channel; transfers will be in the clear."));
}

bool FtpClient::negotiateFeatures()
{
    int code = 0;
    QString features;
    if (!sendCommand(u"FEAT"_s, &code, &features) || code != 211)
        return false;
    features = features.toUpper();
    hasMlsd = features.contains(u"MLSD"); // MLST alone does not count
    hasMdtm = features.contains(u"MDTM");
    hasSize = features.contains(u"SIZE");
    if (features.contains(u"UTF8"))
        sendCommand(u"OPTS UTF8 ON"_s, nullptr, nullptr);
    return true;
}

bool FtpClient::ensureBinaryMode()
{
    if (binaryModeSet)
        return true;
    int code = 0;
    binaryModeSet = sendCommand(u"TYPE I"_s, &code, nullptr) && code == 200;
    if (!binaryModeSet)
        fail(tr("Server refused binary transfer mode"));
    return binaryModeSet;
}

// Commands and replies

void FtpClient::fail(const QString &message)
{
    errorText = message;
    emit logMessage(tr("ERROR: %1").arg(message));
}

bool FtpClient::sendCommand(const QString &command, int *code, QString *text, const QString &logAs)
{
    if (!isConnected()) {
        fail(tr("Not connected"));
        return false;
    }
    // Behind a line break the server would read a second command, and a file's name can hold one.
    if (command.contains(u'\r') || command.contains(u'\n') || command.contains(QChar::Null)) {
        fail(tr("Cannot send a command that holds a line break"));
        return false;
    }
    emit logMessage(u"> "_s + (logAs.isEmpty() ? command : logAs));
    socket->write(command.toUtf8() + "\r\n");
    if (!flushCommand()) {
        fail(isConnected() ? tr("Timed out sending a command")
                           : tr("Control connection closed by the server"));
        return false;
    }
    int replyCode = 0;
    QString reply;
    if (!readReply(&replyCode, &reply))
        return false;
    emit logMessage(u"< "_s + reply);
    if (code)
        *code = replyCode;
    if (text)
        *text = reply;
    return true;
}

bool FtpClient::flushCommand()
{
    socket->flush(); // there is room nearly always, and then it goes without a wait
    const auto isPending = [this] {
        return socket->bytesToWrite() > 0 || socket->encryptedBytesToWrite() > 0;
    };
    while (isPending()) {
        // The wait also answers false when it has found nothing left to write.
        if (!socket->waitForBytesWritten(timeoutMs) && isPending())
            return false;
    }
    return true;
}

bool FtpClient::readReply(int *code, QString *text)
{
    QString reply;
    QString firstCode;
    for (;;) {
        if (!awaitReplyLine())
            return false;
        // The code is looked for in the trimmed line. Wanted, with all that follows: an indented line
        // of the same code ends a reply, and a line of nothing but a code and a blank does not.
        const QString line = QString::fromUtf8(socket->readLine()).trimmed();
        reply += line + u'\n';
        if (reply.size() > kLongestReply) {
            fail(tr("The server's reply is too long"));
            return false;
        }
        if (!hasReplyCode(line))
            continue;
        const QString lineCode = line.left(3);
        if (line[3] == u' ' && (firstCode.isEmpty() || firstCode == lineCode)) {
            if (code)
                *code = lineCode.toInt();
            if (text)
                *text = reply.trimmed();
            return true;
        }
        if (firstCode.isEmpty())
            firstCode = lineCode;
    }
}

bool FtpClient::awaitReplyLine()
{
    while (!socket->canReadLine()) {
        if (cancelAsked()) {
            fail(tr("Cancelled"));
            return false;
        }
        if (socket->bytesAvailable() > kLongestReply) {
            fail(tr("The server's reply is too long"));
            return false;
        }
        const bool waited = isConnected() && socket->waitForReadyRead(timeoutMs);
        if (waited || socket->canReadLine())
            continue;
        fail(isConnected() ? tr("Timed out waiting for a server reply")
                           : tr("Control connection closed by the server"));
        return false;
    }
    return true;
}

// Data connections

std::unique_ptr<QSslSocket> FtpClient::openDataConnection()
{
    quint16 port = extendedPassivePort();
    if (port == 0 && !passivePort(&port))
        return nullptr;
    // Whatever address the server names, data comes from where the session is: a server must not
    // send us on to a third host.
    const QHostAddress address = socket->peerAddress();
    std::unique_ptr<QSslSocket> data = createSocket();
    // What is not read here waits at the server then, however fast it is and however slow the disk.
    data->setReadBufferSize(kReadBufferBytes);
    // Behind any fault the server's close still follows, and it must not pass for the end of the data.
    dataFault.clear();
    connect(data.get(), &QSslSocket::errorOccurred, this,
            [this, raw = data.get()](QAbstractSocket::SocketError error) {
                if (error != QAbstractSocket::RemoteHostClosedError &&
                    error != QAbstractSocket::SocketTimeoutError)
                    dataFault = raw->errorString();
            });
    data->connectToHost(address.toString(), port);
    if (!data->waitForConnected(timeoutMs)) {
        fail(tr("Cannot open the data connection to %1:%2 (%3)")
                 .arg(address.toString(), QString::number(port), data->errorString()));
        return nullptr;
    }
    return data;
}

quint16 FtpClient::extendedPassivePort()
{
    static const QRegularExpression portField(u"\\(\\s*\\|\\|\\|(\\d+)\\|\\s*\\)"_s);
    int code = 0;
    QString reply;
    if (!sendCommand(u"EPSV"_s, &code, &reply) || code != 229)
        return 0;
    return static_cast<quint16>(portField.match(reply).captured(1).toUInt());
}

bool FtpClient::passivePort(quint16 *port)
{
    static const QRegularExpression sixNumbers(u"(\\d{1,3})\\s*,\\s*(\\d{1,3})\\s*,\\s*(\\d{1,3})\\s*,"
                                               "\\s*(\\d{1,3})\\s*,\\s*(\\d{1,3})\\s*,\\s*(\\d{1,3})"_s);
    int code = 0;
    QString reply;
    if (!sendCommand(u"PASV"_s, &code, &reply) || code != 227) {
        fail(tr("Server refused passive mode"));
        return false;
    }
    const QRegularExpressionMatch match = sixNumbers.match(reply);
    if (!match.hasMatch()) {
        fail(tr("Could not parse the PASV reply"));
        return false;
    }
    *port = static_cast<quint16>(match.captured(5).toInt() * 256 + match.captured(6).toInt());
    return true;
}

bool FtpClient::startDataTls(QSslSocket *data)
{
    if (!dataProtected)
        return true;
    // A server with little to send may end the handshake and the connection in one packet. The wait
    // sees the end alone then and answers false, so the signal has to bear witness.
    bool isSecured = false;
    const QObject witness;
    connect(data, &QSslSocket::encrypted, &witness, [&isSecured] { isSecured = true; });
    data->startClientEncryption();
    if (data->waitForEncrypted(timeoutMs) || isSecured)
        return true;
    fail(tr("Data channel TLS handshake failed: %1").arg(data->errorString()));
    return false;
}

bool FtpClient::awaitData(QSslSocket *data, const QString &timeoutText)
{
    if (cancelAsked()) {
        fail(tr("Cancelled"));
        return false;
    }
    const bool isAnswered =
        data->bytesAvailable() > 0 || hasEnded(data) || data->waitForReadyRead(timeoutMs) || hasEnded(data);
    if (isAnswered && dataFault.isEmpty())
        return true;
    fail(dataFault.isEmpty() ? timeoutText : tr("Data connection failed: %1").arg(dataFault));
    return false;
}

bool FtpClient::readAllFromData(QSslSocket *data, QByteArray *buffer)
{
    for (;;) {
        if (!awaitData(data, tr("Timed out reading from the data connection")))
            return false;
        if (data->bytesAvailable() > 0)
            buffer->append(data->readAll());
        else if (hasEnded(data))
            return true;
    }
}

bool FtpClient::completeTransfer()
{
    int code = 0;
    QString reply;
    if (!readReply(&code, &reply))
        return false;
    emit logMessage(u"< "_s + reply);
    if (code == 226 || code == 250)
        return true;
    fail(tr("Transfer did not complete cleanly: %1").arg(reply));
    return false;
}

// Listing and download

bool FtpClient::list(const QString &path, QList<FtpEntry> *entries)
{
    entries->clear();
    int code = 0;
    if (!sendCommand(u"CWD "_s + path, &code, nullptr) || (code != 250 && code != 200)) {
        fail(tr("Cannot change to remote directory '%1'").arg(path));
        return false;
    }
    if (!ensureBinaryMode())
        return false;
    const bool useMlsd = hasMlsd;
    std::unique_ptr<QSslSocket> data = openDataConnection();
    if (!data)
        return false;
    if (!sendCommand(useMlsd ? u"MLSD"_s : u"LIST -a"_s, &code, nullptr) || (code != 150 && code != 125)) {
        fail(tr("Server refused the listing command"));
        return false;
    }
    QByteArray listing;
    if (!startDataTls(data.get()) || !readAllFromData(data.get(), &listing))
        return false;
    data.reset(); // the final reply comes once this connection is gone
    if (!completeTransfer())
        return false;
    *entries = useMlsd ? parseMlsd(listing) : parseList(listing);
    if (!useMlsd && hasMdtm)
        askTimes(entries);
    return true;
}

void FtpClient::askTimes(QList<FtpEntry> *entries)
{
    for (FtpEntry &entry : *entries) {
        if (cancelAsked())
            return;
        if (entry.isDir)
            continue;
        const QDateTime modified = modificationTime(entry.name);
        if (modified.isValid())
            entry.modified = modified;
    }
}

bool FtpClient::download(const QString &remotePath, const QString &localPath, qint64 expectedSize,
                         const QDateTime &remoteTime)
{
    if (!ensureBinaryMode())
        return false;
    QFile part(workingName(localPath));
    if (!openPart(&part)) {
        failToWrite(part);
        return false;
    }
    // Not part.remove(): that gives up when closing fails, as it does on a full disk.
    auto discardPart = qScopeGuard([&part] {
        part.close();
        QFile::remove(part.fileName());
    });

    std::unique_ptr<QSslSocket> data = openDataConnection();
    if (!data)
        return false;
    int code = 0;
    if (!sendCommand(u"RETR "_s + remotePath, &code, nullptr) || (code != 150 && code != 125)) {
        fail(tr("Server refused to send '%1'").arg(remotePath));
        return false;
    }
    qint64 received = 0;
    if (!startDataTls(data.get()) || !receiveFile(data.get(), &part, remotePath, expectedSize, &received))
        return false;
    data.reset(); // the final reply comes once this connection is gone
    if (!completeTransfer())
        return false;
    if (expectedSize >= 0 && received != expectedSize) {
        fail(tr("Size mismatch for '%1': expected %2 bytes, got %3")
                 .arg(remotePath, QString::number(expectedSize), QString::number(received)));
        return false;
    }
    if (!finishPart(&part) || !replaceLocalFile(part.fileName(), localPath))
        return false;
    discardPart.dismiss();

    QFile file(localPath);
    if (remoteTime.isValid() && file.open(QIODevice::ReadWrite | QIODevice::ExistingOnly))
        file.setFileTime(remoteTime, QFileDevice::FileModificationTime);
    return true;
}

bool FtpClient::receiveFile(QSslSocket *data, QFile *part, const QString &remotePath, qint64 expectedSize,
                            qint64 *received)
{
    const QString timeoutText = tr("Timed out receiving '%1'").arg(remotePath);
    QByteArray chunk(kChunkBytes, Qt::Uninitialized);
    for (;;) {
        if (!awaitData(data, timeoutText))
            return false;
        const qint64 count = data->read(chunk.data(), chunk.size());
        if (count > 0) {
            if (!writeAll(part, chunk.constData(), count)) {
                failToWrite(*part);
                return false;
            }
            *received += count;
            emit transferProgress(*received, expectedSize);
        } else if (hasEnded(data)) {
            return true;
        }
    }
}

void FtpClient::failToWrite(const QFile &part)
{
    fail(tr("Cannot write to '%1': %2").arg(part.fileName(), part.errorString()));
}

bool FtpClient::finishPart(QFile *part)
{
    if (!part->flush()) {
        failToWrite(*part);
        return false;
    }
    part->close();
    if (part->error() != QFileDevice::NoError) {
        failToWrite(*part);
        return false;
    }
    return true;
}

bool FtpClient::replaceLocalFile(const QString &partPath, const QString &localPath)
{
    if (QFileInfo::exists(localPath) && !QFile::remove(localPath)) {
        fail(tr("Cannot replace '%1'").arg(localPath));
        return false;
    }
    // QFile::rename falls back to copying, and a copy can end half-way under the final name.
    std::error_code error;
    std::filesystem::rename(nativePath(partPath), nativePath(localPath), error);
    if (error) {
        fail(tr("Cannot rename '%1' to '%2'").arg(partPath, localPath));
        return false;
    }
    return true;
}

QDateTime FtpClient::modificationTime(const QString &path)
{
    int code = 0;
    QString reply;
    if (!hasMdtm || !sendCommand(u"MDTM "_s + path, &code, &reply) || code != 213)
        return {};
    return parseTimeval(replyValue(reply));
}

qint64 FtpClient::fileSize(const QString &path)
{
    int code = 0;
    QString reply;
    if (!hasSize || !ensureBinaryMode() || !sendCommand(u"SIZE "_s + path, &code, &reply) || code != 213)
        return -1;
    bool ok = false;
    const qint64 size = replyValue(reply).toLongLong(&ok);
    return ok ? size : -1;
}
