"""What `cmake --install` and cpack install: the exact lists of files, and that the installed programs run."""

import gzip
import os
import pathlib
import re
import resource
import shutil
import signal
import stat
import subprocess
import tarfile

import pytest

from support.answers import COMPRESSED_HEAD, body_of
from support.archives import assert_compressed_whole
from support.daemon import Daemon
from support.processes import in_mount_namespace
from support.under_test import BIN, ROOT
from support.waiting import PATIENCE, wait_for
from support.web import http_get

NEEDS_SANDBOX = True

HOST = BIN.parent
DEVICE = ROOT / "build" / "mipsel"

DEVICE_APPLETS = {"tstrace", "stopper", "pcapdump", "coredump-handler", "debugar.cgi", "mon", "oopslog", "forkbomb",
                  "fdleak", "segfault"}  # fmt: skip
APPLETS = DEVICE_APPLETS | {"ctest"}
TOOLS = {"webfront", "dcore", "rtraceview", "archiveview"}
STANDINS = {"libqorlink.so.1", "libvextor.so", "libmirnel.so", "libhollisk.so.7"}

FOLDER, PROGRAM, PLAIN, LINK = "drwxr-xr-x", "-rwxr-xr-x", "-rw-r--r--", "-> zarvo"


def listing(applets, tools=frozenset(), standins=frozenset()):
    """{path: kind} of everything that has to be below the root folder."""
    found = {f"usr/bin/{name}": LINK for name in applets}
    found |= {f"usr/bin/{name}": PROGRAM for name in {"zarvo"} | tools}
    found |= {f"usr/lib/zarvo/{name}": PLAIN for name in standins}
    found |= {f"usr/share/man/man1/{name}.1.gz": PLAIN for name in {"zarvo"} | applets | tools}
    licences = ["dygraphs", "rapidjson"] if "rtraceview" in tools else []
    found |= {f"usr/share/doc/zarvo/{name}.copyright": PLAIN for name in licences}
    folders = {str(parent) for path in found for parent in pathlib.PurePath(path).parents} - {"."}
    return found | dict.fromkeys(folders, FOLDER)


def below(root):
    """{path: kind} of everything below a folder, as in listing()."""
    found = {}
    for path in root.rglob("*"):
        mode = path.lstat().st_mode
        kind = f"-> {os.readlink(path)}" if stat.S_ISLNK(mode) else stat.filemode(mode)
        found[str(path.relative_to(root))] = kind
    return found


def run(*words, status=0, **how):
    done = subprocess.run(list(map(str, words)), capture_output=True, text=True, timeout=PATIENCE * 4, **how)
    assert done.returncode == status, (words, done.returncode, done.stdout, done.stderr)
    return done.stdout


def install(build, root, *words):
    run("cmake", "--install", build, "--prefix", "/usr", *words, env=dict(os.environ, DESTDIR=str(root)))
    return root


def pack(build, folder):
    """The one package that cpack makes of a build."""
    run("cpack", "--config", build / "CPackConfig.cmake", "-B", folder)
    (package,) = [path for path in folder.iterdir() if path.is_file()]
    return package


@pytest.fixture(scope="module")
def installed(tmp_path_factory):
    return install(HOST, tmp_path_factory.mktemp("installed"))


@pytest.fixture(scope="module")
def debian(tmp_path_factory):
    if not shutil.which("dpkg-shlibdeps"):
        pytest.skip("needs dpkg-dev")
    return pack(HOST, tmp_path_factory.mktemp("debian"))


@pytest.fixture(scope="module")
def unpacked(debian, tmp_path_factory):
    root = tmp_path_factory.mktemp("unpacked")
    run("dpkg-deb", "-x", debian, root)
    return root


@pytest.fixture(scope="module")
def device_build():
    if not (DEVICE / "man" / "zarvo.1.gz").exists():
        pytest.skip("needs a complete build/mipsel (cmake --build --preset mipsel)")
    return DEVICE


def section_names(program):
    return set(re.findall(r"^ +\[ *\d+\] (\S+)", run("readelf", "-SW", program), re.MULTILINE))


def assert_stripped(*programs):
    for program in programs:
        sections = section_names(program)
        assert ".text" in sections
        assert not sections & {".symtab", ".debug_info"}, program


