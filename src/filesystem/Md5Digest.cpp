#include "Md5Digest_p.h"

#include <QtEndian>

#include <algorithm>
#include <cstring>

namespace {

using Word = std::uint32_t;

inline Word rotateLeft(Word value, int shift)
{
    return (value << shift) | (value >> (32 - shift));
}

// Each step adds its constant and message word before the round function,
// which waits on the previous step, is known.
inline void stepF(Word &a, Word b, Word c, Word d, Word word, int shift, Word constant)
{
    a += constant + word;
    a += d ^ (b & (c ^ d));
    a = rotateLeft(a, shift) + b;
}

// (b & d) | (c & ~d) as two additions: the halves share no bit, and the
// second does not wait for the first.
inline void stepG(Word &a, Word b, Word c, Word d, Word word, int shift, Word constant)
{
    a += constant + word;
    a += c & ~d;
    a += b & d;
    a = rotateLeft(a, shift) + b;
}

inline void stepH(Word &a, Word b, Word c, Word d, Word word, int shift, Word constant)
{
    a += constant + word;
    a += b ^ c ^ d;
    a = rotateLeft(a, shift) + b;
}

inline void stepI(Word &a, Word b, Word c, Word d, Word word, int shift, Word constant)
{
    a += constant + word;
    a += c ^ (b | ~d);
    a = rotateLeft(a, shift) + b;
}

} // namespace

