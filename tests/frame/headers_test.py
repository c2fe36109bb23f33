"""Each public header compiles alone, and twice over, in its clients' languages, under harsher warnings than ours."""
import concurrent.futures
import pathlib
import shutil
import subprocess
import sys

include = pathlib.Path(__file__).resolve().parents[2] / "include"
HARSH = ["-Wall", "-Wextra", "-Wpedantic", "-Wconversion", "-Wsign-conversion", "-Wshadow", "-Wundef", "-Wcast-qual",
         "-Wredundant-decls", "-Wdouble-promotion", "-Werror", "-fsyntax-only", f"-I{include}"]
C = ["-x", "c", "-Wstrict-prototypes", "-Wmissing-prototypes", "-Wold-style-definition", "-Wc++-compat"]
CXX = ["-x", "c++", "-Wold-style-cast", "-Wzero-as-null-pointer-constant", "-Wnon-virtual-dtor"]
COMPILERS = [(compiler, [f"-std={standard}", *flags, *(["-Wuseless-cast"] if compiler == "g++" else [])], names)
             for compilers, standards, flags, names in [
                 (["gcc", "clang-14"], ["c99", "c11", "c17", "c2x"], C, "*.h"),
                 (["g++", "clang++-14"], ["c++17", "c++20", "c++2b"], CXX, "*.h*")]
             for standard in standards for compiler in compilers]


def compile_alone(job):
    compiler, flags, header = job
    source = f"#include <vaultry/{header.name}>\n" * 2 + "int use(void);\nint use(void) { return 0; }\n"
    run = subprocess.run([compiler, *HARSH, *flags, "-"], input=source, capture_output=True, text=True)
    return None if run.returncode == 0 else f"{header.name} with {compiler} {flags[0]}:\n{run.stderr}"


jobs = [(compiler, flags, header) for compiler, flags, names in COMPILERS if shutil.which(compiler)
        for header in sorted((include / "vaultry").glob(names))]
with concurrent.futures.ThreadPoolExecutor() as pool:
    problems = [problem for problem in pool.map(compile_alone, jobs) if problem]
print(f"{len(jobs)} compilations")
print(*problems, sep="\n")
sys.exit(1 if problems or not jobs else 0)
