#include "searchtext.h"

#include <QVector>

namespace {

bool isCjk(uint ucs4)
{
    switch (QChar::script(ucs4)) {
    case QChar::Script_Han:
    case QChar::Script_Hiragana:
    case QChar::Script_Katakana:
    case QChar::Script_Hangul:
    case QChar::Script_Bopomofo:
        return true;
    default:
        return false;
    }
}

// Splits `text` into pieces: runs of CJK characters (as code points) and
// the text between them.
template <typename Visit> void pieces(const QString &text, Visit visit)
{
    const QVector<uint> points = text.toUcs4();
    int i = 0;
    while (i < points.size()) {
        const bool cjk = isCjk(points[i]);
        int end = i;
        while (end < points.size() && isCjk(points[end]) == cjk)
            ++end;
        visit(cjk, points.mid(i, end - i));
        i = end;
    }
}

QString pairsOf(const QVector<uint> &run)
{
    QStringList pairs;
    for (int i = 0; i + 1 < run.size(); ++i)
        pairs << QString::fromUcs4(run.constData() + i, 2);
    return pairs.join(QLatin1Char(' '));
}

QString quoted(const QString &term)
{
    return QLatin1Char('"') + QString(term).replace(QLatin1Char('"'), QLatin1String("\"\"")) + QLatin1Char('"');
}

} // namespace

QString SearchText::words(const QString &body)
{
    QString out;
    pieces(body, [&](bool cjk, const QVector<uint> &run) {
        out += QLatin1Char(' ');
        out += cjk ? (run.size() == 1 ? QString::fromUcs4(run.constData(), 1) : pairsOf(run))
                   : QString::fromUcs4(run.constData(), run.size());
        out += QLatin1Char(' ');
    });
    return out;
}

QString SearchText::query(const QString &typed, QStringList *lone)
{
    QStringList terms;
    lone->clear();
    pieces(typed, [&](bool cjk, const QVector<uint> &run) {
        if (!cjk) {
            // Words as the tokenizer sees them: letters and digits.
            QString word;
            for (const uint c : run) {
                if (QChar::isLetterOrNumber(c)) {
                    word += QString::fromUcs4(&c, 1);
                } else if (!word.isEmpty()) {
                    terms << quoted(word);
                    word.clear();
                }
            }
            if (!word.isEmpty())
                terms << quoted(word);
        } else if (run.size() == 1) {
            lone->append(QString::fromUcs4(run.constData(), 1));
        } else {
            terms << quoted(pairsOf(run));
        }
    });
    return terms.join(QLatin1String(" AND "));
}
