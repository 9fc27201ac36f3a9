#include "WireCapture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>

#include <gtest/gtest.h>

#include "MemorySocket.h"
#include "SocketSupport.h"
#include "VEL_Socket.h"
#include "VEL_TCPAcceptor.h"
#include "VEL_TCPConnector.h"

namespace veltest {

namespace {

constexpr std::uint8_t kFin = 0x01;
constexpr std::uint8_t kSyn = 0x02;
constexpr std::uint8_t kRst = 0x04;
constexpr std::uint8_t kPsh = 0x08;
constexpr std::uint8_t kAck = 0x10;
constexpr std::size_t kLargestSegment = 8192;

// pcap's own header and record fields are in the writer's byte order; this writes little-endian.
void putLittle32(std::string& out, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        out += static_cast<char>(value >> (8 * i));
    }
}

// The Internet checksum of `bytes`, starting from `sum`.
std::uint16_t checksum(const std::string& bytes, std::uint32_t sum = 0) {
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        std::uint32_t word = static_cast<unsigned char>(bytes[i]) << 8;
        if (i + 1 < bytes.size()) {
            word |= static_cast<unsigned char>(bytes[i + 1]);
        }
        sum += word;
    }
    while (sum >> 16 != 0) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<std::uint16_t>(~sum);
}

// The local end of a connected descriptor, or its peer's (zeros on failure).
Endpoint endpointOf(int fd, bool peer) {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    (void)(peer ? ::getpeername : ::getsockname)(fd, reinterpret_cast<sockaddr*>(&address),
                                                 &length);
    return Endpoint{ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
}

void noDelay(int fd) {
    const int on = 1;
    (void)::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));  // best effort
}

}  // namespace

std::size_t CaptureFile::open(Endpoint client, Endpoint server) {
    std::lock_guard<std::mutex> hold(_lock);
    Connection connection;
    connection.client = client;
    connection.server = server;
    connection.clientSeq = 0x10000000u + static_cast<std::uint32_t>(_connections.size()) * 0x10000u;
    connection.serverSeq = 0x60000000u + static_cast<std::uint32_t>(_connections.size()) * 0x10000u;
    frame(connection, true, kSyn, "");
    frame(connection, false, kSyn | kAck, "");
    frame(connection, true, kAck, "");
    _connections.push_back(connection);
    return _connections.size() - 1;
}

void CaptureFile::segment(std::size_t connection, bool fromClient, const std::string& bytes) {
    std::lock_guard<std::mutex> hold(_lock);
    frame(_connections.at(connection), fromClient, kPsh | kAck, bytes);
}

void CaptureFile::end(std::size_t connection, bool fromClient, bool abort) {
    std::lock_guard<std::mutex> hold(_lock);
    frame(_connections.at(connection), fromClient, (abort ? kRst : kFin) | kAck, "");
}

void CaptureFile::frame(Connection& connection, bool fromClient, std::uint8_t flags,
                        const std::string& payload) {
    const Endpoint& source = fromClient ? connection.client : connection.server;
    const Endpoint& destination = fromClient ? connection.server : connection.client;
    std::uint32_t& seq = fromClient ? connection.clientSeq : connection.serverSeq;
    const std::uint32_t ack =
            (flags & kAck) != 0 ? (fromClient ? connection.serverSeq : connection.clientSeq) : 0;
    // A 20-byte header without options; window 65535, checksum (filled below), urgent pointer 0.
    std::string tcp = Be16(source.port) + Be16(destination.port) + Be32(seq) + Be32(ack) +
                      static_cast<char>(5 << 4) + static_cast<char>(flags) + Be16(65535) +
                      std::string(4, '\0') + payload;
    const std::uint16_t tcpSum =
            checksum(Be32(source.address) + Be32(destination.address) + Be16(IPPROTO_TCP) +
                     Be16(static_cast<std::uint16_t>(tcp.size())) + tcp);
    tcp[16] = static_cast<char>(tcpSum >> 8);
    tcp[17] = static_cast<char>(tcpSum);
    // IPv4 with a 20-byte header, don't fragment, TTL 64; checksum filled below.
    std::string ip = "\x45" + std::string(1, '\0') +
                     Be16(static_cast<std::uint16_t>(20 + tcp.size())) + Be16(_ipId++) +
                     Be16(0x4000) + static_cast<char>(64) + static_cast<char>(IPPROTO_TCP) +
                     Be16(0) + Be32(source.address) + Be32(destination.address);
    const std::uint16_t ipSum = checksum(ip);
    ip[10] = static_cast<char>(ipSum >> 8);
    ip[11] = static_cast<char>(ipSum);

    // Ethernet as on the loopback interface: zero addresses, type IPv4.
    const std::string packet = std::string(12, '\0') + std::string("\x08\x00", 2) + ip + tcp;
    // Each frame one millisecond after the last: tshark needs only their order.
    _clock += std::chrono::milliseconds(1);
    std::string record;
    putLittle32(record, static_cast<std::uint32_t>(1700000000 + _clock.count() / 1000000));
    putLittle32(record, static_cast<std::uint32_t>(_clock.count() % 1000000));
    putLittle32(record, static_cast<std::uint32_t>(packet.size()));
    putLittle32(record, static_cast<std::uint32_t>(packet.size()));
    _records.push_back(record + packet);
    seq += static_cast<std::uint32_t>(payload.size()) + ((flags & (kSyn | kFin)) != 0 ? 1 : 0);
}

