"""Unpacks the packages into build/board/sysroot and build/board/kernel."""

import contextlib
import json
import os
import shutil
import subprocess
from pathlib import Path

import mirror
from places import BUILD, KERNEL, SYSROOT, Unavailable, cache, locked

STAMP = BUILD / "unpacked.json"
FORMAT = 1  # of the unpacked files; increase it when the code below changes its result


def prepare(say, refresh=False):
    """Makes sysroot and kernel if they are missing. Raises Unavailable."""
    for tool, package in (("apt-get", "apt"), ("dpkg-deb", "dpkg"), ("depmod", "kmod")):
        if not find_tool(tool):
            raise Unavailable(f"{tool} is missing (Debian package {package})")
    home = cache()
    with locked(home / "lock", lambda: say("waiting for another board/fetch")):
        store = mirror.Store(home / "packages")
        packages = None if refresh else store.read()
        if packages is None:
            packages = store.fill(mirror.Apt(home / "apt", say))
        with locked(BUILD / "lock", lambda: say("waiting for another board/fetch")):
            if is_unpacked(packages):
                say(f"sysroot and kernel are ready in {BUILD}")
                return
            unpack(store.folder, packages, say)


def find_tool(name):
    return shutil.which(name, path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")


def stamp_of(packages):
    return {"format": FORMAT, "packages": [package.sha256 for package in packages]}


def is_unpacked(packages):
    try:
        return json.loads(STAMP.read_text()) == stamp_of(packages) and SYSROOT.is_dir() and KERNEL.is_dir()
    except (OSError, ValueError):
        return False


def unpack(folder, packages, say):
    STAMP.unlink(missing_ok=True)
    kernel, *libraries = packages
    say(f"unpacking {kernel.name}")
    with fresh_folder(KERNEL) as new:
        extract(folder / kernel.file, new)
        index_modules(new)
    say(f"unpacking {len(libraries)} packages into the sysroot")
    with fresh_folder(SYSROOT) as new:
        for package in libraries:
            extract(folder / package.file, new)
        shutil.rmtree(new / "usr/share", ignore_errors=True)
        make_links_relative(new)
    STAMP.write_text(json.dumps(stamp_of(packages)))
    say(f"sysroot and kernel are ready in {BUILD}")


@contextlib.contextmanager
def fresh_folder(final):
    """An empty folder that replaces `final` unless an exception is raised."""
    new = final.with_name(final.name + ".new")
    shutil.rmtree(new, ignore_errors=True)
    new.mkdir(parents=True)
    try:
        yield new
        shutil.rmtree(final, ignore_errors=True)
        new.rename(final)
    except BaseException:
        shutil.rmtree(new, ignore_errors=True)
        raise


def extract(package, into):
    done = subprocess.run(["dpkg-deb", "-x", package, into], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False)
    if done.returncode != 0:
        raise Unavailable(f"{package} could not be unpacked: {done.stdout.strip()}")


def index_modules(kernel):
    """Writes modules.dep, which the package would make at installation."""
    release = kernel_release(kernel)
    subprocess.run([find_tool("depmod"), "-b", kernel, release], check=True, stdin=subprocess.DEVNULL)


def kernel_release(kernel=KERNEL):
    return next((kernel / "lib/modules").iterdir()).name


def make_links_relative(root):
    """Makes a link to /lib/libz.so.1 point to the sysroot's file, not the machine's."""
    for folder, folders, files in os.walk(root):
        for name in folders + files:
            link = Path(folder, name)
            if link.is_symlink() and os.readlink(link).startswith("/"):
                target = os.path.relpath(f"{root}{os.readlink(link)}", folder)
                link.unlink()
                link.symlink_to(target)
