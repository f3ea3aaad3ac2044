#include "vantrelcrypt.h"

#include "base64.h"
#include "crc16.h"
#include "deflater.h"
#include "inflater.h"
#include "pushchatlog.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QtEndian>

#include <cstring>
#include <limits>
#include <utility>

namespace {

constexpr char cipherVersion = 0x03;
constexpr int headerSize = 2; // version and flags, not enciphered

enum Flag : uchar {
    FlagCompressed = 0x01,
    FlagChecksum = 0x02,
    FlagSha1 = 0x04,
};

constexpr int checksumSize = 2;
constexpr int sha1Size = 20;

// The random byte leads the block so that the chaining spreads it over every
// following byte. It comes from Qt's per-thread qrand() generator, reseeded
// from the millisecond clock at every construction. qsrand/qrand are
// deprecated in Qt 5.15, but that seeding is part of the cipher's defined
// behaviour (instances made at one clock reading draw the same byte).
QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED
void seedThreadGenerator()
{
    qsrand(uint(QDateTime::currentMSecsSinceEpoch() & 0xFFFF));
}

char drawRandomByte()
{
    return char(qrand() & 0xFF);
}
QT_WARNING_POP

// The eight key bytes, zero where keyBytes (a public field) is short, so the
// chaining never indexes past it; packed little-endian, so that byte i of
// the word is the key byte of every position p with p mod 8 == i.
quint64 keyWordOf(const QVector<char> &keyBytes)
{
    quint64 word = 0;
    for (int i = 0; i < 8; ++i)
        word |= quint64(uchar(keyBytes.value(i))) << (8 * i);
    return word;
}

constexpr quint64 kEveryByte = 0x0101010101010101ULL;

// E[p] = X[p] ^ K[p mod 8] ^ E[p-1], E[-1] = 0. Unrolled, E[p] is the XOR of
// X[q] ^ K[q mod 8] over q <= p: eight bytes at a time, that is a prefix XOR
// across the bytes of one little-endian word, then the last enciphered byte
// before the word XORed into each of its bytes.
void encipher(char *block, int size, quint64 key)
{
    quint64 previous = 0;
    int p = 0;
    for (; p + 8 <= size; p += 8) {
        quint64 word = qFromLittleEndian<quint64>(block + p) ^ key;
        word ^= word << 8;
        word ^= word << 16;
        word ^= word << 32;
        word ^= previous * kEveryByte;
        qToLittleEndian<quint64>(word, block + p);
        previous = word >> 56;
    }
    for (; p < size; ++p) {
        previous = uchar(block[p]) ^ uchar(key >> (8 * (p & 7))) ^ previous;
        block[p] = char(previous);
    }
}

// X[p] = E[p] ^ K[p mod 8] ^ E[p-1], E[-1] = 0; each word is read whole
// before it is overwritten, and its last byte serves as E[p-1] for the next.
void decipher(char *block, int size, quint64 key)
{
    quint64 previous = 0;
    int p = 0;
    for (; p + 8 <= size; p += 8) {
        const quint64 enciphered = qFromLittleEndian<quint64>(block + p);
        qToLittleEndian<quint64>(enciphered ^ key ^ ((enciphered << 8) | previous), block + p);
        previous = enciphered >> 56;
    }
    for (; p < size; ++p) {
        const uchar enciphered = uchar(block[p]);
        block[p] = char(enciphered ^ uchar(key >> (8 * (p & 7))) ^ previous);
        previous = enciphered;
    }
}

// Over the whole length: QString::fromUtf8(QByteArray) would stop at a NUL.
QString wholeUtf8(const QByteArray &bytes)
{
    return QString::fromUtf8(bytes.constData(), bytes.size());
}

QByteArray sha1(const char *data, int size)
{
    QCryptographicHash hash(QCryptographicHash::Sha1);
    hash.addData(data, size);
    return hash.result();
}

} // namespace

VantrelCrypt::VantrelCrypt()
{
    seedThreadGenerator();
}

VantrelCrypt::VantrelCrypt(unsigned long long key) : key(key)
{
    seedThreadGenerator();
    splitKey();
}

void VantrelCrypt::setKey(unsigned long long key)
{
    this->key = key;
    splitKey();
}

void VantrelCrypt::splitKey()
{
    keyBytes.clear();
    keyBytes.resize(8);
    for (int i = 0; i < keyBytes.size(); ++i)
        keyBytes[i] = char((key >> (8 * i)) & 0xFF);
}

