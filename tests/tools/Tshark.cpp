#include "Tshark.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <gtest/gtest.h>

#include "WireCapture.h"

extern char** environ;

namespace veltest {

namespace {

using boost::property_tree::ptree;

const char* const kProtocols[] = {"oxlv1", "oxlv2", "oxlv5", "holm"};

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Waits for the child within `seconds`; kills it after that. Its exit status, -1 otherwise.
int waitBounded(pid_t pid, int seconds) {
    const int handle = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (handle >= 0) {
        pollfd exited{handle, POLLIN, 0};
        if (::poll(&exited, 1, seconds * 1000) == 0) {
            ADD_FAILURE() << "tshark still runs after " << seconds << " s: killed";
            ::kill(pid, SIGKILL);
        }
        ::close(handle);
    }
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

// Appends every item under `node`, depth first: a field's value, then its subtree.
void flatten(const ptree& node, std::vector<std::pair<std::string, std::string>>& fields) {
    for (const auto& child : node) {
        if (!child.second.data().empty() || child.second.empty()) {
            fields.emplace_back(child.first, child.second.data());
        }
        flatten(child.second, fields);
    }
}

unsigned toNumber(const std::string& text) {
    return static_cast<unsigned>(std::strtoul(text.c_str(), nullptr, 0));
}

}  // namespace

bool DissectedFrame::has(const std::string& field) const {
    for (const auto& item : fields) {
        if (item.first == field) {
            return true;
        }
    }
    return false;
}

std::string DissectedFrame::operator[](const std::string& field) const {
    for (const auto& item : fields) {
        if (item.first == field) {
            return item.second;
        }
    }
    return "";
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

std::string FindTshark() {
    const char* path = std::getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "/usr/bin:/bin");
    std::string folder;
    while (std::getline(folders, folder, ':')) {
        const std::string candidate = folder + "/tshark";
        if (!folder.empty() && ::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return "";
}

TsharkResult RunTshark(const std::string& tshark, const std::string& workDir,
                       const std::vector<std::string>& arguments) {
    const std::string config = workDir + "/wireshark-config";
    const std::string outputPath = workDir + "/tshark.out";
    const std::string errorPath = workDir + "/tshark.err";
    (void)::mkdir(config.c_str(), 0700);  // it may exist from an earlier run

    std::vector<std::string> words{tshark, "-X", std::string("lua_script:") + VEL_DISSECTOR_PATH};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(&word[0]);
    }
    argv.push_back(nullptr);
    std::vector<std::string> variables{"WIRESHARK_CONFIG_DIR=" + config};
    for (char** variable = environ; *variable != nullptr; ++variable) {
        if (std::strncmp(*variable, "WIRESHARK_CONFIG_DIR=", 21) != 0) {
            variables.emplace_back(*variable);
        }
    }
    std::vector<char*> envp;
    for (std::string& variable : variables) {
        envp.push_back(&variable[0]);
    }
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    posix_spawn_file_actions_addopen(&actions, 2, errorPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    pid_t pid = -1;
    const int spawned = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    TsharkResult result;
    if (spawned != 0) {
        ADD_FAILURE() << "cannot start " << tshark << ": " << std::strerror(spawned);
        return result;
    }
    result.status = waitBounded(pid, 30);
    result.output = readFile(outputPath);
    result.errors = readFile(errorPath);
    return result;
}

std::vector<DissectedFrame> Dissect(const std::string& tshark, const std::string& workDir,
                                    const std::string& capture,
                                    const std::vector<std::string>& options) {
    std::vector<std::string> arguments{"-r", capture, "-T", "json"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    const TsharkResult run = RunTshark(tshark, workDir, arguments);
    std::vector<DissectedFrame> frames;
    if (run.status != 0 || run.errors.find("Lua") != std::string::npos) {
        ADD_FAILURE() << "tshark exited with " << run.status << ":\n" << run.errors;
        return frames;
    }
    ptree packets;
    try {
        std::istringstream json(run.output);
        boost::property_tree::read_json(json, packets);
    } catch (const boost::property_tree::json_parser_error& error) {
        ADD_FAILURE() << "tshark's output is not JSON: " << error.what();
        return frames;
    }
    for (const auto& packet : packets) {
        const ptree& layers = packet.second.get_child("_source.layers");
        unsigned packetNumber = 0;
        unsigned stream = 0;
        unsigned sourcePort = 0;
        unsigned segments = 1;
        for (const auto& layer : layers) {
            if (layer.first == "frame") {
                packetNumber = toNumber(
                        layer.second.get<std::string>(ptree::path_type("frame.number", '/'), "0"));
            } else if (layer.first == "tcp") {
                stream = toNumber(
                        layer.second.get<std::string>(ptree::path_type("tcp.stream", '/'), "0"));
                sourcePort = toNumber(
                        layer.second.get<std::string>(ptree::path_type("tcp.srcport", '/'), "0"));
            } else if (layer.first == "tcp.segments") {
                segments = toNumber(layer.second.get<std::string>(
                        ptree::path_type("tcp.segment.count", '/'), "1"));
            }
            for (const char* protocol : kProtocols) {
                if (layer.first == protocol) {
                    DissectedFrame frame;
                    frame.protocol = protocol;
                    frame.packet = packetNumber;
                    frame.stream = stream;
                    frame.sourcePort = sourcePort;
                    frame.segments = segments;
                    flatten(layer.second, frame.fields);
                    frames.push_back(std::move(frame));
                }
            }
        }
    }
    return frames;
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
    _tshark = FindTshark();
    if (_tshark.empty()) {
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
    return Dissect(_tshark, _work, capturePath(), options);
}

TsharkResult DissectorTest::run(const std::vector<std::string>& arguments) {
    return RunTshark(_tshark, _work, arguments);
}

}  // namespace veltest
