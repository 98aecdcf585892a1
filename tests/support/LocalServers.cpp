#include "LocalServers.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QThread>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

namespace trel::test {

quint16 freeLoopbackPort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    quint16 port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0
        && ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port = ntohs(address.sin_port);
    }
    ::close(fd);
    return port;
}

bool waitUntilListening(quint16 port, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (!deadline.hasExpired()) {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        const bool connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
        ::close(fd);
        if (connected) {
            return true;
        }
        QThread::msleep(20); // polling a port that is not up yet: nothing to wait on
    }
    return false;
}

// ---------------------------------------------------------------------------

ExecArguments::ExecArguments(const QString& program, const QStringList& arguments)
{
    storage.push_back(program.toLocal8Bit());
    for (const QString& argument : arguments) {
        storage.push_back(argument.toLocal8Bit());
    }
    for (QByteArray& item : storage) {
        pointers.push_back(item.data());
    }
    pointers.push_back(nullptr);
}

bool ChildProcess::start(const QString& program, const QStringList& arguments, const QString& logPath)
{
    const ExecArguments exec(program, arguments);
    const QByteArray log = logPath.toLocal8Bit();
    childPid = ::fork();
    if (childPid == 0) {
        const int out = ::open(log.constData(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (out >= 0) {
            ::dup2(out, STDOUT_FILENO);
            ::dup2(out, STDERR_FILENO);
        }
        const int in = ::open("/dev/null", O_RDONLY);
        ::dup2(in, STDIN_FILENO);
        ::execv(exec.program(), exec.argv());
        ::_exit(127);
    }
    return childPid > 0;
}

bool ChildProcess::running()
{
    if (childPid <= 0) {
        return false;
    }
    int status = 0;
    if (::waitpid(childPid, &status, WNOHANG) == childPid) {
        childPid = -1;
        return false;
    }
    return true;
}

void ChildProcess::stop()
{
    if (childPid <= 0) {
        return;
    }
    ::kill(childPid, SIGTERM);
    const QDeadlineTimer deadline(5000);
    int status = 0;
    while (::waitpid(childPid, &status, WNOHANG) == 0) {
        if (deadline.hasExpired()) {
            ::kill(childPid, SIGKILL);
            ::waitpid(childPid, &status, 0);
            break;
        }
        QThread::msleep(10);
    }
    childPid = -1;
}

// ---------------------------------------------------------------------------

bool TestCertificate::create(const QString& directory, TestCertificate& out)
{
    out.keyPath = directory + QStringLiteral("/key.pem");
    out.certificatePath = directory + QStringLiteral("/cert.pem");
    QProcess openssl;
    openssl.setProcessChannelMode(QProcess::MergedChannels);
    openssl.start(QStringLiteral("openssl"),
        { "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=localhost", "-addext",
            "subjectAltName=DNS:localhost,IP:127.0.0.1", "-keyout", out.keyPath, "-out",
            out.certificatePath });
    return openssl.waitForFinished(30000) && openssl.exitCode() == 0 && QFile::exists(out.certificatePath);
}

namespace {

// Runs openssl with `arguments`; on failure, what it printed.
bool runOpenssl(const QStringList& arguments, QString& error)
{
    QProcess openssl;
    openssl.setProcessChannelMode(QProcess::MergedChannels);
    openssl.start(QStringLiteral("openssl"), arguments);
    if (openssl.waitForFinished(30000) && openssl.exitCode() == 0) {
        return true;
    }
    error = QStringLiteral("openssl ") + arguments.join(' ') + QStringLiteral(": ")
        + QString::fromLocal8Bit(openssl.readAll());
    return false;
}

} // namespace

bool TestCertificateAuthority::create(const QString& inDirectory, const QString& name)
{
    directory = inDirectory;
    certificate.keyPath = directory + QStringLiteral("/ca.key");
    certificate.certificatePath = directory + QStringLiteral("/ca.pem");
    return runOpenssl(
        { "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=" + name, "-addext",
            "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign,cRLSign",
            "-keyout", certificate.keyPath, "-out", certificate.certificatePath },
        lastError);
}

bool TestCertificateAuthority::issueServer(const QString& fileStem, TestCertificate& out) const
{
    return issue(fileStem, QStringLiteral("localhost"),
        { "subjectAltName=DNS:localhost,IP:127.0.0.1", "extendedKeyUsage=serverAuth" }, out);
}

bool TestCertificateAuthority::issueClient(const QString& fileStem, TestCertificate& out) const
{
    return issue(fileStem, QStringLiteral("trel-test-client"), { "extendedKeyUsage=clientAuth" }, out);
}

bool TestCertificateAuthority::issue(const QString& fileStem, const QString& commonName,
    const QStringList& extensions, TestCertificate& out) const
{
    out.keyPath = directory + '/' + fileStem + QStringLiteral(".key");
    out.certificatePath = directory + '/' + fileStem + QStringLiteral(".pem");
    QStringList arguments { "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
        "/CN=" + commonName, "-CA", certificate.certificatePath, "-CAkey", certificate.keyPath, "-addext",
        "basicConstraints=CA:FALSE" };
    for (const QString& extension : extensions) {
        arguments << QStringLiteral("-addext") << extension;
    }
    arguments << QStringLiteral("-keyout") << out.keyPath << QStringLiteral("-out") << out.certificatePath;
    return runOpenssl(arguments, lastError);
}

namespace {

bool writeFileAt(const QString& path, const QByteArray& content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

QByteArray patternBytes(int count)
{
    QByteArray bytes(count, '\0');
    for (int i = 0; i < count; ++i) {
        bytes[i] = static_cast<char>('a' + i % 26);
    }
    return bytes;
}

QString readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

} // namespace

// ---------------------------------------------------------------------------

bool NginxServer::writeConfig(const Options& options)
{
    const QString dir = prefix->path();
    QString tls;
    if (options.http2Tls) {
        TestCertificate certificate = options.tlsCertificate;
        if (certificate.certificatePath.isEmpty() && !TestCertificate::create(dir, certificate)) {
            lastError = QStringLiteral("openssl could not make a certificate");
            return false;
        }
        const QString clientCheck = options.clientCaPath.isEmpty()
            ? QString()
            : QStringLiteral("        ssl_verify_client on;\n        ssl_client_certificate %1;\n")
                  .arg(options.clientCaPath);
        tls = QStringLiteral("    server {\n"
                             "        listen 127.0.0.1:%1 ssl http2;\n"
                             "        ssl_certificate %2;\n"
                             "        ssl_certificate_key %3;\n"
                             "%5"
                             "        include %4/locations.conf;\n"
                             "    }\n")
                  .arg(securePort)
                  .arg(certificate.certificatePath, certificate.keyPath, dir, clientCheck);
    }
    const QString echo = options.backendPort
        ? QStringLiteral("location /echo { proxy_pass http://127.0.0.1:%1; proxy_http_version 1.1; "
                         "proxy_request_buffering on; proxy_set_header Connection \"\"; }\n")
              .arg(options.backendPort)
        : QString();
    const QString locations
        = QStringLiteral(
              "root %1/html;\n"
              "location /files/ { }\n"
              "location /cache/ { alias %1/html/files/; add_header Cache-Control \"max-age=60\"; }\n"
              "location = /upload { client_max_body_size 0; return 200 \"uploaded\\n\"; }\n"
              // Repeated fields, names in mixed case, and a redirect that sets
              // a cookie of its own before the final response's.
              "location = /repeated { add_header Set-Cookie a=1; add_header Set-Cookie b=2; "
              "add_header Link \"</p2>; rel=next\"; add_header Link \"</p9>; rel=last\"; "
              "add_header Vary Accept; add_header Vary Origin; add_header X-MiXeD one; add_header x-mixed "
              "two; "
              "return 200 \"repeated\\n\"; }\n"
              "location = /repeated-redirect { add_header Set-Cookie r=0; return 302 /repeated; }\n"
              // Fields named like the library's own, as a hostile server would send them.
              "location = /forged { add_header X-TrelError forged; "
              "add_header X-TrelEfectiveUrl http://elsewhere.invalid/; add_header x-trel-other 1; "
              "return 200 \"forged\\n\"; }\n")
              .arg(dir)
        + echo;
    const QString config
        = QStringLiteral(
            "%1"
            "worker_processes %2;\n"
            "daemon off;\n"
            "pid %3/nginx.pid;\n"
            "error_log %3/error.log warn;\n"
            "events { worker_connections %7; }\n"
            "http {\n"
            "    log_format trel '$connection $connection_requests $request_method $request_uri $status "
            "$request_length $body_bytes_sent';\n"
            "    access_log %6;\n"
            "    client_body_temp_path %3/client_body;\n"
            "    proxy_temp_path %3/proxy;\n"
            "    fastcgi_temp_path %3/fastcgi;\n"
            "    uwsgi_temp_path %3/uwsgi;\n"
            "    scgi_temp_path %3/scgi;\n"
            "    keepalive_requests 100000;\n"
            "    keepalive_timeout 60s;\n"
            "    client_max_body_size 200m;\n"
            "    default_type application/octet-stream;\n"
            "    server {\n"
            "        listen 127.0.0.1:%4;\n"
            "        include %3/locations.conf;\n"
            "    }\n"
            "%5"
            "}\n")
              .arg(::geteuid() == 0 ? QStringLiteral("user root;\n") : QString())
              .arg(options.workers)
              .arg(dir)
              .arg(plainPort)
              .arg(tls)
              .arg(options.accessLog ? dir + QStringLiteral("/access.log trel") : QStringLiteral("off"))
              .arg(options.workerConnections);
    return writeFileAt(dir + QStringLiteral("/locations.conf"), locations.toUtf8())
        && writeFileAt(dir + QStringLiteral("/nginx.conf"), config.toUtf8());
}

bool NginxServer::start()
{
    return start(Options());
}

bool NginxServer::start(const Options& options)
{
    stop();
    for (int attempt = 0; attempt < 5; ++attempt) {
        prefix = std::make_unique<QTemporaryDir>();
        plainPort = freeLoopbackPort();
        securePort = options.http2Tls ? freeLoopbackPort() : 0;
        writeFile(QStringLiteral("files/1k"), patternBytes(1024));
        writeFile(QStringLiteral("files/10m"), patternBytes(10 * 1024 * 1024));
        writeFile(QStringLiteral("files/index.html"), "<html><body>trel</body></html>\n");
        if (!writeConfig(options)) {
            return false;
        }
        const QString dir = prefix->path();
        if (!process.start(QStringLiteral("/usr/sbin/nginx"),
                { "-p", dir, "-c", dir + "/nginx.conf", "-e", dir + "/error.log" }, dir + "/output.log")) {
            lastError = QStringLiteral("could not start /usr/sbin/nginx");
            return false;
        }
        const bool up
            = waitUntilListening(plainPort, 10000) && (!securePort || waitUntilListening(securePort, 10000));
        if (up && process.running()) {
            return true;
        }
        lastError = readAll(dir + "/error.log") + readAll(dir + "/output.log");
        process.stop();
    }
    return false;
}

void NginxServer::stop()
{
    process.stop();
}

QByteArray NginxServer::url(const QByteArray& path) const
{
    return "http://127.0.0.1:" + QByteArray::number(plainPort) + path;
}

QByteArray NginxServer::tlsUrl(const QByteArray& path) const
{
    return "https://localhost:" + QByteArray::number(securePort) + path;
}

QString NginxServer::root() const
{
    return prefix->path() + QStringLiteral("/html");
}

void NginxServer::writeFile(const QString& relativePath, const QByteArray& content)
{
    writeFileAt(root() + QLatin1Char('/') + relativePath, content);
}

QString NginxServer::accessLog() const
{
    return readAll(prefix->path() + QStringLiteral("/access.log"));
}

QStringList NginxServer::accessLogLines(const QString& text) const
{
    return accessLog().split(QLatin1Char('\n'), Qt::SkipEmptyParts).filter(text);
}

// ---------------------------------------------------------------------------

bool NghttpdServer::start()
{
    return start(Options());
}

bool NghttpdServer::start(const Options& options)
{
    stop();
    tls = !options.noTls;
    for (int attempt = 0; attempt < 5; ++attempt) {
        prefix = std::make_unique<QTemporaryDir>();
        serverPort = freeLoopbackPort();
        writeFile(QStringLiteral("index.html"), "hello h2");
        writeFile(QStringLiteral("style.css"), "body{}");
        writeFile(QStringLiteral("1k"), patternBytes(1024));
        QStringList arguments { QStringLiteral("--address=127.0.0.1"), QStringLiteral("--htdocs=") + root() };
        if (options.echoUpload) {
            arguments << QStringLiteral("--echo-upload");
        }
        for (const QString& push : options.pushes) {
            arguments << QStringLiteral("--push=") + push;
        }
        if (options.verbose) {
            arguments << QStringLiteral("--verbose");
        }
        arguments << QString::number(serverPort);
        if (tls) {
            TestCertificate certificate;
            if (!TestCertificate::create(prefix->path(), certificate)) {
                lastError = QStringLiteral("openssl could not make a certificate");
                return false;
            }
            arguments << certificate.keyPath << certificate.certificatePath;
        } else {
            arguments << QStringLiteral("--no-tls");
        }
        const QString logPath = prefix->path() + QStringLiteral("/nghttpd.log");
        if (!process.start(QStringLiteral("/usr/sbin/nghttpd"), arguments, logPath)) {
            lastError = QStringLiteral("could not start /usr/sbin/nghttpd");
            return false;
        }
        if (waitUntilListening(serverPort, 10000) && process.running()) {
            return true;
        }
        lastError = readAll(logPath);
        process.stop();
    }
    return false;
}

void NghttpdServer::stop()
{
    process.stop();
}

QByteArray NghttpdServer::url(const QByteArray& path) const
{
    return (tls ? "https://localhost:" : "http://127.0.0.1:") + QByteArray::number(serverPort) + path;
}

QString NghttpdServer::root() const
{
    return prefix->path() + QStringLiteral("/htdocs");
}

void NghttpdServer::writeFile(const QString& relativePath, const QByteArray& content)
{
    writeFileAt(root() + QLatin1Char('/') + relativePath, content);
}

QString NghttpdServer::log() const
{
    return readAll(prefix->path() + QStringLiteral("/nghttpd.log"));
}

int NghttpdServer::sessionsInLog() const
{
    QSet<QString> sessions;
    const QRegularExpression id(QStringLiteral("\\[id=(\\d+)\\]"));
    auto matches = id.globalMatch(log());
    while (matches.hasNext()) {
        sessions.insert(matches.next().captured(1));
    }
    return sessions.size();
}

} // namespace trel::test
