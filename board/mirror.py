"""Downloads the mipsel packages of Debian 12 with a private apt configuration.

The apt state (sources, lists, status) is in the cache folder, so the machine's own package configuration does not
change. The mirror, proxies, credentials and trusted keys are the machine's; apt checks the signatures.
"""

import dataclasses
import hashlib
import json
import os
import re
import subprocess
from pathlib import Path

from places import Unavailable, cache

SUITE = "bookworm"
ARCHITECTURE = "mipsel"

# Packages for the sysroot.
DEVELOPMENT = ["libc6", "libc6-dev", "linux-libc-dev", "libgcc-s1", "libstdc++6", "libatomic1", "zlib1g",
               "zlib1g-dev", "libcurl4-openssl-dev", "busybox-static"]
# Loaded at run time by one applet; downloaded with its dependencies.
WITH_DEPENDENCIES = ["libcurl4"]
# A metapackage that depends on the current kernel image.
KERNEL = "linux-image-4kc-malta"

BIG = 5000000  # bytes; larger packages are downloaded one by one

APT_CONFIGURATION = """\
#clear APT::Update::Post-Invoke;
#clear APT::Update::Post-Invoke-Success;
#clear APT::Architectures;
APT::Architecture "{architecture}";
APT::Architectures {{ "{architecture}"; }};
APT::Sandbox::User "";
Acquire::Languages "none";
Acquire::Retries "2";
Dir::State "{state}/state";
Dir::State::status "{state}/status";
Dir::Cache "{state}/cache";
Dir::Cache::pkgcache "pkgcache.bin";
Dir::Cache::srcpkgcache "srcpkgcache.bin";
Dir::Etc::sourcelist "{state}/sources.list";
Dir::Etc::sourceparts "/dev/null";
"""


def one_line_sources(text):
    """(options, uri, suite, components) of each `deb` line of a sources.list."""
    for line in text.splitlines():
        found = re.match(r"deb\s+(?:\[([^]]*)\]\s+)?(\S+)\s+(\S+)\s*(.*)", line.split("#", 1)[0].strip())
        if found:
            options = dict(word.split("=", 1) for word in (found[1] or "").split() if "=" in word)
            yield options, found[2], found[3], found[4].split()


def deb822_sources(text):
    """The same for a .sources file, one for each combination in its stanzas."""
    for stanza in re.split(r"\n[ \t]*\n", re.sub(r"(?m)^#.*\n?", "", text)):
        joined = re.sub(r"\n[ \t]+", " ", stanza)
        fields = {name.lower(): value.strip() for name, value in re.findall(r"(?m)^([\w-]+):(.*)$", joined)}
        disabled = fields.get("enabled", "yes").lower() in ("no", "false")
        if disabled or "deb" not in fields.get("types", "").split():
            continue
        # The one-line format cannot express a key inside the stanza; the machine's trusted keys are used instead.
        signed_by = fields.get("signed-by", "")
        options = {"signed-by": signed_by} if signed_by.startswith("/") else {}
        for uri in fields.get("uris", "").split():
            for suite in fields.get("suites", "").split():
                yield options, uri, suite, fields.get("components", "").split()


def machine_sources(etc=Path("/etc/apt")):
    """All entries of the machine, in apt's order."""
    parts = etc / "sources.list.d"
    for path in [etc / "sources.list", *sorted(parts.glob("*.list")), *sorted(parts.glob("*.sources"))]:
        if path.is_file():
            reader = deb822_sources if path.suffix == ".sources" else one_line_sources
            yield from reader(path.read_text(encoding="utf-8"))


def machine_codename(os_release=Path("/etc/os-release")):
    found = re.search(r'(?m)^VERSION_CODENAME="?(\w+)', os_release.read_text(encoding="utf-8"))
    return found[1] if found else SUITE


def our_sources(entries, codename):
    """The lines of our sources.list: the machine's Debian entries, changed to Debian 12."""
    lines = []
    for options, uri, suite, components in entries:
        found = re.fullmatch(rf"(?:{SUITE}|stable|{re.escape(codename)})(-updates|-security)?", suite)
        if not found or "main" not in components:
            continue
        signed = f"[signed-by={options['signed-by']}] " if "signed-by" in options else ""
        line = f"deb {signed}{uri} {SUITE}{found[1] or ''} main"
        if line not in lines:
            lines.append(line)
    return lines


