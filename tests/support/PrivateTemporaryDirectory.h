#pragma once

// A temporary directory of this process's own, made the process's TMPDIR for
// its lifetime: checks that no trel-http-fetcher.* upload file is left behind
// must not see the files of other test programs running at the same time.

#include <QByteArray>
#include <QDir>
#include <QString>

#include <stdlib.h>

namespace trel::test {

class PrivateTemporaryDirectory
{
public:
    // Made under the TMPDIR the process started with; when it cannot be made,
    // TMPDIR stays as it was.
    explicit PrivateTemporaryDirectory(const char* prefix)
    {
        QByteArray pattern = QDir::tempPath().toLocal8Bit() + '/' + prefix + ".XXXXXX";
        if (::mkdtemp(pattern.data()) != nullptr) {
            path = pattern;
            ::setenv("TMPDIR", path.constData(), 1);
        }
    }
    ~PrivateTemporaryDirectory()
    {
        if (!path.isEmpty()) {
            QDir(QString::fromLocal8Bit(path)).removeRecursively();
        }
    }
    PrivateTemporaryDirectory(const PrivateTemporaryDirectory&) = delete;
    PrivateTemporaryDirectory& operator=(const PrivateTemporaryDirectory&) = delete;

private:
    QByteArray path;
};

} // namespace trel::test
