#ifndef PUSHCHAT_CLI_JSONLINEWRITER_H
#define PUSHCHAT_CLI_JSONLINEWRITER_H

// Writes JSON objects as lines of compact JSON (Qt's writer, so keys come
// out in sorted order), one whole line at a time and flushed, from any
// number of threads.

#include <QJsonObject>

#include <cstdio>
#include <mutex>

class JsonLineWriter {
public:
    /// `out` is borrowed and must outlive the writer.
    explicit JsonLineWriter(std::FILE *out);
    JsonLineWriter(const JsonLineWriter &) = delete;
    JsonLineWriter &operator=(const JsonLineWriter &) = delete;

    /// Writes `object` and a newline, then flushes. Thread-safe.
    void write(const QJsonObject &object);

private:
    std::FILE *m_out;
    std::mutex m_mutex;
};

#endif // PUSHCHAT_CLI_JSONLINEWRITER_H
