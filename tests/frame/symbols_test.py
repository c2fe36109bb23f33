"""What the headers export, what the symbol map lists and what libvaultry.so really has are one set, and documented;
and what it takes from others does nothing to its process."""
import pathlib
import re
import runpy
import subprocess
import sys

library = sys.argv[1]

headers = runpy.run_path(str(pathlib.Path(__file__).resolve().parents[2] / "scripts/update-symbols"))
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
same("the headers", declared, "libvaultry.so", {name.partition("@")[0] for name in real})
problems += [f"{name}: not of VAULTRY_1.0" for name in real if not name.endswith("@@VAULTRY_1.0")]

# TQGetTypeID explains its siblings.
problems += [f"include/vaultry/{header}:{line}: {name} has no doc comment"
             for header, line, name, documented in symbols if not documented and not name.endswith("GetTypeID")]

# What would change the process that the library lives in, speak for it or end it. One is deliberate: a lock that can't be
# released would stop every other process for good.
FORBIDDEN = re.compile(r"f?chdir|chroot|umask|(set|use|new)locale|signal|sig(action|procmask|wait|suspend|altstack)|"
                       r"pthread_(sigmask|create)|alarm|setitimer|timer_create|(un)?setenv|putenv|clearenv|(quick_)?_?exit|"
                       r"_Exit|abort|raise|kill|v?[fd]?printf|f?puts|f?putc|putchar|p?write(64)?v?|f?write|perror|stdout|"
                       r"stderr|_ZSt4(cout|cerr|clog)|v?fork|exec.*|posix_spawn.*|system|popen|set(re|res)?[ug]id|"
                       r"setrlimit(64)?|nice|openlog|setlogmask|dlopen|atexit|srand(om)?|tzset")
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

print(f"{len(declared)} declared, {len(listed)} listed, {len(real)} exported")
print(*problems, sep="\n")
sys.exit(1 if problems else 0)
