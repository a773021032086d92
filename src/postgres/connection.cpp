// libpq behind the connection, result and COPY wrappers.

#include "orvane_kestrix/postgres/connection.hpp"

#include <libpq-fe.h>

#include <charconv>
#include <cstdlib>
#include <cstring>

#include "orvane_kestrix/text/unicode.hpp"

namespace orvane_kestrix::postgres {

namespace {

// libpq's messages end with a newline and may span lines; a message here is one line.
std::string one_line(const char* message) {
    std::string out = message != nullptr ? message : "";
    while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
    for (char& c : out) {
        if (c == '\n') c = ' ';
    }
    return out;
}

std::string error_of(pg_conn* conn) { return one_line(PQerrorMessage(conn)); }

// The statement's parameters as libpq takes them: pointers and lengths, text format.
struct ParameterArrays {
    explicit ParameterArrays(const Parameters& parameters) {
        for (const auto& p : parameters) {
            values.push_back(p ? p->data() : nullptr);
            lengths.push_back(p ? static_cast<int>(p->size()) : 0);
            formats.push_back(0);
        }
    }
    std::vector<const char*> values;
    std::vector<int> lengths;
    std::vector<int> formats;
};

}  // namespace

PostgresError::PostgresError(const std::string& message, std::string sqlstate)
    : std::runtime_error(message), sqlstate_(std::move(sqlstate)) {}

bool is_postgres_url(std::string_view text) {
    return text.starts_with("postgresql://") || text.starts_with("postgres://");
}

std::string redacted_url(std::string_view url) {
    std::string out(url);
    // user:password@ in the authority part.
    if (const auto scheme = out.find("://"); scheme != std::string::npos) {
        const std::size_t authority = scheme + 3;
        const std::size_t end = out.find_first_of("/?", authority);
        const std::size_t at = out.rfind('@', end == std::string::npos ? out.size() : end);
        if (at != std::string::npos && at >= authority) {
            const std::size_t colon = out.find(':', authority);
            if (colon != std::string::npos && colon < at) out.replace(colon + 1, at - colon - 1, "***");
        }
    }
    // password=... in the query part or in key=value form.
    for (std::size_t at = out.find("password="); at != std::string::npos; at = out.find("password=", at + 1)) {
        const std::size_t start = at + 9;
        const std::size_t end = out.find_first_of("& ", start);
        out.replace(start, (end == std::string::npos ? out.size() : end) - start, "***");
    }
    return out;
}

// ---- Result ----

Result::~Result() {
    if (result_ != nullptr) PQclear(result_);
}

Result& Result::operator=(Result&& other) noexcept {
    if (this != &other) {
        if (result_ != nullptr) PQclear(result_);
        result_ = other.result_;
        other.result_ = nullptr;
    }
    return *this;
}

int Result::rows() const { return result_ != nullptr ? PQntuples(result_) : 0; }

bool Result::is_null(int row, int column) const { return PQgetisnull(result_, row, column) != 0; }

std::string_view Result::text(int row, int column) const {
    return {PQgetvalue(result_, row, column), static_cast<std::size_t>(PQgetlength(result_, row, column))};
}

std::optional<std::string> Result::optional_text(int row, int column) const {
    if (is_null(row, column)) return std::nullopt;
    return string(row, column);
}

std::int64_t Result::int64(int row, int column) const {
    const std::string_view value = text(row, column);
    std::int64_t out = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), out);
    if (error != std::errc() || end != value.data() + value.size()) {
        throw PostgresError("the server answered \"" + std::string(value) + "\" where a whole number was expected");
    }
    return out;
}

std::optional<std::int64_t> Result::optional_int64(int row, int column) const {
    if (is_null(row, column)) return std::nullopt;
    return int64(row, column);
}

double Result::real(int row, int column) const {
    // The server writes floats exactly (shortest form that reads back to the same value).
    return std::strtod(std::string(text(row, column)).c_str(), nullptr);
}

bool Result::boolean(int row, int column) const { return text(row, column) == "t"; }

// ---- Connection ----

Connection::Connection(const std::string& url) : display_url_(redacted_url(url)) {
    conn_ = PQconnectdb(url.c_str());
    if (conn_ == nullptr) throw PostgresError("cannot connect to PostgreSQL at " + display_url_ + ": out of memory");
    if (PQstatus(conn_) != CONNECTION_OK) {
        std::string message = "cannot connect to PostgreSQL at " + display_url_ + ": " + error_of(conn_);
        PQfinish(conn_);
        conn_ = nullptr;
        throw PostgresError(message);
    }
    // The server's notices ("... already exists, skipping") are not for the user; errors are
    // reported through exceptions.
    PQsetNoticeProcessor(conn_, [](void*, const char*) {}, nullptr);
    // Text travels as UTF-8 whatever the client's locale says.
    if (PQsetClientEncoding(conn_, "UTF8") != 0) {
        std::string message = "cannot use UTF-8 with PostgreSQL at " + display_url_ + ": " + error_of(conn_);
        PQfinish(conn_);
        conn_ = nullptr;
        throw PostgresError(message);
    }
}

