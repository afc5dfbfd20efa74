// Child processes (see process.h). The pipes, the worker threads, the queue of
// started children and the running flag are process-wide: they are created
// once and live until the program ends, as the readers block on their pipes
// for ever. The shared state is allocated once and never freed, so that no
// static destructor runs while a worker still uses it.
#include "forms/process.h"

#include "forms/console.h"

#include <QCoreApplication>
#include <QEvent>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <mutex>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char **environ;

namespace {

constexpr size_t kPiece = 5000; // the readers' largest piece

int stdio_text_type() {
  static const int type = QEvent::registerEventType();
  return type;
}

// A piece of a child's output for the command window.
class StdioTextEvent : public QEvent {
public:
  StdioTextEvent(int channel, std::string text)
      : QEvent(static_cast<QEvent::Type>(stdio_text_type())), channel(channel),
        text(std::move(text)) {}
  int channel;
  std::string text;
};

struct Shared {
  std::mutex mutex;
  std::condition_variable started; // the start event
  std::deque<pid_t> children;      // started, not yet watched
  std::atomic<int> running{0};
  QObject *receiver = nullptr; // GUI-thread receiver; guarded by mutex
  bool set_up = false;
  int in[2] = {-1, -1}, out[2] = {-1, -1}, err[2] = {-1, -1};
};

Shared &shared() {
  static Shared *s = new Shared;
  return *s;
}

// Lives on the GUI thread, a child of the application object: shows the
// readers' texts and clears the running flag on "WMSTDIOCOMMAND".
class Receiver : public QObject {
public:
  explicit Receiver(QObject *parent) : QObject(parent) {}
  ~Receiver() override {
    std::lock_guard<std::mutex> lock(shared().mutex);
    if (shared().receiver == this) shared().receiver = nullptr;
  }

protected:
  bool event(QEvent *e) override {
    if (e->type() == stdio_text_type()) {
      auto *t = static_cast<StdioTextEvent *>(e);
      fl_send_stdio_text(t->channel, t->text.c_str());
      return true;
    }
    if (e->type() == fl_stdio_command_event_type()) {
      shared().running = 0;
      return true;
    }
    return QObject::event(e);
  }
};

void post(QEvent *e) {
  std::lock_guard<std::mutex> lock(shared().mutex);
  if (shared().receiver)
    QCoreApplication::postEvent(shared().receiver, e);
  else
    delete e;
}

void reader(int fd, int channel) {
  std::string buf(kPiece, '\0');
  for (;;) {
    ssize_t n = ::read(fd, buf.data(), kPiece);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      // The program keeps the write end open, so this only happens when the
      // pipe is gone; wait instead of spinning.
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      continue;
    }
    post(new StdioTextEvent(channel, std::string(buf.data(), static_cast<size_t>(n))));
  }
}

void watcher() {
  Shared &s = shared();
  for (;;) {
    pid_t pid;
    {
      std::unique_lock<std::mutex> lock(s.mutex);
      s.started.wait(lock, [&s] { return !s.children.empty(); });
      pid = s.children.front();
      s.children.pop_front();
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    s.running = 0;
    post(new QEvent(static_cast<QEvent::Type>(fl_stdio_command_event_type())));
  }
}

// Creates the pipes and the workers once. Returns false when a pipe cannot be
// made (nothing is kept then).
bool set_up() {
  Shared &s = shared();
  if (s.set_up) return true;
  if (::pipe2(s.in, O_CLOEXEC) != 0) return false;
  if (::pipe2(s.out, O_CLOEXEC) != 0) {
    ::close(s.in[0]);
    ::close(s.in[1]);
    return false;
  }
  if (::pipe2(s.err, O_CLOEXEC) != 0) {
    for (int fd : {s.in[0], s.in[1], s.out[0], s.out[1]}) ::close(fd);
    return false;
  }
  std::thread(reader, s.out[0], 2).detach();
  std::thread(reader, s.err[0], 3).detach();
  std::thread(watcher).detach();
  s.set_up = true;
  return true;
}

void ensure_receiver() {
  std::lock_guard<std::mutex> lock(shared().mutex);
  if (!shared().receiver && QCoreApplication::instance())
    shared().receiver = new Receiver(QCoreApplication::instance());
}

// Spawns argv with the given descriptors as 0, 1, 2. Returns the pid, or -1.
pid_t spawn(const std::vector<std::string> &args, int fd0, int fd1, int fd2) {
  if (args.empty() || args[0].empty()) return -1;
  std::vector<char *> argv;
  for (const auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_adddup2(&fa, fd0, 0);
  posix_spawn_file_actions_adddup2(&fa, fd1, 1);
  posix_spawn_file_actions_adddup2(&fa, fd2, 2);
  pid_t pid = -1;
  int rc = ::posix_spawnp(&pid, argv[0], &fa, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&fa);
  return rc == 0 ? pid : -1;
}

} // namespace

std::vector<std::string> fl_split_program_line(const char *command_line) {
  std::vector<std::string> args;
  if (!command_line) return args;
  std::string cur;
  bool in_word = false, quoted = false;
  for (const char *s = command_line; *s; ++s) {
    if (*s == '"') {
      quoted = !quoted;
      in_word = true;
    } else if (*s == ' ' && !quoted) {
      if (in_word) args.push_back(cur);
      cur.clear();
      in_word = false;
    } else {
      cur += *s;
      in_word = true;
    }
  }
  if (in_word) args.push_back(cur);
  return args;
}

int fl_run_program(const char *command_line) {
  int null_fd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null_fd < 0) return 0;
  pid_t pid = spawn(fl_split_program_line(command_line), null_fd, null_fd, null_fd);
  ::close(null_fd);
  if (pid < 0) return 0;
  int status = 0;
  pid_t r;
  while ((r = ::waitpid(pid, &status, 0)) < 0 && errno == EINTR) {
  }
  return r == pid ? 1 : 0;
}

int fl_start_program(const char *command_line, int) {
  ensure_receiver();
  if (!set_up()) return 0;
  Shared &s = shared();
  // The child's ends stay open here too: they serve the next child.
  pid_t pid = spawn(fl_split_program_line(command_line), s.in[0], s.out[1], s.err[1]);
  if (pid < 0) {
    std::string text = "Unable to start ";
    text += command_line ? command_line : "";
    text += "\n";
    fl_send_stdio_text(2, text.c_str());
    return 0;
  }
  s.running = 1;
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    s.children.push_back(pid);
  }
  s.started.notify_one();
  return 1;
}

int fl_program_running() { return shared().running.load(); }
void fl_clear_program_running() { shared().running = 0; }

int fl_stdio_command_event_type() {
  static const int type = QEvent::registerEventType();
  return type;
}
