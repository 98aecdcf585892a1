#pragma once

// Running trel-fetch as a user would: arguments, standard input, environment,
// and what it wrote and returned; also its peak memory, measured by the
// harness from the kernel's accounting of the child as it exits.

#include "LocalServers.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QList>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

#include <csignal>
#include <vector>

#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace trel::test {

struct FetchRun
{
    int exitCode = -1;
    QByteArray out;
    QByteArray err;

    // The --report=json result lines on standard error, in the order written.
    QList<QJsonObject> reports() const
    {
        QList<QJsonObject> objects;
        for (const QByteArray& line : err.split('\n')) {
            const QJsonDocument document = QJsonDocument::fromJson(line);
            if (document.isObject() && document.object().value("kind").toString() != "summary") {
                objects.append(document.object());
            }
        }
        return objects;
    }
};

inline FetchRun runFetch(const QStringList& arguments, const QByteArray& input = {}, int timeoutMs = 60000,
    const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment())
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(TREL_FETCH_PATH), arguments);
    FetchRun run;
    if (!process.waitForStarted(10000)) {
        run.err = "could not start trel-fetch";
        return run;
    }
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished(5000);
        run.err = "trel-fetch did not finish in time";
        return run;
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

struct MeasuredRun
{
    int exitCode = -1;
    long peakRssKb = -1; // the child's VmHWM as it exits
};

// VmHWM (peak resident set size) of a process, from /proc; -1 when unknown.
inline long peakRssKbOf(pid_t pid)
{
    QFile status(QString("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly)) {
        return -1;
    }
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmHWM:")) {
            return line.mid(6).trimmed().split(' ').first().toLong();
        }
    }
    return -1;
}

// Runs trel-fetch with standard output and standard error to files and
// returns its exit code and peak resident set size. The peak is read from
// /proc at the moment the child exits (a ptrace exit stop), because rusage's
// ru_maxrss of a forked child also counts the test process it was forked from.
inline MeasuredRun runMeasured(const QStringList& arguments, const QString& outPath, const QString& errPath)
{
    const ExecArguments exec(QString::fromLocal8Bit(TREL_FETCH_PATH), arguments);
    const QByteArray out = outPath.toLocal8Bit();
    const QByteArray err = errPath.toLocal8Bit();
    MeasuredRun measured;
    const pid_t child = ::fork();
    if (child < 0) {
        return measured;
    }
    if (child == 0) {
        const int outFd = ::open(out.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int errFd = ::open(err.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int nullFd = ::open("/dev/null", O_RDONLY);
        ::dup2(outFd, STDOUT_FILENO);
        ::dup2(errFd, STDERR_FILENO);
        ::dup2(nullFd, STDIN_FILENO);
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        ::execv(exec.program(), exec.argv()); // stops with SIGTRAP once the new program is loaded
        ::_exit(127);
    }
    int status = 0;
    if (::waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) {
        return measured;
    }
    ::ptrace(PTRACE_SETOPTIONS, child, nullptr, reinterpret_cast<void*>(PTRACE_O_TRACEEXIT));
    ::ptrace(PTRACE_CONT, child, nullptr, nullptr);
    while (::waitpid(child, &status, 0) == child) {
        if (WIFEXITED(status) || WIFSIGNALED(status)) {
            measured.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            break;
        }
        const bool exiting = (status >> 8) == (SIGTRAP | (PTRACE_EVENT_EXIT << 8));
        if (exiting) {
            measured.peakRssKb = peakRssKbOf(child);
        }
        const long forwarded = exiting ? 0 : WSTOPSIG(status);
        ::ptrace(PTRACE_CONT, child, nullptr, reinterpret_cast<void*>(forwarded));
    }
    return measured;
}

// The files in `directory`, hidden ones (temporary files) included.
inline QStringList filesIn(const QString& directory)
{
    return QDir(directory).entryList(QDir::Files | QDir::Hidden | QDir::System);
}

inline QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

inline bool writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

} // namespace trel::test
