// The few places where a test has to say something differently under Qt 5 and
// Qt 6. The library's own sources need none of this; tests do where they reach
// into Qt itself (its meta-type registry, its locale codec, its type names).
#pragma once

#include <QMetaType>
#include <QtGlobal>

#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
#include <QTextCodec>
#endif

namespace trel::test {

// The id a type is registered under by name; QMetaType::UnknownType when none.
inline int metaTypeIdByName(const char* name)
{
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    return QMetaType::type(name);
#else
    return QMetaType::fromName(name).id();
#endif
}

// Makes the named codec the one QString::fromLocal8Bit uses, for its lifetime.
// Qt 6 has no such codec: it reads local 8-bit text as UTF-8 on Unix whatever
// the locale, and isSet() is then false.
class ScopedLocaleCodec
{
public:
    explicit ScopedLocaleCodec(const char* name)
    {
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
        previous = QTextCodec::codecForLocale();
        QTextCodec* const wanted = QTextCodec::codecForName(name);
        if (wanted) {
            QTextCodec::setCodecForLocale(wanted);
            set = true;
        }
#else
        Q_UNUSED(name);
#endif
    }

    ~ScopedLocaleCodec()
    {
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
        if (set) {
            QTextCodec::setCodecForLocale(previous);
        }
#endif
    }

    ScopedLocaleCodec(const ScopedLocaleCodec&) = delete;
    ScopedLocaleCodec& operator=(const ScopedLocaleCodec&) = delete;

    bool isSet() const
    {
        return set;
    }

private:
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    QTextCodec* previous = nullptr;
#endif
    bool set = false;
};

// How the compiler spells QList<QPair<QString, QString>> in a function's
// signature (its __PRETTY_FUNCTION__, which trace lines quote): QPair is an
// alias of std::pair from Qt 6 on.
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
inline constexpr char kStringPairListSpelling[] = "QList<QPair<QString, QString> >";
#else
inline constexpr char kStringPairListSpelling[] = "QList<std::pair<QString, QString> >";
#endif

} // namespace trel::test
