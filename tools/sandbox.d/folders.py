"""The file system of the command: its own /proc, /run and /dev, and the device's files in the machine's
folders.

Runs in the first process of the new namespaces. Everything is written to tmpfs mounts of the private mount
namespace, which the kernel drops when its last process ends.
"""

import os
import stat

import linux

DEVICE_FILES = os.path.join(os.path.dirname(os.path.realpath(__file__)), "device")
DEVICE_FOLDERS = ["/etc/conf.d"]  # empty folders, which git cannot store
EXTENDED = ["/etc", "/usr/sbin", "/var"]
STAGING = "/run"  # every machine has it, and it is replaced at the end
DEVICE_NODES = ["null", "zero", "full", "random", "urandom", "tty", "pts", "net/tun"]
DEVICE_LINKS = {"fd": "/proc/self/fd", "stdin": "fd/0", "stdout": "fd/1", "stderr": "fd/2"}
RUN_FOLDERS = ["dbg-cgi", "log", "lock"]
LOG_FILE = "/run/log/messages"


def set_up(dcore, overlay, net):
    """Sets up everything. Raises OSError if a step fails; the mounts end with this process."""
    folders = EXTENDED + (["/usr/bin"] if dcore else [])
    inner = inner_mounts(folders)
    resolver = hidden_resolver()
    linux.mount("sandbox", STAGING, "tmpfs", linux.MS_NOSUID | linux.MS_NODEV, "mode=0755")
    machine = []
    for folder in folders:
        original = os.open(folder, os.O_PATH)
        below = [(path, descriptor) for path, descriptor in inner if path.startswith(folder + "/")]
        if extend(folder, dcore, overlay):
            for path, descriptor in below:
                cover_inner_mount(path, descriptor)
        else:
            machine += [(folder, original), *below]
    linux.unmount(STAGING)
    if resolver is not None:
        replace_file("/etc/resolv.conf", resolver)
    make_run(machine)
    make_dev()
    make_proc(net)


def inner_mounts(folders):
    """(path, descriptor) of all mounts below the folders, which an overlay would not show."""
    paths = set()
    with open("/proc/self/mountinfo", "rb") as file:
        for line in file:
            path = os.fsdecode(line.split()[4].decode("unicode_escape").encode("latin-1"))
            if path.startswith(tuple(folder + "/" for folder in folders)):
                paths.add(path)
    found = []
    for path in sorted(paths):
        try:
            found.append((path, os.open(path, os.O_PATH)))
        except OSError:
            pass  # hidden below another mount, or no permission: it was not visible before either
    return found


def hidden_resolver():
    """The resolver's configuration if it is in /run, which the private one will hide."""
    if not os.path.realpath("/etc/resolv.conf").startswith("/run/"):
        return None
    try:
        with open("/etc/resolv.conf", "rb") as file:
            return file.read()
    except OSError:
        return None


def replace_file(path, content):
    try:
        os.unlink(path)
    except FileNotFoundError:
        pass
    with open(path, "wb") as file:
        file.write(content)
    os.chmod(path, 0o644)


def make_folder_like(path, original):
    os.makedirs(path)
    about = os.stat(original)
    os.chown(path, about.st_uid, about.st_gid)
    os.chmod(path, stat.S_IMODE(about.st_mode))


def overlay_over(lower, folder, upper):
    """Mounts an overlay. `upper` is a new folder on the staging tmpfs, which the overlay keeps alive."""
    os.makedirs(work := upper + ".work")
    linux.mount("sandbox", folder, "overlay", 0, f"lowerdir={lower},upperdir={upper},workdir={work}")


def extend(folder, dcore, overlay):
    """Adds the device's files to a folder. Returns False if it made a folder of links, whose targets must
    then appear in /run/machine."""
    upper = STAGING + "/upper" + folder
    make_folder_like(upper, folder)
    add_device_files(folder, upper)
    if folder == "/usr/bin":
        os.symlink(dcore, upper + "/dcore")
    if overlay:
        try:
            overlay_over(folder, folder, upper)
            return True
        except OSError:
            pass  # no overlayfs, or too many of them on top of each other
    if folder == "/var":
        make_writable_var(upper)
    link_to_machine(folder, upper)
    linux.bind(upper, folder)
    return False


