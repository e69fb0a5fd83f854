"""The page of archiveview in a real browser, of a small archive with names that are hostile."""

import json
import shutil
import subprocess

import pytest

from support import made_archives
from support.under_test import BIN
from test_page import SCRIPTS, modules

EVIL = "</script><img src=x onerror=alert(1)>"
STOPPED, OTHER = 520, 37
SOCKETS = 200
PLACE = 4711 + SOCKETS - 1  # the inode of a socket whose row is not among the first that are made
PATIENCE = 90
HEADS = b"  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n"
LINE = b"%4d: 0100007F:%04X 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 %d 1 0 100 0 0 10 0\n"

pytestmark = [
    pytest.mark.skipif(not (BIN / "archiveview").exists(), reason="archiveview is not built"),
    pytest.mark.skipif(not all(map(shutil.which, ("chromium", "node", "npm"))), reason="needs chromium and npm"),
]


def more_processes(folder):
    """Two processes: one that is stopped, and one with a hostile name."""
    for pid, name, state in ((STOPPED, "needle", "T"), (OTHER, EVIL, "S")):
        stat = f"{pid} ({name}) {state} 1 1 1 0 -1 0 0 0 0 0 5 0 0 0 20 0 1 0 100 4096000 500 0\n"
        yield f"{folder}/{pid}/stat", stat.encode()


def hostile_members():
    table = HEADS + b"".join(LINE % (i, i + 1, 4711 + i) for i in range(SOCKETS))
    changed = {"proc/net/tcp": table, "proc/sys/kernel/hostname": f"{EVIL}\u202e\n".encode() + b"\xff\n"}
    stored = []
    for name, data in made_archives.members(size=4000):
        stored.append((name, changed.get(name, data)))
        if name.endswith("/cmdline"):
            stored.extend(more_processes(name.split("/")[0]))
    return [*stored, ("manifest.txt", made_archives.manifest_of(stored))]


@pytest.fixture(scope="module")
def seen(tmp_path_factory):
    folder = tmp_path_factory.mktemp("report")
    page, archive = folder / "page.html", folder / "debug.tgz"
    archive.write_bytes(made_archives.packed(made_archives.tar_of(hostile_members())))
    ran = subprocess.run([BIN / "archiveview", "--html", page, archive], timeout=PATIENCE)
    assert ran.returncode == 0
    words = [page, f"socket/{PLACE}", "needle", str(PATIENCE)]
    looked = subprocess.run(["node", SCRIPTS / "report.mjs", modules(), shutil.which("chromium"), *words],
                            stdout=subprocess.PIPE, timeout=6 * PATIENCE, check=True)  # fmt: skip
    return {"url": page.as_uri(), **json.loads(looked.stdout)}


def test_page_sends_no_request_and_logs_nothing(seen):
    assert seen["errors"] == []
    assert {url.partition("#")[0] for url in seen["requests"] if not url.startswith("data:")} == {seen["url"]}


def test_title_is_the_name_of_the_file(seen):
    assert seen["title"] == ["debug.tgz", "debug.tgz"]


def test_page_fits_three_widths_in_light_and_dark_without_a_violation_of_axe(seen):
    assert [(look["width"], look["colorScheme"]) for look in seen["looks"]] == [
        (width, scheme) for width in (390, 820, 1440) for scheme in ("light", "dark")
    ]
    for look in seen["looks"]:
        assert look["scroll"] <= look["width"]
        assert look["violations"] == []
    assert len({(look["colorScheme"], look["ground"]) for look in seen["looks"]}) == 2
    assert len({look["ground"] for look in seen["looks"]}) == 2


def test_address_with_a_place_leads_to_its_row(seen):
    assert all(f"127.0.0.1:{SOCKETS}" in look["target"] and str(PLACE) in look["target"].replace(",", "")
               for look in seen["looks"])  # fmt: skip


def test_columns_are_sorted_with_the_keyboard(seen):
    rising = sorted((OTHER, made_archives.PID, made_archives.UNNAMED, STOPPED))
    for look in seen["looks"]:
        assert look["orders"] == {"descending": rising[::-1], "ascending": rising}


def test_links_of_the_findings_lead_to_their_places(seen):
    stopped = [link for link in seen["links"] if link["place"] == f"#process/{STOPPED}"]
    assert stopped and all("needle" in link["row"] for link in stopped)
    for link in seen["links"]:
        assert link["visible"] and link["news"] == "", link


def test_search_opens_the_sections_that_have_the_words(seen):
    assert seen["search"]["said"].endswith("found")
    assert seen["search"]["rows"] == 1
    assert "section-processes" in seen["search"]["open"]
    assert "section-sockets" not in seen["search"]["open"]


def test_all_sections_are_open_in_print_and_controls_are_hidden(seen):
    assert seen["print"]["bytes"] > 1000
    assert seen["print"]["closed"] == "0"
    assert seen["print"]["findings"] and not seen["print"]["search"]


def test_verdict_and_findings_can_be_read_without_a_script(seen):
    assert "The archive is whole" in seen["plain"]
    assert "process-stopped" in seen["plain"] and f"needle {STOPPED}" in seen["plain"]
    assert "Without JavaScript" in seen["plain"]
    assert not seen["controls"]
