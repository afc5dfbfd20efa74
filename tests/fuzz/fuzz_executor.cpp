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
#include "tests/server/answer_decode.h"

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

// A request built by hand: bytes as they are, names (tag 'a') and strings
// (tag 'f') with their 16-bit length counting the zero byte, integers (tag 'd').
struct Req {
  std::vector<unsigned char> b;
  explicit Req(unsigned char cmd) : b{cmd} {}
  Req &byte(unsigned char c) {
    b.push_back(c);
    return *this;
  }
  Req &field(unsigned char tag, const char *s) {
    uint16_t n = static_cast<uint16_t>(strlen(s) + 1);
    b.insert(b.end(), {tag, static_cast<unsigned char>(n), static_cast<unsigned char>(n >> 8)});
    b.insert(b.end(), s, s + n);
    return *this;
  }
  Req &name(const char *s) { return field('a', s); }
  Req &text(const char *s) { return field('f', s); }
  Req &i32(int32_t v) {
    byte('d');
    for (int i = 0; i < 4; ++i) byte(static_cast<unsigned char>(v >> (8 * i)));
    return *this;
  }
};

// Runs a request on a channel; it must be answered without an error.
void must(Session &ch, const Req &req) {
  std::vector<unsigned char> out;
  if (exec_request(ch, req.b.data(), req.b.size(), out) != EXEC_ANSWER || out.empty() ||
      out[0] == '0') {
    fprintf(stderr, "fuzz setup failed\n");
    abort();
  }
}

void make_template() {
  const char *base = getenv("TMPDIR_FUZZ");
  std::string root = base ? base : std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp";
  g_root = root + "/tavrind-fuzz-" + std::to_string(getpid());
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
  must(ch, Req('3').name("F"));
  // T (A INTEGER NOT NULL, B CHARACTER(8), C SMALLINT, D FLOAT, E DATE, G TIME,
  //    H TIMESTAMP, K BINARY(4)) with a unique index, and U (A INTEGER, B CHARACTER(8)).
  Req t('5');
  t.name("T").name("A").byte('2').byte('F').name("B").byte('0').i32(8).name("C").byte('1');
  t.name("D").byte('3').name("E").byte('4').name("G").byte('5').name("H").byte('6');
  must(ch, t.name("K").byte(0xA6).i32(4).byte('x'));
  must(ch, Req('5').name("U").name("A").byte('2').name("B").byte('0').i32(8).byte('x'));
  must(ch, Req('8').byte('7').name("TA").name("T").name("A").byte('x'));
  const char *texts[] = {"Äpfel", "abc  ", "", "Zahl"};
  for (int i = 1; i <= 4; ++i) {
    Req ins('E');
    ins.name("T").byte('X').i32(i).text(texts[i - 1]).i32(i * 100).i32(-i);
    ins.text(i == 3 ? "" : "2003-07-12").text("10:30:00").text("2003-07-12-10.30.00.000000");
    must(ch, ins.text(i == 2 ? "A$00B" : "").byte('x'));
    must(ch, Req('E').name("U").byte('X').i32(i % 3).text(texts[i % 4]).byte('x'));
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
  for (Session *c : chs) must(*c, Req('1').name("F"));
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
    if (r == EXEC_ANSWER && !exectest::decode_answer(out).ok) abort();
    if (r == EXEC_WOULD_BLOCK && !other.in_transaction()) abort();
    if (r == EXEC_NO_ANSWER && !out.empty()) abort();
    if (ex.stop_requested) break;
  }
  return 0;
}
