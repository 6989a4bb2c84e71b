// Only what the publisher signed.
#include "Fixture.h"
#include "Publisher.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>

namespace {

std::string dataElement(std::size_t offset, const std::string& bytes, const std::string& digest = "sha256",
                        const std::string& encoding = "application/octet-stream") {
    const std::string size = std::to_string(bytes.size());
    return "<data><offset>" + std::to_string(offset) + "</offset><length>" + size + "</length><size>" + size +
           "</size><encoding style='" + encoding + "'/><archived-checksum style='" + digest + "'>" +
           hex(digestOf(bytes, digest)) + "</archived-checksum></data>";
}

std::string entryElement(const std::string& name, const std::string& rest) {
    return "<file><name>" + name + "</name><type>file</type>" + rest + "</file>";
}

// What a package needs, with nothing wrong.
std::string soundFiles(const std::string& payload, std::size_t begin) {
    return entryElement("PackageInfo", dataElement(begin, kPackageInfo)) +
           entryElement("Payload", dataElement(begin + kPackageInfo.size(), payload));
}

class Signing : public Installer {
  protected:
    Signing() { trust(certificatePem(publisher)); }

    void trust(const std::string& pem) const { writeFile(trusted / "publisher.pem", pem); }

    // The program's outcome; what it wrote is at `signedPath`.
    Outcome trySigning(const std::string& package, const std::vector<Identity>& chain,
                       const Identity* key = nullptr) const {
        writeFile(scratch / "key.pem", keyPem(key ? *key : chain.front()));
        writeFile(scratch / "unsigned.pkg", package);
        std::vector<std::string> words{SIGNER_PROGRAM, scratch / "key.pem"};
        for (std::size_t i = 0; i < chain.size(); ++i) {
            const fs::path path = scratch / ("certificate" + std::to_string(i));
            writeFile(path, certificatePem(chain[i]));
            words.push_back(path);
        }
        words.insert(words.end(), {scratch / "unsigned.pkg", signedPath});
        return run(words);
    }

    std::string signPackage(const std::string& package) const {
        const Outcome outcome = trySigning(package, {publisher});
        EXPECT_EQ(outcome.status, 0) << outcome.errors;
        return readFile(signedPath);
    }

