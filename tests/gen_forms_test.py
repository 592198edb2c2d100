"""The form generator on small lists of its own: what each row becomes, what it refuses, the export list and
the check against checked-in files. Run from tests/ with scripts/ on PYTHONPATH."""

import io
import os
import re
import tempfile
import unittest
from contextlib import redirect_stderr, redirect_stdout

import gen_forms

KEYED = """\
header zel_fam_forms.h
source fam/fam_forms.cpp
include fam/internal.h
namespace zel::fam
keyref Key
keyform rd | Fam_{stem}{int}_rd{tail} | first: uint8_t key_nr | {1, key_nr, nullptr}
keyform pk | Fam_{stem}{int}_PK{tail} | first: const uint8_t *key | {0, 0, key}
keyform none | Fam_{stem}{int}_no_auth{tail} | first: | {0, 0, nullptr}
keyform akm | {stem}_AKM | last: uint8_t auth_mode | {2, auth_mode, nullptr}
keyset all = rd pk none
keyset back = akm
forms X XM Hnd
doc The first operation.
doc Second line.
ZEL_STATUS Read(uint32_t aid, uint8_t *data) | keys all | impl fam_read | int _iso | tail _2
ZEL_STATUS Write(const uint8_t *data) | keys back | impl fam_write
ZEL_STATUS Fam_Change(uint8_t nr) | key pk | impl fam_change
"""

PLAIN = """\
header zel_plain_forms.h
source plain/plain_forms.cpp
ZEL_STATUS Close(void)
const char *Describe(uint32_t what, char buf[16])
forms X Hnd
ZEL_STATUS Session(uint8_t unit)
forms X X_M Hnd
ZEL_STATUS Lock(uint8_t block)
forms X XM
ZEL_STATUS Validate(const char *folder) | call (folder, flags, flags + 1)
forms X
ZEL_STATUS Quick(char *out) | call (out, 1u, "")
"""

HAND = """\
/* ZEL_API in a comment declares nothing. */
#define ZEL_MACRO(x) \\
    ZEL_API int x(void);
ZEL_API ZEL_HANDLE Hand_Create(void);
ZEL_API ZEL_STATUS Hand_Long(ZEL_HANDLE hnd,
                             uint32_t n);
ZEL_API extern zel_handle_record hand_global;
ZEL_API extern const uint32_t hand_table[HAND_TABLE_LEN];
ZEL_API const char *Hand_Name(uint32_t code); // trailing comment
"""


def write_tree(root, lists, headers=None):
    os.makedirs(os.path.join(root, "api"), exist_ok=True)
    os.makedirs(os.path.join(root, "include"), exist_ok=True)
    for name, text in lists.items():
        with open(os.path.join(root, "api", name), "w") as f:
            f.write(text)
    for name, text in (headers or {}).items():
        with open(os.path.join(root, "include", name), "w") as f:
            f.write(text)


def one_list(text):
    with tempfile.TemporaryDirectory() as tmp:
        path = os.path.join(tmp, "x.forms")
        with open(path, "w") as f:
            f.write(text)
        return gen_forms.FormsList(path, "api/x.forms")


def declarations(header):
    """name -> declaration line of a generated header."""
    out = {}
    for line in header.splitlines():
        m = re.match(r"ZEL_API .*?\b(\w+)\((.*)\);$", line)
        if m:
            out[m.group(1)] = line
    return out


def bodies(source):
    """name -> body text of each extern "C" definition of a generated source."""
    out = {}
    for m in re.finditer(r'extern "C" ZEL_API [^\n]*?\b(\w+)\(([^\n]*)\)\n\{\n(.*?)\n\}', source, flags=re.S):
        out[m.group(1)] = (m.group(2), m.group(3))
    return out


