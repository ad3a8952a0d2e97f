"""Asks GDB, by way of its extension, about the heap that known_heap.c builds: all that it must answer stands here."""

import argparse
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import textwrap
import unittest

SKIPPED = 77
HERE = pathlib.Path(__file__).parent

options = None  # the command line


class Debugger:
    """A GDB that waits for commands until it is closed, with which its process ends."""

    def __init__(self, *arguments, extension=True):
        questions_out, questions = os.pipe()
        answers, answers_in = os.pipe()
        environment = dict(os.environ, OXPLIV_QUESTIONS=str(questions_out), OXPLIV_ANSWERS=str(answers_in))
        environment.pop("DEBUGINFOD_URLS", None)
        load = ["-ex", "source %s" % options.extension] if extension else []
        self.process = subprocess.Popen(
            ["gdb", "-nx", "-batch", *arguments, *load, "-x", HERE / "ask.py"], stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=environment, pass_fds=(questions_out, answers_in))
        os.close(questions_out)
        os.close(answers_in)
        self.questions = os.fdopen(questions, "w")
        self.answers = os.fdopen(answers)

    def ask(self, command):
        print(json.dumps(command), file=self.questions, flush=True)
        return json.loads(self.answers.readline())

    def close(self):
        self.questions.close()
        self.answers.close()
        self.process.wait()

    def run_to(self, function):
        self.ask("tbreak %s" % function)
        said = self.ask("run")
        if re.search("[Nn]ot permitted|[Cc]ould not trace|ptrace", said):
            raise unittest.SkipTest("this system does not let GDB start processes: %s" % said)
        where = self.ask("info symbol $pc")
        if function not in where:
            raise AssertionError("%s was not reached: %s%s" % (function, said, where))


class DebuggerTest(unittest.TestCase):
    """A debugger for all the cases of a class."""

    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(tempfile.mkdtemp(dir="."))
        cls.addClassCleanup(shutil.rmtree, cls.folder)

    @classmethod
    def start(cls, *arguments, **loading):
        debugger = Debugger(*arguments, **loading)
        cls.addClassCleanup(debugger.close)
        return debugger

    def check(self, command, expected):
        self.assertEqual(self.debugger.ask(command), textwrap.dedent(expected).lstrip("\n"))

    def check_value(self, expression, expected):
        """What print says behind the "$1 = "."""
        said = self.debugger.ask("print %s" % expression)
        self.assertEqual(re.sub(r"^\$\d+ = ", "", said), expected + "\n")


FIXED_ADDRESS_RECORDS = "_ZN6oxpliv32VMEM_FixedAddressPageInfoManager33_vmem_fixed_address_pageinfo_baseE"


def virtual_page(space, page):
    return "$oxpliv_space(%d)._page_manager._pageinfo_manager._pageinfo_base[%d]" % (space, page)


