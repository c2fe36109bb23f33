"""The library is built, installed and used in the ways that people are used to, from a copy of the sources that is no
clone and that nothing may be written to. Each way has a tree of its own."""
import concurrent.futures
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time

from clients import ROOT, builds_with_pkg_config, keeps_a_letter, run, write_client

cmake, compiler, cxx_compiler, *wanted = sys.argv[1:]  # the ways, or none for all of them
os.environ |= {"CC": compiler, "CXX": cxx_compiler}
os.environ.pop("CMAKE_GENERATOR", None)
JOBS = str(os.cpu_count())
# A few large units take a third of the time.
QUICKLY = ("-DCMAKE_UNITY_BUILD=ON", "-DCMAKE_UNITY_BUILD_BATCH_SIZE=6", "-DVAULTRY_TESTS=OFF")
MISSING = [f"-DCMAKE_DISABLE_FIND_PACKAGE_{name}=ON" for name in ("CLI11", "nlohmann_json", "xxHash", "GTest")]
MULTIARCH = subprocess.run([compiler, "-print-multiarch"], capture_output=True, text=True, check=False).stdout.strip()

# The build that this test belongs to builds the real command.
COMMAND = """
#include <vaultry/vaultry.h>
int main() { return TQIsNumber(nullptr) ? 1 : 0; }
"""
CLIENT = """
cmake_minimum_required(VERSION 3.25)
project(client LANGUAGES C)
find_package(vaultry 1.0 REQUIRED)
add_executable(client client.c)
target_link_libraries(client vaultry::vaultry)
"""
PARENT = """
cmake_minimum_required(VERSION 3.25)
project(parent LANGUAGES C)
if(FETCHCONTENT_SOURCE_DIR_VAULTRY)
    include(FetchContent)
    FetchContent_Declare(vaultry URL https://vaultry.invalid/vaultry.tar.gz)
    FetchContent_MakeAvailable(vaultry)
else()
    add_subdirectory(${SOURCE} vaultry)
endif()
foreach(library vaultry static)
    add_executable(with_${library} client.c)
    target_link_libraries(with_${library} vaultry::${library})
endforeach()
foreach(theirs CMAKE_BUILD_TYPE CMAKE_CXX_STANDARD CMAKE_RUNTIME_OUTPUT_DIRECTORY CMAKE_EXPORT_COMPILE_COMMANDS)
    if(${theirs})
        message(FATAL_ERROR "${theirs} is ${${theirs}}")
    endif()
endforeach()
if(TARGET vaultry_command OR TARGET test_support OR BUILD_TESTING)
    message(FATAL_ERROR "more than the library is built")
endif()
"""


def expect(fact, words):
    if not fact:
        sys.exit(words)


def configure(where, *settings, source=None, code=0):
    said = run(cmake, "--no-warn-unused-cli", "-S", source or copy, "-B", where / "build", *settings, where=where,
               code=code)
    expect("Warning" not in said, said)
    return said


def build(where, *settings):
    configure(where, *QUICKLY, *settings)
    said = run(cmake, "--build", where / "build", "-j", JOBS, where=where)
    expect("redefined" not in said, said)


def install(where, **more):
    run(cmake, "--install", where / "build", where=where, env=dict(os.environ, **more))


def dynamic(program):
    return subprocess.run(["readelf", "-d", program], capture_output=True, text=True, check=True).stdout


def client_by_cmake(where, setting):
    """A project in C alone finds the package with that setting."""
    (where / "CMakeLists.txt").write_text(CLIENT, encoding="utf-8")
    run(cmake, "-S", where, "-B", where / "client.build", setting, where=where)
    run(cmake, "--build", where / "client.build", where=where)
    keeps_a_letter(where / "client.build/client", where)


def into_the_system(where):
    """The default generator and type; multiarch directories below /usr, by DESTDIR."""
    libdir = f"lib/{MULTIARCH}".rstrip("/")
    build(where, "-DCMAKE_INSTALL_PREFIX=/usr", f"-DCMAKE_INSTALL_LIBDIR={libdir}")
    cache = (where / "build/CMakeCache.txt").read_text(encoding="utf-8")
    expect("CMAKE_BUILD_TYPE:STRING=Release\n" in cache, "the default type is not Release")
    run(where / "build/bin/vaultry", where=where, env={})
    install(where, DESTDIR=str(where / "image"))
    expect({path.name for path in (where / "image").iterdir()} == {"usr"}, "installed outside /usr")
    expect(not re.search(r"R(UN)?PATH", dynamic(where / "image/usr/bin/vaultry")), "the command has an RPATH")
    image = where / "image/usr" / libdir
    builds_with_pkg_config(where, image, "shared", root=where / "image")
    expect("prefix=/usr\n" in (image / "pkgconfig/vaultry.pc").read_text(encoding="utf-8"), "vaultry.pc is not of /usr")
    client_by_cmake(where, f"-DCMAKE_PREFIX_PATH={where}/image/usr")


