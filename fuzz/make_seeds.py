#!/usr/bin/env python3
"""Writes well-formed seed inputs for the fuzz targets into a directory.

Usage: make_seeds.py datablock_reader|resultlist_reader DIR
"""
import os
import struct
import sys


def block(items, start=0, total=None, groups=()):
    data = b"".join(items)
    aligned = (len(data) + 3) // 4 * 4
    group_offset = 28 + aligned
    length_offset = group_offset + 8 * len(groups)
    size = length_offset + 4 * len(items)
    end = start + len(items) - 1
    out = struct.pack("<7i", group_offset, length_offset, start, end,
                      total if total is not None else len(items), len(groups), size)
    out += data + b"\0" * (aligned - len(data))
    for a, b in groups:
        out += struct.pack("<2i", a, b)
    offset = 28
    for item in items:
        out += struct.pack("<i", offset)
        offset += len(item)
    return out


def result_list(entries, names, start=0, section=0, total=None, groups=((0, 1),)):
    name_offset = 36 + 8 * len(groups)
    item_offset = name_offset + 128 * len(names)
    size = item_offset + 8 * len(entries)
    out = struct.pack("<9i", name_offset, item_offset, start, start + len(entries) - 1, section,
                      total if total is not None else len(entries), len(groups), len(names), size)
    for a, b in groups:
        out += struct.pack("<2i", a, b)
    for name in names:
        out += name[:127].ljust(128, b"\0")
    for slot, index in entries:
        out += struct.pack("<2i", slot, index)
    return out


def main():
    target, directory = sys.argv[1], sys.argv[2]
    os.makedirs(directory, exist_ok=True)
    json_items = [b'{"FileName":"a%d","FileSize":%d}' % (i, i * 7) for i in range(6)]
    blocks = [
        block([b"ab", b"cde"], 10, 100, [(3, 7)]),
        block([b"abcd", b"efgh"]),
        block([b"xyz"], 4, 5),
        block(json_items, 0, 6, [(0, 3), (3, 3)]),
    ]
    seeds = {}
    if target == "datablock_reader":
        for i, b in enumerate(blocks):
            seeds["block%d" % i] = b
    elif target == "resultlist_reader":
        lists = [
            (result_list([(0, 0), (0, 1)], [b"@"]), blocks[0]),
            (result_list([(0, 3), (1, 0), (0, 5)], [b"@", b"mox_datablock_missing"], start=5, section=1,
                         total=20, groups=((5, 2), (7, 1))), blocks[3]),
            (result_list([(0, 0)], [b"@"], groups=()), blocks[2]),
        ]
        for i, (lst, blk) in enumerate(lists):
            seeds["list%d" % i] = struct.pack("<H", len(lst)) + lst + blk
    else:
        sys.exit("unknown target " + target)
    for name, data in seeds.items():
        with open(os.path.join(directory, "seed-" + name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    main()