# A development machine.


def test_programs_links_manual_pages_and_standins_are_installed(installed):
    assert below(installed) == listing(APPLETS, TOOLS, STANDINS)


def test_installed_programs_are_stripped(installed):
    programs = [installed / "usr/bin" / name for name in TOOLS | {"zarvo"}]
    assert_stripped(*programs, *(installed / "usr/lib/zarvo").iterdir())


def test_programs_in_the_build_folder_keep_their_symbols(installed):
    assert {".symtab", ".debug_info"} <= section_names(BIN / "zarvo")


def test_installed_manual_pages_are_those_of_the_tree(installed):
    for page in (installed / "usr/share/man/man1").iterdir():
        assert gzip.decompress(page.read_bytes()) == (ROOT / "man" / page.stem).read_bytes()


def test_installed_programs_use_the_installed_standins(installed):
    for name in ("zarvo", "webfront"):
        loaded = run("ldd", installed / "usr/bin" / name)
        found = re.findall(r"=> (\S+/lib/zarvo/\S+) ", loaded)
        assert found and all(os.path.realpath(path).startswith(str(installed)) for path in found), loaded
        assert "not found" not in loaded


# Each installed program with arguments that end it at once: its status, and a part of its output.
CALLS = [
    (["tstrace"], 0, "USAGE: tstrace "),
    (["stopper"], 0, "USAGE: stopper "),
    (["pcapdump"], 1, "USAGE: pcapdump "),
    (["debugar.cgi", "-h"], 1, "dbg-cgi 0.1\n"),
    (["ctest"], 0, "call exit\n"),
    (["oopslog"], 1, "USAGE: oopslog "),
    (["zarvo", "ctest"], 0, "call exit\n"),
    (["zarvo", "nothing"], 1, "nothing: unknown zarvo applet\n"),
    (["webfront", "--help"], 0, "usage: webfront "),
    (["rtraceview", "--help"], 0, "usage: rtraceview "),
    (["archiveview", "--help"], 0, "usage: archiveview "),
    (["tstrace", "/bin/true"], 0, "] exit_group(0)\n"),
    (["segfault"], -signal.SIGSEGV, ""),
    (["coredump-handler"], 1, ""),  # no daemon is running
]


@pytest.mark.parametrize("words, status, part", CALLS, ids=[" ".join(words) for words, _, _ in CALLS])
def test_installed_program_works(installed, words, status, part):
    said = run(installed / "usr/bin" / words[0], *words[1:], status=status, stdin=subprocess.DEVNULL)
    assert part in said


def test_installed_fdleak_leaks(installed):
    limit = lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (64, 64))  # noqa: E731
    assert "leaked 48\n" in run(installed / "usr/bin/fdleak", preexec_fn=limit)


def first_line_of(words, ending):
    """The first line of a program's output. After it, the signal goes to its process group."""
    with subprocess.Popen(words, stdout=subprocess.PIPE, start_new_session=True) as program:
        line = program.stdout.readline()
        os.killpg(program.pid, ending)
    return line


def test_installed_fork_bomb_forks(installed):
    # The first child sleeps; the next one would come in an hour.
    words = ["stdbuf", "-oL", installed / "usr/bin/forkbomb", "3600000000", "1"]
    assert first_line_of(words, signal.SIGKILL) == b"forks 1\n"


def test_installed_monitor_watches(installed, tmp_path):
    # mon writes to /tmp, so it gets its own. That hides the installed files, which are therefore mounted
    # below /run.
    own_tmp = f"mkdir -p /run/bin; mount --bind {installed}/usr /run/bin; mount -t tmpfs -o mode=1777 none /tmp"
    words = [*in_mount_namespace(own_tmp), "/run/bin/bin/mon", "100000"]
    with subprocess.Popen(words, stderr=subprocess.PIPE, cwd="/") as monitor:
        report = pathlib.Path(f"/proc/{monitor.pid}/root/tmp/dbg-report.txt")
        wait_for(lambda: report.exists() and "round=2" in report.read_text(), "the second round")
        monitor.send_signal(signal.SIGINT)
        assert monitor.stderr.read().endswith(b"Cleanup and exit.\n")
    assert monitor.returncode == 0


