// Named kernel objects of the TAVRIN protocol on Linux: their names and the
// shared sections every object lives in.
//
// Every named object is a POSIX shared-memory object "/<ns><Name>", where
// <ns> is the value of the environment variable TAVRIN_NAMESPACE at the time
// the object is opened, or when it is unset the user's own namespace
// "u<uid>_", so that several servers can run side by side and users do not
// meet each other's objects by default. Who may use an object is decided by
// its owner, group and mode: a server creates its objects exclusively for its
// user (0600) or for its user and one group (0660) and uses no object that
// another user could have made or could read (server_may_use); a client uses
// only objects of its own user, of root, or of one of its groups with mode
// 0660 (client_may_trust). A Section maps such an object; events, the mutex and
// the message areas are built on it (event.h, mutex.h). A Section can also
// carry the liveness lock of a server: the server holds an exclusive flock on
// its object for its whole life, so a leftover of a dead server can be told
// from a live one. What lies in the bytes is left to the users.
#pragma once

#include <cstddef>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>

namespace ipc {

// Outcome of every blocking wait of this library.
enum class WaitResult {
  Signalled,    // the object was acquired or the event consumed
  Abandoned,    // mutex acquired, but its last owner died holding it
  Timeout,      // the time-out ran out
  ProcessEnded, // the watched process ended first
  Failed,       // a system call failed (errno tells why)
};

// "/" + namespace + name: TAVRIN_NAMESPACE if set, else "u<uid>_".
std::string object_name(const char *name);
// The namespace alone (object_name("") without its "/").
std::string namespace_name();

// Who may use the objects a server creates: its user alone (mode 0600), or
// with group >= 0 its user and that group (mode 0660).
struct Access {
  gid_t group = static_cast<gid_t>(-1);
  bool shared() const { return group != static_cast<gid_t>(-1); }
  mode_t mode() const { return shared() ? 0660 : 0600; }
};

// The status of the named object (also of one this process cannot open).
// False with errno (ENOENT when there is none).
bool stat_object(const char *name, struct stat *st);
// "/<ns><name> (owner NAME, group NAME, mode 0NNN)" for messages.
std::string describe_object(const char *name, const struct stat &st);
// May a server with `access` use (or replace) this object of its namespace?
// Only when its user owns it, with no wider mode than access.mode() and, for
// a shared server, the server's group.
bool server_may_use(const struct stat &st, const Access &access);
// May a client trust this object? When it is owned by the client's user or by
// root, or belongs to one of the client's groups with mode 0660.
bool client_may_trust(const struct stat &st);

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
  // Creates a new object exclusively (EEXIST if the name is taken) with the
  // mode and group of `access`, `size` zero bytes long, and maps it.
  bool create_new(const char *name, size_t size, const Access &access);
  // Opens an existing object only (ENOENT if there is none); it must already
  // be at least `size` bytes long (EINVAL otherwise).
  bool open_existing(const char *name, size_t size);
  // The status of the open object. False with errno.
  bool stat(struct stat *st) const;

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
