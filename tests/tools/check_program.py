#!/usr/bin/env python3
"""oxpliv-check as a program: on machines made of files, and on this one, where what it tells to type is typed.

    check_program.py PROGRAM REFUSE CASE     ends with 77 when this machine refuses what the case needs

REFUSE runs a program that can't make memory files.

What is changed of this machine is put back.
"""

import contextlib
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

MIB = 1 << 20
PROGRAM = ""
REFUSE = ""
CHECKS = ["backing_store", "memory", "overcommit", "huge_page_pool", "transparent_huge_pages", "max_map_count",
          "address_space", "file_size_limit", "locked_memory_limit", "open_files_limit", "control_groups", "kernel",
          "confinement", "trial"]
SMALL_HEAP = ["--initial", "8M", "--max", "16M", "--aliases", "2"]


def run(*words):
    return subprocess.run([PROGRAM, *words], capture_output=True, text=True, check=False)


def report(*words):
    """What the program says as JSON, with its exit status in it."""
    ended = run("--json", *words)
    result = json.loads(ended.stdout)
    result["status"] = ended.returncode
    return result


def type_in(commands):
    for command in commands:
        subprocess.run(["sh", "-c", command], check=True, capture_output=True)


class Case(unittest.TestCase):
    def expect(self, told, check, state, commands=()):
        finding = told["checks"][check]
        self.assertEqual(finding["state"], state, finding)
        self.assertEqual(finding["commands"], list(commands), finding)

    def expect_ready(self, told):
        self.assertEqual((told["summary"], told["status"]), ("ready", 0), told)


# ---- Machines made of files

HEALTHY = {
    "/proc/sys/kernel/osrelease": "6.1.0-13-amd64\n",
    "/proc/sys/vm/max_map_count": "65530\n",
    "/proc/sys/vm/overcommit_memory": "0\n",
    "/proc/sys/vm/nr_overcommit_hugepages": "0\n",
    "/proc/meminfo": "MemAvailable: 16777216 kB\nSwapFree: 0 kB\nCommitLimit: 8388608 kB\nCommitted_AS: 1048576 kB\n"
                     "HugePages_Total: 0\nHugePages_Free: 0\nHugePages_Rsvd: 0\nHugePages_Surp: 0\n"
                     "Hugepagesize: 2048 kB\n",
    "/proc/self/limits": "Max file size  unlimited unlimited bytes\nMax open files  1024 4096 files\n"
                         "Max locked memory  8388608 8388608 bytes\nMax address space  unlimited unlimited bytes\n",
    "/proc/self/status": "Seccomp:\t0\n",
    "/proc/self/cgroup": "0::/\n",
    "/proc/self/mountinfo": "1 0 0:1 / / rw - ext4 /dev/sda rw\n2 1 0:2 / /dev/shm rw - tmpfs tmpfs rw,size=8388608k\n"
                            "3 1 0:3 / /sys/fs/cgroup rw - cgroup2 cgroup2 rw\n",
    "/sys/kernel/mm/transparent_hugepage/enabled": "always [madvise] never\n",
    "/sys/kernel/mm/transparent_hugepage/shmem_enabled": "always within_size advise [never] deny force\n",
}


