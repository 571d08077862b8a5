"""The checks of Tools must find what they are there for: each is shown faults and must name them."""

import pathlib
import subprocess
import sys
import tempfile
import unittest

TOOLS = pathlib.Path(__file__).resolve().parent.parent.parent / "Tools"
sys.path.insert(0, str(TOOLS))

import check_exports  # noqa: E402
import check_layers  # noqa: E402
import sources  # noqa: E402


class LayersTest(unittest.TestCase):
    CASES = [  # file, its text, what the fault says ("" for none)
        ("Src/Infra3/Mutex.cpp", '#include "Infra/Infra3/Guard.h"\n#include <map>', ""),
        ("Src/Infra3/Timer.cpp", '#include "Infra/Infra3/Mutex.h"', ""),
        ("Src/Memory/ShareMem/SharePacket.cpp", '#include "Memory/PacketInternal.h"', ""),
        ("Tests/Memory/PacketTest.cpp", '#include "Memory/PacketInternal.h"', ""),
        ("Src/Infra3/Mutex.cpp", '#include "Infra/Infra3/Timer.h"', "above it"),
        ("Src/Infra3/Time.cpp", '#  include "Memory/Packet.h"', "above it"),
        ("Src/Component/Client.cpp", '#include "Infra/Thread.h"', "above it"),
        ("Include/Memory/Packet.h", '#include "Memory/PacketInternal.h"', "not installed"),
        ("Src/Component/Client.cpp", '#include "Memory/PacketInternal.h"', "belongs to Memory"),
        ("Src/Infra3/Timer.cpp", '#include "Mutex.h"', "not whole"),
        ("Src/Infra3/Timer.cpp", '#include "Infra3/Nowhere.h"', "no file of ours"),
        ("Src/Infra3/Timer.cpp", "#include <Infra/Infra3/Mutex.h>", 'stands in ""'),
        ("Src/Infra3/Timer.cpp", '#include "Support/LogCapture.h"', "above it"),
        ("Src/Infra3/Whatever.cpp", "", "belongs to no row"),
    ]
    TREE = ["Include/Infra/Thread.h", "Include/Infra/Infra3/Mutex.h",
            "Include/Infra/Infra3/Guard.h", "Include/Infra/Infra3/Timer.h",
            "Include/Memory/Packet.h", "Src/Infra3/Mutex.h", "Src/Memory/PacketInternal.h",
            "Tests/Support/LogCapture.h"]

    def test_names_each_kind_of_fault_and_nothing_else(self):
        for path, text, expected in self.CASES:
            with self.subTest(file=path, text=text), tempfile.TemporaryDirectory() as folder:
                faults = self.faults_in(pathlib.Path(folder).resolve(), path, text)
                if expected:
                    self.assertEqual(len(faults), 1, faults)
                    self.assertIn(expected, faults[0])
                else:
                    self.assertEqual(faults, [])

    def faults_in(self, root, path, text):
        for name in [*self.TREE, path]:
            (root / name).parent.mkdir(parents=True, exist_ok=True)
            (root / name).touch()
        (root / path).write_text(text)
        saved = sources.ROOT, sources.INCLUDE_ROOTS
        sources.ROOT = root
        sources.INCLUDE_ROOTS = tuple(root / name for name in ("Include", "Src", "Tests"))
        try:
            return list(check_layers.faults_of_file(check_layers.File(root / path)))
        finally:
            sources.ROOT, sources.INCLUDE_ROOTS = saved


class ExportsTest(unittest.TestCase):
    def test_tells_offered_names_from_others(self):
        offered = check_exports.offered_pattern()
        for name in ["Tarsel::Infra::CMutex::enter()", "Infra_print", "Infra_logFilter",
                     "Infra_printLogLevel", "DumpHex(unsigned char*, unsigned long)",
                     "CVersion::appDate", "typeinfo for Tarsel::Infra::CTimer",
                     "vtable for Tarsel::Infra::CThread"]:
            self.assertTrue(offered.match(name), name)
        for name in ["std::vector<Tarsel::Infra::CTimer*>::push_back(Tarsel::Infra::CTimer*&&)",
                     "void std::sort<Tarsel::Infra::CTimer*>(Tarsel::Infra::CTimer*)",
                     "typeinfo for std::_Sp_make_shared_tag", "CVersionTable::grow()",
                     "helper(int)", "Infra_hidden"]:
            self.assertFalse(offered.match(name), name)

    def test_finds_a_foreign_name_soname_and_dependency_in_a_real_library(self):
        with tempfile.TemporaryDirectory() as folder:
            library = pathlib.Path(folder) / "libother.so"
            subprocess.run(["g++", "-shared", "-fPIC", "-x", "c++", "-", "-o", library,
                            "-Wl,--no-as-needed", "-lresolv"],
                           input="int helper(int x) { return x; }", text=True, check=True)
            result = subprocess.run([sys.executable, TOOLS / "check_exports.py", library],
                                    capture_output=True, text=True, check=False)
        self.assertEqual(result.returncode, 1)
        self.assertIn("exports helper(int)", result.stdout)
        self.assertIn("the soname is missing", result.stdout)
        self.assertIn("depends on libresolv.so.2", result.stdout)


if __name__ == "__main__":
    unittest.main()