    const Identity publisher = certify({});
    const fs::path signedPath = scratch / "signed.pkg";
    const std::string script = makePayload({file("postinstall", "#!/bin/sh\n", 0755)});
    const std::string payload = makePayload({folder("a"), file("a/b", "words")});
    const std::string unsignedPackage =
        makeXar({file("PackageInfo", kPackageInfo), file("Scripts", script), folder("Resources"),
                 file("Resources/<>&", "extra"), file("Payload", payload)});
};

TEST_F(Signing, InstallsWhatIsSignedAndNamesTheSigner) {
    const std::string good = signPackage(unsignedPackage);
    const Outcome outcome = install(good);
    expectSuccess(outcome);
    EXPECT_TRUE(std::regex_search(outcome.output, std::regex("\ninstaller: Signed by [0-9a-f]{64}\n")));
    EXPECT_EQ(outcome.output.find("not signed"), std::string::npos);
    EXPECT_EQ(readFile(target / "a/b"), "words");

    // A signature that is there gives way to a new one.
    const Identity other = certify({.name = "other"});
    EXPECT_EQ(trySigning(good, {other}).status, 0);
    expectOneErrorLine(install(readFile(signedPath)), "not trusted");

    // Where no certificate is trusted, nothing is demanded, but a signature that is there must hold.
    fs::remove(trusted / "publisher.pem");
    EXPECT_NE(install(unsignedPackage).output.find("installer: The package is not signed.\n"),
              std::string::npos);
    EXPECT_NE(install(good).output.find("anybody could be the signer"), std::string::npos);
    std::string broken = good;
    broken[good.find(script) - 300] ^= 1;
    EXPECT_NE(install(broken).status, 0);
}

// One byte in each part of the file, and each part in another's place.
TEST_F(Signing, RefusesWhatWasTamperedWith) {
    const std::string good = signPackage(unsignedPackage);
    const auto number = [&](std::size_t at, int bytes) {
        std::size_t value = 0;
        for (int i = 0; i < bytes; ++i) {
            value = value << 8 | static_cast<unsigned char>(good[at + static_cast<std::size_t>(i)]);
        }
        return value;
    };
    const std::size_t tableSize = number(8, 8);
    const std::size_t heap = 28 + tableSize;
    const std::string table = uncompressed(good.substr(28, tableSize), number(16, 8));
    ASSERT_EQ(good.substr(heap, 32), digestOf(good.substr(28, tableSize), "sha256"));
    const auto flipped = [&](std::size_t at) {
        std::string bytes = good;
        bytes[at] = static_cast<char>(bytes[at] ^ 4);
        return bytes;
    };
    const auto inPlaceOf = [&](std::size_t at, const std::string& part) {
        return std::string(good).replace(at, part.size(), part);
    };
    // Everything that can be put right without the key is.
    const auto withTable = [&](const std::string& xml) {
        const std::string packed = compressed(xml);
        std::string bytes = good.substr(0, 28) + packed + digestOf(packed, "sha256") + good.substr(heap + 32);
        for (int i = 0; i < 8; ++i) {
            bytes[static_cast<std::size_t>(15 - i)] = static_cast<char>(packed.size() >> (8 * i) & 0xff);
            bytes[static_cast<std::size_t>(23 - i)] = static_cast<char>(xml.size() >> (8 * i) & 0xff);
        }
        return bytes;
    };
    const auto replaced = [&](const std::string& from, const std::string& to) {
        const std::size_t at = table.find(from);
        EXPECT_NE(at, std::string::npos) << from;
        return std::string(table).replace(at, from.size(), to);
    };
    const auto fileElement = [&](const std::string& name) {
        const std::size_t begin = table.rfind("<file id", table.find("<name>" + name));
        return table.substr(begin, table.find("</file>\n", begin) + 8 - begin);
    };
    const std::string infoElement = fileElement("PackageInfo");
    const std::string scriptsElement = fileElement("Scripts");
    const std::string other = signPackage(makePackage(payload));
    const std::size_t otherHeap =
        28 + static_cast<unsigned char>(other[14]) * 256U + static_cast<unsigned char>(other[15]);

    const struct {
        const char* name;
        std::string package;
        const char* cause;
    } rows[] = {
        {"magic", flipped(0), "not a package"},
        {"header's size", flipped(5), "unknown form"},
        {"header's version", flipped(7), "unknown form"},
        {"table's length", flipped(15), "table is damaged"},
        {"table's length, absurd", flipped(10), "absurd size"},
        {"table's unpacked length", flipped(23), "table is damaged"},
        {"digest's kind", flipped(27), "no checksum of a known kind"},
        {"digest's kind, another", inPlaceOf(27, "\4"), "differ about the kind"},
        {"table's first byte", flipped(28), "package"},
        {"table's middle", flipped(28 + tableSize / 2), "package"},
        {"table's last byte", flipped(heap - 1), "package"},
        {"digest", flipped(heap + 5), "does not match its digest"},
        {"signature", flipped(heap + 32), "signature does not match"},
        {"signature's last byte", flipped(heap + 32 + 255), "signature does not match"},
        {"PackageInfo", flipped(good.find("<pkg-info")), "\"PackageInfo\" does not match"},
        {"Scripts", flipped(good.find(script) + 20), "\"Scripts\" does not match"},
        {"an entry that is not used", flipped(good.find("extra")), "\"Resources/<>&\" does not match"},
        {"Payload", flipped(good.size() - payload.size()), "\"Payload\" does not match"},
        {"last byte", flipped(good.size() - 1), "\"Payload\" does not match"},
        {"cut by one byte", good.substr(0, good.size() - 1), "breaks off"},
        {"cut behind the signature", good.substr(0, heap + 32 + 256), "breaks off"},
        {"trailing byte", good + "x", "does not account for"},
        {"stripped of its signature", unsignedPackage, "is not signed"},
        {"signature element taken out",
         withTable(table.substr(0, table.find("<signature")) + table.substr(table.find("</signature>") + 13)),
         "is not signed"},
        {"signature of another package", inPlaceOf(heap + 32, other.substr(otherHeap + 32, 256)),
         "signature does not match"},
        {"table and digest of another package", other.substr(0, otherHeap + 32) + good.substr(heap + 32),
         "package"},
        {"contents changed, checksums and digest put right",
         withTable(replaced(hex(digestOf(payload, "sha256")), hex(digestOf("evil", "sha256")))),
         "signature does not match"},
        {"entries in another order",
         withTable(replaced(infoElement + scriptsElement, scriptsElement + infoElement)),
         "signature does not match"},
        {"names swapped", withTable(replaced("<name>Scripts<", "<name>scripts<")),
         "signature does not match"},
        {"two entries of one name", withTable(replaced("<name>Scripts<", "<name>Payload<")),
         "two entries of one name"},
    };
    const auto before = snapshot(world);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        expectOneErrorLine(install(row.package), row.cause);
        EXPECT_EQ(snapshot(world), before);
    }
}

