"""The packages that `make` installs, and what they put into service on the machine."""

import os
import re
import subprocess
from pathlib import Path

SOURCE = Path(os.environ["SOURCE_DIR"])
PACKAGE_FILES = Path("/var/lib/dpkg/info")

# Part of every Debian system: whatever these start, they start without vemk's tests.
BASE = ("required", "important", "standard")


def list_packages(*sections):
    return subprocess.run([SOURCE / "scripts/list-packages.sh", *sections],
                          capture_output=True, text=True)


def listed_packages():
    """Those of the sections that the Makefile installs."""
    makefile = (SOURCE / "Makefile").read_text()
    found = list_packages(*" ".join(re.findall(r"install-packages\.sh (.*)", makefile)).split())
    assert found.returncode == 0, found.stderr
    return found.stdout.split()


def installed(names):
    """Name and priority of those of the packages that are installed."""
    found = subprocess.run(
        ["dpkg-query", "-W", "-f", "${db:Status-Status} ${Package} ${Priority}\n", *names],
        capture_output=True, text=True).stdout
    words = [line.split() for line in found.splitlines()]
    return {word[1]: word[2] for word in words if word[0] == "installed"}


def with_dependencies(names):
    """The packages and the installed ones among all that they depend on."""
    left_out = [f"--no-{kind}" for kind in
                ("recommends", "suggests", "conflicts", "breaks", "replaces", "enhances")]
    tree = subprocess.run(["apt-cache", "depends", "--recurse", "--installed", *left_out, *names],
                          capture_output=True, text=True, check=True).stdout
    return {line.split(":")[0] for line in tree.splitlines() if line[:1].isalnum()}


def hidden_from_systemd(script):
    unit = Path(f"/lib/systemd/system/{script}.service")
    return os.path.realpath(unit) == "/dev/null"


def enabled_by(package):
    """The units and init scripts that the package enables when it is installed."""
    files = [*PACKAGE_FILES.glob(f"{package}.postinst"), *PACKAGE_FILES.glob(f"{package}:*.postinst")]
    script = "\n".join(file.read_text() for file in files)
    # A unit that an administrator has to enable is looked after only where it once was enabled.
    units = set(re.findall(r"was-enabled '([^']+)'", script)) - \
        set(re.findall(r"debian-installed '([^']+)'", script))
    scripts = re.findall(r"update-rc\.d (\S+) defaults(?!-)", script)
    return units | {name for name in scripts if not hidden_from_systemd(name)}


# No package that the Makefile installs, nor what it depends on, enables a unit or an init script.
# nginx and haproxy were installed for the tests once, and ran on the machine from its next boot on.
def test_the_lists_put_no_service_onto_the_machine():
    packages = installed(with_dependencies(installed(listed_packages())))
    enabled = {package: enabled_by(package) for package, priority in packages.items()
               if priority not in BASE}
    assert {package: names for package, names in enabled.items() if names} == {}


# The packages of the named sections are listed and no others; a section that is missing is an error.
def test_packages_are_listed_by_section():
    assert list_packages("run", "coverage").stdout == "procps\nutil-linux\ngcovr\n"
    unknown = list_packages("run", "cover")
    assert (unknown.returncode, unknown.stdout) == (2, "")
    assert unknown.stderr.startswith("list-packages.sh: packages.txt has no section [cover]; it has"
                                     " [build] [run] [test] [unpacked] ")


# In a new checkout `make run` installs, configures and builds nothing that only the tests need.
def test_the_demonstration_does_without_the_tests(tmp_path):
    commands = subprocess.run(["make", "-n", "-f", SOURCE / "Makefile", "run"], cwd=tmp_path,
                              capture_output=True, text=True, check=True).stdout
    assert re.findall(r"install-packages\.sh (.*)", commands) == ["build run"]
    assert re.findall(r"BUILD_TESTING=(.*)", commands) == ["OFF"]
    assert re.findall(r"--target (.*)", commands) == ["vemk vemkctl roam-service"]
