#include "utf8view.h"

namespace {

// Copies `text` into `out` (room for text.size() bytes) when it is ASCII;
// false, with `out` partly written, when it is not.
bool copyAscii(const QString &text, char *out)
{
    const ushort *utf16 = text.utf16();
    for (int i = 0, n = text.size(); i < n; ++i) {
        if (utf16[i] >= 0x80)
            return false;
        out[i] = char(utf16[i]);
    }
    return true;
}

} // namespace

Utf8View::Utf8View(const QString &text)
{
    if (text.size() <= kInline && copyAscii(text, m_inline)) {
        m_view = std::string_view(m_inline, std::size_t(text.size()));
        return;
    }
    m_converted = text.toUtf8();
    m_view = std::string_view(m_converted.constData(), std::size_t(m_converted.size()));
}

void Utf8View::assign(const QString &text, std::string *out)
{
    out->resize(std::size_t(text.size()));
    if (copyAscii(text, out->data()))
        return;
    const QByteArray utf8 = text.toUtf8();
    out->assign(utf8.constData(), std::size_t(utf8.size()));
}
