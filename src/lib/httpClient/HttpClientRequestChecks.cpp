// What a request is checked against before anything is sent: where its result
// goes (a result slot must exist) and its header fields (no CR, LF or NUL).

#include <trel/HttpClient.h>

#include "Log.h"

#include <QMetaObject>

#include <algorithm>
#include <string>

namespace {
const char* const kLogFile = "src/lib/httpClient/HttpClient";
const log4cplus::Logger logger = trel::log::libraryLogger();

// The argument list every result slot has, as Qt's meta-object system spells
// it after normalising: what the delivery's queued invocation looks up.
const char* const kResultSlotArguments = "(TrelUrl,HttpClientPrivate,int,int,QByteArray,HttpClientHeaders)";

// The bare name of the six-argument result slot that `slot` names on a class,
// or empty when the class has none. `slot` may be the bare name, the full
// signature, or the SLOT() spelling (its leading method-kind digit). Checked
// when the request is made: a result for a slot that does not exist would
// otherwise be lost at delivery with only Qt's warning.
QByteArray resultSlotName(const QMetaObject& receiverClass, const char* slot)
{
    QByteArray spelled = QByteArray(slot).trimmed();
    if (!spelled.isEmpty() && spelled.front() >= '0' && spelled.front() <= '9') {
        spelled.remove(0, 1); // no C++ name starts with a digit
    }
    const int argumentsStart = spelled.indexOf('(');
    const QByteArray name = (argumentsStart < 0 ? spelled : spelled.left(argumentsStart)).trimmed();
    if (name.isEmpty()) {
        return {};
    }
    const QByteArray signature = name + kResultSlotArguments;
    if (argumentsStart >= 0 && QMetaObject::normalizedSignature(spelled.constData()) != signature) {
        return {};
    }
    return receiverClass.indexOfMethod(signature.constData()) >= 0 ? name : QByteArray();
}

// RFC 9110's token characters: what a field name may be made of.
bool isTokenCharacter(QChar c)
{
    static const QString punctuation = QStringLiteral("!#$%&'*+-.^_`|~");
    const ushort code = c.unicode();
    return (code >= 'a' && code <= 'z') || (code >= 'A' && code <= 'Z') || (code >= '0' && code <= '9')
        || punctuation.contains(c);
}

bool isFieldName(const QString& name)
{
    return !name.isEmpty() && std::all_of(name.cbegin(), name.cend(), isTokenCharacter);
}

// CR and LF would end the field and start another (or a whole second request);
// a NUL would cut the value where libcurl reads it as a C string.
bool isFieldValue(const QString& value)
{
    return std::none_of(value.cbegin(), value.cend(),
        [](QChar c) { return c == QLatin1Char('\r') || c == QLatin1Char('\n') || c == QChar(0); });
}

// The name as a log line may show it: control characters as \xHH, so a name
// carrying CR or LF cannot forge log lines either.
std::string printableName(const QString& name)
{
    std::string shown;
    for (const char byte : name.toUtf8()) {
        const auto code = static_cast<unsigned char>(byte);
        if (code < 0x20 || code == 0x7f) {
            static const char digits[] = "0123456789abcdef";
            shown += "\\x";
            shown += digits[code >> 4];
            shown += digits[code & 0xf];
        } else {
            shown += byte;
        }
    }
    return shown;
}
} // namespace

HttpClient::Reply HttpClient::Reply::toSlot(QObject* receiver, const char* slot)
{
    Reply reply;
    reply.receiver = receiver;
    reply.slot = QByteArray(slot);
    reply.toReceiver = receiver != nullptr;
    return reply;
}

HttpClient::Reply HttpClient::Reply::toResultSlot(QObject* receiver, const char* slot)
{
    Reply reply = toSlot(receiver, slot);
    if (receiver) {
        const QByteArray bareName = resultSlotName(*receiver->metaObject(), slot);
        reply.slotMissing = bareName.isEmpty();
        if (!reply.slotMissing) {
            reply.slot = bareName;
        }
    }
    return reply;
}

HttpClient::Reply HttpClient::Reply::toCallback(Callback callback)
{
    Reply reply;
    reply.callback = std::move(callback);
    return reply;
}

HttpClient::Reply HttpClient::Reply::toCallback(QObject* context, Callback callback)
{
    Reply reply = toCallback(std::move(callback));
    reply.context = context;
    reply.hasContext = context != nullptr;
    return reply;
}

// A request header that could split into further fields or requests on the
// wire refuses the whole request: nothing is sent. The value is never logged.
bool HttpClient::requestHeadersAllowed(const HttpClientOptions& options) const
{
    const HttpClientHeaders headers = options.headers();
    const QHash<QString, QString> fields = headers.headers();
    for (auto it = fields.cbegin(); it != fields.cend(); ++it) {
        const QStringList values = headers.values(it.key());
        if (!isFieldName(it.key()) || !std::all_of(values.cbegin(), values.cend(), isFieldValue)) {
            TREL_ERROR("Refused, request header not allowed: " << printableName(it.key()));
            return false;
        }
    }
    return true;
}

void HttpClient::refuseMissingSlot(const Reply& reply) const
{
    const char* const receiverClass = reply.receiver ? reply.receiver->metaObject()->className() : "";
    TREL_ERROR("Refused, " << receiverClass << " has no slot \"" << reply.slot.constData()
                           << "\" taking the result's arguments " << kResultSlotArguments);
}
