#pragma once

// What the kernel says about this test process: its resident memory, now and
// at its peak, and the scheduler state of its threads, for tests that bound
// memory or wait until a thread is asleep in a blocking call.

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

// Peak resident memory since the last resetPeakResident(), in bytes; -1 when
// /proc cannot say.
inline qint64 peakResidentBytes()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) {
        return -1;
    }
    const QList<QByteArray> lines = status.readAll().split('\n');
    for (const QByteArray& line : lines) {
        if (line.startsWith("VmHWM:")) {
            return line.mid(6).trimmed().split(' ').first().toLongLong() * 1024;
        }
    }
    return -1;
}

// Makes the peak the current resident size (Linux's clear_refs "5").
inline void resetPeakResident()
{
    QFile clearRefs(QStringLiteral("/proc/self/clear_refs"));
    if (clearRefs.open(QIODevice::WriteOnly)) {
        clearRefs.write("5");
    }
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
