// Header fields: parsed from a raw response head, looked up without case, every
// value of a repeated field kept.

#include <trel/HttpClientHeaders.h>

#include "Log.h"

#include <cstring>
#include <mutex>
#include <vector>

namespace {
const char* const kLogFile = "src/lib/httpClient/HttpClientHeaders";
const log4cplus::Logger logger = trel::log::libraryLogger();

// A name most responses carry, spelled as servers send it, with its key.
struct KnownName
{
    QByteArray spelled;
    QByteArray lower;
    QString name;
    QString key;
};

// A line naming one of these, as spelled or in lower case (HTTP/2), shares
// these strings instead of making a name and a key of its own. Built once,
// never changed.
const std::vector<KnownName>& knownNames()
{
    static const std::vector<KnownName> names = [] {
        const char* const spellings[] = { "Accept-Ranges", "Access-Control-Allow-Origin", "Age",
            "Cache-Control", "Connection", "Content-Disposition", "Content-Encoding", "Content-Language",
            "Content-Length", "Content-Location", "Content-Range", "Content-Type", "Date", "ETag", "Expires",
            "Keep-Alive", "Last-Modified", "Location", "Pragma", "Server", "Set-Cookie",
            "Strict-Transport-Security", "Transfer-Encoding", "Vary", "Via", "WWW-Authenticate",
            "X-Content-Type-Options", "X-Frame-Options", "X-TrelEfectiveUrl", "X-TrelError",
            "X-TrelErrorCode" };
        std::vector<KnownName> list;
        for (const char* const spelling : spellings) {
            const QString name = QString::fromLatin1(spelling);
            const QString key = name.toLower();
            list.push_back(KnownName { QByteArray(spelling), key.toLatin1(), name, key });
        }
        return list;
    }();
    return names;
}

const KnownName* findKnownName(const char* text, int length, bool* lowerCase)
{
    for (const KnownName& known : knownNames()) {
        if (known.spelled.size() != length) {
            continue;
        }
        if (std::memcmp(known.spelled.constData(), text, static_cast<size_t>(length)) == 0) {
            *lowerCase = false;
            return &known;
        }
        if (std::memcmp(known.lower.constData(), text, static_cast<size_t>(length)) == 0) {
            *lowerCase = true;
            return &known;
        }
    }
    return nullptr;
}

QString keyOf(const QString& name)
{
    for (const KnownName& known : knownNames()) {
        if (known.name == name || known.key == name) {
            return known.key;
        }
    }
    return name.toLower();
}

bool isAscii(const char* text, int length)
{
    for (int i = 0; i < length; ++i) {
        if (static_cast<unsigned char>(text[i]) >= 0x80) {
            return false;
        }
    }
    return true;
}

// The white space QString::trimmed removes, as far as ASCII goes.
bool isAsciiSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// The name itself when it has no capital letter (every HTTP/2 name), so the key
// shares its text.
QString asciiLowerKey(const QString& name, const char* text, int length)
{
    int firstCapital = 0;
    while (firstCapital < length && !(text[firstCapital] >= 'A' && text[firstCapital] <= 'Z')) {
        ++firstCapital;
    }
    if (firstCapital == length) {
        return name;
    }
    QString key = name;
    QChar* const characters = key.data(); // the one copy
    for (int i = firstCapital; i < length; ++i) {
        if (text[i] >= 'A' && text[i] <= 'Z') {
            characters[i] = QLatin1Char(static_cast<char>(text[i] - 'A' + 'a'));
        }
    }
    return key;
}
} // namespace

struct HttpClientHeaders::ReceivedHead
{
    // Dropped once parsed: its capacity was reserved for reception, and a
    // result kept for long (the cache's, say) should hold its fields only.
    mutable QByteArray rawBlock;
    QString effectiveUrl;
    mutable std::once_flag parseOnce;
    mutable HttpClientHeaders parsedFields;

    // Safe from any number of threads: the first caller parses, the others wait.
    const HttpClientHeaders& parsed() const
    {
        std::call_once(parseOnce, [this] {
            parsedFields = parse();
            rawBlock = QByteArray();
        });
        return parsedFields;
    }

