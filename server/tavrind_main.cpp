// tavrind, the TAVRIN database server: serves the databases of one data
// folder (SQLite files), or of a PostgreSQL database, to clients through the
// shared-memory protocol.
//
// This file only reads the command line, sets up logging and signals, and
// joins the pieces: the data folder (catalog.h), the store (store.h), the
// executor behind the request handler (handler.h) and the protocol server
// (protocol.h). The migration of a data folder into PostgreSQL
// (--import-sqlite) is pgcopy.h's.
#include "server/catalog.h"
#include "server/executor.h"
#include "server/handler.h"
#include "server/pgcopy.h"
#include "server/protocol.h"
#include "server/store.h"

#include <libpq-fe.h>

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <grp.h>
#include <string>
#include <sys/stat.h>

namespace {

tavrind::ProtocolServer *g_server = nullptr;
tavrind::Executor *g_executor = nullptr;

void on_signal(int) {
  // A running statement is stopped first, so that the server ends promptly.
  if (g_executor) g_executor->stopping.store(true);
  if (g_server) g_server->request_stop();
}

void usage(FILE *f) {
  fputs("Usage: tavrind --data DIR [--postgres CONNINFO] [--namespace NS] [--group NAME]\n"
        "               [--lock-timeout SECONDS] [--max-clients N] [--max-request-mb N]\n"
        "               [--statement-timeout SECONDS] [--max-answer-mb MB]\n"
        "               [--sync full|normal] [--no-demo] [--verbose]\n"
        "       tavrind --postgres CONNINFO --import-sqlite DIR\n"
        "Serves the TAVRIN databases of the folder DIR (one SQLite file DIR/<NAME>.db each),\n"
        "or of a PostgreSQL database, to clients on this machine through shared memory.\n"
        "  --data DIR       the data folder; the first start creates it with the system\n"
        "                   database TDSYS and the demo database DEMO (with --postgres it\n"
        "                   holds the backup folder only)\n"
        "  --postgres CONNINFO\n"
        "                   keep the databases in the PostgreSQL database that the libpq\n"
        "                   connection string CONNINFO names (one schema per database);\n"
        "                   passwords come from libpq's password or service file\n"
        "  --import-sqlite DIR\n"
        "                   with --postgres: copy every database of the SQLite data folder\n"
        "                   DIR into the cluster, verify it and end\n"
        "  --no-demo        the first start creates TDSYS only, without DEMO\n"
        "  --namespace NS   prefix of the shared-memory objects (default: the environment\n"
        "                   variable TAVRIN_NAMESPACE, else u<uid>_ of this user)\n"
        "  --group NAME     a shared server: the members of group NAME may connect too\n"
        "                   (the objects get mode 0660 instead of 0600)\n"
        "  --lock-timeout SECONDS\n"
        "                   how long a statement waits for a lock that another client\n"
        "                   holds before it is refused with error 509 (default 30)\n"
        "  --max-clients N  how many clients may be connected at once; further ones are\n"
        "                   refused at the handshake (default 64)\n"
        "  --max-request-mb N\n"
        "                   the longest request a client may send, in MiB (1-1024,\n"
        "                   default 1024); memory is taken as its bytes come in, and a\n"
        "                   request left incomplete for 30 s is dropped\n"
        "  --statement-timeout SECONDS\n"
        "                   a statement that runs longer is stopped and refused with\n"
        "                   error 511 (default 0: no limit)\n"
        "  --max-answer-mb MB\n"
        "                   a query whose answer grows past MB megabytes is refused with\n"
        "                   error 514 (default 1024; at most 2047)\n"
        "  --sync full|normal\n"
        "                   full: every COMMIT syncs the log to disk, so a committed\n"
        "                   transaction survives a power loss (the default); normal:\n"
        "                   faster commits that survive a crash of the server, but the\n"
        "                   last ones may be lost when the machine goes down\n"
        "  --verbose        log every statement, not only connects, disconnects and errors\n"
        "  --help           show this text\n"
        "SIGINT and SIGTERM, and the statement STOP, end the server.\n",
        f);
}

// Reads a number from an option's value; false when it is not one in
// [lo, hi].
bool read_number(const char *text, double lo, double hi, double &out) {
  char *end = nullptr;
  out = strtod(text, &end);
  return end != text && *end == 0 && std::isfinite(out) && out >= lo && out <= hi;
}

void log_line(const std::string &line) { fprintf(stderr, "tavrind: %s\n", line.c_str()); }

} // namespace

