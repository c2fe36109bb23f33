"""scripts/check-floors sees every kind of climb, with its file and line, and nothing else.

floors.txt holds the files, each with its lines below it; lines with an "x" must be refused.
"""
import pathlib
import subprocess
import sys
import tempfile

here = pathlib.Path(__file__).resolve()
wanted = set()
with tempfile.TemporaryDirectory() as temporary:
    for line in here.with_name("floors.txt").read_text(encoding="utf-8").splitlines():
        if not line.startswith(" "):
            name, number = line, 0
            path = pathlib.Path(temporary, name)
            path.parent.mkdir(parents=True, exist_ok=True)
            path.touch()
            continue
        number += 1
        with path.open("a", encoding="utf-8") as file:
            file.write(line[4:] + "\n")
        if line.startswith("  x "):
            wanted.add(f"{name}:{number}")
    run = subprocess.run([here.parents[2] / "scripts/check-floors", temporary], capture_output=True, text=True)

found = {":".join(line.split(":")[:2]) for line in run.stdout.splitlines()}
print(run.stdout, run.stderr)
print(*[f"not refused: {where}" for where in sorted(wanted - found)], sep="\n")
print(*[f"refused for nothing: {where}" for where in sorted(found - wanted)], sep="\n")
sys.exit(0 if found == wanted and run.returncode == 1 else 1)
