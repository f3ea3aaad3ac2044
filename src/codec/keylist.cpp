// Development key table: eleven arbitrary fixed values, for development and
// testing only. A deployment supplies its own table through the CMake cache
// variable PUSHCHAT_KEY_TABLE, which replaces this file in the build; every
// party that exchanges enciphered payloads must hold the same eleven keys.
#include "vantrelcrypt.h"

const unsigned long long keyList[keyListLength] = {
    0x09F813D7CD8279DAULL, // A
    0x63B872BF97912584ULL, // B
    0x12E5DAA961D5264DULL, // C
    0x8882F438B9E90C1CULL, // D
    0x54598246ABC3FE10ULL, // E
    0x75D2013D426EABFEULL, // F
    0x533F5AEAA8B34897ULL, // G
    0xA6663777BA7E97CAULL, // H
    0xA7147BBE2B1C516CULL, // I
    0xE7B56C2141C6B829ULL, // J
    0x12C578FF7FFD7EB1ULL, // K
};
