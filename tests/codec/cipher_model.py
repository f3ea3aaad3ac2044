#!/usr/bin/env python3
"""Independent model of the payload cipher's byte layout, and a check that
the library agrees with it in both directions.

Usage: cipher_model.py <path to ciphertool>

Cipher text: version 0x03, flags (0x01 compressed, 0x02 CRC-16 checksum,
0x04 SHA-1 digest), then the block X = random byte, integrity field,
payload, enciphered as E[p] = X[p] ^ K[p % 8] ^ E[p-1] with E[-1] = 0 and
K the key's bytes, least significant first. The compressed payload form is
a 4-byte big-endian length followed by a zlib stream at level 9 (four zero
bytes for no data). The text form is standard base 64.
"""

import base64
import hashlib
import random
import subprocess
import sys
import zlib

VERSION = 0x03
COMPRESSED, CHECKSUM, SHA1 = 0x01, 0x02, 0x04
OK, BAD_VERSION, INTEGRITY_FAILED = 0, 2, 3


def _crc16_x25_table():
    # CRC-16/X-25 (ISO 3309): polynomial 0x1021 reflected (0x8408),
    # initial value 0xFFFF, reflected in and out, final XOR 0xFFFF.
    table = []
    for byte in range(256):
        crc = byte
        for _ in range(8):
            crc = (crc >> 1) ^ 0x8408 if crc & 1 else crc >> 1
        table.append(crc)
    return table


_CRC_TABLE = _crc16_x25_table()


def crc16_x25(data):
    crc = 0xFFFF
    for byte in data:
        crc = (crc >> 8) ^ _CRC_TABLE[(crc ^ byte) & 0xFF]
    return crc ^ 0xFFFF


assert crc16_x25(b"123456789") == 0x906E, "CRC-16/X-25 check value"
assert crc16_x25(b"") == 0x0000


def key_bytes(key):
    return [(key >> (8 * i)) & 0xFF for i in range(8)]


def compress(data):
    if not data:
        return bytes(4)
    return len(data).to_bytes(4, "big") + zlib.compress(data, 9)


def uncompress(data):
    if len(data) < 4:
        raise ValueError("no length prefix")
    if len(data) == 4 and data == bytes(4):
        return b""
    return zlib.decompress(data[4:])


def encipher(plain, key, compression, integrity, random_byte):
    """Cipher text bytes for the policies (compression 0 when smaller,
    1 always, other never; integrity 1 checksum, 2 SHA-1, other none)."""
    flags = 0
    payload = plain
    if compression in (0, 1):
        packed = compress(plain)
        if compression == 1 or len(packed) < len(plain):
            payload, flags = packed, flags | COMPRESSED
    field = b""
    if integrity == 1:
        field, flags = crc16_x25(payload).to_bytes(2, "big"), flags | CHECKSUM
    elif integrity == 2:
        field, flags = hashlib.sha1(payload).digest(), flags | SHA1
    block = bytes([random_byte]) + field + payload
    k = key_bytes(key)
    out = bytearray([VERSION, flags])
    previous = 0
    for p, x in enumerate(block):
        previous = x ^ k[p % 8] ^ previous
        out.append(previous)
    return bytes(out)


def decipher(cypher, key):
    """(status, plaintext, random byte, flags); status None for a text too
    short to be read."""
    if len(cypher) < 3:
        return None, None, None, None
    if cypher[0] != VERSION:
        return BAD_VERSION, None, None, None
    flags = cypher[1]
    k = key_bytes(key)
    block = bytearray()
    previous = 0
    for p, e in enumerate(cypher[2:]):
        block.append(e ^ k[p % 8] ^ previous)
        previous = e
    random_byte, rest = block[0], bytes(block[1:])
    if flags & CHECKSUM:
        if len(rest) < 2 or int.from_bytes(rest[:2], "big") != crc16_x25(rest[2:]):
            return INTEGRITY_FAILED, None, random_byte, flags
        rest = rest[2:]
    elif flags & SHA1:
        if len(rest) < 20 or rest[:20] != hashlib.sha1(rest[20:]).digest():
            return INTEGRITY_FAILED, None, random_byte, flags
        rest = rest[20:]
    if flags & COMPRESSED:
        rest = uncompress(rest)
    return OK, rest, random_byte, flags


def plaintext(length, kind, seed):
    rng = random.Random(seed)
    if kind == "random":
        return bytes(rng.getrandbits(8) for _ in range(length))
    words = [b'{"b":"', b"hello ", b"room ", b'","f":"alice@im.example",', b'"s":9999}', b"\xe4\xbd\xa0"]
    text = bytearray()
    while len(text) < length:
        text += rng.choice(words)
    return bytes(text[:length])


