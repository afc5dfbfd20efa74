// TABLE files (see tablefile.h).
#include "db/access/tablefile.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "base/data.h"
#include "base/date.h"
#include "base/msg.h"

namespace {

// One attribute entry "NAME,TYP,SIZE,IDX".
struct Attrib {
  std::string name;
  int type = 0;
  int size = 0;
  int idx = 0;
};

// A parsed definition text.
struct Definition {
  int table = 0;
  int size = 0;
  std::vector<Attrib> attribs;
};

// The parts of a definition text after each '|' (the attribute entries).
std::vector<std::string> entries_of(const char *definition) {
  std::vector<std::string> out;
  const char *p = std::strchr(definition, '|');
  while (p) {
    const char *next = std::strchr(p + 1, '|');
    out.emplace_back(p + 1, next ? static_cast<size_t>(next - p - 1) : std::strlen(p + 1));
    p = next;
  }
  return out;
}

// Scans one entry "%[^,],%d,%d,%d". False unless all four values are there.
bool scan_entry(const std::string &entry, Attrib &a) {
  std::vector<char> name(entry.size() + 1);
  if (std::sscanf(entry.c_str(), "%[^,],%d,%d,%d", name.data(), &a.type, &a.size, &a.idx) != 4)
    return false;
  a.name = name.data();
  return true;
}

// Scans the head "TBL,SIZE" of a definition.
bool scan_head(const char *definition, Definition &d) {
  return std::sscanf(definition, "%d,%d", &d.table, &d.size) == 2;
}

bool size_ok(int size) { return size >= STRUCT_MIN_SIZE && size <= STRUCT_MAX_SIZE; }

// Copies n bytes starting at `offset` of data (length `length`) into dst;
// bytes outside the data are taken as zero, so that a damaged or foreign file
// never makes the load read outside what was read from it.
void copy_from(unsigned char *dst, const std::vector<unsigned char> &data, int64_t offset,
               size_t n) {
  for (size_t i = 0; i < n; ++i) {
    int64_t at = offset + static_cast<int64_t>(i);
    dst[i] =
        (at >= 0 && at < static_cast<int64_t>(data.size())) ? data[static_cast<size_t>(at)] : 0;
  }
}

// In key attributes ("_Id") a double quote would end the SQL literal that the
// key is put into: it becomes a blank; an escaped character stays.
void unquote_key(unsigned char *p, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (p[i] == '\\')
      ++i;
    else if (p[i] == '"')
      p[i] = ' ';
  }
}

// The text held in a field of n bytes (up to its zero byte).
std::string field_text(const unsigned char *p, size_t n) {
  const void *zero = std::memchr(p, 0, n);
  size_t len = zero ? static_cast<size_t>(static_cast<const unsigned char *>(zero) - p) : n;
  return std::string(reinterpret_cast<const char *>(p), len);
}

// How reading a section header ended.
enum HeaderResult { HEADER_OK, HEADER_EOF, HEADER_TOO_LONG };

// Reads a header byte by byte up to its zero byte (at most TABLE_HEADER_MAX
// characters). The end of the file, and a byte 255, end it as HEADER_EOF.
HeaderResult read_header(std::FILE *file, std::string &header) {
  header.clear();
  for (;;) {
    int c = std::fgetc(file);
    if (c == EOF || c == 255) return HEADER_EOF;
    if (c == 0) return HEADER_OK;
    if (header.size() >= static_cast<size_t>(TABLE_HEADER_MAX)) return HEADER_TOO_LONG;
    header.push_back(static_cast<char>(c));
  }
}

// False when `file` is a regular file with fewer than `count` records of
// `size` bytes after the current position. Other files (a pipe) tell their
// length only when they are read.
bool file_holds(std::FILE *file, int count, int size) {
  struct stat sb;
  long at = std::ftell(file);
  if (at < 0 || fstat(fileno(file), &sb) != 0 || !S_ISREG(sb.st_mode)) return true;
  return static_cast<int64_t>(sb.st_size) - at >= static_cast<int64_t>(count) * size;
}

