#ifndef PUSHCHAT_VANTRELCRYPT_H
#define PUSHCHAT_VANTRELCRYPT_H

/// \file
/// VantrelCrypt, the payload cipher, and keyList, its table of payload keys.

#include <QByteArray>
#include <QString>
#include <QVector>
#include <pushchat/pushchat_export.h>

/// Number of entries in keyList; the key letters "A" to "K" select them.
constexpr int keyListLength = 11;

/// The payload keys, shared by every party that exchanges enciphered
/// payloads. Read-only; the values come from the build (see keylist.cpp):
/// the table given with the CMake option PUSHCHAT_KEY_TABLE, or else a
/// development table that must not be used in production.
extern PUSHCHAT_EXPORT const unsigned long long keyList[keyListLength];

/// Enciphers and deciphers message payloads with a 64-bit symmetric key.
///
/// The cipher text: version byte 0x03, flag byte, then a block of one random
/// byte, an optional integrity field (CRC-16 or SHA-1 of the payload) and the
/// payload (optionally in qCompress form), each byte XORed with a key byte
/// and chained to the enciphered byte before it. A base-64 text form wraps
/// it.
///
/// Ownership: a plain value type that owns nothing but its fields; build one
/// per operation. Threads: an instance is used by one thread at a time; the
/// constructors seed the calling thread's qrand() generator. Failures log a
/// Qt warning (category "pushchat.codec") where noted and set lastStatus.
///
/// Byte forms: cipher text from payload bytes and back. A failure yields a
/// null byte array; lastStatus tells why. Text forms take and give base 64
/// held as Latin-1; the QString results of decryption are the payload
/// decoded as UTF-8; a failure yields an empty string. A QString payload
/// is enciphered as its UTF-8 bytes.
class PUSHCHAT_EXPORT VantrelCrypt {
public:
    /// Values of compressionPolicy.
    enum CompressionPolicy {
        CompressWhenSmaller = 0,
        CompressAlways = 1,
        CompressNever = 2
    };
    /// \var VantrelCrypt::CompressWhenSmaller
    /// Compress when that makes the payload smaller (the default).
    /// \var VantrelCrypt::CompressAlways
    /// Always compress.
    /// \var VantrelCrypt::CompressNever
    /// Never compress.

    /// Values of integrityCheck.
    enum IntegrityCheck {
        IntegrityNone = 0,
        IntegrityChecksum = 1,
        IntegritySha1 = 2
    };
    /// \var VantrelCrypt::IntegrityNone
    /// No integrity field.
    /// \var VantrelCrypt::IntegrityChecksum
    /// CRC-16 of the payload (the default).
    /// \var VantrelCrypt::IntegritySha1
    /// SHA-1 of the payload.

    /// Values of lastStatus.
    enum Status {
        StatusOk = 0,
        StatusNoKey = 1,
        StatusBadVersion = 2,
        StatusIntegrityFailed = 3,
        StatusTooLarge = 4
    };
    /// \var VantrelCrypt::StatusOk
    /// The last operation succeeded.
    /// \var VantrelCrypt::StatusNoKey
    /// No key is set (logged).
    /// \var VantrelCrypt::StatusBadVersion
    /// Not a cipher text of version 0x03 (logged).
    /// \var VantrelCrypt::StatusIntegrityFailed
    /// The integrity field does not match the payload.
    /// \var VantrelCrypt::StatusTooLarge
    /// The payload would be longer than the limit of the decryption.

    /// No key: every operation fails with StatusNoKey until setKey().
    VantrelCrypt();
    /// With `key` set, as setKey() sets it.
    explicit VantrelCrypt(unsigned long long key);

    /// Sets `key` and rebuilds keyBytes from it.
    void setKey(unsigned long long key);
    /// Rebuilds keyBytes from key, least significant byte first.
    void splitKey();

    /// The cipher text of `plaintext`; null on failure.
    QByteArray encryptToByteArray(QByteArray plaintext);
    /// The cipher text of the UTF-8 of `plaintext`; null on failure.
    QByteArray encryptToByteArray(const QString &plaintext);
    /// The base 64 of the cipher text of `plaintext`; empty on failure.
    QString encryptToString(QByteArray plaintext);
    /// The base 64 of the cipher text of the UTF-8 of `plaintext`; empty on
    /// failure.
    QString encryptToString(const QString &plaintext);

    /// The longest payload the decryptions without a limit of their own
    /// give: 64 MiB. A compressed payload is inflated only up to the limit,
    /// whatever length its compressed form claims; a longer one fails with
    /// StatusTooLarge.
    static constexpr int DEFAULT_MAX_PAYLOAD_BYTES = 64 * 1024 * 1024;

    /// The payload of the cipher text `cypher`; null on failure (a text
    /// shorter than the header and the random byte leaves lastStatus as it
    /// was). At most DEFAULT_MAX_PAYLOAD_BYTES.
    QByteArray decryptToByteArray(QByteArray cypher);
    /// The same with a payload of at most `maxPayloadBytes` bytes.
    QByteArray decryptToByteArray(QByteArray cypher, int maxPayloadBytes);
    /// The payload of the base-64 cipher text `cypher`; null on failure.
    QByteArray decryptToByteArray(const QString &cypher);
    /// The payload of the cipher text `cypher`, decoded as UTF-8; empty on
    /// failure.
    QString decryptToString(QByteArray cypher);
    /// The payload of the base-64 cipher text `cypher`, decoded as UTF-8;
    /// empty on failure.
    QString decryptToString(const QString &cypher);

    unsigned long long key = 0;                  ///< the key; set it with setKey()
    QVector<char> keyBytes;                      ///< the key's eight bytes; empty: no key set
    int compressionPolicy = CompressWhenSmaller; ///< a CompressionPolicy
    int integrityCheck = IntegrityChecksum;      ///< an IntegrityCheck, for enciphering
    int lastStatus = StatusOk;                   ///< the Status of the last operation
};

#endif // PUSHCHAT_VANTRELCRYPT_H
