#!/usr/bin/env python3
"""Compares the Yocto recipe with the project: the options that it sets with those that CMakeLists.txt
has, the files of its packages with a real install, the tests that it installs with those that exist.

Usage: yoctoRecipe.py SOURCE_FOLDER BUILD_FOLDER
"""
import fnmatch
import os
import re
import subprocess
import sys
import tempfile

source, build = sys.argv[1:]
problems = []


def read(*path):
    with open(os.path.join(source, *path), encoding="utf-8") as file:
        return file.read()


def cached(name):
    with open(os.path.join(build, "CMakeCache.txt"), encoding="utf-8") as file:
        return re.search(rf"^{name}:\w+=(.*)$", file.read(), re.MULTILINE).group(1)


recipe = re.sub(r"\\\n", " ", read("packaging", "yocto", "korvane_1.0.bb"))
recipe = re.sub(r"^#.*$", "", recipe, flags=re.MULTILINE)

# Every option by its name; each is either set or left at what it is for everybody.
options = set(re.findall(r"^(?:option|set)\((KORVANE_\w+)", read("CMakeLists.txt"), re.MULTILINE))
used = set(re.findall(r"-D(\w+)=", recipe))
unset = {"KORVANE_ASSEMBLY_ENTRY"}
problems += [f"the recipe sets {name}, which is no option" for name in used - options]
problems += [f"the recipe does not set {name}" for name in options - used - unset]

version = re.search(r"^ +VERSION (\d+\.\d+)", read("CMakeLists.txt"), re.MULTILINE).group(1)
if not os.path.exists(os.path.join(source, "packaging", "yocto", f"korvane_{version}.bb")):
    problems.append(f"the recipe is not one of version {version}")
for name in re.findall(r"file://(\S+)", recipe):
    if "${PV}" not in name and not os.path.exists(
            os.path.join(source, "packaging", "yocto", "korvane", name)):
        problems.append(f"the recipe names {name}, which is not beside it")

# Every installed file belongs to the first package, in the recipe's order, that has a pattern for it.
folders = {"${libdir}": cached("CMAKE_INSTALL_LIBDIR"),
           "${includedir}": cached("CMAKE_INSTALL_INCLUDEDIR") or "include"}
packages = re.findall(r'^FILES:(\S+) = "(.*)"', recipe, re.MULTILINE)
patterns = []
for package, words in packages:
    for word in words.split():
        for variable, folder in folders.items():
            word = word.replace(variable, folder)
        patterns.append((package, word))
with tempfile.TemporaryDirectory() as prefix:
    subprocess.run(["cmake", "--install", build, "--prefix", prefix], check=True,
                   stdout=subprocess.DEVNULL)
    files = sorted(os.path.relpath(os.path.join(folder, name), prefix)
                   for folder, _, names in os.walk(prefix) for name in names)
owned = {}
matched = set()
for file in files:
    owners = [(package, pattern) for package, pattern in patterns
              if fnmatch.fnmatch(file, pattern) or file.startswith(pattern + "/")]
    if not owners:
        problems.append(f"no package has {file}")
        continue
    owned.setdefault(owners[0][0], []).append(file)
    matched.add(owners[0])
problems += [f"{package}: nothing is installed as {pattern}"
             for package, pattern in patterns if (package, pattern) not in matched]
library = cached("CMAKE_INSTALL_LIBDIR") + "/"
wanted = {"traceif-console": [library + "libtraceif.so"],
          "${PN}": [library + "libKorvane.so.1", library + "libKorvane.so.1.0.0"]}
for package, expected in wanted.items():
    if owned.get(package) != expected:
        problems.append(f"{package} has {owned.get(package)}, not {expected}")

install = recipe[recipe.index("do_install_ptest()"):]
programs = re.findall(r"\b\w+/korvane_\w+", install[:install.index("done")])
problems += [f"there is no test {name}" for name in programs
             if not os.path.exists(os.path.join(build, "tests", name))]
if not programs or not options or not files:
    problems.append("there was nothing to compare")

if problems:
    sys.exit("\n".join(problems))
print(f"{len(used)} options, {len(files)} files and {len(programs)} tests are those of the project")
