// The kept inflate stream and the table-driven checksum give exactly what
// qUncompress and qChecksum give.

#include "crc16.h"
#include "inflater.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

QByteArray textSample(int size, unsigned seed)
{
    std::mt19937 generator(seed);
    const char words[] = "room alice bob {\"b\":\"msg\",\"t\":\"x@y\"} 你好 ";
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = words[generator() % (sizeof(words) - 1)];
    return bytes;
}

QByteArray withClaim(QByteArray compressed, quint32 claim)
{
    for (int i = 0; i < 4; ++i)
        compressed[i] = char(claim >> (24 - 8 * i));
    return compressed;
}

QByteArray inflate(const QByteArray &data)
{
    return Inflater::forThisThread().uncompress(data.constData(), data.size());
}

} // namespace

TEST(Crc16, MatchesQtChecksum)
{
    std::mt19937 generator(7);
    std::vector<int> sizes{ 255, 256, 300, 4097 };
    for (int size = 0; size < 40; ++size)
        sizes.push_back(size);
    for (int size : sizes) {
        QByteArray bytes(size, Qt::Uninitialized);
        for (char &c : bytes)
            c = char(generator());
        EXPECT_EQ(Crc16::x25(bytes.constData(), size), qChecksum(bytes.constData(), uint(size))) << size;
    }
    EXPECT_EQ(Crc16::x25("123456789", 9), 0x906E); // the check value of CRC-16/X-25
}

TEST(Inflater, SoundStreamsInflateWhateverTheClaim)
{
    for (int size : { 1, 300, 2048, 70000 }) {
        const QByteArray plain = textSample(size, unsigned(size));
        const QByteArray compressed = qCompress(plain, 9);
        EXPECT_EQ(inflate(compressed), plain) << size;
        // The prefix only sizes the first buffer.
        for (quint32 claim : { 0u, 1u, quint32(size) - 1, quint32(size) + 1, 0x10000000u })
            EXPECT_EQ(inflate(withClaim(compressed, claim)), plain) << size << " claim " << claim;
        // A claim qUncompress cannot allocate is refused, as it refuses it.
        for (quint32 claim : { 0x7FFFFFFFu, 0xFFFFFFFFu }) {
            EXPECT_TRUE(inflate(withClaim(compressed, claim)).isNull());
            EXPECT_TRUE(qUncompress(withClaim(compressed, claim)).isNull());
        }
    }
}

TEST(Inflater, DamagedStreamsFailLikeQUncompress)
{
    const QByteArray compressed = qCompress(textSample(3000, 3), 9);
    // Every truncation and, for a sample of positions, every damaged byte.
    for (int cut = 0; cut < compressed.size(); cut += 7) {
        const QByteArray shortened = compressed.left(cut);
        EXPECT_EQ(inflate(shortened), qUncompress(shortened)) << "cut " << cut;
    }
    for (int at = 4; at < compressed.size(); at += 11) {
        QByteArray damaged = compressed;
        damaged[at] = char(damaged[at] ^ 0x5A);
        const QByteArray expected = qUncompress(damaged);
        const QByteArray got = inflate(damaged);
        EXPECT_EQ(got.isNull(), expected.isNull()) << "byte " << at;
        EXPECT_EQ(got, expected) << "byte " << at;
    }
    // Trailing bytes after the end of the stream are ignored by both.
    const QByteArray trailing = compressed + "tail";
    EXPECT_EQ(inflate(trailing), qUncompress(trailing));
    // A state left by a failed call does not leak into the next one.
    EXPECT_EQ(inflate(compressed), qUncompress(compressed));
}