    HttpClientHeaders parse() const
    {
        HttpClientHeaders fields(rawBlock);
        // The X-Trel names are the library's word to its caller: a server must
        // not be able to forge an error, an effective URL or anything added later.
        static const QString libraryPrefix = QStringLiteral("x-trel");
        fields.removeNamesStartingWith(libraryPrefix);
        if (!effectiveUrl.isEmpty()) {
            static const QString name = QString::fromLatin1(EffectiveUrlField);
            fields.insert(name, effectiveUrl);
        }
        return fields;
    }
};

HttpClientHeaders HttpClientHeaders::fromReceivedHead(const QByteArray& rawBlock, const QString& effectiveUrl)
{
    HttpClientHeaders headers;
    auto head = std::make_shared<ReceivedHead>();
    head->rawBlock = rawBlock;
    head->effectiveUrl = effectiveUrl;
    headers.receivedHead = std::move(head);
    return headers;
}

const HttpClientHeaders& HttpClientHeaders::fields() const
{
    return receivedHead ? receivedHead->parsed() : *this;
}

void HttpClientHeaders::takeOverReceivedHead()
{
    if (!receivedHead) {
        return;
    }
    const std::shared_ptr<const ReceivedHead> head = std::move(receivedHead);
    *this = head->parsed(); // the hashes are shared until either side changes
}

HttpClientHeaders::HttpClientHeaders(const QHash<QString, QString>& headers)
{
    for (auto it = headers.cbegin(); it != headers.cend(); ++it) {
        insert(it.key(), it.value());
    }
}

HttpClientHeaders::HttpClientHeaders(const std::initializer_list<std::pair<QString, QString>>& headers)
{
    for (const auto& header : headers) {
        insert(header.first, header.second);
    }
}

HttpClientHeaders::HttpClientHeaders(const QByteArray& rawBlock)
{
    // Read as a C string: whatever follows a NUL byte is not part of the block.
    const int size = static_cast<int>(qstrnlen(rawBlock.constData(), rawBlock.size()));
    const char* const text = rawBlock.constData();
    // Split on bytes and decode each line as UTF-8 on its own. A text stream
    // would decode with the process's locale, switch to UTF-16 on a byte-order
    // mark, and drop an incomplete sequence at the very end of the block.
    for (int start = 0; start < size;) {
        const char* const lineBreak
            = static_cast<const char*>(std::memchr(text + start, '\n', static_cast<size_t>(size - start)));
        const int end = lineBreak ? static_cast<int>(lineBreak - text) : size;
        int length = end - start;
        if (length > 0 && text[start + length - 1] == '\r') {
            --length;
        }
        const char* const line = text + start;
        start = end + 1;
        if (isAscii(line, length)) {
            insertAsciiLine(line, length);
            continue;
        }
        const QString decoded = QString::fromUtf8(line, length);
        const int colon = decoded.indexOf(QLatin1Char(':'));
        if (colon >= 1) { // skips status lines, blank lines, lines starting with a colon
            insert(decoded.left(colon), QStringView(decoded).mid(colon + 1).trimmed().toString());
        }
    }
}

// Nearly every received line is ASCII: its bytes are its characters, so it is
// cut and lower-cased on bytes, with one string made per part instead of a
// decoded line and copies cut from it. Same result as the decoding path.
void HttpClientHeaders::insertAsciiLine(const char* line, int length)
{
    const char* const colon = static_cast<const char*>(std::memchr(line, ':', static_cast<size_t>(length)));
    if (colon == nullptr || colon == line) {
        return; // a status line, a blank line or a line starting with a colon
    }
    const int nameLength = static_cast<int>(colon - line);
    const char* valueStart = colon + 1;
    const char* valueEnd = line + length;
    while (valueStart < valueEnd && isAsciiSpace(*valueStart)) {
        ++valueStart;
    }
    while (valueEnd > valueStart && isAsciiSpace(valueEnd[-1])) {
        --valueEnd;
    }
    bool lowerCase = false;
    const KnownName* const known = findKnownName(line, nameLength, &lowerCase);
    const QString name
        = known ? (lowerCase ? known->key : known->name) : QString::fromLatin1(line, nameLength);
    store(known ? known->key : asciiLowerKey(name, line, nameLength), name,
        QString::fromLatin1(valueStart, static_cast<int>(valueEnd - valueStart)));
}

