// Stand-in for the platform's logging helpers: the scoped-function label and
// QString on a standard stream.

#include <trel/DbgLog.h>

std::string dbglog_scopedFunction(const char* function, const char* /*logger*/)
{
    return function ? std::string(function) : std::string();
}

std::ostream& operator<<(std::ostream& out, const QString& text)
{
    const QByteArray utf8 = text.toUtf8();
    return out.write(utf8.constData(), utf8.size());
}
