#include "Tshark.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "WireCapture.h"

namespace veltest {

namespace {

using boost::property_tree::ptree;

const char* const kProtocols[] = {"oxlv1", "oxlv2", "oxlv5", "holm"};

// Appends every item under `node`, depth first: a field's value, then its subtree.
void flatten(const ptree& node, std::vector<std::pair<std::string, std::string>>& fields) {
    for (const auto& child : node) {
        if (!child.second.data().empty() || child.second.empty()) {
            fields.emplace_back(child.first, child.second.data());
        }
        flatten(child.second, fields);
    }
}

// The value of `field` (a path in tshark's JSON) in `layer`, as a number.
unsigned numberIn(const ptree& layer, const char* field, const char* absent = "0") {
    const std::string text = layer.get<std::string>(ptree::path_type(field, '/'), absent);
    return static_cast<unsigned>(std::strtoul(text.c_str(), nullptr, 0));
}

}  // namespace

bool DissectedFrame::has(const std::string& field) const {
    return std::any_of(fields.begin(), fields.end(),
                       [&field](const auto& item) { return item.first == field; });
}

std::string DissectedFrame::operator[](const std::string& field) const {
    const auto found = std::find_if(fields.begin(), fields.end(),
                                    [&field](const auto& item) { return item.first == field; });
    return found != fields.end() ? found->second : "";
}

unsigned long DissectedFrame::number(const std::string& field) const {
    return std::strtoul((*this)[field].c_str(), nullptr, 0);
}

std::vector<std::string> DissectedFrame::experts() const {
    // Each expert info is a "_ws.expert" subtree: its name, then its message.
    std::vector<std::string> names;
    for (std::size_t i = 0; i + 1 < fields.size(); ++i) {
        if (fields[i + 1].first == "_ws.expert.message") {
            names.push_back(fields[i].first);
        }
    }
    return names;
}

std::string ShownBytes(const std::string& bytes) {
    std::string text;
    char pair[4];
    for (unsigned char byte : bytes) {
        std::snprintf(pair, sizeof(pair), text.empty() ? "%02x" : ":%02x", byte);
        text += pair;
    }
    return text;
}

std::vector<DissectedFrame> OfStream(const std::vector<DissectedFrame>& frames, unsigned stream) {
    std::vector<DissectedFrame> selected;
    for (const DissectedFrame& frame : frames) {
        if (frame.stream == stream) {
            selected.push_back(frame);
        }
    }
    return selected;
}

void DissectorTest::SetUp() {
    if (RunCommand({"sh", "-c", "command -v tshark"}) != 0) {
        GTEST_SKIP() << "tshark is not installed (apt-get install tshark): the Wireshark "
                        "dissector is not checked";
    }
    char pattern[] = "/tmp/vel-dissector-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr) << "mkdtemp: errno " << errno;
    _work = pattern;
}

void DissectorTest::TearDown() {
    if (_work.empty()) {
        return;
    }
    if (HasFailure()) {
        std::printf("captures and tshark output kept in %s\n", _work.c_str());
        return;
    }
    std::error_code ignored;  // a scratch directory left behind is harmless
    std::filesystem::remove_all(_work, ignored);
}

std::vector<DissectedFrame> DissectorTest::dissect(const CaptureFile& capture,
                                                   const std::vector<std::string>& options,
                                                   std::size_t skip) {
    EXPECT_TRUE(capture.save(capturePath(), skip));
    std::vector<std::string> arguments{"-r", capturePath(), "-T", "json"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    const TsharkResult result = run(arguments);
    std::vector<DissectedFrame> frames;
    if (result.status != 0 || result.errors.find("Lua") != std::string::npos) {
        ADD_FAILURE() << "tshark exited with " << result.status << ":\n" << result.errors;
        return frames;
    }
    ptree packets;
    try {
        std::istringstream json(result.output);
        boost::property_tree::read_json(json, packets);
    } catch (const boost::property_tree::json_parser_error& error) {
        ADD_FAILURE() << "tshark's output is not JSON: " << error.what();
        return frames;
    }
    for (const auto& packet : packets) {
        DissectedFrame shown;  // the packet's numbers, copied into each vel frame it shows
        for (const auto& layer : packet.second.get_child("_source.layers")) {
            if (layer.first == "frame") {
                shown.packet = numberIn(layer.second, "frame.number");
            } else if (layer.first == "tcp") {
                shown.stream = numberIn(layer.second, "tcp.stream");
                shown.sourcePort = numberIn(layer.second, "tcp.srcport");
            } else if (layer.first == "tcp.segments") {
                shown.segments = numberIn(layer.second, "tcp.segment.count", "1");
            }
            for (const char* protocol : kProtocols) {
                if (layer.first == protocol) {
                    DissectedFrame frame = shown;
                    frame.protocol = protocol;
                    flatten(layer.second, frame.fields);
                    frames.push_back(std::move(frame));
                }
            }
        }
    }
    return frames;
}

TsharkResult DissectorTest::run(const std::vector<std::string>& arguments) {
    const std::string config = _work + "/wireshark-config";
    (void)::mkdir(config.c_str(), 0700);  // it may exist from an earlier run
    // A home of its own: a copy of the dissector among the user's personal plugins would be
    // loaded beside the one under test and refuse to register the same protocols again.
    std::vector<std::string> argv{"env",
                                  "HOME=" + _work,
                                  "WIRESHARK_CONFIG_DIR=" + config,
                                  "tshark",
                                  "-X",
                                  std::string("lua_script:") + VEL_DISSECTOR_PATH};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    ChildProcess child(argv);
    child.closeInput();
    TsharkResult result;
    result.status = child.wait(std::chrono::seconds(30));
    EXPECT_NE(result.status, -1) << "tshark still runs after 30 s: killed";
    result.output = child.output();
    result.errors = child.errors();
    return result;
}

}  // namespace veltest
