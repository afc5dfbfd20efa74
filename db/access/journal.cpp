// The repair journal's files and line format (see journal.h).
#include "db/access/journal.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <memory>

namespace {

// Closes a descriptor when it goes out of scope.
struct Fd {
  int fd = -1;
  explicit Fd(int f) : fd(f) {}
  Fd(const Fd &) = delete;
  Fd &operator=(const Fd &) = delete;
  ~Fd() {
    if (fd >= 0) ::close(fd);
  }
};

std::string errno_text(const std::string &what, const std::string &path) {
  return what + " '" + path + "': " + std::strerror(errno);
}

std::string user_name() {
  if (const passwd *pw = getpwuid(getuid()); pw && pw->pw_name) return pw->pw_name;
  return "uid" + std::to_string(getuid());
}

std::string utc_now() {
  std::time_t t = std::time(nullptr);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
  return buf;
}

// A token no other entry has: microseconds since the epoch, process and a
// counter of this process.
std::string new_token() {
  static unsigned counter = 0;
  auto us = std::chrono::duration_cast<std::chrono::microseconds>(
                std::chrono::system_clock::now().time_since_epoch())
                .count();
  return std::to_string(us) + "-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
}

// Makes the journal folder (and the folders above it) and closes it to
// everyone but its owner. False with the reason in *why.
bool make_folder(const std::string &folder, std::string *why) {
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::path parent = fs::path(folder).parent_path();
  fs::create_directories(parent, ec);
  if (ec) {
    *why = "cannot create folder '" + parent.string() + "': " + ec.message();
    return false;
  }
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    *why = errno_text("cannot create folder", folder);
    return false;
  }
  struct stat st {};
  if (::stat(folder.c_str(), &st) == 0 && st.st_uid == getuid() && (st.st_mode & 077))
    ::chmod(folder.c_str(), 0700);
  return true;
}

