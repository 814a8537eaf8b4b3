#include "platform/Check.h"

#include "quillet/quillet.h"

#include <cstdio>
#include <cstring>

namespace {

void PrintCheck(const char *expression, const char *file, unsigned line) {
    std::fprintf(stderr, "quillet: check failed: %s (%s, line %u)\n", expression, file, line);
}

// The handler is process configuration set by the host, not state of a run: Dbg_finish keeps it.
DbgCheckHandler &Handler() {
    static DbgCheckHandler handler = PrintCheck;
    return handler;
}

const char *BaseName(const char *path) {
    const char *slash = std::strrchr(path, '/');
    return slash ? slash + 1 : path;
}

} // namespace

namespace quillet {
void ReportCheck(const char *expression, const char *file, unsigned line) {
    Handler()(expression, BaseName(file), line);
}
} // namespace quillet

extern "C" QUILLET_API void Dbg_set_check_handler(DbgCheckHandler handler) {
    Handler() = handler ? handler : PrintCheck;
}
