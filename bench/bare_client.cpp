// The yardstick of tools/bench: plain blocking sockets that say to a server what the program's worker
// says, in the same order, and do with the answers what it does, without a log, a signal or a thread.
// What it takes is what the protocol, the system and the server take.
//
//   bare_client HOST PORT plain|tls USER PASSWORD REMOTE-FOLDER LOCAL-FOLDER

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/err.h>
#include <openssl/ssl.h>

namespace {

constexpr size_t kChunkBytes = 65536;
constexpr int kClockSlackSecs = 2;

[[noreturn]] void die(const std::string &why)
{
    std::fprintf(stderr, "bare_client: %s (%s)\n", why.c_str(), std::strerror(errno));
    std::exit(1);
}

/** A connected socket, encrypted once secure() was called. */
class Connection
{
public:
    Connection(const in_addr &address, uint16_t port)
    {
        sockaddr_in target = {};
        target.sin_family = AF_INET;
        target.sin_addr = address;
        target.sin_port = htons(port);
        descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (descriptor < 0 || connect(descriptor, reinterpret_cast<sockaddr *>(&target), sizeof target) != 0)
            die("cannot connect");
    }

    ~Connection()
    {
        SSL_free(ssl);
        close(descriptor);
    }

    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    void secure(SSL_CTX *context)
    {
        ssl = SSL_new(context);
        if (!ssl || SSL_set_fd(ssl, descriptor) != 1 || SSL_connect(ssl) != 1)
            die("TLS handshake failed");
    }

    /** Bytes read; 0 at the end. */
    size_t receive(char *buffer, size_t size) const
    {
        if (!ssl) {
            const ssize_t count = recv(descriptor, buffer, size, 0);
            if (count < 0)
                die("cannot receive");
            return static_cast<size_t>(count);
        }
        const int count = SSL_read(ssl, buffer, static_cast<int>(size));
        if (count > 0)
            return static_cast<size_t>(count);
        const int error = SSL_get_error(ssl, count);
        if (error != SSL_ERROR_ZERO_RETURN && error != SSL_ERROR_SYSCALL && error != SSL_ERROR_SSL)
            die("cannot receive");
        ERR_clear_error(); // not every server announces the end
        return 0;
    }

