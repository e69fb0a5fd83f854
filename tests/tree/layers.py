#!/usr/bin/python3
"""Checks that folders include only from lower layers, and that each include names its folder.

Usage: layers.py ROOT. Prints one line for each include that breaks the rule, and exits with 1 if there is
one.
"""
import pathlib
import re
import sys

# Lowest first. Folders on one layer do not include each other.
LAYERS = [["platform"], ["common"], ["oops", "platform/standin"], ["proc"], ["net"], ["monitor", "trace"], ["dump"],
          ["archive"], ["cgi"], ["app"]]
LAYER_OF = {folder: number for number, folders in enumerate(LAYERS) for folder in folders}
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"')
# Files that may include only these, although more is below them.
STANDALONE = {
    "archive/tar.cpp": {"archive/tar.h", "archive/output.h", "common/"},
    "archive/tar.h": set(),
    "archive/output.cpp": {"archive/output.h", "archive/tar.h", "archive/phase.h", "common/"},
    "archive/output.h": set(),
}


def folder_of(path):
    """The innermost folder of LAYERS that the file is in."""
    return max((folder for folder in LAYER_OF if path.startswith(folder + "/")), key=len)


def complaint(path, included):
    folder = folder_of(path)
    target = included.split("/")[0]
    if "/" not in included or target not in LAYER_OF:
        return "does not name a folder of the product"
    if path in STANDALONE and not any(included.startswith(allowed) for allowed in STANDALONE[path]):
        return "is not one of the few files that it may include"
    if target != folder and LAYER_OF[target] >= LAYER_OF[folder]:
        return "is not in a lower layer"
    return None


def check(root):
    broken, files = [], 0
    for folder in sorted({folder.split("/")[0] for folder in LAYER_OF}):
        for path in sorted((root / folder).rglob("*")):
            if path.suffix not in (".h", ".cpp"):
                continue
            files += 1
            name = path.relative_to(root).as_posix()
            for number, line in enumerate(path.read_text().splitlines(), 1):
                match = INCLUDE.match(line)
                reason = match and complaint(name, match.group(1))
                if reason:
                    broken.append(f'{name}:{number}: "{match.group(1)}" {reason}')
    return broken, files


def main():
    broken, files = check(pathlib.Path(sys.argv[1]))
    print("\n".join(broken) or f"{files} files include only from lower layers")
    return 1 if broken or files == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
