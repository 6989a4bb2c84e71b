"""Makes packages, sound and unsound ones, and publishers to sign them."""

import gzip
import hashlib
import os
import re
import stat
import struct
import subprocess
import tempfile
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
    archive = bytearray()
    for number, (name, mode, content, links) in enumerate((*entries, file("TRAILER!!!", ""))):
        name, content, node = name.encode() + b"\0", content.encode(), number if links == 1 else 0o777
        fields = (1, node, mode, ENTRY_OWNER, ENTRY_OWNER, links, 0, ENTRY_TIME, len(name), len(content))
        archive += b"070707%06o%06o%06o%06o%06o%06o%06o%011o%06o%011o" % fields + name + content
    return gzip.compress(bytes(archive), 6, mtime=0)


def entry(name, offset, stored, digest="sha256"):
    checksum, size = hashlib.new(digest, stored).hexdigest(), len(stored)
    return (f"<file><name>{name}</name><type>file</type><data><offset>{offset}</offset><length>{size}</length>"
            f"<size>{size}</size><archived-checksum style='{digest}'>{checksum}</archived-checksum></data></file>")


def pack(table, heap, signature=lambda *_: b"", digest="sha256"):
    packed, kind = zlib.compress(table.encode()), {"sha1": 1, "sha256": 3}[digest]
    header = struct.pack(">4sHHQQI", b"xar!", 28, 1, len(packed), len(table.encode()), kind)
    return header + packed + hashlib.new(digest, packed).digest() + signature(packed, digest) + heap


def archive(elements, heap, chain=(), digest="sha256"):
    """A xar of any table whatever, with a valid signature when there is a chain of publishers."""
    size = hashlib.new(digest).digest_size
    table = f"<xar><toc><checksum style='{digest}'><offset>0</offset><size>{size}</size></checksum>{elements}"
    if chain:
        table += f"<signature style='RSA'><offset>{size}</offset><size>{chain[0].bits // 8}</size><KeyInfo><X509Data>"
        table += "".join(f"<X509Certificate>{one.base64()}</X509Certificate>" for one in chain)
        table += "</X509Data></KeyInfo></signature>"
    return pack(f"{table}</toc></xar>", heap, *(one.sign for one in chain[:1]), digest=digest)


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
    """A key and its certificate for one day, an authority's where it has no purpose. SINCE is when the day began."""

    def __init__(self, name, issuer=None, purpose="codeSigning", bits=2048, since="-1h", digest="sha256"):
        self.issuer, self.bits, self.place = issuer, bits, Path(tempfile.mkdtemp(dir=KEYS.name))
        self.key, self.certificate = self.place / "key.pem", self.place / "certificate.pem"
        kind = f"CA:FALSE -addext extendedKeyUsage={purpose}" if purpose else "CA:TRUE -addext keyUsage=keyCertSign"
        self.openssl(
            f"req -x509 -newkey rsa:{bits} -nodes -keyout key.pem -out certificate.pem -subj /CN={name} -days 1 "
            f"-{digest} -addext authorityKeyIdentifier=none -addext basicConstraints=critical,{kind} "
            + (f"-CA {issuer.certificate} -CAkey {issuer.key}" if issuer else ""),
            LD_PRELOAD=next(Path("/usr/lib").glob("*/faketime/libfaketime.so.1")), FAKETIME=since)

    def openssl(self, arguments, text=b"", **environment):
        return subprocess.run(("openssl", *arguments.split()), cwd=self.place, input=text, capture_output=True,
                              check=True, env=os.environ | environment).stdout

    def base64(self):
        return re.search("-----\n(.*)-----E", self.certificate.read_text(), re.DOTALL)[1]

    def key_digest(self):
        return hashlib.sha256(self.openssl("pkey -in key.pem -pubout -outform DER")).hexdigest()

    def sign(self, text, digest):
        return self.openssl(f"dgst -{digest} -sign key.pem", text)