def assert_makes_an_archive(root, folder):
    """The installed daemon and the installed front together make one."""
    daemon = Daemon(folder, "-p", root / "usr/bin/dcore", program=str(root / "usr/bin/debugar.cgi"))
    try:
        words = [root / "usr/bin/webfront", "--port", "0"]
        with subprocess.Popen(words, stdout=subprocess.PIPE, text=True) as front:
            try:
                answer = http_get(front.stdout.readline().strip().rstrip("/"), "/debug.tgz")
            finally:
                front.terminate()
    finally:
        daemon.stop()
    names = [member.name for member in assert_compressed_whole(body_of(answer, COMPRESSED_HEAD))]
    assert f"webfront.{front.pid}/core" in names


def test_installed_daemon_makes_an_archive(clean_sandbox, installed, tmp_path):
    assert_makes_an_archive(installed, tmp_path / "daemon")


# The Debian package.


def test_package_has_all_programs_whose_names_debian_does_not_use(unpacked):
    assert below(unpacked) == listing(DEVICE_APPLETS, TOOLS, STANDINS)


def test_files_of_the_package_belong_to_root(debian):
    owners = {line.split()[1] for line in run("dpkg-deb", "-c", debian).splitlines()}
    assert owners == {"root/root"}


def test_package_depends_on_the_libraries_of_its_programs(debian, unpacked):
    depends = run("dpkg-deb", "-f", debian, "Depends")
    assert {one.split()[0] for one in depends.split(",")} == {
        "libarchive13", "libc6", "libdw1", "libelf1", "libgcc-s1", "libstdc++6", "libtins4.0", "zlib1g",
    }  # fmt: skip
    needed = set()
    for name in TOOLS | {"zarvo"}:
        needed |= set(re.findall(r"\(NEEDED\).*\[(.*)\]", run("readelf", "-d", unpacked / "usr/bin" / name)))
    assert needed == STANDINS | {
        "libarchive.so.13", "libc.so.6", "libdw.so.1", "libelf.so.1", "libgcc_s.so.1", "libm.so.6", "libresolv.so.2",
        "libstdc++.so.6", "libtins.so.4.0", "libz.so.1",
    }  # fmt: skip


def test_package_has_no_file_of_an_installed_package(unpacked):
    """dpkg would refuse to unpack it."""
    files = [path for path, kind in below(unpacked).items() if kind != FOLDER]
    done = subprocess.run(["dpkg", "-S", *(f"/{path}" for path in files)], capture_output=True, text=True)
    owners = {line.partition(":")[0] for line in done.stdout.splitlines()}
    assert owners <= {"zarvo"}, done.stdout


def test_daemon_of_the_package_makes_an_archive(clean_sandbox, unpacked, tmp_path):
    assert_makes_an_archive(unpacked, tmp_path / "daemon")


# The device.


def test_only_the_toolbox_is_installed_for_the_device(device_build, tmp_path):
    root = install(device_build, tmp_path)
    assert below(root) == listing(APPLETS)
    assert_stripped(root / "usr/bin/zarvo")


def test_device_program_has_no_library_path(device_build, tmp_path):
    dynamic = run("readelf", "-d", install(device_build, tmp_path) / "usr/bin/zarvo")
    assert "(NEEDED)" in dynamic
    assert not re.search("RPATH|RUNPATH", dynamic)


def test_tools_are_installed_for_the_device_on_request(device_build, tmp_path):
    assert below(install(device_build, tmp_path, "--component", "tools")) == (
        {path: kind for path, kind in listing(set(), TOOLS - {"rtraceview", "archiveview"}).items() if "/zarvo" not in path}
    )


def test_tarball_has_what_is_installed(device_build, tmp_path):
    package = pack(device_build, tmp_path / "tarball")
    assert re.fullmatch(r"zarvo-[\d.]+-mipsel\.tar\.gz", package.name)
    with tarfile.open(package) as tar:
        found = {
            member.name: f"-> {member.linkname}" if member.issym() else
            ("d" if member.isdir() else "-") + stat.filemode(member.mode)[1:]
            for member in tar
        }  # fmt: skip
    assert found == listing(APPLETS)