int main(int argc, char **argv) {
  std::string data, postgres, import_dir;
  bool verbose = false, demo = true, sync_full = true;
  double lock_timeout = 30, max_clients = 64, max_request_mb = 1024, statement_timeout = 0,
         max_answer_mb = 1024;
  ipc::Access access;
  std::string group_name;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      usage(stdout);
      return 0;
    } else if (a == "--verbose") {
      verbose = true;
    } else if (a == "--no-demo") {
      demo = false;
    } else if ((a == "--lock-timeout" || a == "--max-clients" || a == "--max-request-mb") &&
               i + 1 < argc) {
      const char *v = argv[++i];
      bool ok = a == "--lock-timeout" ? read_number(v, 0, 1e6, lock_timeout)
                : a == "--max-clients"
                    ? read_number(v, 1, 1024, max_clients) && max_clients == std::floor(max_clients)
                    : read_number(v, 1, 1024, max_request_mb) &&
                          max_request_mb == std::floor(max_request_mb);
      if (!ok) {
        fprintf(stderr, "tavrind: invalid value '%s' for %s\n", v, a.c_str());
        return 2;
      }
    } else if (a == "--group" && i + 1 < argc) {
      const struct group *gr = getgrnam(argv[++i]);
      if (!gr) {
        fprintf(stderr, "tavrind: unknown group '%s'\n", argv[i]);
        return 2;
      }
      access.group = gr->gr_gid;
      group_name = gr->gr_name;
    } else if ((a == "--statement-timeout" || a == "--max-answer-mb") && i + 1 < argc) {
      const char *v = argv[++i];
      if (!(a == "--statement-timeout" ? read_number(v, 0, 1e6, statement_timeout)
                                       : read_number(v, 1, 2047, max_answer_mb))) {
        fprintf(stderr, "tavrind: invalid value '%s' for %s\n", v, a.c_str());
        return 2;
      }
    } else if (a == "--sync" && i + 1 < argc) {
      std::string v = argv[++i];
      if (v != "full" && v != "normal") {
        fprintf(stderr, "tavrind: invalid value '%s' for --sync (full or normal)\n", v.c_str());
        return 2;
      }
      sync_full = v == "full";
    } else if (a == "--postgres" && i + 1 < argc) {
      postgres = argv[++i];
    } else if (a == "--import-sqlite" && i + 1 < argc) {
      import_dir = argv[++i];
    } else if ((a == "--data" || a == "--namespace") && i + 1 < argc) {
      if (a == "--data")
        data = argv[++i];
      else
        setenv("TAVRIN_NAMESPACE", argv[++i], 1);
    } else {
      fprintf(stderr, "tavrind: unknown or incomplete option '%s'\n", a.c_str());
      usage(stderr);
      return 2;
    }
  }
  if (!import_dir.empty()) {
    if (postgres.empty()) {
      fputs("tavrind: --import-sqlite needs --postgres CONNINFO\n", stderr);
      return 2;
    }
    std::unique_ptr<PGconn, void (*)(PGconn *)> conn(PQconnectdb(postgres.c_str()), PQfinish);
    if (PQstatus(conn.get()) != CONNECTION_OK) {
      fprintf(stderr, "tavrind: cannot reach the PostgreSQL cluster: %s", PQerrorMessage(conn.get()));
      return 1;
    }
    std::vector<std::string> report;
    std::string err;
    int ok = tavrind::pgcopy_import_sqlite(conn.get(), import_dir, report, err);
    for (const std::string &line : report) printf("%s\n", line.c_str());
    if (!ok) {
      fprintf(stderr, "tavrind: import of %s failed: %s\n", import_dir.c_str(), err.c_str());
      return 1;
    }
    return 0;
  }
  if (data.empty()) {
    fputs("tavrind: --data DIR is required\n", stderr);
    usage(stderr);
    return 2;
  }
  setvbuf(stderr, nullptr, _IOLBF, 0);

  tavrind::Executor ex;
  ex.verbose = verbose;
  ex.log = log_line;
  ex.statement_timeout =
      std::chrono::milliseconds(static_cast<long long>(std::llround(statement_timeout * 1000)));
  ex.max_answer = static_cast<size_t>(max_answer_mb * 1048576.0);
  ex.catalog.sync_full = sync_full;
  g_executor = &ex;
  tavrind::ExecHandler handler(ex);
  handler.set_lock_timeout(
      std::chrono::milliseconds(static_cast<long long>(std::llround(lock_timeout * 1000))));
  tavrind::ProtocolServer srv(handler);
  srv.set_max_channels(static_cast<int>(max_clients));
  srv.set_access(access);
  srv.set_max_request(static_cast<uint32_t>(max_request_mb) << 20);
  // The namespace first: a second server stops here and touches no data.
  if (!srv.start()) return 1; // the reason has been printed
  // A signal during the first start's creation of TDSYS and DEMO ends the
  // server as soon as they are done.
  g_server = &srv;
  struct sigaction sa {};
  sa.sa_handler = on_signal;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  // A file size limit makes a write fail (the statement gets its error)
  // instead of killing the server in the middle of it.
  signal(SIGXFSZ, SIG_IGN);
  // The databases are private to the server's user: everything made from
  // here on is 0600 (folders 0700), and what an older server or another
  // umask left open is closed now.
  umask(077);
  std::string err;
  tavrind::catalog_sqlite_setup();
  if (!tavrind::catalog_folder(ex.catalog, data, err)) {
    log_line("cannot use the data folder " + data + ": " + err);
    srv.shutdown();
    return 1;
  }
  if (!postgres.empty()) {
    ex.store = tavrind::store_pg(ex.catalog, postgres, err);
    if (!ex.store) {
      log_line("cannot reach the PostgreSQL cluster: " + err);
      srv.shutdown();
      return 1;
    }
  }
  if (!ex.store->init(demo, err)) {
    log_line("cannot create the first databases in " + ex.store->where() + ": " + err);
    srv.shutdown();
    return 1;
  }
  for (const std::string &line : catalog_make_private(ex.catalog)) log_line(line);
  std::string ns = ipc::namespace_name();
  log_line("serving " + ex.store->where() + (ns.empty() ? "" : " in namespace " + ns) +
           (access.shared() ? " for group " + group_name : ""));
  srv.run();
  srv.shutdown();
  g_server = nullptr;
  g_executor = nullptr;
  log_line("stopped");
  return 0;
}
