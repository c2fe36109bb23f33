"""The headers' exports, the symbol map and the symbols of libvaultry.so are one set, and documented. The functions that
the library imports do nothing to its process. A client's own functions of the same names replace none of the
library's."""
import pathlib
import re
import runpy
import subprocess
import sys
import tempfile

library = str(pathlib.Path(sys.argv[1]).resolve())

root = pathlib.Path(__file__).resolve().parents[2]
headers = runpy.run_path(str(root / "scripts/update-symbols"))
problems = []


def same(what, have, other, wanted):
    problems.extend(f"{name}: in {what}, not in {other}" for name in sorted(have - wanted))
    problems.extend(f"{name}: in {other}, not in {what}" for name in sorted(wanted - have))


symbols, forgotten = headers["exported"]()
problems += forgotten
declared = {name for _, _, name, _ in symbols}

listed = re.findall(r"^    (\w+);$", headers["MAP"].read_text(encoding="utf-8").partition("local:")[0], re.M)
same("the headers", declared, "packaging/vaultry.map", set(listed))
if listed != sorted(listed):
    problems.append("packaging/vaultry.map is not sorted; scripts/update-symbols writes it anew")

table = subprocess.run(["nm", "-D", "--defined-only", library], check=True, capture_output=True, text=True).stdout
real = {line.split()[2] for line in table.splitlines() if line.split()[1] != "A"}
functions = {line.split()[2].partition("@")[0] for line in table.splitlines() if line.split()[1] == "T"}
same("the headers", declared, "libvaultry.so", {name.partition("@")[0] for name in real})
problems += [f"{name}: not of VAULTRY_1.0" for name in real if not name.endswith("@@VAULTRY_1.0")]

# TQGetTypeID explains its siblings.
problems += [f"include/vaultry/{header}:{line}: {name} has no doc comment"
             for header, line, name, documented in symbols if not documented and not name.endswith("GetTypeID")]

# Functions that would change the library's process, write on its behalf or end it. One is deliberate: a lock that can't
# be released would stop every other process for good.
FORBIDDEN = re.compile(r"f?chdir|chroot|umask|(set|use|new)locale|signal|sig(action|procmask|wait|suspend|altstack)|"
                       r"pthread_(sigmask|create)|alarm|setitimer|timer_create|(un)?setenv|putenv|clearenv|"
                       r"(quick_)?_?exit|_Exit|abort|raise|kill|v?[fd]?printf|f?puts|f?putc|putchar|p?write(64)?v?|"
                       r"f?write|perror|stdout|stderr|_ZSt4(cout|cerr|clog)|v?fork|exec.*|posix_spawn.*|system|popen|"
                       r"set(re|res)?[ug]id|setrlimit(64)?|nice|openlog|setlogmask|dlopen|atexit|srand(om)?|tzset")
table = subprocess.run(["nm", "-D", "--undefined-only", library], check=True, capture_output=True, text=True).stdout
imports = {line.split()[-1].partition("@")[0] for line in table.splitlines()}
forbidden = {name for name in imports if FORBIDDEN.fullmatch(name)} - {"abort", "pwrite64"}
problems += [f"libvaultry.so calls {name}" for name in sorted(forbidden)]

dynamic = subprocess.run(["readelf", "-d", library], check=True, capture_output=True, text=True).stdout
if "soname: [libvaultry.so.1]" not in dynamic:
    problems.append("the library's name is not libvaultry.so.1")
needed = set(re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic))
strangers = {name for name in needed if not re.match(r"lib(stdc\+\+|gcc_s|c|m)\.so|ld-linux", name)}
problems += [f"libvaultry.so needs {name}" for name in strangers]

# A client that has its own function for each exported one; calling any of them ends it. Its threshold is the library's.
CLIENT = r"""
#include <vaultry/vaultry.h>

#include <dlfcn.h>
#include <stdio.h>

#define OF_LIBRARY(name) ((__typeof__(&name))dlsym(library, #name))

static int lines;
void syslog(int level, const char *format, ...) { (void)level, (void)format, ++lines; }
void __syslog_chk(int level, int flag, const char *format, ...) { (void)level, (void)flag, (void)format, ++lines; }

int main(int count, char **arguments)
{
    void *library = dlopen(arguments[1], RTLD_NOW);
    if (count != 4 || !library) return fprintf(stderr, "%s\n", dlerror()), 1;
    TQURL *store = OF_LIBRARY(TQURLCreateWithFileSystemPath)(arguments[2], true);
    TQURL *document = OF_LIBRARY(TQURLCreateWithFileSystemPath)(arguments[3], false);
    TQString *first = OF_LIBRARY(TQStringCreate)("first"), *second = OF_LIBRARY(TQStringCreate)("second");
    TQLibrary *opened = OF_LIBRARY(TQLibraryCreateClientManaged)(NULL, store, NULL);
    bool done = OF_LIBRARY(TQLibraryAddGenerationWithOptionsByCopyingFile)(opened, first, document, 0, NULL) &&
                OF_LIBRARY(TQLibraryRestoreGeneration)(opened, first, document, second, NULL);
    for (tq_log_min_priority = 2; tq_log_min_priority <= 3; ++tq_log_min_priority)
        done &= !OF_LIBRARY(TQCopyOriginalDisplayName)(arguments[3], NULL) && lines == tq_log_min_priority - 2;
    done &= OF_LIBRARY(TQLibraryDestroyClientManaged)(store, NULL);
    OF_LIBRARY(TQRelease)(opened);
    return done ? 0 : 2;
}
"""
with tempfile.TemporaryDirectory(prefix="vaultry-symbols-") as temporary:
    where = pathlib.Path(temporary).resolve()
    (where / "client.c").write_text(CLIENT, encoding="utf-8")
    (where / "theirs.c").write_text("#include <stdio.h>\n#include <stdlib.h>\n" + "".join(
        f'void {name}(void);\nvoid {name}(void) {{ fputs("{name} is called\\n", stderr), abort(); }}\n'
        for name in sorted(functions)), encoding="utf-8")
    (where / "document").mkdir()
    (where / "store").mkdir()
    subprocess.run(["cc", "-fno-builtin", "-fno-pie", "-no-pie", "-rdynamic", f"-I{root / 'include'}", "client.c",
                    "theirs.c", library, f"-Wl,-rpath,{pathlib.Path(library).parent}", "-o", "client"],
                   cwd=where, check=True)
    client = subprocess.run(["./client", library, where / "store", where / "document"], cwd=where, check=False,
                            capture_output=True, text=True)
    if client.returncode != 0 or (where / "store").exists() or len(functions) < 200:
        problems.append(f"a client's own functions are called: exit {client.returncode}, {client.stderr}")

print(f"{len(declared)} declared, {len(listed)} listed, {len(real)} exported")
print(*problems, sep="\n")
sys.exit(1 if problems else 0)
