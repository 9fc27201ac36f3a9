// The cases vel-bench runs, in the order of its table.
#ifndef BENCH_CASES_H
#define BENCH_CASES_H

#include <memory>
#include <string>

#include "BenchRunner.h"

namespace velbench {

// Request/response, 64-byte bodies, one connection: vel (OXLv1 client, framed-connection server
// on the select back end) against the per-frame handler server of before, plain blocking sockets
// and a libevent server. With `nativeTimeouts` the vel sockets use the system's send and receive
// time-outs (for information).
std::unique_ptr<Case> MakePingPongCase(bool nativeTimeouts);
// The same with 200 connections, against the per-frame handler and libevent.
std::unique_ptr<Case> MakeManyConnectionsCase();
// 1 KiB bodies, 64 frames in flight on one connection: the framed-connection server against
// libevent and a plain epoll server with buffered reads and gathered writes.
std::unique_ptr<Case> MakePipelineCase();
// Ping-pong beside 50 dripping and 3 stalled peers, against the same server without them; the
// client's median and p99 round trip both ways.
std::unique_ptr<Case> MakeStalledPeersCase();
// 16 MiB echoes, then the buffers an idle framed connection still holds.
std::unique_ptr<Case> MakeLargeEchoCase();
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
