// Writes the seed corpus of the fuzz targets: streams of valid frames made by the library's own
// senders, each file a settings byte and then the stream (for the codec target, a settings byte,
// a split seed, then the stream). Run it when a frame format changes:
//   vel_fuzz_seeds <repository>/tests/fuzz/corpus
// Seeds are never reused as expected values; the transports' tests check the frames byte by
// byte.
#include <cstdio>
#include <functional>
#include <string>

#include "MemorySocket.h"
#include "VEL_HOLM.h"
#include "VEL_Message.h"
#include "VEL_OXLv1.h"
#include "VEL_OXLv2.h"
#include "VEL_OXLv5.h"

namespace {

constexpr char kLimit64k = 2;  // settings byte: maximum 65536, tracing off
constexpr char kTracing = 4;

VEL_Message* Fill(VEL_Message& message, const std::string& body, const std::string& rscv = "",
                  const std::string& sscv = "") {
    message.reset();
    if (message.allocate(body.size()) == kVELErr_Ok && !body.empty()) {
        body.copy(message.data(), body.size());
    }
    if (message.allocateRSCV(static_cast<unsigned char>(rscv.size())) == kVELErr_Ok) {
        rscv.copy(message.getRSCV(), rscv.size());
    }
    if (message.allocateSSCV(static_cast<unsigned char>(sscv.size())) == kVELErr_Ok) {
        sscv.copy(message.getSSCV(), sscv.size());
    }
    return &message;
}

bool WriteFile(const std::string& path, const std::string& bytes) {
    std::FILE* file = std::fopen(path.c_str(), "wb");
    const bool ok =
            file != nullptr && std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    return (file != nullptr && std::fclose(file) == 0) && ok;
}

// The codec target's format numbers (bits 3-5 of its settings byte).
enum CodecFormat : char { kOXLv1 = 0, kOXLv2 = 1, kOXLv5 = 2, kHOLM = 3, kTN3270 = 4 };

// Writes one seed, <dir>/<target>/<name>: the settings byte, then what `send` wrote into a
// memory socket; and the same stream as <dir>/codec/<target>-<name> for the codec target, with
// the format in its settings byte and a split seed.
bool Seed(const std::string& dir, const std::string& target, const std::string& name, char settings,
          CodecFormat format, const std::function<bool(veltest::MemorySocket&)>& send) {
    veltest::MemorySocket socket;
    if (!send(socket)) {
        std::fprintf(stderr, "sending %s/%s failed\n", target.c_str(), name.c_str());
        return false;
    }
    const char codecSettings = static_cast<char>(settings | format << 3);
    return WriteFile(dir + "/" + target + "/" + name, settings + socket.written()) &&
           WriteFile(dir + "/codec/" + target + "-" + name,
                     std::string{codecSettings, 7} + socket.written());
}

const std::string kText = "The quick brown fox jumps over the lazy dog. The quick brown fox.";

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <corpus directory>\n", argv[0]);
        return 2;
    }
    const std::string dir = argv[1];
    VEL_Message m;
    bool ok = true;
    ok &= Seed(dir, "oxlv1", "frames", kLimit64k, kOXLv1, [&](veltest::MemorySocket& s) {
        VEL_OXLv1 t(&s, 65536);
        return t.sendMessage(Fill(m, kText)) == kVELErr_Ok &&
               t.sendMessage(Fill(m, "")) == kVELErr_Ok &&
               t.sendMessage(Fill(m, "x")) == kVELErr_Ok;
    });
    ok &= Seed(dir, "oxlv5", "frames", kLimit64k | kTracing, kOXLv5, [&](veltest::MemorySocket& s) {
        VEL_OXLv5 t(&s);
        return t.sendMessage(Fill(m, kText)) == kVELErr_Ok &&
               t.sendMessage(Fill(m, "")) == kVELErr_Ok;
    });
    ok &= Seed(dir, "oxlv2", "plain", kLimit64k, kOXLv2, [&](veltest::MemorySocket& s) {
        VEL_OXLv2 t(&s, 65536);
        return t.sendMessage(Fill(m, kText, "rscv")) == kVELErr_Ok &&
               t.sendMessage(Fill(m, "")) == kVELErr_Ok;
    });
    ok &= Seed(dir, "oxlv2", "compressed", kLimit64k, kOXLv2, [&](veltest::MemorySocket& s) {
        VEL_OXLv2 t(&s, 65536);
        t.setCompression(true);
        return t.sendMessage(Fill(m, kText + kText, "r")) == kVELErr_Ok &&
               t.sendMessage(Fill(m, kText)) == kVELErr_Ok;
    });
    ok &= Seed(dir, "holm", "plain", kLimit64k, kHOLM, [&](veltest::MemorySocket& s) {
        VEL_HOLM t(&s, 65536);
        return t.sendMessage(Fill(m, kText, "rscv", "sscv")) == kVELErr_Ok &&
               t.sendMessage(Fill(m, "")) == kVELErr_Ok;
    });
    ok &= Seed(dir, "holm", "compressed", kLimit64k, kHOLM, [&](veltest::MemorySocket& s) {
        VEL_HOLM t(&s, 65536);
        t.setCompression(true, kVELHOLMCompAlgo_Best);
        return t.sendMessage(Fill(m, kText + kText, "", "s")) == kVELErr_Ok;
    });
    // A whole secure conversation from the initiator: the key, a session ID, a compressed and
    // encrypted body, a close (reset bit), a new key.
    ok &= Seed(dir, "holm", "secure", kLimit64k, kHOLM, [&](veltest::MemorySocket& s) {
        VEL_HOLM t(&s, 65536);
        bool sent = t.openSecureSession() == kVELErr_Ok &&
                    t.sendMessage(Fill(m, kText, "r")) == kVELErr_Ok &&
                    t.sendMessage(Fill(m, "odd")) == kVELErr_Ok;
        t.setCompression(true);
        sent = sent && t.sendMessage(Fill(m, kText + kText)) == kVELErr_Ok;
        t.setCompression(false);
        return sent && t.closeSecureSession() == kVELErr_Ok &&
               t.sendMessage(Fill(m, "plain")) == kVELErr_Ok &&
               t.openSecureSession() == kVELErr_Ok && t.sendMessage(Fill(m, kText)) == kVELErr_Ok;
    });
    // TN3270 has no target of its own: the codec target's seed only.
    ok &= WriteFile(dir + "/codec/tn3270-bytes",
                    std::string{static_cast<char>(kLimit64k | kTN3270 << 3), 7} + kText);
    const char* const addresses[] = {"127.0.0.1", "10.1.2.3", "255.255.255.255", "999.1.1.1",
                                     "1.2.3",     "0x7f.1",   " 1.2.3.4 x"};
    for (std::size_t i = 0; i < sizeof(addresses) / sizeof(addresses[0]); ++i) {
        ok &= WriteFile(dir + "/comtools/" + std::to_string(i), addresses[i]);
    }
    return ok ? 0 : 1;
}
