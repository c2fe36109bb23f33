"""The installed library serves the client that README.md shows, found by pkg-config and by CMake; and the examples build
against it as their comments say."""
import os
import pathlib
import re
import subprocess
import sys
import tempfile

cmake, build = sys.argv[1:]
root = pathlib.Path(__file__).resolve().parents[2]

PROJECT = """
cmake_minimum_required(VERSION 3.25)
project(client LANGUAGES C CXX)
find_package(vaultry 1.0 REQUIRED)
add_executable(shared client.c)
target_link_libraries(shared vaultry::vaultry)
add_executable(static client.c)
target_link_libraries(static vaultry::static)
"""


def run(*command, where, code=0, **more):
    result = subprocess.run(command, cwd=where, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **more)
    if result.returncode != code:
        sys.exit(f"{' '.join(map(str, command))}: exit {result.returncode}, not {code}\n{result.stdout}")
    return result.stdout


def keeps_a_letter(program, where, **more):
    """Runs README.md's program on a document of its own."""
    home = pathlib.Path(tempfile.mkdtemp(dir=where))
    (home / "versions").mkdir()
    (home / "letter.txt").write_text("Dear reader,\n", encoding="utf-8")
    run(program, where=home, **more)
    back = (home / "letter as it was.txt").read_text(encoding="utf-8")
    if back != "Dear reader,\n":
        sys.exit(f"{program}: the letter came back as {back!r}")


with tempfile.TemporaryDirectory(prefix="vaultry-installed-") as temporary:
    where = pathlib.Path(temporary).resolve()
    prefix = where / "prefix"
    run(cmake, "--install", build, "--prefix", prefix, where=where)
    libdir = next(prefix.glob("**/libvaultry.so")).parent
    environment = dict(os.environ, PKG_CONFIG_PATH=str(libdir / "pkgconfig"), CMAKE_PREFIX_PATH=str(prefix),
                       CFLAGS="-Wall -Wextra -Wpedantic -Werror", CXXFLAGS="-Wall -Wextra -Wpedantic -Wshadow -Werror")
    loading = dict(environment, LD_LIBRARY_PATH=str(libdir))

    programs = re.findall(r"^```c\n(.*?)^```$", (root / "README.md").read_text(encoding="utf-8"), re.M | re.S)
    if len(programs) != 1:
        sys.exit(f"README.md has {len(programs)} C programs")
    (where / "client.c").write_text(programs[0], encoding="utf-8")
    (where / "CMakeLists.txt").write_text(PROJECT, encoding="utf-8")

    flags = run("pkg-config", "--cflags", "--libs", "vaultry", where=where, env=environment).split()
    run("cc", "-std=c11", "-Wall", "-Wextra", "-Werror", "client.c", "-o", "client", *flags, where=where)
    keeps_a_letter(where / "client", where, env=loading)

    for source, into in ((where, where / "build"), (root / "examples", where / "examples")):
        run(cmake, "-G", "Ninja", "-S", source, "-B", into, where=where, env=environment)
        run(cmake, "--build", into, where=where)
    keeps_a_letter(where / "build/shared", where)
    keeps_a_letter(where / "build/static", where)
    run(where / "examples/history", where=where, code=2)

    run(prefix / "bin/vaultry", "--help", where=where, env={})

    for source in sorted((root / "examples").glob("*.c*")):
        text = source.read_text(encoding="utf-8")
        command = re.search(rf"^//     (\S+ .*{re.escape(source.name)} .*pkg-config.*)$", text, re.M)[1]
        run("sh", "-ec", command.replace("-o ", f"-o {where}/"), where=source.parent, env=environment)
        run(where / source.stem, where=where, code=2, env=loading)
        if text.count("\n") >= 80:
            sys.exit(f"{source.name}: 80 lines or more")
