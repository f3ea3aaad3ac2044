#ifndef PUSHCHAT_PATTERNMATCHER_H
#define PUSHCHAT_PATTERNMATCHER_H

// Matching of grammar patterns against topics (internal header).
//
// A grammar pattern must match its subject starting at the first character,
// with the semantics of a QRegExp (RegExp syntax, case-sensitive, greedy
// quantifiers). The grammar's patterns have one simple shape: literal text,
// then capture groups "([\s\S]*)" or "([\s\S]*@[\s\S]*)" separated by
// literal text. Patterns of that shape are matched directly on the bytes,
// with the captures a greedy backtracking match gives; plain-text patterns
// (the sub-command letters) match when the subject starts with them. Any
// other pattern falls back to a QRegExp compiled once per thread.
//
// The grammar's own patterns are compiled once, on first use, into a table
// that is read-only afterwards and shared by every thread. Other patterns
// (tables a caller brings to parseTopic) are compiled on first use into a
// per-thread cache keyed by the pattern's address. Matching takes no lock.

#include <QRegExp>

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

/// Capture groups 1..n of a match, as views into the subject (or into
/// `storage` when a QRegExp produced them).
struct PatternCaptures {
    std::vector<std::string_view> groups;
    std::vector<std::string> storage;
};

class PatternMatcher {
public:
    /// Whether `pattern` matches `subject` at offset 0; fills `captures`.
    static bool matchAtStart(const char *pattern, std::string_view subject, PatternCaptures &captures);

private:
    struct Group {
        bool needsAt;          ///< "([\s\S]*@[\s\S]*)": the capture holds an "@"
        std::string separator; ///< literal text after the group (empty for the last)
    };
    struct Compiled {
        std::string text;          ///< the pattern, to detect a reused address
        std::string prefix;        ///< literal text before the first group
        bool shaped = false;       ///< matched directly (prefix + groups)
        std::vector<Group> groups; ///< when shaped
        QRegExp fallback;          ///< when not shaped: "^(?:pattern)"
    };

    static const Compiled *grammarPattern(const char *pattern);
    static PatternMatcher &forThisThread();
    Compiled &compiled(const char *pattern);
    static Compiled compile(const char *pattern);
    static bool matchShaped(const Compiled &c, std::string_view subject, PatternCaptures &captures);
    static bool matchGroups(const std::vector<Group> &groups, std::string_view text, std::size_t pos, std::size_t index,
        std::vector<std::string_view> &out);

    std::unordered_map<const char *, Compiled> m_cache;
};

#endif // PUSHCHAT_PATTERNMATCHER_H
