// Fuzzes VantrelCrypt's deciphering with the text as received from the
// network (byte form and base-64 text form), and with blocks whose plain
// content the fuzzer controls, to reach the integrity checks and
// decompression with well-formed and damaged data alike, under the default
// payload limit and the envelope's. The smoke run sets a malloc limit
// below what the seed bomb (flags 0x01, a compressed block of 100 MB of
// zeros) inflates to: inflation that ignored its limit fails the run.

#include "inputlimits.h"
#include "vantrelcrypt.h"

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include <cstddef>
#include <cstdint>

namespace {

void quietMessages(QtMsgType, const QMessageLogContext &, const QString &)
{ }

// The input's bytes from offset 2 on become the plain block's payload behind
// a random byte; byte 1 becomes the flag byte. Enciphering through the
// library with neither compression nor integrity field leaves exactly that
// block, whatever the flags then claim.
QByteArray withPlainBlock(const QByteArray &input, unsigned long long key)
{
    if (input.size() < 2)
        return input;
    VantrelCrypt writer(key);
    writer.compressionPolicy = VantrelCrypt::CompressNever;
    writer.integrityCheck = VantrelCrypt::IntegrityNone;
    QByteArray cypher = writer.encryptToByteArray(input.mid(2));
    cypher[1] = input[1];
    return cypher;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool quiet = (qInstallMessageHandler(quietMessages), true);
    Q_UNUSED(quiet);
    if (size > 1 << 20)
        return 0;

    const QByteArray input = QByteArray::fromRawData(reinterpret_cast<const char *>(data), int(size));
    const unsigned long long key = keyList[0];

    VantrelCrypt crypt(key);
    crypt.decryptToByteArray(input);
    crypt.decryptToByteArray(QString::fromLatin1(input));
    const QByteArray block = withPlainBlock(input, key);
    crypt.decryptToByteArray(block);
    crypt.decryptToByteArray(block, InputLimits::ENVELOPE_BYTES);
    return 0;
}
