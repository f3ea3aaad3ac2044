// Cost of the payload cipher on the send and receive paths: a VantrelCrypt
// built per message with a key of the table, as the message envelope does,
// on envelope-like JSON of about 300 bytes and 2 KB. Also compares
// compression through qCompress with the kept deflate streams.

#include "deflater.h"
#include "vantrelcrypt.h"

#include <benchmark/benchmark.h>

#include <QJsonDocument>
#include <QJsonObject>

namespace {

// A compact envelope whose body brings the JSON to about `size` bytes.
QByteArray envelope(int size)
{
    const QString phrase = QStringLiteral("Meeting moved to 15:30, room 4B; bring the draft. ");
    QString body;
    QJsonObject object{ { "f", "alice@im.example.org" }, { "t", "bob@im.example.org" }, { "bt", 0 },
        { "k", "6f1c2a9e-3b7d-4c11-9a55-0e2f7d8b9c01" }, { "p", "" }, { "s", 9999 }, { "st", "1718000000000" },
        { "v", 1 } };
    const int overhead = QJsonDocument(object).toJson(QJsonDocument::Compact).size() + 8;
    while (body.size() < size - overhead)
        body += phrase;
    object.insert("b", body.left(size - overhead));
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

void BM_EncryptToString(benchmark::State &state)
{
    const QByteArray json = envelope(int(state.range(0)));
    for (auto _ : state) {
        VantrelCrypt crypt(keyList[3]);
        benchmark::DoNotOptimize(crypt.encryptToString(json));
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * json.size());
}

void BM_DecryptToByteArray(benchmark::State &state)
{
    const QByteArray json = envelope(int(state.range(0)));
    const QString text = VantrelCrypt(keyList[3]).encryptToString(json);
    for (auto _ : state) {
        VantrelCrypt crypt(keyList[3]);
        benchmark::DoNotOptimize(crypt.decryptToByteArray(text));
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * json.size());
}

void BM_CompressQCompress(benchmark::State &state)
{
    const QByteArray json = envelope(int(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(qCompress(json, 9));
}

void BM_CompressKeptStream(benchmark::State &state)
{
    const QByteArray json = envelope(int(state.range(0)));
    Deflater &deflater = Deflater::forThisThread();
    for (auto _ : state)
        benchmark::DoNotOptimize(deflater.compress(json));
    state.counters["json_bytes"] = double(json.size());
}

} // namespace

BENCHMARK(BM_EncryptToString)->Arg(300)->Arg(2048);
BENCHMARK(BM_DecryptToByteArray)->Arg(300)->Arg(2048);
BENCHMARK(BM_CompressQCompress)->Arg(300)->Arg(2048);
// JSON of 1022 bytes (Arg 1023) is the longest input of the small stream,
// 1023 bytes (Arg 1024) the shortest of the full-size one.
BENCHMARK(BM_CompressKeptStream)->Arg(300)->Arg(1023)->Arg(1024)->Arg(2048);

BENCHMARK_MAIN();
