#!/usr/bin/python3
"""Writes the seed inputs that are awkward to write by hand into fuzz/corpus/.

The JSON seeds are plain files in the corpus; this makes the structured
ones (read with FuzzedDataProvider, which takes strings from the front and
numbers from the back), the images, the catalogs and the raw HTTP replies.
Run again after changing an input format: /usr/bin/python3 fuzz/make_seeds.py
Needs python3-pil and msgfmt.
"""
import gzip
import io
import json
import os
import struct
import subprocess
import tempfile

from PIL import Image

HERE = os.path.dirname(os.path.abspath(__file__))


def write(target, name, data):
    path = os.path.join(HERE, "corpus", target, name)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data if isinstance(data, bytes) else data.encode())


class Provider:
    """Builds input for FuzzedDataProvider: strings at the front, numbers at the back."""

    def __init__(self):
        self.front = b""
        self.back = b""  # in the order the provider consumes them

    def string(self, text):
        data = text if isinstance(text, bytes) else text.encode()
        self.front += data.replace(b"\\", b"\\\\") + b"\\ "
        return self

    def byte(self, value):
        self.back += bytes([value])
        return self

    def bytes(self):
        return self.front + self.back[::-1]


def url_seeds():
    seeds = {
        "query": ("https://api.zrk.cloud/app/v1/history?count=20&offset=0",
                  "https://api.zrk.cloud/app/v1/history?offset=0&count=20&extra=1"),
        "userinfo": ("http://user:pass@[::1]:8080/p%20q?a=1&a=2&b#frag", "http://[::1]/p%20q?a=2"),
        "relative": ("/app/v1/scan?fileUrl=http%3A%2F%2Fx%2Fa.jpg", "app/v1"),
        "decoded": ("http://h/?name=%E2%82%AC&plus=a+b&bad=%FF", "http://h/?plus=a+b&name=%E2%82%AC"),
    }
    for name, (a, b) in seeds.items():
        p = Provider().string(a).string(b)
        for value in ("host name", "us er", "p?a#t h", "q#=1&x", "fr ag", "na&me=", "va+l ue", "flag"):
            p.string(value)
        write("url_components", name, p.bytes())


def multipart_seeds():
    p = Provider().string("").byte(1)
    p.byte(0b1111).string("file").string("image.jpg").string("image/jpeg").string(b"\xff\xd8\xff\xe0JFIF\x00")
    write("multipart", "image_part", p.bytes())

    p = Provider().string("B0undary").byte(3)
    p.byte(0b1001).string("collectionId").string("abc")
    p.byte(0b1000).string("no name")
    p.byte(0b0000)
    write("multipart", "three_parts", p.bytes())

    p = Provider().string("x").byte(1)
    p.byte(0b1011).string('na"me\r\n').string("f\r\n--x").string("data\r\n--x--\r\n")
    write("multipart", "hostile_fields", p.bytes())


def jpeg(image, **options):
    out = io.BytesIO()
    image.save(out, "JPEG", **options)
    return out.getvalue()


def png(image, **options):
    out = io.BytesIO()
    image.save(out, "PNG", **options)
    return out.getvalue()


