#pragma once
// One connection to a PostgreSQL server through libpq, with the few calls the index needs:
// statements run with out-of-line parameters (sent with their lengths, never spliced into
// SQL), prepared statements, and COPY FROM STDIN for bulk writes.
//
// A connection belongs to one thread at a time. Every failure throws PostgresError with
// libpq's own message, prefixed with what was being done; a URL in a message never shows
// its password.

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

struct pg_conn;
struct pg_result;

namespace orvane_kestrix::postgres {

class PostgresError : public std::runtime_error {
public:
    PostgresError(const std::string& message, std::string sqlstate = {});
    // The five-character SQLSTATE the server reported; empty for failures of the connection.
    const std::string& sqlstate() const { return sqlstate_; }

private:
    std::string sqlstate_;
};

// Whether `text` is a PostgreSQL connection URL (postgresql:// or postgres://) rather than a
// file path.
bool is_postgres_url(std::string_view text);

// The URL with any password (user:PASSWORD@ or password=...) replaced by "***".
std::string redacted_url(std::string_view url);

// A statement's parameters in order; nullopt is SQL NULL. Sent in text form with explicit
// lengths, so any bytes the server accepts as text pass unchanged.
using Parameters = std::vector<std::optional<std::string>>;

// A query's answer; rows and columns are 0-based. Values are read in text form.
class Result {
public:
    Result() = default;
    explicit Result(pg_result* result) : result_(result) {}
    ~Result();
    Result(Result&& other) noexcept : result_(other.result_) { other.result_ = nullptr; }
    Result& operator=(Result&& other) noexcept;
    Result(const Result&) = delete;
    Result& operator=(const Result&) = delete;

    int rows() const;
    bool is_null(int row, int column) const;
    // Valid while the result lives.
    std::string_view text(int row, int column) const;
    std::string string(int row, int column) const { return std::string(text(row, column)); }
    std::optional<std::string> optional_text(int row, int column) const;
    std::int64_t int64(int row, int column) const;
    std::optional<std::int64_t> optional_int64(int row, int column) const;
    double real(int row, int column) const;
    bool boolean(int row, int column) const;

private:
    pg_result* result_ = nullptr;
};

class Connection {
public:
    // Connects to `url` (libpq's URL or key=value form). Throws PostgresError
    // "cannot connect to PostgreSQL at URL: <libpq's reason>" for an unreachable server, a
    // refused login or a missing database.
    explicit Connection(const std::string& url);
    ~Connection();
    Connection(Connection&& other) noexcept;
    Connection& operator=(Connection&& other) noexcept;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // The URL without its password, for messages.
    const std::string& display_url() const { return display_url_; }

    // Runs one or more statements without parameters.
    void exec(const std::string& sql, std::string_view doing = "run a statement");
    Result query(const std::string& sql, const Parameters& parameters = {}, std::string_view doing = "run a query");
    // Prepares `sql` under `name` for this connection's life.
    void prepare(const std::string& name, const std::string& sql);
    Result run_prepared(const std::string& name, const Parameters& parameters);

    // COPY ... FROM STDIN: `copy_sql` starts it, then `fill` is called with a sender that
    // takes rows in COPY's text format (see copy_field), in chunks of any size.
    template <typename Fill>
    void copy_in(const std::string& copy_sql, Fill&& fill) {
        begin_copy(copy_sql);
        try {
            fill([this](std::string_view chunk) { send_copy_data(chunk); });
        } catch (const std::exception& e) {
            abort_copy(e.what());
            throw;
        }
        end_copy();
    }

    // Rolls back the open transaction, if the connection still works, after a failure that
    // is being reported (and matters more than one of the rollback); never throws.
    void rollback_quietly() noexcept;

    // Whether the connection is still usable (a server that went away breaks it).
    bool is_broken() const;

private:
    void begin_copy(const std::string& copy_sql);
    void send_copy_data(std::string_view chunk);
    void end_copy();
    void abort_copy(const char* reason);
    Result checked(pg_result* result, std::string_view doing);

    pg_conn* conn_ = nullptr;
    std::string display_url_;
};

// Appends one value in COPY's text format: backslash, tab, newline and carriage return
// escaped; nullopt as \N.
void append_copy_field(std::string& out, const std::optional<std::string_view>& value);

// Array literals for parameters of type bigint[] and text[] (each element quoted).
std::string int_array_literal(const std::vector<std::int64_t>& values);
std::string text_array_literal(const std::vector<std::string>& values);

// Whether PostgreSQL can hold `text` as a text value: well-formed UTF-8 without NUL bytes.
bool storable_text(std::string_view text);

}  // namespace orvane_kestrix::postgres
