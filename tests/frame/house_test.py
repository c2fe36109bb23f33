"""An addition that belongs in several places is in all of them: see "When you add" in CONTRIBUTING.md."""
import pathlib
import re
import sys

root = pathlib.Path(__file__).resolve().parents[2]
problems = []


def text(name):
    return (root / name).read_text(encoding="utf-8")


def expect(what, wanted, where):
    """Each wanted word stands in the text of a file, or of one of several."""
    texts = "\n".join(text(name) for name in where.split())
    if not wanted:
        problems.append(f"{what}: none was found, so the test looks in the wrong place")
    for one in wanted:
        if not re.search(rf"(?<![\w-]){re.escape(one)}(?![\w-])", texts):
            problems.append(f"{what} {one!r} is missing in {where}")


def exported(header):
    return re.findall(r"TQ_EXPORT[^;{]*?\b(\w+)\s*\(", text(header))


# A line ends at column 120 at the latest, unless it is a row of a table.
for path in root.rglob("*"):
    name = str(path.relative_to(root))
    is_ours = re.match(r"(?!build/).*(\.(c|cmake|cpp|h|hpp|md|py)|CMakeLists\.txt)$|(scripts/[\w-]+|check|try)$", name)
    for number, line in enumerate(text(name).splitlines() if is_ours else [], 1):
        if len(line) > 120 and not line.startswith("|"):
            problems.append(f"{name}:{number} has {len(line)} columns")

page = text("docs/architecture.md")
tests = " ".join(str(path.relative_to(root)) for path in (root / "tests").rglob("*.cpp"))

# A header: its row in the table says which files have its functions.
rows = dict(re.findall(r"^\| `(\w+\.h)` \| (.*?) \|", page, re.M))
for header in sorted((root / "include/vaultry").glob("*.h")):
    if header.name not in rows and header.name not in ("base.h", "vaultry.h"):
        problems.append(f"docs/architecture.md has no row for {header.name}")
    stems = re.findall(r"`([\w/]+)(\*?)`", rows.get(header.name, ""))
    files = [path for stem, star in stems for path in (root / "src").glob(f"{stem}{star}.cpp")]
    code = "\n".join(path.read_text(encoding="utf-8") for path in files)
    for name in exported(f"include/vaultry/{header.name}"):
        if rows.get(header.name) and not re.search(rf"^\w[^\n;]*\b{name}\(", code, re.M):
            problems.append(f"{header.name}: {name} is in none of {rows[header.name]}")

# An attribute.
attributes = re.findall(r'"(com\.corvane\.vaultry\.\w+)"', text("src/Shared/vaultry_storage.h"))
expect("the attribute", attributes, "docs/architecture.md")
names = set(re.findall(r"constexpr char (k\w+Attribute)\[\]", text("src/Shared/vaultry_storage.h")))
of_generations = re.search(r"kStoreAttributes\[\] = \{(.*?)\}", text("src/Shared/vaultry_storage.h"), re.S)[1]
for name in names - set(re.findall(r"\w+", of_generations)) - {"kMovedFromAttribute"}:
    problems.append(f"{name} is not in kStoreAttributes: it would come out with every copy")

# A status.
statuses = re.findall(r"^    (kTQStatus\w+) =", text("include/vaultry/status.h"), re.M)
expect("the status", statuses, "src/Shared/vaultry_internal.cpp")

# An operation.
expect("the operation", exported("include/vaultry/storage.h"), "include/vaultry/vaultry.hpp")
expect("the operation", exported("include/vaultry/storage.h") + exported("include/vaultry/library.h"), tests)
words = re.search(r"kWords\[\] = \{(.*?)\}", text("src/vaultry_client_managed_owner.cpp"))[1]
expect("the word of an owner file", re.findall(r'"([\w-]+)"', words), "docs/architecture.md")

# A type of volume that honours a flush.
types = re.findall(r'"(\w+)", \w+, true\}', text("src/Platform/Volume.cpp"))
for where in ("tests/support/Volumes.h", "docs/architecture.md"):
    expect("the volume type", types, where)
expect("the volume type", re.findall(r'"(\w+)", true, \w+\}', text("src/Platform/Volume.cpp")),
       "include/vaultry/filesystem.h")

# A subcommand.
commands = [name.lower() for name in re.findall(r"int Run(\w+)\(", text("tools/vaultry/commands.h"))]
expect("the subcommand", commands, "docs/vaultry.1")
expect("the subcommand", [f"vaultry {name}" for name in commands], "tests/transcripts/vaultry.txt")
for name in commands:
    if not (root / f"tools/vaultry/{name}.cpp").is_file():
        problems.append(f"the subcommand {name!r} has no tools/vaultry/{name}.cpp")
    if not (root / f"docs/schemas/{name}.json").is_file():
        problems.append(f"the subcommand {name!r} has no docs/schemas/{name}.json")

print(*problems, sep="\n")
sys.exit(1 if problems else 0)
