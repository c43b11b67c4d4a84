"""Selects the CTest tests that a set of changed files affects; see scripts/test-changed.

The decision is a pure function of three tables: the changed paths, the dependencies of each test object and test
script, and the tests that CTest knows.
"""

import json
import os
import re
import subprocess
import sys

# For each folder, the prefixes of the CTest names that a change below it affects. Only the first match counts.
FOLDERS = [
    ("kro/", [""]),
    ("quarn2/backends/s3/", ["quarn2_s3", "quarn2_hostile_http", "quarn2_storage_s3",
                             "quarn2_storage_trouble_s3", "system_storage_"]),
    ("quarn2/backends/sftp/", ["quarn2_sftp", "quarn2_hostile_sftp", "quarn2_storage_sftp",
                               "quarn2_storage_trouble_sftp", "system_storage_"]),
    ("quarn2/backends/webdav/", ["quarn2_webdav", "quarn2_hostile_http", "quarn2_storage_webdav",
                                 "quarn2_storage_trouble_webdav", "system_storage_"]),
    ("quarn2/backends/ftp/", ["quarn2_ftp", "quarn2_hostile_ftp", "quarn2_storage_ftp",
                              "quarn2_storage_trouble_ftp", "system_storage_"]),
    ("quarn2/backends/local/", ["quarn2_local", "quarn2_storage_local", "system_", "scenarios"]),
    ("quarn2/backends/memory/", ["quarn2_memory", "quarn2_storage_memory", "backup_"]),
    ("quarn2/crypto/", ["quarn2_", "system_storage_"]),
    ("quarn2/", ["quarn2_", "backup_", "report_", "system_"]),
    ("backup_common/", ["backup_", "report_", "system_", "scenarios"]),
    ("launcher/", ["system_"]),
    ("report/", ["report_", "system_report", "system_metrics", "system_page"]),
    ("night/", ["system_night", "system_crash_night", "package"]),
    ("debian/", ["package"]),
    ("tests/package/", ["package"]),
    ("tests/servers/", ["server", "quarn2_storage_", "quarn2_sftp_login", "system_storage_"]),
    ("tests/scenarios/", ["scenarios"]),
    ("bench/", ["bench_"]),
    ("scripts/", ["layer_check", "changed_tests"]),
    ("cmake/", [""]),
]
EVERYTHING = ("CMakeLists.txt", "CMakePresets.json", "tests/CMakeLists.txt")
# Support code that is preloaded into the program or linked with it, so no test's own dependencies contain it.
SYSTEM_SUPPORT = ("clock_ahead", "ended_pauses_clock", "fault_calls", "fault_points", "without_pidfd",
                  "write_recorder")


def test_of_source(path):
    """Returns the CTest name of a file tests/unit/LAYER/NAME_test.cpp, or None."""
    match = re.fullmatch(r"tests/unit/(\w+)/(\w+_test)\.cpp", path)
    if not match:
        return None
    layer, name = match.groups()
    return {"backup_common": "backup"}.get(layer, layer) + "_" + name


def tests_of_script(path):
    """Returns the prefix of the CTest names of a file tests/system/test_NAME.py, or None."""
    match = re.fullmatch(r"tests/system/test_(\w+)\.py", path)
    return "system_" + match[1] if match else None


def select(changed, dependencies, known):
    """Returns the affected tests, in the order of `known`.

    `dependencies` maps each source file of a test or script to the set of project files that it depends on.
    """
    prefixes, names = set(), set()
    for path in changed:
        if path in EVERYTHING:
            return list(known)
        if path.endswith("CMakeLists.txt") and path.startswith("tests/"):
            layer = path.split("/")[-2]
            prefixes.add({"backup_common": "backup", "servers": "server"}.get(layer, layer) + "_")
        prefixes.update(next((found for folder, found in FOLDERS if path.startswith(folder)), []))
        if os.path.basename(path).split(".")[0] in SYSTEM_SUPPORT:
            prefixes.add("system_")
        for source, needs in dependencies.items():
            if path != source and path not in needs:
                continue
            if source.endswith(".py") and tests_of_script(source):
                prefixes.add(tests_of_script(source))
            elif test_of_source(source):
                names.add(test_of_source(source))
            elif source.endswith("storage_conformance.cpp"):
                prefixes.add("quarn2_storage_")
            elif source.endswith("storage_trouble.cpp"):
                prefixes.add("quarn2_storage_trouble_")
    return [name for name in known
            if name in names or any(name.startswith(prefix) for prefix in prefixes)]


# --- Reading the tables ---

def run(*command, **options):
    return subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE, **options).stdout


def changed_files(base):
    """Returns the relative paths of the files that differ from a commit, new files included."""
    names = run("git", "diff", "--name-only", base).splitlines()
    return names + run("git", "ls-files", "--others", "--exclude-standard").splitlines()


def object_dependencies(top, build):
    """Returns {test source: project files that its object was compiled from}, from the last build."""
    found, current = {}, None
    for line in run("ninja", "-C", build, "-t", "deps").splitlines():
        if not line.startswith(" "):
            current = set()
        elif line.strip().startswith(top + "/"):
            path = os.path.relpath(line.strip(), top)
            current.add(path)
            if path.startswith("tests/") and path.endswith(".cpp"):
                found[path] = current
    return found


def script_dependencies(folder):
    """Returns {script: scripts that it imports directly or indirectly} for tests/system."""
    names = {name[:-3] for name in os.listdir(folder) if name.endswith(".py")}
    imports = {}
    for name in names:
        with open(os.path.join(folder, name + ".py"), encoding="utf-8") as file:
            words = re.findall(r"^(?:from|import) ([\w, ]+)", file.read(), re.MULTILINE)
        imports[name] = {word.strip() for line in words for word in line.split(" import")[0].split(",")} & names
    found = {}
    for name in names:
        seen, left = set(), [name]
        while left:
            left += [each for each in imports[left.pop()] if each not in seen and not seen.add(each)]
        found[f"tests/system/{name}.py"] = {f"tests/system/{each}.py" for each in seen | {"run"}}
    return found


def main(arguments):
    base = arguments[0] if arguments else "HEAD"
    top = os.getcwd()
    build = os.path.join(top, "build/release")
    known = [test["name"] for test in json.loads(run("ctest", "--show-only=json-v1", cwd=build))["tests"]]
    dependencies = object_dependencies(top, build) | script_dependencies(os.path.join(top, "tests/system"))
    for name in select(changed_files(base), dependencies, known):
        print(name)


if __name__ == "__main__":
    main(sys.argv[1:])
