// The base-64 coder gives exactly what QByteArray::toBase64 and fromBase64
// give under their default options, for well-formed and damaged text alike.

#include "base64.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

TEST(Base64, MatchesQtOnValidAndDamagedText)
{
    std::mt19937 rng(11);
    for (int round = 0; round < 5000; ++round) {
        QByteArray raw(int(rng() % 64), Qt::Uninitialized);
        for (char &c : raw)
            c = char(rng());
        QByteArray text = raw.toBase64();
        switch (round % 4) {
        case 1: // damaged: any byte anywhere, padding in the middle, high bytes
            for (int k = 0; k < 3 && !text.isEmpty(); ++k)
                text[int(rng() % uint(text.size()))] = char(rng());
            break;
        case 2: // truncated
            text.truncate(int(rng() % uint(text.size() + 1)));
            break;
        case 3: // random text
            for (char &c : text)
                c = char(rng());
            break;
        default:
            break;
        }
        const QByteArray expected = QByteArray::fromBase64(text);
        ASSERT_EQ(Base64::decode(text.constData(), text.size()), expected) << text.toHex().constData();
        if (round % 4 == 0) {
            ASSERT_EQ(expected, raw);
        }
    }
    EXPECT_TRUE(Base64::decode("", 0).isEmpty());
}

TEST(Base64, EncodeMatchesQtAndAppends)
{
    std::mt19937 rng(12);
    for (int size = 0; size < 600; ++size) {
        QByteArray raw(size, Qt::Uninitialized);
        for (char &c : raw)
            c = char(rng());
        std::string out = "K";
        Base64::encode(raw.constData(), raw.size(), out);
        ASSERT_EQ(out, "K" + raw.toBase64().toStdString()) << size;
    }
}