class Machine(Case):
    def on(self, changes, *words):
        with tempfile.TemporaryDirectory() as root:
            for path, text in {**HEALTHY, **changes}.items():
                os.makedirs(root + os.path.dirname(path), exist_ok=True)
                with open(root + path, "w", encoding="ascii") as file:
                    file.write(text)
            return report("--root", root, *words)

    def test_Machine_WithoutFaults_IsReadyAndNothingIsTried(self):
        told = self.on({})
        self.expect_ready(told)
        self.assertEqual(list(told["checks"]), CHECKS)
        self.assertEqual(told["checks"]["trial"]["found"], "left out")
        self.assertEqual(told["heap"], {"initial_bytes": 256 * MIB, "max_bytes": 4096 * MIB, "aliases": 3,
                                        "pages": "small", "path": None})

    def test_Container_WithSmallSharedMemory_MattersOnlyWithoutMemoryFiles(self):
        small = {"/proc/self/mountinfo": "1 0 0:1 / / rw - overlay overlay rw\n"
                                         "2 1 0:2 / /dev/shm rw - tmpfs shm rw,size=65536k\n", "/.dockerenv": ""}
        self.expect(self.on(small), "backing_store", "ok")
        fix = ["mount -o remount,size=4096M /dev/shm"]
        refused = self.on({**small, "/proc/sys/kernel/osrelease": "6.3.0\n", "/proc/sys/vm/memfd_noexec": "2\n"})
        self.expect(refused, "backing_store", "problem", fix)
        self.expect(refused, "confinement", "warning", ["sysctl vm.memfd_noexec=1"])
        self.assertEqual((refused["summary"], refused["status"]), ("not ready", 1))
        self.assertIn("--shm-size=4096M", refused["checks"]["backing_store"]["meaning"])
        self.expect(self.on({**small, "/proc/sys/kernel/osrelease": "3.10.0\n"}), "backing_store", "problem", fix)
        self.expect(self.on(small, "--path", "/dev/shm"), "backing_store", "problem", fix)

    def test_HugePages_NotThere_AreAWarningWhenAskedFor(self):
        told = self.on({}, "--pages", "explicit")
        self.expect(told, "huge_page_pool", "warning", ["sysctl vm.nr_hugepages=2048"])
        self.assertEqual((told["summary"], told["status"]), ("ready with warnings", 0))

    def test_TransparentHugePages_Off_AreAWarningAndTheStatusIsReady(self):
        told = self.on({}, "--pages", "transparent")
        self.expect(told, "transparent_huge_pages", "warning",
                    ["echo advise > /sys/kernel/mm/transparent_hugepage/shmem_enabled"])
        self.assertEqual((told["summary"], told["status"]), ("ready with warnings", 0))

    def test_Mappings_TooFewAllowed_AreAProblem(self):
        told = self.on({"/proc/sys/vm/max_map_count": "8143\n"})
        self.expect(told, "max_map_count", "problem", ["sysctl vm.max_map_count=8144"])
        self.assertEqual(told["status"], 1)

    def test_StrictOvercommit_WithLittleLeft_IsAProblem(self):
        self.expect(self.on({"/proc/sys/vm/overcommit_memory": "2\n"}), "overcommit", "ok")
        little = HEALTHY["/proc/meminfo"].replace("CommitLimit: 8388608", "CommitLimit: 2097152")
        self.expect(self.on({"/proc/sys/vm/overcommit_memory": "2\n", "/proc/meminfo": little}), "overcommit",
                    "problem", ["sysctl vm.overcommit_memory=0"])

    def test_ControlGroupsVersion2_LimitAboveTheOwnGroup_IsAProblem(self):
        told = self.on({"/proc/self/cgroup": "0::/a/b\n", "/sys/fs/cgroup/a/b/memory.max": "max\n",
                        "/sys/fs/cgroup/a/memory.max": "1073741824\n", "/sys/fs/cgroup/a/memory.current": "4096\n"})
        self.expect(told, "control_groups", "problem", ["echo 4294971392 > /sys/fs/cgroup/a/memory.max"])
        self.assertEqual(told["status"], 1)

    def test_ControlGroupsVersion1_LimitOfAContainer_IsAProblem(self):
        told = self.on({"/proc/self/cgroup": "4:memory:/docker/x\n0::/\n",
                        "/proc/self/mountinfo": "1 0 0:1 /docker/x /sys/fs/cgroup/memory rw - cgroup cgroup rw,memory\n",
                        "/sys/fs/cgroup/memory/memory.limit_in_bytes": "536870912\n"})
        self.expect(told, "control_groups", "problem",
                    ["echo 4294967296 > /sys/fs/cgroup/memory/memory.limit_in_bytes"])

    def test_Text_SaysTheSameAsJson(self):
        with tempfile.TemporaryDirectory() as root:
            told = report("--root", root)
            ended = run("--root", root)
        self.assertEqual(ended.returncode, told["status"])
        self.assertEqual(ended.stdout.splitlines()[-1], told["summary"])
        for finding in told["checks"].values():
            self.assertIn(f"{finding['state']:9}{finding['title']}: {finding['found']}\n", ended.stdout)

    def test_CommandLine_ThatIsWrong_EndsWithTwo(self):
        for words in (["--max", "much"], ["--max", "0"], ["--max", "3M"], ["--max", "-1"], ["--max", "16383P"],
                      ["--initial", "1M"], ["--initial", "2G", "--max", "1G"], ["--aliases", "33"],
                      ["--aliases", "0"], ["--pages", "huge"], ["--path", "here"], ["--root", "/no/such/directory"],
                      ["--fast"], ["word"]):
            ended = run(*words)
            self.assertEqual((ended.returncode, ended.stdout), (2, ""), words)
            self.assertNotEqual(ended.stderr, "", words)

    def test_Initial_LeftOutWithASmallerMaximum_IsTheMaximum(self):
        self.assertEqual(self.on({}, "--max", "64M")["heap"]["initial_bytes"], 64 * MIB)

    def test_Help_EndsWithZero(self):
        ended = run("--help")
        self.assertEqual(ended.returncode, 0)
        self.assertIn("--max SIZE", ended.stdout)


