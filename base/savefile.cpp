// Writing a file through a temporary file and a rename (see savefile.h).
#include "base/savefile.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

struct SAVEFILE {
  std::string target; // the file that is replaced
  std::string temp;   // the new contents; empty when written directly
  std::FILE *stream = nullptr;
};

namespace {

// The file a path stands for: a symbolic link's target when it resolves.
std::string resolve(const char *path) {
  struct stat sb;
  if (lstat(path, &sb) == 0 && S_ISLNK(sb.st_mode)) {
    if (char *real = realpath(path, nullptr)) {
      std::string r = real;
      std::free(real);
      return r;
    }
  }
  return path;
}

// Creates a new, empty file next to `target` with a name no one else uses
// (".<name>.<random>", hidden); the umask applies as for any new file.
// Returns its descriptor, or -1 with errno set.
int create_temp(const std::string &target, std::string &temp) {
  size_t slash = target.rfind('/');
  std::string dir = slash == std::string::npos ? "" : target.substr(0, slash + 1);
  std::string name = slash == std::string::npos ? target : target.substr(slash + 1);
  if (name.size() > 200) name.resize(200); // room for the prefix and the suffix
  static const char digits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
  for (int attempt = 0; attempt < 100; ++attempt) {
    unsigned char bytes[8];
    if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
      if (errno == EINTR) continue;
      return -1;
    }
    std::string suffix;
    for (unsigned char b : bytes) suffix += digits[b % 36];
    temp = dir + "." + name + "." + suffix;
    int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  errno = EEXIST;
  return -1;
}

// Closes the stream and removes the temporary file, keeping errno.
void drop(SAVEFILE *f) {
  int saved = errno;
  if (f->stream) std::fclose(f->stream);
  if (!f->temp.empty()) unlink(f->temp.c_str());
  delete f;
  errno = saved;
}

} // namespace

SAVEFILE *SAVEFILE_Open(const char *path) {
  auto f = std::make_unique<SAVEFILE>();
  f->target = resolve(path);
  struct stat sb;
  bool exists = stat(f->target.c_str(), &sb) == 0;
  if (exists && !S_ISREG(sb.st_mode)) {
    // A device or a FIFO cannot be replaced: it is written as it is.
    f->stream = std::fopen(f->target.c_str(), "wb");
    return f->stream ? f.release() : nullptr;
  }
  if (exists && access(f->target.c_str(), W_OK) != 0) return nullptr; // as fopen would refuse
  int fd = create_temp(f->target, f->temp);
  if (fd < 0) {
    f->temp.clear();
    return nullptr;
  }
  // The replacement keeps the permissions of the file it replaces.
  if (exists) fchmod(fd, sb.st_mode & 07777);
  f->stream = fdopen(fd, "wb");
  if (!f->stream) {
    int saved = errno;
    close(fd);
    unlink(f->temp.c_str());
    errno = saved;
    return nullptr;
  }
  return f.release();
}

std::FILE *SAVEFILE_Stream(SAVEFILE *file) { return file->stream; }

int SAVEFILE_Commit(SAVEFILE *file) {
  std::FILE *s = file->stream;
  bool ok = std::fflush(s) == 0 && !std::ferror(s);
  if (ok && !file->temp.empty()) ok = fsync(fileno(s)) == 0;
  if (!ok) {
    drop(file);
    return 0;
  }
  file->stream = nullptr;
  if (std::fclose(s) != 0 ||
      (!file->temp.empty() && rename(file->temp.c_str(), file->target.c_str()) != 0)) {
    drop(file);
    return 0;
  }
  delete file;
  return 1;
}

void SAVEFILE_Abort(SAVEFILE *file) {
  if (file) drop(file);
}
