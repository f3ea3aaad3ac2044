#ifndef PUSHCHAT_SEARCHTEXT_H
#define PUSHCHAT_SEARCHTEXT_H

// The words of a text as the store's full-text index holds them, and a
// search query in the same terms (internal header).
//
// Alphabetic text is left to the index's own tokenizer (Unicode words,
// case and diacritics folded). Chinese, Japanese and Korean text has no
// spaces between words, so each run of such characters is indexed as its
// overlapping pairs ("一二三" as "一二 二三"): a word of two characters or
// more is then found as the phrase of its pairs, wherever it stands in the
// run. A lone character cannot be found that way; query() hands it back so
// that the caller looks for it in the bodies instead.

#include <QString>
#include <QStringList>

namespace SearchText {

/// The text to index for `body`.
QString words(const QString &body);

/// The index query for what a user typed: every word must match, each CJK
/// run as the phrase of its pairs. Empty when there is nothing the index
/// can match; the lone CJK characters, which it cannot, go to `lone`.
QString query(const QString &typed, QStringList *lone);

} // namespace SearchText

#endif // PUSHCHAT_SEARCHTEXT_H
