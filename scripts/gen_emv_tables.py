#!/usr/bin/env python3
"""Writes emv/iso_tables.cpp, the country and currency tables of the payment card reader, from Debian's
iso-codes data (package iso-codes: /usr/share/iso-codes/json). The output is checked in; run this again only
to follow a newer iso-codes release. Rows are sorted by numeric code; each table ends with its closing row."""

import json
import os
import sys

SRC = "/usr/share/iso-codes/json"


def c_text(s):
    return '"' + s.replace("\\", "\\\\").replace('"', '\\"') + '"'


def main():
    root = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
    countries = json.load(open(os.path.join(SRC, "iso_3166-1.json"), encoding="utf-8"))["3166-1"]
    currencies = json.load(open(os.path.join(SRC, "iso_4217.json"), encoding="utf-8"))["4217"]
    countries.sort(key=lambda c: int(c["numeric"]))
    currencies.sort(key=lambda c: int(c["numeric"]))
    out = []
    out.append("// Country and currency tables by numeric code; written by scripts/gen_emv_tables.py from Debian's")
    out.append("// iso-codes data. Do not edit: run the script again.")
    out.append('#include "zel_emv.h"')
    out.append("")
    out.append("extern \"C\" {")
    out.append("")
    out.append("const emv_country_t emv_countries[] = {")
    for c in countries:
        out.append("    {%d, %s, %s, %s}," % (int(c["numeric"]), c_text(c["alpha_2"]), c_text(c["alpha_3"]), c_text(c["name"])))
    out.append('    {0, "--", "---", "Unknown country"},')
    out.append("};")
    out.append("const uint32_t emv_country_count = %d;" % len(countries))
    out.append("")
    out.append("const emv_currency_t emv_currencies[] = {")
    for c in currencies:
        out.append("    {%d, %s, %s}," % (int(c["numeric"]), c_text(c["alpha_3"]), c_text(c["name"])))
    out.append('    {0, "---", "Unknown currency"},')
    out.append("};")
    out.append("const uint32_t emv_currency_count = %d;" % len(currencies))
    out.append("")
    out.append("} // extern \"C\"")
    with open(os.path.join(root, "emv", "iso_tables.cpp"), "w", encoding="utf-8") as f:
        f.write("\n".join(out) + "\n")
    print("countries %d, currencies %d" % (len(countries), len(currencies)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