void Md5Digest::compress(const unsigned char *block, std::size_t count)
{
    Word a = m_state[0], b = m_state[1], c = m_state[2], d = m_state[3];
    for (; count > 0; --count, block += 64) {
        Word x[16];
        for (int i = 0; i < 16; ++i)
            x[i] = qFromLittleEndian<Word>(block + 4 * i);
        const Word a0 = a, b0 = b, c0 = c, d0 = d;
        // The four rounds of RFC 1321, with its table of sines.
        stepF(a, b, c, d, x[0], 7, 0xd76aa478);
        stepF(d, a, b, c, x[1], 12, 0xe8c7b756);
        stepF(c, d, a, b, x[2], 17, 0x242070db);
        stepF(b, c, d, a, x[3], 22, 0xc1bdceee);
        stepF(a, b, c, d, x[4], 7, 0xf57c0faf);
        stepF(d, a, b, c, x[5], 12, 0x4787c62a);
        stepF(c, d, a, b, x[6], 17, 0xa8304613);
        stepF(b, c, d, a, x[7], 22, 0xfd469501);
        stepF(a, b, c, d, x[8], 7, 0x698098d8);
        stepF(d, a, b, c, x[9], 12, 0x8b44f7af);
        stepF(c, d, a, b, x[10], 17, 0xffff5bb1);
        stepF(b, c, d, a, x[11], 22, 0x895cd7be);
        stepF(a, b, c, d, x[12], 7, 0x6b901122);
        stepF(d, a, b, c, x[13], 12, 0xfd987193);
        stepF(c, d, a, b, x[14], 17, 0xa679438e);
        stepF(b, c, d, a, x[15], 22, 0x49b40821);

        stepG(a, b, c, d, x[1], 5, 0xf61e2562);
        stepG(d, a, b, c, x[6], 9, 0xc040b340);
        stepG(c, d, a, b, x[11], 14, 0x265e5a51);
        stepG(b, c, d, a, x[0], 20, 0xe9b6c7aa);
        stepG(a, b, c, d, x[5], 5, 0xd62f105d);
        stepG(d, a, b, c, x[10], 9, 0x02441453);
        stepG(c, d, a, b, x[15], 14, 0xd8a1e681);
        stepG(b, c, d, a, x[4], 20, 0xe7d3fbc8);
        stepG(a, b, c, d, x[9], 5, 0x21e1cde6);
        stepG(d, a, b, c, x[14], 9, 0xc33707d6);
        stepG(c, d, a, b, x[3], 14, 0xf4d50d87);
        stepG(b, c, d, a, x[8], 20, 0x455a14ed);
        stepG(a, b, c, d, x[13], 5, 0xa9e3e905);
        stepG(d, a, b, c, x[2], 9, 0xfcefa3f8);
        stepG(c, d, a, b, x[7], 14, 0x676f02d9);
        stepG(b, c, d, a, x[12], 20, 0x8d2a4c8a);

        stepH(a, b, c, d, x[5], 4, 0xfffa3942);
        stepH(d, a, b, c, x[8], 11, 0x8771f681);
        stepH(c, d, a, b, x[11], 16, 0x6d9d6122);
        stepH(b, c, d, a, x[14], 23, 0xfde5380c);
        stepH(a, b, c, d, x[1], 4, 0xa4beea44);
        stepH(d, a, b, c, x[4], 11, 0x4bdecfa9);
        stepH(c, d, a, b, x[7], 16, 0xf6bb4b60);
        stepH(b, c, d, a, x[10], 23, 0xbebfbc70);
        stepH(a, b, c, d, x[13], 4, 0x289b7ec6);
        stepH(d, a, b, c, x[0], 11, 0xeaa127fa);
        stepH(c, d, a, b, x[3], 16, 0xd4ef3085);
        stepH(b, c, d, a, x[6], 23, 0x04881d05);
        stepH(a, b, c, d, x[9], 4, 0xd9d4d039);
        stepH(d, a, b, c, x[12], 11, 0xe6db99e5);
        stepH(c, d, a, b, x[15], 16, 0x1fa27cf8);
        stepH(b, c, d, a, x[2], 23, 0xc4ac5665);

        stepI(a, b, c, d, x[0], 6, 0xf4292244);
        stepI(d, a, b, c, x[7], 10, 0x432aff97);
        stepI(c, d, a, b, x[14], 15, 0xab9423a7);
        stepI(b, c, d, a, x[5], 21, 0xfc93a039);
        stepI(a, b, c, d, x[12], 6, 0x655b59c3);
        stepI(d, a, b, c, x[3], 10, 0x8f0ccc92);
        stepI(c, d, a, b, x[10], 15, 0xffeff47d);
        stepI(b, c, d, a, x[1], 21, 0x85845dd1);
        stepI(a, b, c, d, x[8], 6, 0x6fa87e4f);
        stepI(d, a, b, c, x[15], 10, 0xfe2ce6e0);
        stepI(c, d, a, b, x[6], 15, 0xa3014314);
        stepI(b, c, d, a, x[13], 21, 0x4e0811a1);
        stepI(a, b, c, d, x[4], 6, 0xf7537e82);
        stepI(d, a, b, c, x[11], 10, 0xbd3af235);
        stepI(c, d, a, b, x[2], 15, 0x2ad7d2bb);
        stepI(b, c, d, a, x[9], 21, 0xeb86d391);
        a += a0;
        b += b0;
        c += c0;
        d += d0;
    }
    m_state[0] = a;
    m_state[1] = b;
    m_state[2] = c;
    m_state[3] = d;
}

void Md5Digest::addData(const char *data, std::size_t length)
{
    auto bytes = reinterpret_cast<const unsigned char *>(data);
    std::size_t pending = m_length % 64;
    m_length += length;
    if (pending > 0) {
        const std::size_t taken = std::min(length, 64 - pending);
        std::memcpy(m_pending + pending, bytes, taken);
        bytes += taken;
        length -= taken;
        if (pending + taken < 64)
            return;
        compress(m_pending, 1);
    }
    // Whole blocks are digested where they lie, without a copy.
    compress(bytes, length / 64);
    std::memcpy(m_pending, bytes + length / 64 * 64, length % 64);
}

QByteArray Md5Digest::result() const
{
    // A single 1 bit, zeros up to 8 bytes short of a block's end, and the
    // length in bits.
    Md5Digest last = *this;
    unsigned char tail[64 + 8] = { 0x80 };
    const std::size_t padding = (m_length % 64 < 56 ? 56 : 120) - m_length % 64;
    qToLittleEndian<std::uint64_t>(m_length * 8, tail + padding);
    last.addData(reinterpret_cast<const char *>(tail), padding + 8);

    QByteArray digest(16, Qt::Uninitialized);
    for (int i = 0; i < 4; ++i)
        qToLittleEndian<Word>(last.m_state[i], digest.data() + 4 * i);
    return digest;
}
