// Announce-to-handler latency and throughput of change events, with one and
// four receiving processes, against bare AF_UNIX datagrams doing the same
// system calls and allocations (socket + sendto + close per message; a 48-byte
// peek, malloc and recv per message received) in the same run.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <vector>

#include "tests/event_fixture.h"

namespace {

constexpr uint16_t kGid = 42;
constexpr int kBatch = 8;  // stays below the kernel's default receive queue of 10 datagrams
int g_ack = -1;            // write end of the pipe receivers acknowledge on
int g_ack_every = 1;
int g_handled = 0;

void ack() {
  if (++g_handled % g_ack_every == 0 && ::write(g_ack, "a", 1) != 1) _exit(3);
}

sockaddr_un raw_addr(int i) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  snprintf(a.sun_path, sizeof a.sun_path, "/tmp/bench_raw_%d", i);
  return a;
}

[[noreturn]] void raw_receiver(int i) {
  sockaddr_un a = raw_addr(i);
  int fd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
  ::unlink(a.sun_path);
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) _exit(2);
  if (::write(g_ack, "r", 1) != 1) _exit(3);
  for (;;) {
    cmdb_event_msg_t head;
    if (::recv(fd, &head, sizeof head, MSG_PEEK) != sizeof head) continue;
    void* m = malloc(head.total_size);
    if (::recv(fd, m, head.total_size, 0) == static_cast<ssize_t>(head.total_size)) ack();
    free(m);
  }
}

int event_handler(cmdb_event_msg_t*) {
  ack();
  return 0;
}

[[noreturn]] void event_receiver(int i) {
  char name[16];
  snprintf(name, sizeof name, "bench%d", i);
  if (cmdb_event_init(name, 0) < 0) _exit(2);
  if (register_cmdb_event(kGid, 0x02, EVENT_WITH_DATA, event_handler) != 0) _exit(2);
  if (::write(g_ack, "r", 1) != 1) _exit(3);
  for (;;) do_cmdb_event_handling();
}

// Receivers in processes of their own, each acknowledging every `ack_every` messages.
class Receivers {
 public:
  Receivers(int n, int ack_every, bool raw) : n_(n) {
    if (::pipe(pipe_) != 0) abort();
    g_ack = pipe_[1];
    g_ack_every = ack_every;
    for (int i = 0; i < n; ++i) {
      pid_t pid = ::fork();
      if (pid == 0) raw ? raw_receiver(i) : event_receiver(i);
      kids_.push_back(pid);
    }
    wait_acks(n);  // every receiver is bound and registered
  }
  ~Receivers() {
    for (pid_t k : kids_) ::kill(k, SIGKILL);
    for (pid_t k : kids_) ::waitpid(k, nullptr, 0);
    ::close(pipe_[0]);
    ::close(pipe_[1]);
  }
  void wait_acks(int count) {
    char buf[64];
    while (count > 0) {
      ssize_t r = ::read(pipe_[0], buf, static_cast<size_t>(count) < sizeof buf ? count : sizeof buf);
      if (r <= 0) abort();
      count -= static_cast<int>(r);
    }
  }
  int n() const { return n_; }

 private:
  int n_;
  int pipe_[2];
  std::vector<pid_t> kids_;
};

uint8_t g_data1[64], g_data2[64];

// The ways a message goes out: the bare path with a new socket per message (the
// design's own floor), the bare path through one socket kept open, and the library.
enum class Path { kRaw, kRawKept, kEvent };

// What the sender does per announcement on the bare path: one message to each receiver.
void raw_announce(int receivers, bool kept) {
  constexpr uint32_t kSize = 4;
  static const int kept_fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  for (int i = 0; i < receivers; ++i) {
    int fd = kept ? kept_fd : ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    auto* m = static_cast<cmdb_event_msg_t*>(calloc(1, sizeof(cmdb_event_msg_t) + 2 * kSize));
    m->gid = kGid, m->act = 0x02, m->data_size = kSize, m->total_size = sizeof *m + 2 * kSize;
    memcpy(reinterpret_cast<uint8_t*>(m + 1), g_data1 + 8, kSize);
    memcpy(reinterpret_cast<uint8_t*>(m + 1) + kSize, g_data2 + 8, kSize);
    sockaddr_un a = raw_addr(i);
    ::sendto(fd, m, m->total_size, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&a),
             static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(a.sun_path)));
    if (!kept) ::close(fd);
    free(m);
  }
}

void announce(Path path, int receivers) {
  if (path != Path::kEvent)
    raw_announce(receivers, path == Path::kRawKept);
  else if (cmdb_event_call_daemon(kGid, 2, g_data1, g_data2, nullptr) != 0)
    abort();
}

