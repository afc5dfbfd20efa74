// A temporary PostgreSQL 15 cluster for tests and benchmarks: made with initdb
// in a new folder, started with pg_ctl on a Unix socket in that folder (no
// TCP), run as the postgres user when this process is root (as the packages
// install it), as this process's user otherwise; stopped and removed again.
//
// The tests that run tavrind once per store use one cluster per test process
// (shared(), started on first use, stopped at exit) and a new PostgreSQL
// database per tavrind start (store_conninfo()), so that every server sees
// empty TAVRIN databases as with a fresh data folder. ZENTIQ_TEST_STORE=
// postgres selects that store; when it is selected and PostgreSQL is not
// installed, the program prints "SKIPPED: ..." and ends with status 77 before
// any test runs. What the tests do on the cluster is their own business.
#pragma once

#include <libpq-fe.h>
#include <pwd.h>
#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace pgcluster {

inline constexpr const char *kPgBin = "/usr/lib/postgresql/15/bin";

// Sets why to text; false, for the failures of the functions below.
inline bool fail(std::string &why, const std::string &text) {
  why = text;
  return false;
}

// True when PostgreSQL 15's programs are installed and, for root, the
// postgres user exists to run them; otherwise false with `why` set.
inline bool installed(std::string &why) {
  if (!std::filesystem::exists(std::string(kPgBin) + "/initdb"))
    return fail(why, std::string("PostgreSQL 15 is not installed (no ") + kPgBin + "/initdb)");
  if (geteuid() == 0 && !getpwnam("postgres"))
    return fail(why, "running as root and there is no postgres user to run PostgreSQL");
  return true;
}

// Rows of one query as texts (a NULL as ""). Connects to `conninfo`, runs
// `sql` (several statements are fine when no rows are wanted) and
// disconnects. False with the server's message in `why`.
inline bool query(const std::string &conninfo, const std::string &sql,
                  std::vector<std::vector<std::string>> *rows, std::string &why) {
  std::unique_ptr<PGconn, void (*)(PGconn *)> conn(PQconnectdb(conninfo.c_str()), PQfinish);
  if (PQstatus(conn.get()) != CONNECTION_OK) return fail(why, PQerrorMessage(conn.get()));
  std::unique_ptr<PGresult, void (*)(PGresult *)> res(PQexec(conn.get(), sql.c_str()), PQclear);
  ExecStatusType st = PQresultStatus(res.get());
  if (st != PGRES_TUPLES_OK && st != PGRES_COMMAND_OK) return fail(why, PQerrorMessage(conn.get()));
  if (rows) {
    rows->clear();
    for (int i = 0; i < PQntuples(res.get()); ++i) {
      std::vector<std::string> row;
      for (int k = 0; k < PQnfields(res.get()); ++k)
        row.emplace_back(PQgetvalue(res.get(), i, k), size_t(PQgetlength(res.get(), i, k)));
      rows->push_back(std::move(row));
    }
  }
  return true;
}

class Cluster {
public:
  Cluster() = default;
  Cluster(const Cluster &) = delete;
  Cluster &operator=(const Cluster &) = delete;
  ~Cluster() { stop(); }

  // Makes a cluster in a new folder under `root` (name prefix zentiq_<tag>_)
  // and starts it with the server settings `settings` (e.g. "-c fsync=off").
  // False with `why` set; what was made is removed again by stop().
  bool start(const std::string &root, const std::string &tag, const std::string &settings,
             std::string &why) {
    if (!installed(why)) return false;
    std::string tmpl = root + "/zentiq_" + tag + "_XXXXXX";
    if (!mkdtemp(tmpl.data())) return fail(why, "no temporary folder under " + root);
    dir_ = tmpl;
    owner_ = getpid();
    settings_ = settings;
    // Who made it, for sweep_orphans() should this process be killed.
    std::ofstream(dir_ + "/owner") << owner_ << "\n";
    if (geteuid() == 0) {
      struct passwd *pw = getpwnam("postgres");
      if (!pw || chown(dir_.c_str(), pw->pw_uid, pw->pw_gid) != 0)
        return fail(why, "cannot give " + dir_ + " to the postgres user");
    }
    // The C locale keeps the cluster independent of the locales installed;
    // the encoding is what tavrind requires.
    if (run_tool("initdb -D " + dir_ + "/data -A trust -U postgres -E UTF8 --locale=C --no-sync"))
      return fail(why, "initdb failed (see " + dir_ + "/setup.log)");
    return start_again() || fail(why, "pg_ctl start failed (see " + dir_ + "/pg.log)");
  }

