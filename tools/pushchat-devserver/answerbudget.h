#ifndef PUSHCHAT_DEVSERVER_ANSWERBUDGET_H
#define PUSHCHAT_DEVSERVER_ANSWERBUDGET_H

// The size bound of one answer of the development server (history pages,
// friend pages, room lists), on the push channel and over HTTP alike: the
// items of its list are counted as their compact JSON, and the answer's
// other fields are given kReserveBytes.
//
// kMaxBytes is 2 MiB. On the push channel the answer is the body of an
// envelope, where escaping at most doubles it (a JSON text holds no control
// characters, and only '"' and '\' are escaped again): at most 4 MiB plus the
// envelope's other fields, inside InputLimits::ENVELOPE_BYTES (4.5 MiB), and
// a payload of at most 5.4 MiB in base 64, inside PAYLOAD_BYTES (6 MiB), so
// the library always takes it; a typical answer, with few quotes, makes a
// payload of about 2.8 MiB. A message body of up to about 2 MiB of plain
// text fits an answer of its own.

#include <QJsonObject>

class AnswerBudget {
public:
    /// Largest answer, in bytes of compact JSON.
    static constexpr qsizetype kMaxBytes = 2 * 1024 * 1024;
    /// Kept for the answer's fields outside its list.
    static constexpr qsizetype kReserveBytes = 16 * 1024;

    /// Whether `item` fits in what is left; when it does, it is counted.
    bool take(const QJsonObject &item);

private:
    qsizetype m_left = kMaxBytes - kReserveBytes;
};

#endif // PUSHCHAT_DEVSERVER_ANSWERBUDGET_H
