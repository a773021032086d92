/* Build-time trainer for the profile-guided build of the tree-sitter parsers: parses each
 * source file given on the command line with the grammar its extension names, several times,
 * walks every tree and runs the indexer's queries of that grammar over it (query files are
 * given on the command line too, named after their grammar: python.scm, go.scm ...), so that
 * the instrumented runtime and grammars record where indexing spends its time. Other files
 * are ignored. */

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <tree_sitter/api.h>

const TSLanguage* tree_sitter_python(void);
const TSLanguage* tree_sitter_javascript(void);
const TSLanguage* tree_sitter_typescript(void);
const TSLanguage* tree_sitter_tsx(void);
const TSLanguage* tree_sitter_go(void);
const TSLanguage* tree_sitter_rust(void);
const TSLanguage* tree_sitter_java(void);
const TSLanguage* tree_sitter_c(void);
const TSLanguage* tree_sitter_cpp(void);

enum { kRounds = 50 };

static const TSLanguage* language_of(const char* path) {
    const char* dot = strrchr(path, '.');
    if (dot == NULL) return NULL;
    static const struct {
        const char* extension;
        const TSLanguage* (*language)(void);
    } table[] = {
        {".py", tree_sitter_python}, {".js", tree_sitter_javascript}, {".jsx", tree_sitter_javascript},
        {".ts", tree_sitter_typescript}, {".tsx", tree_sitter_tsx}, {".go", tree_sitter_go},
        {".rs", tree_sitter_rust}, {".java", tree_sitter_java}, {".c", tree_sitter_c},
        {".h", tree_sitter_c}, {".cc", tree_sitter_cpp}, {".cpp", tree_sitter_cpp}, {".hpp", tree_sitter_cpp},
    };
    for (size_t i = 0; i < sizeof table / sizeof table[0]; ++i) {
        if (strcmp(dot, table[i].extension) == 0) return table[i].language();
    }
    return NULL;
}

/* The grammar of a query file, by its name. */
static const TSLanguage* query_language_of(const char* path) {
    const char* slash = strrchr(path, '/');
    const char* name = slash != NULL ? slash + 1 : path;
    static const struct {
        const char* file;
        const TSLanguage* (*language)(void);
    } table[] = {
        {"python.scm", tree_sitter_python}, {"javascript.scm", tree_sitter_javascript},
        {"typescript.scm", tree_sitter_typescript}, {"go.scm", tree_sitter_go}, {"rust.scm", tree_sitter_rust},
        {"java.scm", tree_sitter_java}, {"c.scm", tree_sitter_c}, {"cpp.scm", tree_sitter_cpp},
    };
    for (size_t i = 0; i < sizeof table / sizeof table[0]; ++i) {
        if (strcmp(name, table[i].file) == 0) return table[i].language();
    }
    return NULL;
}

static char* read_all(const char* path, long* length) {
    FILE* file = fopen(path, "rb");
    if (file == NULL) return NULL;
    char* text = NULL;
    if (fseek(file, 0, SEEK_END) == 0 && (*length = ftell(file)) >= 0 && fseek(file, 0, SEEK_SET) == 0) {
        text = malloc((size_t)*length + 1);
        if (text != NULL && fread(text, 1, (size_t)*length, file) != (size_t)*length) {
            free(text);
            text = NULL;
        }
    }
    fclose(file);
    return text;
}

enum { kMaxQueries = 16 };

int main(int argc, char** argv) {
    TSParser* parser = ts_parser_new();
    TSQueryCursor* query_cursor = ts_query_cursor_new();
    /* A query file that does not compile on its own grammar is left out: it only trains. */
    const TSLanguage* query_languages[kMaxQueries];
    TSQuery* queries[kMaxQueries];
    int query_count = 0;
    for (int i = 1; i < argc && query_count < kMaxQueries; ++i) {
        const TSLanguage* language = query_language_of(argv[i]);
        if (language == NULL) continue;
        long length = 0;
        char* text = read_all(argv[i], &length);
        if (text == NULL) continue;
        uint32_t error_offset = 0;
        TSQueryError error = TSQueryErrorNone;
        TSQuery* query = ts_query_new(language, text, (uint32_t)length, &error_offset, &error);
        free(text);
        if (query == NULL) continue;
        query_languages[query_count] = language;
        queries[query_count++] = query;
    }
    unsigned long nodes = 0;
    for (int i = 1; i < argc; ++i) {
        if (query_language_of(argv[i]) != NULL) continue;
        const TSLanguage* language = language_of(argv[i]);
        if (language == NULL) continue;
        long length = 0;
        char* text = read_all(argv[i], &length);
        if (text == NULL) {
            fprintf(stderr, "tree-sitter-training: cannot read %s\n", argv[i]);
            return 1;
        }
        ts_parser_set_language(parser, language);
        for (int round = 0; round < kRounds; ++round) {
            TSTree* tree = ts_parser_parse_string(parser, NULL, text, (uint32_t)length);
            TSTreeCursor cursor = ts_tree_cursor_new(ts_tree_root_node(tree));
            for (int more = 1; more;) {
                ++nodes;
                if (ts_tree_cursor_goto_first_child(&cursor)) continue;
                while (!ts_tree_cursor_goto_next_sibling(&cursor)) {
                    if (!ts_tree_cursor_goto_parent(&cursor)) {
                        more = 0;
                        break;
                    }
                }
            }
            ts_tree_cursor_delete(&cursor);
            for (int q = 0; q < query_count; ++q) {
                if (query_languages[q] != language) continue;
                ts_query_cursor_exec(query_cursor, queries[q], ts_tree_root_node(tree));
                TSQueryMatch match;
                while (ts_query_cursor_next_match(query_cursor, &match)) ++nodes;
            }
            ts_tree_delete(tree);
        }
        free(text);
    }
    for (int q = 0; q < query_count; ++q) ts_query_delete(queries[q]);
    ts_query_cursor_delete(query_cursor);
    ts_parser_delete(parser);
    if (nodes == 0) {
        fprintf(stderr, "tree-sitter-training: no source file to parse among the arguments\n");
        return 1;
    }
    return 0;
}
