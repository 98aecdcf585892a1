// Where a response lands: header lines, the body within its size limit and with
// its pages prepared ahead, and immediate-read hand-overs.

#include <trel/HttpClientTransfer.h>

#include "Log.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace {
const char* const kLogFile = "src/lib/httpClient/HttpClientTransfer";
const log4cplus::Logger logger = trel::log::libraryLogger();

// Room reserved for the response's header lines at the first of them.
constexpr int kHeaderBlockBytes = 1024;

// Room reserved up front from Content-Length, at most: an announcement is only
// a server's word, so it buys a head start, not memory (3,000,000,000 announced
// and 3 bytes sent once cost a gigabyte). A larger body grows from there as its
// bytes arrive. 16 MiB holds the bodies of ordinary downloads (10 MiB, say)
// whole from the first byte.
constexpr std::int64_t kReservedHeadStart = std::int64_t(16) << 20;

// From this capacity on, a body's pages are prepared just ahead of the bytes to
// come: each fresh 4 KiB page otherwise costs a page fault, thousands for a body
// of megabytes. The buffer's whole 2 MiB pages ask for transparent huge pages,
// and the next kPreparedStep bytes are faulted in by one call instead of one
// fault each; nothing beyond them (rounded out to the huge pages that hold
// them, inside the buffer) is touched.
constexpr std::int64_t kPreparedBody = std::int64_t(4) << 20;
constexpr std::int64_t kPreparedStep = std::int64_t(2) << 20;
constexpr std::uintptr_t kHugePageSize = std::uintptr_t(2) << 20;
constexpr std::uintptr_t kPageSize = 4096;

// Gives advice for the pages of pageSize wholly inside [data, data + size); a
// refusal (older kernels) changes nothing.
void adviseWholePages(const char* data, std::int64_t size, std::uintptr_t pageSize, int advice)
{
    const auto start = reinterpret_cast<std::uintptr_t>(data);
    const std::uintptr_t stop = start + static_cast<std::uintptr_t>(size);
    const std::uintptr_t begin = (start + pageSize - 1) & ~(pageSize - 1);
    const std::uintptr_t end = stop & ~(pageSize - 1);
    if (end > begin) {
        ::madvise(reinterpret_cast<void*>(begin), end - begin, advice);
    }
}

// Asks for transparent huge pages over the whole of a body's buffer, once per
// buffer: advice given a step at a time rarely covered a whole aligned 2 MiB
// page, and a 10 MiB body got none.
void adviseHugePages([[maybe_unused]] const char* data, [[maybe_unused]] std::int64_t capacity)
{
#ifdef MADV_HUGEPAGE
    adviseWholePages(data, capacity, kHugePageSize, MADV_HUGEPAGE);
#endif
}

// Faults in the pages of [data, data + size) by one call instead of one fault
// each.
void populatePages([[maybe_unused]] const char* data, [[maybe_unused]] std::int64_t size)
{
#ifdef MADV_POPULATE_WRITE
    adviseWholePages(data, size, kPageSize, MADV_POPULATE_WRITE);
#endif
}

// Content-Length from one header line, or -1 when the line is not a valid one.
std::int64_t contentLengthOf(const char* line, size_t size)
{
    static const char kName[] = "content-length:";
    constexpr size_t kNameSize = sizeof(kName) - 1;
    if (size <= kNameSize || qstrnicmp(line, kName, static_cast<uint>(kNameSize)) != 0) {
        return -1;
    }
    size_t i = kNameSize;
    while (i < size && (line[i] == ' ' || line[i] == '\t')) {
        ++i;
    }
    std::int64_t value = 0;
    size_t digits = 0;
    for (; i < size && line[i] >= '0' && line[i] <= '9'; ++i, ++digits) {
        if (value > (std::numeric_limits<std::int64_t>::max() - 9) / 10) {
            return -1;
        }
        value = value * 10 + (line[i] - '0');
    }
    return digits > 0 ? value : -1;
}
} // namespace

// ---------------------------------------------------------------------------
// Reception

size_t HttpClientTransfer::curlWriteHeader(void* data, size_t size, size_t count, void* receiveBuffer)
{
    const size_t n = size * count;
    auto* const buffer = static_cast<ReceiveBuffer*>(receiveBuffer);
    const char* const line = static_cast<const char*>(data);
    if (buffer->headerBlock.isEmpty()) {
        // One allocation for a usual header block instead of one per few lines.
        buffer->headerBlock.reserve(kHeaderBlockBytes);
    }
    buffer->headerBlock.append(line, static_cast<int>(n));
    if (n > 5 && std::memcmp(line, "HTTP/", 5) == 0) {
        buffer->announcedLength = -1; // a new response: what an earlier one announced is void
    } else {
        const std::int64_t length = contentLengthOf(line, n);
        if (length >= 0) {
            buffer->announcedLength = length;
        }
    }
    return n;
}