QByteArray VantrelCrypt::encryptToByteArray(QByteArray plaintext)
{
    if (keyBytes.isEmpty()) {
        qCWarning(lcCodec, "No key set.");
        lastStatus = StatusNoKey;
        return QByteArray();
    }

    uchar flags = 0;
    QByteArray payload = std::move(plaintext);
    if (compressionPolicy == CompressAlways || compressionPolicy == CompressWhenSmaller) {
        QByteArray compressed = Deflater::forThisThread().compress(payload);
        // An empty result means compression failed (out of memory); the
        // payload then goes out as it is, which any reader still accepts.
        const bool use =
            !compressed.isEmpty() && (compressionPolicy == CompressAlways || compressed.size() < payload.size());
        if (use) {
            payload = std::move(compressed);
            flags |= FlagCompressed;
        }
    }

    char checksum[checksumSize];
    QByteArray digest;
    const char *integrity = nullptr;
    int integritySize = 0;
    if (integrityCheck == IntegrityChecksum) {
        // Big-endian, as QDataStream writes it.
        qToBigEndian<quint16>(Crc16::x25(payload.constData(), payload.size()), checksum);
        integrity = checksum;
        integritySize = checksumSize;
        flags |= FlagChecksum;
    } else if (integrityCheck == IntegritySha1) {
        digest = sha1(payload.constData(), payload.size());
        integrity = digest.constData();
        integritySize = digest.size();
        flags |= FlagSha1;
    }

    // A QByteArray holds a little under 2 GB; only a plaintext of about that
    // size gets here, and it cannot be enciphered.
    const qint64 cypherSize = qint64(headerSize) + 1 + integritySize + payload.size();
    if (cypherSize > std::numeric_limits<int>::max() - 64) {
        qCWarning(lcCodec, "Payload too large.");
        return QByteArray();
    }

    QByteArray cypher(int(cypherSize), Qt::Uninitialized);
    char *out = cypher.data();
    out[0] = cipherVersion;
    out[1] = char(flags);
    out[headerSize] = drawRandomByte();
    if (integritySize > 0)
        std::memcpy(out + headerSize + 1, integrity, size_t(integritySize));
    if (!payload.isEmpty())
        std::memcpy(out + headerSize + 1 + integritySize, payload.constData(), size_t(payload.size()));
    encipher(out + headerSize, cypher.size() - headerSize, keyWordOf(keyBytes));

    lastStatus = StatusOk;
    return cypher;
}

QByteArray VantrelCrypt::encryptToByteArray(const QString &plaintext)
{
    return encryptToByteArray(plaintext.toUtf8());
}

QString VantrelCrypt::encryptToString(QByteArray plaintext)
{
    return QString::fromLatin1(encryptToByteArray(std::move(plaintext)).toBase64());
}

QString VantrelCrypt::encryptToString(const QString &plaintext)
{
    return encryptToString(plaintext.toUtf8());
}

QByteArray VantrelCrypt::decryptToByteArray(QByteArray cypher)
{
    return decryptToByteArray(std::move(cypher), DEFAULT_MAX_PAYLOAD_BYTES);
}

QByteArray VantrelCrypt::decryptToByteArray(QByteArray cypher, int maxPayloadBytes)
{
    if (keyBytes.isEmpty()) {
        qCWarning(lcCodec, "No key set.");
        lastStatus = StatusNoKey;
        return QByteArray();
    }
    if (cypher.size() < headerSize + 1)
        return QByteArray();
    if (cypher.at(0) != cipherVersion) {
        lastStatus = StatusBadVersion;
        qCWarning(lcCodec, "Invalid version or not a cyphertext.");
        return QByteArray();
    }

    const uchar flags = uchar(cypher.at(1));
    char *data = cypher.data();
    const int size = cypher.size();
    decipher(data + headerSize, size - headerSize, keyWordOf(keyBytes));

    int offset = headerSize + 1; // past the random byte
    if (flags & FlagChecksum) {
        if (size - offset < checksumSize) {
            lastStatus = StatusIntegrityFailed;
            return QByteArray();
        }
        const quint16 stored = qFromBigEndian<quint16>(data + offset);
        offset += checksumSize;
        if (Crc16::x25(data + offset, size - offset) != stored) {
            lastStatus = StatusIntegrityFailed;
            return QByteArray();
        }
    } else if (flags & FlagSha1) {
        if (size - offset < sha1Size) {
            lastStatus = StatusIntegrityFailed;
            return QByteArray();
        }
        const QByteArray digest = sha1(data + offset + sha1Size, size - offset - sha1Size);
        if (std::memcmp(digest.constData(), data + offset, sha1Size) != 0) {
            lastStatus = StatusIntegrityFailed;
            return QByteArray();
        }
        offset += sha1Size;
    }

    QByteArray payload;
    const int stored = size - offset;
    Inflater::Result inflated = Inflater::Result::Ok;
    if (flags & FlagCompressed) {
        payload = Inflater::forThisThread().uncompress(data + offset, stored, maxPayloadBytes, &inflated);
        // qUncompress answers the four zero bytes that stand for no data with
        // a null array, as it answers damaged data; keep success non-null.
        if (payload.isNull() && stored == 4 && std::memcmp(data + offset, "\0\0\0\0", 4) == 0)
            payload = QByteArray("");
    } else if (stored > maxPayloadBytes) {
        inflated = Inflater::Result::TooLarge;
    } else {
        payload = cypher.mid(offset); // non-null, also when empty
    }
    if (inflated == Inflater::Result::TooLarge) {
        lastStatus = StatusTooLarge; // the caller reports it, once
        return QByteArray();
    }
    lastStatus = StatusOk;
    return payload;
}

QByteArray VantrelCrypt::decryptToByteArray(const QString &cypher)
{
    const QByteArray text = cypher.toLatin1();
    return decryptToByteArray(Base64::decode(text.constData(), text.size()));
}

QString VantrelCrypt::decryptToString(QByteArray cypher)
{
    return wholeUtf8(decryptToByteArray(std::move(cypher)));
}

QString VantrelCrypt::decryptToString(const QString &cypher)
{
    return wholeUtf8(decryptToByteArray(cypher));
}
