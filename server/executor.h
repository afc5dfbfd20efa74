// The statement executor of tavrind: from a channel's state and one request's
// bytes to the answer's bytes, on the store of the server (store.h).
//
// Each channel has its own store connection, open database, transaction,
// cursors and MAX setting. Outside BEGIN ... COMMIT/END/ABORT every statement
// is its own transaction; inside, a failed statement is undone and the
// transaction goes on. A statement that needs a lock that another channel
// holds does not wait and does not fail: exec_request reports
// EXEC_WOULD_BLOCK, leaves the channel as it was, and the caller sends the
// same request again later. Transport (shared memory, packets, parking
// clients) is the caller's business; this module never blocks.
//
// Every statement can be stopped: the store asks a check function while it
// runs (SQLite's progress handler, the PostgreSQL store's wait for results),
// which ends the running statement when it has run longer than the
// statement timeout, when the server is asked to stop, when its client
// process has ended or its channel was closed, or when its client cancelled
// it.
//
// Threads: a session is used by one thread at a time (the caller runs each
// channel's requests in order), but different sessions run on different
// threads at once. What one session reads of another (lock holders and
// waiters, the database in use) and the shared catalog are guarded here;
// `log` is called from every thread and must be thread-safe.
// A tuples answer that grows past the answer limit is not sent; the client
// gets an error instead.
#pragma once

#include "server/catalog.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tavrind {

struct Session;

class Store;

// Server-wide state shared by all channels.
struct Executor {
  // With the SQLite store on the catalog's folder; a server may put another
  // store in place before the first session.
  Executor();
  ~Executor();
  Catalog catalog;
  // Where the databases live (store.h).
  std::unique_ptr<Store> store;
  // Every channel's session (each adds and removes itself), for the list of
  // lock holders and waiters; guarded by sessions_mutex.
  std::vector<Session *> sessions;
  std::mutex sessions_mutex;
  // Receives one log line in UTF-8 (without line feed): errors always, every
  // statement when verbose is set. Null: no logging.
  std::function<void(const std::string &)> log;
  bool verbose = false;
  // Set by the STOP statement; the caller ends the server after answering.
  std::atomic<bool> stop_requested{false};
  // Set (also from a signal handler) when the server is to end: the running
  // statement is stopped at once and answered with an error.
  std::atomic<bool> stopping{false};
  // A statement that runs longer is stopped; zero: no limit.
  std::chrono::milliseconds statement_timeout{0};
  // A tuples answer that grows past this many bytes is refused (at most
  // ANSWER_LIMIT_MAX, below 2 GiB).
  size_t max_answer = size_t(1024) << 20;
};

// The largest answer the server ever builds (an answer's length travels as a
// signed 32-bit number).
constexpr size_t ANSWER_LIMIT_MAX = (size_t(1) << 31) - (size_t(1) << 20);

struct SessionState;

// The executor's state of one client (one protocol channel): its store
// connection, open database, transaction, cursors and MAX setting.
struct Session {
  Session(Executor &ex, int id);
  // Rolls back an open transaction, closes cursors and the connection.
  ~Session();
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  Executor &ex;
  int id;
  pid_t client_pid = 0; // the client's process, when the transport knows it
  // The open database; empty when none. Changed only by the thread running
  // the session's request, under database_mutex; other threads read it
  // through session_database().
  std::string database;
  mutable std::mutex database_mutex;
  int32_t max_rows = 0; // MAX n: rows per SELECT and per FETCH; 0 = no limit
  std::unique_ptr<SessionState> st;

  // Is a transaction open (BEGIN without COMMIT/END/ABORT yet)?
  bool in_transaction() const;
};

enum ExecResult {
  EXEC_NO_ANSWER = 0,   // the request gets no answer (close, notice, message text)
  EXEC_ANSWER = 1,      // answer holds the answer to send
  EXEC_WOULD_BLOCK = 2, // another channel holds a lock: send the request again later
};

// Executes one request of channel ch and builds its answer in answer (which
// is replaced). Requests that do not decode get an error answer.
// Returns one of ExecResult. On EXEC_WOULD_BLOCK nothing of the request has
// taken effect. A statement stopped because its client process ended gets
// no answer (EXEC_NO_ANSWER).
//
// With a budget and an overrun callback, a request still running after the
// budget calls *overrun once, on this thread, from inside the running
// statement (the store's check function; a request that does not step
// SQLite's machine, such as a commit waiting for the disk, is not noticed;
// the PostgreSQL store asks it while it waits for every result),
// and then goes on: the caller lets its other work go on elsewhere
// meanwhile. The callback must not use the session.
int exec_request(Session &ch, const unsigned char *req, size_t len,
                 std::vector<unsigned char> &answer,
                 std::chrono::microseconds budget = std::chrono::microseconds{0},
                 const std::function<void()> *overrun = nullptr);

// The client of ch asks that its running (or next-started) statement be
// stopped: it is answered with error 515. session_cancel_clear forgets such
// a wish before a request starts. Thread-safe.
void session_cancel(Session &ch);
void session_cancel_clear(Session &ch);
bool session_cancel_requested(const Session &ch);
// The channel of ch was closed while a statement of it may still run on
// another thread: the statement is stopped (as for a client that ended) and
// gets no answer. Thread-safe.
void session_abandon(Session &ch);
// The session's open database, for threads other than the one running its
// request; "" when none.
std::string session_database(const Session &ch);

// Does the channel's connection hold the write lock of its open database (its
// transaction has begun to write, or started with the lock, and is not over)?
// Parked channels wait for the channel that does. As of the end of the
// channel's last request; safe from any thread (a statement running on
// another thread is not waited for).
bool holds_write_lock(const Session &ch);

// Would a statement of waiter, blocked behind holder's write lock, wait in
// vain? It would when waiter's transaction already reads a snapshot of the
// database and holder's transaction has changed it: once holder commits, the
// snapshot is stale and waiter can never write. The two wait for each other
// (holder's change needs waiter's read to end, waiter needs the lock), so
// the request handler refuses waiter's statement at once.
// Both as of the end of their last requests; safe from any thread.
bool waits_in_vain(const Session &waiter, const Session &holder);

// Who holds a write lock, for the texts of lock waits (German, Latin-1):
// "Kanal 3 (Prozess 1234, Benutzer anna) seit 14:02:11". The time is when the
// holder's transaction took the lock.
std::string lock_holder_text(const Session &holder);

// Who holds the write lock that ch's parked statement waits for when no
// channel of this server does (another server on the same store), as a
// text for error 509; "" when the store cannot tell. Only while ch's
// statement is parked (its connection is idle).
std::string session_foreign_lock_holder(Session &ch);

// The waiting statement of ch is over without the executor seeing it (the
// caller refused it: lock timeout, deadlock); it no longer shows as waiting.
void session_wait_ended(Session &ch);

// The same facts as values: the user name of the client's process ("" when
// unknown) and the time the lock was taken (0 when the channel holds none).
std::string session_user(const Session &ch);
time_t session_lock_since(const Session &ch);

} // namespace tavrind
