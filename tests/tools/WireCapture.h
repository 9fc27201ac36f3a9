// What the dissector tests feed tshark: real conversations over loopback, written as a pcap file
// that the test builds itself, so that no capture privilege is needed.
//
// CaptureFile holds TCP connections as Ethernet/IPv4/TCP frames around the bytes that really
// crossed: a handshake, one segment per write with sequence and acknowledgement numbers that
// follow the bytes, then FIN or RST. RecordingRelay sits between a client and a server on
// loopback, forwards both ways and records the leg between itself and the server, cutting what
// it forwards as the test asks (as read, one byte per segment, or joined into one segment).
#ifndef TESTS_TOOLS_WIRECAPTURE_H
#define TESTS_TOOLS_WIRECAPTURE_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class VEL_Socket;
class VEL_TCPAcceptor;

namespace veltest {

// An IPv4 address and port, in host order.
struct Endpoint {
    std::uint32_t address = 0;
    std::uint16_t port = 0;
};

// Thread safety: every member may be called from any thread (one lock).
class CaptureFile {
public:
    // Starts a connection (SYN, SYN-ACK, ACK) and returns its number.
    std::size_t open(Endpoint client, Endpoint server);
    // One segment carrying `bytes` from one side.
    void segment(std::size_t connection, bool fromClient, const std::string& bytes);
    // The end of one side's stream (FIN), or an abort (RST).
    void end(std::size_t connection, bool fromClient, bool abort);
    // Writes the pcap file (Ethernet link type), without its first `skip` packets (a capture
    // started late); false when it cannot be written.
    bool save(const std::string& path, std::size_t skip = 0) const;

private:
    struct Connection {
        Endpoint client;
        Endpoint server;
        std::uint32_t clientSeq = 0;  // the next sequence number each side sends
        std::uint32_t serverSeq = 0;
    };
    void frame(Connection& connection, bool fromClient, std::uint8_t flags,
               const std::string& payload);

    mutable std::mutex _lock;  // guards every field below; taken by each member, never nested
    std::vector<Connection> _connections;
    std::vector<std::string> _records;  // one pcap record per packet, in order
    std::uint16_t _ipId = 1;
    std::chrono::microseconds _clock{0};
};

// How the relay cuts what it forwards in one direction.
struct Cutting {
    enum Kind { kAsRead, kOneByte, kJoined };
    Kind kind = kAsRead;
    // kJoined: the bytes held back until this many have come, then forwarded as one segment
    // (what follows goes as read).
    std::size_t joined = 0;
};

// A relay on 127.0.0.1 (port chosen by the system) to 127.0.0.1:`serverPort`. Each accepted
// client gets its own connection to the server, recorded as one connection of `capture`.
// Segments as read are at most 8192 bytes, so a large frame spans several.
// Thread safety: setCutting and waitForEnded from any thread; the relay runs its own thread,
// which the destructor stops and joins.
class RecordingRelay {
public:
    RecordingRelay(CaptureFile& capture, std::uint16_t serverPort);
    ~RecordingRelay();
    RecordingRelay(const RecordingRelay&) = delete;
    RecordingRelay& operator=(const RecordingRelay&) = delete;

    std::uint16_t port() const { return _port; }
    // For the connections accepted from now on.
    void setCutting(Cutting toServer, Cutting toClient);
    // Waits until `count` connections have ended (both sides closed, or one reset).
    bool waitForEnded(std::size_t count,
                      std::chrono::milliseconds limit = std::chrono::seconds(10));

private:
    struct Link;
    void run();
    void accept();
    // Moves what one side has sent; false once the link is over.
    bool pass(Link& link, bool fromClient);
    void forward(Link& link, bool fromClient, const std::string& bytes);
    void endLink(Link& link);

    CaptureFile& _capture;
    std::uint16_t _serverPort;
    int _listener = -1;
    std::uint16_t _port = 0;
    int _wake[2] = {-1, -1};    // a pipe whose write end stops the relay thread
    std::vector<Link*> _links;  // relay thread only

    std::mutex _lock;  // guards _cutting and _ended
    std::condition_variable _endedChanged;
    Cutting _cutting[2];  // to the server, to the client
    std::size_t _ended = 0;

    std::thread _thread;
};

// A library client and server (from `acceptor`) whose connection runs through `relay`; empty
// pointers, and a failure of the calling test, when they cannot be had.
struct RelayedSockets {
    std::unique_ptr<VEL_Socket> client;
    std::unique_ptr<VEL_Socket> server;
};
RelayedSockets ConnectThrough(const RecordingRelay& relay, VEL_TCPAcceptor& acceptor);

}  // namespace veltest

#endif  // TESTS_TOOLS_WIRECAPTURE_H
