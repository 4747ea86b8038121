"""Every encoding that the library converts, compared with other implementations: Python's codecs, and four small
ones here.  encodings.md describes and counts the differences; these counts must come out.
`test_encodings.py --print` prints them."""

import os
import re
import struct
import subprocess
import sys
import unicodedata
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
CONVERT_ALL = os.environ["CONVERT_ALL"]
SUPPORTED = re.findall(r'"([^"]+)", true', (ROOT / "tests/unicode/encodingList.h").read_text())


class Codec:
    """One of Python's codecs by name; decode and encode return None for input that the codec refuses."""

    def __init__(self, name):
        self.name = name

    def decode(self, data):
        try:
            return data.decode(self.name)
        except UnicodeError:
            return None

    def encode(self, text):
        try:
            return text.encode(self.name)
        except UnicodeError:
            return None


class Marked(Codec):
    """UTF-16 or UTF-32 with a mark: big-endian without one, and written little-endian with one."""

    def decode(self, data):
        for order, mark in (("le", "\ufeff".encode(self.name + "_le")), ("be", "\ufeff".encode(self.name + "_be"))):
            if data.startswith(mark):
                return Codec(f"{self.name}_{order}").decode(data[len(mark):])
        return Codec(self.name + "_be").decode(data)

    def encode(self, text):
        return Codec(self.name + "_le").encode("\ufeff" + text)


class Unclosed(Codec):
    """HZ that does not return to ASCII at the end of a text."""

    def encode(self, text):
        encoded = super().encode(text)
        return None if encoded is None else encoded.removesuffix(b"~}")


class Cesu8:
    """Writes each UTF-16 unit, also each half of a surrogate pair, as UTF-8 writes a character."""

    name = "our own"

    def decode(self, data):
        try:
            units = data.decode("utf-8", "surrogatepass")
            if any(ord(unit) > 0xFFFF for unit in units):
                return None
            return units.encode("utf-16le", "surrogatepass").decode("utf-16le")
        except UnicodeError:
            return None

    def encode(self, text):
        units = struct.unpack(f"<{len(text.encode('utf-16le')) // 2}H", text.encode("utf-16le"))
        return b"".join(chr(unit).encode("utf-8", "surrogatepass") for unit in units)


class Iscii:
    """ISCII of one script.  Each script has the letters of Devanagari at 0x80 times the script's number further
    on, as far as it has them."""

    name = "our own"
    DEVANAGARI = dict(zip(
        [*range(0xA1, 0xEB), *range(0xF1, 0xFB)],
        [0x901, 0x902, 0x903, *range(0x905, 0x90C), 0x90E, 0x90F, 0x910, 0x90D, 0x912, 0x913, 0x914, 0x911,
         *range(0x915, 0x930), 0x95F, *range(0x930, 0x93A), 0x200D, *range(0x93E, 0x944), 0x946, 0x947, 0x948, 0x945,
         0x94A, 0x94B, 0x94C, 0x949, 0x94D, 0x93C, 0x964, *range(0x966, 0x970)]))

    def __init__(self, script):
        self.table = {byte: chr(byte) for byte in range(0x80)}
        for byte, letter in self.DEVANAGARI.items():
            moved = letter + 0x80 * script if 0x900 < letter < 0x980 and letter != 0x964 else letter
            if unicodedata.category(chr(moved)) != "Cn":
                self.table[byte] = chr(moved)
        self.reverse = {letter: byte for byte, letter in self.table.items()}

    def decode(self, data):
        letters = [self.table.get(byte) for byte in data]
        return None if None in letters else "".join(letters)

    def encode(self, text):
        return bytes([self.reverse[text]]) if text in self.reverse else None


