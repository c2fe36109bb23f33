"""The installed library serves the client that README.md shows, found by pkg-config and by CMake; and the examples
build against it as their comments say."""
import os
import pathlib
import re
import shutil
import sys
import tempfile

from clients import ROOT, builds_with_pkg_config, keeps_a_letter, run, write_client

cmake, build, *compilers = sys.argv[1:]
os.environ |= zip(("CC", "CXX"), compilers)

PROJECT = """
cmake_minimum_required(VERSION 3.25)
project(client LANGUAGES C CXX)
find_package(vaultry 1.0 REQUIRED)
add_executable(shared client.c)
target_link_libraries(shared vaultry::vaultry)
add_executable(static client.c)
target_link_libraries(static vaultry::static)
"""


def documents_its_options(vaultry, page):
    """The page has each option of each command's help where it tells of that command, or of all, and no other."""
    def options(text):
        return set(re.findall(r"(?<![\w-])--[a-z][a-z-]*", text.replace("\\-", "-")))

    def help_of(*command):
        return run(vaultry, *command, "--help", where="/", env={})

    def helped(*command):
        return set(re.findall(r"^  (?:-\w,)?(--[a-z-]+)", help_of(*command), re.M))

    commands = re.findall(r"^  (\w+) ", help_of().split("Subcommands:")[1].split("\n\n")[0], re.M)
    each, rest = page.split(".SS All commands")[1].split("\n.SH OPTIONS")
    parts = re.split(r'^\.T[PQ]\n\.B[RI]? "?(%s)\b' % "|".join(commands), each, flags=re.M)
    told = dict(zip(parts[1::2], parts[2::2]))
    of_all = options(page.split(".SS Which generation")[1].split(".SS")[0] + rest.split("\n.SH")[0])
    every = helped()
    for command in commands:
        every |= helped(command)
        if missing := helped(command) - options(told.get(command, "")) - of_all:
            sys.exit(f"vaultry.1 does not tell {command}'s {missing}")
    of_others = re.compile(r"^\.B \w+ctl .*$", re.M)
    if wrong := options(of_others.sub("", page)) - every:
        sys.exit(f"vaultry.1 tells of {wrong}, which no command has")


with tempfile.TemporaryDirectory(prefix="vaultry-installed-") as temporary:
    where = pathlib.Path(temporary).resolve()
    prefix = where / "prefix"
    run(cmake, "--install", build, "--prefix", prefix, where=where)
    libdir = next(prefix.glob("**/libvaultry.so")).parent
    environment = dict(os.environ, PKG_CONFIG_PATH=str(libdir / "pkgconfig"), CMAKE_PREFIX_PATH=str(prefix),
                       CFLAGS="-Wall -Wextra -Wpedantic -Werror", CXXFLAGS="-Wall -Wextra -Wpedantic -Wshadow -Werror")
    loading = dict(environment, LD_LIBRARY_PATH=str(libdir))

    write_client(where)
    (where / "CMakeLists.txt").write_text(PROJECT, encoding="utf-8")

    builds_with_pkg_config(where, libdir, "client")

    for source, into in ((where, where / "build"), (ROOT / "examples", where / "examples")):
        run(cmake, "-G", "Ninja", "-S", source, "-B", into, where=where, env=environment)
        run(cmake, "--build", into, where=where)
    keeps_a_letter(where / "build/shared", where)
    keeps_a_letter(where / "build/static", where)
    run(where / "examples/history", where=where, code=2)

    documents_its_options(prefix / "bin/vaultry", (prefix / "share/man/man1/vaultry.1").read_text(encoding="utf-8"))
    for shell, name in ("bash", "bash-completion/completions/vaultry"), ("zsh", "zsh/site-functions/_vaultry"), \
            ("fish", "fish/vendor_completions.d/vaultry.fish"):
        if (prefix / "share" / name).read_text() != run(prefix / "bin/vaultry", "completion", shell, where=where):
            sys.exit(f"share/{name} is not what the command prints")
    if not (prefix / "share/vaultry/schemas/error.json").is_file():
        sys.exit("no schemas are installed")

    # What the timers run is what the command takes, and the system's checker takes the units.
    units = sorted((prefix / "lib/systemd/user").iterdir())
    run(prefix / "bin/vaultry", "init", "--store", where / "store", where=where)
    for unit in units:
        text = unit.read_text(encoding="utf-8")
        commands = re.findall(r"^ExecStart=-?(vaultry .*)$", text, re.M)
        if bool(commands) != (unit.suffix == ".service") or unit.with_suffix(".timer") not in units:
            sys.exit(f"{unit.name} has these commands: {commands}, or no timer")
        for command in commands:
            words = command.replace("$RULES", re.sub(r"(?s).*# RULES=(.*?)\n.*", r"\1", text)).split()
            run(prefix / "bin" / words[0], *words[1:], where=where, env={"VAULTRY_STORE": str(where / "store")})
        found = re.sub("ExecStart=(-?)", rf"ExecStart=\1{prefix}/bin/", re.sub("(?m)^Documentation=.*\n", "", text))
        unit.write_text(found, encoding="utf-8")
    if shutil.which("systemd-analyze"):
        session = dict(os.environ, XDG_RUNTIME_DIR=str(where))
        said = run("systemd-analyze", "verify", "--user", *units, where=where, env=session)
        if str(prefix) in said:
            sys.exit(said)  # a warning

    for source in sorted((ROOT / "examples").glob("*.c*")):
        text = source.read_text(encoding="utf-8")
        command = re.search(rf"^//     (\S+ .*{re.escape(source.name)} .*pkg-config.*)$", text, re.M)[1]
        run("sh", "-ec", command.replace("-o ", f"-o {where}/"), where=source.parent, env=environment)
        run(where / source.stem, where=where, code=2, env=loading)
        if text.count("\n") >= 80:
            sys.exit(f"{source.name}: 80 lines or more")