// A signature alone is not enough: what is signed must be sound, too.
TEST_F(Signing, RefusesUnsoundTablesEvenWhenSigned) {
    const std::size_t payloadAt = kHeapBegin + kPackageInfo.size();
    const std::size_t end = payloadAt + payload.size();
    const std::string info = entryElement("PackageInfo", dataElement(kHeapBegin, kPackageInfo));
    const std::string sound = soundFiles(payload, kHeapBegin);
    const std::string heap = kPackageInfo + payload;
    const auto sealed = [&](const std::string& files, const std::string& more = "") {
        return seal(files, heap + more, {publisher});
    };
    expectSuccess(install(sealed(sound)));
    const Identity bigKey = certify({.bits = 4096});
    trust(certificatePem(publisher) + certificatePem(bigKey));
    expectSuccess(install(seal(soundFiles(payload, 64 + 512), heap, {bigKey}, "sha512")));
    fs::remove_all(target / "a");

    const std::string nested = "<file><name>d</name><type>directory</type>" + sound + "</file>";
    const struct {
        const char* name;
        std::string package;
        const char* cause;
    } rows[] = {
        {"two entries of one name", sealed(sound + entryElement("Payload", dataElement(end, "evil")), "evil"),
         "two entries"},
        {"two names in one entry", sealed(sound + entryElement("x</name><name>y", "")), "says twice"},
        {"two data in one entry",
         sealed(info + entryElement("Payload", dataElement(payloadAt, payload) + dataElement(end, "e")), "e"),
         "says twice"},
        {"climbing entry", sealed(sound + entryElement("../x", "")), "with \"..\""},
        {"entry within a file", sealed(sound + entryElement("x", entryElement("y", ""))),
         "file with entries in it"},
        {"entry that is a link", sealed(sound + "<file><name>l</name><type>symlink</type></file>"),
         "neither file nor folder"},
        {"hidden in a folder", sealed(nested), "no PackageInfo"},
        {"overlap",
         sealed(info + entryElement("Payload", dataElement(payloadAt, payload)) +
                entryElement("x", dataElement(end - 4, "1234"))),
         "overlap"},
        {"over the signature", sealed(sound + entryElement("x", dataElement(40, "1234"))), "overlap"},
        {"beyond the end", sealed(sound + entryElement("x", dataElement(end, "1234"))), "breaks off"},
        {"offset that is no number", sealed(sound + entryElement("x", "<data><offset>-1</offset></data>")),
         "malformed offset"},
        {"offset that overflows", sealed(sound + entryElement("x", dataElement(1ULL << 63, "1234"))),
         "malformed offset"},
        {"no checksum",
         sealed(info +
                entryElement("Payload", "<data><offset>" + std::to_string(payloadAt) + "</offset><length>" +
                                            std::to_string(payload.size()) + "</length><size>" +
                                            std::to_string(payload.size()) + "</size></data>")),
         "without a strong checksum"},
        {"weak checksum", sealed(info + entryElement("Payload", dataElement(payloadAt, payload, "sha1"))),
         "without a strong checksum"},
        {"unknown checksum",
         sealed(sound + entryElement("x", "<data><offset>1</offset><length>1</length><size>1</size>"
                                          "<archived-checksum style='crc'>00</archived-checksum></data>")),
         "unknown kind"},
        {"unknown encoding",
         sealed(info +
                entryElement("Payload", dataElement(payloadAt, payload, "sha256", "application/x-new"))),
         "unknown encoding"},
        {"encoding that does not fit",
         sealed(info +
                entryElement("Payload", dataElement(payloadAt, payload, "sha256", "application/x-gzip"))),
         "cannot be unpacked"},
        {"hole",
         sealed(info + entryElement("Payload", dataElement(payloadAt, payload)) +
                    entryElement("x", dataElement(end + 2, "1234")),
                "??1234"),
         "does not account for"},
        {"document type", sealed("<!DOCTYPE x>" + sound), "not well-formed"},
        {"SHA-1 table", seal("", "", {publisher}, "sha1"), "too weak"},
    };
    const auto before = snapshot(world);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        expectOneErrorLine(install(row.package), row.cause);
        EXPECT_EQ(snapshot(world), before);
    }
}