class Scsu:
    """The decoder of the standard compression scheme; a text may be compressed in several ways."""

    name = "our own"
    STATIC = [0x0000, 0x0080, 0x0100, 0x0300, 0x2000, 0x2080, 0x2100, 0x3000]
    SPECIAL = {0xF9: 0xC0, 0xFA: 0x250, 0xFB: 0x370, 0xFC: 0x530, 0xFD: 0x3040, 0xFE: 0x30A0, 0xFF: 0xFF60}

    def offset(self, index):
        if 0x01 <= index <= 0x67:
            return index * 0x80
        if 0x68 <= index <= 0xA7:
            return index * 0x80 + 0xAC00
        return self.SPECIAL[index]

    def decode(self, data):
        windows = [0x80, 0xC0, 0x400, 0x600, 0x900, 0x3040, 0x30A0, 0xFF00]
        active, is_unicode, units, rest = 0, False, b"", iter(data)

        def put(value):
            nonlocal units
            units += chr(value).encode("utf-16le", "surrogatepass")

        def define_far():
            high, low = next(rest), next(rest)
            windows[high >> 5] = 0x10000 + (((high & 0x1F) << 8) | low) * 0x80
            return high >> 5

        try:
            for byte in rest:
                if is_unicode:
                    if 0xE0 <= byte <= 0xE7:
                        active, is_unicode = byte - 0xE0, False
                    elif 0xE8 <= byte <= 0xEF:
                        active, is_unicode = byte - 0xE8, False
                        windows[active] = self.offset(next(rest))
                    elif byte == 0xF1:
                        active, is_unicode = define_far(), False
                    else:
                        put((next(rest) if byte == 0xF0 else byte) << 8 | next(rest))
                elif 0x01 <= byte <= 0x08:
                    low = next(rest)
                    put(self.STATIC[byte - 1] + low if low < 0x80 else windows[byte - 1] + low - 0x80)
                elif byte == 0x0B:
                    active = define_far()
                elif byte == 0x0E:
                    put(next(rest) << 8 | next(rest))
                elif byte == 0x0F:
                    is_unicode = True
                elif 0x10 <= byte <= 0x17:
                    active = byte - 0x10
                elif 0x18 <= byte <= 0x1F:
                    active = byte - 0x18
                    windows[active] = self.offset(next(rest))
                else:
                    put(byte if byte < 0x80 else windows[active] + byte - 0x80)
            return units.decode("utf-16le")
        except (StopIteration, RuntimeError, KeyError, UnicodeError):
            return None


class Bocu1:
    """Encodes one character as its distance from U+0040, in digits of 243 values."""

    name = "our own"
    TRAILS = [*range(0x01, 0x07), *range(0x10, 0x1A), *range(0x1C, 0x20), *range(0x21, 0x100)]

    def encode(self, text):
        code = ord(text)
        if code <= 0x20:
            return bytes([code])
        # Each row: the number of trail bytes, the first distance, and the leading byte of that distance.
        ranges = ((0, -64, 0x50), (1, 64, 0xD0), (2, 64 + 43 * 243, 0xFB), (3, 64 + 43 * 243 + 3 * 243 ** 2, 0xFE))
        below = ((1, -64 - 43 * 243, 0x25), (2, -64 - 43 * 243 - 3 * 243 ** 2, 0x22))
        distance = code - 0x40
        if distance < -64:
            count, base, lead = below[0]
        else:
            count, base, lead = [row for row in ranges if distance >= row[1]][-1]
        value, trail = distance - base, b""
        for _ in range(count):
            value, digit = divmod(value, 243)
            trail = bytes([self.TRAILS[digit]]) + trail
        return bytes([lead + value]) + trail if count else bytes([0x90 + distance])


ISCII_SCRIPTS = {57002: 0, 57003: 1, 57004: 5, 57005: 6, 57006: 1, 57007: 4, 57008: 7, 57009: 8, 57010: 3, 57011: 2}
PEERS = {
    "UTF-16": Marked("utf_16"), "UTF-32": Marked("utf_32"),
    "ISO-10646-UCS-2": Marked("utf_16"), "ISO-10646-UCS-4": Marked("utf_32"),
    "CESU-8": Cesu8(), "SCSU": Scsu(), "BOCU-1": Bocu1(),
    "Big5": Codec("cp950"), "GBK": Codec("cp936"), "Shift_JIS": Codec("cp932"), "Windows-31J": Codec("cp932"),
    "KS_C_5601-1987": Codec("cp949"), "windows-949-2000": Codec("cp949"), "ibm-943_P130-1999": Codec("cp932"),
    "ibm-1363_P11B-1998": Codec("cp949"), "ibm-1386": Codec("cp936"), "ibm-1373_P100-2002": Codec("cp950"),
    "ISO-2022-JP": Codec("iso2022_jp"), "csISO2022JP": Codec("iso2022_jp"), "HZ-GB-2312": Unclosed("hz"),
    "ISO_646.irv:1983": Codec("ascii"), "IBM00858": Codec("cp858"), "TIS-620": Codec("cp874"), "ibm-874": Codec("cp874"),
    "Windows-720": Codec("cp720"), "Windows-737": Codec("cp737"),
    **{f"ISO-8859-{part}-{order}": Codec(f"iso8859_{part}") for part in (6, 8) for order in "EI"},
    **{f"Windows-{page}": Iscii(script) for page, script in ISCII_SCRIPTS.items()},
}
BYTES = [bytes([byte]) for byte in range(256)]
PAIRS = [first + second for first in BYTES for second in BYTES]
DOUBLE = {"Big5", "GBK", "Shift_JIS", "Windows-31J", "KS_C_5601-1987", "windows-949-2000", "ibm-943_P130-1999",
          "ibm-1363_P11B-1998", "ibm-1386", "ibm-1373_P100-2002", "UTF-8", "CESU-8"}
UNITS = {"UTF-16LE", "UTF-16BE", "UTF-16", "ISO-10646-UCS-2", "SCSU", "UTF-7"}
CODES = [code for code in [*range(0xD800), *range(0xE000, 0x10000), *range(0x10000, 0x110000, 1021)]]
TEXTS = [chr(code) for code in CODES]


