"""The examples build against the installed library, as their comments say, and do what they say on real files."""
import os
import pathlib
import re
import subprocess
import sys
import tempfile

cmake, build = sys.argv[1:]
examples = pathlib.Path(__file__).resolve().parents[2] / "examples"
problems = []


def run(*command, where, code=0, **more):
    """The output and the words on standard error of a command that must end with `code`."""
    done = subprocess.run(command, cwd=where, capture_output=True, text=True, **more)
    if done.returncode != code:
        sys.exit(f"{' '.join(map(str, command))}: exit {done.returncode}, not {code}\n{done.stdout}{done.stderr}")
    return done.stdout, done.stderr


def expect(what, found, wanted):
    if not (re.fullmatch(wanted, found) if isinstance(found, str) else found == wanted):
        problems.append(f"{what}: {found!r}, not {wanted!r}")


def use(bin, where):
    """One document's life, through all three programs and one store."""
    store, home, other, package = (where / name for name in ("versions", "home", "other", "package"))
    for directory in (store, home, other, package):
        directory.mkdir()
    letter = home / "letter.txt"
    letter.write_text("first\n")
    letter.chmod(0o640)

    first = run(bin / "save_hook", store, letter, "save", where=where, input="second\n")[0].strip()
    expect("saved", letter.read_text(), "second\n")
    expect("kept", (store / first).read_text(), "first\n")
    second = run(bin / "save_hook", store, letter, "restore", first, where=where)[0].strip()
    expect("restored", letter.read_text(), "first\n")
    expect("the backup", (store / second).read_text(), "second\n")
    expect("rights", letter.stat().st_mode & 0o777, 0o640)

    # What is not kept is not overwritten, whatever is asked.
    said = run(bin / "save_hook", store, letter, "restore", "no such name", where=where, code=1)[1]
    expect("an unknown name", said, "save_hook: can't restore: .* generation name doesn't exist\n")
    said = run(bin / "save_hook", package, package, "save", where=where, input="lost\n", code=1)[1]
    expect("a document that holds the store", said, "save_hook: can't keep .*contains the store\n")

    copy = other / "letter.txt"
    copy.write_text("from elsewhere\n")
    os.utime(letter, (10**9, 10**9))
    run(bin / "sync_agent", store, home, other, where=where)
    expect("newer than what came", copy.read_text(), "from elsewhere\n")
    os.utime(copy, (10**8, 10**8))
    out = run(bin / "sync_agent", store, home, other, where=where)[0]
    expect("sync", out, f"kept {copy}, 15 bytes\nupdated {copy}\n")
    expect("updated", copy.read_text(), "first\n")
    long = "a." + "x" * 240  # as an extension, too long for the name of a generation
    (other / long).write_text("stays")
    (home / long).write_text("comes")
    os.utime(other / long, (10**8, 10**8))
    out, said = run(bin / "sync_agent", store, home, other, where=where, code=1)
    expect("nothing is said to be kept", out, "")
    expect("what can't be kept", said, f"sync_agent: .*{long}: not updated, since it can't be kept: .+\n")
    expect("and is not overwritten", (other / long).read_text(), "stays")
    said = run(bin / "sync_agent", where / "missing", home, other, where=where, code=1)[1]
    expect("no store", said, "sync_agent: .*missing.* does not exist\n")

    line = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d +"
    out = run(bin / "history", store, "home/letter.txt", where=where)[0]
    expect("history", out, f"{line}7  {re.escape(second)}\n{line}6  {re.escape(first)}\n2 generations\n")
    copy.unlink()
    out = run(bin / "history", store, copy, where=where)[0]
    expect("history of what is gone", out, rf"{line}15  sync \d+\.txt\n1 generation\n")
    out = run(bin / "history", store, where=where)[0]
    expect("history of all", out, rf"(?s).*\.txt  {re.escape(str(letter))}\n.*3 generations\n")
    said = run(bin / "history", where / "missing", where=where, code=1)[1]
    expect("history of no store", said, "history: .*missing.* does not exist\n")
    expect("staging", os.listdir(store / ".vaultry_staging"), [])
    subprocess.run(["chmod", "-R", "u+w", store, package], check=True)


with tempfile.TemporaryDirectory(prefix="vaultry-examples-") as temporary:
    where = pathlib.Path(temporary).resolve()
    prefix = where / "prefix"
    run(cmake, "--install", build, "--prefix", prefix, where=where)
    libdir = next(prefix.glob("**/libvaultry.so")).parent
    environment = dict(os.environ, PKG_CONFIG_PATH=str(libdir / "pkgconfig"), CMAKE_PREFIX_PATH=str(prefix),
                       CFLAGS="-Wall -Wextra -Wpedantic -Werror", CXXFLAGS="-Wall -Wextra -Wpedantic -Wshadow -Werror")
    run(cmake, "-G", "Ninja", "-S", examples, "-B", where / "build", where=where, env=environment)
    run(cmake, "--build", where / "build", where=where)
    use(where / "build", where)

    for source in sorted(examples.glob("*.c*")):
        text = source.read_text(encoding="utf-8")
        expect(f"{source.name}: fewer than 80 lines", text.count("\n") < 80, True)
        command = re.search(rf"^//     (\S+ .*{re.escape(source.name)} .*pkg-config.*)$", text, re.M)
        run("sh", "-ec", f"cd {examples}; " + command[1].replace("-o ", f"-o {where}/"), where=where, env=environment)
        run(where / source.stem, where=where, code=2, env=dict(environment, LD_LIBRARY_PATH=str(libdir)))

print(*problems, sep="\n")
sys.exit(1 if problems else 0)
