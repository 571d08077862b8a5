#!/usr/bin/env python3
"""Builds the shared-memory layer with one deliberate mistake at a time, and wants its tests to fail.

    Tools/check_mutations.py [NUMBER...]

A test of what processes leave behind when they die can pass for the wrong reason. So each mistake
in MISTAKES, most of them an order of stores that a death in between does not stand, is made in a
copy of the tree in build/mistakes, and the tests that are there to find it run on that. Without a
mistake they have to pass. NUMBERs choose mistakes; all without.

Ends 1 when a mistake was not found, 2 when one could not be made or built.
"""

import shutil
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
COPY = ROOT / "build" / "mistakes"
LAYER = "Src/Memory/ShareMem/"
TESTS = ("ShareMemLayers.*", "ShareMemCrash.ADeathAtAnyInstructionHurtsNobodyElse")  # quick first
TEST_SECONDS = 120

# What is wrong, the file, the text that is there, the text in its place.
MISTAKES = [
    ("an entry is linked before it has its process", "MemRefer.cpp",
     """    publish(entry->pid, Tarsel::Infra::currentProcessId());
    list_insert(&node->pidListHead, &entry->listNode, access.data);
""",
     """    list_insert(&node->pidListHead, &entry->listNode, access.data);
    publish(entry->pid, Tarsel::Infra::currentProcessId());
"""),
    ("a node is linked before it is filled", "MemRefer.cpp",
     """    publish(node->offset, offset);
    publishPair(node->deliverRefer, 0, 0);
    list_init(&node->pidListHead, nullptr);
    list_insert(access.nodes, &node->referListNode, access.data);
""",
     """    publish(node->offset, offset);
    list_insert(access.nodes, &node->referListNode, access.data);
    publishPair(node->deliverRefer, 0, 0);
    list_init(&node->pidListHead, nullptr);
"""),
    ("a new node keeps the counts of the last one there", "MemRefer.cpp",
     "    publishPair(node->deliverRefer, 0, 0);\n", ""),
    ("a hand-over is counted in two stores", "MemRefer.cpp",
     "    publishPair(node->deliverRefer, node->deliverRefer + 1, passesToExpire);\n",
     "    publish(node->deliverRefer, node->deliverRefer + 1);\n"
     "    publish(node->expireCount, passesToExpire);\n"),
    ("the end of a hand-over is not stored", "MemRefer.cpp",
     "    publish(node->deliverRefer, node->deliverRefer - 1);\n", ""),
    ("a block on its way is given back with its last holder", "MemRefer.cpp",
     "    return !hasHolder(node) && node->deliverRefer == 0;\n",
     "    return !hasHolder(node);\n"),
    ("a fresh block is taken to have no node, whatever its hint says", "MemRefer.cpp",
     "    if (const size_t* const hint = hintOf(access, offset)) {\n",
     "    if (isFreshBlock(access.buddy, offset)) {\n        return nullptr;\n    }\n"
     "    if (const size_t* const hint = hintOf(access, offset)) {\n"),
    ("an insertion commits before the element is ready", "List.h",
     """        publish(node->next, head->next);
        publish(node->prev, first->prev);
""",
     """        const size_t next = head->next;
        publish(head->next, own);
        publish(node->next, next);
        publish(node->prev, first->prev);
"""),
    ("a removed first element is the head's for ever", "List.h",
     """    if (head->next == own) {
        publish(head->next, node->next);
    }
""", ""),
    ("a freed block keeps its mark inside the one it merges to", "Buddy.cpp",
     "    publish(pageDescriptors(info)[idx].order, 0); // from here on it is nobody's\n", ""),
    ("a free neighbour keeps its mark inside the merged block", "Buddy.cpp",
     """    publish(page.order, 0);
    list_remove(""",
     "    list_remove("),
    ("a small object's bit is not set", "SmallMem.cpp",
     """    publish(page->blockMask,
            page->blockMask | uint32_t{1} << ((offset - page->offset) / smallBlockSize));
""", ""),
    ("a page that fills stays in front", "SmallMem.cpp",
     "        publish(access.pages->next, page->list.next); // to the end\n", "        return block;\n"),
    ("a page with room stays behind the full ones", "SmallMem.cpp",
     "    if (wasFull) {\n", "    if (wasFull && size == 0) {\n"),
    ("a repair leaves stale masks", "Repair.cpp",
     "        if (desc->blockMask != m_scratch.seen(i)) {\n",
     "        if (m_scratch.seen(i) != 0) {\n"),
    ("a repair keeps nodes that nobody holds or sends", "Repair.cpp",
     "    if (node->pidListHead.next == noOffset && node->deliverRefer == 0) {\n        return false;\n"
     "    }\n", ""),
    ("a repair leaves previous links as they are", "Repair.cpp",
     "            publish(list_at(m_data, at)->prev, last);\n", "            ;\n"),
    ("pages that are initialised after a process came are none it can repair", "PoolInstance.cpp",
     "    return pool.known.pageNum != 0\n", "    return true\n"),
]


def copy_tree():
    """Brings the copy up to date; files that did not change keep their times."""
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], cwd=ROOT, check=True,
                            capture_output=True, text=True).stdout.splitlines()
    for name in listed:
        source, target = ROOT / name, COPY / name
        if not source.is_file():
            continue
        if not target.is_file() or target.read_bytes() != source.read_bytes():
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(source, target)


def run(command, **options):
    return subprocess.run(command, cwd=COPY, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, errors="replace", **options)


def build():
    """True when the tests are built."""
    made = run(["cmake", "--build", "--preset", "release", "--target", "ShareMemTests"])
    if made.returncode != 0:
        print(made.stdout[-4000:])
    return made.returncode == 0


def tests_pass():
    return all(test_passes(test) for test in TESTS)


def test_passes(test):
    """False also for tests that do not end: a ring that leads nowhere."""
    try:
        ran = run(["build/release/Tests/ShareMemTests", f"--gtest_filter={test}",
                   "--gtest_brief=1", "--gtest_fail_fast"], timeout=TEST_SECONDS)
    except subprocess.TimeoutExpired:
        return False
    return ran.returncode == 0


def is_found(number):
    """Makes one mistake, and unmakes it. None when it cannot be made or built."""
    _, name, text, mistake = MISTAKES[number]
    path = COPY / LAYER / name
    right = path.read_text()
    if right.count(text) != 1:
        return None
    path.write_text(right.replace(text, mistake))
    try:
        return not tests_pass() if build() else None
    finally:
        path.write_text(right)


def main():
    chosen = [int(number) for number in sys.argv[1:]] or range(len(MISTAKES))
    COPY.mkdir(parents=True, exist_ok=True)
    copy_tree()
    if run(["cmake", "--preset", "release", "-DINFRA_BUILD_TOOLS=OFF"]).returncode != 0 \
            or not build() or not tests_pass():
        print("without a mistake the tests do not pass")
        return 2
    code = 0
    for number in chosen:
        found = is_found(number)
        text = {True: "found", False: "NOT FOUND", None: "CANNOT BE MADE"}[found]
        print(f"{number:3} {text:14} {MISTAKES[number][0]}", flush=True)
        code = max(code, {True: 0, False: 1, None: 2}[found])
    return code


if __name__ == "__main__":
    sys.exit(main())
