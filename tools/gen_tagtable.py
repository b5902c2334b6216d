#!/usr/bin/env python3
"""Generates common/base/tagtable.cpp, the compiled-in DICOM tag dictionary.

Usage: tools/gen_tagtable.py [--dict PATH] [--out PATH]

The source is the DICOM data dictionary that python3-pydicom ships
(pydicom/_dicom_dict.py). It is read as text, never imported, so the
generator needs no pydicom installation beyond that one file.

What the table holds:
  * every attribute of the groups in GROUPS, with a non-empty name;
  * of the repeating groups (50xx, 60xx) only groups 5000 and 6000;
  * element 0000 of every group in GROUPS as "Group-Length", UL;
  * descriptions are the dictionary's names; a retired attribute's name ends
    in " RETIRED" (a "(Retired)" already in the name is replaced by it);
  * the entries in FIXED, exactly as given there (they win over the source);
  * ordered by tag, except that (7FE0,0010) Pixel Data is the last entry.

Value representations missing from TagMapper::eDCMType map through
VR_FALLBACK below; any VR in neither table stops the generator.

The same file also gets Kelvane::internal::kTagKeywords (see
common/base/internal/tagkeywords.h): every entry of the dictionary, in its
order, with keyword, VM and retired flag, then the repeating-group entries
as (value, mask) pairs in their order.
"""

import argparse
import ast
import os
import re
import sys

DEFAULT_DICT = "/usr/lib/python3/dist-packages/pydicom/_dicom_dict.py"
DEFAULT_OUT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..",
                           "common", "base", "tagtable.cpp")

# TagMapper::eDCMType, in enumeration order.
DCM_TYPES = ["UN", "AE", "AS", "CS", "DA", "DS", "DT", "IS", "LO", "LT",
             "PN", "SH", "ST", "TM", "UT", "UI", "SS", "US", "AT", "SL",
             "UL", "FL", "FD", "OB", "OW", "SQ"]
TYPE_OF = {vr: i for i, vr in enumerate(DCM_TYPES)}

# VRs the enumeration lacks, and the listed type each one becomes.
#
#   VR              type  why
#   OF, OD, OL, OV  OW    bulk binary values read as a whole, like OW; a
#                         scalar type (FL, FD, UL) would suggest one number
#   SV              SL    signed integer, the widest signed one listed
#   UV              UL    unsigned integer, the widest unsigned one listed
#   UC              LO    multi-valued character string, LO is the longest
#                         multi-valued string type
#   UR              UT    single-valued unlimited text with trailing blanks
#   OB or OW        OW    as Pixel Data and Overlay Data are listed
#   US or SS        US    first alternative
#   US or OW        US    first alternative
#   US or SS or OW  US    first alternative
VR_FALLBACK = {
    "OF": "OW", "OD": "OW", "OL": "OW", "OV": "OW",
    "SV": "SL", "UV": "UL",
    "UC": "LO", "UR": "UT",
    "OB or OW": "OW",
    "US or SS": "US", "US or OW": "US", "US or SS or OW": "US",
}

GROUPS = [0x0002, 0x0004, 0x0007, 0x0008, 0x0010, 0x0018, 0x0020, 0x0028,
          0x0032, 0x0038, 0x0040, 0x0050, 0x0054, 0x0060, 0x0070, 0x0073,
          0x0088, 0x2000, 0x2010, 0x2020, 0x2030, 0x2040, 0x2050, 0x2100,
          0x2110, 0x2120, 0x2130, 0x3002, 0x3004, 0x3006, 0x3008, 0x300A,
          0x300C, 0x300E, 0x4008, 0x5000, 0x6000, 0x7FE0]

# Repeating groups: mask prefix of the dictionary key -> the one group kept.
REPEATERS = {"50xx": 0x5000, "60xx": 0x6000}

GROUP_LENGTH = ("Group-Length", "UL")

# Entries fixed by the library's users, wording and type exactly as here.
FIXED = {
    0x00020001: ("File-Meta Information Version", "OB"),
    0x00020010: ("Transfer Syntax UID", "UI"),
    0x00020016: ("Source Application Entiry Title", "AE"),
    0x00100010: ("Patient's Name", "PN"),
    0x00101010: ("Patient's Age", "AS"),
    0x00082200: ("Transducer Position RETIRED", "CS"),
    0x0040A196: ("Observation DateTime", "DT"),
    0x60003000: ("Overlay Data", "OW"),
    0x7FE00010: ("Pixel Data", "OW"),
}
LAST_TAG = 0x7FE00010

ENTRY_RE = re.compile(r"^\s*(0x[0-9A-Fa-f]{8}|'[0-9A-Fa-fx]{8}')\s*:\s*(\(.*\))\s*,")
# The same, also taking the last entry of each dictionary (no comma).
KEYWORD_RE = re.compile(r"^\s*(0x[0-9A-Fa-f]{8}|'[0-9A-Fa-fx]{8}')\s*:\s*(\(.*\))\s*,?\s*(#.*)?$")


def describe(name, retired):
    """The table's description of a dictionary name."""
    if retired:
        if name.endswith(" (Retired)"):
            name = name[: -len(" (Retired)")]
        return name + " RETIRED"
    return name


