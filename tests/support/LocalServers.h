#pragma once

// Real servers from Debian's packages, run for tests and benchmarks on free
// loopback ports with their own temporary prefix, and stopped by their own PID:
// nginx (HTTP/1.1, and HTTP/2 over TLS) and nghttpd (HTTP/2, server push).

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <sys/types.h>

#include <memory>
#include <vector>

namespace trel::test {

// The argument vector of an execv() call, built from Qt strings before fork()
// (nothing is allocated in the child) and kept alive as long as the holder.
class ExecArguments
{
public:
    ExecArguments(const QString& program, const QStringList& arguments);
    ExecArguments(const ExecArguments&) = delete;
    ExecArguments& operator=(const ExecArguments&) = delete;

    const char* program() const { return pointers.front(); }
    char* const* argv() const { return pointers.data(); }

private:
    std::vector<QByteArray> storage;
    std::vector<char*> pointers; // into storage, null-terminated
};

// A loopback port that was free a moment ago.
quint16 freeLoopbackPort();
// True once something accepts TCP connections on 127.0.0.1:port.
bool waitUntilListening(quint16 port, int timeoutMs);

// A child process stopped with SIGTERM (then SIGKILL) by its PID.
class ChildProcess
{
public:
    ChildProcess() = default;
    ~ChildProcess() { stop(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Output (stdout and stderr) goes to `logPath`.
    bool start(const QString& program, const QStringList& arguments, const QString& logPath);
    bool running();
    void stop();
    pid_t pid() const { return childPid; }

private:
    pid_t childPid = -1;
};

// A self-signed certificate for localhost and 127.0.0.1, made with openssl.
struct TestCertificate
{
    QString keyPath;
    QString certificatePath;
    static bool create(const QString& directory, TestCertificate& out);
};

// A private certificate authority made with openssl in a directory of the
// caller's, and the certificates it signs: for localhost and 127.0.0.1 (a
// server's), or for a client.
class TestCertificateAuthority
{
public:
    bool create(const QString& directory, const QString& name);
    bool issueServer(const QString& fileStem, TestCertificate& out) const;
    bool issueClient(const QString& fileStem, TestCertificate& out) const;
    QString certificatePath() const { return certificate.certificatePath; }
    QString error() const { return lastError; }

private:
    bool issue(const QString& fileStem, const QString& commonName, const QStringList& extensions,
        TestCertificate& out) const;
    QString directory;
    TestCertificate certificate;
    mutable QString lastError;
};

class NginxServer
{
public:
    struct Options
    {
        quint16 backendPort = 0; // when set, /echo is proxied to 127.0.0.1:backendPort
        bool http2Tls = false; // also listen with TLS and HTTP/2 on tlsPort()
        // With http2Tls: the server's certificate (a self-signed one when empty),
        // and the CA whose client certificates it demands (none when empty).
        TestCertificate tlsCertificate;
        QString clientCaPath;
        int workers = 1;
        bool accessLog = true; // benchmarks turn it off
        int workerConnections = 4096; // per worker; a small value shows what a client opens at once
    };

    NginxServer() = default;
    ~NginxServer() { stop(); }

    bool start();
    bool start(const Options& options);
    void stop();
    QString error() const { return lastError; }

    quint16 port() const { return plainPort; }
    quint16 tlsPort() const { return securePort; }
    QByteArray url(const QByteArray& path) const; // http://127.0.0.1:<port><path>
    QByteArray tlsUrl(const QByteArray& path) const; // https://localhost:<tlsPort><path>
    QString root() const; // served under /files/ and /cache/
    void writeFile(const QString& relativePath, const QByteArray& content);

    QString accessLog() const;
    // The access-log lines that contain `text`. nginx writes a request's line
    // after answering it, so tests match lines of their own marked URLs.
    QStringList accessLogLines(const QString& text) const;

private:
    bool writeConfig(const Options& options);
    std::unique_ptr<QTemporaryDir> prefix;
    ChildProcess process;
    quint16 plainPort = 0;
    quint16 securePort = 0;
    QString lastError;
};

class NghttpdServer
{
public:
    struct Options
    {
        bool echoUpload = true;
        QStringList pushes; // "path=/a,/b": a GET of path pushes /a and /b
        bool noTls = false; // cleartext prior-knowledge HTTP/2
        bool verbose = false; // frame log in log(); needed to count connections
    };

    NghttpdServer() = default;
    ~NghttpdServer() { stop(); }

    bool start();
    bool start(const Options& options);
    void stop();
    QString error() const { return lastError; }

    quint16 port() const { return serverPort; }
    // https://localhost:<port><path>, or http://127.0.0.1:<port><path> without TLS.
    QByteArray url(const QByteArray& path) const;
    QString root() const;
    void writeFile(const QString& relativePath, const QByteArray& content);
    QString log() const;
    // Distinct client sessions seen in the verbose log.
    int sessionsInLog() const;

private:
    std::unique_ptr<QTemporaryDir> prefix;
    ChildProcess process;
    quint16 serverPort = 0;
    bool tls = true;
    QString lastError;
};

} // namespace trel::test