bool write_all(int fd, const std::string &text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Appends `text` to the file under an exclusive lock, after a line feed when
// the file's last line was cut off (so that the cut line stays one broken
// line). Syncs the file when `sync`. False with the reason in *why.
bool append(const std::string &path, const std::string &text, bool sync, std::string *why) {
  if (path.empty() || path[0] != '/') {
    *why = "no journal folder: neither XDG_DATA_HOME nor a home folder is known";
    return false;
  }
  std::string folder = std::filesystem::path(path).parent_path().string();
  if (!make_folder(folder, why)) return false;
  Fd f(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
  if (f.fd < 0) {
    *why = errno_text("cannot open", path);
    return false;
  }
  struct stat st {};
  if (::fstat(f.fd, &st) == 0 && (st.st_mode & 077)) ::fchmod(f.fd, 0600);
  while (::flock(f.fd, LOCK_EX) != 0)
    if (errno != EINTR) {
      *why = errno_text("cannot lock", path);
      return false;
    }
  std::string out;
  off_t size = ::lseek(f.fd, 0, SEEK_END);
  if (size > 0) {
    Fd r(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    char last = '\n';
    if (r.fd < 0 || ::pread(r.fd, &last, 1, size - 1) != 1 || last != '\n') out = "\n";
  }
  out += text;
  if (!write_all(f.fd, out)) {
    *why = errno_text("cannot write", path);
    return false;
  }
  if (sync && ::fdatasync(f.fd) != 0) {
    *why = errno_text("cannot sync", path);
    return false;
  }
  // A new file's name must reach the disk as well as its content.
  if (sync && size == 0) {
    Fd d(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (d.fd >= 0) ::fsync(d.fd);
  }
  return true;
}

void add_field(std::string *line, const JrnValue &v) {
  *line += '\t';
  *line += jrn_encode_field(v);
}

std::vector<std::string> split_tabs(std::string_view line) {
  std::vector<std::string> out;
  size_t start = 0;
  for (;;) {
    size_t tab = line.find('\t', start);
    out.emplace_back(line.substr(start, tab == std::string_view::npos ? line.npos : tab - start));
    if (tab == std::string_view::npos) return out;
    start = tab + 1;
  }
}

bool kind_from(const std::string &word, JrnKind *kind) {
  for (JrnKind k : {JRN_UPDATE, JRN_DELETE, JRN_INSERT})
    if (word == jrn_kind_name(k)) {
      *kind = k;
      return true;
    }
  return false;
}

} // namespace

std::string jrn_folder() {
  const char *xdg = std::getenv("XDG_DATA_HOME");
  std::string base;
  if (xdg && xdg[0] == '/') {
    base = xdg;
  } else {
    const char *home = std::getenv("HOME");
    if (!home || !*home) {
      const passwd *pw = getpwuid(getuid());
      home = pw ? pw->pw_dir : nullptr;
    }
    if (!home || !*home) return "";
    base = std::string(home) + "/.local/share";
  }
  return base + "/zentiq/journal";
}

std::string jrn_path(const std::string &ns, const std::string &database) {
  std::string folder = jrn_folder();
  if (folder.empty()) return "";
  std::string name = database + "@";
  for (unsigned char c : ns) {
    if (std::isalnum(c) || c == '_') {
      name += static_cast<char>(c);
    } else {
      char hex[4];
      std::snprintf(hex, sizeof hex, "%%%02X", c);
      name += hex;
    }
  }
  return folder + "/" + name + ".jrn";
}

std::string jrn_encode_field(const JrnValue &value) {
  if (!value) return "\\N";
  std::string out;
  out.reserve(value->size());
  for (unsigned char c : *value) {
    switch (c) {
    case '\\':
      out += "\\\\";
      break;
    case '\t':
      out += "\\t";
      break;
    case '\n':
      out += "\\n";
      break;
    case '\r':
      out += "\\r";
      break;
    default:
      if (c < 0x20 || c == 0x7f) {
        char hex[5];
        std::snprintf(hex, sizeof hex, "\\x%02X", c);
        out += hex;
      } else {
        out += static_cast<char>(c);
      }
    }
  }
  return out;
}

bool jrn_decode_field(std::string_view field, JrnValue *value) {
  if (field == "\\N") {
    value->reset();
    return true;
  }
  std::string out;
  out.reserve(field.size());
  for (size_t i = 0; i < field.size(); ++i) {
    char c = field[i];
    if (c == '\t' || c == '\n') return false;
    if (c != '\\') {
      out += c;
      continue;
    }
    if (++i >= field.size()) return false;
    switch (field[i]) {
    case '\\':
      out += '\\';
      break;
    case 't':
      out += '\t';
      break;
    case 'n':
      out += '\n';
      break;
    case 'r':
      out += '\r';
      break;
    case 'x': {
      if (i + 2 >= field.size() || !std::isxdigit(static_cast<unsigned char>(field[i + 1])) ||
          !std::isxdigit(static_cast<unsigned char>(field[i + 2])))
        return false;
      char hex[3] = {field[i + 1], field[i + 2], 0};
      long v = std::strtol(hex, nullptr, 16);
      out += static_cast<char>(v);
      i += 2;
      break;
    }
    default:
      return false;
    }
  }
  *value = std::move(out);
  return true;
}

const char *jrn_kind_name(JrnKind kind) {
  return kind == JRN_DELETE ? "delete" : kind == JRN_INSERT ? "insert" : "update";
}

const char *jrn_status_name(JrnStatus status) {
  return status == JRN_COMMITTED ? "committed" : status == JRN_ABORTED ? "aborted" : "unknown";
}

std::string jrn_format(const JrnEntry &e) {
  const std::string tok = jrn_encode_field(e.token);
  std::string out = "E\t" + tok;
  for (const std::string *f : {&e.time, &e.user, &e.ns, &e.database, &e.table, &e.key})
    add_field(&out, *f);
  add_field(&out, std::string(jrn_kind_name(e.kind)));
  add_field(&out, e.undoes.empty() ? std::string("-") : e.undoes);
  out += "\nC\t" + tok;
  for (size_t i = 0; i < e.columns.size(); ++i) {
    add_field(&out, e.columns[i]);
    add_field(&out, std::to_string(i < e.types.size() ? e.types[i] : 0));
  }
  out += "\n";
  auto row = [&](char tag, const JrnRow &r) {
    out += tag;
    out += "\t" + tok;
    for (const JrnValue &v : r) add_field(&out, v);
    out += "\n";
  };
  size_t n = std::max(e.before.size(), e.after.size());
  for (size_t i = 0; i < n; ++i) {
    if (i < e.before.size()) row('B', e.before[i]);
    if (i < e.after.size()) row('A', e.after[i]);
  }
  out += "Z\t" + tok + "\t" + std::to_string(n) + "\n";
  return out;
}

std::vector<JrnEntry> jrn_parse(std::string_view text, int *skipped) {
  std::vector<JrnEntry> done;
  std::map<std::string, JrnEntry> open; // entries whose Z line has not come yet
  std::map<std::string, JrnStatus> status;
  int bad = 0;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t lf = text.find('\n', pos);
    if (lf == std::string_view::npos) { // a last line cut off by a crash
      ++bad;
      break;
    }
    std::vector<std::string> raw = split_tabs(text.substr(pos, lf - pos));
    pos = lf + 1;
    char tag = raw.size() >= 2 && raw[0].size() == 1 ? raw[0][0] : '?';
    // Row lines hold values (nulls too); every other field is a text.
    JrnRow row;
    std::vector<std::string> f;
    bool ok = tag != '?';
    for (size_t i = 1; ok && i < raw.size(); ++i) {
      JrnValue v;
      ok = jrn_decode_field(raw[i], &v) && (v || ((tag == 'B' || tag == 'A') && i >= 2));
      if (!ok) break;
      if (i >= 2 && (tag == 'B' || tag == 'A'))
        row.push_back(std::move(v));
      else
        f.push_back(std::move(*v));
    }
    if (!ok) {
      ++bad;
      continue;
    }
    if (tag == 'E' && f.size() == 9) {
      JrnEntry e;
      e.token = f[0];
      e.time = f[1], e.user = f[2], e.ns = f[3], e.database = f[4], e.table = f[5], e.key = f[6];
      e.undoes = f[8] == "-" ? "" : f[8];
      if (kind_from(f[7], &e.kind)) {
        open[e.token] = std::move(e);
        continue;
      }
    } else if (tag == 'S' && f.size() == 2 && (f[1] == "committed" || f[1] == "aborted")) {
      status[f[0]] = f[1] == "committed" ? JRN_COMMITTED : JRN_ABORTED;
      continue;
    } else if (auto it = open.find(f[0]); it != open.end()) {
      JrnEntry &e = it->second;
      if (tag == 'C' && f.size() % 2 == 1 && e.columns.empty()) {
        for (size_t i = 1; i + 1 < f.size(); i += 2) {
          e.columns.push_back(f[i]);
          e.types.push_back(std::atoi(f[i + 1].c_str()));
        }
        continue;
      }
      if ((tag == 'B' || tag == 'A') && row.size() == e.columns.size()) {
        (tag == 'B' ? e.before : e.after).push_back(std::move(row));
        continue;
      }
      if (tag == 'Z' && f.size() == 2) {
        size_t rows = static_cast<size_t>(std::atol(f[1].c_str()));
        bool whole = e.kind == JRN_UPDATE   ? e.before.size() == rows && e.after.size() == rows
                     : e.kind == JRN_DELETE ? e.before.size() == rows && e.after.empty()
                                            : e.after.size() == rows && e.before.empty();
        if (whole) done.push_back(std::move(e));
        open.erase(it);
        if (whole) continue;
      }
    }
    ++bad;
  }
  bad += static_cast<int>(open.size()); // entries cut off before their end
  std::map<std::string, size_t> by_token;
  for (size_t i = 0; i < done.size(); ++i) {
    done[i].number = static_cast<int>(i) + 1;
    auto s = status.find(done[i].token);
    if (s != status.end()) done[i].status = s->second;
    by_token[done[i].token] = i;
  }
  for (const JrnEntry &e : done) {
    auto target = by_token.find(e.undoes);
    if (!e.undoes.empty() && target != by_token.end() && e.status == JRN_COMMITTED)
      done[target->second].undone_by = e.number;
  }
  if (skipped) *skipped = bad;
  return done;
}

int jrn_append(const std::string &path, JrnEntry *entry, std::string *why) {
  if (entry->token.empty()) entry->token = new_token();
  if (entry->time.empty()) entry->time = utc_now();
  if (entry->user.empty()) entry->user = user_name();
  return append(path, jrn_format(*entry), true, why) ? 1 : 0;
}

int jrn_mark(const std::string &path, const std::string &token, JrnStatus status,
             std::string *why) {
  std::string line = "S\t" + jrn_encode_field(token) + "\t" + jrn_status_name(status) + "\n";
  return append(path, line, false, why) ? 1 : 0;
}

int jrn_read(const std::string &path, std::vector<JrnEntry> *entries, std::string *why) {
  entries->clear();
  Fd f(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (f.fd < 0) {
    if (errno == ENOENT) return 1;
    *why = errno_text("cannot open", path);
    return 0;
  }
  std::string text;
  char buf[1 << 16];
  for (;;) {
    ssize_t n = ::read(f.fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      *why = errno_text("cannot read", path);
      return 0;
    }
    if (n == 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  *entries = jrn_parse(text);
  return 1;
}
