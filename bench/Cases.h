// The cases vel-bench runs, in the order of its table.
#ifndef BENCH_CASES_H
#define BENCH_CASES_H

#include <memory>
#include <string>

#include "BenchRunner.h"

namespace velbench {

// Request/response, 64-byte bodies, one connection: vel (OXLv1 client, select reactor server)
// against plain blocking sockets and a libevent server. With `nativeTimeouts` the vel sockets
// use the system's send and receive time-outs (for information).
std::unique_ptr<Case> MakePingPongCase(bool nativeTimeouts);
// The same with 200 connections, against libevent.
std::unique_ptr<Case> MakeManyConnectionsCase();
// 1 MiB bodies one way: OXLv1 sendMessage/recvMessage against plain writev/read.
std::unique_ptr<Case> MakeStreamCase();
// TLS (VEL_TLSSocket under VEL_OXLv1): 1 MiB bodies one way against a plain OpenSSL
// SSL_write/SSL_read loop and against vel over plain TCP; 64-byte ping-pong against vel over
// plain TCP; connect, handshake and close against plain OpenSSL SSL_connect/SSL_accept.
std::unique_ptr<Case> MakeTLSStreamCase();
std::unique_ptr<Case> MakeTLSPingPongCase();
std::unique_ptr<Case> MakeTLSHandshakeCase();
// Secure, compressed request/response of 16 KiB bodies: VEL_HOLM against the same zlib and
// CAST-128 calls made directly on the buffers.
std::unique_ptr<Case> MakeHolmCase();
// 1M items through a pool of 2 threads: VEL_ThreadPool against a std::mutex +
// std::condition_variable queue with std::thread workers.
std::unique_ptr<Case> MakeThreadPoolCase();
// Arm and cancel 100k timers: VEL_TimerManager against a std::multimap keyed by deadline.
std::unique_ptr<Case> MakeTimerCase();
// One active request/response connection beside 2000 or 10,000 idle ones, each server in a
// process of its own (epoll against select, epoll without idle connections and libevent);
// reports the servers' resident memory per idle connection too.
std::unique_ptr<Case> MakeIdleCase2000();
std::unique_ptr<Case> MakeIdleCase10000();
// velcat's listener, in its own process, against the vel and libevent servers of the idle cases
// with no idle connection.
std::unique_ptr<Case> MakeVelcatCase();

// The helper modes those processes run: an echo server of `kind` ("select", "epoll", "libevent")
// that prints "port N", answers "count" with its number of connections and stops at the end of its
// input; and a holder of `count` idle connections to `port` that prints "ready" and closes them
// at the end of its input. Each returns the process exit status.
int ServeMain(const std::string& kind);
int HoldMain(unsigned short port, unsigned long count);

}  // namespace velbench

#endif  // BENCH_CASES_H
