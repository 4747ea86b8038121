"""numbers.py COMPILER... OUT -- writes Darwin's numbers, as the cross compiler's own headers have them, below OUT.

COMPILER is the command of the cross compiler with its options.  numbers.txt says what is asked; families of
macros (errno, signals, open's flags, sysconf's names ...) are found in the headers by their names.

    darwinNumbers.h   DARWIN_NAME for each value, DARWIN_SIZEOF_struct, DARWIN_OFFSET_struct_field
    FAMILY.inc        "PAIR(NAME)," for each value of a family that this host has by the same name
    darwin.json       the values, for tests
"""

import json
import re
import subprocess
import sys
from pathlib import Path

HEADERS = """cstdio cstdlib cstring cstddef cctype cwctype clocale cerrno climits csignal unistd.h fcntl.h dirent.h
dlfcn.h grp.h pwd.h langinfo.h libproc.h locale.h mach-o/compact_unwind_encoding.h mach-o/loader.h mach-o/nlist.h mach/mach.h mach/mach_time.h mach_debug/mach_debug_types.h poll.h
pthread.h copyfile.h regex.h runetype.h sys/file.h sys/mman.h sys/mount.h sys/param.h sys/resource.h sys/socket.h sys/stat.h
sys/sysctl.h sys/time.h sys/types.h sys/utsname.h sys/wait.h time.h utime.h wchar.h xlocale.h""".split()
FAMILIES = {
    "errno": r"E(?!OF$|LAST$|XIT|RA$)[A-Z0-9]+",
    "signal": r"SIG(?!STKSZ|NAL|EV|_)[A-Z0-9]+",
    "open": r"O_[A-Z_]+",
    "sysconf": r"_SC_[A-Z0-9_]+",
    "pathconf": r"_PC_[A-Z0-9_]+",
    "langinfo": r"CODESET|D_T_FMT|D_FMT|T_FMT|T_FMT_AMPM|AM_STR|PM_STR|(AB)?DAY_\d+|(AB)?MON_\d+|RADIXCHAR|THOUSEP|YESEXPR"
                r"|NOEXPR|CRNCYSTR",
}


def include(headers):
    return "".join(f"#include <{header}>\n" for header in headers)


def compiled(compiler, arguments, source, out):
    path, result = out / "numbers.cpp", out / "numbers.out"
    path.write_text(source)
    done = subprocess.run([*compiler, "-std=c++20", *arguments, path, "-o", result], capture_output=True, text=True)
    if done.returncode != 0:
        sys.exit(f"numbers.py: {done.stderr}")
    return result.read_text()


def families(compiler, out):
    """The names of each family, of macros with a value and without arguments."""
    text = compiled(compiler, ["-E", "-dM"], include(HEADERS), out)
    names = re.findall(r"^#define (\w+) \S", text, re.M)
    return {family: sorted(name for name in names if re.fullmatch(pattern, name))
            for family, pattern in FAMILIES.items()}


def structure(prefix, name, spelling, fields):
    yield f"{prefix}SIZEOF_{name}", f"sizeof({spelling})"
    for field in fields:
        yield f"{prefix}OFFSET_{name}_{field}", f"offsetof({spelling}, {field})"


def asked(lines):
    """What numbers.txt asks for: values by name, of today's layouts and of the old ones."""
    today, old = {}, {}
    for line in lines:
        words = line.split("#")[0].split()
        if not words:
            continue
        which, prefix = (old, "OLD_") if words[0] == "old" else (today, "")
        kind, *rest = words[1:] if prefix else words
        if kind == "constant":
            which.update((name, name) for name in rest)
        elif kind in ("struct", "type"):
            spelling = f"struct {rest[0]}" if kind == "struct" else rest[0]
            which.update(structure(prefix, rest[0], spelling, rest[1:]))
        else:
            sys.exit(f"numbers.py: what is '{line}'?")
    return today, old


def values(compiler, expressions, out, defines=()):
    """What each expression is on Darwin."""
    names = list(expressions)
    source = include(HEADERS) + "#pragma clang diagnostic ignored \"-Wgnu-offsetof-extensions\"\n" + \
        "extern \"C\" const long long values[] = {\n" + \
        "".join(f"(long long)({expressions[name]}),\n" for name in names) + "-4242424242};\n"
    text = compiled(compiler, ["-S", *defines], source, out)
    found, inside = [], False
    for line in text.splitlines():
        inside = inside or line.startswith("_values:")
        if number := inside and re.match(r"\s+\.quad\s+(-?\d+)", line):
            found.append(int(number[1]))
        elif zeros := inside and re.match(r"\s+\.(?:space|zero)\s+(\d+)", line):
            found += [0] * (int(zeros[1]) // 8)
    if len(found) != len(names) + 1 or found[-1] != -4242424242:
        sys.exit(f"numbers.py: {len(names)} values asked for, {len(found) - 1} found")
    return dict(zip(names, found))


def guarded(name):
    return f"#ifdef {name}\nPAIR({name}),\n#endif\n"


def main(*arguments):
    *compiler, out = arguments
    out = Path(out)
    out.mkdir(parents=True, exist_ok=True)
    members = families(compiler, out)
    today, old = asked((Path(__file__).parent / "numbers.txt").read_text().splitlines())
    today.update((name, name) for names in members.values() for name in names)
    found = values(compiler, today, out) | values(compiler, old, out, ["-D_DARWIN_NO_64_BIT_INODE"])
    header = "".join(f"inline constexpr long long DARWIN_{name} = {value}{'LL' if value > -2**63 else ''};\n"
                     for name, value in sorted(found.items()))
    (out / "darwinNumbers.h").write_text(f"// Made by numbers.py from Darwin's headers.\n#pragma once\n{header}")
    for family, names in members.items():
        (out / f"{family}.inc").write_text("".join(map(guarded, names)))
    (out / "darwin.json").write_text(json.dumps(found, indent=1, sort_keys=True))


if __name__ == "__main__":
    main(*sys.argv[1:])
