#!/usr/bin/env python3
"""The mutation script's own logic: where it mutates, what each operator writes, and that a
seed always draws the same sample."""

import os
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True  # nothing written into the source tree
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "scripts"))
import mutation  # noqa: E402

SOURCE = r'''#include "Foo.h"
// if (a == b) return true; "comment"
/* x < y && 7 */
static std::map<int, int> const kTable{{1, 2}};
bool Foo::check(int a, int b) const
{
    if (a == b && a < 10) {
        return true;
    }
    log("Row \"%d\"\n", a);
    m_items.push_back(a);
    auto x =
        compute(a);
    return b >= 0x1F || c != '1';
}
'''


def mutated(operator, source=SOURCE):
    return [m.apply(source) for m in mutation.mutants_of("f.cpp", source, "1", [operator])]


def changed(operator, source=SOURCE):
    """The (old, new) text of every mutant of one operator."""
    return [(source[m.start : m.end], m.new) for m in
            mutation.mutants_of("f.cpp", source, "1", [operator])]


class Operators(unittest.TestCase):
    def test_only_code_is_mutated(self):
        # Comments, the include line, template brackets and hex or character literals stay.
        self.assertEqual(changed("comparison"), [("==", "!="), ("<", ">="), (">=", "<"), ("!=", "==")])
        self.assertEqual(changed("logic"), [("&&", "||"), ("||", "&&")])
        self.assertEqual(changed("bool"), [("true", "false")])
        self.assertEqual([old for old, _ in changed("integer")], ["1", "2", "10"])
        for old, new in changed("integer"):
            self.assertIn(int(new) - int(old), (1, -1))

    def test_zero_goes_up(self):
        self.assertEqual(changed("integer", "int x = 0;\n"), [("0", "1")])

    def test_string_changes_one_letter_case_never_an_escape(self):
        (text,) = mutated("string", 'f("a\\nb");\n')
        self.assertIn(text, ('f("A\\nb");\n', 'f("a\\nB");\n'))
        self.assertEqual(mutated("string", 'f("\\n");\n'), [])
        self.assertEqual(mutated("string", 'f(" ");\n'), ['f("_");\n'])
        lines = mutated("string")
        self.assertEqual(len(lines), 1)  # the include and the comment are not literals
        diff = [(a, b) for a, b in zip(SOURCE, lines[0]) if a != b]
        self.assertEqual(len(diff), 1)
        self.assertEqual(diff[0][0].swapcase(), diff[0][1])

    def test_call_statements_are_deleted_whole(self):
        texts = mutated("call")
        self.assertEqual(len(texts), 2)  # not the continued `compute(a);` nor the return
        self.assertEqual(texts[0], SOURCE.replace('    log("Row \\"%d\\"\\n", a);\n', ""))
        self.assertEqual(texts[1], SOURCE.replace("    m_items.push_back(a);\n", ""))

    def test_multiline_call_is_deleted_whole(self):
        source = "{\n    db.execute(format(\"x\",\n                      y));\n    next();\n}\n"
        self.assertEqual(mutated("call", source)[0], "{\n    next();\n}\n")


class Sampling(unittest.TestCase):
    def test_seed_draws_the_same_sample(self):
        with tempfile.TemporaryDirectory() as tree:
            for root in mutation.ROOTS:
                os.makedirs(os.path.join(tree, root))
                with open(os.path.join(tree, root, "Foo.cpp"), "w") as f:
                    f.write(SOURCE)
            first, total = mutation.sample(tree, "5", 6)
            again, _ = mutation.sample(tree, "5", 6)
            other, _ = mutation.sample(tree, "6", 6)
            self.assertEqual(first, again)
            self.assertNotEqual(first, other)
            self.assertEqual(len(first), 6)
            self.assertEqual(len(set(first)), 6)
            self.assertEqual(total, 2 * len(mutation.mutants_of("x", SOURCE, "5")))
            everything, _ = mutation.sample(tree, "5", 1000)
            self.assertEqual(len(everything), total)

    def test_diff_shows_the_change(self):
        (mutant,) = mutation.mutants_of("f.cpp", "bool x = true;\n", "1", ["bool"])
        self.assertEqual(mutant.diff("bool x = true;\n"),
                         "--- a/f.cpp\n+++ b/f.cpp\n@@ -1 +1 @@\n-bool x = true;\n+bool x = false;\n")


if __name__ == "__main__":
    unittest.main()
