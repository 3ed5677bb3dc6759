#!/usr/bin/env python3
"""Writes src/idcard/data/gbk_tables.inc, the GBK <-> UCS-2 code-point tables
of the identity-card subsystem.

The pairs come from the C library's iconv(3) (GB18030 to UTF-32BE, called
through ctypes; Python's own codecs are not used), one call per code: the
128 codes 0x00-0x7F map to themselves, then every two-byte code 0x8140-0xFEFE
(lead 0x81-0xFE, trail 0x40-0x7E and 0x80-0xFE). The pairs of
src/idcard/data/gb18030_2005_overrides.txt then replace what iconv gives.
The script stops when a code does not convert to exactly one BMP code point
or when two codes share a Unicode value.

The generated file is committed; the build does not run this script.

    python3 scripts/gen_gbk_table.py           # rewrite the table
    python3 scripts/gen_gbk_table.py --check   # compare with the committed one
    python3 scripts/gen_gbk_table.py --report  # also list every override
"""
import ctypes
import ctypes.util
import platform
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
DATA = ROOT / "src" / "idcard" / "data"
OVERRIDES = DATA / "gb18030_2005_overrides.txt"
OUTPUT = DATA / "gbk_tables.inc"
PAIR_COUNT = 24068


class Iconv:
    """One iconv(3) descriptor of the C library."""

    def __init__(self, to_code, from_code):
        self.libc = ctypes.CDLL(ctypes.util.find_library("c"), use_errno=True)
        self.libc.iconv_open.restype = ctypes.c_void_p
        self.libc.iconv_open.argtypes = [ctypes.c_char_p, ctypes.c_char_p]
        self.libc.iconv.restype = ctypes.c_size_t
        self.libc.iconv.argtypes = [ctypes.c_void_p, ctypes.POINTER(ctypes.c_char_p),
                                    ctypes.POINTER(ctypes.c_size_t), ctypes.POINTER(ctypes.c_char_p),
                                    ctypes.POINTER(ctypes.c_size_t)]
        self.libc.iconv_close.argtypes = [ctypes.c_void_p]
        self.cd = self.libc.iconv_open(to_code.encode(), from_code.encode())
        if self.cd in (None, ctypes.c_void_p(-1).value, 2 ** 64 - 1):
            sys.exit(f"iconv_open({to_code}, {from_code}) failed")

    def convert(self, data):
        """The converted bytes, or None when iconv refuses the input."""
        self.libc.iconv(self.cd, None, None, None, None)
        src = ctypes.create_string_buffer(data, len(data))
        dst = ctypes.create_string_buffer(64)
        in_ptr = ctypes.c_char_p(ctypes.addressof(src))
        out_ptr = ctypes.c_char_p(ctypes.addressof(dst))
        in_left = ctypes.c_size_t(len(data))
        out_left = ctypes.c_size_t(len(dst))
        rc = self.libc.iconv(self.cd, ctypes.byref(in_ptr), ctypes.byref(in_left), ctypes.byref(out_ptr),
                             ctypes.byref(out_left))
        if rc == ctypes.c_size_t(-1).value or in_left.value != 0:
            return None
        return dst.raw[:len(dst) - out_left.value]


def two_byte_codes():
    for lead in range(0x81, 0xFF):
        for trail in list(range(0x40, 0x7F)) + list(range(0x80, 0xFF)):
            yield (lead << 8) | trail


def read_overrides(path=OVERRIDES):
    pairs = {}
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        line = line.split("#", 1)[0].strip()
        if not line:
            continue
        fields = line.split()
        if len(fields) != 2:
            sys.exit(f"{path.name}:{number}: expected 'GBK UNICODE'")
        gbk, uni = int(fields[0], 16), int(fields[1], 16)
        if gbk in pairs:
            sys.exit(f"{path.name}:{number}: {gbk:04X} given twice")
        pairs[gbk] = uni
    return pairs


def iconv_pairs():
    """{code: [code points]} from iconv for every code of the table."""
    conv = Iconv("UTF-32BE", "GB18030")
    result = {}
    for code in range(0x80):
        out = conv.convert(bytes([code]))
        result[code] = None if out is None else [int.from_bytes(out[i:i + 4], "big") for i in range(0, len(out), 4)]
    for code in two_byte_codes():
        out = conv.convert(bytes([code >> 8, code & 0xFF]))
        result[code] = None if out is None else [int.from_bytes(out[i:i + 4], "big") for i in range(0, len(out), 4)]
    return result


def build_pairs(report=False):
    from_iconv = iconv_pairs()
    overrides = read_overrides()
    unknown = sorted(set(overrides) - set(from_iconv))
    if unknown:
        sys.exit("overrides of codes outside the table: " + " ".join(f"{c:04X}" for c in unknown))
    pairs = {}
    changed = 0
    for code, points in from_iconv.items():
        if code in overrides:
            uni = overrides[code]
            got = "refused" if points is None else " ".join(f"U+{p:04X}" for p in points)
            if points != [uni]:
                changed += 1
            if report:
                print(f"{code:04X}: iconv {got}, table U+{uni:04X}")
        else:
            if points is None or len(points) != 1:
                sys.exit(f"iconv gives no single code point for {code:04X}: {points}")
            uni = points[0]
        if code < 0x80 and uni != code:
            sys.exit(f"{code:02X} does not map to itself")
        if not 0 <= uni <= 0xFFFE:
            sys.exit(f"{code:04X} maps to U+{uni:04X}, outside the BMP: add an override")
        pairs[code] = uni
    if len(pairs) != PAIR_COUNT:
        sys.exit(f"{len(pairs)} pairs, expected {PAIR_COUNT}")
    seen = {}
    for code, uni in pairs.items():
        if uni in seen:
            sys.exit(f"{seen[uni]:04X} and {code:04X} both map to U+{uni:04X}")
        seen[uni] = code
    print(f"{len(pairs)} pairs; {changed} of the {len(overrides)} overrides differ from iconv", file=sys.stderr)
    return pairs


def array(name, values):
    lines = [f"const int32_t {name}[kPairCount] = {{"]
    for i in range(0, len(values), 12):
        lines.append("    " + " ".join(f"0x{v:04X}," for v in values[i:i + 12]))
    lines.append("};")
    return "\n".join(lines)


def render(pairs):
    by_gbk = sorted(pairs.items())
    by_uni = sorted(pairs.items(), key=lambda p: p[1])
    libc = " ".join(platform.libc_ver()).strip() or "the C library"
    return "\n".join([
        "// Generated by scripts/gen_gbk_table.py: do not edit. GBK <-> UCS-2 pairs",
        f"// from iconv(3) of {libc} (GB18030), with the pairs of",
        "// data/gb18030_2005_overrides.txt in place of iconv's.",
        "//",
        "// gb/uni: the pairs sorted by Unicode value; gbsort/unisortbygb: sorted by",
        "// GBK code.",
        array("gb", [g for g, _ in by_uni]),
        array("uni", [u for _, u in by_uni]),
        array("gbsort", [g for g, _ in by_gbk]),
        array("unisortbygb", [u for _, u in by_gbk]),
        "",
    ])


def main():
    check = "--check" in sys.argv[1:]
    text = render(build_pairs(report="--report" in sys.argv[1:]))
    if check:
        if OUTPUT.read_text() != text:
            sys.exit(f"{OUTPUT.relative_to(ROOT)} differs from what iconv and the overrides give")
        print(f"{OUTPUT.relative_to(ROOT)} is up to date")
        return
    OUTPUT.write_text(text)
    print(f"wrote {OUTPUT.relative_to(ROOT)}")


if __name__ == "__main__":
    main()
