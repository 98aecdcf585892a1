#include "SocketCount.h"

#include <QDir>
#include <QFile>
#include <QSet>
#include <QString>
#include <QTextStream>

namespace trel::test {
namespace {

// Inodes of the sockets this process holds ("socket:[12345]" links in /proc/self/fd).
QSet<QString> ownSocketInodes()
{
    QSet<QString> inodes;
    const QDir fds(QStringLiteral("/proc/self/fd"));
    for (const QString& entry : fds.entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System)) {
        const QString target = QFile::symLinkTarget(fds.filePath(entry));
        const QString name = QFileInfo(target).fileName();
        if (name.startsWith(QLatin1String("socket:["))) {
            inodes.insert(name.mid(8, name.size() - 9));
        }
    }
    return inodes;
}

} // namespace

int openFileDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd"))
        .entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System)
        .size();
}

int establishedConnectionsTo(unsigned short port)
{
    const QSet<QString> inodes = ownSocketInodes();
    int count = 0;
    for (const char* table : { "/proc/net/tcp", "/proc/net/tcp6" }) {
        QFile file(QString::fromLatin1(table));
        if (!file.open(QIODevice::ReadOnly)) {
            continue;
        }
        QTextStream stream(&file);
        stream.readLine(); // column titles
        for (QString line = stream.readLine(); !line.isNull(); line = stream.readLine()) {
            const QStringList fields = line.simplified().split(QLatin1Char(' '));
            if (fields.size() < 10) {
                continue;
            }
            const bool toPort = fields[2].section(QLatin1Char(':'), 1).toUShort(nullptr, 16) == port;
            const bool established = fields[3] == QLatin1String("01");
            if (toPort && established && inodes.contains(fields[9])) {
                ++count;
            }
        }
    }
    return count;
}

} // namespace trel::test