size_t HttpClientTransfer::curlWriteFunc(void* data, size_t size, size_t count, void* receiveBuffer)
{
    auto* const buffer = static_cast<ReceiveBuffer*>(receiveBuffer);
    std::uint64_t n = size * count;
    const std::int64_t current = buffer->body.size();
    if (current == 0 && buffer->reserveAnnounced && buffer->announcedLength > 0) {
        reserveAnnounced(*buffer);
    }
    // Unsigned on purpose: a negative limit never trims.
    const bool overLimit
        = static_cast<std::uint64_t>(current) + n > static_cast<std::uint64_t>(buffer->sizeLimit);
    if (overLimit && buffer->limitPerDelivery) {
        if (current > 0) {
            // libcurl keeps this chunk and offers it again once update() has
            // handed over what is held and resumed reception.
            buffer->receptionPaused = true;
            return CURL_WRITEFUNC_PAUSE;
        }
        // Nothing held: a chunk larger than the limit itself goes whole, since
        // pausing could never make room for it.
    } else if (overLimit) {
        const std::int64_t room = buffer->sizeLimit - current;
        TREL_ERROR("CURL data: not enough space in buffer, trimmed by "
            << (static_cast<std::int64_t>(n) - room) << " bytes!");
        n = static_cast<std::uint64_t>(room);
        buffer->overLimit = true;
    }
    prepareAhead(*buffer, current + static_cast<std::int64_t>(n));
    buffer->body.append(static_cast<const char*>(data), static_cast<int>(n));
    return static_cast<size_t>(n);
}

// Faults in the pages the next writes land on, a step at a time, once the body
// is large enough for page faults to matter. A body that moved (it outgrew its
// capacity) is prepared afresh from its end.
void HttpClientTransfer::prepareAhead(ReceiveBuffer& buffer, std::int64_t sizeAfterWrite)
{
    const std::int64_t capacity = buffer.body.capacity();
    if (capacity < kPreparedBody) {
        return;
    }
    const char* const data = buffer.body.constData();
    if (data != buffer.preparedData) {
        buffer.preparedData = data;
        buffer.preparedEnd = buffer.body.size();
        adviseHugePages(data, capacity);
    }
    if (sizeAfterWrite <= buffer.preparedEnd || buffer.preparedEnd >= capacity) {
        return;
    }
    const std::int64_t end = std::min(capacity, sizeAfterWrite + kPreparedStep);
    populatePages(data + buffer.preparedEnd, end - buffer.preparedEnd);
    buffer.preparedEnd = end;
}

// The announced body up to the head start, never beyond the size limit: no
// copies while an ordinary body grows. Once per response; a larger or
// compressed body grows past it as bytes arrive. Reserving touches no page:
// prepareAhead() faults them in as the writes reach them.
void HttpClientTransfer::reserveAnnounced(ReceiveBuffer& buffer)
{
    std::int64_t room = std::min(buffer.announcedLength, kReservedHeadStart);
    if (buffer.sizeLimit >= 0) {
        room = std::min(room, buffer.sizeLimit);
    }
    buffer.announcedLength = -1;
    if (room > buffer.body.capacity()) {
        buffer.body.reserve(static_cast<int>(room));
    }
}

long HttpClientTransfer::responseCode()
{
    long code = -1;
    curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &code);
    return code;
}

HttpClientHeaders HttpClientTransfer::receivedHeaders(bool withEffectiveUrl)
{
    // Only the URL is read now: the handle goes back to the pool before anyone
    // looks at the fields.
    return HttpClientHeaders::fromReceivedHead(
        receiveBuffer.headerBlock, withEffectiveUrl ? getEffectiveUrl(easy.get()) : QString());
}

void HttpClientTransfer::update()
{
    if (!options.immediateRead()) {
        return;
    }
    if (receiveBuffer.body.isEmpty() && receiveBuffer.headerBlock.isEmpty()) {
        return;
    }
    const HttpClientHeaders headers = receivedHeaders(true);
    const long code = responseCode();
    reportCompletion(HttpClientStatus::ImmediateRead, code, receiveBuffer.body, headers);
    receiveBuffer.body.clear();
    receiveBuffer.headerBlock.clear();
    resumeReception();
}

// Runs on the client's thread after a socket action, never inside libcurl. The
// paused chunk may come back inside curl_easy_pause; libcurl also schedules the
// transfer at once, so the next socket action serves it.
void HttpClientTransfer::resumeReception()
{
    if (!receiveBuffer.receptionPaused || !activeMulti) {
        return;
    }
    receiveBuffer.receptionPaused = false;
    TREL_TRACE("Held bytes handed over, resuming reception [" << easy.get() << "]");
    curl_easy_pause(easy.get(), CURLPAUSE_CONT);
}
