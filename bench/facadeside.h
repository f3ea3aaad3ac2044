#ifndef PUSHCHAT_BENCH_FACADESIDE_H
#define PUSHCHAT_BENCH_FACADESIDE_H

// A façade's receiver for the benchmarks, counting connections and
// messages; and a sender that keeps a window of messages in flight.

#include "message_lib.h"
#include "mqttbench.h"

#include <atomic>
#include <functional>

class Side : public ImEventReciever {
public:
    std::atomic<int> connects{ 0 }, messages{ 0 };
    void onConnected() override { ++connects; }
    void onMessageReceive(QString, QString, QString, int, int, QString, QString, bool) override { ++messages; }
};

/// `from` sends `count` messages to bob, the i-th with body(i) and key(i)
/// ("k" without `key`), at most `window` ahead of `arrived`; true once
/// `arrived` reaches `count`.
inline bool sendWindowed(Message_lib &from, const std::atomic<int> &arrived, int count, int window,
    const std::function<QString(int)> &body, const std::function<QString(int)> &key = {})
{
    for (int i = 0; i < count; ++i) {
        benchmqtt::until([&] { return i - arrived < window; });
        from.sendTextMessageTo("", "bob", 5, body(i), BODY_TYPE_DEFAULT, false, key ? key(i) : QString("k"), "st");
    }
    return benchmqtt::until([&] { return arrived >= count; });
}

#endif // PUSHCHAT_BENCH_FACADESIDE_H
