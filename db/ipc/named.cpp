// Names and sections of the TAVRIN kernel objects (see named.h).
#include "db/ipc/named.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace ipc {

std::string namespace_name() {
  const char *ns = std::getenv("TAVRIN_NAMESPACE");
  if (ns) return ns;
  return "u" + std::to_string(geteuid()) + "_";
}

std::string object_name(const char *name) { return "/" + namespace_name() + name; }

bool stat_object(const char *name, struct stat *st) {
  // POSIX shared-memory objects are the files of /dev/shm on Linux.
  return ::stat(("/dev/shm" + object_name(name)).c_str(), st) == 0;
}

std::string describe_object(const char *name, const struct stat &st) {
  const struct passwd *pw = getpwuid(st.st_uid);
  const struct group *gr = getgrgid(st.st_gid);
  char mode[8];
  std::snprintf(mode, sizeof mode, "%04o", unsigned(st.st_mode & 07777));
  return object_name(name) + " (owner " +
         (pw ? std::string(pw->pw_name) : "uid " + std::to_string(st.st_uid)) + ", group " +
         (gr ? std::string(gr->gr_name) : "gid " + std::to_string(st.st_gid)) + ", mode " + mode +
         ")";
}

bool server_may_use(const struct stat &st, const Access &access) {
  if (st.st_uid != geteuid()) return false;
  if ((st.st_mode & 07777 & ~access.mode()) != 0) return false;
  return !access.shared() || st.st_gid == access.group;
}

bool client_may_trust(const struct stat &st) {
  if (st.st_uid == geteuid() || st.st_uid == 0) return true;
  if ((st.st_mode & 0777) != 0660) return false;
  if (st.st_gid == getegid()) return true;
  int n = getgroups(0, nullptr);
  if (n <= 0) return false;
  std::vector<gid_t> groups(static_cast<size_t>(n));
  n = getgroups(n, groups.data());
  for (int i = 0; i < n; ++i)
    if (groups[size_t(i)] == st.st_gid) return true;
  return false;
}

bool unlink_object(const char *name) { return shm_unlink(object_name(name).c_str()) == 0; }

Section::~Section() { close(); }

Section::Section(Section &&other) noexcept
    : fd_(std::exchange(other.fd_, -1)), addr_(std::exchange(other.addr_, nullptr)),
      size_(std::exchange(other.size_, 0)) {}

Section &Section::operator=(Section &&other) noexcept {
  if (this != &other) {
    close();
    fd_ = std::exchange(other.fd_, -1);
    addr_ = std::exchange(other.addr_, nullptr);
    size_ = std::exchange(other.size_, 0);
  }
  return *this;
}

// Maps `size` bytes of fd and takes ownership of fd. On failure closes fd
// and keeps errno.
bool Section::map(int fd, size_t size) {
  void *p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (p == MAP_FAILED) {
    int e = errno;
    ::close(fd);
    errno = e;
    return false;
  }
  fd_ = fd;
  addr_ = p;
  size_ = size;
  return true;
}

bool Section::create_or_open(const char *name, size_t size) {
  close();
  int fd = shm_open(object_name(name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  // Growing is idempotent: whoever comes first (creator or opener) makes the
  // object long enough, so nobody maps bytes that are not there yet.
  struct stat st;
  if (fstat(fd, &st) != 0 ||
      (static_cast<size_t>(st.st_size) < size && ftruncate(fd, static_cast<off_t>(size)) != 0)) {
    int e = errno;
    ::close(fd);
    errno = e;
    return false;
  }
  return map(fd, size);
}

bool Section::create_new(const char *name, size_t size, const Access &access) {
  close();
  std::string path = object_name(name);
  int fd = shm_open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  // The mode is set explicitly (the umask may have taken bits away); the
  // group before the wider mode, so the object is never open to the
  // creator's primary group.
  bool ok = (!access.shared() || fchown(fd, static_cast<uid_t>(-1), access.group) == 0) &&
            fchmod(fd, access.mode()) == 0 && ftruncate(fd, static_cast<off_t>(size)) == 0;
  if (!ok) {
    int e = errno;
    ::close(fd);
    shm_unlink(path.c_str());
    errno = e;
    return false;
  }
  return map(fd, size);
}

bool Section::stat(struct stat *st) const {
  if (fd_ < 0) {
    errno = EBADF;
    return false;
  }
  return fstat(fd_, st) == 0;
}

bool Section::open_existing(const char *name, size_t size) {
  close();
  int fd = shm_open(object_name(name).c_str(), O_RDWR | O_CLOEXEC, 0);
  if (fd < 0) return false;
  struct stat st;
  if (fstat(fd, &st) != 0 || static_cast<size_t>(st.st_size) < size) {
    ::close(fd);
    errno = EINVAL;
    return false;
  }
  return map(fd, size);
}

bool Section::lock_exclusive(int wait_ms) {
  if (fd_ < 0) {
    errno = EBADF;
    return false;
  }
  // A client testing for a leftover holds a shared lock for an instant; try a
  // few times before concluding that another owner is alive.
  for (int waited = 0;; ++waited) {
    if (flock(fd_, LOCK_EX | LOCK_NB) == 0) return true;
    if (errno != EWOULDBLOCK || waited >= wait_ms) return false;
    struct timespec ts = {0, 1000000};
    nanosleep(&ts, nullptr);
  }
}

bool Section::held_by_live_owner() const {
  if (fd_ < 0) return false;
  // A second open file description: our own fd might hold the lock itself.
  std::string path = "/proc/self/fd/" + std::to_string(fd_);
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  bool live = flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  ::close(fd); // drops the shared lock if it was taken
  return live;
}

void Section::close() {
  if (addr_) munmap(addr_, size_);
  if (fd_ >= 0) ::close(fd_);
  addr_ = nullptr;
  fd_ = -1;
  size_ = 0;
}

} // namespace ipc