def gradient(width, height, mode="RGB"):
    image = Image.new("RGB", (width, height))
    image.putdata([((x * 255) // max(1, width - 1), (y * 255) // max(1, height - 1), 128)
                   for y in range(height) for x in range(width)])
    return image.convert(mode)


def exif_orientation(value):
    # A minimal little-endian TIFF with one IFD entry, tag 0x0112.
    tiff = b"II*\x00" + struct.pack("<I", 8) + struct.pack("<H", 1)
    tiff += struct.pack("<HHII", 0x0112, 3, 1, value) + struct.pack("<I", 0)
    return b"Exif\x00\x00" + tiff


def image_seeds():
    write("image", "baseline.jpg", jpeg(gradient(16, 12), quality=80))
    write("image", "rotated_exif6.jpg", jpeg(gradient(12, 8), quality=80, exif=exif_orientation(6)))
    write("image", "progressive.jpg", jpeg(gradient(24, 16), quality=70, progressive=True))
    write("image", "gray.jpg", jpeg(gradient(9, 7, "L"), quality=90))
    write("image", "cmyk.jpg", jpeg(gradient(8, 8, "CMYK"), quality=90))
    # Wider than an upload allows, so the upload scales it down.
    write("image", "wide.jpg", jpeg(Image.new("RGB", (1600, 8), (200, 10, 10)), quality=50))
    whole = jpeg(gradient(32, 32), quality=90)
    write("image", "truncated.jpg", whole[: len(whole) * 2 // 3])
    write("image", "rgba.png", png(gradient(10, 6, "RGBA")))
    write("image", "palette.png", png(gradient(7, 5, "P")))
    write("image", "gray16.png", png(gradient(6, 6, "L").convert("I").point(lambda v: v * 257).convert("I;16")))
    write("image", "interlaced.png", _interlaced_png())


def _interlaced_png():
    # PIL writes no Adam7; build a tiny interlaced grey PNG by hand.
    import zlib
    width = height = 3
    rows = []
    # Adam7: (first column, first row, column step, row step) of each pass;
    # every row unfiltered.
    passes = [(0, 0, 8, 8), (4, 0, 8, 8), (0, 4, 4, 8), (2, 0, 4, 4), (0, 2, 2, 4), (1, 0, 2, 2), (0, 1, 1, 2)]
    for x0, y0, dx, dy in passes:
        xs = range(x0, width, dx)
        for _ in range(y0, height, dy):
            if len(xs):
                rows.append(b"\x00" + bytes(40 * (i + 1) for i in range(len(xs))))
    raw = zlib.compress(b"".join(rows))

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    header = struct.pack(">IIBBBBB", width, height, 8, 0, 0, 0, 1)
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", raw) + chunk(b"IEND", b"")


CATALOG = """msgid ""
msgstr "Content-Type: text/plain; charset=UTF-8\\n"

msgid "There was an unexpected error -- try again in a few seconds"
msgstr "Es ist ein unerwarteter Fehler aufgetreten"

msgctxt "menu"
msgid "Open"
msgstr "\u00d6ffnen"

msgid "One file"
msgid_plural "%d files"
msgstr[0] "Eine Datei"
msgstr[1] "%d Dateien"

msgid "Untranslated"
msgstr ""
"""


def catalog_seeds():
    with tempfile.TemporaryDirectory() as tmp:
        po = os.path.join(tmp, "de.po")
        with open(po, "w", encoding="utf-8") as f:
            f.write(CATALOG)
        for endianness in ("little", "big"):
            mo = os.path.join(tmp, endianness + ".mo")
            subprocess.run(["msgfmt", "--endianness=" + endianness, "-o", mo, po], check=True)
            with open(mo, "rb") as f:
                write("message_catalog", endianness + ".mo", f.read())


def reply(body, status="200 OK", headers=(), residue=None):
    """A raw HTTP answer; residue pads the body so that size % 5 picks the call."""
    body = body if isinstance(body, bytes) else body.encode()

    def build(b):
        head = "HTTP/1.1 %s\r\n" % status
        for header in headers:
            head += header + "\r\n"
        head += "Content-Length: %d\r\n\r\n" % len(b)
        return head.encode() + b

    data = build(body)
    while residue is not None and len(data) % 5 != residue:
        body += b" "
        data = build(body)
    return data


def request_seeds():
    # Calls: 0 scan, 1 user, 2 collections, 3 history, 4 auth.
    write("api_request", "scan", reply(json.dumps(
        {"id": "s1", "triggerId": "t1", "score": 87.6, "payloadUrl": "https://x/p", "ocr": ["A", None]}), residue=0))
    write("api_request", "user", reply(json.dumps({"email": "a@b.c", "name": "A", "token": "u"}), residue=1))
    write("api_request", "collections", reply(json.dumps(
        {"result": [{"id": "c1", "name": "One"}, 5, None], "total": 3}), residue=2))
    write("api_request", "history", reply(json.dumps(
        {"result": [{"scanId": "h", "lat": 59.33, "matched": "yes"}], "total": 1}), residue=3))
    write("api_request", "auth", reply(json.dumps({"token": "tok", "expire": 4102444800, "expireIn": 3600}), residue=4))
    write("api_request", "error_500", reply(json.dumps(
        {"code": 401, "message": "Unauthorized", "detail": {"why": "key"}}), status="500 Internal Server Error", residue=0))
    write("api_request", "gzip", reply(gzip.compress(json.dumps({"id": "gz"}).encode()),
                                       headers=("Content-Encoding: gzip",), residue=0))
    chunked = b'HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\n{"tot\r\na\r\nal": 2} \r\n0\r\n\r\n'
    write("api_request", "chunked", chunked)
    write("api_request", "redirect_loop", reply("", status="302 Found", headers=("Location: /app/v1/again",), residue=1))
    write("api_request", "redirect_away", reply("", status="307 Temporary Redirect",
                                                headers=("Location: http://example.invalid:81/x",), residue=4))
    write("api_request", "continue_then_ok", b"HTTP/1.1 100 Continue\r\n\r\n" + reply("{}", residue=2))
    write("api_request", "cut_short", b'HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{"id":')
    write("api_request", "http10_no_length", b'HTTP/1.0 200 OK\r\n\r\n{"result": []}')


if __name__ == "__main__":
    url_seeds()
    multipart_seeds()
    image_seeds()
    catalog_seeds()
    request_seeds()