    void send(const std::string &text) const
    {
        const bool sent = ssl ? SSL_write(ssl, text.data(), static_cast<int>(text.size())) > 0
                              : ::send(descriptor, text.data(), text.size(), MSG_NOSIGNAL) ==
                                    static_cast<ssize_t>(text.size());
        if (!sent)
            die("cannot send");
    }

private:
    int descriptor = -1;
    SSL *ssl = nullptr;
};

/** What a listing says of a file or folder; the name points into the listing. */
struct Entry
{
    std::string_view name = {};
    bool isDir = false;
    bool isSymlink = false;
    int64_t size = -1;
    time_t modified = -1; ///< -1 if unknown
};

/** Takes a word, and the blanks behind it, off the front of a line. */
std::string_view takeWord(std::string_view *line)
{
    const size_t end = std::min(line->find(' '), line->size());
    const std::string_view word = line->substr(0, end);
    line->remove_prefix(std::min(line->find_first_not_of(' ', end), line->size()));
    return word;
}

int64_t toNumber(std::string_view digits)
{
    int64_t number = 0;
    for (const char c : digits) {
        if (c < '0' || c > '9')
            return -1;
        number = number * 10 + (c - '0');
    }
    return digits.empty() ? -1 : number;
}

/** Seconds since 1970 of "YYYYMMDDHHMMSS", or -1. */
time_t toTime(std::string_view text)
{
    if (text.size() < 14 || toNumber(text.substr(0, 14)) < 0)
        return -1;
    const auto field = [text](size_t from, size_t length) { return toNumber(text.substr(from, length)); };
    // Days of the civil calendar, with years that begin in March.
    const int64_t month = field(4, 2);
    const int64_t year = field(0, 4) - (month <= 2 ? 1 : 0);
    const int64_t days = year * 365 + year / 4 - year / 100 + year / 400 +
                         (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + field(6, 2) - 1 - 719468;
    return days * 86400 + field(8, 2) * 3600 + field(10, 2) * 60 + field(12, 2);
}

/** False for what is no entry. */
bool parseMlsdLine(std::string_view line, Entry *entry)
{
    std::string_view facts = line.substr(0, line.find(' '));
    if (facts.size() >= line.size())
        return false;
    entry->name = line.substr(facts.size() + 1);
    while (!facts.empty()) {
        const size_t end = std::min(facts.find(';'), facts.size());
        const std::string_view fact = facts.substr(0, end);
        facts.remove_prefix(std::min(end + 1, facts.size()));
        if (fact.starts_with("type=")) {
            const std::string_view type = fact.substr(5);
            if (type == "cdir" || type == "pdir")
                return false;
            entry->isDir = type == "dir";
            entry->isSymlink = type.starts_with("OS.unix=slink");
        } else if (fact.starts_with("size=")) {
            entry->size = toNumber(fact.substr(5));
        } else if (fact.starts_with("modify=")) {
            entry->modified = toTime(fact.substr(7));
        }
    }
    return entry->name != "." && entry->name != "..";
}

bool parseListLine(std::string_view line, Entry *entry)
{
    if (line[0] != '-' && line[0] != 'd' && line[0] != 'l')
        return false;
    entry->isDir = line[0] == 'd';
    entry->isSymlink = line[0] == 'l';
    for (int skipped = 0; skipped < 4; ++skipped) // rights, links, owner, group
        takeWord(&line);
    entry->size = toNumber(takeWord(&line));
    for (int skipped = 0; skipped < 3; ++skipped) // month, day, year or time
        takeWord(&line);
    entry->name = line;
    return !line.empty() && line != "." && line != "..";
}

class Client
{
public:
    Client(const char *host, const char *port, bool useTls, const std::string &user,
           const std::string &password) :
        address(parsed(host)),
        context(useTls ? SSL_CTX_new(TLS_client_method()) : nullptr),
        control(address, static_cast<uint16_t>(std::atoi(port)))
    {
        expect(220);
        if (useTls) {
            if (ask("AUTH TLS") != 234)
                die(reply);
            control.secure(context);
        }
        int code = ask("USER " + user);
        if (code == 331)
            code = ask("PASS " + password);
        if (code != 230)
            die(reply);
        if (useTls && (ask("PBSZ 0") != 200 || ask("PROT P") != 200))
            die(reply);
        if (ask("FEAT") == 211) {
            hasMlsd = reply.find("MLSD") != std::string::npos;
            hasMdtm = reply.find("MDTM") != std::string::npos;
            if (reply.find("UTF8") != std::string::npos)
                ask("OPTS UTF8 ON");
        }
    }

    ~Client()
    {
        control.send("QUIT\r\n");
        SSL_CTX_free(context);
    }

    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    void mirror(const std::string &remote, const std::string &local)
    {
        if (mkdir(local.c_str(), 0777) != 0 && errno != EEXIST)
            die("cannot make " + local);
        const std::string listing = list(remote);
        std::vector<Entry> entries = parse(listing);
        if (!hasMlsd && hasMdtm)
            askTimes(&entries);
        std::string path = local + '/';
        const size_t folderLength = path.size();
        for (const Entry &entry : entries) {
            if (entry.isSymlink)
                continue;
            path.resize(folderLength);
            path += entry.name;
            if (entry.isDir)
                mirror(remote + '/' + std::string(entry.name), path);
            else if (isDifferent(entry, path))
                fetch(remote + '/' + std::string(entry.name), path, entry);
        }
    }

private:
    static in_addr parsed(const char *host)
    {
        in_addr parsed = {};
        if (inet_pton(AF_INET, host, &parsed) != 1)
            die("no address: " + std::string(host));
        return parsed;
    }

    /** Reads a reply to its last line into `reply`. */
    int readReply()
    {
        reply.clear();
        for (;;) {
            size_t end = received.find('\n');
            while (end == std::string::npos) {
                char buffer[4096];
                const size_t count = control.receive(buffer, sizeof buffer);
                if (count == 0)
                    die("the server hung up");
                received.append(buffer, count);
                end = received.find('\n');
            }
            const std::string line = received.substr(0, end + 1);
            received.erase(0, end + 1);
            reply += line;
            if (line.size() > 4 && line[3] == ' ' && toNumber(line.substr(0, 3)) >= 0)
                return std::atoi(line.c_str());
        }
    }

    int ask(const std::string &command)
    {
        control.send(command + "\r\n");
        return readReply();
    }

    void expect(int code)
    {
        if (readReply() != code)
            die(reply);
    }

    void ensureBinaryMode()
    {
        if (!isBinary && ask("TYPE I") != 200)
            die(reply);
        isBinary = true;
    }

    uint16_t passivePort()
    {
        unsigned port = 0;
        if (ask("EPSV") == 229) {
            const size_t bars = reply.find("|||");
            if (bars != std::string::npos)
                port = static_cast<unsigned>(std::atoi(reply.c_str() + bars + 3));
            return static_cast<uint16_t>(port);
        }
        unsigned high = 0;
        unsigned low = 0;
        const size_t open = ask("PASV") == 227 ? reply.find('(') : std::string::npos;
        if (open == std::string::npos ||
            std::sscanf(reply.c_str() + open, "(%*u,%*u,%*u,%*u,%u,%u", &high, &low) != 2)
            die(reply);
        return static_cast<uint16_t>(high * 256 + low);
    }

    /** Hands what comes for a command to `use`, a chunk at a time. */
    template <typename Function>
    void transfer(const std::string &command, Function use)
    {
        {
            Connection data(address, passivePort());
            const int code = ask(command);
            if (code != 150 && code != 125)
                die(reply);
            if (context)
                data.secure(context);
            while (const size_t count = data.receive(chunk.data(), chunk.size()))
                use(chunk.data(), count);
        }
        const int code = readReply();
        if (code != 226 && code != 250)
            die(reply);
    }

    std::string list(const std::string &remote)
    {
        const int code = ask("CWD " + remote);
        if (code != 250 && code != 200)
            die(reply);
        ensureBinaryMode();
        std::string listing;
        transfer(hasMlsd ? "MLSD" : "LIST -a",
                 [&listing](const char *bytes, size_t count) { listing.append(bytes, count); });
        return listing;
    }

    std::vector<Entry> parse(std::string_view listing) const
    {
        std::vector<Entry> entries;
        while (!listing.empty()) {
            const size_t end = std::min(listing.find('\n'), listing.size());
            std::string_view line = listing.substr(0, end);
            listing.remove_prefix(std::min(end + 1, listing.size()));
            if (line.ends_with('\r'))
                line.remove_suffix(1);
            Entry entry;
            if (!line.empty() && (hasMlsd ? parseMlsdLine(line, &entry) : parseListLine(line, &entry)))
                entries.push_back(entry);
        }
        return entries;
    }

    void askTimes(std::vector<Entry> *entries)
    {
        for (Entry &entry : *entries) {
            if (!entry.isDir && ask("MDTM " + std::string(entry.name)) == 213)
                entry.modified = toTime(std::string_view(reply).substr(4));
        }
    }

    static bool isDifferent(const Entry &entry, const std::string &path)
    {
        struct stat local = {};
        if (stat(path.c_str(), &local) != 0)
            return true;
        return (entry.size >= 0 && entry.size != local.st_size) ||
               (entry.modified >= 0 && entry.modified > local.st_mtime + kClockSlackSecs);
    }

    void fetch(const std::string &remote, const std::string &path, const Entry &entry)
    {
        const std::string part = path + ".part";
        const int file = open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (file < 0)
            die("cannot write " + part);
        int64_t total = 0;
        transfer("RETR " + remote, [&](const char *bytes, size_t count) {
            if (write(file, bytes, count) != static_cast<ssize_t>(count))
                die("cannot write " + part);
            total += static_cast<int64_t>(count);
        });
        if (entry.size >= 0 && total != entry.size)
            die("wrong size of " + part);
        if (entry.modified >= 0) {
            timespec times[2] = {};
            times[0].tv_nsec = UTIME_OMIT;
            times[1].tv_sec = entry.modified;
            futimens(file, times);
        }
        if (close(file) != 0 || rename(part.c_str(), path.c_str()) != 0)
            die("cannot write " + path);
    }

    in_addr address;
    SSL_CTX *context; ///< null without TLS
    Connection control;
    std::string received = {}; ///< of the control connection, not yet taken
    std::string reply = {};
    std::vector<char> chunk = std::vector<char>(kChunkBytes);
    bool hasMlsd = false;
    bool hasMdtm = false;
    bool isBinary = false;
};

} // namespace

int main(int argc, char *argv[])
{
    if (argc != 8) {
        std::fputs("bare_client HOST PORT plain|tls USER PASSWORD REMOTE-FOLDER LOCAL-FOLDER\n", stderr);
        return 2;
    }
    Client client(argv[1], argv[2], std::strcmp(argv[3], "tls") == 0, argv[4], argv[5]);
    client.mirror(argv[6], argv[7]);
    return 0;
}
