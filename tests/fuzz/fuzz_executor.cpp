// libFuzzer target of the tavrind request decoder and executor.
//
// Each input is a short session: a sequence of requests, each given as one
// channel byte, a 16-bit length and the request bytes, run on one of two
// channels against a small database with every attribute type, indices and
// rows. The database lives on a memory file system and is restored from a
// template before every input. Every answer must decode completely in the
// form its first byte announces; a would-block result may only come while the
// other channel holds a transaction.
#include "server/answer.h"
#include "server/executor.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

using namespace tavrind;

namespace {

std::string g_root;     // the folder of this run
std::string g_template; // folder with the template database
std::string g_work;     // folder the executor works in

// Checks that an answer is complete and exact in its announced form.
bool answer_well_formed(const std::vector<unsigned char> &a) {
  size_t p = 0;
  auto need = [&](size_t n) { return p + n <= a.size(); };
  auto u16 = [&] {
    uint16_t v = static_cast<uint16_t>(a[p] | a[p + 1] << 8);
    p += 2;
    return v;
  };
  auto i32 = [&] {
    int32_t v;
    memcpy(&v, a.data() + p, 4);
    p += 4;
    return v;
  };
  if (!need(1)) return false;
  switch (a[p++]) {
  case '0': {
    if (!need(3) || a[p++] != 'b') return false;
    uint16_t n = u16();
    return n >= 1 && p + n == a.size() && a[p + n - 1] == 0;
  }
  case '1':
    return p == a.size();
  case '3':
    return a.size() == 5;
  case '2':
  case '4': {
    if (!need(8)) return false;
    int32_t nc = i32(), nr = i32();
    if (nc < 0 || nr < 0) return false;
    for (int32_t c = 0; c < nc; ++c) {
      if (!need(2)) return false;
      uint16_t n = u16();
      if (n < 1 || !need(n + 5)) return false;
      p += n + 5;
    }
    for (int64_t i = 0; i < int64_t(nr) * nc; ++i) {
      if (!need(2)) return false;
      uint16_t n = u16();
      if (!need(n)) return false;
      p += n;
    }
    return p == a.size();
  }
  default:
    return false;
  }
}

// Runs statements given as request bytes built by hand on a channel.
void must(Session &ch, std::vector<unsigned char> req) {
  std::vector<unsigned char> out;
  if (exec_request(ch, req.data(), req.size(), out) != EXEC_ANSWER || out.empty() ||
      out[0] == '0') {
    fprintf(stderr, "fuzz setup failed\n");
    abort();
  }
}

std::vector<unsigned char> name_req(unsigned char cmd, const char *name) {
  std::vector<unsigned char> b{cmd, 'a'};
  uint16_t n = static_cast<uint16_t>(strlen(name) + 1);
  b.push_back(static_cast<unsigned char>(n));
  b.push_back(static_cast<unsigned char>(n >> 8));
  b.insert(b.end(), name, name + n);
  return b;
}

void append_name(std::vector<unsigned char> &b, const char *name) {
  std::vector<unsigned char> n = name_req(0, name);
  b.insert(b.end(), n.begin() + 1, n.end());
}

void append_int(std::vector<unsigned char> &b, int32_t v) {
  b.push_back('d');
  for (int i = 0; i < 4; ++i) b.push_back(static_cast<unsigned char>(v >> (8 * i)));
}

void append_text(std::vector<unsigned char> &b, const char *s) {
  std::vector<unsigned char> n = name_req(0, s);
  n[1] = 'f';
  b.insert(b.end(), n.begin() + 1, n.end());
}

void make_template() {
  const char *base = getenv("TMPDIR_FUZZ");
  std::string root = base ? base : (std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp");
  char tmpl[256];
  snprintf(tmpl, sizeof tmpl, "%s/tavrind-fuzz-%d", root.c_str(), static_cast<int>(getpid()));
  g_root = tmpl;
  g_template = g_root + "/template";
  g_work = g_root + "/work";
  std::filesystem::create_directories(g_template);
  // libFuzzer ends the run with exit(): leave nothing behind in memory.
  std::atexit([] {
    std::error_code ec;
    std::filesystem::remove_all(g_root, ec);
  });
  Executor ex;
  ex.catalog.dir = g_template;
  Session ch(ex, 0);
  must(ch, name_req('3', "F"));
  // T (A INTEGER NOT NULL, B CHARACTER(8), C SMALLINT, D FLOAT, E DATE, G TIME,
  //    H TIMESTAMP, K BINARY(4)) with a unique index, and U (A INTEGER, B CHARACTER(8)).
  std::vector<unsigned char> t{'5'};
  append_name(t, "T");
  const struct {
    const char *n;
    unsigned char code;
    int32_t len;
  } cols[] = {{"A", '2', 0}, {"B", '0', 8}, {"C", '1', 0}, {"D", '3', 0},
              {"E", '4', 0}, {"G", '5', 0}, {"H", '6', 0}, {"K", 0xA6, 4}};
  for (const auto &c : cols) {
    append_name(t, c.n);
    t.push_back(c.code);
    if (c.len) append_int(t, c.len);
    if (c.n[0] == 'A') t.push_back('F');
  }
  t.push_back('x');
  must(ch, t);
  std::vector<unsigned char> u{'5'};
  append_name(u, "U");
  append_name(u, "A");
  u.push_back('2');
  append_name(u, "B");
  u.push_back('0');
  append_int(u, 8);
  u.push_back('x');
  must(ch, u);
  std::vector<unsigned char> ix{'8', '7'};
  append_name(ix, "TA");
  append_name(ix, "T");
  append_name(ix, "A");
  ix.push_back('x');
  must(ch, ix);
  const char *texts[] = {"Äpfel", "abc  ", "", "Zahl"};
  for (int i = 1; i <= 4; ++i) {
    std::vector<unsigned char> ins{'E'};
    append_name(ins, "T");
    ins.push_back('X');
    append_int(ins, i);
    append_text(ins, texts[i - 1]);
    append_int(ins, i * 100);
    append_int(ins, -i);
    append_text(ins, i == 3 ? "" : "2003-07-12");
    append_text(ins, "10:30:00");
    append_text(ins, "2003-07-12-10.30.00.000000");
    append_text(ins, i == 2 ? "A$00B" : "");
    ins.push_back('x');
    must(ch, ins);
    std::vector<unsigned char> insu{'E'};
    append_name(insu, "U");
    insu.push_back('X');
    append_int(insu, i % 3);
    append_text(insu, texts[i % 4]);
    insu.push_back('x');
    must(ch, insu);
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (g_template.empty()) make_template();
  std::filesystem::remove_all(g_work);
  std::filesystem::create_directories(g_work);
  std::filesystem::copy_file(g_template + "/F.db", g_work + "/F.db");
  Executor ex;
  ex.catalog.dir = g_work;
  Session a(ex, 0), b(ex, 1);
  Session *chs[2] = {&a, &b};
  for (Session *c : chs) must(*c, name_req('1', "F"));
  size_t p = 0;
  int steps = 0;
  while (p + 3 <= size && steps++ < 64) {
    Session &ch = *chs[data[p] & 1];
    Session &other = *chs[(data[p] & 1) ^ 1];
    size_t n = data[p + 1] | data[p + 2] << 8;
    p += 3;
    if (n > size - p) n = size - p;
    std::vector<unsigned char> out;
    int r = exec_request(ch, data + p, n, out);
    p += n;
    if (r == EXEC_ANSWER && !answer_well_formed(out)) abort();
    if (r == EXEC_WOULD_BLOCK && !other.in_transaction()) abort();
    if (r == EXEC_NO_ANSWER && !out.empty()) abort();
    if (ex.stop_requested) break;
  }
  return 0;
}
