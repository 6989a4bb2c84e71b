"""Makes packages, sound and unsound ones, and publishers to sign them."""

import gzip
import hashlib
import re
import stat
import struct
import subprocess
import tempfile
import time
import zlib
from pathlib import Path

INFO = b"<pkg-info format-version='2' identifier='com.example.thing' version='1.0' install-location='/'/>"
ENTRY_TIME = 1_500_000_000
ENTRY_OWNER = 4321
KEYS = tempfile.TemporaryDirectory(prefix="host-keys-")


def file(name, content="content", mode=0o644, kind=stat.S_IFREG, links=1):
    return name, kind | mode, content, links


def folder(name, mode=0o755):
    return file(name, "", mode, stat.S_IFDIR)


def link(name, to):
    return file(name, to, 0o777, stat.S_IFLNK)


def payload(*entries):
    """The gzip'd cpio of entries; files with several links are all one."""
    archive = b""
    for number, (name, mode, content, links) in enumerate((*entries, file("TRAILER!!!", ""))):
        name, content, node = name.encode() + b"\0", content.encode(), number if links == 1 else 0o777
        fields = (1, node, mode, ENTRY_OWNER, ENTRY_OWNER, links, 0, ENTRY_TIME, len(name), len(content))
        archive += b"070707%06o%06o%06o%06o%06o%06o%06o%011o%06o%011o" % fields + name + content
    return gzip.compress(archive, mtime=0)


def entry(name, offset, stored, digest="sha256"):
    checksum = hashlib.new(digest, stored).hexdigest()
    return (
        f"<file><name>{name}</name><type>file</type><data><offset>{offset}</offset><length>{len(stored)}</length>"
        f"<size>{len(stored)}</size><archived-checksum style='{digest}'>{checksum}</archived-checksum></data></file>"
    )


def pack(table, heap, signature=lambda *_: b"", digest="sha256"):
    packed, kind = zlib.compress(table.encode()), {"sha1": 1, "sha256": 3}[digest]
    header = struct.pack(">4sHHQQI", b"xar!", 28, 1, len(packed), len(table.encode()), kind)
    return header + packed + hashlib.new(digest, packed).digest() + signature(packed, digest) + heap


def archive(elements, heap, chain=(), digest="sha256"):
    """A xar of any table whatever, with a valid signature when there is a chain of publishers."""
    own, signature = hashlib.new(digest).digest_size, ""
    if chain:
        certificates = "".join(f"<X509Certificate>{one.base64()}</X509Certificate>" for one in chain)
        signature = f"<signature style='RSA'><offset>{own}</offset><size>{chain[0].bits // 8}</size>"
        signature += f"<KeyInfo><X509Data>{certificates}</X509Data></KeyInfo></signature>"
    table = f"<xar><toc><checksum style='{digest}'><offset>0</offset><size>{own}</size></checksum>"
    return pack(f"{table}{signature}{elements}</toc></xar>", heap, *(one.sign for one in chain[:1]), digest=digest)


def xar(chain=(), **contents):
    """A sound archive of these files, in their order."""
    elements, heap, start = "", b"", 32 + (chain[0].bits // 8 if chain else 0)
    for name, content in contents.items():
        elements += entry(name, start + len(heap), content)
        heap += content
    return archive(elements, heap, chain)


def package(*entries, info=INFO, scripts=(), chain=()):
    extra = {"Scripts": payload(*scripts)} if scripts else {}
    return xar(chain, PackageInfo=info, **extra, Payload=payload(*entries))


class Publisher:
    """A key and its certificate, an authority's where it has no purpose. Times are in seconds from now."""

    def __init__(self, name, issuer=None, purpose="codeSigning", bits=2048, times=(-3600, 86400), digest="sha256"):
        place = Path(tempfile.mkdtemp(dir=KEYS.name))
        self.key, self.certificate, self.bits = place / "key.pem", place / "certificate.pem", bits
        kind = f"FALSE\nextendedKeyUsage={purpose}" if purpose else "TRUE\nkeyUsage=critical,keyCertSign"
        (place / "index").touch()
        (place / "settings").write_text(
            f"[ca]\ndefault_ca=one\n[one]\ndatabase={place}/index\nnew_certs_dir={place}\npolicy=any\nrand_serial=1\n"
            f"x509_extensions=kind\n[any]\ncommonName=supplied\n[kind]\nbasicConstraints=critical,CA:{kind}\n"
            "subjectKeyIdentifier=none\nauthorityKeyIdentifier=none\n"
        )
        request = ("-keyout", self.key, "-out", place / "request", "-subj", f"/CN={name}", "-nodes")
        openssl("req", "-newkey", f"rsa:{bits}", *request)
        by = ("-cert", issuer.certificate, "-keyfile", issuer.key) if issuer else ("-selfsign", "-keyfile", self.key)
        begin, end = (time.strftime("%Y%m%d%H%M%SZ", time.gmtime(time.time() + after)) for after in times)
        files = ("-config", place / "settings", "-in", place / "request", "-out", self.certificate)
        period = ("-startdate", begin, "-enddate", end)
        openssl("ca", "-batch", "-notext", "-md", digest, *files, *by, *period)

    def base64(self):
        return re.search("-----\n(.*)-----E", self.certificate.read_text(), re.DOTALL)[1]

    def sign(self, text, digest):
        return openssl("dgst", f"-{digest}", "-sign", self.key, text=text)


def openssl(*arguments, text=b""):
    return subprocess.run(("openssl", *arguments), input=text, capture_output=True, check=True).stdout
