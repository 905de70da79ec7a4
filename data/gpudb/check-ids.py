#!/usr/bin/env python3
"""Check the graphics-card database in this directory.

Reads every *.cfg file here the way the library does (comment from the first ';',
tokens split at runs of comma, space and tab, records have six or more tokens) and
reports:

  * records whose vendor/device pair is not listed in pci.ids,
  * vendor/device pairs that appear more than once (in one file or across files),
  * values outside the scales described in README.md.

Usage: check-ids.py [--pci-ids PATH] [DIR]
PATH defaults to /usr/share/misc/pci.ids (Debian package "pci.ids"); DIR defaults to
the directory of this script. Exits 0 when everything checks out, 1 on any problem,
2 when pci.ids cannot be read.
"""

import argparse
import glob
import os
import re
import sys

WIDTHS = {1280, 1600, 1920, 2560, 3840}
FORMS = {"D", "M", "I", "V"}


def load_pci_ids(path):
    """Return {vendor: (vendor name, {device: device name})} with lower-case hex keys."""
    vendors = {}
    current = None
    with open(path, encoding="utf-8", errors="replace") as f:
        for line in f:
            line = line.rstrip("\n")
            if not line or line.startswith("#"):
                continue
            if line.startswith("C "):  # device classes follow the vendor list
                break
            m = re.match(r"^([0-9a-f]{4})  (.*)$", line)
            if m:
                current = vendors.setdefault(m.group(1), (m.group(2), {}))
                continue
            m = re.match(r"^\t([0-9a-f]{4})  (.*)$", line)
            if m and current is not None:
                current[1][m.group(1)] = m.group(2)
    return vendors


def parse_hex(token):
    """Value of a hex id token as the library reads it: optional sign and 0x prefix,
    digits up to the first non-digit, 0 without digits, truncated to 32 bits."""
    m = re.match(r"[+-]?(?:0[xX](?=[0-9a-fA-F]))?([0-9a-fA-F]*)", token.strip())
    value = int(m.group(1), 16) if m.group(1) else 0
    if token.strip().startswith("-"):
        value = -value
    return value & 0xFFFFFFFF


def records(path):
    """Yield (line number, tokens, comment, ends in CR) for each record line of a .cfg file."""
    with open(path, "rb") as f:
        data = f.read()
    for number, raw in enumerate(data.split(b"\n"), 1):
        text = raw.decode("latin-1")
        body, _, comment = text.partition(";")
        tokens = [t for t in re.split(r"[, \t]+", body) if t]
        if len(tokens) >= 6:
            yield number, tokens, comment.strip(), raw.endswith(b"\r")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--pci-ids", default="/usr/share/misc/pci.ids")
    parser.add_argument("dir", nargs="?", default=os.path.dirname(os.path.abspath(__file__)))
    args = parser.parse_args()

    try:
        pci = load_pci_ids(args.pci_ids)
    except OSError as e:
        print(f"cannot read {args.pci_ids}: {e.strerror} (install Debian's pci.ids package)")
        return 2
    seen = {}
    problems = []
    total = 0
    for path in sorted(glob.glob(os.path.join(args.dir, "*.cfg"))):
        name = os.path.basename(path)
        count = 0
        for number, tok, comment, has_cr in records(path):
            count += 1
            where = f"{name}:{number}"
            vendor, device = tok[0].lower(), tok[1].lower()
            if not re.fullmatch(r"[0-9a-f]{4}", vendor) or not re.fullmatch(r"[0-9a-f]{4}", device):
                problems.append(f"{where}: ids must be four hex digits: {tok[0]} {tok[1]}")
            elif vendor not in pci:
                problems.append(f"{where}: vendor {vendor} not in pci.ids ({comment})")
            elif device not in pci[vendor][1]:
                problems.append(f"{where}: device {vendor}:{device} not in pci.ids ({comment})")
            key = (parse_hex(tok[0]), parse_hex(tok[1]))
            if key in seen:
                problems.append(f"{where}: duplicate of {seen[key]} for {key[0]:04x}:{key[1]:04x}")
            else:
                seen[key] = where
            try:
                quality, width, bench = int(tok[2]), int(tok[3]), int(tok[4])
            except ValueError:
                problems.append(f"{where}: quality, width and benchmark must be integers")
                continue
            if not -1 <= quality <= 4:
                problems.append(f"{where}: quality {quality} outside -1..4")
            if width not in WIDTHS:
                problems.append(f"{where}: width {width} not one of {sorted(WIDTHS)}")
            if bench < 0:
                problems.append(f"{where}: negative benchmark")
            if tok[5] not in FORMS:
                problems.append(f"{where}: form {tok[5]!r} not one of {sorted(FORMS)}")
            if tok[5] == "V" and (bench != 0 or quality != -1):
                problems.append(f"{where}: virtual adapters need quality -1 and benchmark 0")
            if has_cr:
                problems.append(f"{where}: carriage return at the end of the line (use LF)")
            if len(tok) != 6:
                problems.append(f"{where}: {len(tok)} tokens, expected 6")
        print(f"{name}: {count} records")
        total += count

    for p in problems:
        print(p)
    print(f"{total} records, {len(seen)} distinct vendor/device pairs, {len(problems)} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
