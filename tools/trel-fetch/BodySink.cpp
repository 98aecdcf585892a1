#include "BodySink.h"

#include <QDir>

#include <QFileInfo>
#include <algorithm>

#include <cerrno>
#include <cstring>

namespace trelfetch {

StreamSink::StreamSink(std::FILE* stream)
    : stream(stream)
{ }

bool StreamSink::write(const QByteArray& bytes)
{
    const auto size = static_cast<std::size_t>(bytes.size());
    if (std::fwrite(bytes.constData(), 1, size, stream) != size) {
        lastError = QString("cannot write to standard output: %1").arg(std::strerror(errno));
        return false;
    }
    return true;
}

bool StreamSink::commit()
{
    if (std::fflush(stream) != 0) {
        lastError = QString("cannot write to standard output: %1").arg(std::strerror(errno));
        return false;
    }
    return true;
}

DeviceSink::DeviceSink(const QString& path)
    : device(path)
{ }

bool DeviceSink::write(const QByteArray& bytes)
{
    const bool written = (device.isOpen() || device.open(QIODevice::WriteOnly | QIODevice::Unbuffered))
        && device.write(bytes) == bytes.size();
    if (!written) {
        lastError = QString("cannot write '%1': %2").arg(device.fileName(), device.errorString());
    }
    return written;
}

bool DeviceSink::commit()
{
    // An empty body still opens the target, as a file would be created.
    return write(QByteArray());
}

FileSink::FileSink(const QString& finalPath, bool clobber, bool createDirs, qint64 keptBytes)
    : finalPath(finalPath)
    , clobber(clobber)
    , createDirs(createDirs)
    , keptBytes(keptBytes)
{ }

bool FileSink::open()
{
    if (file) {
        return file->isOpen();
    }
    const QString directory = QFileInfo(finalPath).absolutePath();
    if (createDirs && !QDir().mkpath(directory)) {
        lastError = QString("cannot create directory '%1'").arg(directory);
        return false;
    }
    file = std::make_unique<QSaveFile>(finalPath);
    if (!file->open(QIODevice::WriteOnly)) {
        lastError = QString("cannot write '%1': %2").arg(finalPath, file->errorString());
        return false;
    }
    return keptBytes == 0 || copyKeptBytes();
}

// -C: the bytes the file already holds come first, copied in pieces so that a
// large file costs no more memory than a small one.
bool FileSink::copyKeptBytes()
{
    constexpr qint64 kPiece = 1 << 20;
    QFile existing(finalPath);
    if (!existing.open(QIODevice::ReadOnly)) {
        lastError = QString("cannot read '%1' to resume it: %2").arg(finalPath, existing.errorString());
        return false;
    }
    for (qint64 left = keptBytes; left > 0;) {
        const QByteArray piece = existing.read(std::min(left, kPiece));
        if (piece.isEmpty() || file->write(piece) != piece.size()) {
            lastError = QString("cannot resume '%1': %2").arg(finalPath, file->errorString());
            return false;
        }
        left -= piece.size();
    }
    return true;
}

bool FileSink::write(const QByteArray& bytes)
{
    if (!open()) {
        return false;
    }
    if (file->write(bytes) != bytes.size()) {
        lastError = QString("cannot write '%1': %2").arg(finalPath, file->errorString());
        return false;
    }
    return true;
}

bool FileSink::commit()
{
    if (!open()) {
        return false;
    }
    // The check right before the rename keeps a file that appeared while the body arrived.
    if (!clobber && QFileInfo::exists(finalPath)) {
        lastError
            = QString("'%1' appeared while its body arrived: kept, as --no-clobber asks").arg(finalPath);
        discard();
        return false;
    }
    if (!file->commit()) {
        lastError = QString("cannot write '%1': %2").arg(finalPath, file->errorString());
        return false;
    }
    return true;
}

void FileSink::discard()
{
    if (file) {
        file->cancelWriting();
        file.reset(); // the temporary file goes with it
    }
}

} // namespace trelfetch
