// Throughput of TCommBuffer against boost::lockfree::spsc_queue<char>, the
// usual single-producer, single-consumer byte ring, and against copying the
// same chunks into and out of a ring in one thread, which no two-thread
// hand-over can beat. 256 MiB stream in fixed-size chunks through 64 KiB.

#include "RoundDriver.h"

#include <Trellis/TCommBuffer.h>

#include <boost/lockfree/spsc_queue.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#if defined(__i386__) || defined(__x86_64__)
#include <immintrin.h>
#endif

namespace {

constexpr long long StreamBytes = 256ll << 20;
constexpr int BufferBytes = 64 << 10;
// The writer sends this pattern over and over; a multiple of every chunk
// size, so no chunk straddles its end.
constexpr int PatternBytes = 256 << 10;

const std::vector<char> &pattern()
{
    static const std::vector<char> bytes = [] {
        std::vector<char> bytes(PatternBytes);
        for (int i = 0; i < PatternBytes; ++i)
            bytes[i] = char(i * 7 + (i >> 9));
        return bytes;
    }();
    return bytes;
}

// Neither side of a ring ever blocks, so both retry: briefly on the spot,
// then giving the processor away, which a loaded machine needs.
class Backoff
{
public:
    void wait()
    {
        if (++m_failures < SpinCount) {
#if defined(__i386__) || defined(__x86_64__)
            _mm_pause();
#endif
        } else {
            m_failures = 0;
            std::this_thread::yield();
        }
    }

private:
    static constexpr int SpinCount = 100;
    int m_failures = 0;
};

// Each adaptor offers write(), which returns the bytes it took (all or none
// for TCommBuffer, as many as fit for spsc_queue), and read(), which returns
// the bytes it delivered.

class CommBufferChannel
{
public:
    int write(const char *data, int count) { return m_buffer.Write(data, count) ? count : 0; }
    int read(char *data, int maxCount) { return std::max(m_buffer.Read(data, maxCount), 0); }

private:
    TCommBuffer m_buffer { BufferBytes };
};

class SpscQueueChannel
{
public:
    int write(const char *data, int count) { return int(m_queue.push(data, count)); }
    int read(char *data, int maxCount) { return int(m_queue.pop(data, maxCount)); }

private:
    boost::lockfree::spsc_queue<char> m_queue { BufferBytes };
};

[[noreturn]] void corrupted()
{
    std::fprintf(stderr, "the stream arrived corrupted\n");
    std::exit(1);
}

// Streams the pattern through a fresh channel from one thread to another and
// returns bytes per second. The reader checks the first byte of every piece
// against the pattern, which catches lost, doubled and reordered pieces.
template<typename Channel>
double streamBytesPerSecond(int chunk)
{
    Channel channel;
    const char *source = pattern().data();
    bool intact = true;
    const double seconds = RoundDriver::timeThreads(2, [&](int thread) {
        Backoff backoff;
        if (thread == 0) {
            for (long long sent = 0; sent < StreamBytes;) {
                const char *block = source + sent % PatternBytes;
                int taken = 0;
                while (taken < chunk) {
                    const int count = channel.write(block + taken, chunk - taken);
                    if (count == 0)
                        backoff.wait();
                    taken += count;
                }
                sent += chunk;
            }
        } else {
            std::vector<char> destination(chunk);
            for (long long received = 0; received < StreamBytes;) {
                const int count = channel.read(destination.data(), chunk);
                if (count == 0) {
                    backoff.wait();
                    continue;
                }
                intact &= destination[0] == source[received % PatternBytes];
                received += count;
            }
        }
    });
    if (!intact)
        corrupted();
    return StreamBytes / seconds;
}

// The same copies in one thread: each chunk into the ring, wrapping, and
// straight out again. No hand-over between processors can be faster.
double singleThreadBytesPerSecond(int chunk)
{
    std::vector<char> ring(BufferBytes);
    std::vector<char> destination(chunk);
    const char *source = pattern().data();
    bool intact = true;
    const double seconds = RoundDriver::timeThreads(1, [&](int) {
        int position = 0;
        for (long long sent = 0; sent < StreamBytes; sent += chunk) {
            const char *block = source + sent % PatternBytes;
            const int head = std::min(chunk, BufferBytes - position);
            std::memcpy(ring.data() + position, block, head);
            std::memcpy(ring.data(), block + head, chunk - head);
            std::memcpy(destination.data(), ring.data() + position, head);
            std::memcpy(destination.data() + head, ring.data(), chunk - head);
            position = (position + chunk) % BufferBytes;
            intact &= destination[0] == block[0];
        }
    });
    if (!intact)
        corrupted();
    return StreamBytes / seconds;
}

void compare(int chunk, int rounds)
{
    char title[160];
    std::snprintf(title, sizeof title,
                  "byte ring, %d-byte chunks, %d KiB buffer, 1 writer + 1 reader, %lld MiB", chunk,
                  BufferBytes >> 10, StreamBytes >> 20);
    RoundDriver driver(title, "B/s");
    driver.add("TCommBuffer", [=] { return streamBytesPerSecond<CommBufferChannel>(chunk); });
    driver.add("boost::lockfree::spsc_queue<char>",
               [=] { return streamBytesPerSecond<SpscQueueChannel>(chunk); });
    driver.add("one thread, memcpy in and out", [=] { return singleThreadBytesPerSecond(chunk); });
    driver.run(rounds);
}

} // namespace

int main()
{
    compare(256, 15);
    compare(4096, 15);
    return 0;
}