class KnownHeap:
    """The questions that a process and its core file must answer alike."""

    def check(self, command, expected):
        super().check(command, self.as_told_here(expected))

    def test_summary_counts_everything_and_lists_the_commands(self):
        said = self.debugger.ask("oxpliv")
        self.assertRegex(said, r"backing file: descriptor \d+, 128 MiB long, small pages\n")
        self.assertIn("physical pages of 2 MiB: 23 allocated, 3 free, 614 without memory\n", said)
        self.assertIn("2 accounts, 3 zones, 2 spaces\n", said)
        self.assertRegex(said, r"mapped: 268 MiB, populated: 0 MiB, internal usage: \d+ KiB\n")
        self.assertIn("waiting to be pretouched: 12 pages\n", said)
        for command in "accounts", "zones", "page", "space", "block", "free", "map":
            self.assertRegex(said, r"\n  oxpliv %s\b" % command)

    def test_accounts_tell_fund_use_and_whom_they_credit(self):
        self.check("oxpliv accounts", """
            account     fund     used      low     high  balance   funded     peak  maximum  credits first
                  2       26       21        0       21        5       26       28       48  2
                  3        4        2        0        2        2        0        4       16  3, 2
            used counts pages in the caches of spaces too: 1
            """)

    def test_zones_tell_their_pages_and_what_became_of_them(self):
        self.check("oxpliv zones", """
            zone  pages            hands out     allocated     free      low     high  defunded  watermark  initial pages
               0  0-23             runs of pages       20        0        0       20         0         20  8 of 8 funded
               1  24-39            single pages         3        3        3        8         2          8  8 of 8 funded
               2  128-639          runs of pages        0      256      256      256         0        256  0 of 256 funded
            """)

    def test_page_premapped_lies_at_every_alias_and_perhaps_in_a_block(self):
        self.check("oxpliv page 1", """
            physical page 1: allocated, zone 0, account 2, 3 mappings, 2 active, 0 populated, at 0x200000 of the file
              space 0 page 1, premapped
                alias 0  0x100000200000  mapped rw-s
                alias 1  0x110000200000  mapped r--s
              space 0 page 4, page 1 of 6 in block 4-9, allocated
                alias 0  0x100000800000  mapped rw-s
                alias 1  0x110000800000  not mapped
            """)

    def test_page_of_a_cached_block_is_told_so(self):
        self.check("oxpliv page 8", """
            physical page 8: allocated, zone 0, account 2, 2 mappings, 0 active, 0 populated, at 0x1000000 of the file
              waits to be pretouched
              space 0 page 11, a block of 1 page, allocated, in the cache
                alias 0  0x100001600000  mapped rw-s
                alias 1  0x110001600000  mapped r--s
            """)

    def test_page_handed_out_again_is_still_mapped_where_it_was_before(self):
        self.check("oxpliv page 10", """
            physical page 10: allocated, zone 0, account 3, 2 mappings, 1 active, 0 populated, at 0x1400000 of the file
              waits to be pretouched
              space 0 page 13, free, and still mapped from before
                alias 0  0x100001a00000  mapped rw-s
                alias 1  0x110001a00000  not mapped
              space 1 page 2, a block of 1 page, allocated
                alias 0  0x120000400000  mapped rw-s
            """)

    def test_page_with_many_uses_shows_each(self):
        said = self.debugger.ask("oxpliv page 9")
        self.assertIn("account 3, 100 mappings, 52 active", said)
        self.assertEqual(len(re.findall(r"  space 1 page \d+, a block of 1 page, allocated\n", said)), 50)
        self.assertEqual(len(re.findall(r"  space 1 page \d+, free, and still mapped from before\n", said)), 48)

    def test_page_behind_a_stray_mapping_tells_what_is_mapped_instead(self):
        self.check("oxpliv page 24", """
            physical page 24: allocated, zone 1, account 2, 1 mapping, 1 active, 0 populated, at 0x3000000 of the file
              space 1 page 109, page 10 of 10 in block 100-109, allocated
                alias 0  0x12000da00000  page 3 of /memfd:mirt_heap (deleted) is mapped
            """)

    def test_page_in_a_queue_tells_the_next_one(self):
        self.check("oxpliv page 30", """
            physical page 30: free, zone 1, 0 mappings, 0 active, 0 populated, at 0x3c00000 of the file
              linked to page 31
            """)

    def test_page_never_touched_is_told_its_zone_by_its_neighbours(self):
        self.check("oxpliv page 300", """
            physical page 300: not funded, zone 2, 0 mappings, 0 active, 0 populated, at 0x25800000 of the file
            """)

    def test_page_outside_the_zones_is_in_none(self):
        self.check("oxpliv page 50", """
            physical page 50: not funded, in no zone, 0 mappings, 0 active, 0 populated, at 0x6400000 of the file
            """)

    def test_page_number_may_be_any_expression(self):
        self.assertEqual(self.debugger.ask("oxpliv page (0x14*2)+10"), self.debugger.ask("oxpliv page 50"))

    SPACE_1 = """
            space 1: 128 pages, 0 premapped; blocks are mapped at one alias
              alias 0  0x120000000000-0x120010000000  rw-
              takes pages from zones: all
              66 pages free in 49 ranges, highest page handed out so far: 109
              112 mappings made, 2 over an older one; premapped runs reused 0, single pages outside 1; 0 pages to populate
            """

    def test_space_tells_aliases_zones_pages_and_cache(self):
        self.check("oxpliv space 0", """
            space 0: 32 pages, 4 premapped; blocks are mapped at all aliases
              alias 0  0x100000000000-0x100004000000  rw-, blocks of several pages too
              alias 1  0x110000000000-0x110004000000  r--
              takes pages from zones: 0
              19 pages free in 1 range, highest page handed out so far: 14
              8 mappings made, 0 over an older one; premapped runs reused 0, single pages outside 3; 8 pages to populate
              cache of account 2, blocks of up to 8 pages: 1 page, low 0, high 1
                1 hit, 1 missed; 0 flushes in part, 0 in full
                1 block of 1 page, the next one to go out first: 11
            """)

    def test_space_without_a_cache_shows_none(self):
        self.check("oxpliv space 1", self.SPACE_1)

    def test_space_without_an_id_shows_all(self):
        self.assertEqual(self.debugger.ask("oxpliv space"),
                         self.debugger.ask("oxpliv space 0") + self.debugger.ask("oxpliv space 1"))

    def test_block_shared_by_spaces_is_found_in_both(self):
        self.check("oxpliv block 0x120000000008", """
            0x120000000008: space 1 page 0, at alias 0, a block of 1 page, allocated
            physical page 7: allocated, zone 0, account 2, 3 mappings, 3 active, 0 populated
              space 0 page 10, a block of 1 page, allocated
                alias 0  0x100001400000  mapped rw-s
                alias 1  0x110001400000  mapped r--s
              space 1 page 0, a block of 1 page, allocated
                alias 0  0x120000000000  mapped rw-s
            """)

    def test_block_of_one_run_tells_the_page_inside_it(self):
        self.check("oxpliv block 0x100000e00000", """
            0x100000e00000: space 0 page 7, at alias 0, page 4 of 6 in block 4-9, allocated
            physical pages of the block: 1-6
            physical page 4: allocated, zone 0, account 2, 1 mapping, 2 active, 0 populated
              space 0 page 7, page 4 of 6 in block 4-9, allocated
                alias 0  0x100000e00000  mapped rw-s
                alias 1  0x110000e00000  not mapped
            """)

    def test_block_of_single_pages_tells_all_their_runs(self):
        self.assertIn("physical pages of the block: 11-19, 24\n", self.debugger.ask("oxpliv block 0x12000d200000"))

    def test_block_in_the_premapped_part_has_the_page_of_its_number(self):
        self.check("oxpliv block 0x110000000000", """
            0x110000000000: space 0 page 0, at alias 1, premapped
            physical page 0: allocated, zone 0, account 2, 2 mappings, 2 active, 0 populated
              space 0 page 0, premapped
                alias 0  0x100000000000  mapped rw-s
                alias 1  0x110000000000  mapped r--s
            """)

    def test_block_freed_or_never_allocated_is_free(self):
        self.check("oxpliv block 0x100001a00000", """
            0x100001a00000: space 0 page 13, at alias 0, free, physical page 10 still mapped from before
            """)
        self.check("oxpliv block 0x12000fe00000", """
            0x12000fe00000: space 1 page 127, at alias 0, free
            """)

    def test_block_at_a_fixed_address(self):
        self.check("oxpliv block 0x130000400001", """
            fixed address 0x130000400000: allocated, physical page 26, rw-
            physical page 26: allocated, zone 1, account 2, 1 mapping, 0 active, 0 populated
              fixed address 0x130000400000  mapped rw-s
            """)
        self.check("oxpliv block 0x130000000000", """
            fixed address 0x130000000000: free
            """)

    def test_free_of_everything_cuts_long_lists_short(self):
        self.check("oxpliv free", """
            zone 0, 0 pages free: none
            zone 1, 3 pages free, the next one to go out first: 29-31
              defunded: 27-28
            zone 2, 256 pages free: 128-383
            space 0, free: 13-31
            space 1, free: 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30, 32, 34, and 33 more
            """)

    def test_free_of_one_zone_or_space_tells_all(self):
        self.check("oxpliv free zone 1", """
            zone 1, 3 pages free, the next one to go out first: 29-31
              defunded: 27-28
            """)
        said = self.debugger.ask("oxpliv free space 1")
        self.assertEqual(re.findall(r"\d+", said)[1:], [str(page) for page in [*range(4, 100, 2), 110, 127]])

    def test_map_has_a_character_for_each_page_and_leaves_out_equal_lines(self):
        self.check("oxpliv map", """
            zone 0
                    0  22222222c3322222 2222
                   20  ... to 23: not given to the zone yet
            zone 1
                   24  222ddfff
                   32  ... to 39: not given to the zone yet
            zone 2
                  128  nnnnnnnnnnnnnnnn nnnnnnnnnnnnnnnn nnnnnnnnnnnnnnnn nnnnnnnnnnnnnnnn
                    *
                  320  nnnnnnnnnnnnnnnn nnnnnnnnnnnnnnnn nnnnnnnnnnnnnnnn nnnnnnnnnnnnnnnn
                  384  ... to 639: not given to the zone yet
              2      20  allocated, paid by account 2
              3       2  allocated, paid by account 3
              c       1  allocated, in the cache of a space
              f       3  free, with memory
              n     256  free, gets memory when it is first handed out
              d       2  defunded: its memory was given back
            """)

    def test_map_of_one_zone_leaves_the_others_out(self):
        self.check("oxpliv map 1", """
            zone 1
                   24  222ddfff
                   32  ... to 39: not given to the zone yet
              2       3  allocated, paid by account 2
              f       3  free, with memory
              d       2  defunded: its memory was given back
            """)

    def test_printers_of_page_records(self):
        self.check_value("$oxpliv_page(7)",
                         "physical page 7: allocated, zone 0, account 2, 3 mappings, 3 active, 0 populated")
        self.check_value(virtual_page(0, 4), "space 0 page 4: allocated, first of 6 pages, physical 1-6")
        self.check_value(virtual_page(0, 6), "space 0 page 6: allocated, 2 pages behind the first, inside a run")
        self.check_value(virtual_page(0, 13), "space 0 page 13: free, physical 10 mapped before")
        self.check_value("%s[%d]" % (FIXED_ADDRESS_RECORDS, 0x130000400000 >> 21),
                         "fixed address 0x130000400000: allocated, physical page 26, rw-")

    def test_printers_of_accounts_zones_and_their_lists(self):
        self.check_value("$oxpliv_account(3)",
                         "account 3: fund 4 = 2 used + 2 balance, 0 funded, at most 16, credits first: 3, 2")
        self.check_value("$oxpliv_zone(1)",
                         "zone 1: pages 24-39, hands out single pages, 3 allocated, 3 free, 2 defunded")
        self.check_value("*$oxpliv_zone(1)._allocator", "3 free (low 3, high 8), 2 defunded")

    def test_printers_of_spaces(self):
        self.check_value("$oxpliv_space(0)",
                         "space 0: 32 pages, 4 premapped, alias 0 at 0x100000000000, alias 1 at 0x110000000000")
        self.check_value("$oxpliv_space(0)._aliases[1]", "0x110000000000 r--")
        self.check_value("$oxpliv_space(0)._page_manager",
                         "19 pages free in 1 range, highest page handed out so far: 14")
        self.check_value("*$oxpliv_space(0)._cache", "cache of account 2: 1 page (low 0, high 1), 1 hit, 1 missed")

    def test_printers_of_ranges(self):
        allocator = "$oxpliv_space(1)._page_manager._allocator"
        ranges = "49 ranges: 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30, 32, 34, ..."
        self.check_value("*" + allocator, ranges)
        self.check_value("%s->_free_list" % allocator, ranges)
        last = "$oxpliv_space(0)._page_manager._allocator->_free_list._root"
        self.check_value("*" + last, "13-31")
        self.check_value("%s->block" % last, "13-31")

    def test_printers_of_numbers_and_locks(self):
        self.check_value("$oxpliv_page(7)._ref_count", "3")
        self.check_value("$oxpliv_page(7)._lock", "unlocked")

    def test_printer_of_a_record_outside_its_table_leaves_the_number_open(self):
        self.debugger.ask("set $copy = $oxpliv_page(7)")
        self.check_value("$copy", "physical page ?: allocated, zone 0, account 2, 3 mappings, 3 active, 0 populated")
        self.debugger.ask("set $copy = %s" % virtual_page(0, 4))
        self.check_value("$copy", "page ?: allocated, first of 6 pages, physical 1-6")

    def test_unknown_things_are_refused_with_what_there_is(self):
        for command, refusal in (
                ("oxpliv page 640", "there is no physical page 640; they are 0-639"),
                ("oxpliv page -1", "there is no physical page -1; they are 0-639"),
                ("oxpliv page", "which page?"),
                ("oxpliv page nonsense", 'No symbol "nonsense" in current context.'),
                ("oxpliv block", "which address?"),
                ("oxpliv block 0x140000000000",
                 "0x140000000000 lies in no space and in no range that is tracked for fixed addresses"),
                ("oxpliv block -1",
                 "0xffffffffffffffff lies in no space and in no range that is tracked for fixed addresses"),
                ("oxpliv space 2", "there is no space 2; there are: 0, 1"),
                ("oxpliv map 3", "there is no zone 3; there are: 0, 1, 2"),
                ("oxpliv free zone 9", "there is no zone 9; there are: 0, 1, 2"),
                ("oxpliv free time", "free of what? zone ID or space ID"),
                ("print $oxpliv_page(640)", "there is no physical page 640; they are 0-639"),
                ("print $oxpliv_account(5)", "there is no account 5; there are: 2, 3"),
                ("oxpliv accounts 2", "oxpliv accounts takes no argument"),
                ("oxpliv nonsense", '"oxpliv nonsense" is not a command; "oxpliv" lists them')):
            with self.subTest(command):
                self.assertEqual(self.debugger.ask(command), "refused: %s\n" % refusal)


