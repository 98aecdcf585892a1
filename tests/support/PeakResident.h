#pragma once

// The test process's own peak resident memory, for checks that a transfer's
// memory stays bounded whatever its size.

#include <QByteArray>
#include <QFile>
#include <QList>

namespace trel::test {

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

} // namespace trel::test