def static_alone(where):
    """BUILD_SHARED_LIBS=OFF, MinSizeRel; absolute directories outside the prefix."""
    build(where, "-DCMAKE_BUILD_TYPE=MinSizeRel", "-DBUILD_SHARED_LIBS=OFF", f"-DCMAKE_INSTALL_PREFIX={where}/prefix",
          f"-DCMAKE_INSTALL_LIBDIR={where}/libraries", f"-DCMAKE_INSTALL_INCLUDEDIR={where}/headers")
    install(where)
    expect(not list(where.rglob("*.so*")), "a shared library was built")
    run(where / "prefix/bin/vaultry", where=where, env={})
    expect("libvaultry" not in dynamic(where / "prefix/bin/vaultry"), "the command needs a shared library")
    flags = builds_with_pkg_config(where, where / "libraries", "static")
    expect(f"-I{where}/headers" in flags, f"vaultry.pc says {flags}")
    client_by_cmake(where, f"-Dvaultry_DIR={where}/libraries/cmake/vaultry")


def shared_alone(where):
    """BUILD_SHARED_LIBS=ON, RelWithDebInfo; LTO and fortification as a packager asks for them; a prefix that moves."""
    build(where, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DBUILD_SHARED_LIBS=ON",
          "-DCMAKE_CXX_FLAGS=-D_FORTIFY_SOURCE=3", "-DCMAKE_INTERPROCEDURAL_OPTIMIZATION=ON",
          f"-DCMAKE_INSTALL_PREFIX={where}/first")
    commands = (where / "build/compile_commands.json").read_text(encoding="utf-8")
    expect(set(re.findall(r"-[DU] ?_FORTIFY_SOURCE\S*", commands)) == {"-D_FORTIFY_SOURCE=3"}, "another fortification")
    expect("-flto" in commands, "no LTO")
    install(where)
    expect(not list(where.rglob("libvaultry.a")), "a static library was built")
    (where / "first").rename(where / "moved")
    shutil.rmtree(where / "build")
    run(where / "moved/bin/vaultry", where=where, env={})
    builds_with_pkg_config(where, next(where.rglob("libvaultry.so")).parent, "shared")
    client_by_cmake(where, f"-DCMAKE_PREFIX_PATH={where}/moved")


def in_another_project(where):
    """add_subdirectory and FetchContent, Debug, from a project in C alone."""
    (where / "CMakeLists.txt").write_text(PARENT, encoding="utf-8")
    configure(where, f"-DSOURCE={copy}", source=where)
    configure(where, "--fresh", f"-DFETCHCONTENT_SOURCE_DIR_VAULTRY={copy}", *QUICKLY, "-DCMAKE_C_FLAGS=-g",
              "-DCMAKE_CXX_FLAGS=-g", source=where)
    run(cmake, "--build", where / "build", "-j", JOBS, where=where)
    keeps_a_letter(where / "build/with_vaultry", where)
    keeps_a_letter(where / "build/with_static", where)
    expect("vaultry" not in run(cmake, "--install", where / "build", "--prefix", where / "prefix", where=where),
           "the library is installed with the parent")


def with_little(where):
    """A missing part is reported once. It is an error if the part was asked for, and ignored if it was declined."""
    said = configure(where, *MISSING)
    expect("The command will not be built" in said and "The tests will not be built" in said, said)
    said = configure(where, "-DVAULTRY_TESTS=ON", code=1)
    expect("VAULTRY_TESTS is ON, but GTest" in said, said)
    expect("not be built" not in configure(where, "-DVAULTRY_TESTS=OFF", "-DVAULTRY_COMMAND=OFF"), "a word too many")


def timed(way):
    """Tries a way in a directory of its own."""
    where = pathlib.Path(tempfile.mkdtemp(prefix=way.__name__ + "-", dir=temporary))
    write_client(where)
    began = time.monotonic()
    way(where)
    print(f"{way.__name__}: {time.monotonic() - began:.1f} s", flush=True)


def state(tree):
    return {path: (path.lstat().st_mtime_ns, path.lstat().st_size) for path in [tree, *tree.rglob("*")]}


with tempfile.TemporaryDirectory(prefix="vaultry-building-") as temporary:
    copy = pathlib.Path(temporary).resolve() / "source"
    shutil.copytree(ROOT, copy, ignore=lambda folder, _: {".git", "build"} if pathlib.Path(folder) == ROOT else set())
    for source in (copy / "tools/vaultry").glob("*.cpp"):
        source.unlink()
    (copy / "tools/vaultry/main.cpp").write_text(COMMAND, encoding="utf-8")
    run("chmod", "-R", "a-w", copy, where=temporary)
    before = state(copy)
    try:
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            ways = shared_alone, into_the_system, static_alone, in_another_project, with_little
            list(pool.map(timed, [way for way in ways if not wanted or way.__name__ in wanted]))
        expect(state(copy) == before, "the sources were written to")  # root writes to what is read-only
    finally:
        run("chmod", "-R", "u+w", copy, where=temporary)