  // Starts the server of the cluster again after stop_immediate(); true when
  // it accepts connections.
  bool start_again() {
    return run_tool("pg_ctl -D " + dir_ + "/data -l " + dir_ + "/pg.log -w -t 60 -o \"-k " + dir_ +
                    " -c listen_addresses='' -p 5432 -c max_connections=300 " + settings_ +
                    "\" start") == 0;
  }

  // Ends the server at once, as a crash would: every connection is broken,
  // open transactions are lost. The folder stays for start_again().
  bool stop_immediate() { return run_tool("pg_ctl -D " + dir_ + "/data -m immediate -w stop") == 0; }

  // Stops the server and removes the folder; only in the process that made
  // the cluster (a forked child leaves it alone).
  void stop() {
    if (dir_.empty() || owner_ != getpid()) return;
    if (std::filesystem::exists(dir_ + "/data/postmaster.pid"))
      run_tool("pg_ctl -D " + dir_ + "/data -m fast -w -t 60 stop");
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
    dir_.clear();
  }

  // libpq connection string for database `dbname` of the running cluster.
  std::string conninfo(const std::string &dbname = "postgres") const {
    return "host=" + dir_ + " port=5432 user=postgres dbname=" + dbname;
  }

  // Creates an empty database with a name not used before in this process
  // (zq<pid>_<n>); its connection string, or "" with `why` set.
  std::string new_database(std::string &why) {
    static std::atomic<int> n{0};
    std::string name = "zq" + std::to_string(getpid()) + "_" + std::to_string(n++);
    if (!query(conninfo(), "CREATE DATABASE " + name, nullptr, why)) return "";
    return conninfo(name);
  }

  // Runs a program of PostgreSQL's bin folder with its arguments, as the
  // postgres user when this process is root; output to setup.log in the
  // cluster's folder. Returns the program's exit status.
  int run_tool(const std::string &cmdline) const {
    std::string cmd = (geteuid() == 0 ? "runuser -u postgres -- " : "") + std::string(kPgBin) + "/" +
                      cmdline + " >>" + dir_ + "/setup.log 2>&1";
    return std::system(cmd.c_str());
  }

  const std::string &dir() const { return dir_; }

  // Stops and removes the clusters under `root` (name prefix zentiq_<tag>_)
  // whose making process is gone: left behind by a test process that was
  // killed (a timeout, a crash) before it could stop its cluster.
  static void sweep_orphans(const std::string &root, const std::string &tag) {
    std::error_code ec;
    for (auto &e : std::filesystem::directory_iterator(root, ec)) {
      std::string name = e.path().filename().string();
      if (name.rfind("zentiq_" + tag + "_", 0) != 0) continue;
      pid_t pid = 0;
      std::ifstream(e.path() / "owner") >> pid;
      if (pid <= 0 || kill(pid, 0) == 0 || errno != ESRCH) continue;
      Cluster orphan;
      orphan.dir_ = e.path().string();
      orphan.owner_ = getpid();
      orphan.stop();
    }
  }

private:
  std::string dir_, settings_;
  pid_t owner_ = 0;
};

// True when the tests are to run tavrind on the PostgreSQL store
// (ZENTIQ_TEST_STORE=postgres).
inline bool postgres_store() {
  const char *v = std::getenv("ZENTIQ_TEST_STORE");
  return v && std::string(v) == "postgres";
}

// The cluster of this test process: started on first use under /tmp without
// fsync, stopped when the process ends. Null with `why` set when it cannot
// start (later calls give the same answer without trying again).
inline Cluster *shared(std::string &why) {
  static std::unique_ptr<Cluster> cluster;
  static std::string failed;
  if (!cluster && failed.empty()) {
    auto c = std::make_unique<Cluster>();
    Cluster::sweep_orphans("/tmp", "pgtest");
    if (c->start("/tmp", "pgtest", "-c fsync=off", failed))
      cluster = std::move(c);
    else if (failed.empty())
      failed = "the PostgreSQL cluster did not start";
  }
  why = failed;
  return cluster.get();
}

// The connection string tavrind's store is given for one server start: ""
// for the SQLite store, else a new database in the shared cluster. False
// with `why` set when the PostgreSQL store was asked for and cannot be had.
inline bool store_conninfo(std::string &conninfo, std::string &why) {
  conninfo.clear();
  if (!postgres_store()) return true;
  Cluster *c = shared(why);
  if (!c) return false;
  conninfo = c->new_database(why);
  return !conninfo.empty();
}

// Checked once per program before its tests: a PostgreSQL run where
// PostgreSQL is missing is skipped as a whole (status 77 for CTest).
inline const bool checked_at_start = [] {
  std::string why;
  if (postgres_store() && !installed(why)) {
    std::printf("SKIPPED: %s\n", why.c_str());
    std::fflush(stdout);
    std::_Exit(77);
  }
  return true;
}();

} // namespace pgcluster
