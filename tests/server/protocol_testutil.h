// Helpers of the protocol tests: a server process running ProtocolServer with
// a test handler, counters shared with it, and request/answer round trips
// through the real client transport.
#pragma once

#include "db/client/connect.h"
#include "db/client/reqbuf.h"
#include "db/client/transport.h"
#include "server/protocol.h"
#include "tests/ipc/ipc_testutil.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <vector>

namespace prototest {

using Bytes = std::vector<unsigned char>;

// What the server process reports to the test, in memory shared by fork.
struct Counters {
  std::atomic<int> opened;
  std::atomic<int> closed;
  std::atomic<int> last_closed;
  std::atomic<int> notices;   // 'W'
  std::atomic<int> closes;    // '2'
  std::atomic<int> requests;  // complete requests of any kind
  std::atomic<int> misuse_ok; // answer()/park() refused where they must be
  std::atomic<int> max_channels;
};

inline Counters *shared_counters() {
  void *p =
      mmap(nullptr, sizeof(Counters), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  auto *c = new (p) Counters{};
  c->max_channels = 1024;
  return c;
}

// The answer of request 'L' + 32-bit n: n bytes of a pattern of n.
inline Bytes pattern(uint32_t n) {
  Bytes b(n);
  for (uint32_t i = 0; i < n; ++i) b[i] = static_cast<unsigned char>((i * 7 + n) ^ (i >> 8));
  return b;
}

// The test server's meaning of requests:
//   '1'/'3' + 'a' name   "1", or '0' + 'b' error text for the name MISSING
//   '4'                  "1"
//   '2', 'W', 'N'        no answer ('2' and 'W' counted)
//   'E' ...              the request itself (echo)
//   'L' n                pattern(n)
//   'P'                  park; answered "done <channel>" at the next 'R'
//   'R'                  answers every parked channel, then "released"
class TestHandler : public tavrind::RequestHandler {
public:
  explicit TestHandler(Counters *c) : c_(c) {}
  std::unique_ptr<tavrind::ChannelContext> channel_opened(tavrind::ProtocolServer &, int,
                                                          pid_t) override {
    ++c_->opened;
    return nullptr;
  }
  void channel_closed(tavrind::ProtocolServer &, int channel, tavrind::ChannelContext *) override {
    c_->last_closed = channel;
    ++c_->closed;
  }
  void request(tavrind::ProtocolServer &srv, int ch, tavrind::ChannelContext *,
               const unsigned char *d, size_t n) override {
    ++c_->requests;
    if (n == 0) {
      srv.answer(ch, "1", 1);
      return;
    }
    switch (d[0]) {
    case '1':
    case '3':
      if (n == 12 && std::memcmp(d + 4, "MISSING", 8) == 0) {
        // '0', tag 'b', 16-bit length, text
        std::string err = "0b";
        std::string text = "(srv) No such base";
        err += char(text.size());
        err += '\0';
        err += text;
        srv.answer(ch, err.data(), err.size());
      } else {
        srv.answer(ch, "1", 1);
      }
      break;
    case '4':
      srv.answer(ch, "1", 1);
      break;
    case '2':
      ++c_->closes;
      break;
    case 'W':
      ++c_->notices;
      break;
    case 'E':
      srv.answer(ch, d, n);
      break;
    case 'L': {
      uint32_t len = 0;
      if (n >= 5) std::memcpy(&len, d + 1, 4);
      Bytes b = pattern(len);
      srv.answer(ch, b.data(), b.size());
      break;
    }
    case 'P':
      // Parking twice, answering "-" or answering twice must be refused.
      srv.park(ch);
      if (!srv.park(ch) && !srv.answer(ch, "-", 1)) ++c_->misuse_ok;
      parked_.push_back(ch);
      break;
    case 'R':
      for (int p : parked_) {
        std::string s = "done " + std::to_string(p);
        srv.answer(p, s.data(), s.size());
      }
      parked_.clear();
      srv.answer(ch, "released", 8);
      if (!srv.answer(ch, "again", 5)) ++c_->misuse_ok;
      break;
    default:
      break;
    }
  }

private:
  Counters *c_;
  std::vector<int> parked_;
};

inline tavrind::ProtocolServer *g_server = nullptr;

// Starts a server process in the current namespace; returns its pid once it
// serves, or -1.
inline pid_t start_server(Counters *c) {
  ipctest::Gate ready;
  pid_t pid = ipctest::spawn([&] {
    alarm(250);
    TestHandler h(c);
    tavrind::ProtocolServer srv(h);
    srv.set_max_channels(c->max_channels);
    if (!srv.start()) return 3;
    g_server = &srv;
    signal(SIGTERM, [](int) { g_server->request_stop(); });
    ready.open_gate();
    srv.run();
    srv.shutdown();
    return 0;
  });
  if (!ready.pass()) {
    ipctest::join_within(pid, 1000);
    return -1;
  }
  return pid;
}

// Stops the server; returns its exit status.
inline int stop_server(pid_t pid) {
  kill(pid, SIGTERM);
  return ipctest::join_within(pid, 10000);
}

// Sends req on the connection and returns the answer (empty on failure).
// Answers longer than 10000 bytes must arrive in an allocation of exactly
// their length; *allocated tells whether one was made.
inline Bytes roundtrip(DBCONN *c, const Bytes &req, bool *allocated = nullptr) {
  DBreq_reset();
  DBreq_bytes(req.data(), req.size());
  if (!DBsend(c)) return {};
  unsigned char buf[10000];
  int len = 0;
  unsigned char *big = reinterpret_cast<unsigned char *>(1);
  int big_len = 0;
  if (!DBrecv(c, buf, sizeof buf, &len, &big, &big_len)) return {};
  Bytes out;
  if (big) {
    if (big_len != len) return {};
    out.assign(big, big + len);
    std::free(big);
  } else {
    if (big_len != -1) return {};
    out.assign(buf, buf + len);
  }
  if (allocated) *allocated = big != nullptr;
  return out;
}

inline Bytes echo_request(size_t n, unsigned seed) {
  Bytes b(n);
  if (n) b[0] = 'E';
  for (size_t i = 1; i < n; ++i) b[i] = static_cast<unsigned char>(seed * 31 + i * 13 + (i >> 9));
  return b;
}

inline Bytes length_request(uint32_t n) {
  Bytes b(5);
  b[0] = 'L';
  std::memcpy(&b[1], &n, 4);
  return b;
}

// Collects the message output of this process.
inline std::string g_out;
inline void collect(const char *t) { g_out += t; }

} // namespace prototest
