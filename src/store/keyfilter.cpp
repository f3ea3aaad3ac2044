#include "keyfilter.h"

#include "utf8view.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr int kProbes = 7; // with 10 bits a key: about 1 % false passes
constexpr std::size_t kBitsPerKey = 10;

// A 64-bit finaliser (from splitmix64): every input bit moves every output bit.
std::uint64_t mix(std::uint64_t x)
{
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

// Eight bytes at a time; the length ends the field ("ab","c" is not "a","bc").
std::uint64_t absorb(std::uint64_t hash, std::string_view text)
{
    std::size_t at = 0;
    for (; at + 8 <= text.size(); at += 8) {
        std::uint64_t word = 0;
        std::memcpy(&word, text.data() + at, 8);
        hash = mix(hash ^ word);
    }
    std::uint64_t tail = 0;
    std::memcpy(&tail, text.data() + at, text.size() - at);
    return mix(mix(hash ^ tail) ^ text.size());
}

} // namespace

KeyFilter::KeyFilter(std::size_t expected) : m_bits(std::max<std::size_t>(expected * kBitsPerKey / 64, 1024))
{ }

std::uint64_t KeyFilter::digest(std::string_view conversation, std::string_view sender, std::string_view key)
{
    return absorb(absorb(absorb(0x9e3779b97f4a7c15ULL, conversation), sender), key);
}

std::uint64_t KeyFilter::digest(const QString &conversation, const QString &sender, const QString &key)
{
    const Utf8View c(conversation), s(sender), k(key);
    return digest(c.view(), s.view(), k.view());
}

std::uint64_t KeyFilter::digest(std::string_view key)
{
    return absorb(0x9e3779b97f4a7c15ULL, key);
}

// Double hashing: probe i is h1 + i * h2, h2 odd so that the probes differ.
void KeyFilter::add(std::uint64_t digest)
{
    const std::uint64_t n = m_bits.size() * 64, h2 = mix(digest) | 1;
    for (int i = 0; i < kProbes; ++i) {
        const std::uint64_t bit = (digest + std::uint64_t(i) * h2) % n;
        m_bits[bit / 64] |= std::uint64_t(1) << (bit % 64);
    }
}

bool KeyFilter::mayContain(std::uint64_t digest) const
{
    const std::uint64_t n = m_bits.size() * 64, h2 = mix(digest) | 1;
    for (int i = 0; i < kProbes; ++i) {
        const std::uint64_t bit = (digest + std::uint64_t(i) * h2) % n;
        if ((m_bits[bit / 64] & (std::uint64_t(1) << (bit % 64))) == 0)
            return false;
    }
    return true;
}
