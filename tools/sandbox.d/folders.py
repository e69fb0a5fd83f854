"""What the command sees: /proc, /run and /dev of its own and the device's files in the machine's folders.

Runs as the first process of the new namespaces. Everything that is written lies on tmpfs mounts of
the private mount namespace; the kernel drops them when its last process ends.
"""

import os
import stat

import linux

DEVICE_FILES = os.path.join(os.path.dirname(os.path.realpath(__file__)), "device")
DEVICE_FOLDERS = ["/etc/conf.d"]                      # empty ones, which the tree above can't hold
LAID_OVER = ["/etc", "/usr/sbin", "/var"]
STAGING = "/run"                                      # every machine has it, and it is replaced anyway
DEVICE_NODES = ["null", "zero", "full", "random", "urandom", "tty", "pts", "net/tun"]
DEVICE_LINKS = {"fd": "/proc/self/fd", "stdin": "fd/0", "stdout": "fd/1", "stderr": "fd/2"}
RUN_FOLDERS = ["dbg-cgi", "log", "lock"]
LOG_FILE = "/run/log/messages"


def set_up(dcore, overlay, net):
    """Builds all of it. Raises OSError when a step is refused; what was built so far ends with us."""
    folders = LAID_OVER + (["/usr/bin"] if dcore else [])
    inner = inner_mounts(folders)
    resolver = hidden_resolver()
    linux.mount("sandbox", STAGING, "tmpfs", linux.MS_NOSUID | linux.MS_NODEV, "mode=0755")
    machine = []
    for folder in folders:
        original = os.open(folder, os.O_PATH)
        below = [(path, descriptor) for path, descriptor in inner if path.startswith(folder + "/")]
        if lay_over(folder, dcore, overlay):
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
    """(path, descriptor) of what is mounted below the folders, as an overlay would not show it."""
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
            pass    # hidden below another mount, or closed to us: nobody could see it before either
    return found


def hidden_resolver():
    """The resolver's configuration when it lies in /run, which the private one will hide."""
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
    """One overlay; `upper` is a new folder on the staging tmpfs, to which the overlay holds on."""
    os.makedirs(work := upper + ".work")
    linux.mount("sandbox", folder, "overlay", 0, f"lowerdir={lower},upperdir={upper},workdir={work}")


def lay_over(folder, dcore, overlay):
    """Returns False when it had to make a folder of links into /run/machine, which doesn't exist yet."""
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
            pass    # no overlayfs here, or too many of them on top of each other already
    if folder == "/var":
        make_writable_var(upper)
    link_to_machine(folder, upper)
    linux.bind(upper, folder)
    return False


def add_device_files(folder, upper):
    """Copies rather than binds: owner and mode are root's whatever the checkout's are."""
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
    """Without an overlay only folders of our own can be written to."""
    for name in ("spool", "volatile"):
        os.mkdir(f"{upper}/{name}", 0o755)
    os.mkdir(upper + "/tmp")
    os.chmod(upper + "/tmp", 0o1777)


def link_to_machine(folder, upper):
    """Fills `upper` with a link for each entry of the machine's folder that it doesn't have yet."""
    for entry in os.scandir(folder):
        target = os.path.join(upper, entry.name)
        if entry.is_dir(follow_symlinks=False) and os.path.isdir(target):
            link_to_machine(entry.path, target)
        elif not os.path.lexists(target):
            os.symlink(os.readlink(entry.path) if entry.is_symlink() else "/run/machine" + entry.path, target)


def cover_inner_mount(path, descriptor):
    """Brings back what was mounted below a folder that is now an overlay, such that no write reaches it."""
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
            pass    # a file system that can't be below an overlay
    linux.bind(descriptor, path, read_only=True)


def make_run(machine):
    """`machine`: the originals, as (path, descriptor), that folders of links point to; outer ones first."""
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
    """A /dev whose /dev/log is ours; terminals stay the machine's, as the caller's is one of them."""
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
    """A node, not a bind mount: the kernel looks for a folder named pts beside the node that is opened."""
    try:
        os.mknod("/dev/ptmx", stat.S_IFCHR, os.makedev(5, 2))
        os.chmod("/dev/ptmx", 0o666)
    except PermissionError:
        os.symlink("pts/ptmx", "/dev/ptmx")     # in a container that may make no nodes


def make_proc(net):
    """Kernel settings are the whole machine's and so read-only, but for those of a network of our own."""
    linux.mount("proc", "/proc", "proc", linux.MS_NOSUID | linux.MS_NODEV | linux.MS_NOEXEC)
    linux.bind("/proc/sys", "/proc/sys", read_only=True)
    if net:
        linux.bind("/proc/sys/net", "/proc/sys/net")
        linux.mount(None, "/proc/sys/net", flags=linux.MS_REMOUNT | linux.MS_BIND)