class Tool:
    """Sends all requests to ciphertool in one go and returns its answers."""

    def __init__(self, path):
        self.path = path

    def keys(self):
        done = subprocess.run([self.path], input="keys\n", capture_output=True, text=True, check=True)
        return [int(value) for value in done.stdout.split()]

    def run(self, requests):
        done = subprocess.run([self.path], input="\n".join(requests) + "\n",
                              capture_output=True, text=True, check=True)
        answers = done.stdout.split("\n")[:-1]
        if len(answers) != len(requests):
            raise RuntimeError("ciphertool gave %d answers to %d requests" % (len(answers), len(requests)))
        return answers


def main():
    tool = Tool(sys.argv[1])
    keys = tool.keys()
    if len(keys) != 11:
        print("expected 11 keys, got %d" % len(keys))
        return 1
    keys.append(0)

    rng = random.Random(2024)
    lengths = [0, 1, 7, 8, 9, 300, 70000]
    cases = []  # (key, compression, integrity, plain, model cipher text)
    for key_index, key in enumerate(keys):
        kind = "text" if key_index % 2 == 0 else "random"
        for compression in (0, 1, 2):
            for integrity in (0, 1, 2):
                for length in lengths:
                    plain = plaintext(length, kind, key_index * 100000 + length)
                    model = encipher(plain, key, compression, integrity, rng.getrandbits(8))
                    cases.append((key, compression, integrity, plain, model))

    # Hand-built texts the library encoder never makes, with the answer due.
    k = keys[0]
    extra = []  # (cipher text, expected "ok <hex>" or "fail <status>")
    body = b"both integrity bits"
    both = bytearray(encipher(body, k, 2, 1, 0x42))
    both[1] = CHECKSUM | SHA1  # checksum is read, no digest is expected
    extra.append((bytes(both), "ok " + body.hex()))
    bare = encipher(b"no flags", k, 2, 0, 0x17)
    extra.append((bare, "ok " + b"no flags".hex()))
    damaged = bytearray(encipher(body, k, 2, 1, 0x42))
    damaged[-1] ^= 0x01
    extra.append((bytes(damaged), "fail %d" % INTEGRITY_FAILED))
    extra.append((b"\x04" + bare[1:], "fail %d" % BAD_VERSION))
    extra.append((encipher(b"", k, 2, 2, 0)[:20], "fail %d" % INTEGRITY_FAILED))

    requests = []
    for key, compression, integrity, plain, model in cases:
        requests.append("enc %d %d %d %s" % (key, compression, integrity, plain.hex()))
        requests.append("dec %d %s" % (key, base64.b64encode(model).decode("ascii")))
    for cypher, _ in extra:
        requests.append("dec %d %s" % (k, base64.b64encode(cypher).decode("ascii")))
    answers = tool.run(requests)

    failures = []
    for index, (key, compression, integrity, plain, model) in enumerate(cases):
        what = "key %#x compression %d integrity %d length %d" % (key, compression, integrity, len(plain))
        enc, dec = answers[2 * index], answers[2 * index + 1]

        # Library -> model: the model reads it, and re-enciphering with the
        # random byte it found gives the library's bytes exactly.
        if not enc.startswith("ok "):
            failures.append("%s: library did not encipher: %s" % (what, enc))
        else:
            text = enc[3:]
            library = base64.b64decode(text, validate=True)
            if base64.b64encode(library).decode("ascii") != text:
                failures.append("%s: library text is not canonical base 64" % what)
            status, back, random_byte, _ = decipher(library, key)
            if status != OK or back != plain:
                failures.append("%s: model cannot read the library's cipher text (status %s)" % (what, status))
            elif encipher(plain, key, compression, integrity, random_byte) != library:
                failures.append("%s: library bytes differ from the model's" % what)

        # Model -> library.
        if dec != "ok " + plain.hex():
            failures.append("%s: library read the model's cipher text as %r" % (what, dec[:60]))

    for number, ((cypher, expected), answer) in enumerate(zip(extra, answers[2 * len(cases):])):
        if answer != expected:
            failures.append("hand-built text %d: expected %r, library gave %r" % (number, expected, answer))

    for failure in failures[:40]:
        print(failure)
    print("%d cases, %d hand-built texts, %d failures" % (len(cases), len(extra), len(failures)))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