class LiveProcess(KnownHeap, DebuggerTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.debugger = cls.start(options.program)
        cls.debugger.run_to("heap_is_built")

    @staticmethod
    def as_told_here(expected):
        return expected


class CoreFile(KnownHeap, DebuggerTest):
    """A core file tells which files were mapped, but not how."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        core = cls.folder / "core"
        live = cls.start(options.program)
        live.run_to("heap_is_built")
        said = live.ask("generate-core-file %s" % core)
        if "Saved corefile" not in said:
            raise unittest.SkipTest("GDB can't write a core file here: %s" % said)
        cls.debugger = cls.start(options.program, core)

    @staticmethod
    def as_told_here(expected):
        return re.sub(r"mapped r[w-]-s", "mapped", expected)


class Surgery(DebuggerTest):
    """States that no call leaves behind, put into the memory of the process by hand."""

    def setUp(self):
        self.debugger = Debugger(options.program)
        self.addCleanup(self.debugger.close)
        self.debugger.run_to("heap_is_built")

    def put(self, place, value):
        said = self.debugger.ask("set var %s = %s" % (place, value))
        self.assertEqual(said, "")

    def test_mutex_that_is_held_names_its_holder(self):
        self.put("$oxpliv_account(2)._mutex.__data.__owner", 4711)
        self.put("$oxpliv_zone(0)._allocator->_free_list_mutex.__data.__owner", 4712)
        self.put("$oxpliv_space(1)._page_manager._mutex.__data.__owner", 4713)
        self.put("$oxpliv_space(0)._cache->_mutex.__data.__owner", 4714)
        self.assertRegex(self.debugger.ask("oxpliv accounts"), r"\n +2 .* 48  2, mutex held by LWP 4711\n")
        self.assertRegex(self.debugger.ask("oxpliv zones"), r"\n +0  0-23 .*funded, mutex held by LWP 4712\n")
        self.assertRegex(self.debugger.ask("oxpliv space 1"), r"handed out so far: 109, mutex held by LWP 4713\n")
        self.assertRegex(self.debugger.ask("oxpliv space 0"), r"\n  cache .* high 1, mutex held by LWP 4714\n")

    def test_page_that_is_locked_is_told_so(self):
        self.put("$oxpliv_page(7)._lock._bits._M_i", 1)
        self.assertIn("0 populated, locked, at", self.debugger.ask("oxpliv page 7"))
        self.check_value("$oxpliv_page(7)._lock", "locked")

    def test_state_that_does_not_exist_is_told_as_its_number(self):
        self.put("$oxpliv_page(7)._state._M_i", 77)
        self.assertIn("physical page 7: state 77, which does not exist, zone 0", self.debugger.ask("oxpliv page 7"))
        self.assertIn("        0  2222222?c3322222 2222\n", self.debugger.ask("oxpliv map 0"))

    def test_tree_that_leads_in_a_circle_is_told_as_broken(self):
        root = "$oxpliv_space(0)._page_manager._allocator->_free_list._root"
        self.put("%s->child[0]" % root, root)
        self.assertEqual(self.debugger.ask("oxpliv free space 0"),
                         "refused: this tree is broken: it has more blocks than its count, 1\n")

    def test_queue_that_leads_out_of_the_table_is_told_as_broken(self):
        self.put("$oxpliv_page(30)._next._value._M_b._M_p", 0x10)
        self.assertEqual(self.debugger.ask("oxpliv free zone 1"),
                         "refused: this queue is broken: a link leads to 0x10\n")

    def test_pointer_into_nowhere_is_refused(self):
        self.put("$oxpliv_zone(0)._allocator", 0x10)
        self.assertRegex(self.debugger.ask("oxpliv zones"), "refused: Cannot access memory at address 0x")


COMMANDS = ("oxpliv", "oxpliv accounts", "oxpliv zones", "oxpliv page 0", "oxpliv space", "oxpliv block 0",
            "oxpliv free", "oxpliv map", "print $oxpliv_page(0)", "print $oxpliv_account(2)")


class Refusal(DebuggerTest):
    """Where there is nothing to tell, each command says why."""

    def check_refused(self, debugger, reason):
        for command in COMMANDS:
            with self.subTest(command):
                self.assertRegex(debugger.ask(command), "^refused: %s\n$" % reason)

    def test_program_that_does_not_run_yet(self):
        self.check_refused(self.start(options.program), "liboxpliv is not loaded, .* once the program runs")

    def test_library_that_is_not_initialized(self):
        debugger = self.start(options.program)
        debugger.run_to("main")
        self.check_refused(debugger, "liboxpliv is not initialized: .*")

    def check_stripped(self, *how):
        stripped = (self.folder / "liboxpliv.so.1").absolute()
        subprocess.run(["strip", *how, "-o", stripped, options.shared_object], check=True)
        debugger = self.start(options.program)
        debugger.ask("set environment LD_PRELOAD %s" % stripped)
        debugger.run_to("heap_is_built")
        self.check_refused(debugger, "%s has no debug information: .*" % re.escape(str(stripped)))

    def test_library_without_debug_information(self):
        self.check_stripped("--strip-debug")

    def test_library_without_any_symbols(self):
        self.check_stripped("--strip-all")


class Tour(DebuggerTest):
    """A program with a safe-fetch stub, which the library tries while it starts; stopped, and as a core file."""

    def check_heap(self, debugger, block):
        self.assertRegex(debugger.ask("oxpliv"), r"(?s)2 accounts, 2 zones, 2 spaces")
        self.assertRegex(debugger.ask("oxpliv accounts"), r"(?m)^ +0 .*\n +2 ")
        self.assertRegex(debugger.ask("oxpliv block %s" % block), r"(?s)space \d.*physical page")

    def test_stopped_at_its_first_free_and_as_a_core_file(self):
        debugger = self.start(options.tour)
        debugger.ask("set args %s" % options.extension)  # a file to load, whichever
        debugger.ask("handle SIGSEGV SIGBUS nostop noprint pass")
        debugger.run_to("ox_munmap_from_space_pliv")
        block = int(debugger.ask("output/d $rsi"))
        self.check_heap(debugger, block)
        core = self.folder / "core"
        debugger.ask("generate-core-file %s" % core)
        if not core.exists():
            self.skipTest("GDB writes no core files here")
        self.check_heap(self.start(options.tour, str(core)), block)
        core.unlink()


class Loading(DebuggerTest):
    def test_extension_beside_the_library_is_loaded_with_it(self):
        folder = self.folder.absolute()
        shutil.copy(options.shared_object, folder / "liboxpliv.so.1")
        shutil.copy(options.extension, folder / "liboxpliv.so.1-gdb.py")
        debugger = self.start("-iex", "add-auto-load-safe-path %s" % folder, options.program, extension=False)
        self.assertRegex(debugger.ask("oxpliv"), "^refused: Undefined command")
        debugger.ask("set environment LD_PRELOAD %s" % (folder / "liboxpliv.so.1"))
        debugger.run_to("heap_is_built")
        self.assertIn("2 accounts, 3 zones, 2 spaces\n", debugger.ask("oxpliv"))
        self.assertIn("physical page 7: allocated", debugger.ask("print $oxpliv_page(7)"))

    def test_installed_extension_has_the_name_of_the_library_file(self):
        subprocess.run(["cmake", "-DCMAKE_INSTALL_PREFIX=%s" % self.folder.absolute(), "-P", options.install_rule],
                       check=True, stdout=subprocess.DEVNULL)
        installed = [path.name for path in self.folder.glob("share/gdb/auto-load/**/*-gdb.py")]
        self.assertEqual(installed, [os.path.basename(os.path.realpath(options.shared_object)) + "-gdb.py"])


def main():
    global options
    parser = argparse.ArgumentParser()
    for option in "--program", "--tour", "--shared-object", "--extension", "--install-rule":
        parser.add_argument(option, required=True)
    parser.add_argument("--skip", metavar="REASON", help="run nothing, for that reason")
    parser.add_argument("test")
    options = parser.parse_args()
    reason = options.skip or (None if shutil.which("gdb") else "gdb is not installed")
    if reason:
        print("skipped: %s" % reason)
        return SKIPPED
    tests = unittest.defaultTestLoader.loadTestsFromName(options.test, sys.modules[__name__])
    result = unittest.TextTestRunner(verbosity=2).run(tests)
    return 1 if not result.wasSuccessful() else SKIPPED if result.skipped else 0


if __name__ == "__main__":
    sys.exit(main())
