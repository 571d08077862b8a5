#!/usr/bin/env python3
"""Writes inputs for a fuzz target to begin with: descriptions and segments as the format has them, and
ones in which a single field says something else; messages in pieces, texts of each length, and in
many character sets.

    Tests/Fuzz/Seeds/make_seeds.py TARGET FOLDER

The first byte of an input says what to begin with, then come changes; see the targets. A target that
needs no seeds gets none.
"""

import pathlib
import struct
import sys

NONE = 2**64 - 1


def share_description():
    """Descriptions of a block (20 bytes) and of a packet with 16 bytes of extra data (100 bytes)."""
    block = {"magic": 0, "type": 4, "pool": 8, "offset": 12, "total": 16}
    packet = {"head": 0, "len": 4, "data": 72, "extra": 76, "text": 80, "tail": 96}
    packet |= {name: 8 + at for name, at in block.items()}
    near = {"type": [1, 2], "total": [3000, 4095, 4096, 4097], "len": [79, 80, 84, 95, 96, 97, 100],
            "data": [1999, 2001, 4096, 4097], "extra": [15, 17, 20]}
    near["offset"] = [at * 1024 for at in range(0, 257, 8)] + [at * 1024 + 64 for at in range(250, 256)]
    anything = [0, 1, 2**31 - 1, 2**31, 2**32 - 84, 2**32 - 4, 2**32 - 1]
    for kind, fields in ((1, block), (2, block), (3, packet), (4, packet)):
        yield bytes([kind])
        for name, at in fields.items():
            for value in near.get(name, []) + anything:
                changes = zip(range(at, at + 4), struct.pack("<I", value))
                yield bytes([kind]) + bytes(byte for change in changes for byte in change)
    described = struct.pack("<4s4I", b"TSMB", 0, 256 << 10, 0, 1024)
    whole = struct.pack("<4sI64s2I16s4s", b"SPHD", 96, described, 1000, 16, b"-" * 16, b"SPTL")
    for text in (described, whole):
        for length in range(len(text) + 1):
            yield bytes([0]) + text[:length]


def fresh_control(page_size, page_num):
    """A control segment of a pool with a power of two of pages, all free."""
    orders = page_num.bit_length()
    pages_at = 40 + 16 * orders
    empty = struct.pack("<2Q", NONE, NONE)

    def zone(contents):
        return struct.pack("<2I", len(contents) + 8, 0x12345678) + contents

    info = struct.pack("<6I2Q", page_size * page_num, page_size, orders, page_num,
                       page_size.bit_length() - 1, 0, 40, pages_at)
    heads = empty * (orders - 1) + struct.pack("<2Q", NONE, pages_at + 8)
    pages = struct.pack("<Ii2Q48x", 0, orders, pages_at + 8, pages_at + 8)
    for index in range(1, page_num):
        pages += struct.pack("<Ii", index, 0) + empty + bytes(48)
    return zone(bytes(120)) + zone(empty) + zone(empty) + zone(info + heads + pages)


def share_segment():
    """Fresh pools as raw bytes, and changes of the target's four pools at work."""
    for page_size in (64, 256, 1024, 2048, 4096):
        raw = fresh_control(page_size, 4096 // page_size)
        yield bytes([0]) + raw
        yield bytes([0]) + raw[:-8]
    for kind, page_size, page_num, orders in ((4, 1024, 16, 5), (1, 64, 61, 6), (2, 256, 30, 3),
                                              (3, 4096, 9, 4)):
        yield bytes([kind])
        pages_at = 184 + 40 + 16 * orders
        end = pages_at + (72 + page_size) * page_num
        words = [0, 4, 128, 132, 152, 156, 176, 180] + list(range(184, 224, 4))
        links = [144, 168] + list(range(232, pages_at, 16))
        for page in range(max(0, page_num - 10), page_num):  # blocks are taken from above
            at = pages_at + 72 * page
            words += [at + 4, at + 56, at + 60, at + 64]  # mark; blocks, mask and offset
            links += [at + 16, at + 24, at + 32, at + 48]  # in each of the lists; the hint
        for page in range(1, 4):
            for block in range(1, min(page_size // 64, 4) + 1):
                at = end - page_size * (page - 1) - 64 * block  # small objects, so too
                links += range(at, at + 48, 8)
        changes = [(at, struct.pack("<I", value)) for at in words for value in (0, 1, 33, 2**32 - 1)]
        changes += [(at, struct.pack("<Q", value)) for at in links for value in (0, 64, NONE)]
        for at, values in changes:
            yield bytes([kind]) + b"".join(
                struct.pack("<HB", at + i, value) for i, value in enumerate(values))


def aes_splits():
    """Each mode, key length and processor: 49 bytes in front, then pieces of one to thirty bytes or
    blocks, past an overflow of the counter's low half."""
    for kind in range(45):
        head = bytes([kind]) + bytes(range(32)) + bytes(8) + b"\xff" * 8
        yield head
        yield head + bytes(i * 7 % 30 for i in range(600))


def base64_text():
    """Each number of characters around the steps of the vectors, and each way to end."""
    alphabet = b"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"
    for length in [*range(0, 70), 95, 96, 97, 4095, 4096, 4097, 4127, 4128, 4200]:
        text = (alphabet * 66)[:length]
        yield text
        for end in (b"=", b"==", b"\n", b"\x00", b"-", b"\xff"):
            yield text + end + b"more"


def character_sets():
    """Texts of each kind, long enough for every width of vector, some with something wrong in them."""
    french = "Dès l'aube, à l'heure où blanchit la campagne, je partirai. "
    chinese = "床前明月光，疑是地上霜。"
    texts = [french.encode(), french.encode("cp1252"), chinese.encode(), chinese.encode("gbk"),
             (french + chinese).encode("utf-16-le"), "Привет, мир".encode("cp1251"),
             "a\U0001F600\U00020000z".encode(), b"\xC0\x80\xE0\x9F\xBF\xED\xA0\x80\xFE\xFF",
             b"\xF8\x88\x80\x80\x80\xFC\x84\x80\x80\x80\x80", bytes(range(1, 256))]
    for number, text in enumerate(texts):
        for times, room in ((1, 10), (8, 300), (8, 2000)):
            yield bytes([number]) + struct.pack("<H", room) + text * times
            yield bytes([number]) + struct.pack("<H", room) + text * times + b"\0" + texts[0]


def main():
    target, folder = sys.argv[1], pathlib.Path(sys.argv[2])
    makers = {"ShareDescription": share_description, "ShareSegment": share_segment,
              "AesSplits": aes_splits, "Base64Text": base64_text,
              "CharacterSets": character_sets}
    folder.mkdir(parents=True, exist_ok=True)
    for number, seed in enumerate(makers.get(target, list)()):
        (folder / f"seed-{number:04}").write_bytes(seed)


if __name__ == "__main__":
    main()
