#pragma once
// The content tables of an index as text without ids: rows named by paths and qualified
// names, so that a refreshed index compares equal to one built from scratch.

#include <filesystem>
#include <string>
#include <vector>

#include "orvane_kestrix/storage/sqlite_schema.hpp"

namespace kestrix_test {

inline std::string dump_by_name(const std::filesystem::path& db_path) {
    orvane_kestrix::storage::Database db = orvane_kestrix::storage::open_index(db_path, {.read_only = true});
    const std::vector<std::string> queries = {
        "SELECT f.path || '|' || f.language || '|' || f.is_test || '|' || f.is_source || '|' || coalesce(c.name, '') || '|' || "
        "f.content_hash || '|' || f.module_name FROM files f LEFT JOIN components c ON c.id = f.component_id",
        "SELECT f.path || '|' || s.fqn || '|' || s.kind || '|' || s.start_line || '|' || coalesce(s.signature, '') || '|' || "
        "coalesce(s.docstring, '') || '|' || s.token_count || '|' || s.production_fan_in || '|' || coalesce(p.fqn, '') "
        "FROM symbols s JOIN files f ON f.id = s.file_id LEFT JOIN symbols p ON p.id = s.parent_id",
        "SELECT f.path || '|' || r.line || '|' || r.name || '|' || r.qualifier || '|' || r.usage_type || '|' || r.context || '|' || "
        "coalesce(c.fqn, '') "
        "FROM refs r JOIN files f ON f.id = r.file_id LEFT JOIN symbols c ON c.id = r.caller_id",
        "SELECT t.fqn || ' <- ' || f.path || ':' || r.line || ':' || r.name FROM ref_targets rt "
        "JOIN symbols t ON t.id = rt.symbol_id JOIN refs r ON r.id = rt.ref_id JOIN files f ON f.id = r.file_id",
        "SELECT f.path || '|' || i.module || '|' || coalesce(i.name, '') FROM imports i JOIN files f ON f.id = i.file_id",
        "SELECT s.path || ' <- ' || t.path || ' ' || ct.rank || ' ' || ct.used_symbols FROM covering_tests ct "
        "JOIN files s ON s.id = ct.source_file_id JOIN files t ON t.id = ct.test_file_id",
    };
    std::string text;
    for (const std::string& sql : queries) {
        orvane_kestrix::storage::Statement statement(db, sql + " ORDER BY 1");
        while (statement.step()) text += std::string(statement.column_text(0)) + '\n';
        text += "--\n";
    }
    return text;
}

}  // namespace kestrix_test
