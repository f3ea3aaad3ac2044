// VantrelCrypt: round trips, byte layout (against a byte-by-byte rendering of
// the chaining and Qt's checksum, digest and compression), failure statuses
// and warnings.

#include "vantrelcrypt.h"

#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QDateTime>
#include <QStringList>
#include <QtGlobal>

#include <random>
#include <vector>

namespace {

constexpr unsigned long long testKey = 0x0123456789ABCDEFULL;

QByteArray randomBytes(int size, unsigned seed)
{
    std::mt19937 generator(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    for (char &byte : bytes)
        byte = char(generator());
    return bytes;
}

QByteArray jsonLike(int size)
{
    const QByteArray unit = R"({"b":"see you at nine","bt":0,"f":"alice@im.example","s":9999},)";
    QByteArray text;
    while (text.size() < size)
        text += unit;
    return text.left(size);
}

// Records what the Qt message log receives while it lives.
class LogCapture
{
public:
    LogCapture() { previous_ = qInstallMessageHandler(&LogCapture::record); }
    ~LogCapture() { qInstallMessageHandler(previous_); lines().clear(); }
    QStringList warnings() const { return lines(); }

private:
    static QStringList &lines()
    {
        static QStringList recorded;
        return recorded;
    }
    static void record(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        if (type == QtWarningMsg)
            lines() << QString::fromLatin1(context.category) + QLatin1Char('|') + text;
    }
    QtMessageHandler previous_;
};

// The cipher text with its flag byte cleared deciphers to the plain block
// less its random byte: the integrity field, then the payload as stored.
QByteArray storedBlock(QByteArray cypher, unsigned long long key)
{
    cypher[1] = 0;
    VantrelCrypt crypt(key);
    return crypt.decryptToByteArray(cypher);
}

// E[p] = X[p] ^ K[p mod 8] ^ E[p-1], written out independently of the library.
QByteArray referenceCypher(char flags, const QByteArray &block, unsigned long long key)
{
    QByteArray cypher("\x03");
    cypher += flags;
    uchar previous = 0;
    for (int p = 0; p < block.size(); ++p) {
        previous = uchar(block[p]) ^ uchar(key >> (8 * (p % 8))) ^ previous;
        cypher += char(previous);
    }
    return cypher;
}

QByteArray bigEndianChecksum(const QByteArray &data)
{
    const quint16 crc = qChecksum(data.constData(), uint(data.size()));
    return QByteArray(1, char(crc >> 8)) + char(crc & 0xFF);
}

} // namespace

TEST(VantrelCryptKey, SplitsLeastSignificantByteFirst)
{
    VantrelCrypt crypt(0x0102030405060708ULL);
    EXPECT_EQ(crypt.keyBytes, (QVector<char>{8, 7, 6, 5, 4, 3, 2, 1}));
    crypt.setKey(0xFF00000000000000ULL);
    EXPECT_EQ(crypt.key, 0xFF00000000000000ULL);
    EXPECT_EQ(crypt.keyBytes, (QVector<char>{0, 0, 0, 0, 0, 0, 0, char(0xFF)}));
}

TEST(VantrelCryptKey, WithoutKeyEveryOperationFailsWithWarning)
{
    VantrelCrypt crypt;
    EXPECT_TRUE(crypt.keyBytes.isEmpty());
    LogCapture log;
    EXPECT_TRUE(crypt.encryptToByteArray(QByteArray("hello")).isNull());
    EXPECT_EQ(crypt.lastStatus, VantrelCrypt::StatusNoKey);
    crypt.lastStatus = 0;
    EXPECT_TRUE(crypt.decryptToByteArray(QByteArray("\x03\x02\x00\x00\x00", 5)).isNull());
    EXPECT_EQ(crypt.lastStatus, VantrelCrypt::StatusNoKey);
    EXPECT_TRUE(crypt.encryptToString(QString("hello")).isEmpty());
    EXPECT_EQ(log.warnings(), (QStringList{"pushchat.codec|No key set.", "pushchat.codec|No key set.", "pushchat.codec|No key set."}));

    crypt.setKey(0); // zero is a key like any other
    EXPECT_FALSE(crypt.encryptToByteArray(QByteArray("hello")).isNull());
    EXPECT_EQ(crypt.lastStatus, VantrelCrypt::StatusOk);
}

TEST(VantrelCryptRoundTrip, EveryPolicyPairAndLength)
{
    const std::vector<int> lengths{0, 1, 2, 7, 8, 9, 16, 63, 300, 4097, 70000};
    for (int compression : {0, 1, 2, 7}) {
        for (int integrity : {0, 1, 2, -1}) {
            for (int length : lengths) {
                for (const QByteArray &plain : {jsonLike(length), randomBytes(length, unsigned(length))}) {
                    SCOPED_TRACE(testing::Message() << "compression " << compression << " integrity "
                                                    << integrity << " length " << length);
                    VantrelCrypt writer(testKey);
                    writer.compressionPolicy = compression;
                    writer.integrityCheck = integrity;
                    const QByteArray cypher = writer.encryptToByteArray(plain);
                    ASSERT_GE(cypher.size(), 3);

                    VantrelCrypt reader(testKey);
                    reader.lastStatus = 3;
                    const QByteArray back = reader.decryptToByteArray(cypher);
                    EXPECT_EQ(back, plain);
                    EXPECT_FALSE(back.isNull());
                    EXPECT_EQ(reader.lastStatus, VantrelCrypt::StatusOk);

                    // Flags and stored block follow the policies; unknown values
                    // mean "never compress" and "no integrity field".
                    const QByteArray compressed = qCompress(plain, 9);
                    const bool compress = compression == 1 || (compression == 0 && compressed.size() < plain.size());
                    const QByteArray stored = compress ? compressed : plain;
                    const QByteArray field = integrity == 1   ? bigEndianChecksum(stored)
                                             : integrity == 2 ? QCryptographicHash::hash(stored, QCryptographicHash::Sha1)
                                                              : QByteArray();
                    const int flags = (compress ? 0x01 : 0) | (integrity == 1 ? 0x02 : 0) | (integrity == 2 ? 0x04 : 0);
                    EXPECT_EQ(cypher[0], '\x03');
                    EXPECT_EQ(uchar(cypher[1]), flags);
                    EXPECT_EQ(storedBlock(cypher, testKey), field + stored);
                }
            }
        }
    }
}

// The chaining works on whole words where it can: every block length from
// 1 to past a few words, against the byte-by-byte rule.
TEST(VantrelCryptLayout, ChainingMatchesTheRuleForEveryBlockLength)
{
    for (unsigned long long key : {testKey, 0ULL, ~0ULL}) {
        for (int length = 0; length < 80; ++length) {
            const QByteArray plain = randomBytes(length, unsigned(length) + 1);
            VantrelCrypt crypt(key);
            crypt.compressionPolicy = VantrelCrypt::CompressNever;
            crypt.integrityCheck = VantrelCrypt::IntegrityNone;
            const QByteArray cypher = crypt.encryptToByteArray(plain);
            ASSERT_EQ(cypher.size(), length + 3);
            const char randomByte = char(uchar(cypher[2]) ^ uchar(key));
            EXPECT_EQ(cypher, referenceCypher(0, QByteArray(1, randomByte) + plain, key)) << length;
            EXPECT_EQ(crypt.decryptToByteArray(cypher), plain) << length;
        }
    }
}

TEST(VantrelCryptRoundTrip, TextFormsKeepEveryCharacter)
{
    const QString text = QString::fromUtf8("Grüße, 你好 \xF0\x9F\x98\x80") + QChar(0) + QStringLiteral("after NUL");
    VantrelCrypt crypt(testKey);
    const QString wire = crypt.encryptToString(text);
    EXPECT_FALSE(wire.isEmpty());
    for (QChar c : wire)
        EXPECT_TRUE(c.isLetterOrNumber() || c == '+' || c == '/' || c == '=') << c.unicode();
    EXPECT_EQ(VantrelCrypt(testKey).decryptToString(wire), text);
    EXPECT_EQ(VantrelCrypt(testKey).decryptToByteArray(wire), text.toUtf8());
    const QByteArray bytes = QByteArray::fromBase64(wire.toLatin1());
    EXPECT_EQ(VantrelCrypt(testKey).decryptToString(bytes), text);
    EXPECT_EQ(VantrelCrypt(testKey).decryptToByteArray(bytes), text.toUtf8());
    EXPECT_EQ(VantrelCrypt(testKey).encryptToByteArray(text).size(), bytes.size());
}

TEST(VantrelCryptLayout, DefaultsCompressWhenSmallerAndAddAChecksum)
{
    VantrelCrypt crypt(testKey);
    const QByteArray empty = crypt.encryptToByteArray(QByteArray());
    ASSERT_EQ(empty.size(), 5);
    EXPECT_EQ(empty.left(2), QByteArray("\x03\x02"));
    EXPECT_EQ(storedBlock(empty, testKey), QByteArray(2, '\0'));
    const QByteArray text = jsonLike(1000);
    EXPECT_EQ(crypt.encryptToByteArray(text)[1], '\x03');
    EXPECT_EQ(storedBlock(crypt.encryptToByteArray(text), testKey).mid(2), qCompress(text, 9));
}

TEST(VantrelCryptLayout, CompressesOnlyWhenStrictlySmaller)
{
    // A run of one byte followed by random bytes: the run's length tunes the
    // compressed size; find a plaintext whose qCompress form ties with it.
    QByteArray tie;
    for (int run = 0; run < 200 && tie.isEmpty(); ++run) {
        const QByteArray candidate = QByteArray(run, 'a') + randomBytes(150, 7);
        if (qCompress(candidate, 9).size() == candidate.size())
            tie = candidate;
    }
    ASSERT_FALSE(tie.isEmpty()) << "no plaintext found whose compressed form ties";

    VantrelCrypt crypt(testKey);
    crypt.integrityCheck = VantrelCrypt::IntegrityNone;
    const QByteArray kept = crypt.encryptToByteArray(tie);
    EXPECT_EQ(kept[1], '\0');
    EXPECT_EQ(kept.size(), 3 + tie.size());

    crypt.compressionPolicy = VantrelCrypt::CompressAlways;
    const QByteArray forced = crypt.encryptToByteArray(tie);
    EXPECT_EQ(forced[1], '\x01');
    EXPECT_EQ(storedBlock(forced, testKey), qCompress(tie, 9));
    EXPECT_EQ(VantrelCrypt(testKey).decryptToByteArray(forced), tie);
}

TEST(VantrelCryptLayout, InstancesBuiltInOneMillisecondDrawTheSameByte)
{
    // Each construction reseeds the thread's generator from the clock's low
    // 16 bits, so two instances made at one clock reading encipher alike,
    // while one instance draws a new byte for each text.
    const QByteArray plain = jsonLike(40);
    VantrelCrypt one(testKey);
    const QByteArray first = one.encryptToByteArray(plain);
    QByteArray next = one.encryptToByteArray(plain);
    for (int i = 0; i < 100 && next[2] == first[2]; ++i)
        next = one.encryptToByteArray(plain);
    EXPECT_NE(next[2], first[2]);
    for (int attempt = 0; attempt < 50; ++attempt) {
        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        VantrelCrypt a(testKey);
        const QByteArray fromA = a.encryptToByteArray(plain);
        VantrelCrypt b(testKey);
        const QByteArray fromB = b.encryptToByteArray(plain);
        if (QDateTime::currentMSecsSinceEpoch() == before) {
            EXPECT_EQ(fromA, fromB);
            return;
        }
    }
    GTEST_SKIP() << "clock moved during every attempt";
}

TEST(VantrelCryptDecrypt, HandBuiltBlocksFollowTheirFlags)
{
    const QByteArray payload = "payload \x00 bytes";
    const QByteArray rnd(1, '\x5A');

    // No flags: the block less its random byte, unchecked.
    VantrelCrypt crypt(testKey);
    EXPECT_EQ(crypt.decryptToByteArray(referenceCypher(0x00, rnd + payload, testKey)), payload);

    // Checksum and digest bits together: only the checksum is read.
    crypt.lastStatus = 3;
    EXPECT_EQ(crypt.decryptToByteArray(referenceCypher(0x06, rnd + bigEndianChecksum(payload) + payload, testKey)),
              payload);
    EXPECT_EQ(crypt.lastStatus, VantrelCrypt::StatusOk);

    // Unknown flag bits are ignored.
    EXPECT_EQ(crypt.decryptToByteArray(referenceCypher(char(0xF8), rnd + payload, testKey)), payload);

    // Compressed flag with the qCompress form, including that of no data.
    EXPECT_EQ(crypt.decryptToByteArray(referenceCypher(0x01, rnd + qCompress(payload, 9), testKey)), payload);
    const QByteArray empty = crypt.decryptToByteArray(referenceCypher(0x01, rnd + QByteArray(4, '\0'), testKey));
    EXPECT_TRUE(empty.isEmpty());
    EXPECT_FALSE(empty.isNull());  // success, unlike damaged compressed data
    EXPECT_EQ(crypt.lastStatus, VantrelCrypt::StatusOk);
}

TEST(VantrelCryptDecrypt, ShortCipherTextsKeepLastStatus)
{
    VantrelCrypt crypt(testKey);
    LogCapture log;
    for (int status : {0, 2, 3}) {
        for (const QByteArray &text : {QByteArray(), QByteArray("\x03"), QByteArray("\x03\x02")}) {
            crypt.lastStatus = status;
            EXPECT_TRUE(crypt.decryptToByteArray(text).isNull());
            EXPECT_TRUE(crypt.decryptToString(text).isEmpty());
            EXPECT_TRUE(crypt.decryptToByteArray(QString::fromLatin1(text.toBase64())).isNull());
            EXPECT_EQ(crypt.lastStatus, status);
        }
    }
    EXPECT_TRUE(log.warnings().isEmpty());

    // Three bytes with the checksum flag leave no room for the checksum.
    EXPECT_TRUE(crypt.decryptToByteArray(QByteArray("\x03\x02\x41", 3)).isNull());
    EXPECT_EQ(crypt.lastStatus, VantrelCrypt::StatusIntegrityFailed);
}

TEST(VantrelCryptDecrypt, FailureTable)
{
    VantrelCrypt crypt(testKey);
    const QByteArray rnd(1, '\x11');
    struct Case {
        const char *name;
        QByteArray cypher;
        int status;
        bool nullResult;
    };
    const std::vector<Case> cases{
        {"version 2", QByteArray("\x02\x02\x00\x00\x00", 5), 2, true},
        {"version 0", QByteArray(8, '\0'), 2, true},
        {"checksum flag, one byte", referenceCypher(0x02, rnd + "x", testKey), 3, true},
        {"digest flag, 19 bytes", referenceCypher(0x04, rnd + QByteArray(19, 'd'), testKey), 3, true},
        {"checksum differs", referenceCypher(0x02, rnd + "\x00\x00" + QByteArray("data"), testKey), 3, true},
        {"digest differs", referenceCypher(0x04, rnd + QByteArray(20, '\0') + "data", testKey), 3, true},
        {"compressed garbage", referenceCypher(0x01, rnd + "\x00\x00\x00\x10garbage!", testKey), 0, true},
        {"compressed, too short", referenceCypher(0x01, rnd + "\x00\x01", testKey), 0, true},
        {"compressed, claims 4 GB",
         referenceCypher(0x01, rnd + "\xff\xff\xff\xff" + qCompress("x", 9).mid(4), testKey), 0, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        LogCapture log;
        crypt.lastStatus = 1;
        const QByteArray result = crypt.decryptToByteArray(c.cypher);
        EXPECT_TRUE(result.isEmpty());
        EXPECT_EQ(result.isNull(), c.nullResult);
        EXPECT_EQ(crypt.lastStatus, c.status);
        const QStringList codecWarnings = log.warnings().filter(QStringLiteral("pushchat.codec|"));
        EXPECT_EQ(codecWarnings, c.status == 2 ? QStringList("pushchat.codec|Invalid version or not a cyphertext.")
                                               : QStringList());
        EXPECT_TRUE(crypt.decryptToString(c.cypher).isEmpty());
    }
}

TEST(VantrelCryptDecrypt, EverySingleBitFlipIsDetected)
{
    for (int integrity : {VantrelCrypt::IntegrityChecksum, VantrelCrypt::IntegritySha1}) {
        VantrelCrypt crypt(testKey);
        crypt.integrityCheck = integrity;
        const QByteArray cypher = crypt.encryptToByteArray(jsonLike(300));
        for (int p = 2; p < cypher.size(); ++p) {
            for (int bit = 0; bit < 8; ++bit) {
                QByteArray damaged = cypher;
                damaged[p] = char(damaged[p] ^ (1 << bit));
                crypt.lastStatus = 0;
                EXPECT_TRUE(crypt.decryptToByteArray(damaged).isNull()) << "position " << p << " bit " << bit;
                EXPECT_EQ(crypt.lastStatus, VantrelCrypt::StatusIntegrityFailed);
            }
        }
    }
}
