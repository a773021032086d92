// Options jemalloc reads at start-up (compiled in only where the tool links jemalloc).
// Transparent huge pages for the heap and for jemalloc's own metadata: a full index touches a
// few hundred megabytes of fresh memory (parse trees, SQLite's page cache, the references
// kept for resolution), and faulting it in 4 KB pages was most of the kernel's share of an
// index run (about 4% less wall time on the Python standard library). MALLOC_CONF in the
// environment still overrides these.
extern "C" {
extern const char* malloc_conf;
const char* malloc_conf = "thp:always,metadata_thp:auto";
}
