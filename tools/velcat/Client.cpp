#include "Client.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "Framing.h"
#include "Thread.h"
#include "TimeValue.h"
#include "VEL_EpollIOReactor.h"
#include "VEL_Message.h"
#include "VEL_Pipe.h"
#include "VEL_SelectIOReactor.h"
#include "VEL_SockOptions.h"
#include "VEL_TCPConnector.h"
#include "VEL_TCPPipe.h"
#include "VEL_TLSConnector.h"
#include "VEL_TLSContext.h"
#include "VEL_Tools.h"

namespace velcat {

namespace {

constexpr unsigned char kTimeoutSeconds = 5;  // connect, and one frame's send or receive
constexpr unsigned long kPipeRetrySeconds = 2;
constexpr std::size_t kReadChunk = 65536;

VEL_SockOptions connectionOptions() {
    VEL_SockOptions options;
    options.setNoDelay(true);  // request/response traffic must not wait on Nagle's algorithm
    options.setNonBlock(true);
    options.setTimeOut(kTimeoutSeconds);
    return options;
}

// Over a pipe, a connection that failed is replaced and the receive reports the failure;
// the client carries on. Frame errors remain fatal.
bool isConnectionLevel(VELErr_t code) {
    switch (code) {
        case kVELErr_Timeout:
        case kVELErr_SockHalfClosed:
        case kVELErr_SockNotConnected:
        case kVELErr_Recv:
            return true;
        default:
            return false;
    }
}

// Notices that a pipe has connected to another server, whose HOLM side has never seen this
// client's session key. Called with the pipe lock held: it only records.
class SwitchWatch : public VEL_PipeNotifier {
public:
    void connectionEstablished(const std::string& /*host*/, unsigned short /*port*/) override {
        if (_established.fetch_add(1) > 0) {
            _switched.store(true);
        }
    }
    bool takeSwitch() { return _switched.exchange(false); }

private:
    std::atomic<unsigned long> _established{0};
    std::atomic<bool> _switched{false};
};

class Client {
public:
    explicit Client(const Options& options) : _options(options) {}
    ~Client() {
        if (_wakeFd >= 0) {
            (void)::close(_wakeFd);  // nothing to do about a failure here
        }
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    int run();

private:
    bool connect();
    bool openTcp();
    bool makeTlsContext(VEL_TLSContext& context) const;
    bool openPipe();
    int pumpInput();
    int waitForReader();
    bool sendLine(const std::string& line);
    void readLoop();
    int received(VELErr_t code);
    void finish(int status);
    void noteInput();
    bool silentTooLong(int* pollTimeout) const;

    const Options& _options;
    SwitchWatch _watch;                   // outlives the pipe that calls it
    std::unique_ptr<VEL_Socket> _socket;  // a connected TCP socket, or the pipe
    VEL_Pipe* _pipe = nullptr;            // _socket, when it is a pipe
    std::unique_ptr<Framing> _framing;
    std::mutex _transportLock;             // held while a frame moves in either direction
    VEL_Message _message;                  // reader thread
    std::atomic<unsigned long> _count{0};  // written by the reader thread
    std::atomic<bool> _stopping{false};
    // Monotonic microseconds of the last input (or of the end of standard input), and whether a
    // receive is under way: -w measures silence between receives, which bound themselves.
    std::atomic<long long> _lastInput{0};
    std::atomic<bool> _receiving{false};
    std::atomic<int> _readerStatus{-1};  // set once, when the reader thread ends by itself
    int _wakeFd = -1;                    // written by the reader thread as it ends
};

int Client::run() {
    _wakeFd = ::eventfd(0, EFD_CLOEXEC);
    if (_wakeFd < 0) {
        Say("cannot make an event descriptor");
        return 1;
    }
    if (!connect()) {
        return 1;
    }
    std::thread reader([this] { readLoop(); });
    const int status = pumpInput();
    _stopping.store(true);
    (void)_socket->close();  // ends the reader's wait or receive; always Ok
    reader.join();
    _framing.reset();
    return status;
}

bool Client::connect() {
    if (!(_options.pipe.empty() ? openTcp() : openPipe())) {
        return false;
    }
    _framing.reset(new Framing(_options.protocol, _socket.get(), _options.maxSize));
    if (_options.compress) {
        _framing->setCompression(true);
    }
    if (_options.secure) {
        const VELErr_t code = _framing->openSecureSession();
        if (code != kVELErr_Ok) {
            Say("cannot open a secure session: " + VEL_Tools::GetErrStr(code));
            return false;
        }
    }
    return true;
}

bool Client::openTcp() {
    VEL_Socket* socket = nullptr;
    VELErr_t code = kVELErr_Ok;
    std::string detail;
    if (_options.tls) {
        VEL_TLSContext context(kVELTLS_Client);
        if (!makeTlsContext(context)) {
            return false;
        }
        VEL_TLSConnector connector(_options.port, _options.host.c_str(), context,
                                   connectionOptions());
        connector.setCnctTimeOut(kTimeoutSeconds);
        code = connector.connect(socket);
        detail = connector.getFailureDetail();
    } else {
        VEL_TCPConnector connector(_options.port, _options.host.c_str(), connectionOptions());
        connector.setCnctTimeOut(kTimeoutSeconds);
        code = connector.connect(socket);
    }
    if (code != kVELErr_Ok) {
        Say("cannot connect to " + _options.host + " port " + std::to_string(_options.port) + ": " +
            VEL_Tools::GetErrStr(code) + (detail.empty() ? "" : " (" + detail + ")"));
        return false;
    }
    _socket.reset(socket);
    return true;
}

// The client's TLS settings from the command line; false (said) when a file cannot be used.
bool Client::makeTlsContext(VEL_TLSContext& context) const {
    VELErr_t code = context.isValid() ? kVELErr_Ok : kVELErr_TLSInit;
    std::string what = "TLS";
    if (code == kVELErr_Ok && _options.insecure) {
        Say("warning: --insecure: the server's certificate is not checked; anybody on the path "
            "can read and change this connection");
        code = context.setPeerVerification(kVELTLSVerify_None);
    } else if (code == kVELErr_Ok) {
        what = _options.caFile.empty() ? "the system's trusted certificates" : _options.caFile;
        code = _options.caFile.empty() ? context.useSystemTrustStore()
                                       : context.loadTrustedCAFile(_options.caFile.c_str());
    }
    if (code == kVELErr_Ok && !_options.certFile.empty()) {
        what = _options.certFile;
        code = context.useCertificateChainFile(_options.certFile.c_str());
        if (code == kVELErr_Ok) {
            what = _options.keyFile;
            code = context.usePrivateKeyFile(_options.keyFile.c_str());
        }
    }
    if (code != kVELErr_Ok) {
        Say("cannot use " + what + ": " + VEL_Tools::GetErrStr(code));
        return false;
    }
    return true;
}

bool Client::openPipe() {
    auto* pipe = new VEL_TCPPipe(_options.failover,
                                 _options.backend == Backend::kEpoll
                                         ? &VEL_Pipe::MakeReactor<VEL_EpollIOReactor>
                                         : &VEL_Pipe::MakeReactor<VEL_SelectIOReactor>);
    _socket.reset(pipe);
    _pipe = pipe;
    for (const Endpoint& endpoint : _options.pipe) {
        (void)pipe->addConnection(endpoint.port, endpoint.host.c_str());  // a host is given
    }
    pipe->setRetryTime(kPipeRetrySeconds);
    pipe->setConnectTimeout(kTimeoutSeconds);
    pipe->setSendTimeout(kTimeoutSeconds);
    pipe->setRecvTimeout(kTimeoutSeconds);
    pipe->setSockOptions(connectionOptions());
    pipe->setPipeNotifier(&_watch);
    const VELErr_t code = pipe->open();
    if (code != kVELErr_Ok) {
        Say("no endpoint of the pipe answers: " + VEL_Tools::GetErrStr(code));
        return false;
    }
    return true;
}

// Sends each line of standard input until it ends or the reader thread has ended. Returns the
// exit status.
int Client::pumpInput() {
    std::string pending;
    char chunk[kReadChunk];
    for (;;) {
        pollfd waits[2] = {{_wakeFd, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        if (::poll(waits, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            Say("cannot wait for input");
            return 1;
        }
        if (waits[0].revents != 0) {
            return _readerStatus.load();
        }
        const ssize_t length = ::read(STDIN_FILENO, chunk, sizeof(chunk));
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length <= 0) {
            break;  // end of input (or an input that cannot be read: the same to a user)
        }
        pending.append(chunk, static_cast<std::size_t>(length));
        std::size_t start = 0;
        for (std::size_t end; (end = pending.find('\n', start)) != std::string::npos;
             start = end + 1) {
            if (!sendLine(pending.substr(start, end - start))) {
                return 1;
            }
        }
        pending.erase(0, start);
    }
    if (!pending.empty() && !sendLine(pending)) {
        return 1;
    }
    return _options.count == 0 ? 0 : waitForReader();
}

// After the end of input with -c: the replies still to come, for as long as the server is not
// silent for longer than -w.
int Client::waitForReader() {
    noteInput();  // silence counts from now
    for (;;) {
        int timeout = -1;
        if (silentTooLong(&timeout)) {
            Say("no reply for " + std::to_string(_options.wait) +
                " s (--wait): " + std::to_string(_count.load()) + " of " +
                std::to_string(_options.count) + " messages received");
            return 1;
        }
        pollfd wait{_wakeFd, POLLIN, 0};
        const int ready = ::poll(&wait, 1, timeout);
        if (ready > 0) {
            return _readerStatus.load() < 0 ? 1 : _readerStatus.load();
        }
        if (ready < 0 && errno != EINTR) {
            Say("cannot wait for the reader");
            return 1;
        }
    }
}

void Client::noteInput() {
    _lastInput.store(basis::TimeValue::GetHRTime().toMicroseconds());
}

// True once nothing has arrived for -w seconds; otherwise *pollTimeout is how long to wait before
// asking again (-1: for ever).
bool Client::silentTooLong(int* pollTimeout) const {
    if (_options.wait == 0) {
        *pollTimeout = -1;
        return false;
    }
    const long long limit = static_cast<long long>(_options.wait) * 1000000;
    const long long silent =
            _receiving.load() ? 0
                              : basis::TimeValue::GetHRTime().toMicroseconds() - _lastInput.load();
    if (silent >= limit) {
        return true;
    }
    *pollTimeout = static_cast<int>((limit - silent + 999) / 1000);
    return false;
}

bool Client::sendLine(const std::string& line) {
    VEL_Message message;
    VELErr_t code = message.setData(line.data(), line.size());
    if (code == kVELErr_Ok) {
        std::lock_guard<std::mutex> hold(_transportLock);
        if (_watch.takeSwitch()) {
            code = _framing->renewSecureSession();
        }
        if (code == kVELErr_Ok) {
            code = _framing->send(message);
        }
    }
    if (code != kVELErr_Ok) {
        Say("send failed: " + VEL_Tools::GetErrStr(code));
        return false;
    }
    return true;
}

void Client::readLoop() {
    int status = -1;
    while (status < 0) {
        VELErr_t code = _socket->waitForRead(nullptr);
        if (code == kVELErr_Ok) {
            _receiving.store(true);
            std::lock_guard<std::mutex> hold(_transportLock);
            code = _framing->receive(_message);
            noteInput();
            _receiving.store(false);
        }
        if (_stopping.load()) {
            return;  // the main thread closed the connection
        }
        status = received(code);
    }
    finish(status);
}

// What one receive means: -1 to carry on, or the exit status.
int Client::received(VELErr_t code) {
    if (code == kVELErr_Ok) {
        if (!PrintBody(_message, _options.hex)) {
            Say("cannot write to standard output");
            return 1;
        }
        return _count.fetch_add(1) + 1 == _options.count ? 0 : -1;
    }
    if (code == kVELErr_Incomplete || (_pipe != nullptr && isConnectionLevel(code))) {
        return -1;
    }
    if (code == kVELErr_SockHalfClosed && basis::Thread::GetLastSystemErr() == 0) {
        if (_options.count == 0) {
            return 0;
        }
        Say("connection closed by the peer after " + std::to_string(_count.load()) + " of " +
            std::to_string(_options.count) + " messages");
        return 1;
    }
    Say("receive failed: " + VEL_Tools::GetErrStr(code));
    return 1;
}

void Client::finish(int status) {
    _readerStatus.store(status);
    const std::uint64_t one = 1;
    // The main thread waits for this; a failure would leave it waiting on its input only.
    (void)!::write(_wakeFd, &one, sizeof(one));
}

}  // namespace

int RunClient(const Options& options) {
    Client client(options);
    return client.run();
}

}  // namespace velcat
