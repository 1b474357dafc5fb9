"""The packages in debian/, as far as tests can check them without building (scripts/packages builds them)."""
import os
import re
import subprocess

import pytest

from tool import Running, Session
from world import CONFIGURATION, PRODUCT, SESSION, TESTS, read, write

TOP = os.path.dirname(TESTS)
# What every build of a package has, and what downloads need.
ALWAYS_THERE = {"g++", "ca-certificates"}
FOR_PACKAGES = {"debhelper-compat", "dh-sequence-installsysusers", "dh-sequence-python3"}


def build_dependencies(profile):
    """Names in Build-Depends; with a profile, those that are left out of such a build."""
    control = read(f"{TOP}/debian/control").decode()
    field = re.search(r"^Build-Depends:(.*?)^\S", control + "\n.", re.MULTILINE | re.DOTALL)[1]
    entries = [entry.strip() for entry in field.partition("\n\n")[0].split(",")]
    return {entry.split()[0] for entry in entries if ("<" in entry) == bool(profile)
            and (not profile or f"<!{profile}>" in entry)}


def installed_for(purpose):
    return set(subprocess.run([f"{TOP}/scripts/install-packages", "--list", purpose], check=True,
                              stdout=subprocess.PIPE, text=True).stdout.split())


def test_source_package_names_what_building_needs():
    assert build_dependencies(None) - FOR_PACKAGES == installed_for("build") - ALWAYS_THERE


def test_source_package_names_what_the_tests_need():
    assert build_dependencies("nocheck") == installed_for("check") - installed_for("build")


def test_building_installs_the_perl_that_has_the_core_modules():
    # perl-base, which every Debian has, lacks most of the modules: the scout is bundled by means of FindBin.
    assert "perl" in installed_for("build")


@pytest.mark.release_only
def test_release_preset_does_without_what_only_the_tests_need():
    build, editors_link = "/mnt/without-GTest", f"{TOP}/compile_commands.json"
    before = os.path.lexists(editors_link) and os.readlink(editors_link)
    subprocess.run(["cmake", "--preset", "release", "-B", build, "-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON"], cwd=TOP,
                   check=True, stdout=subprocess.DEVNULL)
    targets = subprocess.run(["ninja", "-C", build, "-t", "targets", "all"], check=True, stdout=subprocess.PIPE).stdout
    assert b"bin/sondrel:" in targets and b"unit_tests:" not in targets
    # The link for editors still leads to a preset of the checkout.
    assert (os.path.lexists(editors_link) and os.readlink(editors_link)) == before


def test_version_of_the_packages_is_that_of_the_program():
    # A build for one release of Debian has that at the end of its version.
    package = re.match(r"sondrel \(([\d.]+)(?:\+deb\d+)?\)", read(f"{TOP}/debian/changelog").decode())[1]
    program = re.search(r"project\(sondrel VERSION ([\d.]+)", read(f"{TOP}/CMakeLists.txt").decode())[1]
    assert package == program


def test_copyright_can_be_read_by_programs():
    paragraphs = [dict(re.findall(r"^([\w-]+): *(.*)$", text, re.MULTILINE))
                  for text in read(f"{TOP}/debian/copyright").decode().strip().split("\n\n")]
    assert paragraphs[0]["Format"].endswith("/copyright-format/1.0/")
    assert paragraphs[1]["Files"] == "*"
    assert all({"Files", "Copyright", "License"} <= set(paragraph) for paragraph in paragraphs[1:])


@pytest.mark.release_only
@pytest.mark.parametrize("directory", ["/opt", "/opt/qrv/DTM/tmp"], ids=["is gone", "holds what a run has left"])
def test_package_can_be_removed_when_its_directory_for_temporary_files(directory):
    subprocess.run(["mount", "-t", "tmpfs", "own", "/opt"], check=True)
    try:
        os.makedirs(directory, exist_ok=True)
        write(f"{directory}/left/by-a-run")
        subprocess.run(["sh", f"{TOP}/debian/sondrel.prerm", "remove"], check=True)
        assert os.listdir(directory) == (["left"] if directory == "/opt" else [])
    finally:
        subprocess.run(["umount", "/opt"], check=True)


@pytest.fixture
def configuration():
    """Writes the host's configuration; the old one is restored after the test."""
    kept = read(CONFIGURATION)
    yield lambda text: write(CONFIGURATION, text)
    write(CONFIGURATION, kept)


@pytest.mark.parametrize("in_force", [False, True], ids=["as it is", "with every line in force"])
def test_configuration_of_the_package_is_read_without_a_complaint(configuration, system_log, in_force):
    text = read(f"{TOP}/debian/qrv.conf").decode()
    if in_force:
        text, keys = re.subn(r"^#(?=[A-Z_]+ )", "", text, flags=re.MULTILINE)
        assert keys >= 3
        text = text.replace("/opt/qrv", PRODUCT)
    else:
        assert not re.search(r"^[^#\s]", text, re.MULTILINE)
        text += f"PRODUCT_ROOT_D {PRODUCT}\n"
    configuration(text)
    outcome = Running(["--send-scout", "--session-path", SESSION]).finish()
    assert (outcome.code, outcome.stdout, outcome.stderr) == (1, b"", b"")
    assert "host is required" in Session().log()
    assert system_log.text() == ""