class KeyFormRows(unittest.TestCase):
    def setUp(self):
        self.lst = one_list(KEYED)
        self.header = declarations(self.lst.render_header())
        self.source = bodies(self.lst.render_source())

    def test_a_key_set_row_makes_every_form_with_its_name_parts(self):
        for name in ("Fam_Read_iso_rd_2", "Fam_Read_iso_PK_2", "Fam_Read_iso_no_auth_2"):
            for form in (name, name + "M", name + "Hnd"):
                self.assertIn(form, self.header)
                self.assertIn(form, self.source)
        self.assertEqual(len(self.header), 3 * 3 + 3 + 3)

    def test_key_parameters_go_where_the_key_form_says(self):
        self.assertIn("Fam_Read_iso_rd_2(uint8_t key_nr, uint32_t aid, uint8_t *data);",
                      self.header["Fam_Read_iso_rd_2"])
        self.assertIn("Fam_Read_iso_PK_2M(ZEL_HANDLE hnd, const uint8_t *key, uint32_t aid, uint8_t *data);",
                      self.header["Fam_Read_iso_PK_2M"])
        self.assertIn("Fam_Read_iso_no_auth_2Hnd(ZEL_HANDLE hnd, uint32_t aid, uint8_t *data);",
                      self.header["Fam_Read_iso_no_auth_2Hnd"])
        self.assertIn("Write_AKM(const uint8_t *data, uint8_t auth_mode);", self.header["Write_AKM"])

    def test_the_wrappers_call_the_shared_implementation_with_the_key_reference(self):
        self.assertEqual(self.source["Fam_Read_iso_rd_2Hnd"][1].strip(),
                         "return zel::fam::fam_read(hnd, zel::fam::Key{1, key_nr, nullptr}, aid, data);")
        self.assertEqual(self.source["Fam_Read_iso_no_auth_2Hnd"][1].strip(),
                         "return zel::fam::fam_read(hnd, zel::fam::Key{0, 0, nullptr}, aid, data);")
        self.assertEqual(self.source["Write_AKMHnd"][1].strip(),
                         "return zel::fam::fam_write(hnd, zel::fam::Key{2, auth_mode, nullptr}, data);")
        self.assertIn("ZEL_STATUS fam_read(ZEL_HANDLE hnd, Key key, uint32_t aid, uint8_t *data);",
                      self.lst.render_source())

    def test_x_and_xm_forward_the_key_parameters_too(self):
        self.assertIn("return Fam_Read_iso_PK_2Hnd(&zel_global, key, aid, data);", self.source["Fam_Read_iso_PK_2"][1])
        self.assertIn("return Write_AKMHnd(hnd, data, auth_mode);", self.source["Write_AKMM"][1])
        self.assertIn('dp(0, "API begin: %s()", __func__);', self.source["Write_AKM"][1])

    def test_a_single_key_form_keeps_the_rows_own_name(self):
        self.assertIn("Fam_Change", self.header)
        self.assertNotIn("Fam_Fam_Change_PK", self.header)
        self.assertIn("zel::fam::Key{0, 0, key}, nr", self.source["Fam_ChangeHnd"][1])

    def test_doc_lines_make_one_comment_above_the_declarations(self):
        text = self.lst.render_header()
        self.assertIn("/* The first operation.\n * Second line. */\nZEL_API", text)
        self.assertTrue(text.startswith("/* generated by scripts/gen_forms.py from api/x.forms; do not edit */"))


class PlainRows(unittest.TestCase):
    def setUp(self):
        self.lst = one_list(PLAIN)
        self.header = declarations(self.lst.render_header())
        self.source = bodies(self.lst.render_source())

    def test_the_forms_directive_decides_which_names_exist(self):
        self.assertEqual(sorted(self.header), sorted([
            "Close", "CloseM", "CloseHnd", "Describe", "DescribeM", "DescribeHnd", "Session", "SessionHnd",
            "Lock", "Lock_M", "LockHnd", "Validate", "ValidateM", "Quick"]))
        # Only X and the handle forms are defined; XHnd is the family's own.
        self.assertEqual(sorted(self.source), sorted([
            "Close", "CloseM", "Describe", "DescribeM", "Session", "Lock", "Lock_M", "Validate", "ValidateM",
            "Quick"]))

    def test_declarations_keep_types_and_void(self):
        self.assertIn("ZEL_API ZEL_STATUS Close(void);", self.header["Close"])
        self.assertIn("ZEL_API ZEL_STATUS CloseM(ZEL_HANDLE hnd);", self.header["CloseM"])
        self.assertIn("ZEL_API const char *Describe(uint32_t what, char buf[16]);", self.header["Describe"])

    def test_call_replaces_the_arguments_the_handle_form_gets(self):
        self.assertIn("return ValidateHnd(&zel_global, folder, flags, flags + 1);", self.source["Validate"][1])
        self.assertIn("return ValidateHnd(hnd, folder, flags, flags + 1);", self.source["ValidateM"][1])
        self.assertIn('return QuickHnd(&zel_global, out, 1u, "");', self.source["Quick"][1])
        self.assertIn("return DescribeHnd(hnd, what, buf);", self.source["DescribeM"][1])
        self.assertIn("return CloseHnd(&zel_global);", self.source["Close"][1])


