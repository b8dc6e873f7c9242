#!/usr/bin/env python3
"""Writes seed inputs for the fuzz targets into a directory: well-formed
objects, and crafted ones (bad headers, truncations, item offsets and list
entries outside the object) that readers must refuse without reading out of
bounds. ctest replays every seed under the sanitizers.

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


def patched(data, offset, value):
    return data[:offset] + struct.pack("<i", value) + data[offset + 4:]


# A two-item block ("ab", "cd") with one group, and offsets into its header.
GOOD_BLOCK = struct.pack("<12i", 32, 40, 0, 1, 2, 1, 48, 0, 0, 2, 28, 30)
GOOD_BLOCK = GOOD_BLOCK[:28] + b"abcd" + GOOD_BLOCK[32:]
CRAFTED_BLOCKS = {
    "size-below-header": (24, 20), "size-beyond-object": (24, 52), "negative-size": (24, -1),
    "group-offset-in-header": (0, 20), "negative-groups": (20, -1), "huge-groups": (20, 0x7fffffff),
    "length-offset-not-after-groups": (4, 44), "length-offset-before-groups": (4, 0),
    "end-before-start": (12, -5), "items-past-end": (12, 5), "huge-range": (8, -0x7fffffff),
    "group-offset-past-end": (0, 0x7ffffff0), "item-offset-outside": (40, 1000),
    "item-offset-negative": (40, -4), "item-overlaps-header": (40, 27), "item-past-size": (44, 33),
}

# A list of three entries over two name slots (slot 0 names the seed's
# block), and offsets into its header and entry table.
def good_list(slot1=b"y"):
    return result_list([(0, 0), (1, 0), (0, 1)], [b"@", slot1], total=3)


CRAFTED_LISTS = {
    "size-below-header": (32, 35), "size-beyond-object": (32, 400), "negative-groups": (24, -1),
    "groups-overlap-names": (24, 2), "negative-blocks": (28, -2), "huge-blocks": (28, 0x7fffffff),
    "names-before-groups": (0, 40), "items-overlap-names": (4, 200), "items-past-end": (12, 3),
    "end-before-start": (12, -2), "huge-range": (8, -0x7fffffff), "item-offset-negative": (4, -8),
    "entry-slot-past-table": (300, 2), "entry-slot-negative": (308, -1), "entry-slot-huge": (316, 0x7fffffff),
    "entry-item-past-block": (304, 9),
}


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
        for name, (offset, value) in CRAFTED_BLOCKS.items():
            seeds["crafted-" + name] = patched(GOOD_BLOCK, offset, value)
        for keep in (0, 10, 27, 40, 47):
            seeds["truncated-%d" % keep] = GOOD_BLOCK[:keep]
    elif target == "resultlist_reader":
        lists = [
            (result_list([(0, 0), (0, 1)], [b"@"]), blocks[0]),
            (result_list([(0, 3), (1, 0), (0, 5)], [b"@", b"mox_datablock_missing"], start=5, section=1,
                         total=20, groups=((5, 2), (7, 1))), blocks[3]),
            (result_list([(0, 0)], [b"@"], groups=()), blocks[2]),
        ]
        for name, (offset, value) in CRAFTED_LISTS.items():
            lists.append((patched(good_list(), offset, value), GOOD_BLOCK))
        lists.append((good_list(b"z" * 128), GOOD_BLOCK))  # a name slot without NUL
        for keep in (0, 20, 35, 200, 323):
            lists.append((good_list()[:keep], GOOD_BLOCK))
        for i, (lst, blk) in enumerate(lists):
            seeds["list%d" % i] = struct.pack("<H", len(lst)) + lst + blk
    else:
        sys.exit("unknown target " + target)
    for name, data in seeds.items():
        with open(os.path.join(directory, "seed-" + name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    main()
