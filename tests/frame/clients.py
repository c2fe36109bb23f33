"""Shared by the frame tests that build and install: commands, and the program that README.md shows."""
import os
import pathlib
import re
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]


def run(*command, where, code=0, **more):
    result = subprocess.run(command, cwd=where, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **more)
    if result.returncode != code:
        sys.exit(f"{' '.join(map(str, command))}: exit {result.returncode}, not {code}\n{result.stdout}")
    return result.stdout


def write_client(where):
    """Writes README.md's program to client.c."""
    programs = re.findall(r"^```c\n(.*?)^```$", (ROOT / "README.md").read_text(encoding="utf-8"), re.M | re.S)
    if len(programs) != 1:
        sys.exit(f"README.md has {len(programs)} C programs")
    (where / "client.c").write_text(programs[0], encoding="utf-8")


def keeps_a_letter(program, where, **more):
    """Runs README.md's program on a document of its own."""
    home = pathlib.Path(tempfile.mkdtemp(dir=where))
    (home / "versions").mkdir()
    (home / "letter.txt").write_text("Dear reader,\n", encoding="utf-8")
    run(program, where=home, **more)
    back = (home / "letter as it was.txt").read_text(encoding="utf-8")
    if back != "Dear reader,\n":
        sys.exit(f"{program}: the letter came back as {back!r}")


def builds_with_pkg_config(where, libdir, name, *options, root=""):
    """Builds client.c as README.md says, against what is installed in `libdir`, and runs it."""
    environment = dict(os.environ, PKG_CONFIG_LIBDIR=str(libdir / "pkgconfig"), PKG_CONFIG_SYSROOT_DIR=str(root))
    flags = run("pkg-config", "--cflags", "--libs", *options, "vaultry", where=where, env=environment).split()
    run(os.environ.get("CC", "cc"), "-std=c11", "-Wall", "-Wextra", "-Werror", "client.c", "-o", name, *flags,
        where=where)
    keeps_a_letter(where / name, where, env=dict(os.environ, LD_LIBRARY_PATH=str(libdir)))
    return flags
