"""Makes the board's file system: concatenated cpio archives, which the kernel unpacks into memory at boot.

The base (busybox, C library, kernel modules, the agent) is made once and kept. The programs of the build change
from boot to boot and go into a second archive.
"""

import hashlib
import os
import re
import stat
import subprocess
import tempfile
from pathlib import Path

from places import BUILD, KERNEL, SOURCES, SYSROOT, Unavailable, locked
from prepare import find_tool, kernel_release

CROSS_PREFIX = os.environ.get("ZARVO_CROSS_PREFIX", "mipsel-linux-gnu-")

AGENT_FLAGS = """-std=c++20 -Os -s -Wall -Wextra -Werror -fno-exceptions -fno-rtti
                 -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64""".split()

FOLDERS = """bin dev dev/part etc lib lib/mipsel-linux-gnu lib/modules mnt proc root run sbin sys tmp
             usr usr/bin usr/lib usr/lib/mipsel-linux-gnu usr/sbin usr/share var var/log var/tmp""".split()

# Modules on the board from the start, with their dependencies. Board.load_module adds any other.
MODULES = ["virtio_pci", "virtio_console", "e1000", "mtdram", "nandsim", "mtdoops", "loop", "veth", "dummy"]

# The shared libraries that programs of the build and their tests need. The sysroot's others are for libcurl.
BASE_LIBRARIES = re.compile(r"(ld|libc|libm|libdl|librt|libpthread|libutil|libresolv|libanl|libnss_\w+"
                            r"|libgcc_s|libstdc\+\+|libatomic|libz)\.so\.[\d.]+")
SHARED_LIBRARY = re.compile(r"[\w.+-]+\.so\.[\d.]+|lib[\w-]+-[\d.]+\.so")


class Cpio:
    """Writes a cpio archive in the newc format."""

    def __init__(self, file):
        self.file = file
        self.inode = 0

    def entry(self, name, mode, content=b"", device=(0, 0)):
        self.inode += 1
        encoded = os.fsencode(name) + b"\0"
        fields = [self.inode, mode, 0, 0, 1, 0, len(content), 0, 0, *device, len(encoded), 0]
        head = b"070701" + b"".join(b"%08X" % field for field in fields) + encoded
        self.file.write(head + b"\0" * (-len(head) % 4) + content + b"\0" * (-len(content) % 4))

    def folder(self, name, mode=0o755):
        self.entry(name, stat.S_IFDIR | mode)

    def link(self, name, target):
        self.entry(name, stat.S_IFLNK | 0o777, os.fsencode(target))

    def bytes(self, name, content, mode=0o644):
        self.entry(name, stat.S_IFREG | mode, content)

    def copy(self, name, path):
        """Adds a local file or link, owned by root."""
        if path.is_symlink():
            self.link(name, os.readlink(path))
        else:
            self.bytes(name, path.read_bytes(), stat.S_IMODE(path.stat().st_mode))

    def tree(self, name, path):
        """Adds all files, links and folders below `path`. The folder `name` must already be in the archive."""
        for entry in sorted(path.iterdir()):
            below = f"{name}/{entry.name}".lstrip("/")
            if entry.is_dir() and not entry.is_symlink():
                self.folder(below)
                self.tree(below, entry)
            elif entry.is_symlink() or entry.is_file():
                self.copy(below, entry)

    def end(self):
        self.entry("TRAILER!!!", 0)


def module_name(path):
    """The kernel's name for a module."""
    return Path(path).name.removesuffix(".ko").replace("-", "_")


def modules_needed(names, kernel=KERNEL):
    """Paths below lib/modules/RELEASE, in load order."""
    table = {}
    for line in (kernel / "lib/modules" / kernel_release(kernel) / "modules.dep").read_text().splitlines():
        path, _, needs = line.partition(":")
        table[module_name(path)] = (path, needs.split())
    order = []
    for name in names:
        if module_name(name) not in table:
            raise ValueError(f"the board's kernel has no module {name}")
        path, needs = table[module_name(name)]
        order += [*reversed(needs), path]  # modules.dep lists dependencies in reverse load order
    return list(dict.fromkeys(order))