bool CaptureFile::save(const std::string& path, std::size_t skip) const {
    std::string file;
    putLittle32(file, 0xA1B2C3D4);               // microsecond timestamps
    file += std::string("\x02\x00\x04\x00", 4);  // version 2.4
    putLittle32(file, 0);                        // time zone
    putLittle32(file, 0);                        // timestamp accuracy
    putLittle32(file, 262144);                   // snapshot length
    putLittle32(file, 1);                        // Ethernet
    {
        std::lock_guard<std::mutex> hold(_lock);
        for (std::size_t i = skip; i < _records.size(); ++i) {
            file += _records[i];
        }
    }
    std::ofstream out(path, std::ios::binary);
    out << file;
    return static_cast<bool>(out);
}

// One relayed connection: index 0 is the client's side, 1 the server's.
struct RecordingRelay::Link {
    int fd[2] = {-1, -1};
    std::size_t connection = 0;
    bool sending[2] = {true, true};  // whether each side has not yet ended its stream
    Cutting cutting[2];              // of what each side sends
    std::string held[2];             // kJoined bytes not yet forwarded
    bool over = false;
};

RecordingRelay::RecordingRelay(CaptureFile& capture, std::uint16_t serverPort)
    : _capture(capture), _serverPort(serverPort) {
    _listener = RawListener(&_port).release();
    if (_listener < 0 || ::pipe2(_wake, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "relay: cannot listen, errno " << errno;
        return;
    }
    _thread = std::thread([this] { run(); });
}

RecordingRelay::~RecordingRelay() {
    if (_thread.joinable()) {
        (void)::write(_wake[1], "x", 1);  // a full pipe still wakes the thread
        _thread.join();
    }
    for (Link* link : _links) {
        endLink(*link);
        delete link;
    }
    for (int fd : {_listener, _wake[0], _wake[1]}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

void RecordingRelay::setCutting(Cutting toServer, Cutting toClient) {
    std::lock_guard<std::mutex> hold(_lock);
    _cutting[0] = toServer;
    _cutting[1] = toClient;
}

bool RecordingRelay::waitForEnded(std::size_t count, std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> hold(_lock);
    return _endedChanged.wait_for(hold, limit, [this, count] { return _ended >= count; });
}

void RecordingRelay::run() {
    for (;;) {
        std::vector<pollfd> waits{{_wake[0], POLLIN, 0}, {_listener, POLLIN, 0}};
        std::vector<std::pair<Link*, int>> sides;
        for (Link* link : _links) {
            for (int side = 0; side < 2; ++side) {
                if (link->sending[side]) {
                    waits.push_back({link->fd[side], POLLIN, 0});
                    sides.emplace_back(link, side);
                }
            }
        }
        if (::poll(waits.data(), waits.size(), -1) < 0 && errno != EINTR) {
            ADD_FAILURE() << "relay: poll failed, errno " << errno;
            return;
        }
        if (waits[0].revents != 0) {
            return;
        }
        if (waits[1].revents != 0) {
            accept();
        }
        for (std::size_t i = 0; i < sides.size(); ++i) {
            Link& link = *sides[i].first;
            if (waits[i + 2].revents != 0 && !link.over) {
                (void)pass(link, sides[i].second == 0);  // a finished link is swept below
            }
        }
        auto finished = std::remove_if(_links.begin(), _links.end(), [](Link* link) {
            if (link->over) {
                delete link;
                return true;
            }
            return false;
        });
        _links.erase(finished, _links.end());
    }
}

void RecordingRelay::accept() {
    const int client = ::accept4(_listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) {
        return;
    }
    const int server = RawConnect(_serverPort).release();
    if (server < 0) {
        ::close(client);
        return;
    }
    noDelay(client);
    noDelay(server);
    auto* link = new Link;
    link->fd[0] = client;
    link->fd[1] = server;
    {
        std::lock_guard<std::mutex> hold(_lock);
        link->cutting[0] = _cutting[0];
        link->cutting[1] = _cutting[1];
    }
    link->connection = _capture.open(endpointOf(server, false), endpointOf(server, true));
    _links.push_back(link);
}

bool RecordingRelay::pass(Link& link, bool fromClient) {
    const int from = fromClient ? 0 : 1;
    char buffer[65536];
    ssize_t got;
    do {
        got = ::recv(link.fd[from], buffer, sizeof(buffer), 0);
    } while (got < 0 && errno == EINTR);
    if (got > 0) {
        forward(link, fromClient, std::string(buffer, static_cast<std::size_t>(got)));
        return true;
    }
    if (got < 0) {
        // An abort (typically a receiver that closed with bytes unread): the other side gets
        // an end of stream when the link is closed.
        _capture.end(link.connection, fromClient, true);
        endLink(link);
        return false;
    }
    if (!link.held[from].empty()) {
        const std::string rest = std::move(link.held[from]);
        link.held[from].clear();
        link.cutting[from] = Cutting();
        forward(link, fromClient, rest);
    }
    _capture.end(link.connection, fromClient, false);
    link.sending[from] = false;
    (void)::shutdown(link.fd[1 - from], SHUT_WR);  // the peer may be gone already
    if (!link.sending[1 - from]) {
        endLink(link);
        return false;
    }
    return true;
}

void RecordingRelay::forward(Link& link, bool fromClient, const std::string& bytes) {
    const int from = fromClient ? 0 : 1;
    const int to = link.fd[1 - from];
    Cutting& cutting = link.cutting[from];
    // A segment is recorded once it is sent: the peer can only answer what it has been sent.
    auto segment = [&](const char* data, std::size_t size) {
        if (WriteAll(to, data, size)) {
            _capture.segment(link.connection, fromClient, std::string(data, size));
        }
    };
    switch (cutting.kind) {
        case Cutting::kOneByte:
            for (char byte : bytes) {
                segment(&byte, 1);
            }
            break;
        case Cutting::kJoined:
            link.held[from] += bytes;
            if (link.held[from].size() >= cutting.joined) {
                segment(link.held[from].data(), link.held[from].size());
                link.held[from].clear();
                cutting = Cutting();
            }
            break;
        case Cutting::kAsRead:
            for (std::size_t at = 0; at < bytes.size(); at += kLargestSegment) {
                segment(bytes.data() + at, std::min(kLargestSegment, bytes.size() - at));
            }
            break;
    }
}

void RecordingRelay::endLink(Link& link) {
    if (link.over) {
        return;
    }
    link.over = true;
    for (int& fd : link.fd) {
        ::close(fd);
        fd = -1;
    }
    {
        std::lock_guard<std::mutex> hold(_lock);
        ++_ended;
    }
    _endedChanged.notify_all();
}

RelayedSockets ConnectThrough(const RecordingRelay& relay, VEL_TCPAcceptor& acceptor) {
    RelayedSockets sockets;
    VEL_TCPConnector connector(relay.port(), "127.0.0.1");
    VEL_Socket* socket = nullptr;
    EXPECT_EQ(connector.connect(socket), kVELErr_Ok);
    sockets.client.reset(socket);
    socket = nullptr;
    EXPECT_EQ(acceptor.accept(socket), kVELErr_Ok);
    sockets.server.reset(socket);
    return sockets;
}

}  // namespace veltest