// Checks the numbers of a section header before anything is allocated or
// read from them: the record count, and for a section with records the
// record size and every attribute's type and place inside the record.
// Prints the reason with `who` and returns false when the header is damaged.
bool header_ok(int count, const Definition &fd, const char *who) {
  if (count < 0 || count > TABLE_COUNT_MAX) {
    msg_print("(%s) Damaged header: record count %d (max = %d)!\n", who, count, TABLE_COUNT_MAX);
    return false;
  }
  if (count == 0) return true;
  if (!size_ok(fd.size)) {
    msg_print("(%s) Damaged header: record size %d (%d to %d)!\n", who, fd.size, STRUCT_MIN_SIZE,
              STRUCT_MAX_SIZE);
    return false;
  }
  for (const Attrib &a : fd.attribs) {
    if (a.type < DT_FIRST || a.type > DT_LAST) {
      msg_print("(%s) Damaged header: attribute '%s' has the unknown type %d!\n", who,
                a.name.c_str(), a.type);
      return false;
    }
    if (a.idx < 0 || a.size < 0 || static_cast<int64_t>(a.idx) + a.size > fd.size) {
      msg_print("(%s) Damaged header: attribute '%s' (position %d, size %d) lies outside the "
                "record of %d bytes!\n",
                who, a.name.c_str(), a.idx, a.size, fd.size);
      return false;
    }
  }
  return true;
}

// Reads `total` bytes into `data` in pieces, so that memory grows only with
// what the file really holds (a pipe's length is not known beforehand).
// False when the file ends or fails first.
bool read_records(std::FILE *file, size_t total, std::vector<unsigned char> &data) {
  constexpr size_t piece = 1 << 20;
  data.clear();
  while (data.size() < total) {
    size_t n = std::min(piece, total - data.size());
    size_t at = data.size();
    data.resize(at + n);
    if (std::fread(data.data() + at, 1, n, file) != n) return false;
  }
  return true;
}

// A calendar value of a file record that is neither unset (all bytes zero,
// as a record that nothing filled) nor valid: its fields as text, else "".
std::string damaged_value(int type, int size, const unsigned char *p) {
  bool zero = std::all_of(p, p + size, [](unsigned char b) { return b == 0; });
  char text[160] = "";
  if (type == DT_DATE && size == static_cast<int>(sizeof(DATE))) {
    DATE v;
    std::memcpy(&v, p, sizeof v);
    if (!zero && !DATE_IsValid(&v))
      std::snprintf(text, sizeof text, "date (year %d, month %d, day %d)", v.year, v.month, v.day);
  } else if (type == DT_TIME && size == static_cast<int>(sizeof(TIME))) {
    TIME v;
    std::memcpy(&v, p, sizeof v);
    if (!zero && !TIME_IsValid(&v))
      std::snprintf(text, sizeof text, "time (hour %d, minute %d, second %d)", v.hour, v.minute,
                    v.second);
  } else if ((type == DT_DATI || type == DT_DURA) && size == static_cast<int>(sizeof(DATI))) {
    DATI v;
    std::memcpy(&v, p, sizeof v);
    if (!zero && !DATI_IsValid(&v))
      std::snprintf(text, sizeof text,
                    "timestamp (year %d, month %d, day %d, hour %d, minute %d, second %d, "
                    "microsecond %d)",
                    v.year, v.month, v.day, v.hour, v.minute, v.second, v.usec);
  }
  return text;
}

// Checks the calendar values of every record before the first one is
// stored, so that a damaged file is refused as a whole instead of becoming
// rows without their values. Prints the first damaged value with its record
// number (from 1) and returns false.
bool records_ok(const Definition &fd, int count, const std::vector<unsigned char> &data) {
  for (int r = 0; r < count; ++r)
    for (const Attrib &a : fd.attribs) {
      size_t at =
          static_cast<size_t>(r) * static_cast<size_t>(fd.size) + static_cast<size_t>(a.idx);
      std::string bad = damaged_value(a.type, a.size, data.data() + at);
      if (!bad.empty()) {
        msg_print("(TABLE_File_Load) Record %d: attribute '%s' holds no valid %s!\n", r + 1,
                  a.name.c_str(), bad.c_str());
        return false;
      }
    }
  return true;
}

// Closes the BEGIN level of a load or save; a failure ends the program.
void close_level(DBSESSION *session) {
  if (!dbend(session)) db_backend_failure();
}

