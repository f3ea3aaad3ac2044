// Per-message cost of the wire protocol: topic parse, the receive path
// (topic + payload parse, decipher, dispatch) and the send path (command
// topic, envelope, encipher) for a chat message of about 300 bytes; and the
// envelope's JSON read directly and through Qt's parser.

#include "envelopereader.h"
#include "mqttmessage.h"

#include <benchmark/benchmark.h>

#include <string>

namespace {

class CountingCallback : public MQTTProtocolMatchCallback {
public:
    virtual ~CountingCallback() = default;
    long calls = 0;
#define PUSHCHAT_COUNT(name)                                                                                           \
    void name(MQTTMessage *m) override                                                                                 \
    {                                                                                                                  \
        calls += long(m->body.size() > 0);                                                                             \
    }
    // clang-format off
    PUSHCHAT_COUNT(SysGroupCreated) PUSHCHAT_COUNT(SysGroupReleased) PUSHCHAT_COUNT(SysGroupInvited)
    PUSHCHAT_COUNT(SysGroupKicked) PUSHCHAT_COUNT(SysGroupNameChanged) PUSHCHAT_COUNT(SysGroupExited)
    PUSHCHAT_COUNT(SysGroupQueryed) PUSHCHAT_COUNT(SysGroupJoined) PUSHCHAT_COUNT(SysGroupRefreshed)
    PUSHCHAT_COUNT(SysGroupSetCreater) PUSHCHAT_COUNT(SysGroupModifyType) PUSHCHAT_COUNT(messageReceive)
    PUSHCHAT_COUNT(messagePresenceIn) PUSHCHAT_COUNT(messageModifyStatus)
    PUSHCHAT_COUNT(messageModifyClientStatus) PUSHCHAT_COUNT(FriendAdded) PUSHCHAT_COUNT(FriendAccepted)
    PUSHCHAT_COUNT(FriendDeleted) PUSHCHAT_COUNT(FriendListRequest) PUSHCHAT_COUNT(FriendListIncoming)
    PUSHCHAT_COUNT(setFriendPropoties) PUSHCHAT_COUNT(RemoteDesktopControlRequest)
    PUSHCHAT_COUNT(RemoteDesktopControlResponse) PUSHCHAT_COUNT(RemoteDesktopBeControlRequest)
    PUSHCHAT_COUNT(RemoteDesktopBeControlResponse) PUSHCHAT_COUNT(historyMessageResponse)
    PUSHCHAT_COUNT(historyMessageConvResonse) PUSHCHAT_COUNT(historyMessageConvDetailResonse)
    // clang-format on
#undef PUSHCHAT_COUNT
};

const QString kFrom = QStringLiteral("alice@im.example.org");
const QString kTo = QStringLiteral("bob@im.example.org");

// A chat body that makes the whole JSON envelope 300 bytes.
QString chatBody()
{
    return QString::fromUtf8(
        "Hello Bob, the build is green again; the numbers from last night's run are "
        "in the shared folder. Let me know when you have looked at them. 周一见!");
}

void sendMessage(MQTTMessage &out)
{
    out.setSysProtocol("bob@im.example.org", 2, MESSAGE_INFO, MESSAGE_NORMAL);
    out.fromText(kFrom, kTo, chatBody(), MediaInfo::MESSAGE_TYPE_CHAT, 5, BODY_TYPE_DEFAULT,
        QStringLiteral("6f1c2a9e-0d4b-4c55-9a77-2a4f0c1e8b13"), QStringLiteral("1795400000000"));
}

void BM_TopicParse(benchmark::State &state)
{
    for (auto _ : state) {
        MqttMesaageProtocol p;
        benchmark::DoNotOptimize(p.fromTopic("m/i/bob@im.example.org/n"));
    }
}
BENCHMARK(BM_TopicParse);

void BM_TopicParseGroupInfo(benchmark::State &state)
{
    for (auto _ : state) {
        MqttMesaageProtocol p;
        benchmark::DoNotOptimize(p.fromTopic("s/g/i/bob@im.example.org/r/c"));
    }
}
BENCHMARK(BM_TopicParseGroupInfo);

void BM_SendPath(benchmark::State &state)
{
    std::size_t bytes = 0;
    for (auto _ : state) {
        MQTTMessage out(nullptr, true);
        sendMessage(out);
        bytes = out.payload.size();
        benchmark::DoNotOptimize(out.payload.data());
    }
    state.counters["payload_bytes"] = double(bytes);
}
BENCHMARK(BM_SendPath);

void BM_ReceivePath(benchmark::State &state)
{
    MQTTMessage recorded(nullptr, true);
    sendMessage(recorded);
    MQTTMessage plain(nullptr, false);
    sendMessage(plain);
    CountingCallback cb;
    for (auto _ : state) {
        MQTTMessage in(nullptr, true);
        if (in.fromTopic(recorded.topicText.c_str(), recorded.payload.c_str()))
            in.startMatchSys(&cb);
    }
    if (cb.calls != long(state.iterations()))
        state.SkipWithError("a message was not dispatched");
    state.counters["json_bytes"] = double(plain.payload.size() - 1);
}
BENCHMARK(BM_ReceivePath);

// The envelope JSON of the chat message above (299 bytes), read into fields.
void BM_EnvelopeRead(benchmark::State &state, bool direct)
{
    MQTTMessage plain(nullptr, false);
    sendMessage(plain);
    const QByteArray json = QByteArray::fromStdString(plain.payload.substr(1));
    EnvelopeReader::Fields fields;
    for (auto _ : state) {
        const bool ok = direct ? EnvelopeReader::readCompact(json.constData(), std::size_t(json.size()), fields)
                               : EnvelopeReader::readDocument(json, fields);
        if (!ok || fields.body.empty()) {
            state.SkipWithError("envelope not read");
            break;
        }
    }
}
BENCHMARK_CAPTURE(BM_EnvelopeRead, direct, true);
BENCHMARK_CAPTURE(BM_EnvelopeRead, qt_parser, false);

} // namespace

BENCHMARK_MAIN();
