"""Only what the publisher signed."""

import itertools
import os
import re
import shutil
import zlib
from pathlib import Path

from harness import BUILD, SIGNER, HostTest, run
from packages import INFO, Publisher, archive, entry, file, pack, package, payload, xar

PAYLOAD = payload(file("a", "words"))
SCRIPTS = payload(file("postinstall", "#!/bin/sh\n", 0o755))
CONTENTS = {"PackageInfo": INFO, "Scripts": SCRIPTS, "Extra": b"extra", "Payload": PAYLOAD}


class Signing(HostTest):
    publisher, root = Publisher("publisher"), Publisher("root", purpose=None)

    def setUp(self):
        super().setUp()
        (self.trusted / "both").write_text("".join(one.certificate.read_text() for one in (self.publisher, self.root)))

    def by(self, *chain, name="signer", **wanted):
        return xar([Publisher(name, chain[0] if chain else None, **wanted), *chain], **CONTENTS)

    def test_sound_signatures(self):
        unsigned, signed, pipe = (self.scratch / name for name in ("unsigned.pkg", "signed.pkg", "pipe.pkg"))
        unsigned.write_bytes(self.by())
        os.mkfifo(pipe)
        (self.scratch / "signed.pkg.part").symlink_to(self.outside / "kept")
        for key, path, cause in (
            (self.root.key, unsigned, "is not the key's"),
            (self.publisher.key, pipe, "not a regular file"),
            (self.publisher.key, unsigned, ""),
        ):
            self.assertFalse(signed.exists())
            outcome = run(SIGNER, key, self.publisher.certificate, path, signed, timeout=60)
            self.assertIn(cause, outcome.stderr)
        self.assertEqual((self.outside / "kept").read_text(), "kept")
        self.assertTrue(signed.stat().st_mode & 0o044, "a server can read it")
        signer = Publisher("signer", Publisher("middle", self.root, purpose=None))
        two_steps = xar([signer, signer.issuer, self.root], **CONTENTS)
        self.assert_refused(self.install(two_steps), "but is not trusted itself")
        (self.trusted / "publisher.keys").write_text(f"{'0' * 64}\n{signer.key_digest()}\n")
        by_tool = signed.read_bytes()
        named = by_tool[:4] + b"\0\x40" + by_tool[6:28] + b"sha256".ljust(36, b"\0") + by_tool[28:]
        for name, sound in (("by the tool", by_tool), ("header names its digest", named), ("two steps", two_steps)):
            outcome = self.install(sound)
            self.assert_installed(outcome)
            self.assertRegex(outcome.stdout, "\ninstaller: Signed by [0-9a-f]{64}\n", name)
        # Where no certificate is trusted, nothing is demanded, but a signature that is there must hold.
        shutil.rmtree(self.trusted)
        self.assert_refused(self.install(xar(**CONTENTS)), "names no folder")
        self.trusted.mkdir()
        self.assertIn("installer: The package is not signed.\n", self.install(xar(**CONTENTS)).stdout)
        self.assertIn("anybody could be the signer", self.install(sound).stdout)
        self.assert_refused(self.install(sound.replace(b"extra", b"Extra")), "does not match")
        self.command[0] = BUILD / "tests/host/demanding-installer"
        self.assert_all_refused((("unsigned", xar(**CONTENTS), "is not signed"), ("signed", sound, "not trusted")))

    def test_tampered_and_foreign_packages(self):
        publisher, root, false_root, by = self.publisher, self.root, Publisher("root", purpose=None), self.by
        good, other = xar([publisher], **CONTENTS), package(file("b"), chain=[publisher])
        heap, there = good.index(INFO) - 288, other.index(INFO) - 288
        table, end = zlib.decompress(good[28:heap]).decode(), 288 + len(INFO + PAYLOAD)

        def flipped(at):
            return good[:at] + bytes([good[at] ^ 4]) + good[at + 1:]

        def changed(pattern, new):
            """Everything that can be put right without the key is."""
            return pack(re.sub(pattern, new, table, count=1, flags=re.DOTALL), good[heap + 32:])

        def sealed(more="", extra=b"", digest="sha256"):
            """A signature alone is not enough: what is signed must be sound, too."""
            elements = entry("PackageInfo", 288, INFO) + entry("Payload", 288 + len(INFO), PAYLOAD, digest)
            return archive(elements + more, INFO + PAYLOAD + extra, [publisher])

        rows = (
            ("table's length", flipped(15), "table is damaged"),
            ("digest", flipped(heap + 5), "does not match its digest"),
            ("signature", flipped(heap + 32), "signature does not match"),
            ("an entry that is not used", flipped(good.index(b"extra")), '"Extra" does not match'),
            ("trailing byte", good + b"x", "does not account for"),
            ("stripped of its signature", changed("<signature.*</signature>", ""), "is not signed"),
            ("not base64", changed("<X509Certificate>.*?<", "<X509Certificate>====<"), "malformed certificate"),
            ("another's signature", good[: heap + 32] + other[there + 32:][:256] + good[heap + 288:], "signature"),
            ("two entries of one name", sealed(entry("Payload", end, b"evil"), b"evil"), "two entries"),
            ("entry over the signature", sealed(entry("x", 40, b"1234")), "overlap"),
            ("offset that overflows", sealed(entry("x", 1 << 63, b"1")), "malformed offset"),
            ("weak checksum", sealed(digest="sha1"), "without a strong checksum"),
            ("weak table", archive("", b"", [publisher], "sha1"), "too weak"),
            ("by an unknown signer", by(), "not trusted"),
            ("by another root of the same name", xar([Publisher("signer", false_root)], **CONTENTS), "does not hold"),
            ("issued by no authority", by(Publisher("m", root)), "does not hold"),
            ("weakly signed on the way", by(Publisher("m", root, purpose=None, digest="sha1")), "too weak a digest"),
            ("for web servers", by(root, purpose="serverAuth"), "not meant for signing code"),
            ("expired", by(root, since="-2d"), "expired"),
            ("not yet valid", by(root, since="+1d"), "not valid yet"),
            ("weak key", by(root, bits=1024), "too short"),
        )
        self.assert_all_refused(rows)

    def test_what_is_in_the_folders_of_trusted_certificates(self):
        """No state of the folders lets an unsigned package pass, but for two that are empty or do not exist."""
        usual = [Path(place, "pellomar-installer/trusted") for place in ("/usr/lib", "/etc")]
        del self.command[-2:]
        certificate, cut = self.publisher.certificate.read_text(), "-----BEGIN CERTIFICATE-----\n????\n"

        def put(name, text=""):
            return lambda place: (place / name).write_text(text)

        rows = (
            ("hidden file", put(".a", "not read"), "is not signed"),
            ("damaged", put("a", certificate + cut), "cannot be read"),
            ("pipe", lambda place: os.mkfifo(place / "a"), "not a file of certificates"),
            ("link to nowhere", lambda place: (place / "a").symlink_to("absent"), "cannot be read"),
            ("folder is a link to nowhere", lambda place: place.rmdir() or place.symlink_to("x"), "cannot be read"),
            ("parent is one", lambda place: os.removedirs(place) or place.parent.symlink_to("x"), "cannot be read"),
            ("folder is a file", lambda place: place.rmdir() or place.touch(), "cannot be read"),
            ("others can change it", lambda place: place.chmod(0o777), "can be changed by others"),
            ("or a file in it", lambda place: put("a")(place) or (place / "a").chmod(0o666), "by others"),
            ("not the digest of a key", put("a.keys", "ab\n"), "not the SHA-256 digest"),
            ("publisher's certificate", put("a.pem", certificate), "is not signed"),
            ("nothing", lambda place: None, ""),
            ("no folder", lambda place: place.rmdir(), ""),
        )
        for (name, change, cause), place in itertools.product(rows, usual):
            with self.subTest(name, place=place):
                for folder in usual:
                    run("rm", "-rf", folder.parent)
                    folder.mkdir(parents=True)
                change(place)
                outcome = self.install(xar(**CONTENTS))
                self.assert_outcome(outcome, cause)
                self.assertEqual("installer: The package is not signed.\n" in outcome.stdout, not cause)
                if name == "publisher's certificate":
                    self.assert_installed(self.install(xar([self.publisher], **CONTENTS)))
