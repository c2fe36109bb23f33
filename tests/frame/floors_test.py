"""scripts/check-floors sees every kind of climb, with its file and line, and nothing else."""
import pathlib
import subprocess
import sys
import tempfile

root = pathlib.Path(__file__).resolve().parents[2]

FILES = {
    # A source file, its includes, and the lines of those that must be refused.
    "src/Platform/a.cpp": (['"Platform/a.h"', "<vaultry/file_status.h>", "<vector>", "<vaultry/value.h>",
                            '"Runtime/a.h"', '"../Runtime/a.h"', "<CLI/CLI.hpp>", '"absent.h"'], [4, 5, 6, 7, 8]),
    "src/Platform/a.h": ([], []),
    "src/Runtime/a.h": (['"Platform/a.h"', "<vaultry/plist.h>", "<vaultry/status.h>"], [3]),
    "src/Shared/tq_log.cpp": (['"Shared/vaultry_internal.h"', '"vaultry_internal.h"', '"Shared/vaultry_storage.h"',
                               "  # include <vaultry/archive.h>"], [3, 4]),
    "src/Shared/vaultry_internal.h": ([], []),
    "src/Shared/vaultry_storage.h": (['"vaultry_internal.h"', '"../vaultry_client_managed.h"'], [2]),
    "src/vaultry_client_managed.h": (['"Shared/vaultry_storage.h"', "<vaultry/library.h>", '"TQLibrary.h"'], [2, 3]),
    "src/TQLibrary.h": (['"vaultry_client_managed.h"', "<vaultry/library.h>", "<vaultry/vaultry.h>"], [3]),
    "src/stray.cpp": ([], [1]),
    "tools/vaultry/main.cpp": (["<vaultry/vaultry.h>", '"local.h"', "<CLI/CLI.hpp>", '"../../src/TQLibrary.h"',
                                "<Platform/a.h>"], [4, 5]),
    "tools/vaultry/local.h": ([], []),
    "include/vaultry/base.h": ([], []),
    "include/vaultry/file_status.h": (["<vaultry/base.h>"], []),
    "include/vaultry/value.h": (["<vaultry/base.h>", "<vaultry/log.h>", '"../../src/Platform/a.h"'], [2, 3]),
    "include/vaultry/plist.h": ([], []),
    "include/vaultry/status.h": ([], []),
    "include/vaultry/log.h": ([], []),
    "include/vaultry/archive.h": ([], []),
    "include/vaultry/library.h": ([], []),
    "include/vaultry/vaultry.h": (["<vaultry/library.h>"], []),
    "include/vaultry/unheard.h": ([], [1]),
}

with tempfile.TemporaryDirectory() as temporary:
    for name, (includes, _) in FILES.items():
        path = pathlib.Path(temporary, name)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text("".join(f"{i if 'include' in i else '#include ' + i}\n" for i in includes), encoding="utf-8")
    run = subprocess.run([root / "scripts/check-floors", temporary], capture_output=True, text=True)

wanted = {f"{name}:{line}" for name, (_, refused) in FILES.items() for line in refused}
found = {":".join(line.split(":")[:2]) for line in run.stdout.splitlines()}
print(run.stdout, run.stderr)
print(*[f"not refused: {where}" for where in sorted(wanted - found)], sep="\n")
print(*[f"refused for nothing: {where}" for where in sorted(found - wanted)], sep="\n")
sys.exit(0 if found == wanted and run.returncode == 1 else 1)
