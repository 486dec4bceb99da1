#!/usr/bin/env python3
"""Shows that what looks after the pages notices what is wrong with them."""

import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

HERE = Path(__file__).resolve().parent
BUILD = os.environ.get("ARKWELL_BUILD", "")
sys.dont_write_bytecode = True
sys.path.insert(0, str(HERE.parents[1] / "docs" / "site"))

import pages  # noqa: E402
from sessions import Failure, Session, commands_of, console_steps, matches  # noqa: E402


def static_faults(text):
    """What is said of a page with this text."""
    with tempfile.TemporaryDirectory() as folder:
        page = Path(folder) / "page.md"
        page.write_text(text)
        run = subprocess.run([HERE / "check-blocks", "static", BUILD, page], capture_output=True, text=True, check=False)
    return run.stderr if run.returncode else ""


class BlocksAreReadTest(unittest.TestCase):
    def test_a_good_page_has_no_faults(self):
        self.assertEqual(static_faults("```cpp\nint main() {}\n```\n\n```json\n{}\n```\n"), "")

    def test_an_unknown_language_is_a_fault(self):
        self.assertIn("no rule handles blocks of the language perl", static_faults("```perl\n1;\n```\n"))

    def test_cpp_that_does_not_compile_is_a_fault_at_the_page_s_line(self):
        self.assertRegex(static_faults("# T\n\n```cpp\nint main() {\n    nobody();\n}\n```\n"), r"page\.md:5:.*nobody")

    def test_a_warning_is_a_fault(self):
        self.assertIn("unused", static_faults("```cpp\nint main() { int i; }\n```\n"))

    def test_a_fragment_is_compiled_in_its_prelude(self):
        self.assertEqual(static_faults("<!-- in: function -->\n```cpp\nchecker->checkAccess(object);\n```\n"), "")
        self.assertIn("checkAcces", static_faults("<!-- in: function -->\n```cpp\nchecker->checkAcces(object);\n```\n"))

    def test_malformed_json_is_a_fault(self):
        self.assertIn("no JSON", static_faults("```json\n{,}\n```\n"))

    def test_a_setting_of_the_wrong_type_is_a_fault(self):
        self.assertIn("the settings file is damaged", static_faults('```json\n"log": { "level": "8" }\n```\n'))

    def test_a_missing_line_of_a_dump_is_a_fault(self):
        self.assertIn("offset 0002 is missing", static_faults("```hex\n0000 00 00\n0003 00\n```\n"))

    def test_a_command_that_is_not_run_has_to_exist(self):
        self.assertIn("there is no preset dev", static_faults("```sh\nbuild/dev/bench/no-such-benchmark\n```\n"))

    def test_an_unknown_directive_is_a_fault(self):
        self.assertIn("unknown directives: inn", static_faults("<!-- inn: function -->\n```cpp\nint i;\n```\n"))

    def test_a_file_has_to_be_named_in_the_text(self):
        self.assertIn("does not name a.cpp", static_faults("<!-- file: a.cpp -->\n```cpp\nint main() {}\n```\n"))


class SessionTest(unittest.TestCase):
    def setUp(self):
        self.session = Session(os.environ)
        self.addCleanup(self.session.close)

    def test_blocks_share_one_shell(self):
        self.session.run("cd /; name=value")
        self.session.run('echo "$PWD $name"', "/ value\n")

    def test_another_output_is_a_failure(self):
        sessions = sys.modules["sessions"]
        sessions.LONGEST_OUTPUT_WAIT, before = 0.1, sessions.LONGEST_OUTPUT_WAIT
        self.addCleanup(setattr, sessions, "LONGEST_OUTPUT_WAIT", before)
        with self.assertRaises(Failure):
            self.session.run("echo one", "two\n")

    def test_a_failing_command_is_a_failure_wherever_it_stands(self):
        with self.assertRaises(Failure):
            self.session.run("false\ntrue")

    def test_an_exit_status_may_be_asked_for(self):
        self.session.run("exit_with() { return 3; }; exit_with", exits=3)
        with self.assertRaises(Failure):
            self.session.run("true", exits=3)

    def test_what_runs_in_the_background_may_print_later(self):
        self.session.run("(sleep 0.3; echo late) &", "late\n")

    def test_what_runs_in_the_background_ends_with_the_session(self):
        self.session.run("sleep 600 & echo $! >pid")
        pid = int((self.session.folder / "pid").read_text())
        self.session.close()
        self.assertFalse(Path(f"/proc/{pid}").exists())


class TextsTest(unittest.TestCase):
    def test_dots_stand_for_text_within_a_line_and_for_lines_on_their_own(self):
        self.assertTrue(matches("a ... c\n...\nend\n", "a b c\n1\n2\nend\n"))
        self.assertTrue(matches("a ... c\n...\nend\n", "a b c\nend\n"))
        self.assertFalse(matches("a ... c\nend\n", "a b c\n1\nend\n"))
        self.assertFalse(matches("a.c\n", "abc\n"))

    def test_nothing_is_expected_where_nothing_is_shown(self):
        self.assertTrue(matches("", ""))
        self.assertFalse(matches("", "something\n"))

    def test_a_console_block_is_cut_into_commands_and_outputs(self):
        self.assertEqual(console_steps("$ a\n1\n2\n$ b \\\n> c\n"), [["a", "1\n2\n"], ["b \\\nc", ""]])

    def test_a_command_may_go_on_over_lines(self):
        self.assertEqual(commands_of("a \\\n  b\ncat <<'E'\nx\nE\nc\n"),
                         ["a \\\n  b", "cat <<'E'\nx\nE", "c"])

    def test_directives_belong_to_the_block_directly_below(self):
        page = Path("page.md")
        found = pages.blocks(page, "<!-- in: a, run -->\n```cpp\n1\n```\n\n```\n2\n```\n\nText.\n\n```\n3\n```\n")
        self.assertEqual([(block.directives, block.follows, block.line) for block in found],
                         [({"in": "a", "run": ""}, False, 3), ({}, True, 7), ({}, False, 13)])

    def test_anchors_are_those_of_repository_browsers(self):
        text = "# What's `new`?\n## fork, exec, dlclose\n## Same\n## Same\n```\n# none\n```\n"
        self.assertEqual([anchor for *_, anchor in pages.headings(text)],
                         ["whats-new", "fork-exec-dlclose", "same", "same-1"])

    def test_what_is_code_is_no_link(self):
        self.assertEqual(list(pages.links("[a](b.md#c) and `[d](e.md)`\n")), [(1, "b.md#c")])


if __name__ == "__main__":
    unittest.main()
