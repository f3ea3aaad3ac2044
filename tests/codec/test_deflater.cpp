// Deflater: the kept deflate stream gives exactly the bytes of qCompress
// level 9, call after call and on several threads at once.

#include "deflater.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

namespace {

enum class Content { Random, Text, Zeros };

QByteArray sample(Content content, int size, unsigned seed)
{
    std::mt19937 generator(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    const char words[] = "hello room alice bob {\"b\":\"msg\",\"t\":\"x@y\"} ";
    for (int i = 0; i < size; ++i) {
        switch (content) {
        case Content::Random: bytes[i] = char(generator()); break;
        case Content::Text: bytes[i] = words[generator() % (sizeof(words) - 1)]; break;
        case Content::Zeros: bytes[i] = '\0'; break;
        }
    }
    return bytes;
}

std::vector<int> testSizes()
{
    std::vector<int> sizes;
    for (int size = 0; size <= 1100; ++size)
        sizes.push_back(size);
    for (int size : {2047, 2048, 4096, 32767, 32768, 65535, 65536, 70000, 262145, 1 << 20})
        sizes.push_back(size);
    return sizes;
}

} // namespace

TEST(Deflater, MatchesQCompressForEverySize)
{
    Deflater deflater;
    std::vector<int> sizes = testSizes();
    // Large inputs first, then small ones: state left over from a big stream
    // must not leak into the next.
    std::reverse(sizes.begin(), sizes.end());
    for (Content content : {Content::Random, Content::Text, Content::Zeros}) {
        for (int size : sizes) {
            const QByteArray data = sample(content, size, unsigned(size));
            ASSERT_EQ(deflater.compress(data), qCompress(data, 9))
                    << "size " << size << " content " << int(content);
        }
    }
    EXPECT_EQ(deflater.compress("", 0), QByteArray(4, '\0'));
}

// Inputs up to Deflater::smallInputLimit use a stream with smaller tables.
// Stressed with long chains of true matches (two letters), of false ones
// (multiples of 16 collide in the small table), repeats at every distance and
// real envelopes, at every length past the limit, between long inputs.
TEST(Deflater, ShortInputStreamMatchesQCompress)
{
    Deflater deflater;
    const QByteArray long_ = sample(Content::Text, 5000, 7);
    const char *const words[] = {"the", "build", "is", "green", "again,", "alice", "bob", "周一见", "\\n", "42",
                                 "merge", "request", "room", "\"quoted\""};
    int mismatches = 0;
    for (unsigned seed = 1; seed <= 2; ++seed) {
        for (int size = 0; size <= Deflater::smallInputLimit + 8; ++size) {
            std::mt19937 generator(seed * 100003u + unsigned(size));
            QByteArray binary(size, Qt::Uninitialized), nibbles(size, Qt::Uninitialized),
                    periodic(size, Qt::Uninitialized);
            const int period = 1 + int(generator() % 300);
            for (int i = 0; i < size; ++i) {
                binary[i] = generator() % 2 ? 'a' : 'b';
                nibbles[i] = char((generator() % 16) << 4);
                periodic[i] = i < period || generator() % 64 == 0 ? char(generator()) : periodic[i - period];
            }
            QByteArray envelope("{\"b\":\"");
            while (envelope.size() < size)
                envelope += QByteArray(words[generator() % (sizeof(words) / sizeof(words[0]))]) + ' ';
            envelope += "\",\"bt\":0,\"f\":\"alice@im.example.org\",\"k\":\"6f1c2a9e\",\"p\":\"\",\"s\":9999}";
            for (const QByteArray &data : {binary, nibbles, periodic, envelope.right(size)}) {
                if (deflater.compress(data) != qCompress(data, 9))
                    ++mismatches;
            }
            if (size % 97 == 0 && deflater.compress(long_) != qCompress(long_, 9))
                ++mismatches;
        }
    }
    EXPECT_EQ(mismatches, 0);
}

TEST(Deflater, OnePerThreadAndEachMatchesQCompress)
{
    constexpr int threadCount = 4;
    std::vector<const Deflater *> instances(threadCount);
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([t, &instances, &mismatches] {
            Deflater &deflater = Deflater::forThisThread();
            instances[size_t(t)] = &deflater;
            if (&Deflater::forThisThread() != &deflater)
                ++mismatches;
            std::mt19937 generator{unsigned(t)};
            for (int i = 0; i < 300; ++i) {
                const int size = int(generator() % 5000);
                const Content content = i % 2 ? Content::Text : Content::Random;
                const QByteArray data = sample(content, size, generator());
                if (deflater.compress(data) != qCompress(data, 9))
                    ++mismatches;
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(mismatches.load(), 0);
    std::sort(instances.begin(), instances.end());
    EXPECT_EQ(std::unique(instances.begin(), instances.end()), instances.end());
}
