#ifndef EVENTLOG_H
#define EVENTLOG_H

// What a recording receiver heard, as text lines, from any thread.
//
// Each callback of a receiver under test becomes one line made with
// fields() ("onPresence|alice@im.test|APP_STARTUP"); a test then compares
// whole lines or waits for them. All calls are thread-safe.
//
//   EventLog log;
//   log.add(fields("onConnected"));
//   ASSERT_TRUE(log.waitForPrefix("onConnected"));
//   EXPECT_EQ(log.lines(), (Lines{ "onConnected" }));

#include <QByteArray>
#include <QString>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

using Lines = std::vector<std::string>;

namespace eventlog_detail {
inline std::string text(const std::string &s)
{
    return s;
}
inline std::string text(const char *s)
{
    return s ? s : "(null)";
}
inline std::string text(const QString &s)
{
    return s.toStdString();
}
inline std::string text(const QByteArray &s)
{
    return s.toStdString();
}
template <class T, class = std::enable_if_t<std::is_arithmetic<T>::value || std::is_enum<T>::value>>
std::string text(T v)
{
    return std::to_string(static_cast<long long>(v));
}
} // namespace eventlog_detail

/// The parts joined with '|': strings as they are, numbers and enumerations
/// in decimal, bools as 0/1.
template <class First, class... Rest> std::string fields(const First &first, const Rest &...rest)
{
    std::string line = eventlog_detail::text(first);
    ((line += '|', line += eventlog_detail::text(rest)), ...);
    return line;
}

/// The whole text of the file at `path` ("" if it cannot be read).
inline std::string fileText(const std::string &path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

constexpr std::chrono::milliseconds kWaitLimit{ 15000 };

/// Polls `condition` every 10 ms until it holds or `timeout` passes.
template <class Condition> bool eventually(Condition condition, std::chrono::milliseconds timeout = kWaitLimit)
{
    const auto limit = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= limit)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

class EventLog {
public:
    void add(std::string line)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_lines.push_back(std::move(line));
        }
        m_changed.notify_all();
    }
    Lines lines() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }
    /// The lines that start with `prefix`, in order.
    Lines starting(const std::string &prefix) const { return starting(lines(), prefix); }
    /// Waits until `predicate(lines)` holds.
    template <class Predicate> bool waitFor(Predicate predicate, std::chrono::milliseconds timeout = kWaitLimit) const
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, timeout, [&] { return predicate(m_lines); });
    }
    /// Waits until `n` lines start with `prefix`.
    bool waitForPrefix(
        const std::string &prefix, std::size_t n = 1, std::chrono::milliseconds timeout = kWaitLimit) const
    {
        return waitFor([&](const Lines &l) { return starting(l, prefix).size() >= n; }, timeout);
    }

private:
    static Lines starting(const Lines &all, const std::string &prefix)
    {
        Lines out;
        for (const std::string &l : all)
            if (l.compare(0, prefix.size(), prefix) == 0)
                out.push_back(l);
        return out;
    }

    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    Lines m_lines;
};

#endif // EVENTLOG_H
