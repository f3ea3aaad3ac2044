#include "awaitedevent.h"
#include "eventflag.h"
#include "jsonevents.h"
#include "jsonlinewriter.h"

#include <QJsonDocument>

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

namespace {

// Events printed into a temporary file, read back line by line.
class PrintedEvents : public ::testing::Test {
protected:
    std::unique_ptr<std::FILE, int (*)(std::FILE *)> file{std::tmpfile(), &std::fclose};
    JsonLineWriter writer{file.get()};
    EventFlag connected;
    JsonEvents events{&writer, &connected};

    std::vector<QByteArray> lines()
    {
        std::fflush(file.get());
        std::rewind(file.get());
        std::vector<QByteArray> result;
        char buffer[65536];
        while (std::fgets(buffer, sizeof buffer, file.get()))
            result.emplace_back(buffer);
        return result;
    }

    // The single printed line, parsed; fails the test on anything else.
    QJsonObject onlyEvent()
    {
        const std::vector<QByteArray> printed = lines();
        EXPECT_EQ(printed.size(), 1u);
        if (printed.empty())
            return {};
        EXPECT_TRUE(printed[0].endsWith('\n'));
        QJsonParseError error{};
        const QJsonDocument document = QJsonDocument::fromJson(printed[0], &error);
        EXPECT_EQ(error.error, QJsonParseError::NoError) << printed[0].constData();
        return document.object();
    }
};

// Every argument under its name, with its JSON type (numbers, a boolean).
TEST_F(PrintedEvents, MessageCarriesEveryArgumentWithItsType)
{
    events.onMessageReceive("alice@im", "bob@im", "héllo \"you\"\n", 7, 4, "k-1", "2024-01-02 03:04:05", false);
    EXPECT_EQ(onlyEvent(), QJsonObject({{"event", "onMessageReceive"},
                                        {"from", "alice@im"},
                                        {"to", "bob@im"},
                                        {"body", QString::fromUtf8("héllo \"you\"\n")},
                                        {"bodyType", 7},
                                        {"msgType", 4},
                                        {"messageKey", "k-1"},
                                        {"stamp", "2024-01-02 03:04:05"},
                                        {"readable", false}}));
}

TEST_F(PrintedEvents, ConnectedRaisesTheFlag)
{
    EXPECT_FALSE(connected.clear());
    events.onConnected();
    EXPECT_EQ(onlyEvent(), QJsonObject({{"event", "onConnected"}}));
    EXPECT_TRUE(connected.clear());
    EXPECT_FALSE(connected.clear());
}

TEST(JsonEventsWithoutWriter, StillRaisesTheConnectedFlag)
{
    EventFlag connected;
    JsonEvents events(nullptr, &connected);
    events.onMessageReceive("a", "b", "c", 0, 1, "", "", true);
    events.onConnected();
    EXPECT_TRUE(connected.clear());
}

TEST_F(PrintedEvents, LibraryTextArgumentsMayBeNull)
{
    events.onRemoteDesktopControlRequest("alice@im", nullptr, "{\"x\":1}");
    EXPECT_EQ(onlyEvent(), QJsonObject({{"event", "onRemoteDesktopControlRequest"},
                                        {"from", "alice@im"},
                                        {"to", ""},
                                        {"body", "{\"x\":1}"}}));
}

TEST_F(PrintedEvents, RoomChangeCarriesTheRoomAndTheCommand)
{
    Room room;
    room.jid = "team@im";
    room.name = "Team";
    room.members["bob@im"] = new Member{"bob@im", "Bob", ""};
    events.onRoomChanged(room, GroupSub_Invite);
    EXPECT_EQ(onlyEvent(), QJsonObject({{"event", "onRoomChanged"}, {"cmd", 12}, {"room", room.toJson()}}));
}

// Callbacks come from several library threads at once: every line must
// come out whole.
TEST_F(PrintedEvents, ConcurrentEventsNeverInterleave)
{
    constexpr int kThreads = 8;
    constexpr int kEach = 5000;
    const QString body(20, QLatin1Char('x'));
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i)
                events.onMessageReceive(QString::number(t), "bob", body, 0, 1, QString::number(i), "", true);
        });
    }
    for (std::thread &thread : threads)
        thread.join();

    const std::vector<QByteArray> printed = lines();
    ASSERT_EQ(printed.size(), static_cast<size_t>(kThreads * kEach));
    std::vector<int> next(kThreads, 0);
    for (const QByteArray &line : printed) {
        const QJsonObject event = QJsonDocument::fromJson(line).object();
        ASSERT_EQ(event["body"].toString(), body) << line.left(80).constData();
        const int thread = event["from"].toString().toInt();
        // Each thread's events keep their order.
        EXPECT_EQ(event["messageKey"].toString().toInt(), next[thread]++);
    }
}

// A command waits for one answer: the first event with its name, whichever
// library thread delivers it, and nothing else.
TEST(AwaitedEventOffers, KeepsOnlyTheFirstMatchingEvent)
{
    AwaitedEvent answer(QStringLiteral("onConversations"));
    JsonEvents events(nullptr, nullptr, &answer);
    events.onHistoryMessages("not this one");
    EXPECT_FALSE(answer.arrived().clear());
    EXPECT_FALSE(answer.event().has_value());

    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] { events.onConversations(QByteArray::number(t).constData()); });
    for (std::thread &thread : threads)
        thread.join();
    events.onConversations("late");

    EXPECT_TRUE(answer.arrived().clear());
    EXPECT_FALSE(answer.arrived().clear()); // raised once
    const std::optional<QJsonObject> kept = answer.event();
    ASSERT_TRUE(kept.has_value());
    EXPECT_EQ((*kept)["event"].toString(), "onConversations");
    const int first = (*kept)["json"].toString().toInt();
    EXPECT_TRUE(first >= 0 && first < 8) << (*kept)["json"].toString().toStdString();
    EXPECT_EQ(kept->size(), 2);
}

// Offering to the awaited event does not stop the line being printed.
TEST_F(PrintedEvents, AwaitedEventsArePrintedToo)
{
    AwaitedEvent answer(QStringLiteral("onFriendList"));
    JsonEvents both(&writer, nullptr, &answer);
    both.onFriendList("[1]");
    EXPECT_EQ(onlyEvent(), answer.event().value_or(QJsonObject()));
}

} // namespace
