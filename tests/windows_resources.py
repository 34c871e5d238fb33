"""Compiles the Windows resource script and reads back what a Windows program would carry.

windows_resources.py RESOURCE-SCRIPT VERSION
Without the resource compiler of MinGW it exits with 77, which counts as skipped.
"""

import pathlib
import shutil
import struct
import subprocess
import sys
import tempfile

RT_ICON, RT_GROUP_ICON, RT_VERSION = 3, 14, 16
ICON_SIZES = [16, 24, 32, 48, 64, 128, 256]


def compiled(script):
    windres = shutil.which("x86_64-w64-mingw32-windres")
    if not windres:
        print("SKIP: no x86_64-w64-mingw32-windres (Debian: binutils-mingw-w64-x86-64)")
        sys.exit(77)
    with tempfile.TemporaryDirectory() as folder:
        target = pathlib.Path(folder) / "kelpwharf.res"
        # The package has no compiler beside it; any C preprocessor does.
        subprocess.run(
            [windres, "--preprocessor=cpp", "--preprocessor-arg=-DRC_INVOKED", "-O", "res", script, target],
            check=True,
        )
        return target.read_bytes()


def aligned(offset):
    return (offset + 3) & ~3


def name_at(data, offset):
    """A number, or a text that ends in 0; and where it ends."""
    if struct.unpack_from("<H", data, offset)[0] == 0xFFFF:
        return struct.unpack_from("<H", data, offset + 2)[0], offset + 4
    return text_at(data, offset)


def text_at(data, offset):
    end = offset
    while data[end : end + 2] != b"\0\0":
        end += 2
    return data[offset:end].decode("utf-16-le"), end + 2


def resources(data):
    """Each resource by its type and its name."""
    found = {}
    offset = 0
    while offset < len(data):
        size, header_size = struct.unpack_from("<II", data, offset)
        kind, after_kind = name_at(data, offset + 8)
        name, _ = name_at(data, after_kind)
        start = offset + header_size
        assert (kind, name) not in found, f"twice: {kind} {name}"
        found[kind, name] = data[start : start + size]
        offset = aligned(start + size)
    return found


def png_size(image):
    assert image[:8] == b"\x89PNG\r\n\x1a\n", "an icon's image is no PNG"
    return struct.unpack_from(">II", image, 16)


def check_icons(found):
    groups = [data for (kind, _), data in found.items() if kind == RT_GROUP_ICON]
    assert len(groups) == 1, f"{len(groups)} icon groups"
    reserved, kind, count = struct.unpack_from("<HHH", groups[0])
    assert (reserved, kind) == (0, 1)
    sizes = []
    for index in range(count):
        width, height, _, _, _, bits, length, name = struct.unpack_from("<BBBBHHIH", groups[0], 6 + 14 * index)
        image = found[RT_ICON, name]
        assert png_size(image) == (width or 256, height or 256), f"image {name} is not as large as announced"
        assert (bits, length) == (32, len(image))
        sizes.append(width or 256)
    assert sizes == ICON_SIZES, sizes
    assert len([key for key in found if key[0] == RT_ICON]) == len(sizes), "images that no group names"


def blocks(data, offset, end):
    """The blocks of a version resource, one after the other: name, value, where the children are."""
    while offset < end:
        length, value_length, is_text = struct.unpack_from("<HHH", data, offset)
        name, after = text_at(data, offset + 6)
        value_at = aligned(after)
        value_end = value_at + value_length * (2 if is_text else 1)
        yield name, data[value_at:value_end], (aligned(value_end), offset + length)
        offset = aligned(offset + length)


def check_version(found, version):
    versions = [data for (kind, _), data in found.items() if kind == RT_VERSION]
    assert len(versions) == 1, f"{len(versions)} version blocks"
    data = versions[0]
    [(name, fixed, children)] = blocks(data, 0, len(data))
    assert name == "VS_VERSION_INFO"
    numbers = struct.unpack("<13I", fixed)
    assert numbers[0] == 0xFEEF04BD
    major, minor, patch = (int(part) for part in version.split("."))
    wanted = ((major << 16) | minor, patch << 16)
    assert numbers[2:4] == wanted, "file version in numbers"
    assert numbers[4:6] == wanted, "product version in numbers"
    assert numbers[9] == 1, "not marked as a program"

    parts = {name: children for name, _, children in blocks(data, *children)}
    [(table, _, strings)] = blocks(data, *parts["StringFileInfo"])
    texts = {name: value.decode("utf-16-le").rstrip("\0") for name, value, _ in blocks(data, *strings)}
    assert texts == {
        "CompanyName": "Orrinvale",
        "FileDescription": "Kelpwharf - scheduled FTP mirroring",
        "FileVersion": version,
        "InternalName": "Kelpwharf",
        "LegalCopyright": "Copyright (c) 2026 Orrinvale",
        "OriginalFilename": "Kelpwharf.exe",
        "ProductName": "Kelpwharf",
        "ProductVersion": version,
    }, texts
    [(name, value, _)] = blocks(data, *parts["VarFileInfo"])
    language, code_page = struct.unpack("<HH", value)
    assert (name, f"{language:04X}{code_page:04X}") == ("Translation", table.upper())


def main():
    script, version = sys.argv[1:]
    found = resources(compiled(script))
    check_icons(found)
    check_version(found, version)


main()
