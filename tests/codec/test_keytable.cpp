// keyList as generated from keytable_valid.txt: every accepted spelling of
// a key (hex in either case, decimal up to 2^64-1, leading zeros, comments,
// CRLF line ends) reaches the table with the value written.

#include "vantrelcrypt.h"

#include <gtest/gtest.h>

TEST(KeyTableFile, EveryEntryHasTheWrittenValue)
{
    const unsigned long long expected[keyListLength] = { 0x0123456789ABCDEFULL, 0xFEDCBA9876543210ULL, ~0ULL, 0, 0, 10,
        0xFF, 42, 1ULL << 63, 1, ~0ULL };
    for (int i = 0; i < keyListLength; ++i)
        EXPECT_EQ(keyList[i], expected[i]) << "entry " << i;
}