void HttpClientHeaders::insert(const QString& name, const QString& value)
{
    takeOverReceivedHead();
    const QString key = keyOf(name);
    store(key, name, value);
    appendedLines.remove(key); // no lookup while nothing was appended
}

// The value stored before stays a line of its own; each append adds one.
void HttpClientHeaders::append(const QString& name, const QString& value)
{
    takeOverReceivedHead();
    const QString key = keyOf(name);
    const bool stored = entries.contains(key);
    store(key, name, value);
    if (stored) {
        int& lines = appendedLines[key];
        lines = lines == 0 ? 2 : lines + 1;
    }
}

// One hash lookup for a name seen the first time; a name seen again also
// keeps every earlier value for values().
void HttpClientHeaders::store(const QString& key, const QString& name, const QString& value)
{
    const int sizeBefore = entries.size();
    Header& entry = entries[key];
    if (entries.size() == sizeBefore) {
        QStringList& all = repeatedValues[key];
        if (all.isEmpty()) {
            all.append(entry.value);
        }
        all.append(value);
    }
    entry.name = name;
    entry.value = value;
}

void HttpClientHeaders::removeNamesStartingWith(const QString& lowerPrefix)
{
    takeOverReceivedHead();
    for (auto it = entries.begin(); it != entries.end();) {
        if (it.key().startsWith(lowerPrefix)) {
            repeatedValues.remove(it.key());
            appendedLines.remove(it.key());
            it = entries.erase(it);
        } else {
            ++it;
        }
    }
}

// A name's appended values are the last ones it stored: insert() ends the run.
void HttpClientHeaders::forEachRequestLine(const std::function<void(const QByteArray& line)>& take) const
{
    const HttpClientHeaders& read = fields();
    const QString separator = QStringLiteral(": ");
    for (auto it = read.entries.cbegin(); it != read.entries.cend(); ++it) {
        const int lines = read.appendedLines.value(it.key(), 1);
        if (lines == 1) {
            take((it->name + separator + it->value).toUtf8());
            continue;
        }
        const QStringList all = read.repeatedValues.value(it.key());
        for (int i = static_cast<int>(all.size()) - lines; i < all.size(); ++i) {
            take((it->name + separator + all[i]).toUtf8());
        }
    }
}

bool HttpClientHeaders::contains(const QString& name) const
{
    const QHash<QString, Header>& read = fields().entries;
    return !read.isEmpty() && read.contains(name.toLower()); // most requests have no fields to look in
}

QString HttpClientHeaders::value(const QString& name, const QString& defaultValue) const
{
    const QHash<QString, Header>& read = fields().entries;
    const auto it = read.constFind(name.toLower());
    return it == read.cend() ? defaultValue : it->value;
}

QString HttpClientHeaders::value(const QString& name, bool* exists) const
{
    TREL_ASSERT(exists);
    const QHash<QString, Header>& read = fields().entries;
    const auto it = read.constFind(name.toLower());
    *exists = it != read.cend();
    return *exists ? it->value : QString();
}

QStringList HttpClientHeaders::values(const QString& name) const
{
    const HttpClientHeaders& read = fields();
    const QString key = name.toLower();
    const auto repeated = read.repeatedValues.constFind(key);
    if (repeated != read.repeatedValues.cend()) {
        return *repeated;
    }
    const auto it = read.entries.constFind(key);
    return it == read.entries.cend() ? QStringList() : QStringList { it->value };
}

QHash<QString, QString> HttpClientHeaders::headers() const
{
    QHash<QString, QString> result;
    for (const Header& entry : fields().entries) {
        result.insert(entry.name, entry.value);
    }
    return result;
}

std::ostream& operator<<(std::ostream& out, const HttpClientHeaders& headers)
{
    bool first = true;
    for (const HttpClientHeaders::Header& entry : headers.fields().entries) {
        if (!first) {
            out << ", ";
        }
        first = false;
        out << entry.name << ": " << entry.value;
    }
    return out;
}