# ---- This machine

SHMEM = "/sys/kernel/mm/transparent_hugepage/shmem_enabled"
ENABLED = "/sys/kernel/mm/transparent_hugepage/enabled"


def word_in(path):
    try:
        with open(path, encoding="ascii") as file:
            line = file.read().strip()
    except OSError as failure:
        raise unittest.SkipTest(f"{path}: {failure.strerror}") from failure
    return line.split("[")[1].split("]")[0] if "[" in line else line


def write(path, value):
    try:
        with open(path, "w", encoding="ascii") as file:
            file.write(value)
    except OSError as failure:
        raise unittest.SkipTest(f"{path} does not take {value}: {failure.strerror}") from failure


@contextlib.contextmanager
def kept(path):
    """Whatever is done to this knob, it comes back as it was."""
    before = word_in(path)
    try:
        yield before
    finally:
        write(path, before)


@contextlib.contextmanager
def tmpfs(options):
    directory = tempfile.mkdtemp(prefix="oxpliv-check-")
    try:
        if subprocess.run(["mount", "-t", "tmpfs", "-o", options, "tmpfs", directory], check=False).returncode != 0:
            raise unittest.SkipTest("no tmpfs can be mounted here")
        yield directory
    finally:
        subprocess.run(["umount", "-q", directory], check=False)
        shutil.rmtree(directory)


