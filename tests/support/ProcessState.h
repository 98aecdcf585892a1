#pragma once

// What the kernel says about this test process: its resident memory and the
// scheduler state of its threads, for tests that bound memory or wait until a
// thread is asleep in a blocking call.

#include <QByteArray>
#include <QFile>
#include <QList>
#include <QString>

#include <sys/types.h>
#include <unistd.h>

#include <fstream>
#include <string>

namespace trel::test {

// The process's resident set in KiB; -1 when it cannot be read.
inline long residentKilobytes()
{
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly)) {
        return -1;
    }
    const QList<QByteArray> fields = statm.readAll().split(' ');
    return fields.size() > 1 ? fields[1].toLong() * (::sysconf(_SC_PAGESIZE) / 1024) : -1;
}

// The scheduler state of one of this process's threads, as the kernel reports it
// ('R' running, 'S' sleeping, ...); '?' when it cannot be read.
inline char threadState(pid_t tid)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    std::getline(stat, line);
    const auto close = line.rfind(')');
    if (close == std::string::npos || close + 2 >= line.size()) {
        return '?';
    }
    return line[close + 2];
}

} // namespace trel::test