// Converts the n-th current attribute `cur` of one file record (`rec` at
// `offset` of `data`) into `out`, printing the warnings of the conversions.
void convert_attrib(const Attrib &cur, const std::vector<Attrib> &file_attribs,
                    const std::vector<unsigned char> &data, int64_t offset, unsigned char *out) {
  const Attrib *f = nullptr;
  for (const auto &a : file_attribs)
    if (a.name == cur.name) {
      f = &a;
      break;
    }
  if (!f) {
    msg_print("(TABLE_File_Load) Warning: Attribute '%s' not found!\n", cur.name.c_str());
    return;
  }
  unsigned char *dst = out + cur.idx;
  int64_t src = offset + f->idx;
  if (f->type == cur.type && f->size == cur.size) {
    if (!size_ok(cur.size)) {
      msg_print("(TABLE_File_Load) Warning: Struct not initialized (size %d)???\n", cur.size);
      return;
    }
    copy_from(dst, data, src, static_cast<size_t>(cur.size));
    if (cur.name.find("_Id") != std::string::npos) unquote_key(dst, static_cast<size_t>(cur.size));
    return;
  }
  if (f->type == cur.type) {
    // Timestamps and times that older layouts kept as their text.
    if (f->size == 27 && (cur.type == DT_DATI || cur.type == DT_DURA) &&
        cur.size >= static_cast<int>(sizeof(DATI))) {
      std::vector<unsigned char> text(27);
      copy_from(text.data(), data, src, text.size());
      std::string t = field_text(text.data(), text.size());
      if (DATI_IsValidString(t.c_str())) {
        msg_print("(TABLE_File_Load) Warning: Attribute '%s' has been converted from string to "
                  "ADATI!\n",
                  cur.name.c_str());
        DATI v{};
        DATI_FromString(&v, t.c_str());
        std::memcpy(dst, &v, sizeof v);
        return;
      }
    }
    if (f->size == 9 && cur.type == DT_TIME && cur.size >= static_cast<int>(sizeof(TIME))) {
      std::vector<unsigned char> text(9);
      copy_from(text.data(), data, src, text.size());
      std::string t = field_text(text.data(), text.size());
      if (TIME_IsValidString(t.c_str())) {
        msg_print("(TABLE_File_Load) Warning: Attribute '%s' has been converted from string to "
                  "ATIME!\n",
                  cur.name.c_str());
        TIME v{};
        TIME_FromString(&v, t.c_str());
        std::memcpy(dst, &v, sizeof v);
        return;
      }
    }
    msg_print("(TABLE_File_Load) Warning: Different sizes for attribute '%s' (%d vs. %d)!\n",
              cur.name.c_str(), cur.size, f->size);
    if (size_ok(cur.size)) {
      copy_from(dst, data, src, static_cast<size_t>(cur.size));
      // A text cut short, or read past its old field, still ends in its field.
      if (cur.type == DT_STRING || cur.type == DT_KEY || cur.type == DT_HKEY) dst[cur.size - 1] = 0;
    } else
      msg_print("(TABLE_File_Load) Warning: Struct not initialized (size %d)???\n", cur.size);
    return;
  }
  if (f->type == DT_STRING && cur.type == DT_BINARY && cur.size == f->size + 1 && f->size > 0) {
    std::vector<unsigned char> text(static_cast<size_t>(f->size));
    copy_from(text.data(), data, src, text.size());
    std::string t = field_text(text.data(), text.size());
    // The binary field holds f->size - 1 bytes after its length.
    if (t.size() > static_cast<size_t>(f->size - 1)) t.resize(static_cast<size_t>(f->size - 1));
    uint16_t n = static_cast<uint16_t>(t.size());
    std::memcpy(dst, &n, 2);
    std::memcpy(dst + 2, t.data(), t.size());
    msg_print("(TABLE_File_Load) Warning: Attribute '%s' has been converted from string to "
              "binary!\n",
              cur.name.c_str());
    return;
  }
  msg_print("(TABLE_File_Load) Warning: Different types for attribute '%s' %d vs. %d!\n",
            cur.name.c_str(), cur.type, f->type);
}

} // namespace

