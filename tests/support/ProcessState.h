#pragma once

// What the kernel says about this test process: its resident memory, now and
// at its peak, the flags of the mapping that holds an address, and the
// scheduler state of its threads, for tests that bound
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

// The kernel's flags for the mapping that holds address: "hg" marks memory
// advised onto transparent huge pages. Empty when no mapping holds it.
inline QByteArray mappingFlags(const void* address)
{
    QFile maps(QStringLiteral("/proc/self/smaps"));
    if (!maps.open(QIODevice::ReadOnly | QIODevice::Text)) {
        return QByteArray();
    }
    const auto where = reinterpret_cast<quintptr>(address);
    bool inside = false;
    // /proc files announce no size, so atEnd() cannot be trusted: read it all.
    const QList<QByteArray> lines = maps.readAll().split('\n');
    for (const QByteArray& line : lines) {
        const int dash = line.indexOf('-');
        const int space = line.indexOf(' ');
        const bool field = space > 0 && line.at(space - 1) == ':'; // "Name: value"
        if (!field && dash > 0 && space > dash) { // "start-end perms offset device inode [path]"
            bool startRead = false;
            bool endRead = false;
            const quintptr start = line.left(dash).toULongLong(&startRead, 16);
            const quintptr end = line.mid(dash + 1, space - dash - 1).toULongLong(&endRead, 16);
            inside = startRead && endRead && start <= where && where < end;
        } else if (inside && line.startsWith("VmFlags:")) {
            return line.mid(8).trimmed();
        }
    }
    return QByteArray();
}

} // namespace trel::test
