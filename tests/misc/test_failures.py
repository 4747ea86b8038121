"""Where conversions stop, compared with Python's codecs: at the first byte of a damaged character, or of a
character that the other encoding lacks."""

import os
import random
import struct
import subprocess
import unittest

TELL_FAILURES = os.environ["TELL_FAILURES"]
NONE, INVALID, LACKING = 0, 1, 2
TEXTS = 3000


def failures(way, code_in, code_out, texts):
    """Returns the library's reason and offset for each text."""
    data = b"".join(struct.pack("<i", len(text)) + text for text in texts)
    done = subprocess.run([TELL_FAILURES, way, code_in, code_out], input=data, capture_output=True, check=True)
    return [tuple(map(int, line.split())) for line in done.stdout.splitlines()]


def decoded(codec, data):
    """Returns the reason and the offset of Python's decoder."""
    try:
        data.decode(codec)
    except UnicodeDecodeError as error:
        return INVALID, error.start
    return NONE, 0


def encoded(codec, text):
    """Returns the reason of Python's encoder, and the offset in bytes of UTF-8."""
    try:
        text.encode(codec)
    except UnicodeEncodeError as error:
        return LACKING, len(text[:error.start].encode())
    return NONE, 0


class Texts:
    """Makes texts of characters of all widths, whole and damaged."""

    def __init__(self, seed, alphabet):
        self.random = random.Random(seed)
        self.alphabet = alphabet

    def whole(self):
        return "".join(self.random.choices(self.alphabet, k=self.random.randrange(1, 12)))

    def damaged(self, codec, bad_bytes):
        """Returns a text, in most cases with bytes replaced, inserted or removed, or with its end cut off."""
        data = bytearray(self.whole().encode(codec))
        for _ in range(self.random.randrange(3)):
            at = self.random.randrange(len(data) + 1)
            kind = self.random.randrange(4)
            if kind == 0:
                data.insert(at, self.random.choice(bad_bytes))
            elif kind == 1 and at < len(data):
                data[at] = self.random.choice(bad_bytes)
            elif kind == 2 and at < len(data):
                del data[at]
            else:
                del data[at:]
        return bytes(data)


ANY = "ab \u00e9\u07ff\u0800\u4e2d\ud7ff\ue000\uffff\U00010000\U0001f600\U0010ffff"
UNICODE_FORMS = ("UTF-8", "UTF-16LE", "UTF-16BE", "UTF-32LE", "UTF-32BE")


class Decoding(unittest.TestCase):
    def compare(self, way, code, codec, texts, code_out="UTF-8"):
        expected = [decoded(codec, data) for data in texts]
        self.assertGreater(sum(reason == INVALID for reason, _ in expected), TEXTS / 10, "damaged ones are among them")
        self.assertGreater(sum(reason == NONE for reason, _ in expected), 10, "and whole ones")
        for data, came, wanted in zip(texts, failures(way, code, code_out, texts), expected, strict=True):
            self.assertEqual(came, wanted, f"{way} {code} {data.hex(' ')}")

    def test_reports_damaged_unicode_where_python_does(self):
        for code in UNICODE_FORMS:
            texts = Texts(code, ANY)
            data = [texts.damaged(code, range(256)) for _ in range(TEXTS)]
            self.compare("icu", code, code, data, "UTF-16BE" if code == "UTF-8" else "UTF-8")

    def test_so_it_does_without_icu(self):
        for code, out in (("UTF-8", "UTF-16LE"), ("UTF-8", "UTF-8"), ("UTF-16LE", "UTF-8"), ("UTF-16BE", "UTF-8"),
                          ("ASCII", "UTF-8")):
            texts = Texts(code + out, "abc" if code == "ASCII" else ANY)
            self.compare("alone", code, code, [texts.damaged(code, range(256)) for _ in range(TEXTS)], out)

    def test_a_damaged_text_of_another_encoding_does_too(self):
        # Bytes that begin no character in either implementation.
        for code, codec, alphabet in (("Shift_JIS", "shift_jis", "ab\u5c71\u7530\uff71"), ("EUC-JP", "euc_jp", "ab\u5c71\u7530"),
                                      ("EUC-KR", "euc_kr", "ab\ud55c\uae00")):
            texts = Texts(code, alphabet)
            self.compare("icu", code, codec, [texts.damaged(codec, b"\xff") for _ in range(TEXTS)])


class Encoding(unittest.TestCase):
    def test_reports_unencodable_character_where_python_does(self):
        for code, codec in (("ISO-8859-1", "latin-1"), ("ASCII", "ascii"), ("ISO-8859-2", "iso8859-2"), ("KOI8-R", "koi8-r"),
                            ("Shift_JIS", "cp932"), ("GBK", "gbk")):
            texts = Texts(code, "abcdefghijklmnopqrst" + "\u00e9\u0159\u0416\u65e5\U0001f600")
            some = [texts.whole() for _ in range(TEXTS)]
            expected = [encoded(codec, text) for text in some]
            self.assertEqual({reason for reason, _ in expected}, {NONE, LACKING})
            came = failures("icu", "UTF-8", code, [text.encode() for text in some])
            for text, told, wanted in zip(some, came, expected, strict=True):
                self.assertEqual(told, wanted, f"{code} {text!r}")


if __name__ == "__main__":
    unittest.main()