TEST_F(Signing, AcceptsOnlyChainsThatHold) {
    const Identity root = authority("root");
    const Identity middle =
        certify({.name = "middle", .issuer = &root, .isAuthority = true, .purposes = nullptr});
    const Identity notAuthority = certify({.name = "middle", .issuer = &root});
    const Identity weakMiddle = certify(
        {.name = "middle", .issuer = &root, .isAuthority = true, .purposes = nullptr, .digest = "SHA1"});
    const Identity webMiddle =
        certify({.name = "middle", .issuer = &root, .isAuthority = true, .purposes = "serverAuth"});
    const auto by = [](const Identity& issuer, Certified wanted) {
        wanted.issuer = &issuer;
        return certify(wanted);
    };
    const Identity good = by(root, {});
    const Identity below = by(middle, {});
    const struct {
        const char* name;
        std::vector<Identity> chain;
        Identity trusted;
        const char* cause; // empty: accepted
    } rows[] = {
        {"the signer itself", {publisher}, publisher, ""},
        {"an authority", {good}, root, ""},
        {"the signer, whoever issued it", {good}, good, ""},
        {"two steps", {below, middle}, root, ""},
        {"an authority in the middle", {below, middle}, middle, ""},
        {"an unneeded certificate", {good, middle}, root, ""},
        {"a step left out", {below}, root, "not trusted"},
        {"another root of the same name",
         {good},
         certify({.name = "root", .isAuthority = true, .purposes = nullptr, .bits = 3072}),
         "does not hold"},
        {"the root brought along", {good, root}, publisher, "not trusted"},
        {"itself only", {publisher}, root, "not trusted"},
        {"expired", {by(root, {.begins = -7200, .ends = -3600})}, root, "expired"},
        {"not yet valid", {by(root, {.begins = 3600})}, root, "not valid yet"},
        {"expired authority",
         {good},
         certify({.name = "root", .isAuthority = true, .purposes = nullptr, .begins = -7200, .ends = -60}),
         "expired"},
        {"weak key", {by(root, {.bits = 1024})}, root, "too short"},
        {"for web servers", {by(root, {.purposes = "serverAuth"})}, root, "not meant for signing code"},
        {"for nothing in particular", {by(root, {.purposes = nullptr})}, root, "not meant for signing code"},
        {"authority for web servers", {by(webMiddle, {}), webMiddle}, root, "not meant for signing code"},
        {"issued by no authority", {by(notAuthority, {}), notAuthority}, root, "does not hold"},
        {"weakly signed on the way", {by(weakMiddle, {}), weakMiddle}, root, "too weak a digest"},
    };
    const auto before = snapshot(world);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        trust(certificatePem(row.trusted));
        const Outcome outcome = install(
            seal(soundFiles(payload, 32 + keyBytes(row.chain.front())), kPackageInfo + payload, row.chain));
        if (*row.cause) {
            expectOneErrorLine(outcome, row.cause);
        } else {
            expectSuccess(outcome);
            fs::remove_all(target / "a");
        }
        EXPECT_EQ(snapshot(world), before);
    }
}