int TABLE_File_Save(DBSESSION *session, std::FILE *file, const char *definition, void *record,
                    const TABLE_Select &select, const TABLE_Fetch &fetch) {
  Definition d;
  if (!scan_head(definition, d)) {
    msg_print("(TABLE_File_Save) Syntax error in definition 'TBL,SIZE'!\n");
    return 0;
  }
  if (!dbbegin(session)) db_backend_failure();
  std::vector<std::string> entries = entries_of(definition);
  for (const auto &e : entries) {
    Attrib a;
    if (!scan_entry(e, a)) {
      msg_print("(TABLE_File_Save) Syntax error 'NAME,TYP,SIZE,IDX'!\n");
      close_level(session);
      return 0;
    }
  }
  if (entries.empty()) {
    msg_print("(TABLE_File_Save) No attributes!\n");
    close_level(session);
    return 0;
  }
  // The section is built in memory and written at once, so that a failure
  // on the way leaves no half section in the file.
  std::vector<unsigned char> section;
  std::string head = std::string("00000,") + definition;
  section.reserve(head.size() + 1 + 10000);
  section.insert(section.end(), head.begin(), head.end());
  section.push_back(0);
  if (!select(record, session)) {
    msg_print("(TABLE_File_Save) Error in DB-Select!\n");
    close_level(session);
    return 0;
  }
  int count = 0;
  while (fetch(record, session)) {
    if (++count > TABLE_COUNT_MAX) {
      msg_print("(TABLE_File_Save) Too many records (max = %d)!\n", TABLE_COUNT_MAX);
      close_level(session);
      return 0;
    }
    if (!size_ok(d.size))
      msg_print("(TABLE_File_Save) Warning: Struct not initialized (size %d)???\n", d.size);
    if (d.size > 0) {
      const auto *p = static_cast<const unsigned char *>(record);
      section.insert(section.end(), p, p + d.size);
    }
  }
  char digits[16];
  std::snprintf(digits, sizeof digits, "%05d", count);
  std::memcpy(section.data(), digits, 5);
  section[5] = ',';
  if (std::fwrite(section.data(), 1, section.size(), file) != section.size() ||
      std::fflush(file) != 0) {
    msg_print("(TABLE_File_Save) Error writing file!\n");
    close_level(session);
    return 0;
  }
  close_level(session);
  return 1;
}

int TABLE_File_Load(DBSESSION *session, std::FILE *file, const char *definition,
                    const TABLE_Init &init, const TABLE_Insert &insert) {
  std::string header;
  int count = 0;
  Definition fd, cd;
  for (;;) {
    HeaderResult hr = read_header(file, header);
    if (hr == HEADER_EOF) {
      msg_print("(TABLE_File_Load) Unexpected end of file!\n");
      return 0;
    }
    if (hr == HEADER_TOO_LONG) {
      msg_print("(TABLE_File_Load) Definition too long (max = %d)!\n", TABLE_HEADER_MAX);
      return 0;
    }
    if (std::sscanf(header.c_str(), "%d,%d,%d", &count, &fd.table, &fd.size) != 3) {
      msg_print("(TABLE_File_Load) Syntax error in definition 'TBL,SIZE'!\n");
      return 0;
    }
    fd.attribs.clear();
    for (const auto &e : entries_of(header.c_str())) {
      if (fd.attribs.size() >= static_cast<size_t>(TABLE_ATTRIBS_MAX)) {
        msg_print("(TABLE_File_Load) Too many attribs (max = %d!\n", TABLE_ATTRIBS_MAX);
        return 0;
      }
      Attrib a;
      if (!scan_entry(e, a)) {
        msg_print("(TABLE_File_Load) Syntax error 'NAME,TYP,SIZE,IDX'!\n");
        return 0;
      }
      fd.attribs.push_back(a);
    }
    if (!scan_head(definition, cd)) {
      msg_print("(TABLE_File_Load) Syntax error in definition 'TBL,SIZE'!\n");
      return 0;
    }
    if (cd.table == fd.table) break;
    msg_print("(TABLE_File_Load) Table %d not found (actual table is %d)!\n", cd.table, fd.table);
  }
  if (!header_ok(count, fd, "TABLE_File_Load")) return 0;
  if (count == 0) return 1;
  std::vector<unsigned char> data;
  if (!file_holds(file, count, fd.size) ||
      !read_records(file, static_cast<size_t>(count) * static_cast<size_t>(fd.size), data)) {
    msg_print("(TABLE_File_Load) Error reading file!\n");
    return 0;
  }
  if (!records_ok(fd, count, data)) return 0;
  if (cd.size <= 0) {
    msg_print("(TABLE_File_Load) Syntax error in definition 'TBL,SIZE'!\n");
    return 0;
  }
  std::vector<unsigned char> record(static_cast<size_t>(cd.size));
  init(record.data());
  if (!dbbegin(session)) db_backend_failure();
  for (const auto &e : entries_of(definition)) {
    Attrib a;
    // An entry outside the record would write beyond it.
    if (!scan_entry(e, a) || a.idx < 0 || a.size < 0 ||
        static_cast<int64_t>(a.idx) + a.size > cd.size) {
      msg_print("(TABLE_File_Load) Syntax error 'NAME,TYP,SIZE,IDX'!\n");
      close_level(session);
      return 0;
    }
    cd.attribs.push_back(a);
  }
  for (int r = 0; r < count; ++r) {
    int64_t offset = static_cast<int64_t>(r) * fd.size;
    for (const auto &cur : cd.attribs) convert_attrib(cur, fd.attribs, data, offset, record.data());
    if (!insert(record.data(), session)) {
      msg_print("(TABLE_File_Load) Error in table-insert!\n");
      close_level(session);
      return 0;
    }
  }
  close_level(session);
  return 1;
}