def peer_of(name):
    return PEERS.get(name) or Codec(name.lower())


def inputs(name):
    """Returns the inputs to decode: every byte and, where letters have several bytes, every pair.  In the
    sets that hold ASCII, a pair begins with a byte that is not ASCII."""
    if name in ("ISO-2022-JP", "csISO2022JP"):
        return BYTES + [b"\x1b$B" + pair + b"\x1b(B" for pair in PAIRS if max(pair) < 0x7F and min(pair) > 0x20]
    if name == "HZ-GB-2312":
        return BYTES + [b"~{" + pair + b"~}" for pair in PAIRS if max(pair) < 0x7F and min(pair) > 0x20]
    if name.startswith("UTF-32") or name == "ISO-10646-UCS-4":
        order = "<I" if name.endswith("LE") else ">I"
        return BYTES + [struct.pack(order, code) for code in [*range(0x10000), *range(0x10000, 0x120000, 1021)]]
    if name in DOUBLE:
        return BYTES + [pair for pair in PAIRS if pair[0] > 0x7F]
    return BYTES + PAIRS if name in UNITS else BYTES


def convert_all(code_in, code_out, texts):
    data = b"".join(struct.pack("<i", len(text)) + text for text in texts)
    out = subprocess.run([CONVERT_ALL, code_in, code_out], input=data, check=True, capture_output=True, timeout=200).stdout
    results, at = [], 0
    while at < len(out):
        size = int.from_bytes(out[at:at + 4], "little", signed=True)
        at += 4
        results.append(None if size < 0 else out[at:at + size])
        at += max(size, 0)
    assert len(results) == len(texts), code_in
    return results


def count(ours, theirs):
    """Returns how many inputs only the library converts, only the peer converts, and both convert differently."""
    pairs = [(our, their) for our, their in zip(ours, theirs) if our != their]
    return [sum(their is None for _, their in pairs), sum(our is None for our, _ in pairs),
            sum(our is not None and their is not None for our, their in pairs)]


def measure(name):
    """Returns the row of encodings.md: decoded (three counts), encoded (three counts), dropped, not back."""
    peer = peer_of(name)
    texts = inputs(name)
    decoded = convert_all(name, "UTF-8", texts)
    encoded = convert_all("UTF-8", name, [text.encode() for text in TEXTS])
    row = ["-"] * 3
    if hasattr(peer, "decode"):
        theirs = [peer.decode(text) for text in texts]
        row = count(decoded, [None if text is None else text.encode() for text in theirs])
    dropped = [text == b"" for text in encoded]
    ours, kept = [text for text, drop in zip(encoded, dropped) if not drop], \
        [text for text, drop in zip(TEXTS, dropped) if not drop]
    if name in ("SCSU", "UTF-7"):  # these write a character in several ways
        row += count([None if text is None else peer.decode(text) for text in ours], kept)
    else:
        row += count(ours, [peer.encode(text) for text in kept])
    known = [(text, result) for text, result in zip(texts, decoded) if result]
    back = convert_all("UTF-8", name, [result for _, result in known])
    return row + [sum(dropped), sum(text != again for (text, _), again in zip(known, back))]


def documented():
    page = Path(__file__).with_name("encodings.md").read_text()
    rows = re.findall(r"^\| `([^`]+)` \|[^|]*\|((?: *[-\d]+ *\|){8})$", page, re.M)
    return {name: [cell if cell == "-" else int(cell) for cell in re.findall(r"[-\d]+", cells)] for name, cells in rows}


class Encodings(unittest.TestCase):
    def test_each_is_documented(self):
        self.assertEqual(len(SUPPORTED), 76)
        self.assertEqual(list(documented()), SUPPORTED)

    def test_each_differs_as_documented(self):
        expected = documented()
        for name in SUPPORTED:
            with self.subTest(name):
                self.assertEqual(measure(name), expected[name])

    def test_published_samples(self):
        samples = {
            ("SCSU", bytes.fromhex("d66c20666c6965df74")): "Öl fließt",
            ("SCSU", bytes.fromhex("129cbec1bab2b0")): "Москва",
            ("UTF-7", b"Hi Mom +Jjo-!"): "Hi Mom \u263a!",
            ("HZ-GB-2312", b"~{<:Ky2;S{#,NpJ)l6HK!#~}"): "己所不欲，勿施於人。",
            ("CESU-8", bytes.fromhex("eda081edb080")): "\U00010400",
        }
        for (name, data), text in samples.items():
            self.assertEqual(convert_all(name, "UTF-8", [data]), [text.encode()], name)


if __name__ == "__main__":
    if sys.argv[1:] == ["--print"]:
        for name in SUPPORTED:
            print(f"| `{name}` | {peer_of(name).name} | " + " | ".join(map(str, measure(name))) + " |", flush=True)
    else:
        unittest.main()
