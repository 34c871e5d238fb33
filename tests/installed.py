"""Installs a build into a temporary folder and checks that all that names the program agrees.

installed.py CMAKE BUILD-FOLDER SOURCE-FOLDER ID VERSION
"""

import configparser
import gzip
import os
import pathlib
import plistlib
import re
import struct
import subprocess
import sys
import tempfile
import xml.etree.ElementTree

ICON_SIZES = [16, 24, 32, 48, 64, 128, 256, 512]


def png_size(data):
    assert data[:8] == b"\x89PNG\r\n\x1a\n", "no PNG"
    return struct.unpack_from(">II", data, 16)


def check_program(prefix):
    program = prefix / "bin/kelpwharf"
    assert os.access(program, os.X_OK), "no program"
    paths = [str(path.relative_to(prefix)) for path in prefix.rglob("*")]
    strays = [path for path in paths if not re.match(r"bin|share", path)]
    assert not strays, strays


def check_icons(share, identity):
    icons = share / "icons/hicolor"
    for size in ICON_SIZES:
        image = (icons / f"{size}x{size}/apps/{identity}.png").read_bytes()
        assert png_size(image) == (size, size), f"icon of {size} pixels is {png_size(image)}"
    drawing = xml.etree.ElementTree.parse(icons / f"scalable/apps/{identity}.svg").getroot()
    assert drawing.tag == "{http://www.w3.org/2000/svg}svg"
    assert len(list(icons.glob("*/apps/*"))) == len(ICON_SIZES) + 1, "icons that nothing asks for"


def check_desktop_entry(share, identity):
    entries = list((share / "applications").iterdir())
    assert [entry.name for entry in entries] == [f"{identity}.desktop"]
    parser = configparser.ConfigParser(interpolation=None)
    parser.optionxform = str
    parser.read(entries[0])
    entry = parser["Desktop Entry"]
    assert entry["Icon"] == identity
    assert entry["Exec"] == "kelpwharf"


def check_metainfo(share, source, identity):
    root = xml.etree.ElementTree.parse(share / f"metainfo/{identity}.metainfo.xml").getroot()
    assert root.findtext("id") == identity
    assert root.findtext("launchable") == f"{identity}.desktop"
    assert root.findtext("provides/binary") == "kelpwharf"

    images = root.findall("screenshots/screenshot/image")
    assert images, "no screenshots"
    for image in images:
        shown = source / "docs/images" / image.text.rsplit("/", 1)[1]
        size = (int(image.get("width")), int(image.get("height")))
        assert png_size(shown.read_bytes()) == size, f"{shown.name} has another size"

    releases = root.findall("releases/release")
    changelog = (source / "CHANGELOG.md").read_text()
    sections = re.findall(r"^## (\S+)(?: \((.*)\))?$", changelog, re.MULTILINE)
    assert [release.get("version") for release in releases] == [version for version, _ in sections]
    for release, (version, when) in zip(releases, sections):
        is_out = when != "unreleased"
        assert (release.get("type") == "development") != is_out, f"{version}: out or not?"
        assert not is_out or release.get("date") == when, f"{version}: two dates"
    return sections[0][0]


def check_man_page(share, version):
    data = (share / "man/man1/kelpwharf.1.gz").read_bytes()
    assert struct.unpack_from("<I", data, 4) == (0,), "the man page records when it was packed"
    page = gzip.decompress(data).decode()
    assert f'"Kelpwharf {version}"' in page
    assert "@" not in page, "something was not filled in"


def anchors(page):
    """What the headings of a page can be linked by."""
    headings = re.findall(r"^#+ (.*)$", page.read_text(), re.MULTILINE)
    return [re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings]


def links(page):
    """All that a page links to or shows, but for addresses in the net: file and anchor, each may be empty."""
    targets = re.findall(r"\]\(([^)\s]+)\)", page.read_text())
    return [target.partition("#")[::2] for target in targets if "://" not in target]


def check_links(pages):
    """None leads nowhere; returns the files that they lead to."""
    reached = set()
    for page in pages:
        for name, anchor in links(page):
            target = (page.parent / name).resolve() if name else page.resolve()
            assert target.exists(), f"{page.name} links to {name}, which is not there"
            assert not anchor or anchor in anchors(target), f"{page.name}: {name} has no heading #{anchor}"
            reached.add(target)
    return reached


def check_documents(share, source):
    pages = list((share / "doc/kelpwharf").glob("*.md"))
    reached = check_links(pages)
    installed = {path.resolve() for path in (share / "doc/kelpwharf/images").iterdir()}
    assert installed and installed <= reached, f"no page shows {installed - reached}"

    pages = [*source.glob("*.md"), *source.glob("docs/*.md")]
    assert source / "README.md" in pages
    assert len(check_links(pages)) > 30, "hardly a link: has the way of writing them changed?"


def check_debian(source, version):
    first = (source / "packaging/debian/changelog").read_text().splitlines()[0]
    assert re.match(rf"kelpwharf \({re.escape(version)}-\d+\) ", first), first


def check_flatpak(source):
    """The manifest is a file of its own, so it has the maker's usual domain."""
    [manifest] = (source / "packaging/flatpak").glob("*.yml")
    text = manifest.read_text()
    assert f"\nid: {manifest.stem}\n" in f"\n{text}", "the manifest is not named after its id"
    assert "\ncommand: kelpwharf\n" in text
    domain = re.search(r'KELPWHARF_DOMAIN "([^"]+)"', (source / "CMakeLists.txt").read_text()).group(1)
    assert manifest.stem == ".".join(reversed(domain.split("."))) + ".kelpwharf"


def check_bundle(build, source, identity, version):
    with open(build / "packaging/Info.plist", "rb") as file:
        properties = plistlib.load(file)
    assert properties["CFBundleIdentifier"] == identity
    assert properties["CFBundleExecutable"] == "Kelpwharf"
    assert properties["CFBundleShortVersionString"] == properties["CFBundleVersion"] == version

    data = (source / "packaging/macos" / properties["CFBundleIconFile"]).read_bytes()
    assert struct.unpack_from(">4sI", data) == (b"icns", len(data))
    widths = []
    offset = 8
    while offset < len(data):
        _, length = struct.unpack_from(">4sI", data, offset)
        width, height = png_size(data[offset + 8 : offset + length])
        assert width == height
        widths.append(width)
        offset += length
    assert offset == len(data)
    assert sorted(set(widths)) == [32, 64, 128, 256, 512], widths


def main():
    cmake, build, source, identity, version = sys.argv[1:]
    build, source = pathlib.Path(build), pathlib.Path(source)
    with tempfile.TemporaryDirectory() as folder:
        prefix = pathlib.Path(folder)
        # Whatever prefix the build has, it goes below this one.
        environment = {name: value for name, value in os.environ.items() if name != "DESTDIR"}
        subprocess.run(
            [cmake, "--install", build, "--prefix", prefix],
            check=True,
            stdout=subprocess.DEVNULL,
            env=environment,
        )
        share = prefix / "share"
        check_program(prefix)
        check_icons(share, identity)
        check_desktop_entry(share, identity)
        newest = check_metainfo(share, source, identity)
        assert newest == version, f"{newest} is the newest of the changelog, {version} is built"
        check_man_page(share, version)
        assert (share / "doc/kelpwharf/manual.md").exists()
        assert (share / "doc/kelpwharf/LICENSE").exists()
        check_documents(share, source)
    check_debian(source, version)
    check_flatpak(source)
    check_bundle(build, source, identity, version)


main()