TEST_F(Signing, TrustsOnlyAFolderThatNobodyElseCanChange) {
    const std::string good = signPackage(unsignedPackage);
    const fs::path extra = trusted / "extra";
    const struct {
        const char* name;
        std::function<void()> prepare;
        const char* cause; // empty: accepted
    } rows[] = {
        {"folder that others may write to", [&] { fs::permissions(trusted, fs::perms(0777)); },
         "folder of trusted certificates can be changed"},
        {"file that others may write to",
         [&] {
             writeFile(extra, certificatePem(publisher));
             fs::permissions(extra, fs::perms(0666));
         },
         "can be changed by others"},
        {"no certificate in it", [&] { writeFile(extra, "publisher"); }, "cannot be read"},
        {"certificate cut short",
         [&] { writeFile(extra, certificatePem(publisher) + certificatePem(publisher).substr(0, 300)); },
         "cannot be read"},
        {"a folder", [&] { fs::create_directory(extra); }, "not a file of certificates"},
        {"dangling link", [&] { fs::create_symlink("absent", extra); }, "cannot be read"},
        {"hidden file", [&] { writeFile(trusted / ".old", "publisher"); }, ""},
        {"version set aside", [&] { writeFile(trusted / "publisher.pem.dpkg-old", "publisher"); }, ""},
        {"two in one file",
         [&] { trust(certificatePem(certify({.name = "other"})) + certificatePem(publisher)); }, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        row.prepare();
        const Outcome outcome = install(good);
        if (*row.cause) {
            expectOneErrorLine(outcome, row.cause);
            EXPECT_TRUE(snapshot(target).empty());
        } else {
            expectSuccess(outcome);
        }
        fs::permissions(trusted, fs::perms(0755));
        fs::remove_all(extra);
    }
    if (geteuid() == 0) {
        ASSERT_EQ(chown(trusted.c_str(), 4321, 0), 0);
        expectOneErrorLine(install(good), "can be changed by others");
    }
}

TEST_F(Signing, SignsOnlyWhatInstallersWillAccept) {
    const Identity other = certify({.name = "other"});
    const Identity root = authority("root");
    const struct {
        const char* name;
        std::vector<Identity> chain;
        const Identity* key;
        std::string package;
        const char* cause;
    } rows[] = {
        {"another's key", {publisher}, &other, unsignedPackage, "does not match"},
        {"expired", {certify({.ends = -60})}, nullptr, unsignedPackage, "expired"},
        {"short key", {certify({.bits = 1024})}, nullptr, unsignedPackage, "too short"},
        {"not for code", {certify({.purposes = "serverAuth"})}, nullptr, unsignedPackage, "not meant"},
        {"chain that leads elsewhere", {publisher, root}, nullptr, unsignedPackage, "not trusted"},
        {"damaged package",
         {publisher},
         nullptr,
         std::string(unsignedPackage).replace(unsignedPackage.find("extra"), 1, "E"),
         "does not match its checksum"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Outcome outcome = trySigning(row.package, row.chain, row.key);
        EXPECT_EQ(outcome.status, 1);
        EXPECT_NE(outcome.errors.find(row.cause), std::string::npos) << outcome.errors;
        EXPECT_FALSE(fs::exists(signedPath));
        EXPECT_FALSE(fs::exists(signedPath.string() + ".part"));
    }
}

// Another program of the same user changes the file in every way that it can while installs run.
TEST_F(Signing, WhoeverSwapsTheFileGetsTheSignedPackageOrNothing) {
    constexpr int kSwaps = 500;
    constexpr int kRuns = 25;
    const std::string padding(300'000, 'p');
    const std::string good =
        signPackage(makePackage(makePayload({file("a", "good"), file("padding", padding)})));
    const std::string evil = makePackage(makePayload({file("a", "evil"), file("padding", padding)}));
    const fs::path goodPath = scratch / "good.pkg";
    const fs::path evilPath = scratch / "evil.pkg";
    writeFile(goodPath, good);
    writeFile(evilPath, evil);
    writeFile(packagePath, good);
    void* shared =
        mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    auto* swaps = new (shared) std::atomic<int>(0);
    const pid_t swapper = fork();
    if (swapper == 0) {
        const fs::path next = scratch / "next";
        for (std::error_code ignored;; ++*swaps) {
            const bool isGood = *swaps % 2 == 0;
            switch (*swaps / 2 % 4) {
            case 0: // rewritten in place
                std::ofstream(packagePath, std::ios::binary) << (isGood ? good : evil);
                break;
            case 1: // replaced
                fs::copy_file(isGood ? goodPath : evilPath, next, fs::copy_options::overwrite_existing,
                              ignored);
                fs::rename(next, packagePath, ignored);
                break;
            case 2: // linked
                fs::create_symlink(isGood ? goodPath : evilPath, next, ignored);
                fs::rename(next, packagePath, ignored);
                break;
            default: // overwritten through another name
                fs::remove(packagePath, ignored);
                fs::copy_file(goodPath, packagePath, ignored);
                fs::create_hard_link(packagePath, next, ignored);
                std::ofstream(next, std::ios::binary | std::ios::in) << (isGood ? good : evil);
                fs::remove(next, ignored);
            }
        }
    }
    int installed = 0;
    int refused = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while ((*swaps < kSwaps || installed + refused < kRuns || installed == 0 || refused == 0) &&
           std::chrono::steady_clock::now() < deadline) {
        const Outcome outcome = run(command());
        auto tree = snapshot(target);
        if (outcome.status == 0) {
            ++installed;
            expectSuccess(outcome);
            EXPECT_EQ(tree["a"], "100644 good");
            EXPECT_TRUE(tree["padding"] == "100644 " + padding);
            fs::remove(target / "a");
            fs::remove(target / "padding");
        } else {
            ++refused;
            expectOneErrorLine(outcome, "");
            EXPECT_TRUE(tree.empty());
        }
        if (HasFailure()) {
            break;
        }
    }
    kill(swapper, SIGKILL);
    waitpid(swapper, nullptr, 0);
    EXPECT_GE(*swaps, kSwaps);
    EXPECT_GT(installed, 0);
    EXPECT_GT(refused, 0);
    RecordProperty("swaps", *swaps);
    RecordProperty("installed", installed);
    RecordProperty("refused", refused);
    munmap(shared, sizeof(std::atomic<int>));
}

} // namespace