def built_agent():
    """Compiles the agent if its source has changed. Returns the program's path."""
    source = SOURCES / "agent.cc"
    made = BUILD / f"board-agent-{hashlib.sha256(source.read_bytes()).hexdigest()[:16]}"
    if made.exists():
        return made
    compiler = find_tool(CROSS_PREFIX + "g++")
    if not compiler:
        raise Unavailable(f"{CROSS_PREFIX}g++ is missing (Debian package g++-mipsel-linux-gnu)")
    with tempfile.TemporaryDirectory(dir=BUILD, prefix="agent.") as folder:
        fresh = Path(folder, "board-agent")
        subprocess.run([compiler, f"--sysroot={SYSROOT}", *AGENT_FLAGS, "-o", fresh, source], check=True,
                       stdin=subprocess.DEVNULL)
        for old in BUILD.glob("board-agent-*"):
            old.unlink(missing_ok=True)
        fresh.rename(made)
    return made


def add_libraries(archive, wanted):
    for folder in ("lib/mipsel-linux-gnu", "usr/lib/mipsel-linux-gnu"):
        for path in sorted((SYSROOT / folder).iterdir()):
            if SHARED_LIBRARY.fullmatch(path.name) and bool(BASE_LIBRARIES.fullmatch(path.name)) == wanted:
                archive.copy(f"{folder}/{path.name}", path)


def add_modules(archive):
    release = kernel_release()
    home = f"lib/modules/{release}"
    files = modules_needed(MODULES)
    made = set()
    for file in files:
        for parent in reversed(Path(home, file).parents):
            if parent.parts[:2] == ("lib", "modules") and len(parent.parts) > 2 and parent not in made:
                made.add(parent)
                archive.folder(str(parent))
        archive.copy(f"{home}/{file}", KERNEL / home / file)
    lines = (KERNEL / home / "modules.dep").read_text().splitlines(keepends=True)
    own = [line for line in lines if line.split(":")[0] in files]
    archive.bytes(f"{home}/modules.dep", "".join(own).encode())


def write_base(archive, agent):
    for folder in FOLDERS:
        archive.folder(folder)
    archive.folder("tmp", 0o1777)
    archive.entry("dev/console", stat.S_IFCHR | 0o600, device=(5, 1))
    archive.entry("dev/null", stat.S_IFCHR | 0o666, device=(1, 3))
    archive.link("var/run", "../run")
    archive.link("lib/ld.so.1", "mipsel-linux-gnu/ld.so.1")
    archive.copy("bin/busybox", SYSROOT / "bin/busybox")
    archive.link("bin/sh", "busybox")
    archive.copy("sbin/board-agent", agent)
    add_libraries(archive, True)
    add_modules(archive)
    archive.tree("", SOURCES / "rootfs")


def made_once(name, key, write):
    """The content of build/board/NAME-KEY.cpio. If it is missing, `write(archive)` makes it and older ones are removed."""
    path = BUILD / f"{name}-{key}.cpio"
    with locked(BUILD / "image.lock"):
        if not path.exists():
            for old in BUILD.glob(f"{name}-*.cpio*"):
                old.unlink()
            fresh = path.with_suffix(".cpio.new")
            with open(fresh, "wb") as file:
                archive = Cpio(file)
                write(archive)
                archive.end()
            fresh.rename(path)
        return path.read_bytes()


def base_image(with_libcurl=False):
    """The content of the image without the build."""
    agent = built_agent()
    state = hashlib.sha256((BUILD / "unpacked.json").read_bytes() + os.fsencode(agent.name))
    for path in [Path(__file__), *sorted((SOURCES / "rootfs").rglob("*"))]:
        if path.is_file():
            state.update(os.fsencode(path) + path.read_bytes())
    key = state.hexdigest()[:16]
    image = made_once("base", key, lambda archive: write_base(archive, agent))
    if with_libcurl:
        image += made_once("libcurl", key, lambda archive: add_libraries(archive, False))
    return image


def write_build(file, build):
    """Writes bin and lib of a build folder as /usr/bin and /usr/lib."""
    archive = Cpio(file)
    for name in ("bin", "lib"):
        if (build / name).is_dir():
            archive.tree(f"usr/{name}", build / name)
    archive.end()
