// Payload codec: the cipher's exact layout and round trips, and the kept
// deflate/inflate streams, base 64, CRC and repeated-key check against Qt.

#include "base64.h"
#include "crc16.h"
#include "deflater.h"
#include "eventlog.h"
#include "inflater.h"
#include "jsonkeycheck.h"
#include "vantrelcrypt.h"

#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QtEndian>

#include <random>

namespace {

constexpr unsigned long long kKey = 0x0123456789ABCDEFULL;

QByteArray randomBytes(int size, unsigned seed)
{
    std::mt19937 rng(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    for (char &c : bytes)
        c = char(rng());
    return bytes;
}

// Words picked at random: compresses like chat envelopes.
QByteArray text(int size, unsigned seed)
{
    static const char *const words[] = { "room ", "alice@im.example ", "{\"b\":\"", "你好 ", "at nine", "\\n" };
    std::mt19937 rng(seed);
    QByteArray t;
    while (t.size() < size)
        t += words[rng() % 6];
    return t.left(size);
}

// Version, flags, then E[p] = X[p] ^ K[p mod 8] ^ E[p-1] over the block.
QByteArray reference(int flags, const QByteArray &block)
{
    QByteArray out = QByteArray("\x03") + char(flags);
    for (int p = 0; p < block.size(); ++p)
        out += char(uchar(block[p]) ^ uchar(kKey >> (8 * (p % 8))) ^ (p ? uchar(out.back()) : 0));
    return out;
}

QByteArray checksum(const QByteArray &data)
{
    const quint16 crc = qChecksum(data.constData(), uint(data.size()));
    return QByteArray(1, char(crc >> 8)) + char(crc);
}

} // namespace

// Every policy pair (unknown values: no compression, no integrity field),
// lengths around the 8-byte words, and a text whose compressed form is just
// as long (kept as it is): byte for byte the documented layout, and back.
TEST(VantrelCrypt, LayoutAndRoundTripForEveryPolicy)
{
    std::vector<QByteArray> inputs;
    for (int run = 0; run < 200 && inputs.empty(); ++run) {
        const QByteArray tie = QByteArray(run, 'a') + randomBytes(150, 7);
        if (qCompress(tie, 9).size() == tie.size())
            inputs.push_back(tie);
    }
    ASSERT_EQ(inputs.size(), 1u);
    for (int length : { 0, 1, 7, 8, 9, 16, 63, 300, 4097, 70000 })
        inputs.insert(inputs.end(), { text(length, unsigned(length)), randomBytes(length, unsigned(length)) });
    for (int compression : { 0, 1, 2, 7 }) {
        for (int integrity : { 0, 1, 2, -1 }) {
            for (const QByteArray &plain : inputs) {
                SCOPED_TRACE(testing::Message() << compression << "/" << integrity << " length " << plain.size());
                VantrelCrypt writer(kKey), reader(kKey);
                writer.compressionPolicy = compression;
                writer.integrityCheck = integrity;
                writer.lastStatus = reader.lastStatus = VantrelCrypt::StatusIntegrityFailed;
                const QByteArray cypher = writer.encryptToByteArray(plain), packed = qCompress(plain, 9);
                ASSERT_GE(cypher.size(), 3);
                const bool compress = compression == 1 || (compression == 0 && packed.size() < plain.size());
                const QByteArray stored = compress ? packed : plain;
                const QByteArray field = integrity == 1   ? checksum(stored)
                                         : integrity == 2 ? QCryptographicHash::hash(stored, QCryptographicHash::Sha1)
                                                          : QByteArray();
                const int flags = (compress ? 1 : 0) | (integrity == 1 ? 2 : 0) | (integrity == 2 ? 4 : 0);
                EXPECT_EQ(cypher, reference(flags, char(uchar(cypher[2]) ^ uchar(kKey)) + field + stored));
                const QByteArray back = reader.decryptToByteArray(cypher);
                EXPECT_EQ(
                    fields(back.isNull(), back, writer.lastStatus, reader.lastStatus), fields(false, plain, 0, 0));
            }
        }
    }
}

// Cipher texts too short to hold a block, of another version, or with
// compressed garbage: "null|result|status", status 1 set beforehand.
TEST(VantrelCrypt, Refused)
{
    const auto decrypt = [](const QByteArray &cypher) {
        VantrelCrypt crypt(kKey);
        crypt.lastStatus = VantrelCrypt::StatusNoKey;
        const QByteArray result = crypt.decryptToByteArray(cypher);
        return fields(result.isNull(), result, crypt.lastStatus);
    };
    EXPECT_EQ(fields(decrypt("\x03"), decrypt("\x03\x02"), decrypt(QByteArray("\x02\x00\x00\x00", 4)),
                  decrypt(reference(1, QByteArray("\x5A\0\0\0\x10garbage!", 13)))),
        "1||1|1||1|1||2|1||0");
}

TEST(VantrelCrypt, NoKeyUntilSetAndTextForms)
{
    VantrelCrypt crypt, other;
    EXPECT_EQ(fields(crypt.encryptToByteArray(QByteArray("x")).isNull(), crypt.lastStatus,
                  other.decryptToByteArray(reference(0, "xx")).isNull(), other.lastStatus),
        "1|1|1|1");
    // Base 64 both ways; the payload is UTF-8 and a NUL inside is kept.
    crypt.setKey(kKey);
    const QString plain = QString::fromUtf8("Grüße 😀") + QChar(0) + QStringLiteral("after");
    EXPECT_EQ(crypt.decryptToString(crypt.encryptToString(plain)), plain);
}

// Exactly qCompress level 9, at every length up to past the short-input
// limit, on inputs that stress the match search (long chains of true and of
// colliding hash matches, repeats at every distance), with long inputs in
// between that must leave nothing behind.
TEST(Deflater, MatchesQCompress)
{
    Deflater deflater;
    std::vector<int> sizes{ 70000, 65536, 4096, 2047 };
    for (int size = 0; size <= Deflater::smallInputLimit + 8; ++size)
        sizes.push_back(size);
    for (int size : sizes) {
        std::mt19937 rng{ unsigned(size) };
        QByteArray binary(size, Qt::Uninitialized), nibbles(size, Qt::Uninitialized), periodic(size, Qt::Uninitialized);
        const int period = 1 + int(rng() % 300);
        for (int i = 0; i < size; ++i) {
            binary[i] = rng() % 2 ? 'a' : 'b';
            nibbles[i] = char((rng() % 16) << 4);
            periodic[i] = i < period || rng() % 64 == 0 ? char(rng()) : periodic[i - period];
        }
        for (const QByteArray &data : { binary, nibbles, periodic, text(size, rng()), QByteArray(size, '\0'),
                 randomBytes(size, rng()), size % 97 ? QByteArray() : text(5000, 7) })
            ASSERT_EQ(deflater.compress(data), qCompress(data, 9)) << "size " << size;
    }
}

// As qUncompress within the limit, whatever length the prefix claims; past
// it (a claim above the limit, or a stream that inflates further than it
// claims: a bomb) nothing, and TooLarge.
TEST(Inflater, SoundWithinTheLimitNothingPastIt)
{
    using R = Inflater::Result;
    const int limit = 70000;
    for (int size : { 1, 300, 70000, 70001, 4000000 }) {
        for (quint32 claim : { quint32(size), 0u, 1u, quint32(size) - 1, quint32(limit), quint32(limit) + 1,
                 0x7FFFFFE8u, 0xFFFFFFFFu }) {
            const QByteArray data = size > 100000 ? QByteArray(size, 'x') : text(size, 1);
            QByteArray packed = qCompress(data, 9);
            qToBigEndian(claim, packed.data());
            R result = R::Damaged;
            const QByteArray out =
                Inflater::forThisThread().uncompress(packed.constData(), packed.size(), limit, &result);
            const bool fits = size <= limit && claim <= quint32(limit);
            EXPECT_EQ(
                fields(out == (fits ? data : QByteArray()), int(result)), fields(true, int(fits ? R::Ok : R::TooLarge)))
                << size << " claims " << claim;
        }
    }
    R result = R::Ok;
    EXPECT_TRUE(Inflater::forThisThread().uncompress("\0\0\0\5xx", 6, limit, &result).isNull());
    EXPECT_EQ(result, R::Damaged);
}

// QByteArray's bytes both ways (sound, cut, damaged and random text), and
// qChecksum's CRC.
TEST(Base64AndCrc, MatchQt)
{
    std::mt19937 rng(11);
    for (int round = 0; round < 4000; ++round) {
        const QByteArray raw = randomBytes(int(rng() % 64), rng());
        std::string encoded = "K";
        Base64::encode(raw.constData(), raw.size(), encoded);
        ASSERT_EQ(encoded, "K" + raw.toBase64().toStdString());
        QByteArray text = round % 4 == 3 ? randomBytes(int(rng() % 90), rng()) : raw.toBase64();
        for (int k = round % 4 == 1 ? 3 : 0; k > 0 && !text.isEmpty(); --k)
            text[int(rng() % uint(text.size()))] = char(rng());
        text.truncate(round % 4 == 2 ? int(rng() % uint(text.size() + 1)) : text.size());
        ASSERT_EQ(Base64::decode(text.constData(), text.size()), QByteArray::fromBase64(text))
            << text.toHex().constData();
        ASSERT_EQ(Crc16::x25(raw.constData(), raw.size()), qChecksum(raw.constData(), uint(raw.size())));
    }
}

// Keys compare after escapes are decoded, at any depth; only texts with
// arrays or nested objects are refused; broken text is answered without
// reading past its end.
TEST(JsonKeyCheck, RepeatedKeysAndFlatTexts)
{
    const struct {
        const char *json;
        bool repeated, flat;
    } rows[] = { { R"({"a":1,"b":{"a":2},"c":[{"a":3},{"a":4}]})", false, false },
        { R"({"x":{"a":[1],"b":0,"a":2}})", true, false }, { R"([1,{"k":{},"k":1}])", true, false },
        { "{\"\xc3\xa9\":1,\"\\u00e9\":[2]}", true, false }, { "{\"\xe0\xa0\x80\":1,\"\\u0800\":[2]}", true, false },
        { "{\"\xf0\x90\x80\x80\":1,\"\\ud800\\udc00\":[2]}", true, false },
        { R"({"a":["k","k","k"],"b":"a"})", false, false }, { R"({"a":"x\",\"a\":1"})", false, true },
        { R"({"f":"first","f":"last"})", true, true }, { "{\"a", false, true }, { "]]]}}}", false, true },
        { R"({"o":{"k":1},"o":2})", true, false }, { R"( {"a":1})", false, true } };
    for (const auto &row : rows) {
        const QByteArray json(row.json);
        EXPECT_EQ(fields(JsonKeyCheck::hasRepeatedKey(row.json), JsonKeyCheck::isFlat(row.json)),
            fields(row.repeated, row.flat))
            << row.json;
        EXPECT_EQ(
            JsonKeyCheck::parse(json), row.repeated && !row.flat ? QJsonDocument() : QJsonDocument::fromJson(json));
    }
}
