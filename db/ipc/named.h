// Named kernel objects of the TAVRIN protocol on Linux: their names and the
// shared sections every object lives in.
//
// Every named object is a POSIX shared-memory object "/<ns><Name>" (mode
// 0600), where <ns> is the value of the environment variable TAVRIN_NAMESPACE
// at the time the object is opened (empty when unset), so that several servers
// can run side by side. A Section maps such an object; events, the mutex and
// the message areas are built on it (event.h, mutex.h). A Section can also
// carry the liveness lock of a server: the server holds an exclusive flock on
// its object for its whole life, so a leftover of a dead server can be told
// from a live one. What lies in the bytes is left to the users.
#pragma once

#include <cstddef>
#include <string>

namespace ipc {

// Outcome of every blocking wait of this library.
enum class WaitResult {
  Signalled,    // the object was acquired or the event consumed
  Abandoned,    // mutex acquired, but its last owner died holding it
  Timeout,      // the time-out ran out
  ProcessEnded, // the watched process ended first
  Failed,       // a system call failed (errno tells why)
};

// "/" + TAVRIN_NAMESPACE + name.
std::string object_name(const char *name);

// Removes the named object of the current namespace. Returns true if it was
// removed, false if it did not exist or could not be removed.
bool unlink_object(const char *name);

// One mapped shared-memory object. Move-only; unmaps and closes on
// destruction (the object itself stays until unlinked).
class Section {
public:
  Section() = default;
  ~Section();
  Section(Section &&other) noexcept;
  Section &operator=(Section &&other) noexcept;
  Section(const Section &) = delete;
  Section &operator=(const Section &) = delete;

  // Creates the object or opens the existing one, grows it to at least `size`
  // bytes (new bytes are zero) and maps `size` bytes. Returns false with errno
  // set and the section closed on failure.
  bool create_or_open(const char *name, size_t size);
  // Opens an existing object only (ENOENT if there is none); it must already
  // be at least `size` bytes long (EINVAL otherwise).
  bool open_existing(const char *name, size_t size);

  // Takes the exclusive liveness lock without blocking; retries for up to
  // wait_ms while another holder might just be testing it. False (errno
  // EWOULDBLOCK) when a live process holds it.
  bool lock_exclusive(int wait_ms = 200);
  // True when some live process holds the exclusive lock on this object,
  // i.e. a shared lock cannot be taken. Leaves no lock behind.
  bool held_by_live_owner() const;

  void close();
  bool is_open() const { return addr_ != nullptr; }
  void *data() const { return addr_; }
  size_t size() const { return size_; }

private:
  bool map(int fd, size_t size);
  int fd_ = -1;
  void *addr_ = nullptr;
  size_t size_ = 0;
};

} // namespace ipc
