// keyList as generated from keytable_valid.txt: every accepted spelling of
// a key (hex in either case, decimal up to 2^64-1, leading zeros, comments,
// CRLF line ends) reaches the table with the value written.

#include "vantrelcrypt.h"

#include <gtest/gtest.h>

TEST(KeyTableFile, EveryEntryHasTheWrittenValue)
{
    const unsigned long long expected[keyListLength] = {
        0x0123456789ABCDEFULL,
        0xFEDCBA9876543210ULL,
        0xFFFFFFFFFFFFFFFFULL, // 18446744073709551615
        0,
        0,
        10, // "010" is decimal, not octal
        0xFF,
        42,
        0x8000000000000000ULL, // 9223372036854775808
        1,
        0xFFFFFFFFFFFFFFFFULL,
    };
    for (int i = 0; i < keyListLength; ++i)
        EXPECT_EQ(keyList[i], expected[i]) << "entry " << i;
}
