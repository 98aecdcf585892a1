#pragma once

// Where one response body goes while it arrives: standard output, or a file
// written under a temporary name in its target directory and renamed into place
// only when the request succeeded, so that a truncated or failed body never
// sits under the final name.

#include <QByteArray>
#include <QFile>
#include <QSaveFile>
#include <QString>

#include <cstdio>
#include <memory>

namespace trelfetch {

class BodySink
{
public:
    virtual ~BodySink() = default;
    // False, with error() set, when the bytes could not be written.
    virtual bool write(const QByteArray& bytes) = 0;
    // Makes the body final; false, with error() set, when that failed.
    virtual bool commit() = 0;
    // Drops whatever was written where it can still be taken back.
    virtual void discard() = 0;
    // The file the body went to; empty for standard output.
    virtual QString path() const = 0;
    QString error() const { return lastError; }

protected:
    QString lastError;
};

class StreamSink : public BodySink
{
public:
    explicit StreamSink(std::FILE* stream);
    bool write(const QByteArray& bytes) override;
    bool commit() override;
    void discard() override { }
    QString path() const override { return {}; }

private:
    std::FILE* const stream;
};

// An existing target that is not a regular file (/dev/null, a named pipe):
// written in place, as curl does, since there is nothing to replace or rename.
class DeviceSink : public BodySink
{
public:
    explicit DeviceSink(const QString& path);
    bool write(const QByteArray& bytes) override;
    bool commit() override;
    void discard() override { }
    QString path() const override { return device.fileName(); }

private:
    QFile device;
};

class FileSink : public BodySink
{
public:
    // `clobber` false refuses to replace a file that exists when the body is
    // committed; `createDirs` creates missing parent directories on first write;
    // `keptBytes` of the existing file come before the body (-C, resuming).
    FileSink(const QString& finalPath, bool clobber, bool createDirs, qint64 keptBytes = 0);
    bool write(const QByteArray& bytes) override;
    bool commit() override;
    void discard() override;
    QString path() const override { return finalPath; }

private:
    bool open();
    bool copyKeptBytes();

    const QString finalPath;
    const bool clobber;
    const bool createDirs;
    const qint64 keptBytes;
    std::unique_ptr<QSaveFile> file; // removes its temporary file unless committed
};

} // namespace trelfetch
