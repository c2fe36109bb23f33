"""What the headers export, what the symbol map lists and what libvaultry.so really has are one set, and documented."""
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

dynamic = subprocess.run(["readelf", "-d", library], check=True, capture_output=True, text=True).stdout
if "soname: [libvaultry.so.1]" not in dynamic:
    problems.append("the library's name is not libvaultry.so.1")
needed = set(re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic))
strangers = {name for name in needed if not re.match(r"lib(stdc\+\+|gcc_s|c|m)\.so|ld-linux", name)}
problems += [f"libvaultry.so needs {name}" for name in strangers]

print(f"{len(declared)} declared, {len(listed)} listed, {len(real)} exported")
print(*problems, sep="\n")
sys.exit(1 if problems else 0)