def add_device_files(folder, upper):
    """Copies the files, since the owner must be root, whoever owns the checkout."""
    source = DEVICE_FILES + folder
    for parent, folders, files in os.walk(source):
        target = upper + parent[len(source):]
        for name in folders:
            os.mkdir(os.path.join(target, name), 0o755)
        for name in files:
            copy_file(os.path.join(parent, name), os.path.join(target, name))
    for path in DEVICE_FOLDERS:
        if path.startswith(folder + "/"):
            os.makedirs(upper + path[len(folder):], 0o755)


def copy_file(source, target):
    with open(source, "rb") as file:
        content = file.read()
        executable = os.fstat(file.fileno()).st_mode & 0o100
    with open(target, "wb") as file:
        file.write(content)
    os.chmod(target, 0o755 if executable else 0o644)


def make_writable_var(upper):
    """Makes the folders in which a command can write without an overlay."""
    for name in ("spool", "volatile"):
        os.mkdir(f"{upper}/{name}", 0o755)
    os.mkdir(upper + "/tmp")
    os.chmod(upper + "/tmp", 0o1777)


def link_to_machine(folder, upper):
    """Fills `upper` with a link for each entry of the machine's folder that it does not have yet."""
    for entry in os.scandir(folder):
        target = os.path.join(upper, entry.name)
        if entry.is_dir(follow_symlinks=False) and os.path.isdir(target):
            link_to_machine(entry.path, target)
        elif not os.path.lexists(target):
            os.symlink(os.readlink(entry.path) if entry.is_symlink() else "/run/machine" + entry.path, target)


def cover_inner_mount(path, descriptor):
    """Restores a mount that an overlay above it hides, and protects the original from writes."""
    mode = os.fstat(descriptor).st_mode
    original = f"/proc/self/fd/{descriptor}"
    if stat.S_ISREG(mode):
        with open(original, "rb") as file:
            replace_file(path, file.read())
        return
    if stat.S_ISDIR(mode):
        try:
            make_folder_like(upper := f"{STAGING}/inner{descriptor}", original)
            overlay_over(original, path, upper)
            return
        except OSError:
            pass  # overlayfs does not support this file system
    linux.bind(descriptor, path, read_only=True)


def make_run(machine):
    """`machine`: (path, descriptor) of the original folders to which the links point, outer folders first."""
    linux.mount("sandbox", "/run", "tmpfs", linux.MS_NOSUID | linux.MS_NODEV, "mode=0755")
    for name in RUN_FOLDERS:
        os.mkdir("/run/" + name, 0o755)
    os.chmod("/run/lock", 0o1777)
    open(LOG_FILE, "wb").close()
    for path, descriptor in machine:
        if not os.path.exists("/run/machine" + path):
            os.makedirs("/run/machine" + path)
        linux.bind(descriptor, "/run/machine" + path, read_only=True)


def make_dev():
    """A private /dev, for /dev/log. The terminals are the machine's, as the caller's is one of them."""
    nodes = []
    for name in DEVICE_NODES:
        if os.path.exists("/dev/" + name):
            nodes.append(("/dev/" + name, os.open("/dev/" + name, os.O_PATH)))
    linux.mount("sandbox", "/dev", "tmpfs", linux.MS_NOSUID, "mode=0755")
    for path, descriptor in nodes:
        if stat.S_ISDIR(os.fstat(descriptor).st_mode):
            os.mkdir(path)
        else:
            os.makedirs(os.path.dirname(path), exist_ok=True)
            open(path, "wb").close()
        linux.bind(descriptor, path)
    make_ptmx()
    for name, target in DEVICE_LINKS.items():
        os.symlink(target, "/dev/" + name)
    os.mkdir("/dev/shm")
    os.chmod("/dev/shm", 0o1777)


def make_ptmx():
    """A node, not a bind mount, because the kernel looks for a folder named pts next to the opened node."""
    try:
        os.mknod("/dev/ptmx", stat.S_IFCHR, os.makedev(5, 2))
        os.chmod("/dev/ptmx", 0o666)
    except PermissionError:
        os.symlink("pts/ptmx", "/dev/ptmx")  # in a container without permission to make nodes


def make_proc(net):
    """Kernel settings are the machine's, so read-only. Those of a private network are writable."""
    linux.mount("proc", "/proc", "proc", linux.MS_NOSUID | linux.MS_NODEV | linux.MS_NOEXEC)
    linux.bind("/proc/sys", "/proc/sys", read_only=True)
    if net:
        linux.bind("/proc/sys/net", "/proc/sys/net")
        linux.mount(None, "/proc/sys/net", flags=linux.MS_REMOUNT | linux.MS_BIND)