class Apt:
    """Runs apt with its state in `folder`."""

    def __init__(self, folder, say):
        self.folder = folder
        self.say = say
        lines = our_sources(machine_sources(), machine_codename())
        if not lines:
            raise Unavailable("this machine's package sources (/etc/apt) name no Debian mirror to download the "
                              "board's mipsel packages from")
        for part in ("state/lists/partial", "cache/archives/partial"):
            (folder / part).mkdir(parents=True, exist_ok=True)
        (folder / "status").write_text("")
        (folder / "sources.list").write_text("\n".join(lines) + "\n")
        (folder / "apt.conf").write_text(APT_CONFIGURATION.format(architecture=ARCHITECTURE, state=folder))

    def call(self, *words, cwd=None):
        done = subprocess.run([words[0], "-c", str(self.folder / "apt.conf"), *words[1:]], cwd=cwd,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True, errors="replace", env=dict(os.environ, LC_ALL="C"), check=False)
        return done.returncode, done.stdout

    def update(self):
        self.say("reading the mirror's package lists for mipsel")
        status, text = self.call("apt-get", "-q", "-o", "APT::Update::Error-Mode=any", "update")
        if status != 0:
            raise Unavailable("the board's mipsel packages (kernel, C library, zlib, libcurl, busybox) are not in "
                              f"{cache()}, and the mirror could not be read:\n" + last_lines(text))

    def packages(self):
        """All packages that the board needs, beginning with the current kernel image."""
        status, text = self.call("apt-cache", "depends", KERNEL)
        image = re.search(r"Depends: (linux-image-\S+)", text)
        if status != 0 or not image:
            raise Unavailable(f"the mirror has no {KERNEL}:\n{last_lines(text)}")
        status, text = self.call("apt-get", "-q", "-y", "--print-uris", "--no-install-recommends", "install",
                                 *WITH_DEPENDENCIES)
        needed = re.findall(r"(?m)^'\S+' ([^_\s]+)_\S+\.deb ", text)
        if status != 0 or not needed:
            raise Unavailable(f"the dependencies of {' '.join(WITH_DEPENDENCIES)} could not be resolved:\n"
                              + last_lines(text))
        return self.files([image[1], *dict.fromkeys(DEVELOPMENT + needed)])

    def files(self, names):
        """The Package of each name."""
        status, text = self.call("apt-get", "-q", "--print-uris", "download", *names)
        found = {}
        for file, size, sha256 in re.findall(r"(?m)^'\S+' (\S+\.deb) (\d+) SHA256:([0-9a-f]{64})", text):
            found[file.split("_")[0]] = Package(file.split("_")[0], file, int(size), sha256)
        missing = [name for name in names if name not in found]
        if status != 0 or missing:
            raise Unavailable(f"the mirror has no mipsel {' '.join(missing)}:\n{last_lines(text)}")
        return [found[name] for name in names]

    def download(self, packages, into):
        """Downloads big packages one by one, to show progress, and the rest together."""
        rest = [package for package in packages if package.size < BIG]
        for group in [[package] for package in packages if package.size >= BIG] + ([rest] if rest else []):
            what = group[0].name if len(group) == 1 else f"{len(group)} packages"
            self.say(f"downloading {what}, {sum(package.size for package in group) / 1e6:.1f} MB")
            names = [package.name for package in group]
            status, text = self.call("apt-get", "-q", "download", *names, cwd=into)
            broken = [package.name for package in group if not package.is_whole(into)]
            if status != 0 or broken:
                raise Unavailable(f"packages of the board could not be downloaded ({' '.join(broken)}):\n"
                                  + last_lines(text))


def last_lines(text, count=8):
    return "\n".join("  " + line for line in text.strip().splitlines()[-count:])


def digest(path):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "sha256").hexdigest()


@dataclasses.dataclass(frozen=True)
class Package:
    """One file of the mirror. The digest comes from the signed package list."""

    name: str
    file: str
    size: int
    sha256: str

    def is_whole(self, folder):
        path = folder / self.file
        return path.is_file() and path.stat().st_size == self.size and digest(path) == self.sha256


class Store:
    """The downloaded packages in the cache folder, and their list."""

    WANTED = [DEVELOPMENT, WITH_DEPENDENCIES, KERNEL]

    def __init__(self, folder):
        self.folder = folder
        self.list = folder / "packages.json"

    def read(self):
        """The packages, if all are there with the right digests; else None. Needs no network."""
        try:
            noted = json.loads(self.list.read_text())
            packages = [Package(**entry) for entry in noted["packages"]]
            wanted = noted["wanted"]
        except (OSError, ValueError, KeyError, TypeError):
            return None
        whole = wanted == self.WANTED and all(package.is_whole(self.folder) for package in packages)
        return packages if whole else None

    def write(self, packages):
        fresh = self.list.with_suffix(".new")
        noted = {"wanted": self.WANTED, "packages": [dataclasses.asdict(package) for package in packages]}
        fresh.write_text(json.dumps(noted, indent=1) + "\n")
        fresh.rename(self.list)

    def fill(self, apt):
        """Downloads missing packages and deletes those that the mirror no longer has."""
        self.folder.mkdir(parents=True, exist_ok=True)
        apt.update()
        packages = apt.packages()
        apt.download([package for package in packages if not package.is_whole(self.folder)], self.folder)
        self.write(packages)
        kept = {package.file for package in packages}
        for file in self.folder.glob("*.deb"):
            if file.name not in kept:
                file.unlink()
        return packages