class Refusals(unittest.TestCase):
    def refused(self, text, pattern):
        with self.assertRaisesRegex(gen_forms.ListError, pattern):
            one_list(text)

    def test_malformed_lists_are_refused_with_the_line(self):
        head = "header h.h\nsource s/s.cpp\n"
        self.refused(head + "ZEL_STATUS A(uint8_t)\n", r"x.forms:3: parameter without a name")
        self.refused(head + "ZEL_STATUS A(uint8_t a) | colour red\n", r"x.forms:3: unknown option 'colour'")
        self.refused(head + "ZEL_STATUS A(uint8_t a) | keys all | impl f\n", "keyref and namespace")
        self.refused(head + "forms XM Hnd\n", "forms must name X")
        self.refused(head + "forms X XX\n", "forms must name X")
        self.refused(head + "A\n", "not an operation")
        self.refused(head + "ZEL_STATUS A(uint8_t a) | tail _2\n", "name parts belong to a key set row")
        self.refused(head + "ZEL_STATUS A(uint8_t a) | impl f\n", "names its implementation")
        self.refused(head + "ZEL_STATUS A(uint8_t a) | call a\n", "parenthesised")
        self.refused("source s/s.cpp\nZEL_STATUS A(void)\n", "needs a header and a source")

    def test_key_sets_and_forms_must_exist(self):
        keyed = KEYED.split("forms X XM Hnd")[0]
        self.refused(keyed + "ZEL_STATUS A(uint8_t a) | keys most | impl f\n", "unknown key set 'most'")
        self.refused(keyed + "ZEL_STATUS A(uint8_t a) | key sam | impl f\n", "unknown key form 'sam'")
        self.refused(keyed + "keyset some = rd sam\n", "unknown key form 'sam' in key set 'some'")
        self.refused(keyed + "keyform x | X{stem} | middle: uint8_t a | {a}\n", "'first:' or 'last:'")
        self.refused(keyed + "keyform x | X{stem} | first: uint8_t a | a\n", "braced initialiser")
        self.refused(keyed + "ZEL_STATUS A(uint8_t a) | keys all | key rd | impl f\n", "not both")

    def test_one_implementation_with_two_signatures_is_refused(self):
        keyed = KEYED.split("forms X XM Hnd")[0]
        lst = one_list(keyed + "ZEL_STATUS A(uint8_t a) | key rd | impl f\nZEL_STATUS B(uint16_t a) | key rd | impl f\n")
        with self.assertRaisesRegex(gen_forms.ListError, "implementation f is named with two signatures"):
            lst.render_source()


class HandDeclared(unittest.TestCase):
    def test_the_rule_finds_each_statement_that_starts_with_zel_api(self):
        self.assertEqual(gen_forms.hand_declared(HAND),
                         ["Hand_Create", "Hand_Long", "hand_global", "hand_table", "Hand_Name"])


class Tree(unittest.TestCase):
    def test_exports_are_every_generated_and_hand_declared_name_sorted(self):
        with tempfile.TemporaryDirectory() as root:
            write_tree(root, {"plain.forms": PLAIN}, {"zel_hand.h": HAND, "zel_plain_forms.h": "ZEL_API int Old(void);\n"})
            files = gen_forms.generate(root)
            names = files["docs/exports.txt"].split()
            self.assertEqual(names, sorted(names))
            self.assertIn("Lock_M", names)
            self.assertIn("hand_table", names)
            self.assertNotIn("LockM", names)
            # A generated header is never read as hand-written.
            self.assertNotIn("Old", names)
            self.assertEqual(len(names), 14 + 5)
            self.assertEqual(sorted(files), ["docs/exports.txt", "include/zel_plain_forms.h", "plain/plain_forms.cpp"])

    def test_a_name_from_two_places_is_refused(self):
        with tempfile.TemporaryDirectory() as root:
            write_tree(root, {"plain.forms": PLAIN}, {"zel_hand.h": "ZEL_API ZEL_STATUS LockHnd(ZEL_HANDLE hnd);\n"})
            with self.assertRaisesRegex(gen_forms.ListError, "LockHnd already comes from api/plain.forms"):
                gen_forms.generate(root)
        with tempfile.TemporaryDirectory() as root:
            other = PLAIN.replace("zel_plain_forms.h", "zel_other_forms.h").replace("plain/plain", "other/other")
            write_tree(root, {"a.forms": PLAIN, "b.forms": other})
            with self.assertRaisesRegex(gen_forms.ListError, "Close already comes from api/a.forms"):
                gen_forms.generate(root)

    def test_check_passes_on_a_current_tree_and_names_every_stale_or_missing_file(self):
        with tempfile.TemporaryDirectory() as root:
            write_tree(root, {"plain.forms": PLAIN}, {"zel_hand.h": HAND})
            self.assertEqual(gen_forms.main(["--root", root]), 0)
            out = io.StringIO()
            with redirect_stdout(out):
                self.assertEqual(gen_forms.main(["--root", root, "--check"]), 0)
            self.assertEqual(out.getvalue(), "")

            with open(os.path.join(root, "include", "zel_hand.h"), "a") as f:
                f.write("ZEL_API void Hand_New(void);\n")
            os.remove(os.path.join(root, "plain", "plain_forms.cpp"))
            out = io.StringIO()
            with redirect_stdout(out):
                self.assertEqual(gen_forms.main(["--root", root, "--check"]), 1)
            self.assertIn("out of date: docs/exports.txt", out.getvalue())
            self.assertIn("+Hand_New", out.getvalue())
            self.assertIn("missing: plain/plain_forms.cpp", out.getvalue())

    def test_a_broken_list_fails_with_status_2_and_says_where(self):
        with tempfile.TemporaryDirectory() as root:
            write_tree(root, {"bad.forms": "header h.h\nsource s/s.cpp\nZEL_STATUS A(int)\n"})
            err = io.StringIO()
            with redirect_stderr(err):
                self.assertEqual(gen_forms.main(["--root", root]), 2)
            self.assertIn("api/bad.forms:3: parameter without a name", err.getvalue())
            self.assertFalse(os.path.exists(os.path.join(root, "docs", "exports.txt")))


if __name__ == "__main__":
    unittest.main()
