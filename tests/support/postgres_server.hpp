#pragma once
// A throwaway PostgreSQL server for the tests: initdb and pg_ctl from Debian's postgresql
// package on a temporary directory, listening only on a Unix socket in that directory (no
// TCP). One server per test binary, started on first use, stopped and removed at exit.
//
// Run as root (CI), the directory goes to the `postgres` user and the server programs run as
// that user (initdb refuses root). A missing server is a failure naming scripts/bootstrap,
// never a skipped test.

#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "orvane_kestrix/postgres/connection.hpp"

namespace kestrix_test {

class PostgresServer {
public:
    // A role that logs in with a password (every other role is trusted on the socket).
    static constexpr const char* kPasswordUser = "kestrix_password_user";
    static constexpr const char* kPassword = "right-password";

    // This test binary's server; throws std::runtime_error when it cannot be started.
    static PostgresServer& shared() {
        static PostgresServer server;
        return server;
    }

    // The URL of database `database` as the trusted superuser.
    std::string url(const std::string& database) const {
        return "postgresql:///" + database + "?host=" + dir_.string() + "&user=kestrix";
    }
    std::string url_with_password(const std::string& database, const std::string& password) const {
        return std::string("postgresql://") + kPasswordUser + ":" + password + "@/" + database + "?host=" + dir_.string();
    }

    // A new, empty UTF-8 database (any earlier one of that name dropped); its URL.
    std::string create_database(const std::string& name) {
        orvane_kestrix::postgres::Connection admin(url("postgres"));
        admin.exec("DROP DATABASE IF EXISTS \"" + name + "\" WITH (FORCE)");
        admin.exec("CREATE DATABASE \"" + name + "\" ENCODING 'UTF8' TEMPLATE template0");
        return url(name);
    }

private:
    PostgresServer() {
        const std::filesystem::path bin = server_programs();
        char pattern[] = "/tmp/kestrix-pg-XXXXXX";
        if (mkdtemp(pattern) == nullptr) throw std::runtime_error("cannot make a directory for the test PostgreSQL server");
        dir_ = pattern;
        data_ = dir_ / "data";
        if (geteuid() == 0) {
            const passwd* user = getpwnam("postgres");
            if (user == nullptr) {
                throw std::runtime_error("running as root, the test PostgreSQL server needs the `postgres` user; "
                                         "run scripts/bootstrap (Debian's postgresql package creates it)");
            }
            uid_ = user->pw_uid;
            gid_ = user->pw_gid;
            if (chown(dir_.c_str(), uid_, gid_) != 0) throw std::runtime_error("cannot give " + dir_.string() + " to postgres");
            as_server_user_ = "runuser -u postgres -- ";
        }
        run("initdb", bin / "initdb",
            "-D '" + data_.string() + "' -U kestrix -A trust -E UTF8 --locale=C --no-sync");
        // The password role authenticates with SCRAM; everyone else is trusted on the socket.
        const std::filesystem::path hba = data_ / "pg_hba.conf";
        std::ofstream(hba) << "local all " << kPasswordUser << " scram-sha-256\nlocal all all trust\n";
        if (geteuid() == 0 && chown(hba.c_str(), uid_, gid_) != 0) throw std::runtime_error("cannot give pg_hba.conf to postgres");
        run("pg_ctl start", bin / "pg_ctl",
            "-D '" + data_.string() + "' -l '" + (dir_ / "server.log").string() +
                "' -w -o \"-c listen_addresses='' -c unix_socket_directories='" + dir_.string() +
                "' -c fsync=off -c synchronous_commit=off -c full_page_writes=off"
                // Parallel query's shared memory in the data directory, not /dev/shm, which
                // containers keep small.
                " -c dynamic_shared_memory_type=mmap\" start");
        pg_ctl_ = bin / "pg_ctl";
        // A test binary that dies without running its destructors (an abort, a sanitizer
        // report) would leave the server running: a watchdog stops it and removes the
        // directory once this process is gone.
        const std::string watchdog = "(while kill -0 " + std::to_string(getpid()) +
                                     " 2>/dev/null; do sleep 1; done; cd / && " + stop_command() + "; rm -rf '" +
                                     dir_.string() + "') </dev/null >/dev/null 2>&1 &";
        [[maybe_unused]] const int watching = std::system(watchdog.c_str());
        orvane_kestrix::postgres::Connection admin(url("postgres"));
        admin.exec(std::string("CREATE ROLE ") + kPasswordUser + " LOGIN SUPERUSER PASSWORD '" + kPassword + "'");
    }

    ~PostgresServer() {
        if (!pg_ctl_.empty()) {
            const std::string command = "cd / && " + stop_command() + " >/dev/null 2>&1";
            [[maybe_unused]] const int status = std::system(command.c_str());
        }
        std::error_code error;
        std::filesystem::remove_all(dir_, error);
    }

    std::string stop_command() const {
        return as_server_user_ + "'" + pg_ctl_.string() + "' -D '" + data_.string() + "' -m immediate -w stop";
    }

    // Debian's server programs, of the newest installed version.
    static std::filesystem::path server_programs() {
        std::filesystem::path best;
        int best_version = -1;
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator("/usr/lib/postgresql", error)) {
            const std::filesystem::path bin = entry.path() / "bin";
            if (!std::filesystem::exists(bin / "initdb") || !std::filesystem::exists(bin / "pg_ctl")) continue;
            const int version = std::atoi(entry.path().filename().c_str());
            if (version > best_version) {
                best_version = version;
                best = bin;
            }
        }
        if (best.empty()) {
            throw std::runtime_error("the PostgreSQL server programs (initdb, pg_ctl) are not under "
                                     "/usr/lib/postgresql/VERSION/bin; run scripts/bootstrap to install Debian's "
                                     "postgresql package");
        }
        return best;
    }

    void run(const std::string& what, const std::filesystem::path& program, const std::string& arguments) const {
        const std::filesystem::path log = dir_ / (what.substr(0, what.find(' ')) + ".out");
        const std::string command = "cd / && " + as_server_user_ + "'" + program.string() + "' " + arguments + " >'" +
                                    log.string() + "' 2>&1";
        if (std::system(command.c_str()) != 0) {
            std::ostringstream message;
            message << "the test PostgreSQL server failed at " << what << ": " << std::ifstream(log).rdbuf();
            std::ifstream server_log(dir_ / "server.log");
            if (server_log) message << "\nserver log: " << server_log.rdbuf();
            throw std::runtime_error(message.str());
        }
    }

    std::filesystem::path dir_;
    std::filesystem::path data_;
    std::filesystem::path pg_ctl_;
    std::string as_server_user_;
    uid_t uid_ = 0;
    gid_t gid_ = 0;
};

}  // namespace kestrix_test