def type_of(vr):
    vr = VR_FALLBACK.get(vr, vr)
    if vr not in TYPE_OF:
        sys.exit("gen_tagtable: no type for VR %r" % vr)
    return TYPE_OF[vr]


def read_dictionary(path):
    """Yields (tag, vr, name, retired) for the groups kept."""
    groups = set(GROUPS)
    with open(path, encoding="utf-8") as f:
        for line in f:
            m = ENTRY_RE.match(line)
            if not m:
                continue
            key = m.group(1)
            vr, _vm, name, retired, _keyword = ast.literal_eval(m.group(2))
            if key.startswith("0x"):
                tag = int(key, 16)
            else:
                key = key.strip("'")
                group = REPEATERS.get(key[:4])
                if group is None or "x" in key[4:]:
                    continue
                tag = group << 16 | int(key[4:], 16)
            if tag >> 16 not in groups or not name:
                continue
            yield tag, vr, name, retired == "Retired"


def read_keywords(path):
    """Yields (tag, mask, keyword, vm, retired) for every entry."""
    exact, repeating = [], []
    with open(path, encoding="utf-8") as f:
        for line in f:
            m = KEYWORD_RE.match(line)
            if not m:
                continue
            key = m.group(1)
            _vr, vm, _name, retired, keyword = ast.literal_eval(m.group(2))
            if not re.fullmatch(r"[A-Za-z0-9]*", keyword) or \
                    not re.fullmatch(r"[0-9n-]+", vm):
                sys.exit("gen_tagtable: odd keyword or VM in %s" % line)
            retired = "retired" in retired.lower()
            if key.startswith("0x"):
                exact.append((int(key, 16), 0xFFFFFFFF, keyword, vm, retired))
            else:
                key = key.strip("'")
                value = int(key.replace("x", "0"), 16)
                mask = int("".join("0" if c == "x" else "F" for c in key), 16)
                repeating.append((value, mask, keyword, vm, retired))
    return exact + repeating


def build(path):
    table = {}
    for tag, vr, name, retired in read_dictionary(path):
        if tag in table:
            sys.exit("gen_tagtable: tag %08X twice in %s" % (tag, path))
        table[tag] = (describe(name, retired), type_of(vr))
    for group in GROUPS:
        table[group << 16] = (GROUP_LENGTH[0], TYPE_OF[GROUP_LENGTH[1]])
    for tag, (desc, vr) in FIXED.items():
        table[tag] = (desc, TYPE_OF[vr])
    order = sorted(t for t in table if t != LAST_TAG) + [LAST_TAG]
    return [(t,) + table[t] for t in order]


def check(entries):
    tags = [e[0] for e in entries]
    assert len(tags) == len(set(tags)), "a tag twice"
    got = {t: (d, ty) for t, d, ty in entries}
    for tag, (desc, vr) in FIXED.items():
        assert got[tag] == (desc, TYPE_OF[vr]), "fixed entry %08X" % tag
    for group in GROUPS:
        assert got[group << 16] == (GROUP_LENGTH[0], TYPE_OF["UL"])
    assert all(t >> 16 in GROUPS for t in tags), "tag outside the groups"
    ages = [t for t, _d, ty in entries if ty == TYPE_OF["AS"]]
    assert ages == [0x00101010], "AS must be Patient's Age only: %s" % ages
    assert tags[-1] == LAST_TAG
    for _t, d, _ty in entries:
        assert d and all(32 <= ord(c) < 127 and c not in '"\\' for c in d), d


def write_keywords(keywords):
    lines = [
        "",
        "const Kelvane::internal::TagKeyword Kelvane::internal::kTagKeywords[] = {",
    ]
    lines += ['  {0x%08Xu, 0x%08Xu, "%s", "%s", %s},'
              % (t, m, k, vm, "true" if r else "false")
              for t, m, k, vm, r in keywords]
    lines += ["};",
              "const unsigned Kelvane::internal::kTagKeywordCount = %d;" % len(keywords),
              ""]
    return lines


def write(entries, source, out, keywords):
    lines = [
        "// Generated by tools/gen_tagtable.py from %s;" % os.path.basename(source),
        "// do not edit: run the generator again (see README.md).",
        "// clang-format off",
        '#include "common/base/tagmapper.h"',
        '#include "common/base/internal/tagkeywords.h"',
        "",
        "const char* const TagMapper::m_GETable[] = {",
    ]
    lines += ['  "%X", "%s", "%d",' % e for e in entries]
    lines += ["0,0,0};"]
    lines += write_keywords(keywords)
    with open(out, "w", encoding="ascii", newline="\n") as f:
        f.write("\n".join(lines))


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--dict", default=DEFAULT_DICT)
    ap.add_argument("--out", default=DEFAULT_OUT)
    args = ap.parse_args()
    entries = build(args.dict)
    check(entries)
    keywords = read_keywords(args.dict)
    write(entries, args.dict, args.out, keywords)
    print("gen_tagtable: %d entries, %d keywords -> %s"
          % (len(entries), len(keywords), os.path.normpath(args.out)))


if __name__ == "__main__":
    main()