class Here(Case):
    def setUp(self):
        if os.geteuid() != 0:
            self.skipTest("only root changes this machine")

    def says(self, told, text):
        self.assertTrue(any(text in line for line in told["checks"]["trial"]["details"]), told["checks"]["trial"])

    # Before, the check is in this state; then its commands are typed; afterwards it is ok.
    def expect_cure(self, check, state, *words):
        told = report(*words)
        self.assertEqual(told["checks"][check]["state"], state, told["checks"][check])
        self.assertEqual(told["status"], 1 if state == "problem" else 0)
        self.assertNotEqual(told["checks"][check]["commands"], [])
        type_in(told["checks"][check]["commands"])
        told = report(*words)
        self.expect(told, check, "ok")
        return told

    def test_Here_SmallHeap_IsTriedAndWorks(self):
        told = report(*SMALL_HEAP)
        self.expect(told, "trial", "ok")
        self.says(told, "Created the backing storage at /memfd:mirt_heap")

    def test_Here_NoHugePages_AreThereAfterTheCommand(self):
        pool = "/proc/sys/vm/nr_hugepages"
        with kept(pool):
            write(pool, "16")
            if word_in(pool) != "16":
                self.skipTest("the kernel gives no pool of 16 huge pages")
            write(pool, "0")
            self.says(report("--pages", "explicit", *SMALL_HEAP), "The number of available huge pages is not enough")
            told = self.expect_cure("huge_page_pool", "warning", "--pages", "explicit", *SMALL_HEAP)
            self.expect_ready(told)
            self.says(told, "using explicit huge pages")
            self.assertIn("it lies in pages of 2 MiB", told["checks"]["trial"]["found"])

    def test_Here_NoTransparentHugePages_AreInForceAfterTheCommand(self):
        with kept(SHMEM), kept(ENABLED):
            write(SHMEM, "never")
            write(ENABLED, "never")
            told = self.expect_cure("transparent_huge_pages", "warning", "--pages", "transparent", *SMALL_HEAP)
            self.assertEqual((word_in(SHMEM), word_in(ENABLED)), ("advise", "madvise"))
            self.says(told, "using transparent huge pages in madvise mode")

    def test_Here_TransparentHugePagesForAll_AreReallyThere(self):
        with kept(SHMEM), kept(ENABLED):
            write(SHMEM, "always")
            write(ENABLED, "madvise")
            told = report("--pages", "transparent", *SMALL_HEAP)
            self.expect(told, "transparent_huge_pages", "ok")
            given = "8 MiB of it lie in transparent huge pages" in told["checks"]["trial"]["found"]
            self.expect(told, "trial", "ok" if given else "warning")
            self.says(told, "using transparent huge pages")

    def test_Here_TooFewMappings_SufficeAfterTheCommand(self):
        knob = "/proc/sys/vm/max_map_count"
        with kept(knob) as before:
            heap = ["--no-try", "--aliases", "1", "--max", f"{2 * int(before)}M"]
            told = self.expect_cure("max_map_count", "problem", *heap)
            self.assertEqual(told["checks"]["max_map_count"]["found"], f"a process may have {int(before) + 2000}")

    def test_Here_SmallTmpfs_IsLargeEnoughAfterTheCommand(self):
        with tmpfs("size=12m") as directory:
            with open(directory + "/in use", "wb") as file:
                file.write(bytes(MIB))
            told = self.expect_cure("backing_store", "problem", "--path", directory, *SMALL_HEAP)
            self.expect_ready(told)
            self.says(told, "Created the backing storage as an anonymous file in " + directory)

    def test_Here_FullTmpfs_IsNotTakenForUnlimited(self):
        with tmpfs("size=4m") as directory:
            with open(directory + "/filler", "wb") as file:
                file.write(bytes(4 * MIB))
            self.expect(report("--path", directory, *SMALL_HEAP), "trial", "problem", [])
            self.expect_ready(self.expect_cure("backing_store", "problem", "--path", directory, *SMALL_HEAP))

    def test_Here_TmpfsWithoutHugePages_HasThemAfterTheCommand(self):
        with tmpfs("size=32m") as directory, kept(SHMEM), kept(ENABLED):
            write(SHMEM, "never")
            write(ENABLED, "madvise")
            told = self.expect_cure("transparent_huge_pages", "warning", "--pages", "transparent", "--path", directory,
                                    *SMALL_HEAP)
            self.says(told, "using transparent huge pages in madvise mode")

    def test_Here_MissingDirectory_IsMadeByTheCommands(self):
        with tmpfs("size=64m") as parent:
            directory = parent + "/it's new"
            try:
                self.expect_ready(self.expect_cure("backing_store", "problem", "--path", directory, *SMALL_HEAP))
            finally:
                subprocess.run(["umount", "-q", directory], check=False)

    # In a shell whose limit is lowered, without and with the command typed there.
    def limited(self, check, limit):
        def told_after(commands):
            script = "; ".join([f"prlimit --pid $$ --{limit}:", *commands, '"$@"'])
            ended = subprocess.run(["sh", "-c", script, "sh", PROGRAM, "--json", *SMALL_HEAP], check=False,
                                   capture_output=True, text=True)
            return json.loads(ended.stdout)

        before = told_after([])
        self.assertEqual(before["checks"][check]["state"], "problem")
        self.expect(before, "trial", "problem")
        after = told_after(before["checks"][check]["commands"])
        self.expect(after, check, "ok")
        self.expect(after, "trial", "ok")
        return before

    def skip_under_sanitizers(self):
        if os.environ.get("OXPLIV_SANITIZE"):
            self.skipTest("sanitizers need more addresses than a limit leaves")

    def test_Here_AddressSpaceLimit_IsGoneAfterTheCommand(self):
        self.skip_under_sanitizers()
        before = self.limited("address_space", f"as={1000 * MIB}")
        self.assertIn("Initialization failed: Cannot allocate memory", before["checks"]["trial"]["found"])

    def test_Here_AddressSpaceLimitThatIsSaidToSuffice_Suffices(self):
        self.skip_under_sanitizers()
        needed = 2 * 16 * MIB + 1024 * MIB + 512 * MIB
        for limit, state in ((needed, "ok"), (needed - 1, "problem")):
            output = subprocess.run(["prlimit", f"--as={limit}:", PROGRAM, "--json", *SMALL_HEAP], check=False,
                                    capture_output=True, text=True).stdout
            self.assertEqual(json.loads(output)["checks"]["address_space"]["state"], state)
            self.expect(json.loads(output), "trial", "ok")

    def test_Here_FileSizeLimit_IsGoneAfterTheCommand(self):
        before = self.limited("file_size_limit", f"fsize={MIB}")
        self.assertIn("The process was ended: File size limit exceeded", before["checks"]["trial"]["found"])

    # In a mount namespace of its own, nobody else notices.
    def test_Here_MemoryFilesRefusedAndSmallSharedMemory_WorkAfterTheCommand(self):
        inside = ["unshare", "--mount", "sh", "-c"]
        prepare = "mount -t tmpfs -o size=8m tmpfs /dev/shm"
        if subprocess.run([*inside, prepare], check=False, capture_output=True).returncode != 0:
            self.skipTest("no namespaces of mounts")

        def told_after(commands):
            script = "; ".join([prepare, *commands, '"$@"'])
            ended = subprocess.run([*inside, script, "sh", REFUSE, PROGRAM, "--json", *SMALL_HEAP], check=False,
                                   capture_output=True, text=True)
            if ended.returncode == 77:
                self.skipTest("system calls can't be filtered here")
            return json.loads(ended.stdout)

        refused = told_after([])
        self.expect(refused, "trial", "problem")
        self.expect(refused, "confinement", "warning")
        self.assertIn("The filter of system calls may forbid memfd_create", refused["checks"]["confinement"]["meaning"])
        self.assertEqual(refused["checks"]["backing_store"]["state"], "problem")
        larger = told_after(refused["checks"]["backing_store"]["commands"])
        self.expect(larger, "backing_store", "ok")
        self.expect(larger, "trial", "ok")
        self.says(larger, "Created the backing storage as an anonymous file in /dev/shm")


def main():
    global PROGRAM, REFUSE
    PROGRAM, REFUSE = sys.argv[1:3]
    suite = unittest.defaultTestLoader.loadTestsFromName(sys.argv[3], sys.modules["__main__"])
    result = unittest.TextTestRunner(verbosity=2).run(suite)
    if not result.wasSuccessful():
        return 1
    return 77 if result.skipped else 0


if __name__ == "__main__":
    sys.exit(main())
