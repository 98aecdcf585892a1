// HttpClientQueue under random interleavings of append, prepend, empty chunks,
// close, and reads of random room through both readers, replayed against a
// model list of chunks.
//
// Checked after every call: each push is accepted exactly while the queue is
// open; every read returns what the model's rules give (a first chunk split
// at the room, its rest kept even when empty; following chunks taken only
// whole and only with room strictly to spare; readAvailable skipping empty
// chunks, 0 while open with nothing, -1 once closed and drained) with the
// same bytes, and leaves the bytes past its room untouched. Every chunk's
// bytes are distinct from its neighbours', so a byte lost, duplicated or
// reordered shows. At the end the queue is closed and drained, and the bytes
// read in all equal the bytes accepted.
//
// `read` blocks on an open empty queue, so it is called only when the model
// says it will answer at once.

#include "FuzzCheck.h"

#include <trel/HttpClientQueue.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <QByteArray>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <vector>

namespace {

using trel::fuzz::show;

constexpr char kGuard = '\x5a';

class ModelQueue
{
public:
    bool push(const QByteArray& chunk, bool front)
    {
        if (!opened) {
            return false;
        }
        if (front) {
            chunks.push_front(chunk);
        } else {
            chunks.push_back(chunk);
        }
        return true;
    }

    void close() { opened = false; }
    bool isOpened() const { return opened; }
    // Whether `read` answers without waiting.
    bool readWouldAnswer() const { return !opened || !chunks.empty(); }

    // Both readers' result for the room given, taking what they take.
    int read(int room, QByteArray* out)
    {
        if (chunks.empty()) {
            return -1;
        }
        return take(room, out);
    }

    int readAvailable(int room, QByteArray* out)
    {
        while (!chunks.empty() && chunks.front().isEmpty()) {
            chunks.pop_front();
        }
        if (!chunks.empty()) {
            return take(room, out);
        }
        return opened ? 0 : -1;
    }

private:
    int take(int room, QByteArray* out)
    {
        QByteArray first = chunks.front();
        chunks.pop_front();
        if (room <= first.size()) {
            *out = first.left(room);
            chunks.push_front(first.mid(room));
            return room;
        }
        *out = first;
        while (!chunks.empty() && room - out->size() > chunks.front().size()) {
            *out += chunks.front();
            chunks.pop_front();
        }
        return out->size();
    }

    std::deque<QByteArray> chunks;
    bool opened = true;
};

struct Stream
{
    HttpClientQueue queue;
    ModelQueue model;
    long long acceptedBytes = 0;
    QByteArray read; // every byte read, in order
    std::vector<char> buffer;

    // One read by either reader, compared with the model.
    int readOnce(bool blocking, int room)
    {
        buffer.assign(static_cast<std::size_t>(room) + 16, kGuard);
        QByteArray expected;
        const int expectedResult
            = blocking ? model.read(room, &expected) : model.readAvailable(room, &expected);
        const int result
            = blocking ? queue.read(buffer.data(), room) : queue.readAvailable(buffer.data(), room);
        const char* const reader = blocking ? "read" : "readAvailable";
        FUZZ_CHECK(result == expectedResult,
            reader << "(" << room << ") returned " << result << ", model " << expectedResult);
        if (result > 0) {
            const QByteArray got(buffer.data(), result);
            FUZZ_CHECK(got == expected,
                reader << "(" << room << ") gave " << show(got) << ", model " << show(expected));
            read += got;
        }
        for (std::size_t i = static_cast<std::size_t>(room); i < buffer.size(); ++i) {
            FUZZ_CHECK(buffer[i] == kGuard, reader << "(" << room << ") wrote past its room at " << i);
        }
        return result;
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    Stream stream;
    std::uint8_t nextByte = 0;
    // Successive bytes of the whole run differ, so a misplaced one is seen.
    const auto makeChunk = [&nextByte](int length) {
        QByteArray chunk(length, '\0');
        for (char& c : chunk) {
            c = static_cast<char>(nextByte++);
        }
        return chunk;
    };
    const auto room = [&input]() {
        // Mostly small rooms, some larger than most chunks.
        return input.ConsumeBool() ? input.ConsumeIntegralInRange<int>(1, 16)
                                   : input.ConsumeIntegralInRange<int>(1, 200);
    };

    for (int step = 0; step < 256 && input.remaining_bytes() > 0; ++step) {
        switch (input.ConsumeIntegralInRange<int>(0, 7)) {
        case 0:
        case 1: {
            const bool front = input.ConsumeBool();
            const int length = input.ConsumeBool() ? input.ConsumeIntegralInRange<int>(0, 8)
                                                   : input.ConsumeIntegralInRange<int>(0, 128);
            const QByteArray chunk = makeChunk(length);
            const bool expected = stream.model.push(chunk, front);
            const bool accepted = front ? stream.queue.prepend(chunk) : stream.queue.append(chunk);
            FUZZ_CHECK(accepted == expected, (front ? "prepend" : "append") << " returned " << accepted);
            stream.acceptedBytes += accepted ? chunk.size() : 0;
            break;
        }
        case 2: {
            const bool front = input.ConsumeBool();
            const bool expected = stream.model.push(QByteArray(), front);
            const bool accepted
                = front ? stream.queue.prepend(QByteArray()) : stream.queue.append(QByteArray());
            FUZZ_CHECK(accepted == expected, "empty push returned " << accepted);
            break;
        }
        case 3:
            if (input.ConsumeIntegralInRange<int>(0, 3) == 0) {
                stream.model.close();
                stream.queue.close();
            }
            break;
        case 4:
        case 5:
            if (stream.model.readWouldAnswer()) {
                stream.readOnce(true, room());
            }
            break;
        case 6:
            stream.readOnce(false, room());
            break;
        case 7:
            FUZZ_CHECK(stream.queue.isOpened() == stream.model.isOpened(), "isOpened differs");
            break;
        }
    }

    // What is left comes out once closed, then -1 for good.
    stream.model.close();
    stream.queue.close();
    FUZZ_CHECK(!stream.queue.append(QByteArray("late")), "append accepted after close");
    bool blocking = false;
    while (stream.readOnce(blocking, 509) != -1) {
        blocking = !blocking;
    }
    FUZZ_CHECK(stream.readOnce(true, 1) == -1 && stream.readOnce(false, 1) == -1, "drained queue read again");
    FUZZ_CHECK(stream.read.size() == stream.acceptedBytes,
        stream.acceptedBytes << " bytes accepted, " << stream.read.size() << " read");
    return 0;
}