int TABLE_File_Skip(std::FILE *file, const char *definition) {
  std::string header;
  int count = 0;
  Definition fd, cd;
  for (;;) {
    HeaderResult hr = read_header(file, header);
    if (hr == HEADER_EOF) {
      msg_print("(TABLE_File_Skip) Unexpected end of file!\n");
      return 0;
    }
    if (hr == HEADER_TOO_LONG) {
      msg_print("(TABLE_File_Skip) Definition too long (max = %d)!\n", TABLE_HEADER_MAX);
      return 0;
    }
    if (std::sscanf(header.c_str(), "%d,%d,%d", &count, &fd.table, &fd.size) != 3 ||
        !scan_head(definition, cd)) {
      msg_print("(TABLE_File_Skip) Syntax error in definition 'TBL,SIZE'!\n");
      return 0;
    }
    if (cd.table == fd.table) break;
    msg_print("(TABLE_File_Skip) Table %d not found (actual table %d)!\n", cd.table, fd.table);
  }
  if (!header_ok(count, fd, "TABLE_File_Skip")) return 0;
  long skip = static_cast<long>(count) * static_cast<long>(fd.size);
  if (!file_holds(file, count, fd.size) || std::fseek(file, skip, SEEK_CUR) != 0) {
    msg_print("(TABLE_File_Skip) Unexpected end of file!\n");
    return 0;
  }
  return 1;
}

int Get_TABLE_Attrib_Type(const char *definition, int n, int *size) {
  std::vector<std::string> entries = entries_of(definition);
  if (n < 0 || static_cast<size_t>(n) >= entries.size()) return 0;
  Attrib a;
  if (!scan_entry(entries[static_cast<size_t>(n)], a)) {
    msg_print("(Get_TABLE_Attrib_Type) Syntax error 'NAME,TYP,SIZE,IDX'!\n");
    return -1;
  }
  if (size) *size = a.size > 0 ? a.size - 1 : a.size;
  return a.type;
}

int Set_TABLE_Attrib_Value(const char *definition, int n, void *record, const void *value) {
  std::vector<std::string> entries = entries_of(definition);
  if (n < 0 || static_cast<size_t>(n) >= entries.size()) return 0;
  Attrib a;
  Definition d;
  if (!scan_entry(entries[static_cast<size_t>(n)], a) || a.idx < 0 || a.size < 0 ||
      (scan_head(definition, d) && static_cast<int64_t>(a.idx) + a.size > d.size)) {
    msg_print("(Set_TABLE_Attrib_Value) Syntax error 'NAME,TYP,SIZE,IDX'!\n");
    return 0;
  }
  std::memcpy(static_cast<unsigned char *>(record) + a.idx, value, static_cast<size_t>(a.size));
  return 1;
}