Connection::~Connection() {
    if (conn_ != nullptr) PQfinish(conn_);
}

Connection::Connection(Connection&& other) noexcept
    : conn_(other.conn_), display_url_(std::move(other.display_url_)) {
    other.conn_ = nullptr;
}

Connection& Connection::operator=(Connection&& other) noexcept {
    if (this != &other) {
        if (conn_ != nullptr) PQfinish(conn_);
        conn_ = other.conn_;
        display_url_ = std::move(other.display_url_);
        other.conn_ = nullptr;
    }
    return *this;
}

bool Connection::is_broken() const { return conn_ == nullptr || PQstatus(conn_) != CONNECTION_OK; }

void Connection::rollback_quietly() noexcept {
    if (is_broken()) return;
    try {
        exec("ROLLBACK");
    } catch (const std::exception&) {
        // Nothing more can be done about it.
    }
}

Result Connection::checked(pg_result* raw, std::string_view doing) {
    Result result(raw);
    const ExecStatusType status = raw != nullptr ? PQresultStatus(raw) : PGRES_FATAL_ERROR;
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK || status == PGRES_COPY_IN) return result;
    std::string sqlstate;
    std::string message;
    if (raw != nullptr) {
        if (const char* state = PQresultErrorField(raw, PG_DIAG_SQLSTATE)) sqlstate = state;
        message = one_line(PQresultErrorMessage(raw));
    }
    if (message.empty()) message = error_of(conn_);
    throw PostgresError("cannot " + std::string(doing) + " on PostgreSQL at " + display_url_ + ": " + message, sqlstate);
}

void Connection::exec(const std::string& sql, std::string_view doing) { checked(PQexec(conn_, sql.c_str()), doing); }

Result Connection::query(const std::string& sql, const Parameters& parameters, std::string_view doing) {
    const ParameterArrays p(parameters);
    return checked(PQexecParams(conn_, sql.c_str(), static_cast<int>(parameters.size()), nullptr, p.values.data(),
                                p.lengths.data(), p.formats.data(), 0),
                   doing);
}

void Connection::prepare(const std::string& name, const std::string& sql) {
    checked(PQprepare(conn_, name.c_str(), sql.c_str(), 0, nullptr), "prepare statement " + name);
}

Result Connection::run_prepared(const std::string& name, const Parameters& parameters) {
    const ParameterArrays p(parameters);
    return checked(PQexecPrepared(conn_, name.c_str(), static_cast<int>(parameters.size()), p.values.data(),
                                  p.lengths.data(), p.formats.data(), 0),
                   "read the index (" + name + ")");
}

void Connection::begin_copy(const std::string& copy_sql) {
    const Result started = checked(PQexec(conn_, copy_sql.c_str()), "start " + copy_sql);
    (void)started;
}

void Connection::send_copy_data(std::string_view chunk) {
    if (chunk.empty()) return;
    if (PQputCopyData(conn_, chunk.data(), static_cast<int>(chunk.size())) != 1) {
        throw PostgresError("cannot send rows to PostgreSQL at " + display_url_ + ": " + error_of(conn_));
    }
}

void Connection::end_copy() {
    if (PQputCopyEnd(conn_, nullptr) != 1) {
        throw PostgresError("cannot end a COPY on PostgreSQL at " + display_url_ + ": " + error_of(conn_));
    }
    // The COPY's own outcome, then nothing more.
    Result outcome = checked(PQgetResult(conn_), "write rows");
    while (pg_result* more = PQgetResult(conn_)) PQclear(more);
}

void Connection::abort_copy(const char* reason) {
    PQputCopyEnd(conn_, reason);
    while (pg_result* more = PQgetResult(conn_)) PQclear(more);
}

void append_copy_field(std::string& out, const std::optional<std::string_view>& value) {
    if (!value) {
        out += "\\N";
        return;
    }
    for (const char c : *value) {
        switch (c) {
            case '\\': out += "\\\\"; break;
            case '\t': out += "\\t"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            default: out.push_back(c);
        }
    }
}

std::string int_array_literal(const std::vector<std::int64_t>& values) {
    std::string out = "{";
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i > 0) out.push_back(',');
        out += std::to_string(values[i]);
    }
    return out + "}";
}

std::string text_array_literal(const std::vector<std::string>& values) {
    std::string out = "{";
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i > 0) out.push_back(',');
        out.push_back('"');
        for (const char c : values[i]) {
            if (c == '"' || c == '\\') out.push_back('\\');
            out.push_back(c);
        }
        out.push_back('"');
    }
    return out + "}";
}

bool storable_text(std::string_view text) {
    return text.find('\0') == std::string_view::npos && text::is_valid_utf8(text);
}

}  // namespace orvane_kestrix::postgres
