// tshark run on a capture with vel's dissector plugin, and its JSON output read back as the
// frames of vel's protocols, in capture order.
#ifndef TESTS_TOOLS_TSHARK_H
#define TESTS_TOOLS_TSHARK_H

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace veltest {

class CaptureFile;

// One vel frame as tshark shows it: every item of its tree, depth first, as (field, value)
// pairs (expert infos among them: "_ws.expert.message" and the expert's own name), the packet
// that shows it and that packet's TCP stream and reassembly.
struct DissectedFrame {
    std::string protocol;
    unsigned packet = 0;
    unsigned stream = 0;
    unsigned sourcePort = 0;
    unsigned segments = 1;  // the TCP segments reassembled into the packet's data
    std::vector<std::pair<std::string, std::string>> fields;

    bool has(const std::string& field) const;
    // The first value of `field`, "" when it is absent.
    std::string operator[](const std::string& field) const;
    // The values of `field` as a number (0 when absent).
    unsigned long number(const std::string& field) const;
    // Every expert info name of the frame.
    std::vector<std::string> experts() const;
};

// A tshark run: its exit status, standard output and standard error.
struct TsharkResult {
    int status = -1;
    std::string output;
    std::string errors;
};

// Bytes as tshark's JSON shows them: lowercase hex pairs joined by colons.
std::string ShownBytes(const std::string& bytes);

// The frames of one TCP stream.
std::vector<DissectedFrame> OfStream(const std::vector<DissectedFrame>& frames, unsigned stream);

// Base fixture of the dissector tests: skipped when tshark is not installed; a scratch
// directory per test, removed unless the test failed.
class DissectorTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    // Saves `capture` (without its first `skip` packets) and returns its vel frames dissected
    // with `options` (-o, -d ...), in capture order; fails the calling test when tshark fails or
    // prints something that is not JSON.
    std::vector<DissectedFrame> dissect(const CaptureFile& capture,
                                        const std::vector<std::string>& options,
                                        std::size_t skip = 0);
    // Runs tshark with the dissector loaded, `arguments` after it, and an empty configuration
    // directory (so that no personal preference changes what it shows). Bounded to 30 s, after
    // which it is killed.
    TsharkResult run(const std::vector<std::string>& arguments);
    std::string capturePath() const { return _work + "/capture.pcap"; }

private:
    std::string _work;
};

}  // namespace veltest

#endif  // TESTS_TOOLS_TSHARK_H
