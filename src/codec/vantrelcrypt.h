#ifndef PUSHCHAT_VANTRELCRYPT_H
#define PUSHCHAT_VANTRELCRYPT_H

// VantrelCrypt enciphers and deciphers message payloads with a 64-bit
// symmetric key: version byte 0x03, flag byte, then a block of one random
// byte, an optional integrity field (CRC-16 or SHA-1 of the payload) and the
// payload (optionally in qCompress form), each byte XORed with a key byte and
// chained to the enciphered byte before it. A base-64 text form wraps it.
//
// Ownership: a plain value type that owns nothing but its fields; build one
// per operation. Threads: an instance is used by one thread at a time; the
// constructors seed the calling thread's qrand() generator. Failures log a
// Qt warning (category "pushchat.codec") where noted and set lastStatus.

#include <pushchat/pushchat_export.h>
#include <QByteArray>
#include <QString>
#include <QVector>

// Number of entries in keyList; the key letters "A" to "K" select them.
constexpr int keyListLength = 11;

// The payload keys, shared by every party that exchanges enciphered
// payloads. Read-only; the values come from the build (see keylist.cpp).
extern PUSHCHAT_EXPORT const unsigned long long keyList[keyListLength];

class PUSHCHAT_EXPORT VantrelCrypt
{
public:
    // Values of compressionPolicy.
    enum CompressionPolicy { CompressWhenSmaller = 0, CompressAlways = 1, CompressNever = 2 };
    // Values of integrityCheck.
    enum IntegrityCheck { IntegrityNone = 0, IntegrityChecksum = 1, IntegritySha1 = 2 };
    // Values of lastStatus.
    enum Status { StatusOk = 0, StatusNoKey = 1, StatusBadVersion = 2, StatusIntegrityFailed = 3 };

    // No key: every operation fails with StatusNoKey until setKey().
    VantrelCrypt();
    explicit VantrelCrypt(unsigned long long key);

    void setKey(unsigned long long key);
    // Rebuilds keyBytes from key, least significant byte first.
    void splitKey();

    // Byte forms: cipher text from payload bytes and back. A failure yields
    // a null byte array; lastStatus tells why.
    QByteArray encryptToByteArray(QByteArray plaintext);
    QByteArray encryptToByteArray(const QString &plaintext);
    QString encryptToString(QByteArray plaintext);
    QString encryptToString(const QString &plaintext);

    // Text forms take and give base 64 held as Latin-1; the QString results
    // are the payload decoded as UTF-8; a failure yields an empty string.
    QByteArray decryptToByteArray(QByteArray cypher);
    QByteArray decryptToByteArray(const QString &cypher);
    QString decryptToString(QByteArray cypher);
    QString decryptToString(const QString &cypher);

    unsigned long long key = 0;
    QVector<char> keyBytes;  // empty: no key set
    int compressionPolicy = CompressWhenSmaller;
    int integrityCheck = IntegrityChecksum;
    int lastStatus = StatusOk;
};

#endif // PUSHCHAT_VANTRELCRYPT_H