double now_s() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

void BM_Latency(benchmark::State& state, Path path) {
  gk::test::EventRegion ev({{kGid, 5, 0, 4, 8}});
  Receivers rx(static_cast<int>(state.range(0)), 1, path != Path::kEvent);
  for (auto _ : state) {
    announce(path, rx.n());
    rx.wait_acks(rx.n());
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_Throughput(benchmark::State& state, Path path) {
  gk::test::EventRegion ev({{kGid, 5, 0, 4, 8}});
  Receivers rx(static_cast<int>(state.range(0)), kBatch, path != Path::kEvent);
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) announce(path, rx.n());
    rx.wait_acks(rx.n());
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

BENCHMARK_CAPTURE(BM_Latency, raw, Path::kRaw)->Arg(1)->Arg(4)->UseRealTime();
BENCHMARK_CAPTURE(BM_Latency, raw_kept, Path::kRawKept)->Arg(1)->Arg(4)->UseRealTime();
BENCHMARK_CAPTURE(BM_Latency, event, Path::kEvent)->Arg(1)->Arg(4)->UseRealTime();
BENCHMARK_CAPTURE(BM_Throughput, raw, Path::kRaw)->Arg(1)->Arg(4)->UseRealTime();
BENCHMARK_CAPTURE(BM_Throughput, event, Path::kEvent)->Arg(1)->Arg(4)->UseRealTime();

// The sender's own time per announcement, the receivers' handling untimed;
// items are messages, so the per-item time is the cost per receiver.
void BM_SendCost(benchmark::State& state, Path path) {
  gk::test::EventRegion ev({{kGid, 5, 0, 4, 8}});
  Receivers rx(static_cast<int>(state.range(0)), 1, path != Path::kEvent);
  for (auto _ : state) {
    const double t0 = now_s();
    announce(path, rx.n());
    state.SetIterationTime(now_s() - t0);
    rx.wait_acks(rx.n());
  }
  state.SetItemsProcessed(state.iterations() * rx.n());
}
BENCHMARK_CAPTURE(BM_SendCost, raw, Path::kRaw)->Arg(1)->Arg(4)->UseManualTime();
BENCHMARK_CAPTURE(BM_SendCost, raw_kept, Path::kRawKept)->Arg(1)->Arg(4)->UseManualTime();
BENCHMARK_CAPTURE(BM_SendCost, event, Path::kEvent)->Arg(1)->Arg(4)->UseManualTime();

int g_received = 0;
int count_handler(cmdb_event_msg_t*) {
  ++g_received;
  return 0;
}

// The receiver's own time per message, in this process: kBatch messages are
// queued untimed, then taken off the socket and handled. The bare path peeks
// the 48-byte header, mallocs, receives and frees.
void BM_ReceiveCost(benchmark::State& state, Path path) {
  gk::test::EventRegion ev({{kGid, 5, 0, 4, 8}});
  const sockaddr_un a = raw_addr(0);
  int raw_fd = -1;
  if (path == Path::kEvent) {
    if (cmdb_event_init("benchrx", 0) < 0 || register_cmdb_event(kGid, 0x02, EVENT_WITH_DATA, count_handler) != 0)
      return state.SkipWithError("event init");
  } else {
    raw_fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ::unlink(a.sun_path);
    if (raw_fd < 0 || ::bind(raw_fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0)
      return state.SkipWithError("bind");
  }
  g_received = 0;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) announce(path, 1);
    const double t0 = now_s();
    for (int i = 0; i < kBatch; ++i) {
      if (path == Path::kEvent) {
        do_cmdb_event_handling();
        continue;
      }
      cmdb_event_msg_t head;
      if (::recv(raw_fd, &head, sizeof head, MSG_PEEK) != sizeof head) continue;
      void* m = malloc(head.total_size);
      if (::recv(raw_fd, m, head.total_size, 0) == static_cast<ssize_t>(head.total_size)) ++g_received;
      free(m);
    }
    state.SetIterationTime(now_s() - t0);
  }
  if (g_received != static_cast<int>(state.iterations()) * kBatch) state.SkipWithError("messages lost");
  if (raw_fd >= 0) ::close(raw_fd);
  if (path == Path::kEvent) cmdb_event_cleanup();
  state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK_CAPTURE(BM_ReceiveCost, raw, Path::kRaw)->UseManualTime();
BENCHMARK_CAPTURE(BM_ReceiveCost, event, Path::kEvent)->UseManualTime();

}  // namespace
