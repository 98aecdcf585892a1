/// \file
/// HttpClientHeaders: the header fields of a request or a response.
#pragma once

#include <trel/trel_http_client_export.h>

#include <QByteArray>
#include <QHash>
#include <QMetaType>
#include <QString>
#include <QStringList>

#include <functional>
#include <initializer_list>
#include <memory>
#include <ostream>
#include <utility>

/// HTTP header fields: the extra fields of a request (HttpClientOptions::setHeaders())
/// and the fields of a response (HttpClientResult::headers).
///
/// Names are matched without regard to case; each entry keeps the written form
/// under which it was last stored. value(), contains() and headers() see one
/// value per name, the last one stored: storing a name again replaces both its
/// written form and its value there. values() sees every value stored under a
/// name, in the order they were stored, so repeated fields such as `Set-Cookie`
/// or `Link` lose nothing. A plain value, copied freely, declared to Qt's
/// meta-type system; not synchronised, like any Qt value. A result's fields
/// are turned from the response's header lines the first time any of them is
/// read, so a result nobody looks into costs no parsing; reading one object
/// (or copies of it) from several threads at once is safe, changing it is not.
///
/// As request fields, a name goes out as one line with its last value when it
/// was stored with insert(), and as one line per value, in order, for the
/// values append() added since the last insert() of that name (with the value
/// stored just before them):
/// \code
/// HttpClientHeaders headers;
/// headers.append("X-A", "1");
/// headers.append("X-A", "2");   // sends "X-A: 1" and "X-A: 2"
/// headers.insert("X-B", "1");
/// headers.insert("X-B", "2");   // sends "X-B: 2" only
/// headers.insert("X-A", "3");   // now sends "X-A: 3" only
/// \endcode
/// Every line of a name carries the name's last written form. Different names
/// go out in no particular order.
class TREL_HTTP_CLIENT_EXPORT HttpClientHeaders
{
public:
    /// The field every successful result and immediate-read delivery carries:
    /// the URL libcurl ended at, after redirects.
    static constexpr const char* EffectiveUrlField = "X-TrelEfectiveUrl";
    /// The field of every result that libcurl ended with a failure: why, in
    /// libcurl's words (or the library's, for the read-size limit).
    static constexpr const char* ErrorField = "X-TrelError";
    /// Beside ErrorField: libcurl's `CURLcode` as a decimal number (7 for a
    /// refused connection, 28 for a timeout, 63 for a body over the read-size
    /// limit, ...), for programs that decide by the code. Fields of a response
    /// whose names begin with `X-Trel` never come from the server.
    static constexpr const char* ErrorCodeField = "X-TrelErrorCode";

    /// One stored field: the name as last written, and its value.
    struct Header
    {
        QString name; ///< The name in the form it was last stored under.
        QString value; ///< The field's value, without surrounding white space when parsed.
    };

    /// No fields.
    HttpClientHeaders() = default;
    /// Stores every name and value of \p headers; of two names that differ only
    /// in case, one is kept (which one is unspecified).
    explicit HttpClientHeaders(const QHash<QString, QString>& headers);
    /// Stores the pairs in order, so a later pair replaces an earlier one of the
    /// same name: `HttpClientHeaders{{"Accept", "text/plain"}, {"X-Trace", "1"}}`.
    HttpClientHeaders(const std::initializer_list<std::pair<QString, QString>>& headers);
    /// Parses a raw response header block up to its first NUL byte, one field
    /// per line, the value trimmed. Lines without a colon after their first
    /// character (status lines, blank lines) are skipped; a later line replaces
    /// an earlier one of the same name in the one-value view, so the fields of
    /// the last of several responses (redirects) win there, while values()
    /// keeps every line's value in the order the lines arrived.
    explicit HttpClientHeaders(const QByteArray& rawBlock);

    /// Stores \p value under \p name, replacing any field whose name matches
    /// without regard to case in the one-value view; the entry takes \p name's
    /// written form. values() keeps one value per call. As a request field, the
    /// name then goes out as one line with \p value, however it was stored before.
    /// \param name the field's name, in the written form it goes out with.
    /// \param value the field's value.
    void insert(const QString& name, const QString& value);
    /// Stores \p value under \p name as insert() does, but as a request field
    /// keeps the values stored before: a request sends one line per value,
    /// those appended in the order they were appended, after the value the
    /// name held before the first of them. On a name not stored yet, the same
    /// as insert(). A name given only once costs what insert() costs.
    /// \param name the field's name (any case; the entry takes this written form).
    /// \param value another value to send under \p name.
    void append(const QString& name, const QString& value);
    /// Whether a field named \p name (any case) is stored.
    bool contains(const QString& name) const;
    /// The value stored under \p name (any case), or \p defaultValue when
    /// there is none.
    QString value(const QString& name, const QString& defaultValue) const;
    /// The value stored under \p name (any case), or an empty string when there
    /// is none; \p exists receives whether the field is stored. \p exists must
    /// not be null.
    QString value(const QString& name, bool* exists) const;
    /// Every value stored under \p name (any case), in the order they were
    /// stored (for a response, the order its lines arrived, a redirect's before
    /// the final response's); empty when there is none.
    QStringList values(const QString& name) const;
    /// Every field, keyed by its written name, in no particular order; one
    /// value per name, the last one stored.
    QHash<QString, QString> headers() const;

    /// Writes the fields as `Name: value` separated by ", ", in no particular
    /// order, for log lines; returns \p out.
    friend TREL_HTTP_CLIENT_EXPORT std::ostream& operator<<(
        std::ostream& out, const HttpClientHeaders& headers);

private:
    // Received headers are stripped of the library's own field names before it
    // adds its own, so a server cannot forge them; request headers become the
    // transfer's header lines.
    friend class HttpClientTransfer;

    // A response head as libcurl delivered it, parsed the first time anything
    // reads it: most callers never look at most responses' fields.
    struct ReceivedHead;

    // The fields of a response head: the server's, less any name starting with
    // X-Trel, plus EffectiveUrlField when \p effectiveUrl is not empty.
    static HttpClientHeaders fromReceivedHead(const QByteArray& rawBlock, const QString& effectiveUrl);
    // The fields to read: this object's own, or its received head's.
    const HttpClientHeaders& fields() const;
    // Makes the received head's fields this object's own, before a change.
    void takeOverReceivedHead();

    void insertAsciiLine(const char* line, int length);
    void store(const QString& key, const QString& name, const QString& value);
    void removeNamesStartingWith(const QString& lowerPrefix);
    // Calls `take` with every request line, "Name: value" in UTF-8: one per
    // name, or one per value a name carries since its appends.
    void forEachRequestLine(const std::function<void(const QByteArray& line)>& take) const;

    QHash<QString, Header> entries;
    // Every value of a name stored more than once, in order; a name stored
    // once has its only value in `entries` alone, so the usual response pays
    // nothing for repeated fields.
    QHash<QString, QStringList> repeatedValues;
    // For a name appended to: how many of its last values go out as lines of
    // their own (2 or more). Empty unless append() added to a stored name, so
    // a request of names given once pays nothing for it.
    QHash<QString, int> appendedLines;
    // Set only for a response head not parsed into the hashes above; shared by
    // copies, and parsed once for all of them, whichever thread reads first.
    std::shared_ptr<const ReceivedHead> receivedHead;
};

/// Writes the fields of \p headers as `Name: value` separated by ", ", in no
/// particular order, for log lines; returns \p out.
TREL_HTTP_CLIENT_EXPORT std::ostream& operator<<(std::ostream& out, const HttpClientHeaders& headers);

Q_DECLARE_METATYPE(HttpClientHeaders)
