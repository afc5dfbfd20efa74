// Names and sections of the TAVRIN kernel objects (see named.h).
#include "db/ipc/named.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <utility>

namespace ipc {

std::string object_name(const char *name) {
  const char *ns = std::getenv("TAVRIN_NAMESPACE");
  std::string s = "/";
  if (ns) s += ns;
  s += name;
  return s;
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
